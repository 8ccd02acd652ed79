// Sun raster files (type tag "ras", format code 37): a big-endian 32-byte
// header, an optional colour map and rows padded to 16 bits, plain or
// byte-encoded (run-length). docs/raster-formats.md describes what is read
// and written.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::sunraster {

// Decoder of the tag "ras". Position bit 31 clear: the byte offset of the
// file; set: page 0 at the stream's position (other pages:
// IMG_ERR_NO_PAGE). Depths 1, 8, 24 and 32 (32 delivered as 24-bit: the
// first byte of each pixel dropped); type 3 files (red, green, blue order)
// have their samples reordered to blue, green, red; a 1-bit image without a
// colour map is complemented (1 is black in the file). Rows top first.
// Returns 0 or a negative status: IMG_ERR_READ for a short header, colour
// map or data (after the complete rows were delivered), IMG_ERR_BAD_IMAGE
// for a wrong magic number, another depth, a colour map type above 2, a
// zero or oversized width or height, or a byte-encoded image larger than
// its data could code; IMG_ERR_MEMORY; a callback's negative result.
int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);

// Encoder of format code 37: type 3 (samples red, green, blue), 1-bit
// images without a colour map and complemented (1 is black), 4- and 8-bit
// images as 8-bit with a 768-byte map, 24-bit images without a map. IMG_ERR_DEPTH for 16-
// and 32-bit images, IMG_ERR_WRITE for a short write, a supply's negative
// result.
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant);

}  // namespace tesslin::sunraster
