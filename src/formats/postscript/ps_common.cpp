// Pieces the PostScript writers share: page size, hexadecimal rows, the TIFF
// preview, the DOS EPS header and run-length packets.
#include <algorithm>
#include <cstring>

#include "core/stream.h"
#include "formats/postscript/ps_internal.h"
#include "formats/tiff/tiff.h"

namespace tesslin::postscript {

PageSize page_size(const DibHeader* header) {
    const double xdpi = header->biXPelsPerMeter > 0 ? header->biXPelsPerMeter : 0;
    const double ydpi = header->biYPelsPerMeter > 0 && xdpi > 0 ? header->biYPelsPerMeter : xdpi;
    PageSize s;
    // Multiplying before dividing keeps whole results whole (2550 pixels at
    // 300 dpi are 612 points, not 611.99...).
    s.width = xdpi > 0 ? double(header->biWidth) * 72.0 / xdpi : double(header->biWidth);
    s.height = ydpi > 0 ? double(header->biHeight) * 72.0 / ydpi : double(header->biHeight);
    s.box_width = int32_t(s.width);
    s.box_height = int32_t(s.height);
    return s;
}

uint32_t packed_bytes(uint32_t width, uint32_t bits) {
    switch (bits) {
        case 1: return (width + 7) / 8;
        case 4: return (width + 1) / 2;
        case 8: return width;
        case 24: return 3 * width;
        default: return 4 * width;
    }
}

bool hex_line(LineWriter& w, const uint8_t* data, uint32_t n) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    char chunk[4096];
    uint32_t used = 0;
    for (uint32_t i = 0; i < n; ++i) {
        chunk[used++] = kDigits[data[i] >> 4];
        chunk[used++] = kDigits[data[i] & 15];
        if (used == sizeof chunk) {
            if (!w.bytes(chunk, used)) return false;
            used = 0;
        }
    }
    chunk[used++] = '\r';
    chunk[used++] = '\n';
    return w.bytes(chunk, used);
}

int32_t start_of(int32_t stream, uint32_t* base) {
    const int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here == IMG_ERR_STREAM_FAULT ? here : IMG_ERR_WRITE;
    *base = uint32_t(here);
    return 0;
}

int32_t tiff_preview(LineWriter& w, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                     intptr_t user, uint32_t* length) {
    const uint32_t at = w.offset();
    const int32_t r = w.direct([&](int32_t stream) -> int32_t {
        // The TIFF writer appends to a TIFF it finds at the position: make
        // sure whatever the stream held there before is not one.
        const int32_t here = stream::seek(stream, 0, 1);
        static const uint8_t kBlank[2] = {0, 0};
        if (here < 0 || stream::write(stream, kBlank, 2) != 2 ||
            stream::seek(stream, here, 0) != here)
            return IMG_ERR_WRITE;
        return tiff::encode(stream, header, supply, user, IMG_FORMAT_TIFF);
    });
    *length = w.offset() - at;
    return r;
}

int32_t patch(int32_t stream, uint32_t base, uint32_t at, const void* data, uint32_t n,
              uint32_t end) {
    if (stream::seek(stream, int32_t(base + at), 0) != int32_t(base + at)) return IMG_ERR_WRITE;
    const int32_t w = stream::write(stream, data, n);
    if (w < 0) return w;
    if (uint32_t(w) != n) return IMG_ERR_WRITE;
    return stream::seek(stream, int32_t(base + end), 0) == int32_t(base + end) ? 0 : IMG_ERR_WRITE;
}

int32_t binary_header(int32_t stream, uint32_t base, uint32_t end, uint32_t ps_at,
                      uint32_t ps_length, uint32_t tiff_at, uint32_t tiff_length) {
    uint8_t h[32] = {0xC5, 0xD0, 0xD3, 0xC6};
    store_le32(h + 4, ps_at);
    store_le32(h + 8, ps_length);
    store_le32(h + 20, tiff_at);
    store_le32(h + 24, tiff_length);
    store_le16(h + 28, 0xFFFF);
    return patch(stream, base, 0, h, sizeof h, end);
}

void run_length(const uint8_t* data, uint32_t n, std::vector<uint8_t>& out) {
    uint32_t i = 0, literal = 0;  // literal: start of the pending literal bytes
    auto flush_literal = [&](uint32_t to) {
        while (literal < to) {
            const uint32_t k = std::min<uint32_t>(to - literal, 128);
            out.push_back(uint8_t(k - 1));
            out.insert(out.end(), data + literal, data + literal + k);
            literal += k;
        }
    };
    while (i < n) {
        uint32_t j = i + 1;
        while (j < n && data[j] == data[i] && j - i < 128) ++j;
        if (j - i >= 3) {
            flush_literal(i);
            out.push_back(uint8_t(257 - (j - i)));
            out.push_back(data[i]);
            literal = j;
        }
        i = j;
    }
    flush_literal(n);
}

}  // namespace tesslin::postscript
