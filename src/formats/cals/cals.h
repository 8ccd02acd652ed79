// CALS raster type 1 (type tag "cal", format code 18): a 2048-byte text
// header of sixteen 128-byte records, then the page as Group 4 data.
// docs/fax-formats.md describes what is read and written.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::cals {

// Size of the text header; the coded page starts right after it.
constexpr uint32_t kHeaderBytes = 2048;
// Some CALS files carry a little-endian TIFF ("II") at this offset of the
// header instead of a Group 4 page.
constexpr uint32_t kTiffOffset = 1431;

// Decoder of the tag "cal". Position bit 31 clear: the byte offset of the
// CALS data (the base); set: the base is the stream's position, and the page
// and tile bits go to the TIFF reader when the file holds a TIFF.
// Pel count (width, height) from the record at base + 1033, else + 905,
// else + 777 (the first holding a comma within 30 bytes), density from
// base + 1160. Returns 0 or a negative status: IMG_ERR_READ when the header is cut
// short, IMG_ERR_BAD_IMAGE for a pel count without a comma or without a terminated height,
// and the statuses of the Group 4 decoder (or the TIFF reader) and the
// callbacks.
int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);

// Tile query of the tag "cal" (stream at offset 0): the tile geometry of
// the TIFF at 1431, as the TIFF reader gives it; IMG_ERR_UNSUPPORTED when
// the file holds no TIFF.
int32_t tile_query(int32_t stream, int32_t page, TileInfo* out);

// 1 when the file holds a TIFF at 1431 whose first page is tiled, else 0.
int32_t is_tiled(int32_t stream);

// Encoder of format code 18: bilevel images only (IMG_ERR_DEPTH otherwise); IMG_ERR_WRITE when
// a header record is written short. The variant is not used.
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant);

}  // namespace tesslin::cals
