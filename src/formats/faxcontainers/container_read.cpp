// IMT, BTR, KFX and LSD readers: a fixed header, then one page of fax data.
#include "core/io.h"
#include "core/stream.h"
#include "formats/ccitt/fax_page.h"
#include "formats/faxcontainers/faxcontainers.h"

namespace tesslin::faxcontainers {

namespace {

// What a container header says about its page.
struct Page {
    uint64_t width = 0, height = 0;
    int32_t mode = ccitt::kModeG4;
    uint32_t fill_order = 1;
    int32_t x_dpi = 0, y_dpi = 0;
    uint64_t data_at = 0;  // absolute stream offset of the coded data
};

// Reads the first n bytes of a header: at the position, or at the stream's
// position when bit 31 is set. Returns the header's offset, or the negative
// status (IMG_ERR_READ when the stream ends first).
int64_t read_header(uint32_t position, int32_t stream, uint8_t* out, uint32_t n) {
    const int64_t base = position_is_page(position) ? stream::seek(stream, 0, 1) : position;
    if (base < 0) return base;
    if (base > 0x7FFFFFFF) return IMG_ERR_READ;
    StreamReader in(stream, 512);
    if (!in.seek(uint32_t(base)) || !in.read(out, n)) return in.status() < 0 ? in.status() : IMG_ERR_READ;
    return base;
}

// Widths and heights the fax decoders take; others are refused before the
// values are narrowed.
bool size_in_range(const Page& page) {
    return page.width >= 1 && page.width <= ccitt::kMaxFaxWidth && page.height >= 1 &&
           page.height <= INT32_MAX;
}

int32_t decode(const Page& page, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    if (!size_in_range(page)) return IMG_ERR_BAD_IMAGE;
    if (page.data_at > 0x7FFFFFFF) return IMG_ERR_READ;
    if (int32_t s = stream::seek(stream, int32_t(page.data_at), 0); s < 0) return s;
    return ccitt::decode_page(
        ccitt::page_params(uint32_t(page.width), uint32_t(page.height), page.mode, page.fill_order),
        page.x_dpi, page.y_dpi, nullptr, stream, raster, user, header);
}

}  // namespace

// IMT: 'C1\0, version, compression, 0, height (32-bit), width in bytes
// (32-bit), resolution, bit order, then the data at 22.
int32_t decode_imt(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream) {
    uint8_t h[22];
    const int64_t base = read_header(position, stream, h, sizeof h);
    if (base < 0) return int32_t(base);
    if (load_le16(h + 4) != 1) return IMG_ERR_UNSUPPORTED;
    Page page;
    page.height = load_le32(h + 8);
    page.width = uint64_t(load_le32(h + 12)) * 8;
    page.x_dpi = page.y_dpi = load_le16(h + 16);
    page.fill_order = h[18] == 1 ? 2 : 1;
    page.data_at = uint64_t(base) + sizeof h;
    const uint8_t compression = h[6];
    if (compression == 1 || compression == 3) {
        page.mode = compression == 1 ? ccitt::kModeG3 : ccitt::kModeG4;
        return decode(page, raster, user, header, stream);
    }
    // A coding this reader does not know: the header, and no rows.
    if (!size_in_range(page)) return IMG_ERR_BAD_IMAGE;
    if (page.data_at > 0x7FFFFFFF) return IMG_ERR_READ;
    return ccitt::announce_page(uint32_t(page.width), uint32_t(page.height), page.x_dpi, page.y_dpi,
                                ccitt::bytes_from(stream, uint32_t(page.data_at)), header, user);
}

// BTR: 0xBB, coding at 3, resolutions at 4 and 6, width at 9, height at 45;
// the data at 128.
int32_t decode_btr(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream) {
    uint8_t h[128];
    const int64_t base = read_header(position, stream, h, sizeof h);
    if (base < 0) return int32_t(base);
    Page page;
    page.mode = h[3] == 1 ? ccitt::kModeG3 : ccitt::kModeG4;
    page.x_dpi = load_le16(h + 4);
    page.y_dpi = load_le16(h + 6);
    page.width = load_le16(h + 9);
    page.height = load_le16(h + 45);
    page.data_at = uint64_t(base) + sizeof h;
    return decode(page, raster, user, header, stream);
}

// KFX: ".KF", width in bytes at 12, height at 14; Group 4 with the first
// pixel in the low bit, 512 bytes after the header's start.
int32_t decode_kfx(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream) {
    uint8_t h[22];
    const int64_t base = read_header(position, stream, h, sizeof h);
    if (base < 0) return int32_t(base);
    Page page;
    page.width = uint64_t(load_le16(h + 12)) * 8;
    page.height = load_le16(h + 14);
    page.fill_order = 2;
    page.data_at = uint64_t(base) + 512;
    return decode(page, raster, user, header, stream);
}

// LSD: 0xDC 0xDC, height at 6, width at 8, coding at 12, bit order at 13,
// data position word at 14 (2: the data at stream offset 150, else right
// after the 512-byte header).
int32_t decode_lsd(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream) {
    uint8_t h[512];
    const int64_t base = read_header(position, stream, h, sizeof h);
    if (base < 0) return int32_t(base);
    Page page;
    page.height = load_le16(h + 6);
    page.width = load_le16(h + 8);
    const uint8_t coding = h[12], bit_order = h[13];
    page.mode = coding == 2 ? ccitt::kModeG3 : ccitt::kModeG4;
    page.fill_order = (bit_order == 0 || bit_order == 2) && !(coding == 0 && bit_order == 0) ? 2 : 1;
    page.data_at = load_le16(h + 14) == 2 ? 150 : uint64_t(base) + sizeof h;
    return decode(page, raster, user, header, stream);
}

}  // namespace tesslin::faxcontainers
