// Standard palettes, chosen by a name and the header's bit count: the
// palettes decoders give images without a colour map, the decode driver
// gives reduced images, and the colour operations install.
//
//   build_standard_palette   fills a header's palette by name
//   kFixedPalette            the fixed 256-colour table
//
// build_standard_palette
//   depths: 1, 4, 8, 16 filled; 24 and 32 (no palette) left alone.
//   statuses: none.
#pragma once

#include "core/dib.h"

namespace tesslin {

// Fills the palette after `header` for its bit count:
//   1 bit (any name): black, white.
//   "tiff": grey ramp (256 entries for 16 bits, else 2^bits).
//   "332": the fixed 256-colour table when the dithering mode is 2, else the
//          3-3-2 cube.
//   "targa": the 3-3-2 cube (bits 0-1 blue, 2-4 green, 5-7 red).
//   "dither": 16 colours, index bit 0 red, 1 green, 2 blue at 200, bit 3 at 255.
//   "pcx" and any other name: as "dither" with 128 for entries 0-7.
// 24- and 32-bit headers have no palette and are left alone.
void build_standard_palette(DibHeader* header, const char* name);

// The fixed 256-colour table (red, green, blue per entry).
extern const uint8_t kFixedPalette[256][3];

}  // namespace tesslin
