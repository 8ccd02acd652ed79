// What every colour operation on a handle does around its rows: find the
// bitmap, drop the state its new pixels would make stale, allocate the new
// image, report progress per stored row, and install the result.
//
//   find                  handle to bitmap object
//   discard_window_level  forget a window/level mapping of the old pixels
//   create                the new image of the same size at another depth
//   BilevelRows           1-bit rows built in storage order, kept as run
//                         records once complete
//   install               the new image in place of the old, crop kept
#pragma once

#include <cstdint>
#include <vector>

#include "core/bitmap.h"
#include "process/new_image.h"

namespace tesslin::colour {

// The object of a handle with a DIB: 0, IMG_ERR_HANDLE, or IMG_ERR_MEMORY
// for a handle without a DIB.
int32_t find(int32_t handle, BitmapObject** obj);

// Operations that replace the pixels discard the bitmap's window/level
// mapping, which belongs to the old pixel values. The mapping is kept by the
// tone operations; a bitmap without one is left as it is.
void discard_window_level(BitmapObject* obj);

// Allocates `out` as an image of the object's size and `bits` bits (run
// records for a bilevel image when `runs`), header and palette copied from
// the object as far as they go. IMG_ERR_MEMORY when the pixel area would
// pass the library's image size limit or memory runs out.
int32_t create(process::NewImage& out, BitmapObject* obj, int32_t bits, bool runs = false);

// Installs `image` in the object, keeping the crop rectangle (the size has
// not changed). 0 or IMG_ERR_MEMORY (object unchanged).
int32_t install(process::NewImage& image, BitmapObject* obj);

// Image row r of the new image for stored row s.
inline uint8_t* stored_row(process::NewImage& image, int32_t s) {
    return image.row(image.height() - 1 - s);
}

// The rows of a bilevel result, made in storage order (bottom row first),
// kept top row first as the run records of a new image (created 1-bit,
// run-encoded) with palette black, white. Rows come either packed, all
// kept until finish(), or as change lists, encoded as they come.
class BilevelRows {
public:
    // `packed`: rows are written through row(); else through put_changes().
    BilevelRows(process::NewImage& image, bool packed);
    uint32_t row_bytes() const { return row_bytes_; }
    // Stored row s, cleared.
    uint8_t* row(int32_t s) { return rows_.data() + size_t(s) * row_bytes_; }
    // The next stored row from the columns where its colour changes,
    // ascending, starting from white. 0 or IMG_ERR_MEMORY.
    int32_t put_changes(const uint32_t* changes, uint32_t count);
    // Completes the image's run store and palette. 0 or IMG_ERR_MEMORY.
    int32_t finish();

private:
    process::NewImage& image_;
    uint32_t width_, row_bytes_;
    std::vector<uint8_t> rows_;
    std::vector<uint32_t> record_;
};

}  // namespace tesslin::colour
