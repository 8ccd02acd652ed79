// Windows BMP: the reader (files and bare DIBs, every depth, RLE4 and RLE8,
// OS/2 headers, bit fields, top-down rows, the library's run-record variant)
// and the writers of format codes 1, 12 and 48.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::bmp {

// Decoder of the tag "bmp" (position: byte offset; pages are not used).
int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);

// Encoder of format codes 1 (uncompressed file), 12 (run-length file) and
// 48 (bare DIB); the variant is the format code.
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant);

}  // namespace tesslin::bmp
