// PCX and DCX readers: the header and palette rules, run-length decoding of
// the scan lines, their conversion to DIB rows, and the DCX page table.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/io.h"
#include "core/limits.h"
#include "core/stream.h"
#include "formats/pcx/pcx.h"
#include "process/colour/palette.h"

namespace tesslin::pcx {
namespace {

constexpr uint32_t kHeaderBytes = 128;
constexpr uint32_t kPaletteBytes = 768;
// Page numbers are 16-bit: no table walk goes further.
constexpr uint32_t kMaxPages = 0x10000;

int32_t fault(const StreamReader& in, int32_t otherwise) {
    const int32_t s = in.status();
    return s == IMG_ERR_STREAM_FAULT || s == IMG_ERR_MEMORY ? s : otherwise;
}

// How the planes of a scan line become a DIB row.
enum class Layout { kBits1, kNibbles, kBytes, kPlanes4, kRgb };

struct Image {
    uint32_t width = 0, height = 0;
    uint32_t planes = 0;          // planes in the file
    uint32_t bytes_per_line = 0;  // per plane
    uint32_t bits = 0;            // of the DIB
    Layout layout = Layout::kBytes;
    bool invert = false;          // 1-bit rows delivered inverted
};

// Scan line to DIB row; `out` holds the row's bytes, zero beyond the pixels.
void convert(const Image& im, const uint8_t* line, uint8_t* out) {
    const uint32_t bpl = im.bytes_per_line, w = im.width;
    switch (im.layout) {
        case Layout::kBits1: {
            const uint32_t n = (w + 7) / 8;
            for (uint32_t i = 0; i < n; ++i) out[i] = im.invert ? uint8_t(~line[i]) : line[i];
            if (w & 7) out[n - 1] &= uint8_t(0xFF00 >> (w & 7));
            break;
        }
        case Layout::kNibbles: {
            const uint32_t n = (w + 1) / 2;
            std::memcpy(out, line, n);
            if (w & 1) out[n - 1] &= 0xF0;
            break;
        }
        case Layout::kBytes:
            std::memcpy(out, line, w);
            break;
        case Layout::kPlanes4: {
            // Pixel value: bit of plane 0 + 2 x plane 1 + 4 x plane 2 + 8 x
            // plane 3 (absent in three-plane files); two pixels a byte.
            const uint8_t* p[4] = {line, line + bpl, line + 2 * bpl,
                                   im.planes > 3 ? line + 3 * bpl : nullptr};
            for (uint32_t x = 0; x < w; ++x) {
                const uint32_t byte = x >> 3, shift = 7 - (x & 7);
                uint32_t v = ((p[0][byte] >> shift) & 1) | (((p[1][byte] >> shift) & 1) << 1) |
                             (((p[2][byte] >> shift) & 1) << 2);
                if (p[3]) v |= ((p[3][byte] >> shift) & 1) << 3;
                if (x & 1)
                    out[x >> 1] = uint8_t(out[x >> 1] | v);
                else
                    out[x >> 1] = uint8_t(v << 4);
            }
            break;
        }
        case Layout::kRgb:
            for (uint32_t x = 0; x < w; ++x) {
                out[3 * x] = line[2 * bpl + x];
                out[3 * x + 1] = line[bpl + x];
                out[3 * x + 2] = line[x];
            }
            break;
    }
}

// Run-length data from the reader's position: a byte of 0xC0 or more is a
// count (its low six bits) for the value after it, any other byte a single
// value. A run that passes the end of a scan line is cut there.
int32_t decode_lines(StreamReader& in, const Image& im, IMG_RASTER_CALLBACK raster,
                     intptr_t user) {
    const uint32_t line_bytes = im.planes * im.bytes_per_line;
    std::vector<uint8_t> line(size_t(line_bytes) * 2 + 64);
    std::vector<uint8_t> row(row_bytes(im.width, im.bits), 0);
    if (in.ensure(1) == 0) return fault(in, IMG_ERR_READ);
    uint32_t fill = 0, r = 0;
    for (;;) {
        const int c = in.byte_or_eof();
        if (c < 0) return fault(in, IMG_ERR_READ);
        uint32_t count = 1;
        int value = c;
        if (c >= 0xC0) {
            count = uint32_t(c) & 0x3F;
            value = in.byte_or_eof();
            if (value < 0) return fault(in, IMG_ERR_READ);
        }
        if (fill + count > 2 * line_bytes) return IMG_ERR_BAD_IMAGE;
        std::memset(line.data() + fill, value, count);
        fill += count;
        if (fill < line_bytes) continue;
        convert(im, line.data(), row.data());
        if (int32_t s = raster(row.data(), user, int32_t(r), uint32_t(row.size())); s < 0) return s;
        if (++r == im.height) return 0;
        fill = 0;
    }
}

// The PCX image at `offset` whose data end at `end` (its 256-colour palette
// is the 768 bytes before it).
int32_t decode_image(int32_t stream, uint32_t offset, int64_t end, IMG_RASTER_CALLBACK raster,
                     intptr_t user, IMG_HEADER_CALLBACK header) {
    StreamReader in(stream);
    uint8_t h[kHeaderBytes];
    if (!in.seek(offset) || !in.read(h, kHeaderBytes)) return fault(in, IMG_ERR_OPEN);
    const uint32_t version = h[1];
    const int64_t width = int64_t(load_le16(h + 8)) - load_le16(h + 4) + 1;
    const int64_t height = int64_t(load_le16(h + 10)) - load_le16(h + 6) + 1;
    if (width < 1 || height < 1) return IMG_ERR_BAD_IMAGE;
    Image im;
    im.width = uint32_t(width);
    im.height = uint32_t(height);
    im.planes = h[65];
    im.bytes_per_line = load_le16(h + 66);
    const uint32_t palette_info = load_le16(h + 68);

    // Planes and bits per plane as read: three 1-bit planes as four, four
    // 4-bit planes as 1-bit planes, 16 bits as 4.
    uint32_t plane_bits = h[3], planes = im.planes;
    if (planes == 3 && plane_bits == 1) planes = 4;
    if (planes == 4 && plane_bits == 4) plane_bits = 1;
    if (plane_bits == 16) plane_bits = 4;
    if (planes == 4 && plane_bits == 1)
        im.layout = Layout::kPlanes4;
    else if (planes == 1 && plane_bits == 1)
        im.layout = Layout::kBits1;
    else if (planes == 1 && plane_bits == 4)
        im.layout = Layout::kNibbles;
    else if (planes == 1 && plane_bits == 8)
        im.layout = Layout::kBytes;
    else if (planes == 3 && plane_bits == 8)
        im.layout = Layout::kRgb;
    else
        return IMG_ERR_UNSUPPORTED;
    im.bits = plane_bits * planes;
    if ((uint64_t(im.width) * plane_bits + 7) / 8 > im.bytes_per_line) return IMG_ERR_BAD_IMAGE;

    limits::ImageBytes size;
    if (int32_t s = limits::image_bytes(im.width, im.height, im.bits, &size)) return s;
    const uint64_t line_bytes = uint64_t(im.planes) * im.bytes_per_line;
    if (int32_t s = limits::check_declared_size(stream::capacity(stream), offset + kHeaderBytes,
                                                line_bytes * im.height, limits::kRunLength,
                                                IMG_ERR_BAD_IMAGE))
        return s;

    alignas(DibHeader) uint8_t block[kHeaderBlockSize] = {};
    auto* dib = reinterpret_cast<DibHeader*>(block);
    *dib = dib_header(int32_t(im.width), int32_t(im.height), uint16_t(im.bits));
    dib->biSizeImage = uint32_t(size.total);
    dib_set_resolution(dib, load_le16(h + 12), load_le16(h + 14));
    RgbQuad* pal = dib_palette(block);
    const uint8_t* header_palette = h + 16;
    const bool old_version = version == 0 || version == 3;
    if (im.bits == 8) {
        if (old_version) {
            build_standard_palette(dib, "pcx");
        } else {
            // The last 768 bytes of the image's data; the 0x0C before them
            // is not looked at.
            uint8_t rgb[kPaletteBytes];
            if (end < int64_t(offset) + kHeaderBytes + kPaletteBytes) return IMG_ERR_READ;
            if (!in.seek(uint32_t(end - kPaletteBytes)) || !in.read(rgb, kPaletteBytes))
                return fault(in, IMG_ERR_READ);
            for (uint32_t i = 0; i < 256; ++i)
                pal[i] = RgbQuad{rgb[3 * i + 2], rgb[3 * i + 1], rgb[3 * i], 0};
        }
    } else if (im.bits < 8) {
        if (palette_info == 2) {
            build_standard_palette(dib, "tiff");
        } else if (old_version) {
            build_standard_palette(dib, "pcx");
        } else {
            for (uint32_t i = 0; i < (1u << im.bits); ++i) {
                const uint8_t* e = header_palette + 3 * i;
                pal[i] = RgbQuad{e[2], e[1], e[0], 0};
            }
        }
    }
    if (im.bits == 1) {
        // Black and white; a header palette of light on black is taken as
        // inverted bits.
        const uint8_t* e = header_palette;
        im.invert = e[0] && e[1] && e[2] && !e[3] && !e[4] && !e[5];
        build_standard_palette(dib, nullptr);
    }

    if (!in.seek(offset + kHeaderBytes)) return fault(in, IMG_ERR_READ);
    if (int32_t s = header(dib, user); s < 0) return s;
    return decode_lines(in, im, raster, user);
}

// The end of the data behind the stream, or -1 when it cannot be known.
int64_t data_end(int32_t stream) { return stream::capacity(stream); }

}  // namespace

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    uint32_t offset = 0;
    if (int32_t s = single_image_start(position, stream, &offset); s < 0) return s;
    return decode_image(stream, offset, data_end(stream), raster, user, header);
}

int32_t decode_dcx(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream) {
    uint32_t base = position, page = 0;
    if (position_is_page(position)) {
        const int32_t here = stream::seek(stream, 0, 1);
        if (here < 0) return here;
        base = uint32_t(here);
        page = position_page(position);
    }
    StreamReader in(stream, 4096);
    if (!in.seek(base)) return fault(in, IMG_ERR_READ);
    const uint32_t magic = in.le32();
    if (!in.ok()) return fault(in, IMG_ERR_BAD_IMAGE);
    if (magic != kDcxMagic) return IMG_ERR_BAD_IMAGE;
    uint32_t at = 0;
    for (uint32_t i = 0; i <= page; ++i) {
        at = in.le32();
        if (!in.ok()) return fault(in, IMG_ERR_NO_PAGE);
        if (at == 0 || (at & 0x80000000u)) return IMG_ERR_NO_PAGE;
    }
    // A page's data end where the next page begins, when that one follows
    // it; the last page's at the end of the file. (Each 256-colour page
    // carries its palette at its own end.)
    int64_t end = data_end(stream);
    const uint32_t following = in.le32();
    if (in.ok() && following > at && !(following & 0x80000000u) &&
        (end < 0 || int64_t(following) < end))
        end = following;
    return decode_image(stream, at, end, raster, user, header);
}

int32_t count_dcx_pages(int32_t stream) {
    StreamReader in(stream, 4096);
    if (in.le32() != kDcxMagic) return fault(in, IMG_ERR_BAD_IMAGE);
    int32_t pages = 0;
    for (uint32_t i = 0; i < kMaxPages; ++i) {
        const uint32_t at = in.le32();
        if (!in.ok() || at == 0 || (at & 0x80000000u)) break;
        ++pages;
    }
    return fault(in, pages);
}

}  // namespace tesslin::pcx
