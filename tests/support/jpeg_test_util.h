// Helpers of the JPEG tests: decoding into memory through the decoder
// callbacks, netpbm references, PSNR and the peer tools.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/dib.h"
#include "core/stream.h"
#include "formats/jpeg/jpeg.h"
#include "platform/platform.h"
#include "image_util.h"
#include "test_util.h"
#include "tesslin/tesslin.h"

namespace tesslin::test {

struct Decoded {
    DibHeader header{};
    std::vector<RgbQuad> palette;
    uint32_t row_bytes = 0;
    std::vector<uint8_t> pixels;  // top row first, row_bytes per row
    std::vector<int> rows_seen;   // delivery order
    int stop_after = -1;          // raster callback fails after this many rows

    uint8_t* row(int r) { return pixels.data() + size_t(r) * row_bytes; }
    const uint8_t* row(int r) const { return pixels.data() + size_t(r) * row_bytes; }
};

inline int32_t decoded_header(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    auto* d = reinterpret_cast<Decoded*>(user);
    d->header = *h;
    const uint32_t entries = palette_entries(h->biBitCount);
    const auto* pal = dib_palette(h);
    d->palette.assign(pal, pal + entries);
    d->row_bytes = row_bytes(uint32_t(h->biWidth), h->biBitCount);
    d->pixels.assign(size_t(d->row_bytes) * uint32_t(h->biHeight), 0xCD);
    return 0;
}

inline int32_t decoded_row(uint8_t* row, intptr_t user, int32_t n, uint32_t bytes) {
    auto* d = reinterpret_cast<Decoded*>(user);
    if (d->stop_after >= 0 && int(d->rows_seen.size()) >= d->stop_after) return -5;
    if (bytes != d->row_bytes || n < 0 || n >= d->header.biHeight) return -99;
    std::memcpy(d->row(n), row, bytes);
    d->rows_seen.push_back(n);
    return 0;
}

// Decodes bytes held in memory through the JPEG decoder.
inline int32_t jpeg_decode_bytes(const std::vector<uint8_t>& bytes, Decoded* out,
                                 const jpeg::DecodeOptions& options = {}, uint32_t position = 0) {
    void* block = tesslin_block_alloc(uint32_t(bytes.size() ? bytes.size() : 1));
    if (!bytes.empty()) std::memcpy(block, bytes.data(), bytes.size());
    const int32_t s = stream::mem_create_sized(block, uint32_t(bytes.size()));
    const int32_t r = jpeg::decode(options, position, decoded_row, reinterpret_cast<intptr_t>(out),
                                   decoded_header, s);
    stream::mem_release(s);
    tesslin_block_free(block);
    return r;
}

inline int32_t jpeg_decode_file(const std::string& path, Decoded* out,
                                const jpeg::DecodeOptions& options = {}) {
    const int32_t fd = platform::file_open(path.c_str(), 0);
    if (fd < 0) return IMG_ERR_OPEN;
    const int32_t r = jpeg::decode(options, 0, decoded_row, reinterpret_cast<intptr_t>(out),
                                   decoded_header, fd);
    platform::file_close(fd);
    return r;
}

// Reference rasters (netpbm files).
using Pnm = Raster;
inline bool read_pnm(const std::string& path, Pnm* out) { return read_netpbm(path, out); }

// Pixels of a decoded image as netpbm samples (RGB for 24-bit, grey for
// 8-bit, the four channels as stored for 32-bit).
inline std::vector<uint8_t> as_pnm_samples(const Decoded& d) {
    const int w = d.header.biWidth, h = d.header.biHeight, bits = d.header.biBitCount;
    std::vector<uint8_t> out;
    for (int y = 0; y < h; ++y) {
        const uint8_t* r = d.row(y);
        for (int x = 0; x < w; ++x) {
            if (bits == 8) {
                out.push_back(r[x]);
            } else if (bits == 24) {
                out.push_back(r[3 * x + 2]);
                out.push_back(r[3 * x + 1]);
                out.push_back(r[3 * x]);
            } else {
                for (int c = 0; c < 4; ++c) out.push_back(r[4 * x + c]);
            }
        }
    }
    return out;
}

inline double psnr(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    if (a.size() != b.size() || a.empty()) return -1;
    double se = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        const double d = double(a[i]) - double(b[i]);
        se += d * d;
    }
    if (se == 0) return 99;
    return 10 * std::log10(255.0 * 255.0 * double(a.size()) / se);
}


}  // namespace tesslin::test

namespace tesslin::test {

// A DIB in a library block built from netpbm samples: grey 8-bit with the
// grey ramp, RGB as 24-bit BGR, four channels as 32-bit.
inline void* dib_from_pnm(const Pnm& p) {
    const int bits = p.channels == 1 ? 8 : p.channels == 3 ? 24 : 32;
    return make_dib(p.width, p.height, bits, [&](uint8_t* row, uint32_t, int32_t r) {
        const uint8_t* s = p.px.data() + size_t(r) * p.width * p.channels;
        for (int x = 0; x < p.width; ++x) {
            if (bits == 8) row[x] = s[x];
            else if (bits == 24) {
                row[3 * x] = s[3 * x + 2];
                row[3 * x + 1] = s[3 * x + 1];
                row[3 * x + 2] = s[3 * x];
            } else {
                for (int c = 0; c < 4; ++c) row[4 * x + c] = s[4 * x + c];
            }
        }
    });
}

struct DibSource {
    const uint8_t* dib;
    int supplied = 0;
    int fail_at = -1;  // supply returns -7 for this row
};

inline int32_t dib_supply(intptr_t user, uint8_t* buffer, int32_t row, uint32_t bytes) {
    auto* s = reinterpret_cast<DibSource*>(user);
    const auto* h = reinterpret_cast<const DibHeader*>(s->dib);
    if (row == s->fail_at) return -7;
    const uint32_t rb = row_bytes(uint32_t(h->biWidth), h->biBitCount);
    if (bytes != rb || row != s->supplied) return -98;
    const uint8_t* px = s->dib + 40 + palette_bytes(h->biBitCount);
    std::memcpy(buffer, px + size_t(h->biHeight - 1 - row) * rb, bytes);
    ++s->supplied;
    return 0;
}

// Encodes a DIB through the JPEG encoder into bytes; *status gets the result.
inline std::vector<uint8_t> jpeg_encode_dib(const void* dib, int32_t* status = nullptr,
                                            int fail_at = -1) {
    const auto* h = static_cast<const DibHeader*>(dib);
    const uint32_t cap = 4096 + row_bytes(uint32_t(h->biWidth), 32) * uint32_t(h->biHeight) * 2;
    void* block = tesslin_block_alloc(cap);
    const int32_t s = stream::mem_create_sized(block, cap);
    DibSource src{static_cast<const uint8_t*>(dib)};
    src.fail_at = fail_at;
    const int32_t r = jpeg::encode(s, h, dib_supply, reinterpret_cast<intptr_t>(&src), 0);
    const int32_t n = stream::seek(s, 0, 1);
    std::vector<uint8_t> out;
    if (r == 0 && n > 0) out.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
    stream::mem_release(s);
    tesslin_block_free(block);
    if (status) *status = r;
    return out;
}

}  // namespace tesslin::test
