// Helpers of the PNG tests: the reader and writer run on bytes in memory,
// a pixel's sample and colour in a decode, and PNG files built chunk by
// chunk.
#pragma once

#include <zlib.h>

#include "formats/png/png.h"
#include "test_util.h"

namespace tesslin::test {

inline Decoded png_read(const Bytes& file, Decoded d = {}, uint32_t position = 0) {
    return decode_with(png_decode, file, position, d);
}

// The sample value (palette index, or 16-bit high byte) of pixel x.
inline uint32_t sample(const Decoded& d, int32_t y, int32_t x) {
    const Bytes& row = d.rows[size_t(y)];
    switch (d.bits()) {
        case 1: return (row[size_t(x) >> 3] >> (7 - (x & 7))) & 1;
        case 4: return (row[size_t(x) >> 1] >> ((x & 1) ? 0 : 4)) & 15;
        case 8: return row[size_t(x)];
        case 16: return row[2 * size_t(x) + 1];
        default: return 0;
    }
}
// Pixel x as (blue, green, red, alpha): through the palette for palette
// depths, the high byte of the sample for 16 bits.
inline RgbQuad pixel_colour(const Decoded& d, int32_t y, int32_t x) {
    const uint8_t* p = &d.rows[size_t(y)][size_t(x) * size_t(d.bits()) / 8];
    switch (d.bits()) {
        case 16: return RgbQuad{p[1], p[1], p[1], 0};
        case 24: return RgbQuad{p[0], p[1], p[2], 0};
        case 32: return RgbQuad{p[0], p[1], p[2], p[3]};
        default: return d.palette()[sample(d, y, x)];
    }
}

// PNG files assembled from raw (already filtered) row data.
inline void put_chunk(Bytes& out, const char* type, const Bytes& data) {
    uint8_t b[4];
    store_be32(b, uint32_t(data.size()));
    out.insert(out.end(), b, b + 4);
    Bytes body(type, type + 4);
    body.insert(body.end(), data.begin(), data.end());
    out.insert(out.end(), body.begin(), body.end());
    store_be32(b, png_crc(body.data(), body.size()));
    out.insert(out.end(), b, b + 4);
}
inline Bytes ihdr(uint32_t w, uint32_t h, uint8_t depth, uint8_t colour, uint8_t interlace = 0) {
    Bytes d(13, 0);
    store_be32(d.data(), w);
    store_be32(d.data() + 4, h);
    d[8] = depth, d[9] = colour, d[12] = interlace;
    return d;
}
inline Bytes zlib_compress(const Bytes& raw, int level = 6) {
    uLongf n = compressBound(uLong(raw.size()));
    Bytes z(n);
    compress2(z.data(), &n, raw.data(), uLong(raw.size()), level);
    z.resize(n);
    return z;
}
// Signature, IHDR, the extra chunks given, the compressed data split into
// IDAT chunks of at most `split` bytes, IEND.
inline Bytes build_png(const Bytes& header_chunk, const std::vector<std::pair<std::string, Bytes>>& extra,
                       const Bytes& zdata, size_t split = 1 << 20) {
    Bytes out = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    put_chunk(out, "IHDR", header_chunk);
    for (const auto& [type, data] : extra) put_chunk(out, type.c_str(), data);
    for (size_t i = 0; i < zdata.size(); i += split)
        put_chunk(out, "IDAT", Bytes(zdata.begin() + long(i), zdata.begin() + long(std::min(zdata.size(), i + split))));
    put_chunk(out, "IEND", {});
    return out;
}

}  // namespace tesslin::test
