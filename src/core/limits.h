// Size limits: the one place where readers turn declared widths, heights and
// depths into byte counts and decide whether a declared image is plausible
// before they allocate anything for it.
//
//   check_dimensions     width and height within 1 .. kMaxDimension
//   image_bytes          DIB row bytes and total bytes, overflow-safe, capped
//   check_declared_size  decoded bytes against what the stream can hold
//
// A reader calls them in that order: the dimensions as soon as the header is
// parsed, the byte counts before it announces the header, and the stream
// check before the first allocation the declared size drives.
#pragma once

#include <cstdint>

#include "tesslin/tesslin.h"

namespace tesslin::limits {

// Largest width and largest height, in pixels, of an image any reader
// accepts (and of a fax line the CCITT coder handles).
constexpr uint32_t kMaxDimension = 1u << 24;

// Largest pixel area of a decoded image, in bytes: DIB sizes and offsets
// are kept in signed 32 bits.
constexpr uint64_t kMaxImageBytes = 0x7FFFFFFF;

// IMG_ERR_BAD_IMAGE when the width or the height is 0 or above
// kMaxDimension; 0 otherwise.
constexpr int32_t check_dimensions(uint64_t width, uint64_t height) {
    return width < 1 || height < 1 || width > kMaxDimension || height > kMaxDimension
               ? IMG_ERR_BAD_IMAGE
               : 0;
}

struct ImageBytes {
    uint64_t row = 0;    // one row, its bits rounded up to a multiple of 4 bytes
    uint64_t total = 0;  // row x height
};

// Sizes of width x height pixels of `bits` bits as DIB rows hold them.
// IMG_ERR_BAD_IMAGE when a product overflows 64 bits or the total exceeds
// `cap` (nothing written to `out` then); 0 otherwise. Width and height are
// not checked against kMaxDimension here.
int32_t image_bytes(uint64_t width, uint64_t height, uint32_t bits, ImageBytes* out,
                    uint64_t cap = kMaxImageBytes);

// How far a coding can expand its stored bytes: a decoder of that coding
// produces at most `ratio` bytes per stored byte, plus `allowance` bytes
// whatever the data size (headers, blank rows, escapes that skip pixels).
struct Coding {
    uint64_t ratio;
    uint64_t allowance;
};

// Raw samples: every decoded byte is stored.
constexpr Coding kRaw{1, 0};
// Raw strips of a file whose strips may share their data (TIFF).
constexpr Coding kRawShared{8, 64u << 10};
// PackBits (TIFF, Photoshop, DICOM RLE): 2 stored bytes make at most 128.
constexpr Coding kPackBits{64, 64u << 10};
// Byte runs with skips (BMP RLE4/RLE8 and run records, PCX, Targa RLE, Sun
// raster RLE): a delta or end-of-image escape skips any number of pixels,
// so the bound is a generous ratio and allowance rather than a true limit.
constexpr Coding kRunLength{2048, 4u << 20};
// LZW (TIFF, GIF): codes of up to 12 bits for strings of up to 4096 bytes.
constexpr Coding kLzw{4096, 64u << 10};
// Deflate (PNG, TIFF): a 258-byte match in two bits, 1032 times.
constexpr Coding kDeflate{1032, 64u << 10};
// JPEG: at least one bit of entropy-coded data for each block of 64
// samples (512 sample bytes per byte), plus 16384 blocks.
constexpr Coding kJpeg{512, 16384u * 64};
// Bilevel coders (CCITT Group 3 and 4, JBIG, ABIC): a blank row costs a bit
// or less whatever its width, hence the large allowance.
constexpr Coding kBilevel{2048, 64u << 20};

// Whether the stream can back `need` decoded bytes of `coding` stored from
// offset `data_at` on. `capacity` is stream::capacity() of the stream (or
// the byte count of the data itself with data_at 0); negative means unknown
// and always passes. Returns 0, or `refusal` when need exceeds the bytes
// from data_at to capacity times coding.ratio plus coding.allowance.
// Callers refuse with IMG_ERR_READ when the data is plainly cut short (raw
// data, a row count no coding can reach) and IMG_ERR_BAD_IMAGE when the
// declared size itself is implausible.
int32_t check_declared_size(int64_t capacity, uint64_t data_at, uint64_t need, Coding coding,
                            int32_t refusal);

}  // namespace tesslin::limits
