// Byte-order swaps between the RGB(A) of TIFF files and the BGR(A) of DIB
// rows: the first and third byte of every pixel exchanged. `src` and `dst`
// may be the same row.
#pragma once

#include <cstdint>

namespace tesslin::tiff {

void swap_rgb24(const uint8_t* src, uint8_t* dst, uint32_t pixels);
void swap_rgb32(const uint8_t* src, uint8_t* dst, uint32_t pixels);

}  // namespace tesslin::tiff
