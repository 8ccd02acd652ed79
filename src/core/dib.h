// DIB layout helpers: the 40-byte info header, its palette and the rows.
#pragma once

#include <cstdint>
#include <cstring>

#include "tesslin/tesslin.h"

namespace tesslin {

using DibHeader = IMG_BITMAPINFOHEADER;
using RgbQuad = IMG_RGBQUAD;
static_assert(sizeof(DibHeader) == 40, "the info header is 40 bytes");
static_assert(sizeof(RgbQuad) == 4, "a palette entry is 4 bytes");

constexpr uint32_t kDibHeaderSize = 40;
constexpr uint32_t kMaxPaletteBytes = 1024;
// A header followed by the largest palette: the size of the work blocks that
// carry a header between decoders, the driver and encoders.
constexpr uint32_t kHeaderBlockSize = kDibHeaderSize + kMaxPaletteBytes;
constexpr uint32_t kRopSourceCopy = 0x00CC0020;
// Codecs read and write in blocks of this size.
constexpr uint32_t kIoBlock = 30000;

// Palette bytes follow from the bit count alone.
constexpr uint32_t palette_entries(uint32_t bits) {
    return bits == 1 ? 2 : bits == 4 ? 16 : (bits == 8 || bits == 16) ? 256 : 0;
}
constexpr uint32_t palette_bytes(uint32_t bits) { return palette_entries(bits) * 4; }

// Bytes of one stored row: the row's bits rounded up to a multiple of 4 bytes.
constexpr uint32_t row_bytes(uint32_t width, uint32_t bits) {
    return static_cast<uint32_t>(((uint64_t(width) * bits + 31) / 32) * 4);
}

// Same as row_bytes but in 64 bits, for size checks before allocation.
constexpr uint64_t row_bytes64(uint64_t width, uint64_t bits) { return ((width * bits + 31) / 32) * 4; }

inline RgbQuad* dib_palette(void* header) {
    return reinterpret_cast<RgbQuad*>(static_cast<uint8_t*>(header) + kDibHeaderSize);
}
inline const RgbQuad* dib_palette(const void* header) {
    return reinterpret_cast<const RgbQuad*>(static_cast<const uint8_t*>(header) + kDibHeaderSize);
}

// Start of the pixel area: after the header and the palette.
inline uint8_t* dib_pixels(void* dib) {
    auto* h = static_cast<DibHeader*>(dib);
    return static_cast<uint8_t*>(dib) + kDibHeaderSize + palette_bytes(h->biBitCount);
}

// A bottom-up, uncompressed header for width x height pixels of `bits` bits.
inline DibHeader dib_header(int32_t width, int32_t height, uint16_t bits) {
    DibHeader h{};
    h.biSize = kDibHeaderSize;
    h.biWidth = width;
    h.biHeight = height;
    h.biPlanes = 1;
    h.biBitCount = bits;
    h.biSizeImage = row_bytes(uint32_t(width), bits) * uint32_t(height);
    return h;
}

// Writes x and y dots per inch into the two resolution fields.
inline void dib_set_resolution(DibHeader* h, int32_t xdpi, int32_t ydpi) {
    h->biXPelsPerMeter = xdpi;
    h->biYPelsPerMeter = ydpi;
}

// Valid as a description of an image the library can hold.
inline bool dib_depth_valid(uint32_t bits) {
    return bits == 1 || bits == 4 || bits == 8 || bits == 16 || bits == 24 || bits == 32;
}

inline uint16_t load_le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t load_le32(const uint8_t* p) {
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline uint16_t load_be16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
inline uint32_t load_be32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}
inline void store_le16(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}
inline void store_le32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    p[2] = uint8_t(v >> 16);
    p[3] = uint8_t(v >> 24);
}
inline void store_be16(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
inline void store_be32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

}  // namespace tesslin
