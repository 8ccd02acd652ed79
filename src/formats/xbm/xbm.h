// X bitmap output (type tag "xbm", format code 20): C source text declaring
// the width, the height and the bits of a bilevel image. Not read.
// docs/raster-formats.md describes the text written.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::xbm {

// Encoder of format code 20: "untitled_width", "untitled_height" and
// "untitled_bits" with (width + 7) / 8 bytes per row from the top, twelve
// "0x.." items to a line; each item is the DIB byte complemented (X bitmaps
// mark black with 1) with its bits reversed (the leftmost pixel in the
// lowest bit). IMG_ERR_DEPTH for images that are not 1-bit, IMG_ERR_WRITE
// for a short write, IMG_ERR_MEMORY, a supply's negative result.
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant);

}  // namespace tesslin::xbm
