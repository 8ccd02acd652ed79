// The bitmap table and the bitmap object.
//
// Every image the library keeps is a BitmapObject in one of 10,000 slots; the
// slot number is the bitmap handle. The object owns its DIB (header, palette,
// pixel area). Plain rows are stored bottom-up; a bilevel image produced by a
// decoder is held run-encoded: the pixel area then holds one run record per
// row, found through the line offset table (height + 1 entries, offsets from
// the start of the pixel area).
#pragma once

#include <atomic>
#include <cstdint>

#include "core/dib.h"

namespace tesslin {

constexpr int32_t kTableSlots = 10000;
constexpr int32_t kFirstHandle = 100;
constexpr int kOwnedBlocks = 5;

struct BitmapObject {
    int32_t display_rect[4];  // x, y, width, height last used to show it
    int32_t crop_x, crop_y, crop_width, crop_height;
    int32_t reserved0;
    uint32_t rop;
    int32_t reserved1;
    uint8_t* dib;
    int32_t width;
    int32_t height;
    uint32_t row_bytes;
    int32_t last_reduced_row;
    int32_t reserved2[2];
    uint32_t dib_capacity;  // header + palette + pixel bytes reserved (slack not counted)
    int32_t run_encoded;
    uint32_t* line_offsets;
    // Display and tone state, owned by the display and processing code.
    int32_t display_angle;
    int32_t tone[3];  // non-zero fields mean a tone mapping is set
    int32_t fit_state;
    int32_t transparent;
    uint32_t transparent_color;
    int32_t reduced_width, reduced_height;
    uint32_t decode_rect[4];
    int32_t alias_mode;
    int32_t display_busy;  // read through display_busy_flag(): another thread may clear it
    void* owned[kOwnedBlocks];
    int32_t runs_stored;  // run-encoded: records appended in order so far

    DibHeader* header() { return reinterpret_cast<DibHeader*>(dib); }
    uint8_t* pixels() { return dib_pixels(dib); }
    uint32_t bits() const { return reinterpret_cast<const DibHeader*>(dib)->biBitCount; }
    // Plain rows: image row r (0 = top) in the bottom-up store.
    uint8_t* plain_row(int32_t r) { return pixels() + size_t(height - r - 1) * row_bytes; }
    // Run-encoded rows: row r's record.
    uint32_t* run_record(int32_t r) {
        return reinterpret_cast<uint32_t*>(pixels() + line_offsets[r]);
    }
};

// ---- Table -------------------------------------------------------------

// Reserves a slot and allocates a cleared object for it. Returns the handle,
// or -1 when the table is full, the library mutex cannot be had, or memory
// runs out (the slot is then left free).
int32_t slot_allocate();

// The object of a live handle, or null (for IMG_ERR_HANDLE).
BitmapObject* bitmap_get(int32_t handle);

// Frees everything the object owns (DIB when free_dib, line offset table,
// owned blocks) and the object, and empties the slot.
void slot_release(int32_t handle, bool free_dib);

// ---- Object helpers ----------------------------------------------------

// Applies the defaults every new image gets: crop rectangle = whole image,
// source-copy raster operation, last reduced row -1.
void bitmap_reset_state(BitmapObject* obj, int32_t width, int32_t height);

// Allocates a new DIB for the object from a header and palette: the header
// is copied, bit count/width/height set from the arguments, image size set to
// row bytes x height. Run-encoded images get a line offset table and the run
// store capacity estimate; plain ones room for every row. Fills width,
// height, row bytes, crop rectangle and capacity. Returns 0 or -1.
int32_t bitmap_create_dib(BitmapObject* obj, const DibHeader* source, int32_t width,
                          int32_t height, int32_t bits, bool run_encoded);

// Line offset table for a run-encoded image: room for every row plus the
// bookkeeping the growth rules need; the first height + 1 entries zero.
uint32_t* alloc_line_offsets(int32_t width, int32_t height);

// Appends the record of the next row (index runs_stored) to the run store and
// sets the following line offset. When the store would overflow, the DIB
// grows to a projection from the rows done so far (capacity x height / rows),
// raised in steps of 32,768 bytes until the record fits, so that a page costs
// few reallocations. Returns 0 or -1.
int32_t run_store_append(BitmapObject* obj, const uint32_t* record, uint32_t length);

// Fills the rows no record was appended for with white rows, so that every
// row of a run-encoded image has a valid record. Returns 0 or -1.
int32_t run_store_complete(BitmapObject* obj);

// Reverses the order of the rows of a complete run store (the first record
// becomes the last). Returns 0 or -1 (image unchanged).
int32_t run_store_reverse(BitmapObject* obj);

// Bytes of the DIB block in front of the pixel area (header and palette).
inline uint32_t dib_prefix_bytes(BitmapObject* obj) {
    return kDibHeaderSize + palette_bytes(obj->bits());
}

// 1 when the image has colour: 24 bits and more, or a palette with an entry
// whose red, green and blue differ. 0 for grey and bilevel.
int bitmap_is_color(BitmapObject* obj);

// Black/white palette for 1-bit DIBs whose entry 0 is not dark.
void normalise_bilevel_palette(DibHeader* header);

// Reads the display-busy flag afresh (another thread may clear it).
inline int32_t display_busy_flag(BitmapObject* obj) {
    return std::atomic_ref<int32_t>(obj->display_busy).load(std::memory_order_acquire);
}

}  // namespace tesslin
