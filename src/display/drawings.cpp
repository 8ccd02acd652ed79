// Drawing variants of IMG_display_bitmap. Each stores its display
// rectangle, asks the display callback, marks the bitmap busy and draws the
// crop rectangle in the display angle, like IMG_display_bitmap.
//
//   IMG_display_bitmap_aspect  fitted into the rectangle with its aspect
//                              ratio kept, centred
//   IMG_display_bitmap_transp  pixels of the transparent colour left out
//   IMG_display_bitmap_iac     anti-aliased: each pixel the average of the
//                              pixels it covers (bilevel pages shrink to grey)
//   IMG_merge_bitmap           laid over the surface at an opacity
//   IMG_get_bitmap_palette     the palette the display realises
//
// Every depth and storage. Statuses: 0; IMG_ERR_HANDLE; IMG_ERR_BAD_IMAGE
// dc not live; IMG_ERR_DISPLAY_RECT width or height 0; IMG_ERR_UNSUPPORTED
// (merge) an opacity outside 0 .. 100; a display callback's result below 1.
#include <algorithm>
#include <cstring>

#include "core/api.h"
#include "core/bitmap.h"
#include "display/display.h"

namespace tesslin::display {
namespace {

int32_t sign(int32_t v) { return v < 0 ? -1 : 1; }

// Stores the display rectangle, asks the callback and draws with `how`
// (its raster operation taken from the bitmap).
int32_t display_with(int32_t handle, intptr_t dc, int32_t x, int32_t y, int32_t width,
                     int32_t height, Blend how) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    BusyMark busy(obj);
    obj->display_rect[0] = x;
    obj->display_rect[1] = y;
    obj->display_rect[2] = magnitude(width);
    obj->display_rect[3] = magnitude(height);
    if (const int32_t go = ask_display_callback(obj); go < 1) return go;
    how.rop = obj->rop;
    return draw_crop(obj, dc, x, y, width, height, how);
}

int32_t display_aspect(int32_t handle, intptr_t dc, int32_t x, int32_t y, int32_t width,
                       int32_t height) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    const int32_t aw = magnitude(width), ah = magnitude(height);
    if (aw < 1 || ah < 1) return IMG_ERR_DISPLAY_RECT;
    int32_t w, h;
    displayed_crop(obj, &w, &h);
    if (w < 1 || h < 1) return IMG_ERR_DISPLAY_RECT;
    const Fit f = aspect_fit(w, h, aw, ah);
    return display_with(handle, dc, int32_t(int64_t(x) + f.x_offset),
                        int32_t(int64_t(y) + f.y_offset), sign(width) * f.width,
                        sign(height) * f.height, Blend{});
}

int32_t bitmap_palette(int32_t handle, IMG_RGBQUAD* out) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    if (!obj->dib) return IMG_ERR_MEMORY;
    const uint32_t bits = obj->bits();
    if (bits > 8) return 0;  // drawn in true colour: no palette to realise
    const uint32_t n = palette_entries(bits);
    if (out) std::memcpy(out, dib_palette(obj->dib), n * 4);
    return int32_t(n);
}

}  // namespace
}  // namespace tesslin::display

using namespace tesslin;
using display::Blend;

extern "C" {

TESSLIN_API int32_t IMG_display_bitmap_aspect(int32_t handle, intptr_t dc, int32_t x,
                                              int32_t y, int32_t width, int32_t height) {
    return api_call([&] { return display::display_aspect(handle, dc, x, y, width, height); });
}

TESSLIN_API int32_t IMG_display_bitmap_transp(int32_t handle, intptr_t dc, int32_t x,
                                              int32_t y, int32_t width, int32_t height) {
    return api_call([&] {
        BitmapObject* obj = bitmap_get(handle);
        Blend how;
        how.transparent = obj && obj->transparent;
        return display::display_with(handle, dc, x, y, width, height, how);
    });
}

TESSLIN_API int32_t IMG_display_bitmap_iac(int32_t handle, intptr_t dc, int32_t x, int32_t y,
                                           int32_t width, int32_t height) {
    return api_call([&] {
        Blend how;
        how.filter = display::Filter::kAverage;
        return display::display_with(handle, dc, x, y, width, height, how);
    });
}

TESSLIN_API int32_t IMG_merge_bitmap(int32_t handle, intptr_t dc, int32_t x, int32_t y,
                                     int32_t width, int32_t height, int32_t percent) {
    return api_call([&]() -> int32_t {
        if (!bitmap_get(handle)) return IMG_ERR_HANDLE;
        if (percent < 0 || percent > 100) return IMG_ERR_UNSUPPORTED;
        Blend how;
        how.opacity = std::max(percent, 1);
        if (percent == 0) {
            // Nothing of the picture shows; the arguments are still checked.
            platform::Surface s;
            if (!platform::dc_surface(dc, &s)) return IMG_ERR_BAD_IMAGE;
            return display::magnitude(width) < 1 || display::magnitude(height) < 1 ? IMG_ERR_DISPLAY_RECT : 0;
        }
        return display::display_with(handle, dc, x, y, width, height, how);
    });
}

TESSLIN_API int32_t IMG_get_bitmap_palette(int32_t handle, IMG_RGBQUAD* palette) {
    return api_call([&] { return display::bitmap_palette(handle, palette); });
}

}  // extern "C"
