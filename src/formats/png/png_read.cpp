// PNG reader: chunk walk, inflate, unfiltering, Adam7 placement and the
// conversion of PNG pixels to DIB rows.
#include <cstring>
#include <memory>
#include <new>

#include "core/io.h"
#include "core/limits.h"
#include "core/pixels.h"
#include "core/stream.h"
#include "formats/png/inflate.h"
#include "formats/png/png.h"
#include "process/colour/palette.h"

namespace tesslin {

namespace {

constexpr uint32_t chunk_type(const char (&s)[5]) {
    return (uint32_t(uint8_t(s[0])) << 24) | (uint32_t(uint8_t(s[1])) << 16) |
           (uint32_t(uint8_t(s[2])) << 8) | uint32_t(uint8_t(s[3]));
}
constexpr uint32_t kIHDR = chunk_type("IHDR");
constexpr uint32_t kPLTE = chunk_type("PLTE");
constexpr uint32_t kPHYS = chunk_type("pHYs");
constexpr uint32_t kIDAT = chunk_type("IDAT");

struct Ihdr {
    bool seen = false;
    uint32_t width = 0, height = 0;
    uint8_t depth = 0, colour = 0, interlace = 0;
};

// How a PNG row becomes a DIB row.
enum class Convert {
    kCopy,         // 1-, 4-, 8-bit grey or palette: as is (1-bit maybe inverted)
    kExpand2,      // 2-bit grey or palette: one byte per pixel
    kGrey16,       // 16-bit grey: samples to little-endian
    kRgb8,         // RGB to BGR
    kRgb16,        // RGB 16-bit: high bytes, BGR
    kGreyAlpha8,   // grey and alpha: grey only
    kGreyAlpha16,  // grey and alpha 16-bit: high byte of grey
    kRgba8,        // RGBA to BGRA
    kRgba16,       // RGBA 16-bit: high bytes, BGRA
};

struct Layout {
    uint32_t channels = 1;
    uint32_t dib_bits = 8;
    Convert convert = Convert::kCopy;
};

bool valid_combination(uint8_t colour, uint8_t depth) {
    switch (colour) {
    case 0: return depth == 1 || depth == 2 || depth == 4 || depth == 8 || depth == 16;
    case 3: return depth == 1 || depth == 2 || depth == 4 || depth == 8;
    case 2:
    case 4:
    case 6: return depth == 8 || depth == 16;
    default: return false;
    }
}

Layout layout_of(const Ihdr& h) {
    Layout l;
    const bool wide = h.depth == 16;
    switch (h.colour) {
    case 0:
    case 3:
        l.channels = 1;
        l.dib_bits = h.depth == 2 ? 8 : h.depth;
        l.convert = h.depth == 2 ? Convert::kExpand2 : wide ? Convert::kGrey16 : Convert::kCopy;
        break;
    case 2:
        l.channels = 3;
        l.dib_bits = 24;
        l.convert = wide ? Convert::kRgb16 : Convert::kRgb8;
        break;
    case 4:
        l.channels = 2;
        l.dib_bits = 8;
        l.convert = wide ? Convert::kGreyAlpha16 : Convert::kGreyAlpha8;
        break;
    default:
        l.channels = 4;
        l.dib_bits = 32;
        l.convert = wide ? Convert::kRgba16 : Convert::kRgba8;
        break;
    }
    return l;
}

// Bytes of one filtered PNG row of `width` pixels (without the filter byte).
uint64_t png_row_bytes(uint64_t width, uint32_t channels, uint32_t depth) {
    return (width * channels * depth + 7) / 8;
}

inline uint8_t paeth(uint8_t a, uint8_t b, uint8_t c) {
    const int pa = b > c ? b - c : c - b;               // |p - a|
    const int pb = a > c ? a - c : c - a;               // |p - b|
    const int pc = (a + b - 2 * c) < 0 ? -(a + b - 2 * c) : (a + b - 2 * c);  // |p - c|
    if (pa <= pb && pa <= pc) return a;
    return pb <= pc ? b : c;
}

template <uint32_t Bpp>
void unfilter_fixed(uint8_t filter, uint8_t* cur, const uint8_t* prev, uint32_t n) {
    switch (filter) {
    case 1:
        for (uint32_t i = Bpp; i < n; ++i) cur[i] = uint8_t(cur[i] + cur[i - Bpp]);
        break;
    case 2:
        for (uint32_t i = 0; i < n; ++i) cur[i] = uint8_t(cur[i] + prev[i]);
        break;
    case 3:
        for (uint32_t i = 0; i < Bpp && i < n; ++i) cur[i] = uint8_t(cur[i] + (prev[i] >> 1));
        for (uint32_t i = Bpp; i < n; ++i) cur[i] = uint8_t(cur[i] + ((cur[i - Bpp] + prev[i]) >> 1));
        break;
    case 4:
        for (uint32_t i = 0; i < Bpp && i < n; ++i) cur[i] = uint8_t(cur[i] + prev[i]);
        for (uint32_t i = Bpp; i < n; ++i) cur[i] = uint8_t(cur[i] + paeth(cur[i - Bpp], prev[i], prev[i - Bpp]));
        break;
    default:  // 0, and unknown filter types, leave the bytes as they are
        break;
    }
}

void unfilter(uint8_t filter, uint8_t* cur, const uint8_t* prev, uint32_t n, uint32_t bpp) {
    switch (bpp) {
    case 1: unfilter_fixed<1>(filter, cur, prev, n); break;
    case 2: unfilter_fixed<2>(filter, cur, prev, n); break;
    case 3: unfilter_fixed<3>(filter, cur, prev, n); break;
    case 4: unfilter_fixed<4>(filter, cur, prev, n); break;
    case 6: unfilter_fixed<6>(filter, cur, prev, n); break;
    default: unfilter_fixed<8>(filter, cur, prev, n); break;
    }
}

void convert_row(Convert how, const uint8_t* s, uint8_t* d, uint32_t width, uint32_t packed, bool invert) {
    switch (how) {
    case Convert::kCopy:
        if (invert)
            for (uint32_t i = 0; i < packed; ++i) d[i] = uint8_t(~s[i]);
        else
            std::memcpy(d, s, packed);
        break;
    case Convert::kExpand2:
        pixels::unpack_indices(s, 2, d, width);
        break;
    case Convert::kGrey16:
        pixels::swap16(s, d, width);
        break;
    case Convert::kRgb8:
        pixels::swap_rgb24(s, d, width);
        break;
    case Convert::kRgb16:
        pixels::rgb16_to_bgr24(s, 3, pixels::Endian::kBig, d, width);
        break;
    case Convert::kGreyAlpha8:
        pixels::first_samples(s, 2, 1, d, width);
        break;
    case Convert::kGreyAlpha16:
        pixels::high_bytes16(s, 2, 1, pixels::Endian::kBig, d, width);
        break;
    case Convert::kRgba8:
        pixels::swap_rgb32(s, d, width);
        break;
    case Convert::kRgba16:
        pixels::rgba16_to_bgra32(s, 4, pixels::Endian::kBig, d, width);
        break;
    }
}

// Pixel x of a DIB row of the given depth, copied into pixel x of another.
inline void copy_pixel(const uint8_t* src, uint32_t sx, uint8_t* dst, uint32_t dx, uint32_t bits) {
    if (bits == 1) {
        const uint8_t bit = (src[sx >> 3] >> (7 - (sx & 7))) & 1;
        const uint8_t mask = uint8_t(0x80 >> (dx & 7));
        dst[dx >> 3] = bit ? uint8_t(dst[dx >> 3] | mask) : uint8_t(dst[dx >> 3] & ~mask);
    } else if (bits == 4) {
        const uint8_t v = (src[sx >> 1] >> ((sx & 1) ? 0 : 4)) & 15;
        uint8_t& t = dst[dx >> 1];
        t = (dx & 1) ? uint8_t((t & 0xF0) | v) : uint8_t((t & 0x0F) | (v << 4));
    } else {
        const uint32_t n = bits / 8;
        std::memcpy(dst + dx * n, src + sx * n, n);
    }
}

struct Pass {
    uint32_t col, row, col_step, row_step, fill_w, fill_h;
};
constexpr Pass kAdam7[7] = {{0, 0, 8, 8, 8, 8}, {4, 0, 8, 8, 4, 8}, {0, 4, 4, 8, 4, 4}, {2, 0, 4, 4, 2, 4},
                            {0, 2, 2, 4, 2, 2}, {1, 0, 2, 2, 1, 2}, {0, 1, 1, 2, 1, 1}};

// Compressed data of consecutive IDAT chunks, read through the reader's
// buffer. Ends at the first chunk that is not IDAT.
class IdatSource final : public InflateSource {
public:
    IdatSource(StreamReader& reader, uint32_t first_length) : r_(reader), left_(first_length) {}

    int32_t next(const uint8_t** data) override {
        while (left_ == 0) {
            if (ended_) return 0;
            uint8_t h[12];  // CRC of the chunk just read, then the next header
            if (!r_.read(h, 12) || load_be32(h + 8) != kIDAT) {
                ended_ = true;
                return r_.status() == IMG_ERR_STREAM_FAULT ? IMG_ERR_STREAM_FAULT : 0;
            }
            left_ = load_be32(h + 4);
        }
        const uint32_t want = left_ < kIoBlock ? left_ : kIoBlock;
        const uint32_t got = r_.ensure(want);
        if (got == 0) {
            ended_ = true;
            return r_.status() == IMG_ERR_STREAM_FAULT ? IMG_ERR_STREAM_FAULT : 0;
        }
        const uint32_t n = got < left_ ? got : left_;
        *data = r_.data();
        r_.advance(n);
        left_ -= n;
        return int32_t(n);
    }

private:
    StreamReader& r_;
    uint32_t left_;
    bool ended_ = false;
};

int32_t read_status(const StreamReader& r) {
    return r.status() == IMG_ERR_STREAM_FAULT ? IMG_ERR_STREAM_FAULT : IMG_ERR_READ;
}

class PngReader {
public:
    PngReader(int32_t stream, IMG_RASTER_CALLBACK raster, intptr_t user, IMG_HEADER_CALLBACK header)
        : r_(stream), raster_(raster), user_(user), header_cb_(header) {}

    int32_t run(uint32_t position);

private:
    int32_t walk_chunks(uint32_t* idat_length);
    int32_t announce();
    int32_t decode_rows(Inflater& inf);
    int32_t decode_interlaced(Inflater& inf);
    // Reads one filtered row of n bytes (filter byte first) and unfilters it
    // against the previous one. 1 when the data ended on a reserved block.
    int32_t next_row(Inflater& inf, uint32_t n);

    StreamReader r_;
    IMG_RASTER_CALLBACK raster_;
    intptr_t user_;
    IMG_HEADER_CALLBACK header_cb_;

    Ihdr ihdr_;
    Layout layout_;
    uint32_t bpp_ = 1;  // bytes per complete pixel, for the filters
    bool invert_ = false;
    alignas(8) uint8_t block_[kHeaderBlockSize] = {};
    uint32_t dib_row_ = 0;
    std::unique_ptr<uint8_t[]> rows_;  // two filtered rows and one DIB row
    uint8_t* cur_ = nullptr;
    uint8_t* prev_ = nullptr;
    uint8_t* dib_ = nullptr;
};

int32_t PngReader::walk_chunks(uint32_t* idat_length) {
    uint8_t palette[256 * 3] = {};
    uint32_t palette_entries = 0;
    auto* hdr = reinterpret_cast<DibHeader*>(block_);
    for (;;) {
        uint8_t h[8];
        if (!r_.read(h, 8)) return read_status(r_);
        const uint32_t length = load_be32(h);
        const uint32_t type = load_be32(h + 4);
        uint64_t skip = uint64_t(length) + 4;  // the rest of the chunk and its CRC
        if (type == kIDAT) {
            *idat_length = length;
            break;
        }
        if (type == kIHDR) {
            uint8_t d[13];
            if (length < 13) return IMG_ERR_BAD_IMAGE;
            if (!r_.read(d, 13)) return read_status(r_);
            ihdr_.seen = true;
            ihdr_.width = load_be32(d);
            ihdr_.height = load_be32(d + 4);
            ihdr_.depth = d[8];
            ihdr_.colour = d[9];
            ihdr_.interlace = d[12];
            skip -= 13;
        } else if (type == kPHYS && length >= 9) {
            uint8_t d[9];
            if (!r_.read(d, 9)) return read_status(r_);
            int32_t x = int32_t(load_be32(d)), y = int32_t(load_be32(d + 4));
            if (d[8] == 1) {  // per metre: to dots per inch
                x = int32_t(load_be32(d) * 0.0254 + 0.5);
                y = int32_t(load_be32(d + 4) * 0.0254 + 0.5);
            }
            dib_set_resolution(hdr, x, y);
            skip -= 9;
        } else if (type == kPLTE) {
            uint32_t entries = length / 3;
            if (entries > 256) entries = 256;
            if (!r_.read(palette, entries * 3)) return read_status(r_);
            palette_entries = entries;
            skip -= entries * 3;
        }
        if (r_.tell() + skip > 0x7FFFFFFFu || !r_.skip(uint32_t(skip))) return read_status(r_);
    }

    if (!ihdr_.seen || limits::check_dimensions(ihdr_.width, ihdr_.height) < 0 ||
        !valid_combination(ihdr_.colour, ihdr_.depth) || ihdr_.interlace > 1)
        return IMG_ERR_BAD_IMAGE;

    layout_ = layout_of(ihdr_);
    bpp_ = (layout_.channels * ihdr_.depth + 7) / 8;
    hdr->biSize = kDibHeaderSize;
    hdr->biWidth = int32_t(ihdr_.width);
    hdr->biHeight = int32_t(ihdr_.height);
    hdr->biPlanes = 1;
    hdr->biBitCount = uint16_t(layout_.dib_bits);
    hdr->biCompression = layout_.dib_bits == 32 ? 200 : 0;
    // The image size field holds the whole pixel area: larger images cannot
    // be given a DIB.
    limits::ImageBytes size;
    if (limits::image_bytes(ihdr_.width, ihdr_.height, layout_.dib_bits, &size, UINT32_MAX) < 0)
        return IMG_ERR_MEMORY;
    dib_row_ = uint32_t(size.row);
    hdr->biSizeImage = uint32_t(size.total);
    if (ihdr_.colour == 3) {
        RgbQuad* q = dib_palette(block_);
        for (uint32_t i = 0; i < palette_entries; ++i)
            q[i] = RgbQuad{palette[3 * i + 2], palette[3 * i + 1], palette[3 * i], 0};
    } else if (layout_.dib_bits <= 16) {
        build_standard_palette(hdr, "tiff");
    }
    const RgbQuad& first = dib_palette(block_)[0];
    invert_ = layout_.dib_bits == 1 && first.rgbBlue && first.rgbGreen && first.rgbRed;
    return 0;
}

int32_t PngReader::announce() {
    // The filtered data the image needs must fit in what deflate could have
    // packed into the rest of the stream.
    uint64_t filtered = 0;
    if (ihdr_.interlace) {
        for (const Pass& p : kAdam7) {
            if (ihdr_.width <= p.col || ihdr_.height <= p.row) continue;
            const uint64_t w = (ihdr_.width - p.col + p.col_step - 1) / p.col_step;
            const uint64_t h = (ihdr_.height - p.row + p.row_step - 1) / p.row_step;
            filtered += (png_row_bytes(w, layout_.channels, ihdr_.depth) + 1) * h;
        }
    } else {
        filtered = (png_row_bytes(ihdr_.width, layout_.channels, ihdr_.depth) + 1) * uint64_t(ihdr_.height);
    }
    if (int32_t s = limits::check_declared_size(stream::capacity(r_.stream()), r_.tell(), filtered,
                                                limits::kDeflate, IMG_ERR_READ))
        return s;

    const uint64_t row = png_row_bytes(ihdr_.width, layout_.channels, ihdr_.depth) + 1;
    rows_.reset(new (std::nothrow) uint8_t[size_t(2 * row + dib_row_ + 16)]);
    if (!rows_) return IMG_ERR_MEMORY;
    cur_ = rows_.get();
    prev_ = cur_ + row;
    dib_ = prev_ + row;
    std::memset(dib_, 0, dib_row_);

    const int32_t h = header_cb_(reinterpret_cast<const DibHeader*>(block_), user_);
    return h < 0 ? h : 0;
}

int32_t PngReader::next_row(Inflater& inf, uint32_t n) {
    const int32_t got = inf.read(cur_, n);
    if (got < 0) return got;
    if (uint32_t(got) < n) return inf.ended_on_reserved_block() ? 1 : IMG_ERR_READ;
    unfilter(cur_[0], cur_ + 1, prev_ + 1, n - 1, bpp_);
    std::swap(cur_, prev_);  // the row just decoded is now in prev_
    return 0;
}

int32_t PngReader::decode_rows(Inflater& inf) {
    const uint32_t n = uint32_t(png_row_bytes(ihdr_.width, layout_.channels, ihdr_.depth)) + 1;
    std::memset(prev_, 0, n);
    for (uint32_t y = 0; y < ihdr_.height; ++y) {
        const int32_t s = next_row(inf, n);
        if (s) return s > 0 ? 0 : s;
        convert_row(layout_.convert, prev_ + 1, dib_, ihdr_.width, n - 1, invert_);
        const int32_t cb = raster_(dib_, user_, int32_t(y), dib_row_);
        if (cb < 0) return cb;
    }
    return 0;
}

int32_t PngReader::decode_interlaced(Inflater& inf) {
    const uint32_t width = ihdr_.width, height = ihdr_.height, bits = layout_.dib_bits;
    std::unique_ptr<uint8_t[]> image(new (std::nothrow) uint8_t[size_t(dib_row_) * height]);
    if (!image) return IMG_ERR_MEMORY;
    std::memset(image.get(), 0, size_t(dib_row_) * height);

    bool complete = true;
    for (const Pass& p : kAdam7) {
        if (width <= p.col || height <= p.row) continue;
        const uint32_t pw = (width - p.col + p.col_step - 1) / p.col_step;
        const uint32_t ph = (height - p.row + p.row_step - 1) / p.row_step;
        const uint32_t n = uint32_t(png_row_bytes(pw, layout_.channels, ihdr_.depth)) + 1;
        std::memset(prev_, 0, n);
        for (uint32_t r = 0; r < ph && complete; ++r) {
            const int32_t s = next_row(inf, n);
            if (s < 0) return s;
            if (s > 0) {
                complete = false;
                break;
            }
            convert_row(layout_.convert, prev_ + 1, dib_, pw, n - 1, invert_);
            // Each pixel fills its block of the image, clipped at the edges,
            // so that the picture is whole (if coarse) after every pass.
            const uint32_t y0 = p.row + r * p.row_step;
            const uint32_t y1 = y0 + p.fill_h < height ? y0 + p.fill_h : height;
            for (uint32_t y = y0; y < y1; ++y) {
                uint8_t* line = image.get() + size_t(y) * dib_row_;
                for (uint32_t i = 0; i < pw; ++i) {
                    const uint32_t x0 = p.col + i * p.col_step;
                    const uint32_t x1 = x0 + p.fill_w < width ? x0 + p.fill_w : width;
                    for (uint32_t x = x0; x < x1; ++x) copy_pixel(dib_, i, line, x, bits);
                }
            }
        }
        if (!complete) break;
    }
    for (uint32_t y = 0; y < height; ++y) {
        const int32_t cb = raster_(image.get() + size_t(y) * dib_row_, user_, int32_t(y), dib_row_);
        if (cb < 0) return cb;
    }
    return 0;
}

int32_t PngReader::run(uint32_t position) {
    if (position_is_page(position)) {
        if (position_page(position) != 0) return IMG_ERR_NO_PAGE;
    } else if (!r_.seek(position)) {
        return read_status(r_);
    }
    uint8_t signature[8];  // not compared: detection has looked at it
    if (!r_.read(signature, 8)) return read_status(r_);
    uint32_t idat_length = 0;
    int32_t s = walk_chunks(&idat_length);
    if (s < 0) return s;
    s = announce();
    if (s < 0) return s;

    Inflater::Options opt;
    opt.header = Inflater::Header::kSkip2;
    opt.reserved_block_ends = true;
    Inflater inf(opt);
    IdatSource source(r_, idat_length);
    inf.set_source(&source);
    return ihdr_.interlace ? decode_interlaced(inf) : decode_rows(inf);
}

}  // namespace

int32_t png_decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user, IMG_HEADER_CALLBACK header,
                   int32_t stream) {
    auto reader = std::unique_ptr<PngReader>(new (std::nothrow) PngReader(stream, raster, user, header));
    if (!reader) return IMG_ERR_MEMORY;
    return reader->run(position);
}

}  // namespace tesslin
