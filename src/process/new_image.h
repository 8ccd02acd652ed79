// A new image built for a bitmap object beside its current one. Processing
// operations fill it row by row and install it only when every row is done,
// so that the handle stays valid throughout and a failure (no memory, a
// progress callback answering a negative status) leaves the old image in
// place: the NewImage frees what it built when it is not installed.
#pragma once

#include <cstdint>

#include "core/bitmap.h"
#include "core/dib.h"

namespace tesslin::process {

class NewImage {
public:
    NewImage() = default;
    NewImage(const NewImage&) = delete;
    NewImage& operator=(const NewImage&) = delete;
    ~NewImage();

    // Allocates the DIB: the 40-byte header taken from `like` (resolution,
    // compression marker of 32-bit alpha images ...) with the new width,
    // height and depth; the palette copied from `like` as far as both have
    // one (the rest zero); plain rows, or an empty run store for a bilevel
    // image kept as run records. Pixel rows are not cleared. 0, or
    // IMG_ERR_MEMORY (also for sizes the library cannot hold).
    int32_t create(const DibHeader* like, int32_t width, int32_t height, int32_t bits,
                   bool run_encoded = false);

    DibHeader* header() { return work_.header(); }
    RgbQuad* palette() { return dib_palette(work_.dib); }
    int32_t width() const { return work_.width; }
    int32_t height() const { return work_.height; }
    uint32_t row_bytes() const { return work_.row_bytes; }
    // Plain rows: image row r (0 = top).
    uint8_t* row(int32_t r) { return work_.plain_row(r); }
    // Run store: appends the record of the next row (top row first). 0 or
    // IMG_ERR_MEMORY.
    int32_t append_record(const uint32_t* record, uint32_t length);
    // Run store: turns the records appended so far upside down in place
    // (the first becomes the last), for operations that make their rows
    // bottom row first. Needs no memory.
    void reverse_records();

    // Replaces the object's image by this one: frees the old DIB and line
    // offsets, resets the crop rectangle to the whole new image and keeps the
    // rest of the object's state (display angle, transparency, tone ...).
    // The NewImage is empty afterwards. 0, or IMG_ERR_MEMORY when a run
    // store could not be completed (the object is then unchanged).
    int32_t install(BitmapObject* obj);

private:
    BitmapObject work_{};
};

}  // namespace tesslin::process
