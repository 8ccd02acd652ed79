// Targa (type tag "tga"): the reader, and the writers of format codes 3
// (8-, 24- and 32-bit files) and 32 (15-bit true colour from 24-bit images).
// docs/raster-formats.md describes what is read and written.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::targa {

// Decoder of the tag "tga". Position bit 31 clear: the byte offset of the
// Targa header; set: page 0 at the stream's position (other pages:
// IMG_ERR_NO_PAGE). Image types 1, 2, 3 and their run-length forms 9, 10,
// 11 of 8, 15, 16, 24 and 32 bits per pixel; type 156 hands the data after
// the 18-byte header to the JPEG decoder. Rows are delivered in file order
// with their image row numbers (bottom row first unless descriptor bit 5
// says top first; bit 4 mirrors each row). Returns 0 or a negative status:
// IMG_ERR_READ for a short header, colour map or pixel data (after the
// complete rows were delivered), IMG_ERR_BAD_IMAGE for a pixel depth other
// than 8, 15, 16, 24, 32, a zero width or height or a run-length image
// larger than its data could code, IMG_ERR_VARIANT for other image types,
// IMG_ERR_MEMORY, or a callback's negative result.
int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);

// Encoder of format code 3: uncompressed, bottom row first. 8-bit images
// with an all-grey palette become grey images (type 3, each index written
// as its grey value), other 8-bit images colour-mapped (type 1, 256 entries
// of 24 bits), 16-bit grey images 8-bit grey from their high bytes, 24- and
// 32-bit images true colour (type 2). IMG_ERR_DEPTH for 1- and 4-bit
// images and 32-bit images without the alpha marker; IMG_ERR_WRITE for a
// short write; a supply's negative result.
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant);

// Encoder of format code 32: 24-bit images only (IMG_ERR_UNSUPPORTED
// otherwise), written as 15-bit pixels ((red & 0xF8) << 7 | (green & 0xF8)
// << 2 | blue >> 3, little-endian), bottom row first. IMG_ERR_WRITE for a
// short write.
int32_t encode15(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                 intptr_t user, int32_t variant);

}  // namespace tesslin::targa
