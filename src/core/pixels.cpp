#include "core/pixels.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "core/cpu.h"

namespace tesslin::pixels {

namespace portable {

void swap_rgb24(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
    for (uint32_t x = 0; x < pixels; ++x, src += 3, dst += 3) {
        const uint8_t a = src[0], b = src[1], c = src[2];
        dst[0] = c;
        dst[1] = b;
        dst[2] = a;
    }
}

void swap_rgb32(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
    for (uint32_t x = 0; x < pixels; ++x, src += 4, dst += 4) {
        const uint8_t a = src[0], b = src[1], c = src[2], d = src[3];
        dst[0] = c;
        dst[1] = b;
        dst[2] = a;
        dst[3] = d;
    }
}

}  // namespace portable

namespace {

#if defined(__GNUC__) && defined(__x86_64__)
// 24-bit: sixteen pixels (three vectors) per step, all loaded before any is
// stored, so that a row swapped in place never waits on its own stores.
// The pixels that straddle the vectors (5 and 10) take a byte from the
// neighbouring vector.
__attribute__((target("ssse3"))) void swap24_ssse3(const uint8_t* src, uint8_t* dst,
                                                   uint32_t pixels) {
    const __m128i a_a = _mm_setr_epi8(2, 1, 0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, -1);
    const __m128i a_b = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 1);
    const __m128i b_a = _mm_setr_epi8(-1, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i b_b = _mm_setr_epi8(0, -1, 4, 3, 2, 7, 6, 5, 10, 9, 8, 13, 12, 11, -1, 15);
    const __m128i b_c = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, -1);
    const __m128i c_b = _mm_setr_epi8(14, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m128i c_c = _mm_setr_epi8(-1, 3, 2, 1, 6, 5, 4, 9, 8, 7, 12, 11, 10, 15, 14, 13);
    uint32_t x = 0;
    for (; x + 16 <= pixels; x += 16) {
        const auto* in = reinterpret_cast<const __m128i*>(src + 3 * size_t(x));
        const __m128i a = _mm_loadu_si128(in), b = _mm_loadu_si128(in + 1), c = _mm_loadu_si128(in + 2);
        const __m128i oa = _mm_or_si128(_mm_shuffle_epi8(a, a_a), _mm_shuffle_epi8(b, a_b));
        const __m128i ob = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, b_a), _mm_shuffle_epi8(b, b_b)),
                                        _mm_shuffle_epi8(c, b_c));
        const __m128i oc = _mm_or_si128(_mm_shuffle_epi8(b, c_b), _mm_shuffle_epi8(c, c_c));
        auto* out = reinterpret_cast<__m128i*>(dst + 3 * size_t(x));
        _mm_storeu_si128(out, oa);
        _mm_storeu_si128(out + 1, ob);
        _mm_storeu_si128(out + 2, oc);
    }
    portable::swap_rgb24(src + 3 * size_t(x), dst + 3 * size_t(x), pixels - x);
}

__attribute__((target("ssse3"))) void swap32_ssse3(const uint8_t* src, uint8_t* dst,
                                                   uint32_t pixels) {
    const __m128i order = _mm_setr_epi8(2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15);
    uint32_t x = 0;
    for (; x + 4 <= pixels; x += 4) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 4 * size_t(x)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 4 * size_t(x)), _mm_shuffle_epi8(v, order));
    }
    portable::swap_rgb32(src + 4 * size_t(x), dst + 4 * size_t(x), pixels - x);
}
#endif

// Index of pixel x in a row of Bits-bit indices, first pixel in the high bits.
template <uint32_t Bits>
inline uint32_t index_at(const uint8_t* src, uint32_t x) {
    if constexpr (Bits == 8) {
        return src[x];
    } else {
        constexpr uint32_t per_byte = 8 / Bits, mask = (1u << Bits) - 1;
        const uint32_t shift = 8 - Bits * (x % per_byte + 1);
        return (src[x / per_byte] >> shift) & mask;
    }
}

template <uint32_t Bits, uint32_t Out>
void palette_to(const uint8_t* src, const RgbQuad* palette, uint8_t* dst, uint32_t pixels) {
    for (uint32_t x = 0; x < pixels; ++x, dst += Out) {
        const RgbQuad& q = palette[index_at<Bits>(src, x)];
        dst[0] = q.rgbBlue;
        dst[1] = q.rgbGreen;
        dst[2] = q.rgbRed;
        if constexpr (Out == 4) dst[3] = 255;
    }
}

template <uint32_t Out>
void palette_to(const uint8_t* src, uint32_t bits, const RgbQuad* palette, uint8_t* dst,
                uint32_t pixels) {
    switch (bits) {
        case 1: palette_to<1, Out>(src, palette, dst, pixels); break;
        case 2: palette_to<2, Out>(src, palette, dst, pixels); break;
        case 4: palette_to<4, Out>(src, palette, dst, pixels); break;
        default: palette_to<8, Out>(src, palette, dst, pixels); break;
    }
}

template <uint32_t Bits>
void unpack(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
    for (uint32_t x = 0; x < pixels; ++x) dst[x] = uint8_t(index_at<Bits>(src, x));
}

}  // namespace

void swap_rgb24(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
#if defined(__GNUC__) && defined(__x86_64__)
    if (cpu::has_ssse3()) return swap24_ssse3(src, dst, pixels);
#endif
    portable::swap_rgb24(src, dst, pixels);
}

void swap_rgb32(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
#if defined(__GNUC__) && defined(__x86_64__)
    if (cpu::has_ssse3()) return swap32_ssse3(src, dst, pixels);
#endif
    portable::swap_rgb32(src, dst, pixels);
}

void rgb_to_bgr24(const uint8_t* src, uint32_t channels, uint8_t* dst, uint32_t pixels) {
    if (channels == 3) return swap_rgb24(src, dst, pixels);
    for (uint32_t x = 0; x < pixels; ++x, src += channels, dst += 3) {
        const uint8_t r = src[0], g = src[1], b = src[2];
        dst[0] = b;
        dst[1] = g;
        dst[2] = r;
    }
}

void rgba_to_bgra32(const uint8_t* src, uint32_t channels, uint8_t* dst, uint32_t pixels) {
    if (channels == 4) return swap_rgb32(src, dst, pixels);
    for (uint32_t x = 0; x < pixels; ++x, src += channels, dst += 4) {
        const uint8_t r = src[0], g = src[1], b = src[2], a = src[3];
        dst[0] = b;
        dst[1] = g;
        dst[2] = r;
        dst[3] = a;
    }
}

void rgb16_to_bgr24(const uint8_t* src, uint32_t channels, Endian order, uint8_t* dst,
                    uint32_t pixels) {
    const uint32_t hi = order == Endian::kBig ? 0 : 1, step = 2 * channels;
    for (uint32_t x = 0; x < pixels; ++x, src += step, dst += 3) {
        dst[0] = src[4 + hi];
        dst[1] = src[2 + hi];
        dst[2] = src[hi];
    }
}

void rgba16_to_bgra32(const uint8_t* src, uint32_t channels, Endian order, uint8_t* dst,
                      uint32_t pixels) {
    const uint32_t hi = order == Endian::kBig ? 0 : 1, step = 2 * channels;
    for (uint32_t x = 0; x < pixels; ++x, src += step, dst += 4) {
        dst[0] = src[4 + hi];
        dst[1] = src[2 + hi];
        dst[2] = src[hi];
        dst[3] = src[6 + hi];
    }
}

void high_bytes16(const uint8_t* src, uint32_t channels, uint32_t keep, Endian order,
                  uint8_t* dst, uint32_t pixels) {
    src += order == Endian::kBig ? 0 : 1;
    const uint32_t step = 2 * channels;
    for (uint32_t x = 0; x < pixels; ++x, src += step, dst += keep)
        for (uint32_t i = 0; i < keep; ++i) dst[i] = src[2 * i];
}

void swap16(const uint8_t* src, uint8_t* dst, uint32_t samples) {
    for (uint32_t i = 0; i < samples; ++i, src += 2, dst += 2) {
        const uint8_t a = src[0], b = src[1];
        dst[0] = b;
        dst[1] = a;
    }
}

void first_samples(const uint8_t* src, uint32_t channels, uint32_t keep, uint8_t* dst,
                   uint32_t pixels) {
    if (keep == channels) {
        if (src != dst) std::memmove(dst, src, size_t(pixels) * keep);
        return;
    }
    if (keep == 1) {
        for (uint32_t x = 0; x < pixels; ++x) dst[x] = src[size_t(x) * channels];
        return;
    }
    for (uint32_t x = 0; x < pixels; ++x, src += channels, dst += keep)
        for (uint32_t i = 0; i < keep; ++i) dst[i] = src[i];
}

void unpack_indices(const uint8_t* src, uint32_t bits, uint8_t* dst, uint32_t pixels) {
    switch (bits) {
        case 1: unpack<1>(src, dst, pixels); break;
        case 2: unpack<2>(src, dst, pixels); break;
        case 4: unpack<4>(src, dst, pixels); break;
        default: unpack<8>(src, dst, pixels); break;
    }
}

void palette_to_bgr24(const uint8_t* src, uint32_t bits, const RgbQuad* palette, uint8_t* dst,
                      uint32_t pixels) {
    palette_to<3>(src, bits, palette, dst, pixels);
}

void palette_to_bgra32(const uint8_t* src, uint32_t bits, const RgbQuad* palette, uint8_t* dst,
                       uint32_t pixels) {
    palette_to<4>(src, bits, palette, dst, pixels);
}

void grey_to_bgr24(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
    for (uint32_t x = 0; x < pixels; ++x, dst += 3) dst[0] = dst[1] = dst[2] = src[x];
}

void cmy_to_bgr24(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
    for (uint32_t x = 0; x < pixels; ++x, src += 3, dst += 3) {
        const uint8_t c = src[0], m = src[1], y = src[2];
        dst[0] = uint8_t(255 - y);
        dst[1] = uint8_t(255 - m);
        dst[2] = uint8_t(255 - c);
    }
}

void lab_to_bgr(const uint8_t* src, uint32_t src_channels, uint8_t* dst, uint32_t dst_channels,
                uint32_t pixels) {
    auto gamma = [](double c) {
        c = std::clamp(c, 0.0, 1.0);
        return uint8_t(std::pow(c, 0.5555555555555556) * 255.0);
    };
    for (uint32_t x = 0; x < pixels; ++x, src += src_channels, dst += dst_channels) {
        const double fy = (src[0] / 2.55 + 16.0) / 25.0;
        const double a = int8_t(src[1]), b = int8_t(src[2]);
        const double X = 0.982 * std::pow(a / 500.0 + 0.215443469 * fy, 3.0);
        const double Y = fy * fy * fy / 100.0;
        const double Z = 1.183 * std::pow(0.215443469 * fy - b / 200.0, 3.0);
        const uint8_t red = gamma(1.91 * X - 0.532 * Y - 0.288 * Z);
        const uint8_t green = gamma(-0.985 * X + 2.0 * Y - 0.028 * Z);
        const uint8_t blue = gamma(0.058 * X - 0.118 * Y + 0.898 * Z);
        dst[0] = blue;
        dst[1] = green;
        dst[2] = red;
    }
}

}  // namespace tesslin::pixels
