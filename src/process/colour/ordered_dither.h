// Ordered-dither depth reduction of single rows: how the decode driver
// reduces an image while it is decoded, and how the save driver makes
// bilevel rows for encoders that take nothing else.
//
//   kBayer       the 8 x 8 ordered-dither thresholds
//   dither_row   one packed row to 8, 4 or 1 bits
//
// dither_row
//   depths: source 1, 4, 8 (colours through the palette), 16 (the palette
//   entry of each sample's high byte), 24 and 32 (the first three bytes,
//   blue, green, red); target 8, 4 or 1.
//   statuses: none; callers pass only the depths above.
#pragma once

#include <cstdint>

#include "core/dib.h"

namespace tesslin::colour {

// 8 x 8 ordered-dither thresholds: the recursive Bayer matrix (0..63) times
// 4, with 4 in place of the first 0. Row r of the image uses line r & 7,
// column x position x & 7.
extern const uint8_t kBayer[8][8];

// Reduces a packed row of `width` pixels to `target` bits with the ordered
// dither of row `row_number`:
//   8: each of blue, green, red less threshold >> 3 (not below 0), index
//      (red & 0xE0) | ((green >> 3) & 0x1C) | (blue >> 6) (the "332"
//      palette);
//   4: per pixel a nibble with bit 0 red, bit 1 green, bit 2 blue set when
//      the component exceeds the threshold, bit 3 when the intensity
//      ((75 g + 14 b + 38 r) >> 7) - 40 exceeds threshold + 40 (the
//      "dither" palette's order), first pixel in the high nibble;
//   1: white when (59 g + 11 b + 30 r) / 100 exceeds the threshold.
// `palette` serves 1-, 4-, 8- and 16-bit sources. `out` must hold
// row_bytes(width, target) bytes and must not overlap `src`.
void dither_row(const uint8_t* src, uint32_t bits, const RgbQuad* palette, uint32_t width,
                uint32_t target, int32_t row_number, uint8_t* out);

}  // namespace tesslin::colour
