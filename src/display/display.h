// Drawing bitmaps into the platform layer's device contexts, shared by the
// display entry points (draw.cpp and the geometry and animation built on
// it).
#pragma once

#include <cstdint>
#include <vector>

#include "core/bitmap.h"

namespace tesslin::display {

// Columns x0 .. x0 + n - 1 of image row y (0 = top) as red, green, blue
// bytes into `out` (3 n bytes), whatever the bitmap's depth or storage.
// `scratch` holds an expanded run record between calls.
void row_to_rgb(BitmapObject* obj, int32_t y, int32_t x0, int32_t n, uint8_t* out,
                std::vector<uint8_t>& scratch);

// Draws the crop rectangle of `obj` stretched (nearest neighbour) over the
// rectangle (x, y, |width|, |height|) of a device context, mirrored across
// for a negative width and upside down for a negative height; what falls
// outside the surface is clipped. 0, IMG_ERR_BAD_IMAGE for a handle that is
// not a device context, IMG_ERR_DISPLAY_RECT for a width or height of 0,
// IMG_ERR_MEMORY without a DIB.
int32_t draw_crop(BitmapObject* obj, intptr_t dc, int32_t x, int32_t y, int32_t width,
                  int32_t height);

// IMG_display_bitmap: stores the display rectangle (sizes as absolute
// values), asks the display callback (IMGLOW_set_dispfunc; a result below 1
// cancels and is returned) and draws. IMG_ERR_HANDLE for a bad handle.
int32_t display_bitmap(int32_t handle, intptr_t dc, int32_t x, int32_t y, int32_t width,
                       int32_t height);

}  // namespace tesslin::display
