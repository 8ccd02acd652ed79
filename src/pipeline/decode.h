// The decode driver and the library's own decode callbacks, which build a
// bitmap object from what a decoder delivers and apply the decode settings
// (depth reduction, size reduction, decode rectangle, progress).
#pragma once

#include <cstdint>
#include <vector>

#include "core/bitmap.h"
#include "pipeline/codec.h"

namespace tesslin {

// Runs detection at `offset` and the decoder of the tag with the position
// argument (the offset, or page | bit 31 with the stream at the offset when
// page is non-zero). 0, the decoder's negative status, or IMG_ERR_UNSUPPORTED for a format
// without a decoder.
int32_t run_decoder(int32_t stream, uint32_t offset, int32_t page, IMG_RASTER_CALLBACK raster,
                    intptr_t user, IMG_HEADER_CALLBACK header);

// State of one decode into a bitmap object: the user value of the library's
// callbacks.
struct DecodeContext {
    const DibHeader* header = nullptr;  // the decoder's header
    int32_t handle = -1;
    int32_t row_order = 1;  // 1 before the first row; 0 bilevel bottom row first; 2 otherwise
    int32_t reduction = 0;  // decomp reduction depth, 0 when it does not apply

    // Filled by the header callback.
    BitmapObject* obj = nullptr;
    int32_t src_width = 0, src_height = 0;
    uint32_t src_bits = 0, src_row_bytes = 0;
    uint32_t bits = 0;  // stored depth
    RgbQuad palette[256] = {};
    enum class Mode { kStore, kScale, kRect } mode = Mode::kStore;
    int32_t rect_x = 0, rect_y = 0;
    std::vector<uint8_t> reduced, work, padded;
    std::vector<uint32_t> record, record2;
    // Plain images: which stored rows have been written (the DIB is not
    // cleared when it is made; finish_decode clears the rows no delivered
    // row reached).
    std::vector<uint8_t> row_written;
    int32_t rows_written = 0;
};

// The library's header and raster callbacks (user value: DecodeContext*).
int32_t library_header(const IMG_BITMAPINFOHEADER* header, intptr_t user);
int32_t library_raster(uint8_t* row, intptr_t user, int32_t row_number, uint32_t byte_count);

// Reserves a handle for a decode and fills the context. 0 or IMG_ERR_MEMORY.
int32_t begin_decode(DecodeContext& ctx);

// Ends a decode started by begin_decode: on success completes the run store
// and turns bottom-up bilevel rows into the canonical order, and returns the
// handle; on failure (or when no image was announced) frees the handle and
// returns the status.
int32_t finish_decode(DecodeContext& ctx, int32_t status);

// Whole decode of the image at `offset` (page as for run_decoder) into a
// new handle, with the ABIC fallback after IMG_ERR_COMPRESSION.
int32_t decode_to_handle(int32_t stream, uint32_t offset, int32_t page);

// Tiled decode into a new handle: tile i is decoded by `decoder` through the
// driver's dispatch (or, when `decoder` is given, by calling it directly
// with the stream at `offset`) with position ((i << 16) | page) | bit 31 ...
// see decode_tiled.cpp.
int32_t decode_tiled(int32_t stream, uint32_t offset, int32_t page, const TileInfo& info,
                     Decoder decoder);

// ABIC fallback after a decoder answered IMG_ERR_COMPRESSION: the image
// parameters come from the first format whose AbicParamReader knows the
// data at the stream's position (TIFF directories, MO:DCA fields), then the
// ABIC module decodes the data (abic_decode_image in pipeline/codec.h).
int32_t abic_fallback(int32_t stream, int32_t page);

}  // namespace tesslin
