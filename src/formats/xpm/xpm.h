// X pixmap output (type tag "xpm", format code 35): C source text with the
// image size, one line per palette colour and one quoted string per row.
// Not read. docs/raster-formats.md describes the text written.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::xpm {

// Encoder of format code 35 for 1-, 4- and 8-bit palette images: every
// palette entry (2, 16 or 256) gets a colour line, each pixel one character
// (94 + index; 1-bit: "^" and "_") or, for 8-bit images, two (94 +
// index / 32, 94 + index % 32). IMG_ERR_DEPTH for deeper images,
// IMG_ERR_WRITE for a short write, IMG_ERR_MEMORY, a supply's negative
// result.
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant);

}  // namespace tesslin::xpm
