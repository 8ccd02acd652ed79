// IMT (format code 42) and BTR (format code 29) writers.
#include <algorithm>
#include <cstring>

#include "core/stream.h"
#include "formats/ccitt/ccitt.h"
#include "formats/faxcontainers/faxcontainers.h"

namespace tesslin::faxcontainers {

namespace {

// Writes a whole header; IMG_ERR_WRITE when fewer bytes go out.
int32_t write_header(int32_t stream, const uint8_t* bytes, uint32_t n) {
    const int32_t w = stream::write(stream, bytes, n);
    if (w < 0) return w;
    return uint32_t(w) == n ? 0 : IMG_ERR_WRITE;
}

uint16_t dpi16(int32_t dpi) { return uint16_t(std::clamp(dpi, 0, 0xFFFF)); }

}  // namespace

// 22 bytes: 'C1\0, version 1, compression 3 (Group 4), 0, height, width in
// bytes, resolution, then 1 (first pixel in the low bit), 0, 1, 0.
int32_t encode_imt(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    if (header->biBitCount != 1) return IMG_ERR_DEPTH;
    // The header holds whole bytes of width: the page is written as wide as
    // it says, its last width % 8 columns dropped.
    const int32_t width_bytes = header->biWidth / 8;
    if (width_bytes < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    uint8_t h[22] = {'\'', 'C', '1', 0};
    store_le16(h + 4, 1);
    h[6] = 3;
    store_le32(h + 8, uint32_t(header->biHeight));
    store_le32(h + 12, uint32_t(width_bytes));
    store_le16(h + 16, dpi16(header->biXPelsPerMeter));
    h[18] = 1;
    h[20] = 1;
    if (int32_t s = write_header(stream, h, sizeof h)) return s;
    DibHeader page = *header;
    page.biWidth = width_bytes * 8;
    return ccitt::fax_encode_g4(stream, &page, supply, user, 1, ccitt::kFrameG4);
}

// 128 bytes: 0xBB, 1, coding 1 (Group 3), resolutions 200 and 100 or 200,
// 1, the width, 1, 1, zeros, the height at 45, zeros.
int32_t encode_btr(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    if (header->biBitCount != 1) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biWidth > 0xFFFF || header->biHeight < 1 ||
        header->biHeight > 0xFFFF)
        return IMG_ERR_BAD_IMAGE;
    uint8_t h[128] = {0xBB};
    store_le16(h + 1, 1);
    h[3] = 1;
    store_le16(h + 4, 200);
    store_le16(h + 6, header->biYPelsPerMeter <= 100 ? 100 : 200);
    h[8] = 1;
    store_le16(h + 9, uint16_t(header->biWidth));
    h[11] = 1;
    h[12] = 1;
    store_le16(h + 45, uint16_t(header->biHeight));
    if (int32_t s = write_header(stream, h, sizeof h)) return s;
    return ccitt::fax_encode_1d(stream, header, supply, user, 0, ccitt::kFrameG3);
}

}  // namespace tesslin::faxcontainers
