// IOCA images, bare or wrapped in MO:DCA structured fields (type tags "ica"
// and "mca", format codes 24, 49 and 74 on the reading side): the image of a
// page, its parameters for the ABIC fallback, page counts and orientation.
// docs/ioca.md describes the layouts and the choices made on damaged data.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::ioca {

// Recognition of MO:DCA data (detection test of the tag "mca"): byte 2 is
// 0xD3 and bytes 3, 4 are 0xA6 0xFB or byte 3 is 0xA8; or byte 0 is 'Z',
// byte 3 0xD3 and byte 4 0xA8 or 0xEE; or byte 0 is 'p' (a bare segment).
bool signature(const Probe& probe);

// The decoder of both tags (contract of pipeline/codec.h). Position bit 31
// clear: the byte offset of the data, page 0; set: the data starts at the
// stream's position and bits 0-15 give the page. Reads, in this order: an
// indexed container ("000" and a table of image offsets) whose image is a
// little-endian TIFF; a bare IOCA image segment (first byte 0x70); MO:DCA
// structured fields, with or without the 0x5A introducer, whose page holds
// IOCA image data (D3EEFB fields) or an object container (D3EE92) with JPEG
// or TIFF data. IOCA data coded as IBM MMR, T.4 one- and two-dimensional,
// T.6, uncompressed (1, 4 or 8 bits) or JPEG is decoded. Statuses:
// IMG_ERR_BAD_IMAGE for no image data, a broken chain of image data fields,
// a structured field length below 8, an unknown compression or a size out of
// range; IMG_ERR_NO_PAGE for a page other than 0 of a bare segment;
// IMG_ERR_READ when the fields end before the page's image (also for a page
// beyond the last) or uncompressed data is cut short; IMG_ERR_COMPRESSION
// for ABIC data; IMG_ERR_VARIANT for other bit depths; IMG_ERR_MEMORY; the
// CCITT, JPEG and TIFF decoders' and the callbacks' statuses.
int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);

// Page counter of both tags: the begin-page fields (D3A8AF) of a MO:DCA
// file, at least 1; 1 for a bare segment or an indexed container.
int32_t count_pages(int32_t stream);

// Orientation of a page of a MO:DCA file: 90 when the object area of the
// page's image is turned by a quarter turn (its Object Area Position field,
// D3AC6B, gives an X axis at 90 or 270 degrees), else 0. IMG_ERR_NO_PAGE
// for a page beyond the last.
int32_t orientation(int32_t stream, int32_t page);

// ABIC parameter reader of the decode fallback (AbicParamReader of
// pipeline/codec.h): for MO:DCA or IOCA data at the stream's position, the
// page's image size, depth and resolution, with the stream left at its first
// image data byte. kAbicParamsAbsent for data of another format.
int32_t abic_params(int32_t stream, int32_t page, AbicParams* out);

}  // namespace tesslin::ioca
