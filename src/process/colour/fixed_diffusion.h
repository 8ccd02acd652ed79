// Error diffusion into a fixed 256-entry palette, through an inverse colour
// cache, as IMG_mediancut_color does and as a display of 24-bit images on a
// 256-colour device may do one row at a time.
//
//   kInverseCacheCells   cells of the inverse colour cache
//   diffuse_row_256      one row into palette indices
//
// IMG_mediancut_color itself (fixed_diffusion.cpp): sources of 4, 8, 16, 24,
// 32 bits -> 8 bits with the "332" palette; IMG_ERR_DEPTH for 1 bit,
// IMG_ERR_HANDLE, IMG_ERR_MEMORY, or the progress callback's status.
#pragma once

#include <cstdint>

#include "core/dib.h"

namespace tesslin::colour {

// The inverse colour cache: one palette index per 5-bit-per-channel colour
// cell, cell ((red >> 3) << 10) | ((green >> 3) << 5) | (blue >> 3); -1
// while the cell's first colour has not been looked up. The first colour
// met in a cell decides for the whole cell.
constexpr uint32_t kInverseCacheCells = 32768;

// Diffuses one row, left to right: each pixel of `current` (blue, green,
// red and an unused fourth value per pixel, every channel within 0..255)
// takes the palette entry nearest in halved components (lowest index among
// equals) and its error per channel goes, divided with truncation toward
// zero and clamped to 0..255 on arrival, e/4 and e/8 to the next two pixels
// and e/16, e/8, e/4, e/8, e/16 to `next` from two columns left to two
// right. Both rows need two spare pixels (8 values) on each side. Writes
// one index a byte to `out`; fills cache cells as it goes.
void diffuse_row_256(uint8_t* out, int32_t* current, int32_t* next, uint32_t width,
                     const RgbQuad* palette, int32_t* cache);

}  // namespace tesslin::colour
