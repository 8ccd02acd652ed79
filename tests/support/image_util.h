// Test helpers for whole images: netpbm reference rasters, a handle's pixels
// as RGB, files read into library blocks.
#pragma once

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "core/dib.h"
#include "tesslin/tesslin.h"
#include "test_util.h"

namespace tesslin::test {

// A copy of the bytes in a library block (so that memory streams know its size).
inline void* to_block(const std::vector<uint8_t>& data) {
    void* b = tesslin_block_alloc(uint32_t(data.size() ? data.size() : 1));
    if (!data.empty()) std::memcpy(b, data.data(), data.size());
    return b;
}

// A reference raster: `channels` 8-bit samples per pixel, rows from the top.
// P4 samples are 0 (black) or 255 (white).
struct Raster {
    int32_t width = 0, height = 0, channels = 0;
    std::vector<uint8_t> px;
    const uint8_t* at(int32_t x, int32_t y) const {
        return px.data() + (size_t(y) * size_t(width) + size_t(x)) * size_t(channels);
    }
};

// Reads a netpbm file (P4, P5, P6, or P7 with WIDTH, HEIGHT, DEPTH) of 8-bit
// samples; false when it is missing, cut short or not 8-bit.
inline bool read_netpbm(const std::string& path, Raster* out) {
    const std::vector<uint8_t> d = read_file(path);
    if (d.size() < 3 || d[0] != 'P') return false;
    const char kind = char(d[1]);
    size_t pos = 2;
    auto token = [&]() {
        std::string t;
        while (pos < d.size()) {
            if (d[pos] == '#') {
                while (pos < d.size() && d[pos] != '\n') ++pos;
            } else if (std::isspace(d[pos])) {
                if (!t.empty()) break;
                ++pos;
            } else {
                t += char(d[pos++]);
            }
        }
        return t;
    };
    auto number = [&]() {
        const std::string t = token();
        return t.empty() ? -1 : std::atoi(t.c_str());
    };
    Raster& r = *out;
    int maxval = 255;
    if (kind == '7') {
        for (std::string t = token(); !t.empty() && t != "ENDHDR"; t = token()) {
            if (t == "WIDTH") r.width = number();
            else if (t == "HEIGHT") r.height = number();
            else if (t == "DEPTH") r.channels = number();
            else if (t == "MAXVAL") maxval = number();
            else if (t == "TUPLTYPE") token();
        }
    } else {
        r.width = number();
        r.height = number();
        if (kind != '4') maxval = number();
        r.channels = kind == '6' ? 3 : 1;
    }
    ++pos;  // the single whitespace before the samples
    if (maxval != 255 || r.width <= 0 || r.height <= 0 || r.channels <= 0) return false;
    const size_t n = size_t(r.width) * size_t(r.height) * size_t(r.channels);
    if (kind == '4') {
        const size_t rb = (size_t(r.width) + 7) / 8;
        if (pos + rb * size_t(r.height) > d.size()) return false;
        r.px.resize(n);
        for (int32_t y = 0; y < r.height; ++y)
            for (int32_t x = 0; x < r.width; ++x) {
                const uint8_t bit = (d[pos + size_t(y) * rb + size_t(x) / 8] >> (7 - x % 8)) & 1;
                r.px[size_t(y) * size_t(r.width) + size_t(x)] = bit ? 0 : 255;
            }
        return true;
    }
    if (pos + n > d.size()) return false;
    r.px.assign(d.begin() + long(pos), d.begin() + long(pos + n));
    return true;
}

inline Raster read_netpbm(const std::string& path) {
    Raster r;
    read_netpbm(path, &r);
    return r;
}

// A handle's pixels as RGB (3 channels) or, for 32-bit images, the four
// stored bytes reordered to red, green, blue, fourth byte.
inline Raster handle_raster(int32_t handle) {
    Raster r;
    int32_t bits = 0;
    IMG_bitmap_info(handle, &r.width, &r.height, &bits);
    r.channels = bits == 32 ? 4 : 3;
    std::vector<uint8_t> header(kHeaderBlockSize);
    IMGLOW_get_bitmap_header(handle, header.data());
    const RgbQuad* pal = dib_palette(header.data());
    r.px.resize(size_t(r.width) * size_t(r.height) * size_t(r.channels));
    for (int32_t y = 0; y < r.height; ++y) {
        std::vector<uint8_t> row = get_row(handle, y);
        for (int32_t x = 0; x < r.width; ++x) {
            uint8_t* o = r.px.data() + (size_t(y) * size_t(r.width) + size_t(x)) * size_t(r.channels);
            uint32_t index = 0;
            switch (bits) {
                case 1: index = (row[size_t(x) / 8] >> (7 - x % 8)) & 1; break;
                case 4: index = (x & 1) ? row[size_t(x) / 2] & 15 : row[size_t(x) / 2] >> 4; break;
                case 8: index = row[size_t(x)]; break;
                case 16: {
                    const uint32_t v = load_le16(&row[size_t(x) * 2]);
                    o[0] = uint8_t(((v >> 10) & 31) << 3);
                    o[1] = uint8_t(((v >> 5) & 31) << 3);
                    o[2] = uint8_t((v & 31) << 3);
                    continue;
                }
                default: {
                    const uint8_t* p = &row[size_t(x) * (size_t(bits) / 8)];
                    o[0] = p[2];
                    o[1] = p[1];
                    o[2] = p[0];
                    if (bits == 32) o[3] = p[3];
                    continue;
                }
            }
            o[0] = pal[index].rgbRed;
            o[1] = pal[index].rgbGreen;
            o[2] = pal[index].rgbBlue;
        }
    }
    return r;
}

// Number of samples that differ (first channels of each pixel compared).
inline size_t count_differences(const Raster& a, const Raster& b, int channels) {
    if (a.width != b.width || a.height != b.height) return size_t(-1);
    size_t n = 0;
    for (int32_t y = 0; y < a.height; ++y)
        for (int32_t x = 0; x < a.width; ++x)
            for (int c = 0; c < channels; ++c) n += a.at(x, y)[c] != b.at(x, y)[c];
    return n;
}

// Grey value of an RGB reference sample for a 1-channel reference.
inline Raster to_rgb(const Raster& r) {
    if (r.channels != 1) return r;
    Raster o = r;
    o.channels = 3;
    o.px.resize(r.px.size() * 3);
    for (size_t i = 0; i < r.px.size(); ++i) o.px[i * 3] = o.px[i * 3 + 1] = o.px[i * 3 + 2] = r.px[i];
    return o;
}

}  // namespace tesslin::test
