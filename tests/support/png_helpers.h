// Helpers for the PNG and inflate tests: decoding through the reader with
// test callbacks, encoding through the writer from a DIB, netpbm references,
// and PNG files built chunk by chunk.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "core/dib.h"
#include "core/stream.h"
#include "formats/png/png.h"
#include "image_util.h"
#include "test_util.h"

namespace tesslin::pngtest {

using test::read_file;
using test::write_file;

// What a decode delivered: the header with its palette and the rows by number.
struct Decoded {
    int32_t status = 0;
    std::vector<uint8_t> header;  // 40 bytes + palette
    std::vector<std::vector<uint8_t>> rows;
    int32_t deliveries = 0;
    int32_t stop_header = 0;            // returned by the header callback when non-zero
    int32_t stop_row = -1, stop_status = 0;  // raster callback returns stop_status on this row

    const DibHeader& h() const { return *reinterpret_cast<const DibHeader*>(header.data()); }
    const RgbQuad* palette() const { return dib_palette(header.data()); }
    int32_t width() const { return h().biWidth; }
    int32_t height() const { return h().biHeight; }
    int bits() const { return h().biBitCount; }
};

inline int32_t on_header(const IMG_BITMAPINFOHEADER* header, intptr_t user) {
    auto* d = reinterpret_cast<Decoded*>(user);
    const auto* bytes = reinterpret_cast<const uint8_t*>(header);
    d->header.assign(bytes, bytes + 40 + palette_bytes(header->biBitCount));
    d->rows.assign(size_t(header->biHeight), {});
    return d->stop_header ? d->stop_header : 1;
}

inline int32_t on_row(uint8_t* row, intptr_t user, int32_t number, uint32_t bytes) {
    auto* d = reinterpret_cast<Decoded*>(user);
    ++d->deliveries;
    if (number == d->stop_row) return d->stop_status;
    if (number < 0 || size_t(number) >= d->rows.size() || bytes != row_bytes(uint32_t(d->width()), uint32_t(d->bits())))
        return -99;
    d->rows[size_t(number)].assign(row, row + bytes);
    return 0;
}

inline Decoded decode(const std::vector<uint8_t>& file, Decoded d = {}, uint32_t position = 0) {
    int32_t s = stream::mem_create_sized(const_cast<uint8_t*>(file.data()), uint32_t(file.size()));
    d.status = png_decode(position, on_row, reinterpret_cast<intptr_t>(&d), on_header, s);
    stream::mem_release(s);
    return d;
}

// Pixel x of a decoded row as (blue, green, red, alpha) through the palette
// for palette depths; 16-bit rows give the high byte of the sample.
inline RgbQuad pixel(const Decoded& d, int32_t y, int32_t x) {
    const auto& row = d.rows[size_t(y)];
    switch (d.bits()) {
    case 1: return d.palette()[(row[size_t(x) >> 3] >> (7 - (x & 7))) & 1];
    case 4: return d.palette()[(row[size_t(x) >> 1] >> ((x & 1) ? 0 : 4)) & 15];
    case 8: return d.palette()[row[size_t(x)]];
    case 16: {
        uint8_t v = row[2 * size_t(x) + 1];
        return RgbQuad{v, v, v, 0};
    }
    case 24: return RgbQuad{row[3 * size_t(x)], row[3 * size_t(x) + 1], row[3 * size_t(x) + 2], 0};
    default: return RgbQuad{row[4 * size_t(x)], row[4 * size_t(x) + 1], row[4 * size_t(x) + 2], row[4 * size_t(x) + 3]};
    }
}

// The sample value (palette index, or 16-bit high byte) of pixel x.
inline uint32_t index(const Decoded& d, int32_t y, int32_t x) {
    const auto& row = d.rows[size_t(y)];
    switch (d.bits()) {
    case 1: return (row[size_t(x) >> 3] >> (7 - (x & 7))) & 1;
    case 4: return (row[size_t(x) >> 1] >> ((x & 1) ? 0 : 4)) & 15;
    case 8: return row[size_t(x)];
    case 16: return row[2 * size_t(x) + 1];
    default: return 0;
    }
}

// Reference rasters (netpbm files, P4 read as grey 0 / 255).
using Pnm = test::Raster;
inline bool read_pnm(const std::string& path, Pnm* out) { return test::read_netpbm(path, out); }

// PNG files assembled from raw (already filtered) row data.
inline void put_chunk(std::vector<uint8_t>& out, const char* type, const std::vector<uint8_t>& data) {
    uint8_t b[4];
    store_be32(b, uint32_t(data.size()));
    out.insert(out.end(), b, b + 4);
    std::vector<uint8_t> body(type, type + 4);
    body.insert(body.end(), data.begin(), data.end());
    out.insert(out.end(), body.begin(), body.end());
    store_be32(b, png_crc(body.data(), body.size()));
    out.insert(out.end(), b, b + 4);
}

inline std::vector<uint8_t> ihdr(uint32_t w, uint32_t h, uint8_t depth, uint8_t colour, uint8_t interlace = 0) {
    std::vector<uint8_t> d(13, 0);
    store_be32(d.data(), w);
    store_be32(d.data() + 4, h);
    d[8] = depth;
    d[9] = colour;
    d[12] = interlace;
    return d;
}

inline std::vector<uint8_t> zlib_compress(const std::vector<uint8_t>& raw, int level = 6) {
    uLongf n = compressBound(uLong(raw.size()));
    std::vector<uint8_t> z(n);
    compress2(z.data(), &n, raw.data(), uLong(raw.size()), level);
    z.resize(n);
    return z;
}

// Signature, IHDR, the extra chunks given, the compressed data split into
// IDAT chunks of at most `split` bytes, IEND.
inline std::vector<uint8_t> build_png(const std::vector<uint8_t>& header_chunk,
                                      const std::vector<std::pair<std::string, std::vector<uint8_t>>>& extra,
                                      const std::vector<uint8_t>& zdata, size_t split = 1 << 20) {
    std::vector<uint8_t> out = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    put_chunk(out, "IHDR", header_chunk);
    for (const auto& [type, data] : extra) put_chunk(out, type.c_str(), data);
    for (size_t i = 0; i < zdata.size(); i += split)
        put_chunk(out, "IDAT",
                  std::vector<uint8_t>(zdata.begin() + long(i),
                                       zdata.begin() + long(std::min(zdata.size(), i + split))));
    put_chunk(out, "IEND", {});
    return out;
}

// Encodes `rows` (top first, each a packed DIB row) described by `header`
// (with palette) and returns the PNG bytes, or an empty vector and *status.
struct SupplyRows {
    const std::vector<std::vector<uint8_t>>* rows;
    int32_t fail_row = -1, fail_status = 0;
};

inline int32_t supply_row(intptr_t user, uint8_t* buffer, int32_t row, uint32_t bytes) {
    auto* s = reinterpret_cast<SupplyRows*>(user);
    if (row == s->fail_row) return s->fail_status;
    const auto& r = (*s->rows)[size_t(row)];
    std::memcpy(buffer, r.data(), std::min<size_t>(bytes, r.size()));
    return 0;
}

inline std::vector<uint8_t> encode(const std::vector<uint8_t>& header, const std::vector<std::vector<uint8_t>>& rows,
                                   int32_t* status, SupplyRows supply = {}) {
    size_t raw = 0;
    for (const auto& r : rows) raw += r.size() + 1;
    std::vector<uint8_t> buf(raw + raw / 100 + 65536);
    int32_t s = stream::mem_create_sized(buf.data(), uint32_t(buf.size()));
    supply.rows = &rows;
    *status = png_encode(s, reinterpret_cast<const DibHeader*>(header.data()), supply_row,
                         reinterpret_cast<intptr_t>(&supply), 0);
    const int32_t end = stream::seek(s, 0, 1);
    stream::mem_release(s);
    if (*status < 0) return {};
    buf.resize(size_t(end));
    return buf;
}

inline std::vector<uint8_t> dib_header(int32_t w, int32_t h, int bits, uint32_t compression = 0) {
    std::vector<uint8_t> hdr(40 + palette_bytes(uint32_t(bits)), 0);
    auto* p = reinterpret_cast<DibHeader*>(hdr.data());
    p->biSize = 40;
    p->biWidth = w;
    p->biHeight = h;
    p->biPlanes = 1;
    p->biBitCount = uint16_t(bits);
    p->biCompression = compression;
    p->biSizeImage = row_bytes(uint32_t(w), uint32_t(bits)) * uint32_t(h);
    return hdr;
}

}  // namespace tesslin::pngtest
