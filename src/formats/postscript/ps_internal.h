// Pieces the PostScript writers share.
#pragma once

#include <cstdint>
#include <vector>

#include "formats/pdf/text_out.h"
#include "formats/postscript/postscript.h"

namespace tesslin::postscript {

using text_out::LineWriter;

// Size of the image on the page in points: 72 / resolution points a pixel
// along each axis (the vertical resolution falls back to the horizontal
// one; no resolution at all: one point a pixel). `width` and `height` are
// the exact values, `box_width` and `box_height` truncated to integers.
struct PageSize {
    double width, height;
    int32_t box_width, box_height;
};
PageSize page_size(const DibHeader* header);

// Bytes of a written row: (width + 7) / 8 for 1 bit, (width + 1) / 2 for 4,
// width for 8, 3 x width for 24, 4 x width for 32.
uint32_t packed_bytes(uint32_t width, uint32_t bits);

// Writes n bytes as upper-case hexadecimal digits, then a line end.
bool hex_line(LineWriter& w, const uint8_t* data, uint32_t n);

// Where the writer starts: the stream's position (0, or -38 / IMG_ERR_WRITE).
int32_t start_of(int32_t stream, uint32_t* base);

// The uncompressed TIFF of the image (format code IMG_FORMAT_TIFF) at the
// writer's offset; *length gets its byte count.
int32_t tiff_preview(LineWriter& w, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                     intptr_t user, uint32_t* length);

// Overwrites `n` bytes at base + at, then puts the stream back at base + end.
int32_t patch(int32_t stream, uint32_t base, uint32_t at, const void* data, uint32_t n,
              uint32_t end);

// The 32-byte DOS EPS header: PostScript section and TIFF preview.
int32_t binary_header(int32_t stream, uint32_t base, uint32_t end, uint32_t ps_at,
                      uint32_t ps_length, uint32_t tiff_at, uint32_t tiff_length);

// Appends the run-length packets of n bytes (RunLengthDecode: a length
// byte 0..127 and that many plus one literal bytes, or 257 - count and one
// byte repeated 2..128 times).
void run_length(const uint8_t* data, uint32_t n, std::vector<uint8_t>& out);

}  // namespace tesslin::postscript
