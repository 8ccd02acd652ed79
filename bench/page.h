// A 2,550 x 3,300 text page (letter at 300 dpi) for the bilevel benchmarks:
// the 200-dpi test page scaled by 1.5 with nearest neighbour, packed with
// 1 = white as the library stores bilevel rows.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace tesslin::bench {

struct Page {
    uint32_t width = 0, height = 0, row_bytes = 0;
    std::vector<uint8_t> rows;  // top row first
};

inline Page letter_page() {
    std::string path = std::string(TESSLIN_TEST_DATA) + "/corpus/refs/3d67d77b51bcb234.pbm";
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        std::fprintf(stderr, "missing %s\n", path.c_str());
        std::exit(1);
    }
    unsigned w = 0, h = 0;
    if (std::fscanf(f, "P4 %u %u", &w, &h) != 2) std::exit(1);
    std::fgetc(f);
    const uint32_t src_rb = (w + 7) / 8;
    std::vector<uint8_t> src(size_t(src_rb) * h);
    if (std::fread(src.data(), 1, src.size(), f) != src.size()) std::exit(1);
    std::fclose(f);

    Page p;
    p.width = w * 3 / 2;
    p.height = h * 3 / 2;
    p.row_bytes = ((p.width + 31) / 32) * 4;
    p.rows.assign(size_t(p.row_bytes) * p.height, 0xFF);
    for (uint32_t y = 0; y < p.height; ++y) {
        const uint8_t* s = src.data() + size_t(y * 2 / 3) * src_rb;
        uint8_t* d = p.rows.data() + size_t(y) * p.row_bytes;
        for (uint32_t x = 0; x < p.width; ++x) {
            uint32_t sx = x * 2 / 3;
            if (s[sx >> 3] & (0x80 >> (sx & 7))) d[x >> 3] &= uint8_t(~(0x80 >> (x & 7)));
        }
    }
    return p;
}

}  // namespace tesslin::bench
