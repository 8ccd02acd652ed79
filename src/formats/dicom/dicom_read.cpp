// The DICOM decoder: walks the data set for the image attributes, then
// delivers the first frame of the pixel data, native, RLE or JPEG coded.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <vector>

#include "core/limits.h"
#include "core/pixels.h"
#include "core/stream.h"
#include "formats/dicom/dicom.h"
#include "formats/dicom/dicom_elements.h"
#include "process/colour/palette.h"

namespace tesslin::dicom {
namespace {

// The attributes of the image, from the top level of the data set.
struct Image {
    char photometric[17] = {};
    uint16_t rows = 0, columns = 0;
    uint16_t bits_allocated = 0, bits_stored = 0, high_bit = 0, representation = 0;
    uint8_t lut[3][256] = {};  // red, green, blue palette entries
};

// Records the element when it is one of the image attributes. False when
// its value cannot be read.
bool record(ElementReader& r, const Element& e, Image* im) {
    if (e.group != 0x0028 || e.length == kUndefinedLength) return r.pass(e);
    uint16_t* number = nullptr;
    switch (e.element) {
        case 0x0004: {
            const int64_t n = r.read_value(e, im->photometric, 16);
            if (n < 0) return false;
            im->photometric[n] = 0;
            return true;
        }
        case 0x0010: number = &im->rows; break;
        case 0x0011: number = &im->columns; break;
        case 0x0100: number = &im->bits_allocated; break;
        case 0x0101: number = &im->bits_stored; break;
        case 0x0102: number = &im->high_bit; break;
        case 0x0103: number = &im->representation; break;
        case 0x1201: case 0x1202: case 0x1203: {
            // 512 or 400 bytes: 16-bit entries, of which the high byte is
            // kept; any other length: one byte per entry.
            uint8_t* lut = im->lut[e.element - 0x1201];
            uint8_t v[512];
            const bool wide = e.length == 512 || e.length == 400;
            const int64_t n = r.read_value(e, v, wide ? 512 : 256);
            if (n < 0) return false;
            if (wide)
                for (int64_t i = 0; i + 1 < n; i += 2) lut[i / 2] = uint8_t(r.u16(v + i) >> 8);
            else
                std::memcpy(lut, v, size_t(n));
            return true;
        }
        default: return r.pass(e);
    }
    uint8_t v[2];
    const int64_t n = r.read_value(e, v, 2);
    if (n < 0) return false;
    if (n == 2) *number = r.u16(v);
    return true;
}

// How stored rows become DIB rows.
struct Layout {
    uint32_t width = 0, height = 0;
    uint32_t bits = 0;        // DIB bit count: 8, 16 or 24
    uint32_t stored_row = 0;  // bytes of one stored row
    uint32_t dib_row = 0;
    bool packed12 = false;    // 12 bits allocated: two samples in three bytes
    bool times16 = false;     // 12 bits stored with high bit 11
    bool big_endian = false;  // 16-bit samples in the file
};

std::string_view text(const char* s) {
    std::string_view v(s);
    while (!v.empty() && (v.back() == ' ' || v.back() == '\0')) v.remove_suffix(1);
    return v;
}

int32_t layout_of(const Image& im, bool big_endian, Layout* L) {
    if (int32_t s = limits::check_dimensions(im.columns, im.rows)) return s;
    uint32_t bits;
    switch (im.bits_stored) {
        case 8: bits = 8; break;
        case 10: case 12: case 16: bits = 16; break;
        case 24: bits = 24; break;
        default: bits = im.bits_allocated; break;
    }
    if (text(im.photometric) == "RGB") bits = 24;
    const uint32_t allocated = im.bits_allocated;
    const bool fits = (bits == 8 && allocated == 8) || (bits == 24 && allocated == 8) ||
                      (bits == 16 && (allocated == 16 || allocated == 12));
    if (!fits) return IMG_ERR_VARIANT;
    L->width = im.columns;
    L->height = im.rows;
    L->bits = bits;
    L->packed12 = allocated == 12;
    L->stored_row = L->packed12 ? (12 * L->width + 7) / 8 : bits / 8 * L->width;
    L->dib_row = row_bytes(L->width, bits);
    L->times16 = bits == 16 && !L->packed12 && im.bits_stored == 12 && im.high_bit == 11;
    L->big_endian = big_endian;
    return 0;
}

// A stored row to a DIB row (the padding of `out` is left as it is).
void convert(const uint8_t* in, uint8_t* out, const Layout& L) {
    const uint32_t w = L.width;
    if (L.bits == 8) {
        std::memcpy(out, in, w);
    } else if (L.bits == 24) {
        pixels::swap_rgb24(in, out, w);
    } else if (L.packed12) {
        for (uint32_t x = 0; x < w; x += 2) {
            const uint8_t* p = in + x / 2 * 3;
            store_le16(out + 2 * x, uint16_t(((p[0] << 8) | p[1]) & 0xFFF0));
            if (x + 1 < w) store_le16(out + 2 * x + 2, uint16_t((((p[1] & 0x0F) << 8) | p[2]) << 4));
        }
    } else {
        for (uint32_t x = 0; x < w; ++x) {
            uint16_t v = L.big_endian ? load_be16(in + 2 * x) : load_le16(in + 2 * x);
            if (L.times16) v = uint16_t(v << 4);
            store_le16(out + 2 * x, v);
        }
    }
}

int32_t announce(const Image& im, const Layout& L, IMG_HEADER_CALLBACK header, intptr_t user) {
    alignas(DibHeader) uint8_t block[kHeaderBlockSize] = {};
    auto* h = reinterpret_cast<DibHeader*>(block);
    *h = dib_header(int32_t(L.width), int32_t(L.height), uint16_t(L.bits));
    const std::string_view pi = text(im.photometric);
    if (pi == "MONOCHROME2" || pi == "MONOCHROME1" || im.bits_stored == 12) {
        build_standard_palette(h, "tiff");
    } else {
        RgbQuad* q = dib_palette(block);
        for (uint32_t i = 0; i < palette_entries(L.bits); ++i)
            q[i] = RgbQuad{im.lut[2][i], im.lut[1][i], im.lut[0][i], 0};
    }
    const int32_t r = header(h, user);
    return r < 0 ? r : 0;
}

// One DIB row buffer and a stored row, for the row loops.
struct Rows {
    std::unique_ptr<uint8_t[]> out, stored;
    bool make(const Layout& L) {
        out.reset(new (std::nothrow) uint8_t[L.dib_row]());
        stored.reset(new (std::nothrow) uint8_t[L.stored_row + 4]());
        return out && stored;
    }
};

int32_t decode_native(ElementReader& r, const Element& pixels, const Image& im, const Layout& L,
                      IMG_RASTER_CALLBACK raster, intptr_t user, IMG_HEADER_CALLBACK header) {
    const uint64_t need = uint64_t(L.stored_row) * L.height;
    if (pixels.length < need) return IMG_ERR_READ;
    if (int32_t s = limits::check_declared_size(stream::capacity(r.in().stream()), pixels.value_at,
                                                need, limits::kRaw, IMG_ERR_READ))
        return s;
    Rows rows;
    if (!rows.make(L)) return IMG_ERR_MEMORY;
    if (int32_t s = announce(im, L, header, user)) return s;
    // 8-bit samples in big-endian words (OW) come in byte-swapped pairs,
    // whose boundaries need not fall on row boundaries.
    const bool swapped = L.big_endian && L.bits != 16 &&
                         !(pixels.vr[0] == 'O' && pixels.vr[1] == 'B');
    uint8_t word[2] = {};
    uint32_t used = 2;
    for (uint32_t y = 0; y < L.height; ++y) {
        uint8_t* stored = rows.stored.get();
        if (!swapped) {
            if (!r.in().read(stored, L.stored_row)) return r.in().status();
        } else {
            for (uint32_t i = 0; i < L.stored_row; ++i) {
                if (used == 2) {
                    uint8_t raw[2];
                    if (!r.in().read(raw, 2)) return r.in().status();
                    word[0] = raw[1], word[1] = raw[0], used = 0;
                }
                stored[i] = word[used++];
            }
        }
        convert(stored, rows.out.get(), L);
        if (int32_t s = raster(rows.out.get(), user, int32_t(y), L.dib_row); s < 0) return s;
    }
    return 0;
}

// Reads the value of an item into `out` (appended), as far as the stream
// holds it: the buffer grows only with bytes that arrived. False when the
// item is cut short.
bool append_item(StreamReader& in, const Element& item, std::vector<uint8_t>* out) {
    uint32_t left = item.length;
    uint8_t chunk[8192];
    while (left) {
        const uint32_t n = std::min<uint32_t>(left, sizeof chunk);
        if (!in.read(chunk, n)) return false;
        out->insert(out->end(), chunk, chunk + n);
        left -= n;
    }
    return true;
}

// Skips the basic offset table, the first item of encapsulated pixel data.
int32_t skip_offset_table(ElementReader& r) {
    Element item;
    if (!r.next(&item)) return IMG_ERR_READ;
    if (item.tag() != kItem || item.length == kUndefinedLength) return IMG_ERR_BAD_IMAGE;
    return r.pass(item) ? 0 : IMG_ERR_READ;
}

// One PackBits-coded segment, decoded on demand; runs may cross rows.
class PackBits {
public:
    PackBits(const uint8_t* p, const uint8_t* end) : p_(p), end_(end) {}
    // Fills n bytes of out; what the data does not hold is 0.
    void take(uint8_t* out, uint32_t n) {
        uint32_t done = 0;
        while (done < n) {
            if (left_ == 0) {
                if (p_ >= end_) break;
                const int c = int8_t(*p_++);
                if (c >= 0) {
                    left_ = uint32_t(c) + 1;
                    literal_ = true;
                } else if (c != -128) {
                    if (p_ >= end_) break;
                    left_ = uint32_t(1 - c);
                    literal_ = false;
                    value_ = *p_++;
                }
                continue;
            }
            uint32_t k = std::min(left_, n - done);
            if (literal_) {
                k = std::min<uint32_t>(k, uint32_t(end_ - p_));
                if (k == 0) break;
                std::memcpy(out + done, p_, k);
                p_ += k;
            } else {
                std::memset(out + done, value_, k);
            }
            left_ -= k;
            done += k;
        }
        if (done < n) std::memset(out + done, 0, n - done);
    }

private:
    const uint8_t* p_;
    const uint8_t* end_;
    uint32_t left_ = 0;
    bool literal_ = false;
    uint8_t value_ = 0;
};

int32_t decode_rle(ElementReader& r, const Image& im, const Layout& L, IMG_RASTER_CALLBACK raster,
                   intptr_t user, IMG_HEADER_CALLBACK header) {
    if (int32_t s = skip_offset_table(r)) return s;
    Element item;
    if (!r.next(&item)) return IMG_ERR_READ;
    if (item.tag() != kItem || item.length == kUndefinedLength || item.length < 64)
        return IMG_ERR_BAD_IMAGE;
    const uint64_t frame = uint64_t(L.dib_row) * L.height;
    if (int32_t s = limits::check_declared_size(item.length, 0, frame, limits::kPackBits,
                                                IMG_ERR_BAD_IMAGE))
        return s;
    std::vector<uint8_t> data;
    if (!append_item(r.in(), item, &data)) return r.in().status();

    // The RLE header: the segment count and up to 15 segment offsets, each
    // inside the fragment and none before the one it follows.
    const uint32_t count = load_le32(data.data());
    if (count < 1 || count > 15) return IMG_ERR_BAD_IMAGE;
    uint32_t offsets[16];
    for (uint32_t i = 0; i < count; ++i) {
        offsets[i] = load_le32(data.data() + 4 + 4 * i);
        if (offsets[i] < 64 || offsets[i] > data.size() || (i && offsets[i] < offsets[i - 1]))
            return IMG_ERR_BAD_IMAGE;
    }
    offsets[count] = uint32_t(data.size());

    // One segment per byte of a pixel (most significant byte first, red,
    // green, blue for colour); data coded as one segment of whole stored
    // rows is read as such.
    const uint32_t planes = L.packed12 ? 1 : L.bits / 8;
    const bool by_plane = planes > 1 && count >= planes;
    std::vector<PackBits> segments;
    for (uint32_t i = 0; i < (by_plane ? planes : 1); ++i)
        segments.emplace_back(data.data() + offsets[i], data.data() + offsets[i + 1]);

    Rows rows;
    if (!rows.make(L)) return IMG_ERR_MEMORY;
    std::unique_ptr<uint8_t[]> plane(new (std::nothrow) uint8_t[L.width]);
    if (!plane) return IMG_ERR_MEMORY;
    if (int32_t s = announce(im, L, header, user)) return s;
    Layout stored = L;
    stored.big_endian = false;  // planes are assembled in little-endian order
    uint8_t* row = rows.stored.get();
    for (uint32_t y = 0; y < L.height; ++y) {
        if (!by_plane) {
            segments[0].take(row, L.stored_row);
        } else {
            for (uint32_t p = 0; p < planes; ++p) {
                segments[p].take(plane.get(), L.width);
                // 16 bits: the high byte plane first; colour: red, green, blue.
                const uint32_t at = planes == 2 ? 1 - p : p;
                for (uint32_t x = 0; x < L.width; ++x) row[x * planes + at] = plane[x];
            }
        }
        convert(row, rows.out.get(), stored);
        if (int32_t s = raster(rows.out.get(), user, int32_t(y), L.dib_row); s < 0) return s;
    }
    return 0;
}

// True when the JPEG data ends with the EOI marker (items are padded to an
// even length with a zero byte).
bool ends_jpeg(const std::vector<uint8_t>& d) {
    size_t n = d.size();
    if (n && d[n - 1] == 0) --n;
    return n >= 2 && d[n - 2] == 0xFF && d[n - 1] == 0xD9;
}

// The first frame's JPEG data: the items after the offset table up to the
// one that ends the JPEG stream, decoded by the "jpg" decoder from memory.
int32_t decode_jpeg(ElementReader& r, IMG_RASTER_CALLBACK raster, intptr_t user,
                    IMG_HEADER_CALLBACK header) {
    if (int32_t s = skip_offset_table(r)) return s;
    std::vector<uint8_t> data;
    while (!ends_jpeg(data)) {
        Element item;
        if (!r.next(&item)) {
            if (data.empty()) return IMG_ERR_READ;
            break;
        }
        if (item.tag() == kSequenceEnd) break;
        if (item.tag() != kItem || item.length == kUndefinedLength) return IMG_ERR_BAD_IMAGE;
        if (!append_item(r.in(), item, &data)) {
            if (data.empty()) return r.in().status();
            break;
        }
    }
    if (data.empty()) return IMG_ERR_BAD_IMAGE;
    const Decoder jpeg = decoder_for_tag("jpg");
    if (!jpeg) return IMG_ERR_UNSUPPORTED;
    const int32_t mem = stream::mem_create_sized(data.data(), uint32_t(data.size()));
    if (!mem) return IMG_ERR_MEMORY;
    const int32_t s = jpeg(0, raster, user, header, mem);
    stream::mem_release(mem);
    return s;
}

}  // namespace

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    if (!raster || !header) return IMG_ERR_BAD_IMAGE;
    const int32_t base = position_is_page(position) ? stream::seek(stream, 0, 1)
                                                    : int32_t(position);
    if (base < 0) return base;
    ElementReader r(stream);
    if (int32_t s = r.open(uint32_t(base)); s < 0) return s;
    if (r.syntax().pixels == PixelCoding::kRefused) return IMG_ERR_COMPRESSION;

    Image im;
    Element e;
    for (;;) {
        if (!r.next(&e)) return IMG_ERR_READ;
        if (r.depth() == 0 && e.tag() == kPixelData) break;
        if (!(r.depth() == 0 ? record(r, e, &im) : r.pass(e))) return IMG_ERR_READ;
    }
    const PixelCoding coding = r.syntax().pixels;
    const bool encapsulated = coding == PixelCoding::kRle || coding == PixelCoding::kJpeg;
    if (encapsulated != (e.length == kUndefinedLength) || e.length == 0xFFFFFFFE)
        return IMG_ERR_BAD_IMAGE;
    if (coding == PixelCoding::kJpeg) return decode_jpeg(r, raster, user, header);

    Layout L;
    if (int32_t s = layout_of(im, r.syntax().big_endian, &L)) return s;
    if (coding == PixelCoding::kRle) return decode_rle(r, im, L, raster, user, header);
    return decode_native(r, e, im, L, raster, user, header);
}

}  // namespace tesslin::dicom
