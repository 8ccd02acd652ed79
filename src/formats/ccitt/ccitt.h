// CCITT Group 3 and Group 4 fax coding (ITU-T T.4 and T.6) for the readers
// and writers that wrap it: TIFF, CALS, raw fax, IOCA and the fax containers.
//
// Decoding: the caller describes the coded data (width, height, coding mode,
// fill order, inversion) and receives one row per call of a line callback
// with the signature of the raster callback: (row, user, row index, byte
// count). The Modified Huffman and Group 3 decoders deliver packed rows
// (row_bytes(width, 1) bytes, 1 = white unless inverted); the Group 4
// decoder delivers run records (core/runs.h) whose byte count never equals
// the packed row size. A negative status from the callback ends decoding and
// is returned. The row buffer belongs to the decoder and may be changed by
// the callback.
//
// Damaged data never makes a decoder read outside the data or loop without
// consuming it: undecodable bits are skipped one at a time, overlong rows are
// cut at the width, and when the data ends the row in progress is finished
// and the rest of the call's rows are delivered (white, or for Group 4 as
// repeats of the last row, as if the missing bytes were 0xFF).
//
// Encoding: rows are pulled through a supply callback (IMG_SUPPLY_CALLBACK):
// packed rows when the header describes a 1-bit image whose compression field
// is not 99, run records otherwise (a return of 0 then means the buffer holds
// a packed 1-bit row after all). The supply buffer holds (width + 8) * 4
// bytes; the byte count passed is the packed row size.
#pragma once

#include <cstdint>

#include "core/dib.h"
#include "core/limits.h"
#include "tesslin/tesslin.h"

namespace tesslin::ccitt {

// Coding modes (FaxParams::mode). "Stream" modes read the coded data from a
// stream handle, starting at its current position; "memory" modes read
// params.data_length bytes at `data`.
enum FaxMode : int32_t {
    // Memory, two-dimensional: row 0 is EOL, one skipped bit, a 1-D row;
    // row 1 is EOL, one skipped bit, a 2-D row; later rows are 2-D rows with
    // neither EOL nor tag bit. Rows count from the first row of the call.
    kModeMrPlain = 1,
    // Stream, Modified Huffman without EOL, every row starting on a byte
    // boundary (TIFF compression 2).
    kModeMhAligned = 2,
    // Stream, Group 3 1-D: an EOL follows every row; three EOL codes with no
    // run between them end the page (TIFF compression 3, raw .g3 files).
    kModeG3 = 3,
    // Stream, Group 4 / MMR (TIFF compression 4).
    kModeG4 = 4,
    // Stream, Group 3 2-D: every row is EOL, a tag bit (1 = 1-D row, 0 = 2-D
    // row) and the row (TIFF compression 3 with 2-D coding).
    kModeG3Mr = 45,
    // Memory, Modified Huffman: EOL codes are ignored, rows are not aligned.
    kModeMhMemory = 128,
    // Memory forms of modes 45 and 4.
    kModeG3MrMemory = 129,
    kModeG4Memory = 130,
};

// FaxParams::flags
// Group 4: after the last row of a call, do not repeat that row down to the
// image height. The repeat leaves every row filled when a reader stops
// early, but later strips then deliver their rows a second time, which the
// library's own raster callback refuses (it stores each row once, in order):
// a reader decoding several strips through it sets this flag on every call
// but the last.
constexpr uint32_t kFaxNoRepeatToHeight = 1;
// Deliver only the rows the data holds, for callers that do not know the
// page length (raw fax with no height given): the call ends at the end of
// the page without white or repeated rows after it. The page ends where a
// row would begin and nothing but zero bits is left of the data (padding),
// at an EOL right after a row's EOL (Group 3 one-dimensional RTC, or the two
// EOLs fax_encode_1d ends with), at an EOL right after a row's EOL and tag
// bit (two-dimensional RTC), at an EOL where a Group 4 row would begin
// (EOFB), or when the data runs out before a row has any run. A row cut short by the end of the data is still delivered.
// The caller counts the rows it receives; params.height only caps them.
constexpr uint32_t kFaxStopAtPageEnd = 2;

// Widths above this are refused with IMG_ERR_BAD_IMAGE by decoders and
// encoders (the work lists grow with the width): the library's dimension cap.
constexpr uint32_t kMaxFaxWidth = limits::kMaxDimension;

struct FaxParams {
    uint32_t width = 0;        // pixels per row
    uint32_t height = 0;       // rows of the whole image; no row at or beyond it is delivered
    int32_t mode = 0;          // FaxMode
    uint32_t fill_order = 1;   // 1: first pixel in the high bit of a byte; 2: in the low bit
    uint32_t no_inversion = 1; // 0: rows are delivered inverted (white as 0 bits)
    uint32_t data_length = 0;  // memory modes: bytes of coded data at `data`
    uint32_t flags = 0;        // kFaxNoRepeatToHeight, kFaxStopAtPageEnd
};

// The three decoders take the same arguments:
//   data       memory modes: the coded data (not modified); stream modes: unused
//   row_count  rows to decode in this call
//   first_row  image row index of the first of them (strips decode by
//              successive calls; each call starts with an all-white
//              reference row)
//   params     as above
//   stream     stream modes: the stream, positioned at the first coded byte;
//              on return it stands just after the last byte used
//   line, user the line callback and its user value
// They return 0, IMG_ERR_BAD_IMAGE for a width of 0 or above
// kMaxFaxWidth, IMG_ERR_UNSUPPORTED for a mode the decoder does not
// handle, IMG_ERR_MEMORY, the stream's failure (IMG_ERR_STREAM_FAULT), or the callback's
// negative status. fax_decode_2d also returns IMG_ERR_BAD_IMAGE when 2,000 code reads find no
// EOL where a row must begin.
//
// fax_decode_1d (modes 2, 3, 128): packed rows. The end of the page (three
// EOLs in mode 3, or the end of the data) delivers the call's remaining rows
// white and returns 0.
int32_t fax_decode_1d(const uint8_t* data, uint32_t row_count, uint32_t first_row,
                      const FaxParams& params, int32_t stream, IMG_RASTER_CALLBACK line,
                      intptr_t user);
// fax_decode_2d (modes 45, 129, 1): packed rows; stops at the image height.
int32_t fax_decode_2d(const uint8_t* data, uint32_t row_count, uint32_t first_row,
                      const FaxParams& params, int32_t stream, IMG_RASTER_CALLBACK line,
                      intptr_t user);
// fax_decode_g4 (modes 4, 130): run records; with no_inversion 0 each record's
// changes start with an extra 0, which inverts the row. Stops at the image
// height; unless kFaxNoRepeatToHeight is set, the rows after the call's last
// row up to the height are delivered as repeats of its record.
int32_t fax_decode_g4(const uint8_t* data, uint32_t row_count, uint32_t first_row,
                      const FaxParams& params, int32_t stream, IMG_RASTER_CALLBACK line,
                      intptr_t user);
// The decoder for params.mode; IMG_ERR_UNSUPPORTED for an unknown mode.
int32_t fax_decode(const uint8_t* data, uint32_t row_count, uint32_t first_row,
                   const FaxParams& params, int32_t stream, IMG_RASTER_CALLBACK line,
                   intptr_t user);

// Framing of the encoders' output.
enum FaxFraming : int32_t {
    kFrameMhAligned = 2,  // fax_encode_1d: MH, no EOL, each row starts on a byte boundary
    kFrameG3 = 3,         // fax_encode_1d: leading EOL, each row followed by an EOL that
                          // ends on a 16-bit boundary, one more EOL at the end
    kFrameG4 = 4,         // Group 4 encoders: the plain code stream
    kFrameG4Ioca = 33,    // Group 4 encoders: blocks of whole 16-bit words, each preceded
                          // by 0xFE 0x92 and its big-endian 16-bit byte count
};

// The encoders write to `stream` at its position and take:
//   header     the image: width, height (rows to write), bit count and
//              compression field (decide packed or run supply, above)
//   supply     the row source and its user value
//   bit_order  non-zero: every output byte bit-reversed (TIFF fill order 2);
//              fax_encode_1d honours it only with framing 3
//   framing    kFrameMhAligned or kFrameG3 for fax_encode_1d, kFrameG4 or
//              kFrameG4Ioca for the Group 4 encoders
// They return 0, IMG_ERR_BAD_IMAGE for a missing header, a width below 1
// or above kMaxFaxWidth or a negative height, IMG_ERR_UNSUPPORTED for a
// framing the encoder does not write, IMG_ERR_MEMORY, the stream's
// failure (IMG_ERR_WRITE short write, IMG_ERR_STREAM_FAULT fault), or the supply's negative status.
//
// Modified Huffman rows; a height of 0 writes nothing.
int32_t fax_encode_1d(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                      intptr_t user, int32_t bit_order, int32_t framing);
// Group 4 for rows 0 .. height - 1, ending with EOFB.
int32_t fax_encode_g4(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                      intptr_t user, int32_t bit_order, int32_t framing);
// Group 4 for the band of rows first_row .. first_row + height - 1 (one TIFF
// strip): a complete stream of its own, starting from an all-white reference
// row and ending with EOFB.
int32_t fax_encode_g4_rows(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                           intptr_t user, int32_t bit_order, int32_t framing, int32_t first_row);

}  // namespace tesslin::ccitt
