// Helpers shared by the tests: DIBs built in library blocks, handles made
// from them, and paths to test data.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "core/dib.h"
#include "tesslin/tesslin.h"

namespace tesslin::test {

// The whole of a file (empty when it cannot be read).
inline std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
}

// A scratch file name in $TMPDIR (else /tmp), unique to this process.
inline std::string temp_path(const std::string& name) {
    const char* dir = std::getenv("TMPDIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/tesslin_" + std::to_string(::getpid()) +
           "_" + name;
}

// True when a program of that name is on the PATH.
inline bool have_tool(const char* name) {
    return std::system((std::string("command -v ") + name + " >/dev/null 2>&1").c_str()) == 0;
}

// True when the system Python has Pillow (asked once).
inline bool have_pillow() {
    static const bool ok = std::system("/usr/bin/python3 -c 'import PIL' >/dev/null 2>&1") == 0;
    return ok;
}

inline void write_file(const std::string& path, const std::vector<uint8_t>& data) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
}

// A DIB of the given size and depth in a library block. Rows are filled by
// fill(row, bytes, row_index) with row 0 the top row; palette 1-bit black/
// white, others a grey ramp.
template <typename Fill>
void* make_dib(int32_t width, int32_t height, int bits, Fill fill) {
    const uint32_t rb = row_bytes(uint32_t(width), uint32_t(bits));
    const uint32_t pal = palette_bytes(uint32_t(bits));
    auto* dib = static_cast<uint8_t*>(tesslin_block_alloc(40 + pal + rb * uint32_t(height)));
    auto* h = reinterpret_cast<DibHeader*>(dib);
    std::memset(h, 0, 40);
    h->biSize = 40;
    h->biWidth = width;
    h->biHeight = height;
    h->biPlanes = 1;
    h->biBitCount = uint16_t(bits);
    h->biSizeImage = rb * uint32_t(height);
    auto* q = dib_palette(dib);
    const uint32_t entries = pal / 4;
    for (uint32_t i = 0; i < entries; ++i) {
        uint8_t v = uint8_t(entries == 2 ? i * 255 : entries == 16 ? i * 17 : i);
        q[i] = RgbQuad{v, v, v, 0};
    }
    uint8_t* px = dib + 40 + pal;
    for (int32_t r = 0; r < height; ++r) fill(px + size_t(height - 1 - r) * rb, rb, r);
    return dib;
}

inline void* make_dib(int32_t width, int32_t height, int bits) {
    return make_dib(width, height, bits, [](uint8_t* row, uint32_t n, int32_t r) {
        for (uint32_t b = 0; b < n; ++b) row[b] = uint8_t(r * 31 + b * 7 + (b >> 3));
    });
}

template <typename Fill>
int32_t make_handle(int32_t width, int32_t height, int bits, Fill fill) {
    return IMG_create_handle_keep(make_dib(width, height, bits, fill));
}

inline int32_t make_handle(int32_t width, int32_t height, int bits) {
    return IMG_create_handle_keep(make_dib(width, height, bits));
}

// Row r (0 = top) of a handle, as IMGLOW_get_raster gives it.
inline std::vector<uint8_t> get_row(int32_t handle, int32_t r) {
    int32_t w = 0, h = 0, bits = 0;
    IMG_bitmap_info(handle, &w, &h, &bits);
    std::vector<uint8_t> row(row_bytes(uint32_t(w), uint32_t(bits)));
    IMGLOW_get_raster(handle, row.data(), r, 0);
    return row;
}

inline std::string data_path(const std::string& name) {
    return std::string(TESSLIN_TEST_DATA) + "/" + name;
}

}  // namespace tesslin::test
