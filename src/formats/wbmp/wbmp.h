// Wireless bitmap, type 0 (type tag "wbm", format code 68): a bilevel
// format with a header of multi-byte integers, rows from the top, 1 = white.
// docs/raster-formats.md describes what is read and written.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::wbmp {

// Decoder of the tag "wbm". Position bit 31 clear: the byte offset of the
// file; set: page 0 at the stream's position (other pages:
// IMG_ERR_NO_PAGE). Skips the type byte and the header fields, reads the
// width and height and delivers a 1-bit image (palette black, white; 72
// dots per inch) top row first. Returns 0 or a negative status:
// IMG_ERR_READ when the header or the rows are cut short (after the
// complete rows were delivered), IMG_ERR_BAD_IMAGE for a zero size, a size
// above the dimension cap or a multi-byte integer longer than 5 bytes,
// IMG_ERR_MEMORY, or a callback's negative result.
int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);

// Encoder of format code 68: type 0, fixed header 0, width and height as
// multi-byte integers, then the first (width + 7) / 8 bytes of every row
// from the top. IMG_ERR_DEPTH for images that are not 1-bit, IMG_ERR_WRITE
// for a short write, a supply's negative result.
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant);

}  // namespace tesslin::wbmp
