// Colour model conversions in place: colour to CMYK, colour to grey.
//
//   IMG_rgb_to_cmyk  24 bits (4, 8, 16 through the palette) -> 32-bit cyan,
//                    magenta, yellow, black; IMG_ERR_DEPTH for 1 and 32 bits
//   IMG_color_gray   4, 8, 16, 24, 32 bits -> 8-bit grey with the "tiff"
//                    ramp; IMG_ERR_UNSUPPORTED for 1 bit
//
// Both: IMG_ERR_HANDLE, IMG_ERR_MEMORY, or the progress callback's status;
// the bitmap keeps its image on every failure.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/settings.h"
#include "process/colour/frame.h"
#include "process/colour/palette.h"
#include "process/colour/rows.h"

using namespace tesslin;

namespace {

inline uint8_t ink(int32_t v, int32_t k) {
    const int32_t i = static_cast<int32_t>((v - k) * 1.35);  // truncation toward zero
    return uint8_t(std::clamp(i, 0, 255));
}

int32_t rgb_to_cmyk(int32_t handle) {
    BitmapObject* obj = nullptr;
    if (int32_t s = colour::find(handle, &obj)) return s;
    colour::discard_window_level(obj);
    if (obj->bits() == 1 || obj->bits() == 32) return IMG_ERR_DEPTH;

    process::NewImage image;
    if (int32_t s = colour::create(image, obj, 32)) return s;
    image.header()->biCompression = 0;
    colour::RowReader src(obj);
    const uint32_t width = src.width();
    const int32_t height = src.height();
    for (int32_t s = 0; s < height; ++s) {
        const uint8_t* p = src.bgr(s);
        uint8_t* out = colour::stored_row(image, s);
        for (uint32_t x = 0; x < width; ++x, p += 3, out += 4) {
            const int32_t c = 255 - p[2], m = 255 - p[1], y = 255 - p[0];
            const int32_t k = static_cast<int32_t>(std::max({c, m, y}) * 0.3);
            out[0] = ink(c, k), out[1] = ink(m, k), out[2] = ink(y, k), out[3] = uint8_t(k);
        }
        if (int32_t r = report_progress(height, s, image.row_bytes()); r < 0) return r;
    }
    return colour::install(image, obj);
}

int32_t color_gray(int32_t handle) {
    BitmapObject* obj = nullptr;
    if (int32_t s = colour::find(handle, &obj)) return s;
    colour::discard_window_level(obj);
    if (obj->bits() == 1) return IMG_ERR_UNSUPPORTED;

    process::NewImage image;
    if (int32_t s = colour::create(image, obj, 8)) return s;
    image.header()->biCompression = 0;
    build_standard_palette(image.header(), "tiff");
    colour::RowReader src(obj);
    const uint32_t width = src.width();
    const int32_t height = src.height();
    std::vector<int32_t> row(size_t(width) * 4);
    for (int32_t s = 0; s < height; ++s) {
        src.colour(s, row.data());
        uint8_t* out = colour::stored_row(image, s);
        std::memset(out, 0, image.row_bytes());
        for (uint32_t x = 0; x < width; ++x) out[x] = uint8_t(row[4 * x + 3]);
        if (int32_t r = report_progress(height, s, image.row_bytes()); r < 0) return r;
    }
    return colour::install(image, obj);
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_rgb_to_cmyk(int32_t handle) {
    return api_call([&] { return rgb_to_cmyk(handle); });
}

TESSLIN_API int32_t IMG_color_gray(int32_t handle) {
    return api_call([&] { return color_gray(handle); });
}

}  // extern "C"
