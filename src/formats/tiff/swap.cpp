#include "formats/tiff/swap.h"

#include <immintrin.h>

#include <cstring>

namespace tesslin::tiff {
namespace {

void swap24_scalar(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
    for (uint32_t x = 0; x < pixels; ++x, src += 3, dst += 3) {
        const uint8_t a = src[0], b = src[1], c = src[2];
        dst[0] = c;
        dst[1] = b;
        dst[2] = a;
    }
}

void swap32_scalar(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
    for (uint32_t x = 0; x < pixels; ++x, src += 4, dst += 4) {
        const uint8_t a = src[0], b = src[1], c = src[2], d = src[3];
        dst[0] = c;
        dst[1] = b;
        dst[2] = a;
        dst[3] = d;
    }
}

// Five pixels per 16-byte step; the sixteenth byte is passed through
// unchanged, so a step never spoils the bytes of the next one even when
// the swap is done in place.
__attribute__((target("ssse3"))) void swap24_ssse3(const uint8_t* src, uint8_t* dst,
                                                   uint32_t pixels) {
    const __m128i order = _mm_setr_epi8(2, 1, 0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, 15);
    uint32_t x = 0;
    for (; x + 6 <= pixels; x += 5) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 3 * x));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 3 * x), _mm_shuffle_epi8(v, order));
    }
    swap24_scalar(src + 3 * x, dst + 3 * x, pixels - x);
}

__attribute__((target("ssse3"))) void swap32_ssse3(const uint8_t* src, uint8_t* dst,
                                                   uint32_t pixels) {
    const __m128i order = _mm_setr_epi8(2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15);
    uint32_t x = 0;
    for (; x + 4 <= pixels; x += 4) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + 4 * x));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + 4 * x), _mm_shuffle_epi8(v, order));
    }
    swap32_scalar(src + 4 * x, dst + 4 * x, pixels - x);
}

bool have_ssse3() {
    static const bool yes = __builtin_cpu_supports("ssse3");
    return yes;
}

}  // namespace

void swap_rgb24(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
    if (have_ssse3()) swap24_ssse3(src, dst, pixels);
    else swap24_scalar(src, dst, pixels);
}

void swap_rgb32(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
    if (have_ssse3()) swap32_ssse3(src, dst, pixels);
    else swap32_scalar(src, dst, pixels);
}

}  // namespace tesslin::tiff
