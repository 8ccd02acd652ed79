// PCX reader (type tag "pcx") and writer (IMG_FORMAT_PCX); DCX, the
// multi-page container of PCX pages, reader (type tag "dcx") and page
// appender (IMG_FORMAT_DCX).
//
// PCX: a 128-byte header, run-length coded scan lines of one or more
// planes, and for 256-colour images a palette in the last 768 bytes. Read:
// 1 bit, 4 bits (one plane, or four 1-bit planes), 8 bits with a palette,
// and 24 bits in three 8-bit planes. Written: 1-, 4- (as four bit planes),
// 8- and 24-bit images.
//
// DCX: the magic 0x3ADE68B1, a table of 32-bit page offsets ended by a zero
// entry, and the pages. Files written here have a table of 100 entries with
// the first page right behind it; saving into an existing DCX appends the
// page at the end of the file and links it into the first free entry last,
// so that a failed append leaves the file as it was. docs/pcx.md.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::pcx {

constexpr uint32_t kDcxMagic = 0x3ADE68B1;
// Entries of the page table of the DCX files written here.
constexpr uint32_t kDcxEntries = 100;
constexpr uint32_t kDcxTableBytes = 4 + 4 * kDcxEntries;

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);
int32_t decode_dcx(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant);
int32_t encode_dcx(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t variant);

// Pages of the DCX at the stream's position: the entries before the first
// zero (or invalid) one.
int32_t count_dcx_pages(int32_t stream);

}  // namespace tesslin::pcx
