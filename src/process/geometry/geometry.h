// What the geometry operations share: mirroring single rows and run
// records, and the bookkeeping every operation does on the bitmap object
// (crop rectangle and display extent) once its new image is installed.
//
//   mirror_row      a packed row, left to right
//   mirror_record   a run record, left to right
//   invert_record   a run record, black and white exchanged
//   open_image      the handle's object, validated
//   row_pointers    every row of an image (0 = top), plain or expanded
//   rotate_any      the turn by an angle that is not a quarter turn
#pragma once

#include <cstdint>
#include <vector>

#include "core/bitmap.h"

namespace tesslin::geometry {

// Writes the mirror image of a packed row of `width` pixels of `bits` bits
// into `dst` (row_bytes(width, bits) bytes, not overlapping `src`): pixel x
// of dst is pixel width - 1 - x of src. Bits and bytes past the last pixel
// are zero.
void mirror_row(const uint8_t* src, uint32_t bits, uint32_t width, uint8_t* dst);

// Mirrors a run record of a row `width` pixels wide into `out` (room for
// runs::max_record_bytes(width)); returns the new record's length. Every
// change position p other than 0 becomes width - p, in reverse order, with a
// leading 0 when the mirrored row starts black.
uint32_t mirror_record(const uint32_t* record, uint32_t width, uint32_t* out);

// Exchanges black and white in a run record: a row that starts white gains
// a leading 0, a row that starts black loses it. Returns the new length.
uint32_t invert_record(const uint32_t* record, uint32_t width, uint32_t* out);

// The object of a handle that has an image: 0, IMG_ERR_HANDLE, or
// IMG_ERR_MEMORY when the object holds no DIB.
int32_t open_image(int32_t handle, BitmapObject** out);

// Pointers to every row of the image, top row first. Plain images point into
// the DIB; run-encoded ones are expanded into `storage` first (packed,
// 1 = white). IMG_ERR_MEMORY when the storage cannot be had.
int32_t row_pointers(BitmapObject* obj, std::vector<uint8_t>& storage,
                     std::vector<const uint8_t*>& rows);

// Sets the display extent (width and height of the display rectangle) to
// the image's size, as operations that change the size do.
inline void fit_display_extent(BitmapObject* obj) {
    obj->display_rect[2] = obj->width;
    obj->display_rect[3] = obj->height;
}

struct Crop {
    int32_t x, y, width, height;
};
inline Crop crop_of(const BitmapObject* obj) {
    return {obj->crop_x, obj->crop_y, obj->crop_width, obj->crop_height};
}
inline void set_crop(BitmapObject* obj, const Crop& c) {
    obj->crop_x = c.x;
    obj->crop_y = c.y;
    obj->crop_width = c.width;
    obj->crop_height = c.height;
}

// Turns the image by `angle` hundredths of a degree clockwise, for angles
// that are not multiples of 9000 (rotate_any.cpp). The image grows to hold
// the whole turned picture; uncovered areas get the background (white for
// bilevel images, 0 for the other depths). 0, IMG_ERR_MEMORY or a negative
// status of the progress callback (the image then unchanged).
int32_t rotate_any(BitmapObject* obj, int32_t angle);

}  // namespace tesslin::geometry
