// Reduction to the 16 colours of the "pcx" palette (index bit 0 red, 1
// green, 2 blue at 128; bit 3 raises the set components to 255), 4 bits per
// pixel, two pixels a byte with the even column in the high nibble.
//
//   IMG_bayer_color      ordered dither with the Bayer thresholds
//   IMG_diffusion_color  Burkes error diffusion, left to right
//
// Both: sources of 4, 8, 16, 24, 32 bits; IMG_ERR_UNSUPPORTED for 1 bit,
// IMG_ERR_HANDLE, IMG_ERR_MEMORY, or the progress callback's status; the
// bitmap keeps its image on every failure.
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/settings.h"
#include "process/colour/frame.h"
#include "process/colour/ordered_dither.h"
#include "process/colour/palette.h"
#include "process/colour/rows.h"

using namespace tesslin;

namespace {

enum class Method { kOrdered, kDiffusion };

inline void put_nibble(uint8_t* out, uint32_t x, uint32_t index) {
    if (x & 1)
        out[x >> 1] = uint8_t(out[x >> 1] | index);
    else
        out[x >> 1] = uint8_t(index << 4);
}

// Index for a colour: bit 2 blue, bit 1 green, bit 0 red above 180; bit 3
// when any of them is above 220.
inline uint32_t burkes_index(int32_t b, int32_t g, int32_t r) {
    return (b > 180 ? 4u : 0u) | (g > 180 ? 2u : 0u) | (r > 180 ? 1u : 0u) |
           (b > 220 || g > 220 || r > 220 ? 8u : 0u);
}

// Spreads the error of every channel of pixel x (4 values a pixel) of the
// current row: e >> 2 and e >> 3 ahead, e >> 4, e >> 3, e >> 2, e >> 3,
// e >> 4 on the next row from two columns left to two right.
inline void burkes_spread(int32_t* cur, int32_t* next, uint32_t x, const int32_t* error) {
    for (int c = 0; c < 3; ++c) {
        const int32_t e = error[c];
        int32_t* p = cur + 4 * x + c;
        int32_t* q = next + 4 * x + c;
        p[4] += e >> 2, p[8] += e >> 3;
        q[-8] += e >> 4, q[-4] += e >> 3, q[0] += e >> 2, q[4] += e >> 3, q[8] += e >> 4;
    }
}

int32_t to_sixteen(int32_t handle, Method method) {
    BitmapObject* obj = nullptr;
    if (int32_t s = colour::find(handle, &obj)) return s;
    colour::discard_window_level(obj);
    if (obj->bits() == 1) return IMG_ERR_UNSUPPORTED;

    process::NewImage image;
    if (int32_t s = colour::create(image, obj, 4)) return s;
    build_standard_palette(image.header(), "pcx");
    colour::RowReader src(obj);
    const uint32_t width = src.width();
    const int32_t height = src.height();
    const uint32_t rb = image.row_bytes();

    std::vector<uint16_t> ordered;
    // Colour rows of the diffusion, two spare pixels at each end.
    const size_t pitch = (size_t(width) + 4) * 4;
    std::vector<int32_t> work;
    int32_t *cur = nullptr, *next = nullptr;
    if (method == Method::kOrdered) {
        ordered.assign(size_t(width) * 4, 0);
    } else {
        work.assign(pitch * 2, 0);
        cur = work.data() + 8, next = cur + pitch;
        src.colour(0, cur), src.colour(1, next);
    }

    for (int32_t s = 0; s < height; ++s) {
        uint8_t* out = colour::stored_row(image, s);
        std::memset(out, 0, rb);
        if (method == Method::kOrdered) {
            src.ordered(s, ordered.data());
            const uint32_t at = uint32_t(s) & 7;
            for (uint32_t x = 0; x < width; ++x) {
                const uint16_t* p = &ordered[4 * x];
                const int32_t t = colour::kBayer[x & 7][at];
                const uint32_t index = (p[2] > t ? 1u : 0u) | (p[1] > t ? 2u : 0u) |
                                       (p[0] > t ? 4u : 0u) | (p[3] > t + 40 ? 8u : 0u);
                put_nibble(out, x, index);
            }
        } else {
            for (uint32_t x = 0; x < width; ++x) {
                const int32_t* p = cur + 4 * x;
                const uint32_t index = burkes_index(p[0], p[1], p[2]);
                const int32_t level = index & 8 ? 255 : 128;
                const int32_t error[3] = {p[0] - (index & 4 ? level : 0), p[1] - (index & 2 ? level : 0),
                                          p[2] - (index & 1 ? level : 0)};
                burkes_spread(cur, next, x, error);
                put_nibble(out, x, index);
            }
            std::swap(cur, next);
            std::memset(next - 8, 0, 8 * sizeof(int32_t));
            std::memset(next + 4 * size_t(width), 0, 8 * sizeof(int32_t));
            src.colour(s + 2, next);
        }
        if (int32_t p = report_progress(height, s, rb); p < 0) return p;
    }
    return colour::install(image, obj);
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_bayer_color(int32_t handle) {
    return api_call([&] { return to_sixteen(handle, Method::kOrdered); });
}

TESSLIN_API int32_t IMG_diffusion_color(int32_t handle) {
    return api_call([&] { return to_sixteen(handle, Method::kDiffusion); });
}

}  // extern "C"
