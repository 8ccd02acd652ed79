// The IOCA decoder and the MO:DCA queries: page count, orientation and the
// parameters of ABIC data.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "core/limits.h"
#include "core/stream.h"
#include "formats/ccitt/fax_page.h"
#include "formats/ioca/ioca.h"
#include "formats/ioca/modca.h"
#include "process/colour/palette.h"

namespace tesslin::ioca {
namespace {

// Decodes `data` with the decoder of another type tag from a memory stream.
int32_t decode_embedded(const char* tag, std::vector<uint8_t>& data, IMG_RASTER_CALLBACK raster,
                        intptr_t user, IMG_HEADER_CALLBACK header) {
    const Decoder decoder = decoder_for_tag(tag);
    if (!decoder) return IMG_ERR_UNSUPPORTED;
    if (data.empty()) return IMG_ERR_BAD_IMAGE;
    const int32_t mem = stream::mem_create_sized(data.data(), uint32_t(data.size()));
    if (!mem) return IMG_ERR_MEMORY;
    const int32_t r = decoder(0, raster, user, header, mem);
    stream::mem_release(mem);
    return r;
}

int32_t dpi(uint32_t per_ten_inches) { return int32_t(per_ten_inches / 10); }

// Uncompressed rows: every byte inverted (IOCA marks ink with 1 bits).
int32_t decode_uncompressed(const Segment& s, IMG_RASTER_CALLBACK raster, intptr_t user,
                            IMG_HEADER_CALLBACK header) {
    if (s.bits != 1 && s.bits != 4 && s.bits != 8) return IMG_ERR_VARIANT;
    const uint32_t stride = (s.width * s.bits + 7) / 8;
    if (uint64_t(stride) * s.height > s.data.size()) return IMG_ERR_READ;
    alignas(DibHeader) uint8_t block[kHeaderBlockSize] = {};
    auto* h = reinterpret_cast<DibHeader*>(block);
    *h = dib_header(int32_t(s.width), int32_t(s.height), uint16_t(s.bits));
    dib_set_resolution(h, dpi(s.x_resolution), dpi(s.y_resolution));
    build_standard_palette(h, "tiff");  // 1 bit: black, white
    const uint32_t rb = row_bytes(s.width, s.bits);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[rb]());
    if (!row) return IMG_ERR_MEMORY;
    if (int32_t r = header(h, user); r < 0) return r;
    for (uint32_t y = 0; y < s.height; ++y) {
        const uint8_t* src = s.data.data() + size_t(y) * stride;
        for (uint32_t i = 0; i < stride; ++i) row[i] = uint8_t(~src[i]);
        if (int32_t r = raster(row.get(), user, int32_t(y), rb); r < 0) return r;
    }
    return 0;
}

// Counts the rows a decoder delivers on their way to the caller.
struct Counted {
    IMG_RASTER_CALLBACK raster;
    intptr_t user;
    uint32_t rows = 0;
    static int32_t line(uint8_t* row, intptr_t self, int32_t index, uint32_t count) {
        auto* c = reinterpret_cast<Counted*>(self);
        ++c->rows;
        return c->raster(row, c->user, index, count);
    }
};

// IBM MMR data begins with an EOL (eleven or more 0 bits, then a 1), in
// the data's bit order; T.6 data never does.
bool starts_with_eol(const std::vector<uint8_t>& d, bool lsb_first) {
    uint32_t zeros = 0;
    for (uint8_t byte : d) {
        for (int i = 0; i < 8; ++i) {
            const bool one = lsb_first ? (byte >> i) & 1 : (byte >> (7 - i)) & 1;
            if (one) return zeros >= 11;
            ++zeros;
        }
        if (zeros > 64) return false;
    }
    return false;
}

int32_t decode_fax(const Segment& s, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header) {
    if (s.bits != 1) return IMG_ERR_VARIANT;
    int32_t mode = ccitt::kModeG4Memory;
    switch (s.compression) {
        case kIbmMmr: mode = ccitt::kModeMrPlain; break;
        case kT4OneD: mode = ccitt::kModeMhMemory; break;
        case kT4TwoD: mode = ccitt::kModeG3MrMemory; break;
        default: break;
    }
    ccitt::FaxParams p = ccitt::page_params(s.width, s.height, mode, s.lsb_first ? 2 : 1);
    p.data_length = uint32_t(s.data.size());
    if (int32_t r = ccitt::announce_page(s.width, s.height, dpi(s.x_resolution), dpi(s.y_resolution),
                                         int64_t(s.data.size()), header, user))
        return r;
    if (mode == ccitt::kModeMrPlain) {
        // IBM MMR that the two-dimensional decoder rejects before its first
        // row is decoded again as T.6.
        if (starts_with_eol(s.data, s.lsb_first)) {
            Counted counted{raster, user};
            const int32_t r = ccitt::fax_decode(s.data.data(), s.height, 0, p, 0, Counted::line,
                                                reinterpret_cast<intptr_t>(&counted));
            if (r != IMG_ERR_BAD_IMAGE || counted.rows) return r;
        }
        p.mode = ccitt::kModeG4Memory;
    }
    return ccitt::fax_decode(s.data.data(), s.height, 0, p, 0, raster, user);
}

int32_t decode_segment(Segment& s, IMG_RASTER_CALLBACK raster, intptr_t user,
                       IMG_HEADER_CALLBACK header) {
    switch (s.compression) {
        case kAbic:
        case kAbicConcatenated: return IMG_ERR_COMPRESSION;
        case kJpeg: return decode_embedded("jpg", s.data, raster, user, header);
        case kIbmMmr:
        case kUncompressed:
        case kT4OneD:
        case kT4TwoD:
        case kT6: break;
        default: return IMG_ERR_BAD_IMAGE;
    }
    if (int32_t r = limits::check_dimensions(s.width, s.height)) return r;
    if (s.compression == kUncompressed) return decode_uncompressed(s, raster, user, header);
    return decode_fax(s, raster, user, header);
}

// Base offset and page of a position argument.
int32_t base_and_page(uint32_t position, int32_t stream, uint32_t* base, uint32_t* page) {
    if (position_is_page(position)) {
        const int32_t here = stream::seek(stream, 0, 1);
        if (here < 0) return here;
        *base = uint32_t(here);
        *page = position_page(position);
    } else {
        *base = position;
        *page = 0;
    }
    return 0;
}

// An indexed container: "000", then the 32-bit offset of image p at
// (p / 2) * 42 + 23 for even p and (p / 2) * 42 + 34 for odd p. The offset
// of a little-endian TIFF there, or 0.
uint32_t indexed_tiff(int32_t stream, uint32_t base, uint32_t page) {
    StreamReader in(stream, 64);
    uint8_t head[6];
    if (!in.seek(base) || in.read_some(head, 6) != 6 || std::memcmp(head, "000", 3) != 0) return 0;
    const uint64_t entry = uint64_t(base) + uint64_t(page / 2) * 42 + (page % 2 ? 34 : 23);
    uint8_t b[4];
    if (entry > 0x7FFFFFF0 || !in.seek(uint32_t(entry)) || in.read_some(b, 4) != 4) return 0;
    const uint64_t at = uint64_t(base) + load_be32(b);
    uint8_t order[2];
    if (at > 0x7FFFFFF0 || !in.seek(uint32_t(at)) || in.read_some(order, 2) != 2) return 0;
    return order[0] == 'I' && order[1] == 'I' ? uint32_t(at) : 0;
}

}  // namespace

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    if (!raster || !header) return IMG_ERR_BAD_IMAGE;
    uint32_t base = 0, page = 0;
    if (int32_t r = base_and_page(position, stream, &base, &page)) return r;
    if (const uint32_t tiff = indexed_tiff(stream, base, page)) {
        const Decoder decoder = decoder_for_tag("tif");
        return decoder ? decoder(tiff, raster, user, header, stream) : IMG_ERR_UNSUPPORTED;
    }
    Located image;
    if (int32_t r = locate(stream, base, page, &image)) return r;
    if (image.kind == Located::Kind::kJpeg) return decode_embedded("jpg", image.data, raster, user, header);
    if (image.kind == Located::Kind::kTiff) return decode_embedded("tif", image.data, raster, user, header);
    Segment s;
    if (int32_t r = parse_segment(image.data, !image.bare, &s)) return r;
    image.data = {};  // the image data is in the segment now
    return decode_segment(s, raster, user, header);
}

int32_t abic_params(int32_t stream, int32_t page, AbicParams* out) {
    const int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here;
    uint8_t bytes[kProbeBytes] = {};
    const bool whole = stream::read(stream, bytes, kProbeBytes) == int32_t(kProbeBytes);
    stream::seek(stream, here, 0);
    if (!whole || !signature(Probe{bytes, stream, uint32_t(here)})) return kAbicParamsAbsent;
    Located image;
    if (int32_t r = locate(stream, uint32_t(here), uint32_t(std::max(page, 0)), &image)) return r;
    Segment s;
    if (image.kind != Located::Kind::kIoca || parse_segment(image.data, !image.bare, &s) != 0 || !s.has_size)
        return kAbicParamsAbsent;
    out->width = int32_t(s.width);
    out->height = int32_t(s.height);
    out->bits = int32_t(s.bits);
    out->x_dpi = dpi(s.x_resolution);
    out->y_dpi = dpi(s.y_resolution);
    const uint32_t at = image.stream_offset(s.data_at);
    return stream::seek(stream, int32_t(at), 0) < 0 ? IMG_ERR_READ : 0;
}

int32_t count_pages(int32_t stream) {
    FieldReader fields(stream, 0);
    StreamReader& in = fields.in();
    uint8_t first[3] = {};
    if (in.ensure(3) >= 3) std::memcpy(first, in.data(), 3);
    if (first[0] == 0x70 || std::memcmp(first, "000", 3) == 0) return 1;
    int32_t pages = 0;
    Field f;
    while (fields.next(&f) == 1) {
        if (f.id == kBeginPage) ++pages;
        if (!fields.skip(f)) break;
    }
    return std::max(pages, 1);
}

int32_t orientation(int32_t stream, int32_t page) {
    FieldReader fields(stream, 0);
    const uint32_t wanted = uint32_t(std::max(page, 0));
    uint32_t pages = 0;
    Field f;
    while (fields.next(&f) == 1) {
        if (f.id == kBeginPage && ++pages > wanted + 1) break;
        const bool on_page = pages == wanted + 1 || (wanted == 0 && pages == 0);
        if (f.id == kObjectAreaPosition && on_page && f.data_length >= 12) {
            // Position id, length, X and Y offsets (3 bytes each), then the
            // X axis rotation: 0x0000, 0x2D00, 0x5A00, 0x8700.
            uint8_t d[12];
            if (!fields.in().seek(f.data_at) || !fields.in().read(d, 12)) break;
            const uint16_t x_axis = load_be16(d + 8);
            return x_axis == 0x2D00 || x_axis == 0x8700 ? 90 : 0;
        }
        if (!fields.skip(f)) break;
    }
    return pages > wanted || wanted == 0 ? 0 : IMG_ERR_NO_PAGE;
}

}  // namespace tesslin::ioca
