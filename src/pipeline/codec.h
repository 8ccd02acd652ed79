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

// Page counter: called with the stream at offset 0 (detection has just run).
// Returns the number of pages or images in the file, or a negative status.
using PageCounter = int32_t (*)(int32_t stream);

// Orientation reader: degrees (0, 90, 180, 270) recorded for the page, or a
// negative status. Called with the stream at offset 0.
using OrientationReader = int32_t (*)(int32_t stream, int32_t page);

// Geometry of a tiled image, from the tile-information query.
struct TileInfo {
    int32_t image_width;
    int32_t image_height;
    int32_t tile_width;
    int32_t tile_height;
    int32_t tiles_across;
    int32_t tiles_total;
};

// Tile-information query: fills `out` for the page and returns 0, or -32
// when the page is not tiled (any other negative status on bad data).
// Called with the stream at offset 0.
using TileQuery = int32_t (*)(int32_t stream, int32_t page, TileInfo* out);

// Tag query (IMGLOW_get_tiff_tag and its variants): reads the value of
// `tag` on `page` of the file at offset 0 of the stream. Values that fit in
// a number go to *value (result 0); longer ones are copied into `buffer`
// (at most `size` bytes; the result is the count copied). Negative status
// on failure (-31 when the tag is absent).
using TagQuery = int32_t (*)(int32_t stream, int32_t tag, int32_t size, int32_t* value,
                             void* buffer, int32_t page);

// Parameters of ABIC-compressed data, read by the fallback of the decode
// entry points (after a decoder answered -27).
struct AbicParams {
    int32_t width;
    int32_t height;
    int32_t bits;  // 1, 4 or 8
    int32_t x_dpi;
    int32_t y_dpi;
};

// Reads the parameters of the page's ABIC data and leaves the stream at the
// compressed data. 0, or a negative status; 23456 means the container holds
// no such parameters (the next reader is tried).
using AbicParamReader = int32_t (*)(int32_t stream, int32_t page, AbicParams* out);
constexpr int32_t kAbicParamsAbsent = 23456;

}  // namespace tesslin
