// Nearest-neighbour horizontal scaling of single rows: how the decode
// driver reduces an image to the decoding size while it is decoded.
//
//   scale_row      a packed row to another width
//   scale_record   a run record to another width
//
// scale_row
//   depths: 1, 4, 8, 16, 24, 32.
//   statuses: none.
// scale_record
//   depths: 1 (run records).
//   statuses: none; returns the new record's length.
#pragma once

#include <cstdint>

namespace tesslin::resample {

// Scales a packed row of `bits` bits from src_width to dst_width pixels:
// pixel x takes source pixel (x * step) >> 16 with the 16.16 step
// (src_width << 16) / dst_width. `dst` holds row_bytes(dst_width, bits),
// cleared here first.
void scale_row(const uint8_t* src, uint32_t bits, uint32_t src_width, uint8_t* dst,
               uint32_t dst_width);

// Scales the change positions of a run record (length word first) from
// src_width to dst_width columns into a complete record at `out` (room for
// runs::max_record_bytes(dst_width)); runs that vanish are dropped. Returns
// the new record's length.
uint32_t scale_record(const uint32_t* record, uint32_t src_width, uint32_t dst_width,
                      uint32_t* out);

}  // namespace tesslin::resample
