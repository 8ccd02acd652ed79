// Drawing a bitmap into a device context (the platform layer's software
// surfaces): the crop rectangle stretched, nearest neighbour, over the
// display rectangle, turned by the display angle; a negative width or
// height mirrors the picture.
//
//   IMG_display_bitmap   stores the display rectangle and draws
//   IMG_bitmap_palette   realises the bitmap's palette (nothing to do on a
//                        true-colour surface)
//
// Every depth is drawn: 1, 4 and 8 bits through the palette, 16 bits as
// 5-5-5, 24 bits, 32 bits with alpha (alpha ignored) or CMYK, and bilevel
// pages held as run records. The bitmap's raster operation
// (IMGLOW_set_rop) combines the picture with the surface.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/bitmap.h"
#include "core/runs.h"
#include "core/settings.h"
#include "display/display.h"
#include "platform/surface.h"

namespace tesslin::display {

int32_t magnitude(int32_t v) { return v >= 0 ? v : v == INT32_MIN ? INT32_MAX : -v; }

BusyMark::BusyMark(BitmapObject* obj) : obj_(obj) {
    std::atomic_ref<int32_t>(obj_->display_busy).store(1, std::memory_order_release);
}
BusyMark::~BusyMark() {
    std::atomic_ref<int32_t>(obj_->display_busy).store(0, std::memory_order_release);
}

void row_to_rgb(BitmapObject* obj, int32_t y, int32_t x0, int32_t n, uint8_t* out,
                std::vector<uint8_t>& scratch) {
    const uint32_t bits = obj->bits();
    const RgbQuad* pal = dib_palette(obj->dib);
    const uint8_t* row;
    if (obj->run_encoded) {
        scratch.resize(row_bytes(uint32_t(obj->width), 1));
        runs::expand(obj->run_record(y), uint32_t(obj->width), scratch.data(),
                     uint32_t(scratch.size()));
        row = scratch.data();
    } else {
        row = obj->plain_row(y);
    }
    const bool alpha = obj->header()->biCompression == IMG_COMPRESSION_ALPHA;
    const auto put = [](uint8_t* o, const RgbQuad& c) {
        o[0] = c.rgbRed, o[1] = c.rgbGreen, o[2] = c.rgbBlue;
    };
    // One loop per depth, so that the depth is not tested per pixel.
    switch (bits) {
        case 1:
            for (int32_t i = 0; i < n; ++i) {
                const uint32_t x = uint32_t(x0 + i);
                put(out + size_t(i) * 3, pal[(row[x / 8] >> (7 - (x & 7))) & 1]);
            }
            break;
        case 4:
            for (int32_t i = 0; i < n; ++i) {
                const uint32_t x = uint32_t(x0 + i);
                put(out + size_t(i) * 3, pal[(row[x / 2] >> ((x & 1) ? 0 : 4)) & 15]);
            }
            break;
        case 8:
            for (int32_t i = 0; i < n; ++i) put(out + size_t(i) * 3, pal[row[x0 + i]]);
            break;
        case 16:
            for (int32_t i = 0; i < n; ++i) {
                const uint32_t x = uint32_t(x0 + i);
                const uint32_t v = uint32_t(row[2 * x]) | uint32_t(row[2 * x + 1]) << 8;
                const uint32_t r = (v >> 10) & 31, g = (v >> 5) & 31, b = v & 31;
                uint8_t* o = out + size_t(i) * 3;
                o[0] = uint8_t(r << 3 | r >> 2), o[1] = uint8_t(g << 3 | g >> 2),
                o[2] = uint8_t(b << 3 | b >> 2);
            }
            break;
        case 24:
            for (int32_t i = 0; i < n; ++i) {
                const uint8_t* p = row + 3 * size_t(x0 + i);
                uint8_t* o = out + size_t(i) * 3;
                o[0] = p[2], o[1] = p[1], o[2] = p[0];
            }
            break;
        default:  // 32
            for (int32_t i = 0; i < n; ++i) {
                const uint8_t* p = row + 4 * size_t(x0 + i);
                uint8_t* o = out + size_t(i) * 3;
                if (alpha) {
                    o[0] = p[2], o[1] = p[1], o[2] = p[0];
                } else {
                    // Cyan, magenta, yellow, black.
                    const uint32_t k = 255 - p[3];
                    o[0] = uint8_t((255 - p[0]) * k / 255), o[1] = uint8_t((255 - p[1]) * k / 255),
                    o[2] = uint8_t((255 - p[2]) * k / 255);
                }
            }
            break;
    }
}

int32_t draw_crop(BitmapObject* obj, intptr_t dc, int32_t x, int32_t y, int32_t width,
                  int32_t height, const Blend& how) {
    platform::Surface s;
    if (!platform::dc_surface(dc, &s)) return IMG_ERR_BAD_IMAGE;
    if (!obj->dib) return IMG_ERR_MEMORY;
    BitmapSource source(obj);
    Placement where;
    where.x = x, where.y = y, where.width = width, where.height = height;
    where.angle = obj->display_angle;
    return render(source, dc, where, how);
}

int32_t draw_crop(BitmapObject* obj, intptr_t dc, int32_t x, int32_t y, int32_t width,
                  int32_t height) {
    Blend how;
    how.rop = obj->rop;
    return draw_crop(obj, dc, x, y, width, height, how);
}

int32_t ask_display_callback(BitmapObject* obj) {
    const Settings& st = settings();
    if (!st.dispfunc || !obj->dib) return 1;
    const int32_t go =
        st.dispfunc(reinterpret_cast<const IMG_BITMAPINFOHEADER*>(obj->dib), st.dispfunc_user);
    return go < 1 ? go : 1;
}

int32_t display_bitmap(int32_t handle, intptr_t dc, int32_t x, int32_t y, int32_t width,
                       int32_t height) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    BusyMark busy(obj);
    obj->display_rect[0] = x;
    obj->display_rect[1] = y;
    obj->display_rect[2] = magnitude(width);
    obj->display_rect[3] = magnitude(height);
    if (const int32_t go = ask_display_callback(obj); go < 1) return go;
    return draw_crop(obj, dc, x, y, width, height);
}

}  // namespace tesslin::display

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMG_display_bitmap(int32_t handle, intptr_t dc, int32_t x, int32_t y,
                                       int32_t width, int32_t height) {
    return api_call([&] { return display::display_bitmap(handle, dc, x, y, width, height); });
}

TESSLIN_API int32_t IMG_bitmap_palette(int32_t handle, intptr_t dc) {
    return api_call([&]() -> int32_t {
        if (!bitmap_get(handle)) return IMG_ERR_HANDLE;
        platform::Surface s;
        return platform::dc_surface(dc, &s) ? 0 : IMG_ERR_BAD_IMAGE;
    });
}

}  // extern "C"
