// CCITT pages (compressions 2, 3, 4 and 3 with two-dimensional coding,
// here 45): the strips go to the fax decoders, whose rows reach the raster
// callback as they deliver them (packed rows, or run records for Group 4).
#include <algorithm>

#include "core/stream.h"
#include "formats/ccitt/ccitt.h"
#include "formats/tiff/tiff_read.h"

namespace tesslin::tiff {

int32_t PageReader::decode_ccitt() {
    if (bits_ != 1) return IMG_ERR_DEPTH;
    kind_ = Kind::kCopy;
    out_bits_ = 1;
    planes_ = 1;
    raw_row_ = chunky_row_ = (width_ + 7) / 8;
    out_row_ = row_bytes(width_, 1);
    if (width_ > ccitt::kMaxFaxWidth) return IMG_ERR_BAD_IMAGE;
    // Every coded row takes at least one bit: a page far taller than its
    // data could code is refused before rows are made up for it.
    const int64_t capacity = file_.capacity();
    if (capacity >= 0 && height_ > (uint64_t(capacity) + 8192) * 8) return IMG_ERR_BAD_IMAGE;
    int32_t r = load_strip_table();
    if (r < 0) return r;
    r = build_header();
    if (r < 0) return r;

    ccitt::FaxParams p;
    p.width = width_;
    p.height = height_;
    p.fill_order = dir_.fill_order == 2 ? 2 : 1;
    // The directory's photometric value was flipped for CCITT data: 1 for
    // WhiteIsZero, whose white runs become 1 bits as they are.
    p.no_inversion = photometric_ != 0 ? 1 : 0;
    const uint32_t c = compression_;
    p.mode = c == 2 ? ccitt::kModeMhAligned : c == 3 ? ccitt::kModeG3 : c == 45 ? ccitt::kModeG3Mr
                                                                                : ccitt::kModeG4;
    const uint32_t strips = dir_.tiled ? 1 : strips_per_plane_;
    const uint64_t base = file_.base();
    for (uint32_t s = 0; s < strips; ++s) {
        const uint32_t index = strip_index(0, s);
        const uint32_t first = s * rows_per_strip_;
        const uint32_t rows = std::min(rows_per_strip_, height_ - first);
        if (c == 4 && strips > 1) {
            // Several Group 4 strips: each one read whole and decoded from
            // memory, repeating to the page height only after the last.
            r = read_strip(index, &strip_);
            if (r < 0) return r;
            ccitt::FaxParams m = p;
            m.mode = ccitt::kModeG4Memory;
            m.data_length = uint32_t(strip_.size());
            m.flags = s + 1 < strips ? ccitt::kFaxNoRepeatToHeight : 0;
            r = ccitt::fax_decode_g4(strip_.data(), rows, first, m, 0, raster_, user_);
        } else {
            const uint64_t at = base + offsets_[index];
            if (at > 0x7FFFFFFF || stream::seek(file_.stream(), int32_t(at), 0) < 0)
                return IMG_ERR_READ;
            r = ccitt::fax_decode(nullptr, rows, first, p, file_.stream(), raster_, user_);
        }
        if (r < 0) return r;
    }
    return 0;
}

}  // namespace tesslin::tiff
