// Pixel conversions that readers and writers share: from the sample layouts
// of files to the BGR(A) rows of DIBs and back.
//
//   swap_rgb24, swap_rgb32     RGB(A) <-> BGR(A), SSSE3 where available
//   rgb_to_bgr24, rgba_to_bgra32   8-bit samples with extra channels
//   rgb16_to_bgr24, rgba16_to_bgra32, high_bytes16   16-bit to 8-bit
//   swap16                     16-bit samples, byte order reversed
//   first_samples              the first samples of every pixel
//   unpack_indices             1/2/4-bit indices to one byte each
//   palette_to_bgr24, palette_to_bgra32   indices through a palette
//   grey_to_bgr24              8-bit grey to BGR
//   cmy_to_bgr24               inverted CMY to BGR
//   lab_to_bgr                 8-bit CIELab to BGR
//   column_bytes               byte offset of a column in a packed row
//
// Every function converts `pixels` pixels (or `samples` samples) from `src`
// to `dst`; `dst` may equal `src` where a function says so, and must not
// overlap it otherwise. Rows carry no padding here: callers clear the
// padding of a DIB row themselves.
#pragma once

#include <cstdint>

#include "core/dib.h"

namespace tesslin::pixels {

// Byte order of 16-bit samples in a file.
enum class Endian : uint8_t { kBig, kLittle };

// The first and third byte of every 3-byte pixel exchanged (RGB to BGR and
// back). dst may equal src.
void swap_rgb24(const uint8_t* src, uint8_t* dst, uint32_t pixels);
// The first and third byte of every 4-byte pixel exchanged, the fourth kept
// (RGBA to BGRA and back). dst may equal src.
void swap_rgb32(const uint8_t* src, uint8_t* dst, uint32_t pixels);

// Pixels of `channels` 8-bit samples (3 or more), red, green, blue first:
// BGR, the other samples dropped. dst may equal src.
void rgb_to_bgr24(const uint8_t* src, uint32_t channels, uint8_t* dst, uint32_t pixels);
// Pixels of `channels` 8-bit samples (4 or more), red, green, blue, alpha
// first: BGRA, the other samples dropped. dst may equal src.
void rgba_to_bgra32(const uint8_t* src, uint32_t channels, uint8_t* dst, uint32_t pixels);

// As rgb_to_bgr24 and rgba_to_bgra32 for 16-bit samples in the given byte
// order: each sample becomes its high byte.
void rgb16_to_bgr24(const uint8_t* src, uint32_t channels, Endian order, uint8_t* dst,
                    uint32_t pixels);
void rgba16_to_bgra32(const uint8_t* src, uint32_t channels, Endian order, uint8_t* dst,
                      uint32_t pixels);
// The high bytes of the first `keep` of every `channels` 16-bit samples, in
// their order (grey of grey and alpha: keep 1 of 2; CMYK: 4 of 4 or more).
void high_bytes16(const uint8_t* src, uint32_t channels, uint32_t keep, Endian order,
                  uint8_t* dst, uint32_t pixels);

// The two bytes of every 16-bit sample exchanged (big-endian samples to the
// little-endian ones of a 16-bit DIB, and back). dst may equal src.
void swap16(const uint8_t* src, uint8_t* dst, uint32_t samples);

// The first `keep` of every `channels` 8-bit samples (grey of grey and
// alpha: 1 of 2; CMYK of CMYK and extra samples: 4 of n). dst may equal src.
void first_samples(const uint8_t* src, uint32_t channels, uint32_t keep, uint8_t* dst,
                   uint32_t pixels);

// Indices of `bits` bits (1, 2, 4 or 8), first pixel in the high bits of a
// byte, as one byte per pixel.
void unpack_indices(const uint8_t* src, uint32_t bits, uint8_t* dst, uint32_t pixels);

// Indices of `bits` bits (1, 2, 4 or 8, first pixel in the high bits) to
// the blue, green and red of their palette entries; the palette must hold
// an entry for every index the bits can give. The 32-bit form writes 255 as
// the fourth byte.
void palette_to_bgr24(const uint8_t* src, uint32_t bits, const RgbQuad* palette, uint8_t* dst,
                      uint32_t pixels);
void palette_to_bgra32(const uint8_t* src, uint32_t bits, const RgbQuad* palette, uint8_t* dst,
                       uint32_t pixels);

// One 8-bit grey sample per pixel to three equal bytes.
void grey_to_bgr24(const uint8_t* src, uint8_t* dst, uint32_t pixels);

// Cyan, magenta, yellow samples (ink amounts) to blue, green, red: each
// byte 255 minus the ink, in reverse order. dst may equal src.
void cmy_to_bgr24(const uint8_t* src, uint8_t* dst, uint32_t pixels);

// 8-bit CIELab pixels (L 0..255 for 0..100, a and b signed bytes, the
// first three of every `src_channels` bytes) to blue, green, red, written to
// the first three of every `dst_channels` bytes (the others untouched):
// fy = (L / 2.55 + 16) / 25, X = 0.982 (a / 500 + 0.215443469 fy)^3,
// Y = fy^3 / 100, Z = 1.183 (0.215443469 fy - b / 200)^3, then
// R = 1.91 X - 0.532 Y - 0.288 Z, G = -0.985 X + 2 Y - 0.028 Z,
// B = 0.058 X - 0.118 Y + 0.898 Z, each clamped to 0..1, raised to the
// power 5/9, times 255, truncated. dst may equal src when the strides match.
void lab_to_bgr(const uint8_t* src, uint32_t src_channels, uint8_t* dst, uint32_t dst_channels,
                uint32_t pixels);

// Byte offset of column x in a packed row: x * 2, 3, 4 for 16, 24, 32 bits,
// x / (8 / bits) below 8 bits.
constexpr uint32_t column_bytes(uint32_t x, uint32_t bits) {
    return bits >= 8 ? x * (bits / 8) : x / (8 / bits);
}

// The plain loops behind the vector forms, for tests that compare the two.
namespace portable {
void swap_rgb24(const uint8_t* src, uint8_t* dst, uint32_t pixels);
void swap_rgb32(const uint8_t* src, uint8_t* dst, uint32_t pixels);
}  // namespace portable

}  // namespace tesslin::pixels
