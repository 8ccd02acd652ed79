// Photoshop (type tag "psd", format code 41): the flattened composite image
// of a Photoshop file, one channel of it, the image resources, and a writer
// of uncompressed files without layers. docs/raster-formats.md describes
// what is read and written.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::psd {

// Decoder of the tag "psd". Position bit 31 clear: the byte offset of the
// file. Set with bit 30 set too (a negative page request -c): the file at
// stream offset 0, delivering channel c (byte c of each converted pixel:
// 2 is red, 3 alpha) as an 8-bit grey image; set without bit 30: page 0 at
// the stream's position (other pages: IMG_ERR_NO_PAGE). Composite images of
// bitmap (1 bit), greyscale and indexed (8 bits), RGB and Lab (24 bits, or
// 32 with alpha), CMYK (24 or 32 bits, 255 minus each stored value),
// duotone and multichannel (the first channel, 8 or 16 bits) files, 8 or 16
// bits per channel (16-bit samples keep their high byte, except in duotone
// and multichannel files), raw or PackBits. Returns 0 or a negative status:
// IMG_ERR_READ for a short header, colour data, section length,
// compression value or image data, IMG_ERR_VARIANT for a version other than
// 1, IMG_ERR_DEPTH for 32-bit samples, IMG_ERR_BAD_IMAGE for a channel count
// outside 1..56 or too small for the mode, a depth that does not suit the
// mode, a zero or oversized width or height, a PackBits image larger than
// its data could code, or a channel the image does not have;
// IMG_ERR_MEMORY; a callback's negative result. Compression values other
// than 0 and 1 deliver the header and no rows (result 0).
int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);

// Tag query of the tag "psd" (IMGLOW_get_tiff_tag): copies at most `size`
// bytes of the data of the first image resource whose id is `tag` into
// `buffer` and returns 1. IMG_ERR_NOT_FOUND when the file has no such
// resource, IMG_ERR_READ when the file header or the resource's data
// cannot be read. `value` and `page` are not used.
int32_t tag_query(int32_t stream, int32_t tag, int32_t size, int32_t* value, void* buffer,
                  int32_t page);

// Encoder of format code 41: version 1, no resources, no layers, raw data.
// 1-bit images in bitmap mode (inverted: 1 is black), 8-bit images indexed
// with their palette, 24-bit and alpha-marked 32-bit images RGB (with an
// alpha channel), other 32-bit images CMYK. IMG_ERR_DEPTH for 4- and 16-bit
// images, IMG_ERR_WRITE for a short write or a stream that cannot seek to
// a channel's place, a supply's negative result.
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant);

}  // namespace tesslin::psd
