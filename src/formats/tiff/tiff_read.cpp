// The TIFF reader: opens the page, announces the DIB header, runs the strip
// decoders of the page's compression and turns every raw row into a DIB row.
#include "formats/tiff/tiff_read.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/limits.h"
#include "core/pixels.h"
#include "core/settings.h"
#include "core/stream.h"
#include "formats/tiff/tiff.h"
#include "process/colour/palette.h"

namespace tesslin::tiff {

const uint8_t kBitReverse[256] = {
#define R2(n) n, n + 2 * 64, n + 1 * 64, n + 3 * 64
#define R4(n) R2(n), R2(n + 2 * 16), R2(n + 1 * 16), R2(n + 3 * 16)
#define R6(n) R4(n), R4(n + 2 * 4), R4(n + 1 * 4), R4(n + 3 * 4)
    R6(0), R6(2), R6(1), R6(3)
#undef R6
#undef R4
#undef R2
};

void reverse_bits(uint8_t* data, size_t n) {
    for (size_t i = 0; i < n; ++i) data[i] = kBitReverse[data[i]];
}

namespace {

// How far the stored bytes of a compression can expand: a page's declared
// size beyond that cannot be backed by the stream (strips may share their
// data, which leaves room for uncompressed pages too).
limits::Coding coding_of(uint32_t compression) {
    switch (compression) {
        case 1: return limits::kRawShared;
        case 32773: return limits::kPackBits;
        case 8: case 32946: return limits::kDeflate;
        default: return limits::kLzw;
    }
}

inline uint32_t sample_bits(const uint8_t* row, uint64_t bit, uint32_t bits) {
    const uint32_t byte = uint32_t(bit >> 3), shift = 8 - bits - uint32_t(bit & 7);
    return (row[byte] >> shift) & ((1u << bits) - 1);
}

inline void put_nibble(uint8_t* out, uint32_t x, uint32_t v) {
    if (x & 1) out[x >> 1] = uint8_t((out[x >> 1] & 0xF0) | v);
    else out[x >> 1] = uint8_t((out[x >> 1] & 0x0F) | (v << 4));
}

inline uint8_t clamp255(int v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

}  // namespace

PageReader::PageReader(TiffFile& file, const Directory& dir, IMG_RASTER_CALLBACK raster,
                       intptr_t user, IMG_HEADER_CALLBACK header, uint32_t tile, int32_t channel)
    : file_(file), dir_(dir), raster_(raster), user_(user), header_(header), tile_(tile),
      channel_(channel) {}

int32_t PageReader::run() {
    const Directory& d = dir_;
    width_ = d.width;
    height_ = d.length;
    rows_per_strip_ = d.rows_per_strip;
    // Fax pages without a length: the two standard page sizes.
    if (height_ == 0) height_ = width_ == 1728 ? 1045 : width_ == 2544 ? 2000 : 0;
    if (rows_per_strip_ == 0)
        rows_per_strip_ = width_ == 1728 ? 1045 : width_ == 2544 ? 2000 : height_;
    if (int32_t s = limits::check_dimensions(width_, height_)) return s;
    rows_per_strip_ = std::min(rows_per_strip_, height_);
    samples_ = d.samples ? d.samples : 1;
    bits_ = d.bits;
    compression_ = d.compression;
    photometric_ = d.photometric;
    if (d.tiled) rows_per_strip_ = height_;
    strips_per_plane_ = (height_ + rows_per_strip_ - 1) / rows_per_strip_;

    const uint32_t c = compression_;
    if (c == 7 || (c == 6 && !d.jpeg_dc.present()) || d.jpeg_interchange) return decode_jpeg();
    if (c == 32010 || c == 32008) return IMG_ERR_COMPRESSION;
    if (c == 6) return decode_old_jpeg();
    if (c == 2 || c == 3 || c == 4 || c == 45) {
        if (bits_ == 0) bits_ = 1;
        return decode_ccitt();
    }
    if (c == 9 || c == 34661 || c == 32780) {
        if (bits_ == 0) bits_ = 1;
        return decode_jbig();
    }
    if (c != 1 && c != 32773 && c != 5 && c != 8 && c != 32946) return IMG_ERR_COMPRESSION;
    int32_t r = plan();
    if (r < 0) return r;
    r = check_size(coding_of(c));
    if (r < 0) return r;
    r = load_strip_table();
    if (r < 0) return r;
    r = build_header();
    if (r < 0) return r;
    return run_strips();
}

// Chooses the raw row layout and the conversion into DIB rows.
int32_t PageReader::plan() {
    const uint32_t n = samples_, b = bits_, ph = photometric_;
    if (b == 0 || b > 16 || n > 16) return IMG_ERR_DEPTH;
    planes_ = dir_.planar == 2 && n >= 2 && n <= 4 ? n : 1;
    const uint64_t chunky = (uint64_t(width_) * b * n + 7) / 8;
    const uint64_t plane_row = planes_ > 1 ? (uint64_t(width_) * b + 7) / 8 : chunky;
    if (chunky > (uint64_t(1) << 28)) return IMG_ERR_BAD_IMAGE;
    chunky_row_ = uint32_t(chunky);
    raw_row_ = uint32_t(plane_row);
    unit_rows_ = 1;

    if (channel_) {
        if (b % 8 || planes_ > 1) return IMG_ERR_DEPTH;
        if (uint32_t(channel_) >= n * b / 8) return IMG_ERR_BAD_IMAGE;
        kind_ = Kind::kChannel;
        out_bits_ = 8;
    } else if (ph == 6 && n >= 3 && b == 8 && compression_ != 6 && compression_ != 7) {
        sub_h_ = dir_.ycbcr_h ? dir_.ycbcr_h : 1;
        sub_v_ = dir_.ycbcr_v ? dir_.ycbcr_v : 1;
        if ((sub_h_ != 1 && sub_h_ != 2 && sub_h_ != 4) || (sub_v_ != 1 && sub_v_ != 2 && sub_v_ != 4))
            return IMG_ERR_VARIANT;
        if (planes_ > 1 && (sub_h_ > 1 || sub_v_ > 1)) return IMG_ERR_VARIANT;
        if (sub_h_ > 1 || sub_v_ > 1) {
            unit_rows_ = sub_v_;
            const uint64_t blocks = (uint64_t(width_) + sub_h_ - 1) / sub_h_;
            raw_row_ = chunky_row_ = uint32_t(blocks * (sub_h_ * sub_v_ + 2));
            if (rows_per_strip_ % sub_v_ && rows_per_strip_ < height_) return IMG_ERR_BAD_IMAGE;
        }
        kind_ = Kind::kYCbCr;
        out_bits_ = 24;
    } else if (ph == 8 && n >= 3 && b == 8) {
        kind_ = Kind::kLab;
        out_bits_ = 24;
    } else if (n == 1) {
        switch (b) {
            case 1: case 4: case 8: kind_ = Kind::kCopy; out_bits_ = b; break;
            case 2: kind_ = Kind::kWiden2; out_bits_ = 4; break;
            case 12: kind_ = Kind::kGrey12; out_bits_ = 16; break;
            case 16: kind_ = Kind::kGrey16; out_bits_ = 16; break;
            default: return IMG_ERR_DEPTH;
        }
    } else if (n == 2) {
        if (b != 4 && b != 8 && b != 16) return IMG_ERR_DEPTH;
        kind_ = Kind::kFirstOfTwo;
        out_bits_ = b;
    } else if (ph == 5) {
        if (n >= 4 && b == 8) kind_ = Kind::kCmyk8;
        else if (n >= 4 && b == 16) kind_ = Kind::kCmyk16;
        else if (n == 3 && b == 8) kind_ = Kind::kCmy8;
        else return IMG_ERR_DEPTH;
        out_bits_ = kind_ == Kind::kCmy8 ? 24 : 32;
    } else {
        if (b == 8) kind_ = n == 3 ? Kind::kRgb8 : Kind::kRgba8;
        else if (b == 16) kind_ = n == 3 ? Kind::kRgb16 : Kind::kRgba16;
        else if (b == 4 && n <= 4) kind_ = Kind::kRgb4;
        else if (b == 1 && n == 3) kind_ = Kind::kRgb1;
        else if (b == 1 && n == 4) kind_ = Kind::kNibble4;
        else return IMG_ERR_DEPTH;
        out_bits_ = kind_ == Kind::kRgba8 || kind_ == Kind::kRgba16 ? 32
                    : kind_ == Kind::kNibble4                       ? 4
                                                                    : 24;
    }
    const bool grey = kind_ == Kind::kCopy || kind_ == Kind::kWiden2 || kind_ == Kind::kGrey16 ||
                      kind_ == Kind::kGrey12 || kind_ == Kind::kFirstOfTwo;
    invert_ = grey && ph == 0;
    predictor_ = dir_.predictor == 2 && (b == 8 || b == 16);
    reverse_bits_ = dir_.fill_order == 2;
    limits::ImageBytes out_size;
    if (int32_t s = limits::image_bytes(width_, height_, out_bits_, &out_size)) return s;
    out_row_ = uint32_t(out_size.row);
    direct_ = kind_ == Kind::kCopy && !invert_ && !predictor_ && planes_ == 1 &&
              !(reverse_bits_ && compression_ == 1);
    in_place_ = planes_ == 1 && ((kind_ == Kind::kRgb8 && n == 3) || (kind_ == Kind::kRgba8 && n == 4));
    return 0;
}

int32_t PageReader::check_size(limits::Coding coding) const {
    const uint64_t raw = uint64_t(chunky_row_) * height_ / unit_rows_;
    return limits::check_declared_size(file_.capacity(), file_.base(), raw, coding, IMG_ERR_READ);
}

int32_t PageReader::build_palette(RgbQuad* pal, uint32_t bits) {
    const uint32_t entries = palette_entries(bits);
    auto* h = reinterpret_cast<DibHeader*>(header_block_.data());
    if (kind_ != Kind::kChannel && photometric_ == 3 && dir_.color_map.present()) {
        const uint32_t count = dir_.color_map.count;
        uint32_t n = count / 3;
        if (n > 2000) n = 256;
        n = std::min(n, entries);
        std::vector<uint32_t> map;
        if (dir_.gray_curve.present()) {
            if (!file_.values(dir_.gray_curve, n, &map)) return IMG_ERR_READ;
            const double unit = 2.0 * std::pow(10.0, double(dir_.gray_unit));
            for (uint32_t i = 0; i < map.size(); ++i) {
                const double level = 255.0 / std::pow(10.0, double(map[i]) / unit);
                const uint8_t g = uint8_t(std::clamp(level, 0.0, 255.0));
                pal[i] = RgbQuad{g, g, g, 0};
            }
            return 0;
        }
        const uint32_t third = count / 3;
        if (!file_.values(dir_.color_map, third * 3, &map)) return IMG_ERR_READ;
        // 16-bit levels keep their high byte; a map whose values all stay
        // below 256 was written with 8-bit levels and is taken as it is.
        const bool wide = std::any_of(map.begin(), map.end(), [](uint32_t v) { return v >= 256; });
        auto level = [wide](uint32_t v) { return uint8_t(wide ? v >> 8 : v); };
        for (uint32_t i = 0; i < n; ++i)
            pal[i] = RgbQuad{level(map[2 * third + i]), level(map[third + i]), level(map[i]), 0};
        return 0;
    }
    if (kind_ == Kind::kNibble4) build_standard_palette(h, "dither");
    else build_standard_palette(h, "tiff");
    return 0;
}

int32_t PageReader::build_header() {
    header_block_.assign(kHeaderBlockSize, 0);
    auto* h = reinterpret_cast<DibHeader*>(header_block_.data());
    h->biSize = kDibHeaderSize;
    h->biWidth = int32_t(width_);
    h->biHeight = int32_t(height_);
    h->biPlanes = 1;
    h->biBitCount = uint16_t(out_bits_);
    h->biCompression = kind_ == Kind::kRgba8 || kind_ == Kind::kRgba16 ? IMG_COMPRESSION_ALPHA : 0;
    h->biSizeImage = out_row_ * height_;
    dib_set_resolution(h, int32_t(dir_.x_res), int32_t(dir_.y_res));
    if (palette_entries(out_bits_)) {
        const int32_t r = build_palette(dib_palette(h), out_bits_);
        if (r < 0) return r;
    }
    const int32_t r = header_(h, user_);
    return r < 0 ? r : 0;
}

uint32_t PageReader::strip_index(uint32_t plane, uint32_t strip) const {
    if (!dir_.tiled) return plane * strips_per_plane_ + strip;
    const uint64_t across = (uint64_t(dir_.image_width) + width_ - 1) / width_;
    const uint64_t down = (uint64_t(dir_.image_length) + height_ - 1) / height_;
    return uint32_t(std::min<uint64_t>(tile_ + plane * across * down, 0xFFFFFFFFu));
}

int32_t PageReader::load_strip_table() {
    const uint64_t needed = uint64_t(strip_index(planes_ - 1, strips_per_plane_ - 1)) + 1;
    const Field& so = dir_.strip_offsets;
    if (!so.present() || so.count == 0) return IMG_ERR_BAD_IMAGE;
    if (so.count < needed) return dir_.tiled ? IMG_ERR_NO_PAGE : IMG_ERR_BAD_IMAGE;
    if (!file_.values(so, uint32_t(needed), &offsets_) || offsets_.size() != needed)
        return IMG_ERR_READ;
    have_counts_ = false;
    const Field& sc = dir_.strip_counts;
    if (sc.present() && sc.count >= needed && file_.values(sc, uint32_t(needed), &counts_) &&
        counts_.size() == needed)
        have_counts_ = true;
    return 0;
}

bool PageReader::strip_bounds(uint32_t index, uint32_t* offset, uint32_t* count) {
    if (index >= offsets_.size()) return false;
    *offset = offsets_[index];
    uint64_t n = have_counts_ ? counts_[index] : 0xFFFFFFFFu;
    const int64_t capacity = file_.capacity();
    const uint64_t at = uint64_t(file_.base()) + *offset;
    if (capacity >= 0) n = std::min<uint64_t>(n, at < uint64_t(capacity) ? uint64_t(capacity) - at : 0);
    *count = uint32_t(n);
    return true;
}

// Reads a compressed strip into memory, growing the buffer only as data
// arrives so that a count the stream cannot back costs nothing.
int32_t PageReader::read_strip(uint32_t index, Bytes* out) {
    uint32_t offset = 0, count = 0;
    if (!strip_bounds(index, &offset, &count)) return IMG_ERR_BAD_IMAGE;
    out->resize(0);
    if (!file_.seek(offset)) return IMG_ERR_READ;
    if (file_.capacity() >= 0) {
        // The count has been cut to what the stream holds: one read
        // straight into the strip buffer.
        out->resize(count);
        if (count && !file_.read_direct(offset, out->data(), count)) return IMG_ERR_READ;
        if (reverse_bits_) reverse_bits(out->data(), out->size());
        return 0;
    }
    constexpr uint32_t kChunk = 1u << 20;
    uint32_t have = 0;
    while (have < count) {
        const uint32_t want = std::min(count - have, kChunk);
        out->resize(size_t(have) + want);
        const uint32_t got = file_.in().read_some(out->data() + have, want);
        have += got;
        if (got < want) break;
    }
    out->resize(have);
    if (!file_.in().ok() && file_.in().status() != IMG_ERR_READ) return file_.in().status();
    if (reverse_bits_) reverse_bits(out->data(), out->size());
    return 0;
}

void PageReader::undo_predictor(uint8_t* row) const {
    const uint32_t stride = planes_ > 1 ? 1 : samples_;
    if (bits_ == 8) {
        for (uint32_t i = stride; i < raw_row_; ++i) row[i] = uint8_t(row[i] + row[i - stride]);
        return;
    }
    const uint32_t n = raw_row_ / 2;
    if (file_.big_endian()) {
        for (uint32_t i = stride; i < n; ++i)
            store_be16(row + 2 * i, uint16_t(load_be16(row + 2 * i) + load_be16(row + 2 * (i - stride))));
    } else {
        for (uint32_t i = stride; i < n; ++i)
            store_le16(row + 2 * i, uint16_t(load_le16(row + 2 * i) + load_le16(row + 2 * (i - stride))));
    }
}

int32_t PageReader::row_out(uint32_t plane, uint32_t unit, uint8_t* raw, bool owned) {
    if (direct_ && owned) {
        // The raw row is the DIB row already: its buffer holds the padding.
        std::memset(raw + raw_row_, 0, out_row_ - raw_row_);
        return unit < height_ ? raster_(raw, user_, int32_t(unit), out_row_) : 0;
    }
    if (predictor_ || (reverse_bits_ && compression_ == 1)) {
        if (!owned) {
            std::memcpy(fix_.data(), raw, raw_row_);
            raw = fix_.data();
        }
        if (reverse_bits_ && compression_ == 1) reverse_bits(raw, raw_row_);
        if (predictor_) undo_predictor(raw);
    }
    if (planes_ > 1) {
        if (unit < height_)
            std::memcpy(planes_store_.data() + (size_t(plane) * height_ + unit) * raw_row_, raw, raw_row_);
        return 0;
    }
    if (in_place_ && owned) {
        // RGB(A) to BGR(A) where the row stands.
        convert(raw, 0, raw);
        std::memset(raw + raw_row_, 0, out_row_ - raw_row_);
        return unit < height_ ? raster_(raw, user_, int32_t(unit), out_row_) : 0;
    }
    return deliver_unit(unit, raw);
}

int32_t PageReader::deliver_unit(uint32_t unit, const uint8_t* raw) {
    for (uint32_t k = 0; k < unit_rows_; ++k) {
        const uint64_t row = uint64_t(unit) * unit_rows_ + k;
        if (row >= height_) break;
        convert(raw, k, out_.data());
        const int32_t r = raster_(out_.data(), user_, int32_t(row), out_row_);
        if (r < 0) return r;
    }
    return 0;
}

// One DIB row from a raw row holding every sample of each pixel.
void PageReader::convert(const uint8_t* raw, uint32_t sub_row, uint8_t* out) {
    const uint32_t w = width_, n = samples_;
    const bool big = file_.big_endian();
    const pixels::Endian order = big ? pixels::Endian::kBig : pixels::Endian::kLittle;
    switch (kind_) {
        case Kind::kCopy:
            if (invert_) {
                for (uint32_t i = 0; i < raw_row_; ++i) out[i] = uint8_t(~raw[i]);
            } else {
                std::memcpy(out, raw, raw_row_);
            }
            break;
        case Kind::kWiden2: {
            // Grey levels go to the 16-level ramp (value x 4); palette
            // indices stay indices.
            const uint32_t mul = photometric_ == 3 ? 1 : 4;
            for (uint32_t x = 0; x < w; ++x) {
                uint32_t v = (raw[x >> 2] >> (6 - 2 * (x & 3))) & 3;
                if (invert_) v = 3 - v;
                put_nibble(out, x, v * mul);
            }
            break;
        }
        case Kind::kGrey16:
            for (uint32_t x = 0; x < w; ++x) {
                uint16_t v = big ? load_be16(raw + 2 * x) : load_le16(raw + 2 * x);
                store_le16(out + 2 * x, invert_ ? uint16_t(~v) : v);
            }
            break;
        case Kind::kGrey12:
            for (uint32_t x = 0; x < w; ++x) {
                // Two samples in three bytes, the first from the high bits.
                const uint8_t* b = raw + size_t(x) * 3 / 2;
                uint32_t v = (x & 1) ? ((b[0] & 15u) << 8) | b[1] : (uint32_t(b[0]) << 4) | (b[1] >> 4);
                if (invert_) v = 4095 - v;
                store_le16(out + 2 * x, uint16_t(v << 4));
            }
            break;
        case Kind::kFirstOfTwo:
            if (bits_ == 8) {
                for (uint32_t x = 0; x < w; ++x) out[x] = uint8_t(invert_ ? ~raw[2 * x] : raw[2 * x]);
            } else if (bits_ == 16) {
                for (uint32_t x = 0; x < w; ++x) {
                    uint16_t v = big ? load_be16(raw + 4 * x) : load_le16(raw + 4 * x);
                    store_le16(out + 2 * x, invert_ ? uint16_t(~v) : v);
                }
            } else {
                for (uint32_t x = 0; x < w; ++x) {
                    uint32_t v = raw[x] >> 4;
                    put_nibble(out, x, invert_ ? 15 - v : v);
                }
            }
            break;
        case Kind::kRgb8:
            pixels::rgb_to_bgr24(raw, n, out, w);
            break;
        case Kind::kRgba8:
            pixels::rgba_to_bgra32(raw, n, out, w);
            break;
        case Kind::kRgb16:
            pixels::rgb16_to_bgr24(raw, n, order, out, w);
            break;
        case Kind::kRgba16:
            pixels::rgba16_to_bgra32(raw, n, order, out, w);
            break;
        case Kind::kRgb4:
            for (uint32_t x = 0; x < w; ++x, out += 3) {
                const uint64_t at = uint64_t(x) * n * 4;
                out[2] = uint8_t(sample_bits(raw, at, 4) * 16);
                out[1] = uint8_t(sample_bits(raw, at + 4, 4) * 16);
                out[0] = uint8_t(sample_bits(raw, at + 8, 4) * 16);
            }
            break;
        case Kind::kRgb1:
            for (uint32_t x = 0; x < w; ++x, out += 3) {
                const uint64_t at = uint64_t(x) * 3;
                out[2] = sample_bits(raw, at, 1) ? 128 : 0;
                out[1] = sample_bits(raw, at + 1, 1) ? 128 : 0;
                out[0] = sample_bits(raw, at + 2, 1) ? 128 : 0;
            }
            break;
        case Kind::kNibble4:
            for (uint32_t x = 0; x < w; ++x) {
                uint32_t v = 0;
                for (uint32_t i = 0; i < 4; ++i) v |= sample_bits(raw, uint64_t(x) * 4 + i, 1) << i;
                put_nibble(out, x, v);
            }
            break;
        case Kind::kCmyk8:
            pixels::first_samples(raw, n, 4, out, w);
            break;
        case Kind::kCmyk16:
            pixels::high_bytes16(raw, n, 4, order, out, w);
            break;
        case Kind::kCmy8:
            pixels::cmy_to_bgr24(raw, out, w);
            break;
        case Kind::kYCbCr: {
            const uint32_t h = sub_h_, v = sub_v_, unit = h * v + 2;
            const uint32_t blocks = (w + h - 1) / h;
            const uint32_t stride = (h == 1 && v == 1) ? n : unit;
            for (uint32_t bx = 0; bx < blocks; ++bx) {
                const uint8_t* blk = raw + size_t(bx) * stride;
                const int cb = (h == 1 && v == 1 ? blk[1] : blk[h * v]) - 128;
                const int cr = (h == 1 && v == 1 ? blk[2] : blk[h * v + 1]) - 128;
                const int db = int(1.772 * cb), dr = int(1.402 * cr);
                const int dg = int(0.34414 * cb + 0.71414 * cr);
                for (uint32_t i = 0; i < h; ++i) {
                    const uint32_t x = bx * h + i;
                    if (x >= w) break;
                    const int y = (h == 1 && v == 1) ? blk[0] : blk[sub_row * h + i];
                    uint8_t* o = out + size_t(x) * 3;
                    o[0] = clamp255(y + db);
                    o[1] = clamp255(y - dg);
                    o[2] = clamp255(y + dr);
                }
            }
            break;
        }
        case Kind::kLab:
            pixels::lab_to_bgr(raw, n, out, 3, w);
            break;
        case Kind::kChannel: {
            const uint32_t stride = n * bits_ / 8;
            for (uint32_t x = 0; x < w; ++x) out[x] = raw[size_t(x) * stride + uint32_t(channel_)];
            break;
        }
    }
}

// Planar data: every plane has been stored; interleave each row's samples
// and convert it like chunky data.
int32_t PageReader::finish_planar() {
    const uint32_t b = bits_, n = planes_;
    for (uint32_t row = 0; row < height_; ++row) {
        uint8_t* c = chunky_.data();
        std::memset(c, 0, chunky_row_);
        for (uint32_t p = 0; p < n; ++p) {
            const uint8_t* src = planes_store_.data() + (size_t(p) * height_ + row) * raw_row_;
            if (b == 8) {
                for (uint32_t x = 0; x < width_; ++x) c[size_t(x) * n + p] = src[x];
            } else if (b == 16) {
                for (uint32_t x = 0; x < width_; ++x) {
                    c[(size_t(x) * n + p) * 2] = src[2 * x];
                    c[(size_t(x) * n + p) * 2 + 1] = src[2 * x + 1];
                }
            } else {
                for (uint32_t x = 0; x < width_; ++x) {
                    const uint32_t v = sample_bits(src, uint64_t(x) * b, b);
                    const uint64_t at = (uint64_t(x) * n + p) * b;
                    c[at >> 3] = uint8_t(c[at >> 3] | (v << (8 - b - (at & 7))));
                }
            }
        }
        const int32_t r = deliver_unit(row, c);
        if (r < 0) return r;
    }
    return 0;
}

int32_t PageReader::run_strips() {
    fix_.assign(size_t(std::max(raw_row_, out_row_)) + 16, 0);
    out_.assign(size_t(out_row_) + 16, 0);
    if (planes_ > 1) {
        planes_store_.assign(size_t(planes_) * height_ * raw_row_, 0);
        chunky_.assign(size_t(chunky_row_) + 16, 0);
    }
    for (uint32_t p = 0; p < planes_; ++p) {
        for (uint32_t s = 0; s < strips_per_plane_; ++s) {
            const uint32_t index = strip_index(p, s);
            const uint32_t first = s * rows_per_strip_;
            const uint32_t rows = std::min(rows_per_strip_, height_ - first);
            const uint32_t unit0 = first / unit_rows_;
            const uint32_t units = (rows + unit_rows_ - 1) / unit_rows_;
            int32_t r = 0;
            switch (compression_) {
                case 1: r = strip_uncompressed(index, p, unit0, units); break;
                case 32773: r = strip_packbits(index, p, unit0, units); break;
                case 5: r = strip_lzw(index, p, unit0, units); break;
                default: r = strip_deflate(index, p, unit0, units); break;
            }
            if (r < 0) return r;
        }
    }
    return planes_ > 1 ? finish_planar() : 0;
}

}  // namespace tesslin::tiff
