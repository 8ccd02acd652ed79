#include "process/colour/ordered_dither.h"

#include <cstring>

namespace tesslin::colour {

const uint8_t kBayer[8][8] = {
    {4, 128, 32, 160, 8, 136, 40, 168},     {192, 64, 224, 96, 200, 72, 232, 104},
    {48, 176, 16, 144, 56, 184, 24, 152},   {240, 112, 208, 80, 248, 120, 216, 88},
    {12, 140, 44, 172, 4, 132, 36, 164},    {204, 76, 236, 108, 196, 68, 228, 100},
    {60, 188, 28, 156, 52, 180, 20, 148},   {252, 124, 220, 92, 244, 116, 212, 84},
};

namespace {

struct Bgr {
    int b, g, r;
};

// Colour of pixel x of a packed row.
template <uint32_t Bits>
inline Bgr pixel(const uint8_t* src, const RgbQuad* pal, uint32_t x) {
    if constexpr (Bits == 1) {
        const RgbQuad& q = pal[(src[x >> 3] >> (7 - (x & 7))) & 1];
        return {q.rgbBlue, q.rgbGreen, q.rgbRed};
    } else if constexpr (Bits == 4) {
        const RgbQuad& q = pal[(x & 1) ? (src[x >> 1] & 15) : (src[x >> 1] >> 4)];
        return {q.rgbBlue, q.rgbGreen, q.rgbRed};
    } else if constexpr (Bits == 8) {
        const RgbQuad& q = pal[src[x]];
        return {q.rgbBlue, q.rgbGreen, q.rgbRed};
    } else if constexpr (Bits == 16) {
        // 16-bit samples are grey levels: the palette entry of the high byte.
        const RgbQuad& q = pal[src[2 * x + 1]];
        return {q.rgbBlue, q.rgbGreen, q.rgbRed};
    } else {
        const uint8_t* p = src + x * (Bits / 8);
        return {p[0], p[1], p[2]};
    }
}

template <uint32_t Bits>
void reduce_to(const uint8_t* src, const RgbQuad* pal, uint32_t width, uint32_t target,
               int32_t row_number, uint8_t* out) {
    const uint8_t* thresholds = kBayer[row_number & 7];
    if (target == 8) {
        for (uint32_t x = 0; x < width; ++x) {
            const Bgr c = pixel<Bits>(src, pal, x);
            const int d = thresholds[x & 7] >> 3;
            const int b = c.b < d ? 0 : c.b - d, g = c.g < d ? 0 : c.g - d,
                      r = c.r < d ? 0 : c.r - d;
            out[x] = static_cast<uint8_t>((r & 0xE0) | ((g >> 3) & 0x1C) | (b >> 6));
        }
    } else if (target == 4) {
        for (uint32_t x = 0; x < width; ++x) {
            const Bgr c = pixel<Bits>(src, pal, x);
            const int t = thresholds[x & 7];
            int intensity = ((75 * c.g + 14 * c.b + 38 * c.r) >> 7) - 40;
            if (intensity < 0) intensity = 0;
            const int nibble = (c.r > t ? 1 : 0) | (c.g > t ? 2 : 0) | (c.b > t ? 4 : 0) |
                               (intensity > t + 40 ? 8 : 0);
            if (x & 1)
                out[x >> 1] = static_cast<uint8_t>(out[x >> 1] | nibble);
            else
                out[x >> 1] = static_cast<uint8_t>(nibble << 4);
        }
    } else {
        uint8_t acc = 0;
        for (uint32_t x = 0; x < width; ++x) {
            const Bgr c = pixel<Bits>(src, pal, x);
            const int lum = (59 * c.g + 11 * c.b + 30 * c.r) / 100;
            acc = static_cast<uint8_t>((acc << 1) | (lum > thresholds[x & 7] ? 1 : 0));
            if ((x & 7) == 7) {
                out[x >> 3] = acc;
                acc = 0;
            }
        }
        if (width & 7) out[width >> 3] = static_cast<uint8_t>(acc << (8 - (width & 7)));
    }
}

}  // namespace

void dither_row(const uint8_t* src, uint32_t bits, const RgbQuad* palette, uint32_t width,
                uint32_t target, int32_t row_number, uint8_t* out) {
    std::memset(out, 0, row_bytes(width, target));
    switch (bits) {
        case 1: reduce_to<1>(src, palette, width, target, row_number, out); break;
        case 4: reduce_to<4>(src, palette, width, target, row_number, out); break;
        case 8: reduce_to<8>(src, palette, width, target, row_number, out); break;
        case 16: reduce_to<16>(src, palette, width, target, row_number, out); break;
        case 24: reduce_to<24>(src, palette, width, target, row_number, out); break;
        default: reduce_to<32>(src, palette, width, target, row_number, out); break;
    }
}

}  // namespace tesslin::colour
