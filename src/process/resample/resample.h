// What the resizing operations share: argument checks, the crop rectangle
// as a source area, and the nearest-neighbour resize that the other methods
// hand sizes to when theirs does not apply.
//
//   open_for_resize   the handle's object, with the new size checked
//   source_area       the crop rectangle, limited to the image
//   resize_nearest    the body of IMG_resize_bitmap
//   finish            installs a new image and fits the display extent
#pragma once

#include <cstdint>

#include "core/bitmap.h"
#include "process/new_image.h"

namespace tesslin::resample {

// 0; IMG_ERR_HANDLE; IMG_ERR_MEMORY without a DIB; IMG_ERR_BAD_IMAGE for a
// width or height below 1; IMG_ERR_MEMORY for a size beyond the limits of
// an image of `bits` bits.
int32_t open_for_resize(int32_t handle, int32_t width, int32_t height, BitmapObject** out);
int32_t check_new_size(int32_t width, int32_t height, uint32_t bits);

struct Area {
    int32_t x, y, width, height;
};
// The crop rectangle, cut to lie inside the image (the whole image when it
// does not overlap it).
Area source_area(const BitmapObject* obj);

// Nearest neighbour to width x height, every depth (IMG_resize_bitmap).
int32_t resize_nearest(BitmapObject* obj, int32_t width, int32_t height);

// Installs the new image (crop rectangle: the whole of it) and sets the
// display extent to its size. 0 or IMG_ERR_MEMORY.
int32_t finish(process::NewImage& img, BitmapObject* obj);

}  // namespace tesslin::resample
