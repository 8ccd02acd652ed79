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
// Five pixels (24-bit) or four (32-bit) per 16-byte step; a 24-bit step
// passes its sixteenth byte through unchanged, so it never spoils the bytes
// of the next step even when the swap is done in place.
template <uint32_t kBytes>
__attribute__((target("ssse3"))) void swap_ssse3(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
    const __m128i order = kBytes == 3
                              ? _mm_setr_epi8(2, 1, 0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, 15)
                              : _mm_setr_epi8(2, 1, 0, 3, 6, 5, 4, 7, 10, 9, 8, 11, 14, 13, 12, 15);
    constexpr uint32_t step = kBytes == 3 ? 5 : 4;
    uint32_t x = 0;
    for (; x + step + 1 <= pixels; x += step) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + kBytes * x));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + kBytes * x), _mm_shuffle_epi8(v, order));
    }
    if (kBytes == 3) swap24_scalar(src + 3 * x, dst + 3 * x, pixels - x);
    else swap32_scalar(src + 4 * x, dst + 4 * x, pixels - x);
}

#endif

}  // namespace

void swap_rgb24(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
#if defined(__GNUC__) && defined(__x86_64__)
    if (cpu::has_ssse3()) return swap_ssse3<3>(src, dst, pixels);
#endif
    swap24_scalar(src, dst, pixels);
}

void swap_rgb32(const uint8_t* src, uint8_t* dst, uint32_t pixels) {
#if defined(__GNUC__) && defined(__x86_64__)
    if (cpu::has_ssse3()) return swap_ssse3<4>(src, dst, pixels);
#endif
    swap32_scalar(src, dst, pixels);
}

}  // namespace tesslin::tiff
