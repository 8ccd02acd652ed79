// The integer transforms in 16-bit vector lanes, shared by the inverse
// transform kernels (jpeg_dct.cpp) and the encoder's fused transform and
// quantisation (jpeg_encode.cpp). x86-64 only; private to
// src/formats/jpeg/.
#pragma once

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>

#include <cstdint>

namespace tesslin::jpeg {

// The transforms below run in 16-bit lanes. They give the same results as
// the 32-bit arithmetic whenever every intermediate value fits 16 bits:
// then (c * x + 512) >> 10 is one rounding high multiplication by 32c
// (pmulhrsw gives (a * b + 2^14) >> 15), and sums that wrap would not have
// wrapped in 32 bits either. Constants above 1023 are split so that the
// multiplier fits: 1338 x = 1024 x + 314 x and 2624 x = 2048 x + 576 x,
// the whole part added exactly.
//
// Forward transform: for samples within -128..128 every intermediate of
// both passes stays below 6,700 in magnitude (bounded through the
// transform's linear form), so every block qualifies.
//
// Inverse transform: each intermediate value of both passes is a linear
// form of the 64 coefficients whose weights are at most 1.93 in magnitude,
// plus the rounding of the products before it (at most 94 in all). A block
// whose coefficient magnitudes sum to kIdctNarrowLimit (16,384) or less
// therefore keeps every intermediate within 16 bits; wider blocks take
// the 32-bit lanes.
//
// The macros take the vector type and its add, subtract and rounding
// multiplication, so that one text serves 128-bit SSE2 / SSSE3 lanes and
// 256-bit AVX2 lanes (two blocks side by side, one per 128-bit half: the
// unpack instructions of the transposes never cross the halves).

// (c * v + 512) >> 10 for c <= 1023 without pmulhrsw: the high and low
// halves of the 32-bit product, the low half rounded on its own.
static inline __m128i mulr_sse2(__m128i v, int16_t c) {
    const __m128i k = _mm_set1_epi16(c);
    const __m128i hi = _mm_mulhi_epi16(v, k), lo = _mm_mullo_epi16(v, k);
    const __m128i low = _mm_srli_epi16(_mm_add_epi16(_mm_srli_epi16(lo, 1), _mm_set1_epi16(256)), 9);
    return _mm_add_epi16(_mm_slli_epi16(hi, 6), low);
}
#define MULR_SSE2(c, v) mulr_sse2(v, static_cast<int16_t>(c))
#define MULR_SSSE3(c, v) _mm_mulhrs_epi16(v, _mm_set1_epi16(static_cast<int16_t>(32 * (c))))
#define MULR_AVX2(c, v) _mm256_mulhrs_epi16(v, _mm256_set1_epi16(static_cast<int16_t>(32 * (c))))

// One 8-point inverse transform on every lane: x[8] in, y[8] out.
#define IDCT16(T, ADD, SUB, MULR, x, y)                                                   \
    do {                                                                                  \
        const T a0 = MULR(724, x[0]), a4 = MULR(724, x[4]);                               \
        const T t = MULR(724, ADD(x[2], x[6]));                                           \
        const T e0 = ADD(a0, a4), e1 = SUB(a0, a4);                                       \
        const T dv = SUB(x[2], t);                                                        \
        const T d = ADD(dv, MULR(314, dv));                                               \
        const T c = MULR(553, ADD(x[2], t));                                              \
        const T f0 = ADD(e0, c), f3 = SUB(e0, c), f1 = ADD(e1, d), f2 = SUB(e1, d);       \
        const T u = MULR(724, ADD(x[3], x[5]));                                           \
        const T g0 = SUB(x[1], u), g1 = ADD(x[1], u);                                     \
        const T s = ADD(x[1], x[3]);                                                      \
        const T w = MULR(724, ADD(ADD(x[7], x[5]), s));                                   \
        const T hv = SUB(s, w);                                                           \
        const T h1 = ADD(hv, MULR(314, hv));                                              \
        const T h0 = MULR(553, ADD(s, w));                                                \
        const T o0 = MULR(522, ADD(h0, g1)), o1 = MULR(616, ADD(h1, g0));                 \
        const T o3 = MULR(922, SUB(g0, h1));                                              \
        const T ov = SUB(g1, h0);                                                         \
        const T o2 = ADD(ADD(ov, ov), MULR(576, ov));                                     \
        y[0] = ADD(f0, o0), y[1] = ADD(f1, o1), y[2] = ADD(f2, o3), y[3] = ADD(f3, o2);   \
        y[4] = SUB(f3, o2), y[5] = SUB(f2, o3), y[6] = SUB(f1, o1), y[7] = SUB(f0, o0);   \
    } while (0)

// One 8-point forward transform on every lane: x[8] in, out[8].
#define FDCT16(T, ADD, SUB, MULR, x, out)                                                 \
    do {                                                                                  \
        const T a = ADD(x[0], x[7]), b = ADD(x[3], x[4]);                                 \
        const T e = ADD(a, b);                                                            \
        const T d34 = SUB(x[3], x[4]);                                                    \
        const T p = MULR(522, SUB(x[0], x[7]));                                           \
        const T q = ADD(ADD(d34, d34), MULR(576, d34));                                   \
        const T r = MULR(616, SUB(x[1], x[6]));                                           \
        const T t = MULR(922, SUB(x[2], x[5]));                                           \
        const T c = ADD(x[2], x[5]);                                                      \
        const T s16 = ADD(x[1], x[6]);                                                    \
        const T f = ADD(c, s16);                                                          \
        const T u = ADD(q, p), w = ADD(t, r);                                             \
        const T m = MULR(553, SUB(p, q)), g = MULR(553, SUB(a, b));                       \
        const T hv = SUB(s16, c);                                                         \
        const T h = ADD(hv, MULR(314, hv));                                               \
        const T nv = SUB(r, t);                                                           \
        const T n = ADD(nv, MULR(314, nv));                                               \
        const T k = SUB(m, n);                                                            \
        const T z1 = MULR(724, k), z2 = MULR(724, SUB(g, h));                             \
        const T z3 = MULR(724, SUB(u, w));                                                \
        const T y = ADD(ADD(z1, n), m);                                                   \
        out[0] = MULR(724, ADD(f, e)); /* ((f + e) 362 + 256) >> 9 */                     \
        out[1] = ADD(ADD(u, w), y);                                                       \
        out[2] = ADD(ADD(g, h), z2);                                                      \
        out[3] = ADD(y, z3);                                                              \
        out[4] = MULR(724, SUB(e, f));                                                    \
        out[5] = ADD(z3, z1);                                                             \
        out[6] = z2;                                                                      \
        out[7] = z1;                                                                      \
    } while (0)

// Rows become columns within each 128-bit half: r[i] lane j goes to o[j]
// lane i.
#define TRANSPOSE16(P, r, o)                                                              \
    do {                                                                                  \
        const auto a0 = P##unpacklo_epi16(r[0], r[1]), a1 = P##unpackhi_epi16(r[0], r[1]); \
        const auto a2 = P##unpacklo_epi16(r[2], r[3]), a3 = P##unpackhi_epi16(r[2], r[3]); \
        const auto a4 = P##unpacklo_epi16(r[4], r[5]), a5 = P##unpackhi_epi16(r[4], r[5]); \
        const auto a6 = P##unpacklo_epi16(r[6], r[7]), a7 = P##unpackhi_epi16(r[6], r[7]); \
        const auto b0 = P##unpacklo_epi32(a0, a2), b1 = P##unpackhi_epi32(a0, a2);        \
        const auto b2 = P##unpacklo_epi32(a1, a3), b3 = P##unpackhi_epi32(a1, a3);        \
        const auto b4 = P##unpacklo_epi32(a4, a6), b5 = P##unpackhi_epi32(a4, a6);        \
        const auto b6 = P##unpacklo_epi32(a5, a7), b7 = P##unpackhi_epi32(a5, a7);        \
        o[0] = P##unpacklo_epi64(b0, b4), o[1] = P##unpackhi_epi64(b0, b4);               \
        o[2] = P##unpacklo_epi64(b1, b5), o[3] = P##unpackhi_epi64(b1, b5);               \
        o[4] = P##unpacklo_epi64(b2, b6), o[5] = P##unpackhi_epi64(b2, b6);               \
        o[6] = P##unpacklo_epi64(b3, b7), o[7] = P##unpackhi_epi64(b3, b7);               \
    } while (0)

#define ADD128 _mm_add_epi16
#define SUB128 _mm_sub_epi16
#define ADD256 _mm256_add_epi16
#define SUB256 _mm256_sub_epi16

}  // namespace tesslin::jpeg

#endif
