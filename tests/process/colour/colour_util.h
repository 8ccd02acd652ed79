// Helpers of the colour tests: small images from pixel lists, corpus pages
// with their independent reference rasters.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "test_util.h"

namespace tesslin::test {

// A 24-bit handle of width x height pixels; pixel(x, y) gives 0xRRGGBB.
inline int32_t rgb_handle(int32_t width, int32_t height, const std::function<uint32_t(int32_t, int32_t)>& pixel) {
    return make_handle(width, height, 24, [&](uint8_t* row, uint32_t, int32_t y) {
        for (int32_t x = 0; x < width; ++x) {
            const uint32_t c = pixel(x, y);
            row[3 * x] = uint8_t(c), row[3 * x + 1] = uint8_t(c >> 8), row[3 * x + 2] = uint8_t(c >> 16);
        }
    });
}

// A 32-bit handle whose every pixel holds the four bytes of `bytes`
// (first byte lowest), with the given compression field.
inline int32_t quad_handle(int32_t width, int32_t height, uint32_t bytes, uint32_t compression) {
    void* dib = make_dib(width, height, 32, [&](uint8_t* row, uint32_t, int32_t) {
        for (int32_t x = 0; x < width; ++x) store_le32(row + 4 * x, bytes);
    });
    static_cast<DibHeader*>(dib)->biCompression = compression;
    return IMG_create_handle_keep(dib);
}

// The reference raster the corpus manifest names for a file's first page.
inline Raster corpus_reference(const std::string& file) {
    for (const auto& row : manifest())
        if (row.size() > 6 && row[0] == file && row[2] == "0") return read_netpbm(corpus(row[6]));
    return Raster{};
}

}  // namespace tesslin::test
