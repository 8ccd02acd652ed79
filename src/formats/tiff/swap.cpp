#include "formats/tiff/swap.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <cstring>

#include "core/cpu.h"

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
        const auto* in = reinterpret_cast<const __m128i*>(src + 3 * x);
        const __m128i a = _mm_loadu_si128(in), b = _mm_loadu_si128(in + 1), c = _mm_loadu_si128(in + 2);
        const __m128i oa = _mm_or_si128(_mm_shuffle_epi8(a, a_a), _mm_shuffle_epi8(b, a_b));
        const __m128i ob = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, b_a), _mm_shuffle_epi8(b, b_b)),
                                        _mm_shuffle_epi8(c, b_c));
        const __m128i oc = _mm_or_si128(_mm_shuffle_epi8(b, c_b), _mm_shuffle_epi8(c, c_c));
        auto* out = reinterpret_cast<__m128i*>(dst + 3 * x);
        _mm_storeu_si128(out, oa);
        _mm_storeu_si128(out + 1, ob);
        _mm_storeu_si128(out + 2, oc);
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

#endif

}  // namespace

void swap_rgb24(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
#if defined(__GNUC__) && defined(__x86_64__)
    if (cpu::has_ssse3()) return swap24_ssse3(src, dst, pixels);
#endif
    swap24_scalar(src, dst, pixels);
}

void swap_rgb32(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
#if defined(__GNUC__) && defined(__x86_64__)
    if (cpu::has_ssse3()) return swap32_ssse3(src, dst, pixels);
#endif
    swap32_scalar(src, dst, pixels);
}

}  // namespace tesslin::tiff
