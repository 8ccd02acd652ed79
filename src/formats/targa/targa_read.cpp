// Targa reader: colour-mapped, true-colour and grey images, uncompressed or
// run-length coded, and the JPEG-compressed type 156 through the JPEG
// decoder.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "core/io.h"
#include "core/limits.h"
#include "core/stream.h"
#include "formats/targa/targa.h"
#include "process/colour/palette.h"

namespace tesslin::targa {
namespace {

constexpr uint32_t kHeaderBytes = 18;
constexpr uint8_t kJpegType = 156;
constexpr uint8_t kTopFirst = 0x20, kRightToLeft = 0x10;

// Blue, green and red of a 15- or 16-bit value (bit 15 ignored): each
// 5-bit field shifted up by 3.
inline void expand555(uint16_t v, uint8_t* out) {
    out[0] = uint8_t(v << 3);
    out[1] = uint8_t((v >> 2) & 0xF8);
    out[2] = uint8_t((v >> 7) & 0xF8);
}

// Pixels of one image row in file form, uncompressed or run-length coded.
// Run-length packets may run on from one row into the next: what a packet
// has left at the end of a row is kept for the next one.
class RowSource {
public:
    RowSource(StreamReader& in, uint32_t bytes_per_pixel, bool rle)
        : in_(in), bpp_(bytes_per_pixel), rle_(rle) {}

    // Fills `out` with `pixels` pixels; false (status in the reader, or
    // IMG_ERR_READ) when the data ends first.
    bool next(uint8_t* out, uint32_t pixels) {
        if (!rle_) return in_.read(out, pixels * bpp_);
        uint32_t x = 0;
        while (x < pixels) {
            if (left_ == 0) {
                const int h = in_.byte_or_eof();
                if (h < 0) return fail();
                left_ = uint32_t(h & 0x7F) + 1;
                repeat_ = (h & 0x80) != 0;
                if (repeat_ && !in_.read(value_, bpp_)) return fail();
            }
            const uint32_t n = std::min(left_, pixels - x);
            uint8_t* dst = out + size_t(x) * bpp_;
            if (repeat_) {
                for (uint32_t i = 0; i < n; ++i, dst += bpp_) std::memcpy(dst, value_, bpp_);
            } else if (!in_.read(dst, n * bpp_)) {
                return fail();
            }
            left_ -= n;
            x += n;
        }
        return true;
    }

private:
    bool fail() {
        in_.fail(IMG_ERR_READ);
        return false;
    }

    StreamReader& in_;
    uint32_t bpp_;
    bool rle_;
    uint32_t left_ = 0;
    bool repeat_ = false;
    uint8_t value_[4] = {};
};

struct Header {
    uint8_t id_length, map_type, type;
    uint16_t map_length;
    uint8_t map_bits;
    uint16_t width, height;
    uint8_t depth, descriptor;
};

Header parse(const uint8_t* h) {
    return Header{h[0], h[1], h[2], load_le16(h + 5), h[7], load_le16(h + 12), load_le16(h + 14),
                  h[16], h[17]};
}

// Reads the colour map (the stream at its start) into the palette: at most
// 256 entries of 24- or 32-bit blue, green, red (and the fourth byte), or
// 15/16-bit values.
bool read_map(StreamReader& in, const Header& t, RgbQuad* pal) {
    const uint32_t entry = t.map_bits == 24 ? 3 : t.map_bits == 32 ? 4 : 2;
    for (uint32_t i = 0; i < t.map_length; ++i) {
        uint8_t e[4] = {};
        if (!in.read(e, entry)) return false;
        if (i >= 256) continue;
        if (entry == 2) {
            uint8_t bgr[3];
            expand555(load_le16(e), bgr);
            pal[i] = RgbQuad{bgr[0], bgr[1], bgr[2], 0};
        } else {
            pal[i] = RgbQuad{e[0], e[1], e[2], e[3]};
        }
    }
    return true;
}

}  // namespace

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    uint32_t offset = 0;
    if (int32_t s = single_image_start(position, stream, &offset); s < 0) return s;
    StreamReader in(stream);
    uint8_t raw[kHeaderBytes];
    if (!in.seek(offset) || !in.read(raw, kHeaderBytes)) return IMG_ERR_READ;
    const Header t = parse(raw);

    if (t.type == kJpegType) {
        const Decoder jpeg = decoder_for_tag("jpg");
        if (!jpeg) return IMG_ERR_UNSUPPORTED;
        return jpeg(offset + kHeaderBytes, raster, user, header, stream);
    }
    const uint8_t base_type = t.type & 7;
    const bool rle = (t.type & 8) != 0;
    if (t.type > 11 || base_type < 1 || base_type > 3) return IMG_ERR_VARIANT;
    if (int32_t s = limits::check_dimensions(t.width, t.height)) return s;
    uint32_t bpp = 0;
    switch (t.depth) {
        case 8: bpp = 1; break;
        case 15:
        case 16: bpp = 2; break;
        case 24: bpp = 3; break;
        case 32: bpp = 4; break;
        default: return IMG_ERR_BAD_IMAGE;
    }
    const uint16_t bits = t.depth == 8 ? 8 : t.depth == 32 ? 32 : 24;
    limits::ImageBytes size;
    if (int32_t s = limits::image_bytes(t.width, t.height, bits, &size)) return s;

    // The colour map follows the ID field; the pixels follow the map.
    const bool mapped = t.map_type == 1;
    const uint32_t map_entry = t.map_bits == 24 ? 3 : t.map_bits == 32 ? 4 : 2;
    const uint64_t map_at = uint64_t(offset) + kHeaderBytes + t.id_length;
    const uint64_t data_at = map_at + (mapped ? uint64_t(t.map_length) * map_entry : 0);
    const int64_t capacity = stream::capacity(stream);
    if (int32_t s = limits::check_declared_size(capacity, map_at, data_at - map_at, limits::kRaw,
                                                IMG_ERR_READ))
        return s;
    const uint64_t pixel_bytes = uint64_t(t.width) * t.height * bpp;
    if (int32_t s = rle ? limits::check_declared_size(capacity, data_at, pixel_bytes,
                                                      limits::kRunLength, IMG_ERR_BAD_IMAGE)
                        : limits::check_declared_size(capacity, data_at, pixel_bytes,
                                                      limits::kRaw, IMG_ERR_READ))
        return s;

    alignas(DibHeader) uint8_t block[kHeaderBlockSize] = {};
    auto* out = reinterpret_cast<DibHeader*>(block);
    *out = dib_header(t.width, t.height, bits);
    out->biSizeImage = uint32_t(size.total);
    if (bits == 32) out->biCompression = IMG_COMPRESSION_ALPHA;
    if (mapped) {
        if (!in.skip(t.id_length) || !read_map(in, t, dib_palette(block)))
            return in.ok() ? IMG_ERR_READ : in.status();
    } else if (bits == 8) {
        build_standard_palette(out, "tiff");
    }
    if (int32_t s = header(out, user); s < 0) return s;
    if (!in.seek(uint32_t(data_at))) return in.status();

    const uint32_t width = t.width, height = t.height;
    const uint32_t out_row = uint32_t(size.row), out_bpp = bits / 8;
    std::unique_ptr<uint8_t[]> src(new (std::nothrow) uint8_t[size_t(width) * bpp]);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[out_row]());
    if (!src || !row) return IMG_ERR_MEMORY;
    RowSource source(in, bpp, rle);
    const bool top_first = (t.descriptor & kTopFirst) != 0;
    const bool mirrored = (t.descriptor & kRightToLeft) != 0;
    for (uint32_t i = 0; i < height; ++i) {
        if (!source.next(src.get(), width)) return in.ok() ? IMG_ERR_READ : in.status();
        uint8_t* o = row.get();
        if (bpp == 2) {
            for (uint32_t x = 0; x < width; ++x) expand555(load_le16(src.get() + 2 * x), o + 3 * x);
        } else {
            std::memcpy(o, src.get(), size_t(width) * bpp);
        }
        if (mirrored) {
            for (uint32_t a = 0, b = width - 1; a < b; ++a, --b)
                std::swap_ranges(o + a * out_bpp, o + (a + 1) * out_bpp, o + b * out_bpp);
        }
        const int32_t r = int32_t(top_first ? i : height - 1 - i);
        if (int32_t s = raster(o, user, r, out_row); s < 0) return s;
    }
    return 0;
}

}  // namespace tesslin::targa
