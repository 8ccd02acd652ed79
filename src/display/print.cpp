// Printing to a page surface: the crop rectangle, in the display angle,
// fitted into a rectangle of the page with its aspect ratio kept and
// centred. Neither the display rectangle nor the display callback is
// involved, and the raster operation is not applied: a print copies.
//
//   IMG_print_bitmap       each page pixel the average of the image pixels
//                          it covers, so that fine detail shrinks to grey
//                          instead of dropping out
//   IMG_print_bitmap_fast  nearest neighbour
//
// A width and height of 0 take the whole surface. Statuses: 0;
// IMG_ERR_HANDLE; IMG_ERR_BAD_IMAGE dc not live; IMG_ERR_DISPLAY_RECT one
// size 0 and the other not.
#include "core/api.h"
#include "core/bitmap.h"
#include "display/display.h"
#include "platform/surface.h"

namespace tesslin::display {
namespace {

int32_t print_bitmap(int32_t handle, intptr_t dc, int32_t x, int32_t y, int32_t width,
                     int32_t height, Filter filter) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    platform::Surface s;
    if (!platform::dc_surface(dc, &s)) return IMG_ERR_BAD_IMAGE;
    if (!obj->dib) return IMG_ERR_MEMORY;
    if (width == 0 && height == 0) x = 0, y = 0, width = s.width, height = s.height;
    const int32_t aw = magnitude(width), ah = magnitude(height);
    int32_t w, h;
    displayed_crop(obj, &w, &h);
    if (aw < 1 || ah < 1 || w < 1 || h < 1) return IMG_ERR_DISPLAY_RECT;
    BusyMark busy(obj);
    const Fit f = aspect_fit(w, h, aw, ah);
    BitmapSource source(obj);
    Placement where;
    where.x = int32_t(int64_t(x) + f.x_offset);
    where.y = int32_t(int64_t(y) + f.y_offset);
    where.width = width < 0 ? -f.width : f.width;
    where.height = height < 0 ? -f.height : f.height;
    where.angle = obj->display_angle;
    Blend how;
    how.filter = filter;
    return render(source, dc, where, how);
}

}  // namespace
}  // namespace tesslin::display

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMG_print_bitmap(int32_t handle, intptr_t dc, int32_t x, int32_t y,
                                     int32_t width, int32_t height) {
    return api_call([&] {
        return display::print_bitmap(handle, dc, x, y, width, height, display::Filter::kAverage);
    });
}

TESSLIN_API int32_t IMG_print_bitmap_fast(int32_t handle, intptr_t dc, int32_t x, int32_t y,
                                          int32_t width, int32_t height) {
    return api_call([&] {
        return display::print_bitmap(handle, dc, x, y, width, height, display::Filter::kNearest);
    });
}

}  // extern "C"
