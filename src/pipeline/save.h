// The save driver: encoder dispatch and the library's supply callbacks,
// which hand an encoder the rows of a bitmap's crop rectangle.
#pragma once

#include <cstdint>
#include <vector>

#include "core/bitmap.h"
#include "pipeline/codec.h"

namespace tesslin {

// Calls the encoder of the format code's registry row (or of `row` when
// given). 0, the encoder's negative status, or IMG_ERR_UNSUPPORTED for a
// code without an encoder.
int32_t run_encoder(int32_t stream, const DibHeader* header, int32_t code,
                    IMG_SUPPLY_CALLBACK supply, intptr_t user, const CodeRow* row = nullptr);

// True when the format code has an encoder.
bool has_encoder(int32_t code);

// State of one save: the user value of the supply callbacks.
struct SaveContext {
    BitmapObject* obj = nullptr;
    uint8_t* pixels = nullptr;
    int32_t handle = -1;
    int32_t height = 0;         // stored image height
    uint32_t row_bytes = 0;     // stored row bytes
    uint32_t crop_x_bytes = 0;  // byte offset of the crop rectangle in a packed row
    uint32_t crop_shift = 0;    // bits the crop starts into that byte (1 and 4 bits)
    int32_t crop_y = 0;
    const uint8_t* tone_map = nullptr;  // 256 entries applied to every supplied byte
    int32_t code = 0;
    uint32_t crop_x = 0, crop_width = 0, crop_height = 0;
    uint8_t tone_table[256] = {};
    std::vector<uint8_t> work, bilevel;
    std::vector<uint32_t> record;
};

// The library's supply callbacks (user value: SaveContext*).
int32_t packed_supply(intptr_t user, uint8_t* buffer, int32_t row, uint32_t count);
int32_t run_supply(intptr_t user, uint8_t* buffer, int32_t row, uint32_t count);

// True when the row's encoder takes run records for an image of `bits`.
bool uses_run_supply(const CodeRow& row, uint32_t bits);

// Tone map of a save: when the bitmap carries a tone mapping, the 256-entry
// table to apply to supplied rows (written into `table`), with colour
// palettes mapped in the encoder header instead. Null when no mapping
// applies. The tone operations fill this in; until then it returns null.
const uint8_t* save_tone_map(const BitmapObject& obj, DibHeader* encoder_header,
                             uint8_t* table);

// Fills a save context and the encoder header (a block of kHeaderBlockSize
// bytes) for a bitmap. 0, IMG_ERR_HANDLE for a bad handle, IMG_ERR_MEMORY without a DIB.
int32_t prepare_save(int32_t handle, int32_t code, SaveContext* context, uint8_t* header_block);

// Saves a bitmap's crop rectangle with the library's supply callbacks.
int32_t save_handle(int32_t handle, int32_t stream, int32_t code, const CodeRow* row = nullptr);

// Saves into a named file (IMG_save_bitmap): code -1 from the name's ending,
// multi-page codes append to an existing file, a file this call created is
// deleted when the save fails.
int32_t save_named(int32_t handle, const char* file, int32_t code, const CodeRow* row = nullptr);

}  // namespace tesslin
