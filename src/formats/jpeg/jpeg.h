// JPEG codec: entry points for the decode and save drivers and for the
// readers and writers that carry JPEG data inside another format.
//
//   - The BMP, Targa, DICOM and IOCA readers hand embedded JPEG data over
//     with decode(position, ...) exactly as the driver calls the decoder: the
//     position is the byte offset of the data (bit 31 clear), or bit 31 set
//     when the stream already stands there. SOI is searched for in the first
//     1000 bytes.
//   - The TIFF reader decodes a whole-image JPEG stream with the options
//     form: strip_rows when one stream spans several strips that each start
//     byte-aligned with fresh DC predictors, and tables (from read_tables
//     over the JPEGTables field) when every strip is an abbreviated stream
//     that relies on shared tables; the tables are installed before each
//     strip's own segments, which may override them.
//   - The TIFF, PDF and PostScript writers call encode() on a stream
//     positioned where the JPEG data must begin; it writes a complete
//     baseline JFIF stream from SOI to EOI.
#pragma once

#include <cstdint>

#include "core/dib.h"
#include "tesslin/tesslin.h"

namespace tesslin::jpeg {

// Quantisation tables, Huffman tables and restart interval of a
// tables-only stream (SOI, DQT / DHT / DRI segments, EOI). Plain data: copy
// it, share it between threads read-only.
struct Tables {
    struct Huffman {
        bool defined = false;
        uint8_t counts[16] = {};
        uint8_t symbols[256] = {};
    };
    bool quant_defined[4] = {};
    uint16_t quant[4][64] = {};  // zig-zag order
    Huffman dc[3], ac[4];
    bool restart_defined = false;
    uint16_t restart_interval = 0;
};

// Parses a tables-only stream held in memory. 0, or IMG_ERR_BAD_IMAGE when a segment is
// malformed (a DQT with precision above 1, a DHT with more than 256 symbols
// or more codes than its lengths hold).
int32_t read_tables(const uint8_t* data, uint32_t size, Tables* out);

struct DecodeOptions {
    // Installed before the stream's own segments.
    const Tables* tables = nullptr;
    // Strip height when one stream spans several strips: every strip_rows
    // rows the DC predictors restart at 0 and the data at a byte boundary.
    uint32_t strip_rows = 0;
    // 1: deliver DCT coefficients; 0: pixels; -1: the process setting
    // (IMGLOW_set_jpeg_decompression).
    int32_t coefficients = -1;
    // Three-component frames hold red, green and blue as they are (TIFF
    // JPEG pages with photometric RGB): no YCbCr conversion.
    bool rgb = false;
};

// The decoder of type tag "jpg" (decoder contract of src/pipeline/codec.h).
// Delivers 8-bit grey (with a grey-ramp palette), 24-bit BGR or 32-bit
// four-channel rows, top row first. Status: IMG_ERR_READ when the first read fails
// or no entropy-coded data follows the first scan header, IMG_ERR_BAD_IMAGE without SOI
// in the first 1000 bytes or for corrupt data, IMG_ERR_UNSUPPORTED for frames other than
// Huffman-coded 8-bit baseline, extended or progressive and for component
// counts other than 1, 3 and 4, IMG_ERR_MEMORY without memory, or a callback's negative
// result.
int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);
int32_t decode(const DecodeOptions& options, uint32_t position, IMG_RASTER_CALLBACK raster,
               intptr_t user, IMG_HEADER_CALLBACK header, int32_t stream);

// The encoder of format code 13 (encoder contract of src/pipeline/codec.h;
// the variant is unused). Reads the quality tables and the luminance
// sampling factors from the process settings. IMG_ERR_DEPTH for 16-bit or unknown
// depths, IMG_ERR_WRITE on a short write, IMG_ERR_MEMORY without memory, or the supply's result.
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply, intptr_t user,
               int32_t variant);

// The ICC profile carried in APP2 (or APP13) "ICC_PROFILE" segments of a
// JPEG stream that starts at `offset`: a block from tesslin_block_alloc
// holding the profile (the caller frees it) with its length in *size, or
// null and 0 when the stream is not JPEG or has no profile.
void* read_profile(int32_t stream, uint32_t offset, uint32_t* size);

}  // namespace tesslin::jpeg
