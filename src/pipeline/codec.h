// The contracts between the drivers and the format codecs.
//
// Decoder: called with (position, raster callback, user value, header
// callback, stream). Position bit 31 clear: a byte offset, the decoder seeks
// there itself. Bit 31 set: the stream already stands at the image and bits
// 0-15 give the page (0 = first), bits 16-30 the tile index. The decoder
// calls the header callback once (info header + palette, resolution in dots
// per inch, compression 0 or 200 for 32-bit alpha, colour-count field 0 or
// transparent colour | 0x1000), then the raster callback once per row; it
// returns 0 or the first negative status (including a callback's), freeing
// what it holds. Bilevel rows come top to bottom or bottom to top, each
// exactly once, packed or as run records.
//
// Encoder: called with (stream, encoder header, supply callback, user value,
// variant); the header describes the image to write (compression 99 when the
// rows come as run records). Rows are pulled 0 .. height-1 (any order the
// format needs) through the supply. Returns 0 or a negative status: -9 for a
// short write, -21 for a depth the format does not write.
#pragma once

#include <cstdint>

#include "core/dib.h"
#include "tesslin/tesslin.h"

namespace tesslin {

using Decoder = int32_t (*)(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                            IMG_HEADER_CALLBACK header, int32_t stream);
using Encoder = int32_t (*)(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                            intptr_t user, int32_t variant);

constexpr uint32_t kPositionIsPage = 0x80000000u;
inline bool position_is_page(uint32_t position) { return (position & kPositionIsPage) != 0; }
inline uint32_t position_page(uint32_t position) { return position & 0xFFFF; }
inline uint32_t position_tile(uint32_t position) { return (position >> 16) & 0x7FFF; }

// Colour-count field flag marking a transparent colour in decoder headers.
constexpr uint32_t kTransparentFlag = 0x1000;

}  // namespace tesslin
