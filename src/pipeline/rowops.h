// Row operations shared by the library's decode callbacks and the save
// driver's supply callbacks: ordered-dither depth reduction, nearest-
// neighbour horizontal scaling, and cutting a row to a column range.
#pragma once

#include <cstdint>

#include "core/dib.h"

namespace tesslin::rowops {

// 8 x 8 ordered-dither thresholds: the recursive Bayer matrix (0..63) times
// 4, with 4 in place of the first 0.
extern const uint8_t kDither[8][8];

// Reduces a packed row of `width` pixels to `target` bits (8, 4 or 1) with
// the ordered dither of row `row_number`:
//   8: from 24/32 bits, each of blue, green, red less threshold >> 3 (not
//      below 0), index (red & 0xE0) | ((green >> 3) & 0x1C) | (blue >> 6)
//      (the "332" palette);
//   4: per pixel a nibble with bit 0 red, bit 1 green, bit 2 blue set when
//      the component exceeds the threshold, bit 3 when the intensity
//      ((75 g + 14 b + 38 r) >> 7) - 40 exceeds threshold + 40 (the
//      "dither" palette's order), first pixel in the high nibble;
//   1: white when (59 g + 11 b + 30 r) / 100 exceeds the threshold.
// Palette sources (1, 4, 8 bits) look their colours up in `palette`; 16-bit
// pixels are 5-5-5; 32-bit pixels use their first three bytes. `out` must
// hold row_bytes(width, target) bytes and must not overlap `src`.
void reduce(const uint8_t* src, uint32_t bits, const RgbQuad* palette, uint32_t width,
            uint32_t target, int32_t row_number, uint8_t* out);

// Nearest-neighbour horizontal scaling of a packed row with a 16.16 step of
// (src_width << 16) / dst_width. `dst` holds row_bytes(dst_width, bits).
void scale(const uint8_t* src, uint32_t bits, uint32_t src_width, uint8_t* dst,
           uint32_t dst_width);

// Scales the change positions of a run record (length word first) from
// src_width to dst_width columns into a complete record at `out` (room for
// runs::max_record_bytes(dst_width)); runs that vanish are dropped. Returns
// the new record's length.
uint32_t scale_record(const uint32_t* record, uint32_t src_width, uint32_t dst_width,
                      uint32_t* out);

// Cuts a run record of a row `src_width` wide to columns [x, x + width):
// positions before x are dropped (the starting colour flips when an odd
// number were), the rest shifted by -x and cut at `width`. Writes a complete
// record at `out` and returns its length.
uint32_t cut_record(const uint32_t* record, uint32_t src_width, uint32_t x, uint32_t width,
                    uint32_t* out);

// Rebuilds a run record that a decoder delivered as `count` bytes at `bytes`
// (length word first, any alignment) from its change list, so that what the
// library keeps is always well formed: positions clamped to the width and
// the record closed. `scratch` holds width + 1 words, `out` a record of
// runs::max_record_bytes(width). Returns the new length, or 0 when `count`
// cannot be a record (below 8 or not a multiple of 4).
uint32_t rebuild_record(const uint8_t* bytes, uint32_t count, uint32_t width, uint32_t* scratch,
                        uint32_t* out);

// Byte offset of column x in a packed row: x * 2, 3, 4 for 16, 24, 32 bits,
// x / (8 / bits) below 8 bits.
inline uint32_t column_bytes(uint32_t x, uint32_t bits) {
    return bits >= 8 ? x * (bits / 8) : x / (8 / bits);
}

}  // namespace tesslin::rowops
