// Display geometry: how a bitmap relates to the window it is shown in.
//
//   IMG_set_display_angle     0; IMG_ERR_HANDLE; IMG_ERR_UNSUPPORTED unless
//                             0, 90, 180 or 270
//   IMGLOW_map_image_to_wnd   image point to window client point: 0;
//                             IMG_ERR_HANDLE; IMG_ERR_BAD_IMAGE for a window
//                             that is not live or a null point
//   IMGLOW_map_wnd_to_image   window client point to image point (clamped
//                             into the image): the same statuses
//   IMG_display_fit_to_width  fits the image width to an area, sets crop
//   IMG_display_fit_to_height and display rectangles, draws; the zoom in
//                             percent; IMG_ERR_HANDLE; IMG_ERR_DISPLAY_RECT
//                             for an area narrower or lower than 1;
//                             IMG_ERR_BAD_IMAGE for a dc that is not live or
//                             a window that is neither 0 nor live
//
// Every depth; the geometry reads only the sizes, the crop and display
// rectangles and the display angle. Software windows have no scroll bars,
// so fitting never changes the client area and never has to run twice.
#include <algorithm>
#include <cmath>

#include "core/api.h"
#include "core/bitmap.h"
#include "display/display.h"
#include "platform/surface.h"

namespace tesslin::display {

void displayed_crop(const BitmapObject* obj, int32_t* width, int32_t* height) {
    const bool across = obj->display_angle == 90 || obj->display_angle == 270;
    *width = across ? obj->crop_height : obj->crop_width;
    *height = across ? obj->crop_width : obj->crop_height;
}

Fit aspect_fit(int32_t width, int32_t height, int32_t area_width, int32_t area_height) {
    Fit f{area_width, area_height, 0, 0};
    const int64_t at_full_width = int64_t(height) * area_width / width;
    if (at_full_width > area_height) {
        f.width = int32_t(std::max<int64_t>(1, int64_t(width) * area_height / height));
        f.x_offset = (area_width - f.width) / 2;
    } else {
        f.height = int32_t(std::max<int64_t>(1, at_full_width));
        f.y_offset = (area_height - f.height) / 2;
    }
    return f;
}

namespace {

bool across(const BitmapObject* obj) {
    return obj->display_angle == 90 || obj->display_angle == 270;
}

// The image size as displayed: swapped for 90 and 270 degrees.
void displayed_image(const BitmapObject* obj, int32_t* width, int32_t* height) {
    *width = across(obj) ? obj->height : obj->width;
    *height = across(obj) ? obj->width : obj->height;
}

// The picture in a client area of cw x ch: aspect-fitted with its offset
// when the crop rectangle is the whole image, else stretched over the whole
// area.
Fit picture(const BitmapObject* obj, int32_t cw, int32_t ch) {
    const bool whole = obj->crop_x == 0 && obj->crop_y == 0 && obj->crop_width == obj->width &&
                       obj->crop_height == obj->height;
    if (!whole) return Fit{cw, ch, 0, 0};
    int32_t w, h;
    displayed_image(obj, &w, &h);
    return aspect_fit(w, h, cw, ch);
}

// Window coordinates are kept as signed 16-bit values, as window messages
// carry them.
int32_t to_short(int64_t v) { return int16_t(uint16_t(uint64_t(v) & 0xFFFF)); }

int32_t map_image_to_wnd(int32_t handle, intptr_t window, int32_t* x, int32_t* y) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    int32_t cw, ch;
    if (!x || !y || !platform::window_client(window, &cw, &ch)) return IMG_ERR_BAD_IMAGE;
    const Fit p = picture(obj, cw, ch);
    const int64_t dx = int64_t(*x) - obj->crop_x, dy = int64_t(*y) - obj->crop_y;
    int64_t sx, sy;
    if (across(obj)) {
        sx = p.width * dy / obj->crop_height;
        sy = p.height * dx / obj->crop_width;
    } else {
        sx = p.width * dx / obj->crop_width;
        sy = p.height * dy / obj->crop_height;
    }
    int64_t wx, wy;
    switch (obj->display_angle) {
        case 180: wx = p.width - 1 - sx, wy = p.height - 1 - sy; break;
        case 90: wx = p.width - 1 - sx, wy = sy; break;
        case 270: wx = sx, wy = p.height - 1 - sy; break;
        default: wx = sx, wy = sy; break;
    }
    *x = to_short(p.x_offset + wx);
    *y = to_short(p.y_offset + wy);
    return 0;
}

int32_t map_wnd_to_image(int32_t handle, intptr_t window, int32_t* x, int32_t* y) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    int32_t cw, ch;
    if (!x || !y || !platform::window_client(window, &cw, &ch)) return IMG_ERR_BAD_IMAGE;
    // Turn the window point back to the unturned picture.
    int64_t u = *x, v = *y;
    switch (obj->display_angle) {
        case 180: u = cw - 1 - int64_t(*x), v = ch - 1 - int64_t(*y); break;
        case 90: u = *y, v = cw - 1 - int64_t(*x); break;
        case 270: u = ch - 1 - int64_t(*y), v = *x; break;
        default: break;
    }
    // A picture shown at (0, 0) is taken to start at the client area's
    // corner: the centring offset counts only when it was drawn elsewhere.
    Fit p = picture(obj, cw, ch);
    if (obj->display_rect[0] == 0 && obj->display_rect[1] == 0) p.x_offset = p.y_offset = 0;
    int64_t ix, iy;
    if (across(obj)) {
        ix = obj->crop_x + (u - p.y_offset) * obj->crop_width / p.height;
        iy = obj->crop_y + (v - p.x_offset) * obj->crop_height / p.width;
    } else {
        ix = obj->crop_x + (u - p.x_offset) * obj->crop_width / p.width;
        iy = obj->crop_y + (v - p.y_offset) * obj->crop_height / p.height;
    }
    *x = int32_t(std::clamp<int64_t>(ix, 0, obj->width - 1));
    *y = int32_t(std::clamp<int64_t>(iy, 0, obj->height - 1));
    return 0;
}

// Checks shared by the two fits: 0 or the status to return.
int32_t fit_arguments(BitmapObject* obj, intptr_t dc, intptr_t window, int32_t aw,
                      int32_t ah) {
    if (!obj) return IMG_ERR_HANDLE;
    if (aw < 1 || ah < 1) return IMG_ERR_DISPLAY_RECT;
    platform::Surface s;
    int32_t cw, ch;
    if (!platform::dc_surface(dc, &s)) return IMG_ERR_BAD_IMAGE;
    if (window != 0 && !platform::window_client(window, &cw, &ch)) return IMG_ERR_BAD_IMAGE;
    return 0;
}

// Draws through IMG_display_bitmap's path and returns the zoom, or the
// drawing's failure.
int32_t draw_and_report(int32_t handle, intptr_t dc, int32_t x, int32_t y, int32_t w,
                        int32_t h, int64_t zoom) {
    const int32_t r = display_bitmap(handle, dc, x, y, w, h);
    if (r < 0) return r;
    return zoom > 0 ? int32_t(std::min<int64_t>(zoom, INT32_MAX)) : 0;
}

int32_t fit_to_width(int32_t handle, intptr_t dc, intptr_t window, int32_t x, int32_t y,
                     int32_t aw, int32_t ah) {
    BitmapObject* obj = bitmap_get(handle);
    if (const int32_t bad = fit_arguments(obj, dc, window, aw, ah)) return bad;
    int32_t dw, dh_image;
    displayed_image(obj, &dw, &dh_image);
    // Image rows the area shows when the width fills it.
    int64_t rows = int64_t(dw) * ah / aw;
    int64_t drawn = ah;
    int64_t top = y;
    int32_t cx = obj->crop_x, cy = obj->crop_y;
    if (rows >= dh_image) {
        rows = dh_image;
        drawn = std::max<int64_t>(1, int64_t(dh_image) * aw / dw);
        top = y + (ah - drawn) / 2;
        cx = cy = 0;
    } else if (across(obj)) {
        cy = 0;  // the image is scrolled along x; y is across the scrolling
    } else {
        cx = 0;
    }
    const int32_t r = int32_t(rows);
    if (across(obj)) {
        if (r != obj->crop_width) cx = 0;
        IMG_set_croprect(handle, cx, cy, r, dw);
    } else {
        if (r != obj->crop_height) cy = 0;
        IMG_set_croprect(handle, cx, cy, dw, r);
    }
    return draw_and_report(handle, dc, x, int32_t(top), aw, int32_t(drawn),
                           rows > 0 ? drawn * 100 / rows : 0);
}

int32_t fit_to_height(int32_t handle, intptr_t dc, intptr_t window, int32_t x, int32_t y,
                      int32_t aw, int32_t ah) {
    BitmapObject* obj = bitmap_get(handle);
    if (const int32_t bad = fit_arguments(obj, dc, window, aw, ah)) return bad;
    int32_t dw_image, dh;
    displayed_image(obj, &dw_image, &dh);
    // Image columns the area shows when the height fills it.
    int64_t cols = std::llround(double(dh) / ah * aw);
    int64_t drawn = aw;
    int64_t left = x;
    int32_t cx = obj->crop_x, cy = obj->crop_y;
    if (cols <= dw_image) {
        if (across(obj)) cx = 0;  // scrolled along y; x is across the scrolling
        else cy = 0;
    } else {
        cols = dw_image;
        drawn = std::max<int64_t>(1, std::llround(double(dw_image) * ah / dh));
        left = x + (aw - drawn) / 2;
        cx = cy = 0;
    }
    const int32_t c = int32_t(std::max<int64_t>(cols, 0));
    if (across(obj)) {
        if (c != obj->crop_height) cy = 0;
        IMG_set_croprect(handle, cx, cy, dh, c);
    } else {
        if (c != obj->crop_width) cx = 0;
        IMG_set_croprect(handle, cx, cy, c, dh);
    }
    return draw_and_report(handle, dc, int32_t(left), y, int32_t(drawn), ah,
                           cols > 0 ? drawn * 100 / cols : 0);
}

}  // namespace
}  // namespace tesslin::display

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMG_set_display_angle(int32_t handle, int32_t angle) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    if (angle != 0 && angle != 90 && angle != 180 && angle != 270) return IMG_ERR_UNSUPPORTED;
    obj->display_angle = angle;
    return 0;
}

TESSLIN_API int32_t IMGLOW_map_image_to_wnd(int32_t handle, intptr_t window, int32_t* x,
                                            int32_t* y) {
    return api_call([&] { return display::map_image_to_wnd(handle, window, x, y); });
}

TESSLIN_API int32_t IMGLOW_map_wnd_to_image(int32_t handle, intptr_t window, int32_t* x,
                                            int32_t* y) {
    return api_call([&] { return display::map_wnd_to_image(handle, window, x, y); });
}

TESSLIN_API int32_t IMG_display_fit_to_width(int32_t handle, intptr_t dc, intptr_t window,
                                             int32_t x, int32_t y, int32_t width,
                                             int32_t height) {
    return api_call([&] { return display::fit_to_width(handle, dc, window, x, y, width, height); });
}

TESSLIN_API int32_t IMG_display_fit_to_height(int32_t handle, intptr_t dc, intptr_t window,
                                              int32_t x, int32_t y, int32_t width,
                                              int32_t height) {
    return api_call(
        [&] { return display::fit_to_height(handle, dc, window, x, y, width, height); });
}

}  // extern "C"
