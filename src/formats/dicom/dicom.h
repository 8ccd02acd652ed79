// DICOM reading (type tag "dcm", format code 55): the first frame of a
// DICOM file (with or without the 128-byte preamble and the file meta
// information) or of a bare data set, and element queries through
// IMGLOW_get_tiff_tag. docs/dicom.md describes what is read and how.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::dicom {

// Recognition: two element headers at offset 0, read as implicit
// little-endian, with the same non-zero group; or "DICM" at offset 0 or 128.
bool signature(const Probe& probe);

// The decoder (contract of pipeline/codec.h). The position is the byte
// offset of the DICOM data (bit 31 set: the data starts at the stream's
// position; the page is not used, the first frame is delivered). Delivers
// 8-bit grey or palette, 16-bit grey (samples in host order, 12 bits stored
// with high bit 11 multiplied by 16) and 24-bit BGR rows, top row first;
// JPEG baseline frames are decoded by the "jpg" decoder, which announces
// its own header. Statuses: IMG_ERR_BAD_IMAGE for malformed meta
// information, a pixel data length that does not fit its coding, a missing
// RLE item or segment offsets outside the fragment, and sizes out of range;
// IMG_ERR_COMPRESSION for the JPEG lossless transfer syntaxes;
// IMG_ERR_READ when an element header or the pixel data cannot be read;
// IMG_ERR_VARIANT for sample layouts the reader does not deliver (bits
// allocated other than 8, 12 and 16, RGB with other than 8 bits);
// IMG_ERR_MEMORY; or a callback's negative result.
int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);

// Element query of IMGLOW_get_tiff_tag (TagQuery of pipeline/codec.h):
// tag = group x 65536 + element, looked for among the file meta elements
// and the top-level elements of the data set. With n the smaller of the
// element's length and `size`: n = 2 stores the 16-bit value (in the
// syntax's byte order) in *value and returns 0; otherwise at most size - 1
// bytes of the value and a terminating zero are copied into `buffer` and 1
// is returned. IMG_ERR_NOT_FOUND when the walk ends without the element,
// IMG_ERR_BAD_IMAGE for malformed meta information. The page is not used.
int32_t tag_query(int32_t stream, int32_t tag, int32_t size, int32_t* value, void* buffer,
                  int32_t page);

}  // namespace tesslin::dicom
