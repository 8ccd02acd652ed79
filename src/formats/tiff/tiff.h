// TIFF reader (type tag "tif") and writer (format codes 0, 7, 8, 9, 10, 16,
// 40, 51, 66, 67), with the directory queries the pipeline dispatches to.
// docs/tiff.md describes what is read and written.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::tiff {

// The decoder of type tag "tif" (decoder contract of pipeline/codec.h).
// Position bit 31 clear: the TIFF starts at that byte offset, page 0. Bit 31
// set, bit 30 clear: the TIFF starts at the stream's position; bits 0-15
// are the page, bits 16-29 the tile of a tiled page. Bits 31 and 30 set
// (a negative page k): channel mode, byte -k of each pixel of the first
// page as 8-bit grey.
int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);

// The encoder of every TIFF format code; the code is the variant.
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply, intptr_t user,
               int32_t variant);

// Directory count along the chain from the first IFD (stream at the TIFF's
// start, offset 0): ends at a next offset of 0, a read that fails, a
// directory with fewer than 5 or more than 500 entries, or a loop.
int32_t count_pages(int32_t stream);

// Orientation of a page in degrees: Orientation 1 -> 0, 6 -> 90, 3 -> 180,
// 8 -> 270, other values as they are (0 when the tag is absent). IMG_ERR_BAD_IMAGE for a
// directory outside 3..1000 entries, IMG_ERR_NO_PAGE for a page not in the chain.
int32_t orientation(int32_t stream, int32_t page);

// Tile geometry of a page (TileQuery of pipeline/codec.h) for a TIFF at
// offset 0.
int32_t tile_query(int32_t stream, int32_t page, TileInfo* out);

// The same for a TIFF starting at `base` (CALS files carry one at 1431). 0; IMG_ERR_NOT_TILED
// without TileLength, or without TileWidth on page 0; IMG_ERR_NO_PAGE without TileWidth on another
// page; IMG_ERR_BAD_IMAGE for a tile width or length of 0; IMG_ERR_NO_PAGE for a page not in the
// chain.
int32_t tile_info(int32_t stream, uint32_t base, int32_t page, TileInfo* out);

// 1 when the page-0 directory of the TIFF at `base` has a non-zero
// TileWidth and no JPEGQTables, else 0.
int32_t is_tiled(int32_t stream, uint32_t base);

// Tag query (IMGLOW_get_tiff_tag) on the TIFF at offset 0 of the stream: ASCII values and values of
// more than 4 items: up to `size` bytes copied into `buffer`, returns the count copied; other
// values stored in *value (RATIONAL as numerator / denominator), returns 0. IMG_ERR_BAD_IMAGE for a
// directory outside 3..1000 entries on the way, IMG_ERR_NO_PAGE for a page not in the chain,
// IMG_ERR_NOT_FOUND when the tag is absent.
int32_t tag_query(int32_t stream, int32_t tag, int32_t size, int32_t* value, void* buffer,
                  int32_t page);

// The entries of a page's directory for IMGLOW_get_tiff_directory: at most
// `max` written to `out`, the entry count returned; the statuses of
// tag_query otherwise (IMG_ERR_READ for a directory cut short).
int32_t list_directory(int32_t stream, int32_t page, IMG_TIFF_FIELD* out, int32_t max);

// ABIC fallback parameters of compression 32010/32008 pages: width, length,
// bits per sample, resolution, and the stream left at the first strip.
int32_t abic_params(int32_t stream, int32_t page, AbicParams* out);

}  // namespace tesslin::tiff
