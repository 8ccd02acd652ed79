// Reading a bitmap's rows for the colour operations: the stored rows in
// storage order (bottom image row first), and the per-pixel forms the
// reductions work on. Other processing domains (resampling, tone) read
// images through the same functions, so that every operation sees 32-bit
// CMYK and 16-bit grey images the same way.
//
//   luma, intensity       the two weighted sums of blue, green and red
//   row32_to_bgr24        32-bit row (alpha-marked or CMYK) to blue-green-red
//   RowReader             stored rows of a bitmap: packed, BGR, grey,
//                         colour (b, g, r, L) and ordered-dither rows
//
// Stored row s is the s-th row of the pixel area, image row height - 1 - s.
// Depths: RowReader reads every depth a DIB has (1, 4, 8, 16, 24, 32 bits,
// plain or run-encoded); no statuses.
#pragma once

#include <cstdint>
#include <vector>

#include "core/bitmap.h"

namespace tesslin::colour {

// Grey value of the bilevel reductions: (59 g + 30 r + 11 b) / 100.
constexpr uint32_t luma(uint32_t b, uint32_t g, uint32_t r) { return (59 * g + 30 * r + 11 * b) / 100; }

// Intensity of the colour and ordered-dither rows: (75 g + 14 b + 38 r) >> 7.
constexpr int32_t intensity(int32_t b, int32_t g, int32_t r) { return (75 * g + 14 * b + 38 * r) >> 7; }

// Turns `width` 32-bit pixels into blue, green, red bytes. With the alpha
// marker (compression IMG_COMPRESSION_ALPHA) the first three bytes are
// copied; otherwise the bytes are cyan, magenta, yellow, black and become
//   c = trunc(C 0.57), m = trunc(M 0.6), y = trunc(Y 0.5),
//   k = 255 - (trunc(K 0.4) & 255),
//   blue  = k - 1.2 y - 0.133 c - 0.592 m,
//   green = k - 1.2 m - 0.39 c  - 0.074 y,
//   red   = k - 1.2 c - 0.1 m   - 0.223 y,
// in double precision, each truncated and clamped to 0..255. dst may equal
// src (the output advances three bytes for every four read).
void row32_to_bgr24(const uint8_t* src, uint8_t* dst, uint32_t width, uint32_t compression);

// The stored rows of one bitmap, for one operation. Holds the scratch rows
// it hands out; a pointer it returns stays valid until the next call.
class RowReader {
public:
    explicit RowReader(BitmapObject* obj);

    uint32_t width() const { return width_; }
    int32_t height() const { return height_; }
    uint32_t bits() const { return bits_; }
    const RgbQuad* palette() const { return palette_; }

    // Stored row s (0 <= s < height) as stored: packed rows as they are,
    // run records expanded to packed bits.
    const uint8_t* stored(int32_t s);

    // Stored row s as blue, green, red bytes: 1-, 4- and 8-bit pixels
    // through the palette, 16-bit samples through the palette entry of
    // their high byte, 24-bit rows as they are, 32-bit rows through
    // row32_to_bgr24.
    const uint8_t* bgr(int32_t s);

    // Grey row: luma() of each pixel's colour (as bgr() gives it). A row at
    // or beyond the height leaves `out` as it was.
    void grey(int32_t s, uint32_t* out);
    void grey(int32_t s, int32_t* out);

    // Colour row: blue, green, red and L per pixel, L = intensity() for 4-,
    // 24- and 32-bit sources and intensity() - 40 (not below 0) for 8- and
    // 16-bit ones. A row beyond the last reads the last.
    void colour(int32_t s, int32_t* out);

    // Ordered-dither row: blue, green, red and I per pixel, I = intensity()
    // for 4-bit sources and intensity() - 40 (not below 0) for the others.
    void ordered(int32_t s, uint16_t* out);

private:
    template <typename T>
    void grey_into(int32_t s, T* out);

    BitmapObject* obj_;
    uint32_t width_, bits_, compression_;
    int32_t height_;
    const RgbQuad* palette_;
    uint8_t grey_of_index_[256];
    std::vector<uint8_t> expanded_, bgr_;
};

}  // namespace tesslin::colour
