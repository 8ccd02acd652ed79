// PNG reader (type tag "png") and writer (format code 43).
//
// The reader walks the chunks up to the first IDAT (IHDR, PLTE and pHYs are
// used, everything else is skipped, CRCs are not checked), announces the DIB
// header, then inflates the IDAT data with the library's own inflate and
// delivers rows top first (interlaced images after the seventh pass). The
// writer emits IHDR, pHYs, PLTE (palette images), IDAT chunks of up to 8 KB
// compressed by zlib, and IEND. See docs/png.md for the pixel mapping.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin {

int32_t png_decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);

int32_t png_encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t variant);

// CRC-32 (reflected polynomial 0xEDB88320) continued from `crc` (0 to start).
uint32_t png_crc(const uint8_t* data, size_t size, uint32_t crc = 0);

}  // namespace tesslin
