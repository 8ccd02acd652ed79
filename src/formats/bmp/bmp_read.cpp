// BMP reader: BMP files and bare DIBs (info header, palette, rows).
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/io.h"
#include "core/limits.h"
#include "core/runs.h"
#include "core/stream.h"
#include "formats/bmp/bmp.h"
#include "process/colour/palette.h"

namespace tesslin::bmp {
namespace {

// Compression values of the info header.
constexpr uint32_t kRgb = 0, kRle8 = 1, kRle4 = 2, kBitFields = 3, kJpeg = 4, kPng = 5,
                   kAlphaBitFields = 6;
constexpr uint32_t kJpegCode = 0x4745504A;  // "JPEG"
constexpr uint32_t kPngCode = 0x20474E50;   // "PNG "
constexpr uint32_t kLargestHeader = 1024;

// One colour channel of a bit-field pixel, scaled to 8 bits by shifting:
// 5-bit fields are multiplied by 8, 6-bit fields by 4.
struct Field {
    uint32_t mask = 0;
    int shift = 0;
    int bits = 0;

    explicit Field(uint32_t m = 0) : mask(m) {
        if (!m) return;
        shift = __builtin_ctz(m);
        bits = 32 - __builtin_clz(m >> shift);
    }
    uint8_t get(uint32_t pixel) const {
        if (!bits) return 0;
        const uint32_t v = (pixel & mask) >> shift;
        return static_cast<uint8_t>(bits >= 8 ? v >> (bits - 8) : v << (8 - bits));
    }
};

struct Layout {
    bool file = false;
    uint32_t offset = 0;       // where the image starts
    uint32_t header_size = 0;  // info header size field
    int32_t width = 0, height = 0;
    bool top_down = false;
    uint32_t bits = 0;         // bits per pixel in the data
    uint32_t compression = 0;
    uint32_t colors_used = 0;
    int32_t x_res = 0, y_res = 0;
    uint32_t data_offset = 0;  // file header's pixel data offset
    uint32_t palette_at = 0;
    uint32_t palette_entry = 4;  // 3 after an OS/2 header
    uint32_t masks[4] = {0, 0, 0, 0};
    bool have_masks = false;
};

int32_t read_layout(StreamReader& in, uint32_t offset, Layout* l) {
    l->offset = offset;
    uint8_t fh[14];
    if (!in.seek(offset) || !in.read(fh, 14)) return in.status() ? in.status() : IMG_ERR_READ;
    l->file = fh[0] == 'B' && fh[1] == 'M';
    if (l->file) {
        l->data_offset = load_le32(fh + 10);
    } else {
        in.seek(offset);
    }
    const uint32_t hstart = offset + (l->file ? 14 : 0);
    uint8_t h[kLargestHeader] = {};
    if (!in.read(h, 4)) return in.status();
    l->header_size = load_le32(h);
    if (l->header_size == 12) {
        // OS/2: width, height, planes and bit count as 16-bit values, a
        // palette of 3-byte entries.
        if (!in.read(h + 4, 8)) return in.status();
        l->width = load_le16(h + 4);
        l->height = static_cast<int16_t>(load_le16(h + 6));
        l->bits = load_le16(h + 10);
        l->palette_at = hstart + 12;
        l->palette_entry = 3;
        return 0;
    }
    if (l->header_size < 16 || l->header_size > kLargestHeader) return IMG_ERR_BAD_IMAGE;
    if (!in.read(h + 4, l->header_size - 4)) return in.status();
    l->width = static_cast<int32_t>(load_le32(h + 4));
    l->height = static_cast<int32_t>(load_le32(h + 8));
    l->bits = load_le16(h + 14);
    l->compression = load_le32(h + 16);
    l->x_res = static_cast<int32_t>(load_le32(h + 24));
    l->y_res = static_cast<int32_t>(load_le32(h + 28));
    l->colors_used = load_le32(h + 32);
    l->palette_at = hstart + l->header_size;
    const bool fields = l->compression == kBitFields || l->compression == kAlphaBitFields;
    if (fields) {
        // The masks sit in the header from version 2 on, else right after it.
        if (l->header_size >= 52) {
            const uint32_t count = l->header_size >= 56 ? 4 : 3;
            for (uint32_t i = 0; i < count && 40 + 4 * i + 4 <= l->header_size; ++i)
                l->masks[i] = load_le32(h + 40 + 4 * i);
        } else {
            const uint32_t count = l->compression == kAlphaBitFields ? 4 : 3;
            uint8_t m[16];
            if (!in.read(m, 4 * count)) return in.status();
            for (uint32_t i = 0; i < count; ++i) l->masks[i] = load_le32(m + 4 * i);
            l->palette_at += 4 * count;
        }
        l->have_masks = true;
    }
    return 0;
}

// Resolution in dots per inch: pixels per metre x 0.0254, rounded.
int32_t to_dpi(int32_t ppm) {
    if (ppm <= 0) return 0;
    return static_cast<int32_t>((int64_t(ppm) * 254 + 5000) / 10000);
}

struct Reader {
    StreamReader& in;
    IMG_RASTER_CALLBACK raster;
    intptr_t user;
    uint32_t width = 0;
    int32_t height = 0;
    uint32_t out_row_bytes = 0;
    std::vector<uint8_t> row;

    int32_t deliver(const uint8_t* data, int32_t r) {
        std::memcpy(row.data(), data, out_row_bytes);
        return raster(row.data(), user, r, out_row_bytes);
    }
};

// Run-length data of 8-bit (RLE8) or 4-bit (RLE4) pixels. Rows come from the
// bottom; the row buffer is not cleared between rows.
int32_t read_rle(Reader& rd, uint32_t bits) {
    StreamReader& in = rd.in;
    const uint32_t limit = rd.out_row_bytes + 1000;  // columns beyond are ignored
    std::vector<uint8_t> line(size_t(rd.out_row_bytes) + 3000, 0);
    auto put = [&](uint32_t x, uint8_t v) {
        if (x >= limit) return;
        if (bits == 8) {
            line[x] = v;
        } else {
            uint8_t& b = line[x >> 1];
            b = (x & 1) ? uint8_t((b & 0xF0) | (v & 15)) : uint8_t((b & 0x0F) | (v << 4));
        }
    };
    int32_t y = rd.height - 1;
    uint32_t x = 0;
    while (y >= 0) {
        const int a = in.byte_or_eof();
        const int b = in.byte_or_eof();
        if (a < 0 || b < 0) return in.ok() ? IMG_ERR_READ : in.status();
        if (a > 0) {
            for (int i = 0; i < a; ++i, x = std::min(x + 1, limit))
                put(x, bits == 8 ? uint8_t(b) : uint8_t((i & 1) ? (b & 15) : (b >> 4)));
            continue;
        }
        if (b == 0 || b == 1) {
            if (int32_t s = rd.deliver(line.data(), y)) return s;
            if (b == 1) return 0;
            --y;
            x = 0;
        } else if (b == 2) {
            const uint32_t dx = in.u8(), dy = in.u8();
            if (!in.ok()) return in.status();
            x = std::min(x + dx, limit);
            if (dy == 0) continue;
            if (bits == 8) {
                for (uint32_t k = 0; k < dy && y >= 0; ++k, --y)
                    if (int32_t s = rd.deliver(line.data(), y)) return s;
            } else {
                if (int32_t s = rd.deliver(line.data(), y)) return s;
                y -= static_cast<int32_t>(dy);
            }
        } else {
            const uint32_t n = static_cast<uint32_t>(b);
            const uint32_t bytes = bits == 8 ? n : (n + 1) / 2;
            uint8_t lit[256];
            if (!in.read(lit, bytes + (bytes & 1))) return in.status();
            for (uint32_t i = 0; i < n; ++i, x = std::min(x + 1, limit))
                put(x, bits == 8 ? lit[i] : uint8_t((i & 1) ? (lit[i >> 1] & 15) : (lit[i >> 1] >> 4)));
        }
    }
    return 0;
}

// The library's run-record variant: one record per row from the top, each
// a 32-bit length (itself included) and the rest of the record.
int32_t read_records(Reader& rd) {
    StreamReader& in = rd.in;
    const uint32_t largest = runs::max_record_bytes(rd.width);
    std::vector<uint8_t> bytes(largest);
    std::vector<uint32_t> scratch(rd.width + 2), record(largest / 4 + 1);
    for (int32_t r = 0; r < rd.height; ++r) {
        if (!in.read(bytes.data(), 4)) return in.status();
        const uint32_t length = load_le32(bytes.data());
        if (length < 8 || length % 4 || length > largest) return IMG_ERR_BAD_IMAGE;
        if (!in.read(bytes.data() + 4, length - 4)) return in.status();
        const uint32_t n =
            runs::rebuild_record(bytes.data(), length, rd.width, scratch.data(), record.data());
        if (int32_t s = rd.raster(reinterpret_cast<uint8_t*>(record.data()), rd.user, r, n))
            return s;
    }
    return 0;
}

// Uncompressed and bit-field rows, bottom row first unless top-down.
int32_t read_rows(Reader& rd, const Layout& l, uint32_t out_bits, bool invert) {
    StreamReader& in = rd.in;
    const uint32_t src_row_bytes = row_bytes(rd.width, l.bits);
    const uint32_t last_row_data = static_cast<uint32_t>((uint64_t(rd.width) * l.bits + 7) / 8);
    std::vector<uint8_t> src(src_row_bytes + 4), converted(rd.out_row_bytes + 4);
    const bool convert = out_bits != l.bits || l.have_masks;
    Field fb, fg, fr, fa;
    if (convert) {
        uint32_t red = 0x7C00, green = 0x03E0, blue = 0x001F;  // 5-5-5
        if (l.bits == 32) red = 0xFF0000, green = 0xFF00, blue = 0xFF;
        if (l.have_masks && (l.masks[0] | l.masks[1] | l.masks[2])) {
            red = l.masks[0], green = l.masks[1], blue = l.masks[2];
        } else if (l.have_masks && l.bits == 16) {
            red = 0xF800, green = 0x07E0, blue = 0x001F;  // 5-6-5
        }
        fr = Field(red), fg = Field(green), fb = Field(blue);
        if (out_bits == 32) fa = Field(l.masks[3]);
    }
    const uint32_t in_bpp = l.bits / 8, out_bpp = out_bits / 8;
    for (int32_t i = 0; i < rd.height; ++i) {
        const int32_t r = l.top_down ? i : rd.height - 1 - i;
        const uint32_t got = in.read_some(src.data(), src_row_bytes);
        if (got < src_row_bytes) {
            // Only the last row may lack (part of) its padding.
            if (!in.ok()) return in.status();
            if (i != rd.height - 1 || got < last_row_data) return IMG_ERR_READ;
            std::memset(src.data() + got, 0, src_row_bytes - got);
        }
        const uint8_t* data = src.data();
        if (convert) {
            uint8_t* out = converted.data();
            for (uint32_t x = 0; x < rd.width; ++x) {
                const uint8_t* p = src.data() + x * in_bpp;
                const uint32_t v = in_bpp == 2 ? load_le16(p) : load_le32(p);
                out[x * out_bpp] = fb.get(v);
                out[x * out_bpp + 1] = fg.get(v);
                out[x * out_bpp + 2] = fr.get(v);
                if (out_bpp == 4) out[x * out_bpp + 3] = fa.get(v);
            }
            std::memset(out + rd.width * out_bpp, 0, rd.out_row_bytes - rd.width * out_bpp);
            data = out;
        } else if (invert) {
            for (uint32_t b = 0; b < src_row_bytes; ++b) src[b] = static_cast<uint8_t>(~src[b]);
        }
        if (int32_t s = rd.deliver(data, r)) return s;
    }
    return 0;
}

}  // namespace

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    uint32_t offset = 0;
    if (int32_t s = single_image_start(position, stream, &offset); s < 0) return s;
    StreamReader in(stream);
    Layout l;
    if (int32_t s = read_layout(in, offset, &l)) return s;

    // Palette entries: 2^bits (fewer when the header says how many are used).
    uint32_t entries = l.bits <= 8 ? 1u << l.bits : 0;
    if (l.palette_entry == 4 && l.colors_used && l.colors_used < entries) entries = l.colors_used;

    // Position of the pixel data: the file header says; in a bare DIB it
    // follows the palette (of the size colours used gives, when set). The
    // library's own 16-bit DIBs carry a palette area of 256 entries.
    uint64_t data_at = uint64_t(l.palette_at) + entries * l.palette_entry;
    if (!l.file && l.bits == 16 && l.compression == kRgb) data_at += palette_bytes(16);
    if (l.file)
        data_at = uint64_t(offset) + l.data_offset;
    else if (l.colors_used && l.header_size != 12)
        data_at = uint64_t(offset) + l.header_size + 4 * uint64_t(l.colors_used);
    if (data_at > 0x7FFFFFFF) return IMG_ERR_READ;

    // Embedded JPEG or PNG data goes to that format's decoder, which
    // announces the image itself.
    const uint32_t c = l.compression;
    // OS/2 2.x headers use 3 for Huffman 1-D and 4 for 24-bit run lengths.
    const bool os2v2 = l.header_size == 64 || (l.header_size > 12 && l.header_size < 40);
    if (os2v2 && (c == kBitFields || c == kJpeg)) return IMG_ERR_VARIANT;
    if (c == kJpeg || c == kJpegCode || c == kPng || c == kPngCode) {
        Decoder inner = decoder_for_tag(c == kJpeg || c == kJpegCode ? "jpg" : "png");
        if (!inner) return IMG_ERR_UNSUPPORTED;
        if (stream::seek(stream, static_cast<int32_t>(data_at), 0) < 0) return IMG_ERR_READ;
        return inner(static_cast<uint32_t>(data_at), raster, user, header, stream);
    }

    if (l.height == INT32_MIN) return IMG_ERR_BAD_IMAGE;
    l.top_down = l.height < 0;
    const int32_t height = l.top_down ? -l.height : l.height;
    if (int32_t s = limits::check_dimensions(uint64_t(int64_t(l.width)), uint64_t(height)))
        return s;
    if (l.bits == 12) l.bits = 16;
    if (!dib_depth_valid(l.bits)) return IMG_ERR_DEPTH;
    const bool fields = c == kBitFields || c == kAlphaBitFields;
    if ((c == kRle8 && l.bits != 8) || (c == kRle4 && l.bits != 4) ||
        (fields && l.bits != 16 && l.bits != 32) ||
        (c == IMG_COMPRESSION_RUNS && l.bits != 1) ||
        (c == IMG_COMPRESSION_ALPHA && l.bits != 32))
        return c == kBitFields && l.bits == 1 ? IMG_ERR_VARIANT : IMG_ERR_BAD_IMAGE;
    if (c != kRgb && c != kRle8 && c != kRle4 && !fields && c != IMG_COMPRESSION_RUNS &&
        c != IMG_COMPRESSION_ALPHA)
        return IMG_ERR_VARIANT;
    if (l.top_down && (c == kRle8 || c == kRle4)) return IMG_ERR_BAD_IMAGE;

    // Depth delivered: 16-bit pixels of a file or with a compression become
    // 24-bit; 32-bit pixels of a file become 24-bit unless they carry an
    // alpha mask (then 32-bit with the alpha marker); a bare 32-bit DIB keeps
    // its meaning (compression 0: four colour channels; 200: alpha).
    uint32_t out_bits = l.bits;
    uint32_t out_compression = 0;
    if (l.bits == 16 && (l.file || c != kRgb)) out_bits = 24;
    if (l.bits == 32) {
        if (c == IMG_COMPRESSION_ALPHA) {
            out_compression = IMG_COMPRESSION_ALPHA;
        } else if (fields && l.masks[3]) {
            out_compression = IMG_COMPRESSION_ALPHA;
        } else if (l.file || fields) {
            out_bits = 24;
        }
    }

    const uint32_t width = static_cast<uint32_t>(l.width);
    limits::ImageBytes out_size, src_size;
    if (int32_t s = limits::image_bytes(width, uint64_t(height), out_bits, &out_size)) return s;
    if (int32_t s = limits::image_bytes(width, uint64_t(height), l.bits, &src_size)) return s;
    const uint64_t out_rb = out_size.row, src_rb = src_size.row;

    // Refuse sizes the stream cannot back before the image is allocated.
    // Run lengths and run records may describe far more pixels than they
    // have bytes (a delta skips up to 255 rows in 4 bytes, a white row of any
    // width is a 20-byte record); uncompressed rows must all be there, the
    // last one perhaps without its padding.
    const int64_t capacity = stream::capacity(stream);
    if (c == kRle8 || c == kRle4 || c == IMG_COMPRESSION_RUNS) {
        if (int32_t s = limits::check_declared_size(capacity, data_at, out_size.total,
                                                    limits::kRunLength, IMG_ERR_BAD_IMAGE))
            return s;
        const int32_t s = c == IMG_COMPRESSION_RUNS
                              ? limits::check_declared_size(capacity, data_at, uint64_t(height) * 20,
                                                            limits::kRaw, IMG_ERR_READ)
                              : 0;
        if (s < 0) return s;
    } else {
        const uint64_t need = src_rb * uint64_t(height - 1) + (uint64_t(width) * l.bits + 7) / 8;
        if (int32_t s = limits::check_declared_size(capacity, data_at, need, limits::kRaw, IMG_ERR_READ))
            return s;
    }

    // The header the decoder announces.
    alignas(DibHeader) uint8_t block[kHeaderBlockSize] = {};
    auto* out = reinterpret_cast<DibHeader*>(block);
    out->biSize = kDibHeaderSize;
    out->biWidth = l.width;
    out->biHeight = height;
    out->biPlanes = 1;
    out->biBitCount = static_cast<uint16_t>(out_bits);
    out->biCompression = out_compression;
    out->biSizeImage = static_cast<uint32_t>(out_size.total);
    if (l.x_res && l.y_res && (l.file || l.x_res >= 2001)) {
        out->biXPelsPerMeter = to_dpi(l.x_res);
        out->biYPelsPerMeter = to_dpi(l.y_res);
    } else {
        out->biXPelsPerMeter = l.x_res;
        out->biYPelsPerMeter = l.y_res;
    }

    RgbQuad* pal = dib_palette(block);
    bool invert = false;
    if (l.bits <= 8) {
        uint8_t raw[1024];
        if (!in.seek(l.palette_at) || !in.read(raw, entries * l.palette_entry)) return in.status();
        for (uint32_t i = 0; i < entries; ++i) {
            const uint8_t* e = raw + i * l.palette_entry;
            pal[i] = RgbQuad{e[0], e[1], e[2], 0};
        }
        if (l.bits == 1) {
            const auto white = [](const RgbQuad& q) {
                return q.rgbRed == 255 && q.rgbGreen == 255 && q.rgbBlue == 255;
            };
            const auto black = [](const RgbQuad& q) {
                return q.rgbRed == 0 && q.rgbGreen == 0 && q.rgbBlue == 0;
            };
            invert = white(pal[0]) && black(pal[1]);
            pal[0] = RgbQuad{0, 0, 0, 0};
            pal[1] = RgbQuad{255, 255, 255, 0};
        }
    } else if (out_bits == 16) {
        build_standard_palette(out, "tiff");  // grey ramp of 256 entries
    }

    if (int32_t s = header(out, user); s < 0) return s;
    if (!in.seek(static_cast<uint32_t>(data_at))) return in.status();

    Reader rd{in, raster, user, 0, 0, 0, {}};
    rd.width = width;
    rd.height = height;
    rd.out_row_bytes = static_cast<uint32_t>(out_rb);
    rd.row.assign(size_t(std::max(out_rb, src_rb)) + 4, 0);
    int32_t r;
    if (c == kRle8 || c == kRle4)
        r = read_rle(rd, l.bits);
    else if (c == IMG_COMPRESSION_RUNS)
        r = read_records(rd);
    else
        r = read_rows(rd, l, out_bits, invert);
    return r < 0 ? r : 0;
}

}  // namespace tesslin::bmp
