// Small GIF files built byte by byte, for the cases peer tools do not write:
// frames beyond the screen, local tables, odd code sizes, data without a
// clear or end code, damaged blocks. The LZW data puts a clear code before
// every index, so the table never grows and every code is plain to see.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace tesslin::test {

struct GifFrame {
    uint16_t left = 0, top = 0, width = 1, height = 1;
    std::vector<uint8_t> indices;  // width x height, in stored order
    int local_bits = 0;            // a local table of 2^bits entries; 0: none
    int size_bits = 0;             // descriptor size bits when there is no local table
    bool interlaced = false;
    int delay = -1;                // >= 0: a graphic control extension before the frame
    int transparent = -1;          // its transparent index
    int min_code = 0;              // code size (1-8); 0: 8, or the local table's bits (at least 2)
    bool clear_first = true, end_code = true;
};

// Colour i of a table made here: distinct for every index.
inline uint8_t gif_colour(int i, int c, bool local) {
    return uint8_t(local ? i * 53 + 7 + c * 97 : i * 37 + c * 91 + (c == 2 ? 255 - 2 * i : 0));
}

inline std::vector<uint8_t> gif_file(uint16_t screen_w, uint16_t screen_h, int global_bits,
                                     const std::vector<GifFrame>& frames) {
    std::vector<uint8_t> f = {'G', 'I', 'F', '8', '9', 'a'};
    auto le16 = [&](uint16_t v) { f.push_back(uint8_t(v)), f.push_back(uint8_t(v >> 8)); };
    auto table = [&](int bits, bool local) {
        for (int i = 0; i < (1 << bits); ++i)
            for (int c = 0; c < 3; ++c) f.push_back(gif_colour(i, c, local));
    };
    le16(screen_w);
    le16(screen_h);
    f.push_back(uint8_t(global_bits ? 0x80 | (global_bits - 1) : 0));
    f.push_back(0);
    f.push_back(0);
    if (global_bits) table(global_bits, false);
    for (const GifFrame& fr : frames) {
        if (fr.delay >= 0) {
            f.insert(f.end(), {0x21, 0xF9, 4, uint8_t(fr.transparent >= 0 ? 1 : 0)});
            le16(uint16_t(fr.delay));
            f.push_back(uint8_t(fr.transparent >= 0 ? fr.transparent : 0));
            f.push_back(0);
        }
        f.push_back(0x2C);
        le16(fr.left), le16(fr.top), le16(fr.width), le16(fr.height);
        const int size = fr.local_bits ? fr.local_bits - 1 : fr.size_bits;
        f.push_back(uint8_t((fr.local_bits ? 0x80 : 0) | (fr.interlaced ? 0x40 : 0) | size));
        if (fr.local_bits) table(fr.local_bits, true);
        const int k = fr.min_code ? fr.min_code : fr.local_bits ? std::max(fr.local_bits, 2) : 8;
        f.push_back(uint8_t(k));
        const uint32_t clear = 1u << k, width = uint32_t(k) + 1;
        std::vector<uint32_t> codes;
        for (size_t i = 0; i < fr.indices.size(); ++i) {
            if (i || fr.clear_first) codes.push_back(clear);
            codes.push_back(fr.indices[i]);
        }
        if (fr.end_code) codes.push_back(clear + 1);
        std::vector<uint8_t> data;
        uint32_t acc = 0, bits = 0;
        for (uint32_t c : codes) {
            acc |= c << bits;
            for (bits += width; bits >= 8; bits -= 8, acc >>= 8) data.push_back(uint8_t(acc));
        }
        if (bits) data.push_back(uint8_t(acc));
        for (size_t i = 0; i < data.size(); i += 255) {
            const size_t n = std::min<size_t>(255, data.size() - i);
            f.push_back(uint8_t(n));
            f.insert(f.end(), data.begin() + long(i), data.begin() + long(i + n));
        }
        f.push_back(0);
    }
    f.push_back(0x3B);
    return f;
}

}  // namespace tesslin::test
