// Filling a rectangle, or everything around it, with one colour.
//
//   IMG_erase_rect   1, 8, 16, 24, 32 bits (4-bit images are left as they
//                    are); IMG_ERR_HANDLE, IMG_ERR_MEMORY
//
// The rectangle is in image coordinates (0 = top) and is clipped to the
// image. A run-encoded page is expanded to plain rows, filled, and encoded
// again; a plain 1-bit image comes back run-encoded as well.
#include <algorithm>
#include <cstring>

#include "core/api.h"
#include "core/runs.h"
#include "core/bitmap.h"

using namespace tesslin;

namespace {

// Fills columns [x0, x1) of plain image rows [y0, y1) (0 = top).
void fill(BitmapObject* obj, int64_t x0, int64_t y0, int64_t x1, int64_t y1, uint32_t colour) {
    x0 = std::max<int64_t>(x0, 0);
    y0 = std::max<int64_t>(y0, 0);
    x1 = std::min<int64_t>(x1, obj->width);
    y1 = std::min<int64_t>(y1, obj->height);
    if (x0 >= x1 || y0 >= y1) return;
    const uint32_t bits = obj->bits();
    uint8_t px[4] = {};
    uint32_t n = 0;
    switch (bits) {
        case 8: px[0] = uint8_t(colour); n = 1; break;
        case 16: px[0] = uint8_t(colour >> 8); px[1] = uint8_t(colour); n = 2; break;
        case 24:
            px[0] = uint8_t(colour >> 16); px[1] = uint8_t(colour >> 8); px[2] = uint8_t(colour);
            n = 3;
            break;
        case 32:
            px[0] = uint8_t(colour >> 24); px[1] = uint8_t(colour >> 16);
            px[2] = uint8_t(colour >> 8); px[3] = uint8_t(colour);
            n = 4;
            break;
        default: break;
    }
    for (int64_t y = y0; y < y1; ++y) {
        uint8_t* row = obj->plain_row(int32_t(y));
        if (bits == 1) {
            runs::fill_bits(row, uint32_t(x0), uint32_t(x1), colour != 0);
        } else if (n == 1) {
            std::memset(row + x0, px[0], size_t(x1 - x0));
        } else if (n) {
            for (int64_t x = x0; x < x1; ++x) std::memcpy(row + x * n, px, n);
        }
    }
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_erase_rect(int32_t handle, int32_t x, int32_t y, int32_t width,
                                   int32_t height, uint32_t colour, int32_t inside) {
    return api_call([&]() -> int32_t {
        BitmapObject* obj = bitmap_get(handle);
        if (!obj) return IMG_ERR_HANDLE;
        if (!obj->dib) return IMG_ERR_MEMORY;
        const uint32_t bits = obj->bits();
        if (bits == 4) return 0;
        if (obj->run_encoded) {
            if (int32_t s = IMG_runs_to_dib(handle); s < 0) return s;
        }
        const int64_t x1 = int64_t(x) + width, y1 = int64_t(y) + height;
        const int64_t W = obj->width, H = obj->height;
        if (inside == 1) {
            fill(obj, x, y, x1, y1, colour);
        } else {
            fill(obj, 0, y1, W, H, colour);   // below
            fill(obj, 0, 0, x, H, colour);    // left
            fill(obj, x1, 0, W, H, colour);   // right
            fill(obj, 0, 0, W, y, colour);    // above
        }
        if (bits == 1) return IMG_dib_to_runs(handle);
        return 0;
    });
}

}  // extern "C"
