// Integer 8 x 8 transforms. Constants are scaled by 1024 and every product
// is rounded with (x + 512) >> 10; each 1-D pass scales by 2.
//
// Inverse: the first pass runs along each coefficient row (horizontal
// frequencies), the second along the columns of its results; the final
// shift by 2 removes the gain of 4. Forward: rows of samples first, then
// columns; results are four times the T.81 scale and kept to 16 bits.
//
// The block functions have a plain version (the definition), a portable
// vector version in 32-bit lanes, and on x86-64 versions in 16-bit lanes
// for SSE2, SSSE3 and AVX2 (two blocks at once); dct_kernels() hands them
// out by instruction set. All run the same integer steps, so their results
// are identical.
#include <cstring>

#include "core/cpu.h"
#include "formats/jpeg/jpeg_internal.h"
#include "formats/jpeg/jpeg_simd.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace tesslin::jpeg {

void idct_1d(const int32_t* x, int32_t* y) {
    const int32_t a0 = descale(724, x[0]), a4 = descale(724, x[4]);
    const int32_t t = descale(724, wrap_add(x[2], x[6]));
    const int32_t e0 = wrap_add(a0, a4), e1 = wrap_sub(a0, a4);
    const int32_t d = descale(1338, wrap_sub(x[2], t)), c = descale(553, wrap_add(x[2], t));
    const int32_t f0 = wrap_add(e0, c), f3 = wrap_sub(e0, c), f1 = wrap_add(e1, d),
                  f2 = wrap_sub(e1, d);
    const int32_t u = descale(724, wrap_add(x[3], x[5]));
    const int32_t g0 = wrap_sub(x[1], u), g1 = wrap_add(x[1], u);
    const int32_t s = wrap_add(x[1], x[3]);
    const int32_t w = descale(724, wrap_add(wrap_add(x[7], x[5]), s));
    const int32_t h1 = descale(1338, wrap_sub(s, w)), h0 = descale(553, wrap_add(s, w));
    const int32_t o0 = descale(522, wrap_add(h0, g1)), o1 = descale(616, wrap_add(h1, g0));
    const int32_t o3 = descale(922, wrap_sub(g0, h1)), o2 = descale(2624, wrap_sub(g1, h0));
    y[0] = wrap_add(f0, o0);
    y[1] = wrap_add(f1, o1);
    y[2] = wrap_add(f2, o3);
    y[3] = wrap_add(f3, o2);
    y[4] = wrap_sub(f3, o2);
    y[5] = wrap_sub(f2, o3);
    y[6] = wrap_sub(f1, o1);
    y[7] = wrap_sub(f0, o0);
}

void fdct_1d(const int32_t* x, int32_t* out) {
    const int32_t a = x[0] + x[7], b = x[3] + x[4], e = a + b;
    const int32_t p = descale(522, x[0] - x[7]), q = descale(2624, x[3] - x[4]);
    const int32_t r = descale(616, x[1] - x[6]), t = descale(922, x[2] - x[5]);
    const int32_t c = x[2] + x[5], f = c + x[1] + x[6];
    const int32_t u = q + p, w = t + r;
    const int32_t m = descale(553, p - q), g = descale(553, a - b);
    const int32_t h = descale(1338, x[1] + x[6] - c), n = descale(1338, r - t);
    const int32_t k = m - n;
    const int32_t z1 = descale(724, k), z2 = descale(724, g - h), z3 = descale(724, u - w);
    const int32_t y = z1 + n + m;
    out[0] = ((f + e) * 362 + 256) >> 9;
    out[1] = u + w + y;
    out[2] = g + h + z2;
    out[3] = y + z3;
    out[4] = descale(724, e - f);
    out[5] = z3 + z1;
    out[6] = z2;
    out[7] = descale(724, k);
}

namespace {

inline int8_t clamp_sample(int32_t y) {
    y = wrap_add(y, 2) >> 2;
    return static_cast<int8_t>(y < -127 ? -127 : y > 127 ? 127 : y);
}

#if defined(__GNUC__)
typedef uint32_t v8u __attribute__((vector_size(32)));
typedef int32_t v8i __attribute__((vector_size(32)));
typedef int16_t v8s __attribute__((vector_size(16)));
typedef int8_t v8c __attribute__((vector_size(8)));
typedef int8_t v32c __attribute__((vector_size(32)));

// Written as macros: 32-byte vectors passed through functions would change
// the calling convention between the portable and the AVX2 builds.
#define VDESCALE(c, x) reinterpret_cast<v8u>(reinterpret_cast<v8i>((x) * (c##u) + 512u) >> 10)
#define SDESCALE(c, x) ((((x) * (c)) + 512) >> 10)
#define SHUF(a, b, ...) __builtin_shufflevector(a, b, __VA_ARGS__)

// One 8-point inverse transform on eight lanes at once: x[8] in, y[8] out.
#define IDCT_LANES(x, y)                                                                  \
    do {                                                                                  \
        const v8u a0 = VDESCALE(724, x[0]), a4 = VDESCALE(724, x[4]);                     \
        const v8u t = VDESCALE(724, x[2] + x[6]);                                         \
        const v8u e0 = a0 + a4, e1 = a0 - a4;                                             \
        const v8u d = VDESCALE(1338, x[2] - t), c = VDESCALE(553, x[2] + t);              \
        const v8u f0 = e0 + c, f3 = e0 - c, f1 = e1 + d, f2 = e1 - d;                     \
        const v8u u = VDESCALE(724, x[3] + x[5]);                                         \
        const v8u g0 = x[1] - u, g1 = x[1] + u;                                           \
        const v8u s = x[1] + x[3];                                                        \
        const v8u w = VDESCALE(724, x[7] + x[5] + s);                                     \
        const v8u h1 = VDESCALE(1338, s - w), h0 = VDESCALE(553, s + w);                  \
        const v8u o0 = VDESCALE(522, h0 + g1), o1 = VDESCALE(616, h1 + g0);               \
        const v8u o3 = VDESCALE(922, g0 - h1), o2 = VDESCALE(2624, g1 - h0);              \
        y[0] = f0 + o0, y[1] = f1 + o1, y[2] = f2 + o3, y[3] = f3 + o2;                   \
        y[4] = f3 - o2, y[5] = f2 - o3, y[6] = f1 - o1, y[7] = f0 - o0;                   \
    } while (0)

// Rows become columns: r[i] lane j goes to o[j] lane i.
#define TRANSPOSE8(r, o)                                                                  \
    do {                                                                                  \
        const v8u t0 = SHUF(r[0], r[1], 0, 8, 1, 9, 4, 12, 5, 13);                        \
        const v8u t1 = SHUF(r[0], r[1], 2, 10, 3, 11, 6, 14, 7, 15);                      \
        const v8u t2 = SHUF(r[2], r[3], 0, 8, 1, 9, 4, 12, 5, 13);                        \
        const v8u t3 = SHUF(r[2], r[3], 2, 10, 3, 11, 6, 14, 7, 15);                      \
        const v8u t4 = SHUF(r[4], r[5], 0, 8, 1, 9, 4, 12, 5, 13);                        \
        const v8u t5 = SHUF(r[4], r[5], 2, 10, 3, 11, 6, 14, 7, 15);                      \
        const v8u t6 = SHUF(r[6], r[7], 0, 8, 1, 9, 4, 12, 5, 13);                        \
        const v8u t7 = SHUF(r[6], r[7], 2, 10, 3, 11, 6, 14, 7, 15);                      \
        const v8u u0 = SHUF(t0, t2, 0, 1, 8, 9, 4, 5, 12, 13);                            \
        const v8u u1 = SHUF(t0, t2, 2, 3, 10, 11, 6, 7, 14, 15);                          \
        const v8u u2 = SHUF(t1, t3, 0, 1, 8, 9, 4, 5, 12, 13);                            \
        const v8u u3 = SHUF(t1, t3, 2, 3, 10, 11, 6, 7, 14, 15);                          \
        const v8u u4 = SHUF(t4, t6, 0, 1, 8, 9, 4, 5, 12, 13);                            \
        const v8u u5 = SHUF(t4, t6, 2, 3, 10, 11, 6, 7, 14, 15);                          \
        const v8u u6 = SHUF(t5, t7, 0, 1, 8, 9, 4, 5, 12, 13);                            \
        const v8u u7 = SHUF(t5, t7, 2, 3, 10, 11, 6, 7, 14, 15);                          \
        o[0] = SHUF(u0, u4, 0, 1, 2, 3, 8, 9, 10, 11);                                    \
        o[4] = SHUF(u0, u4, 4, 5, 6, 7, 12, 13, 14, 15);                                  \
        o[1] = SHUF(u1, u5, 0, 1, 2, 3, 8, 9, 10, 11);                                    \
        o[5] = SHUF(u1, u5, 4, 5, 6, 7, 12, 13, 14, 15);                                  \
        o[2] = SHUF(u2, u6, 0, 1, 2, 3, 8, 9, 10, 11);                                    \
        o[6] = SHUF(u2, u6, 4, 5, 6, 7, 12, 13, 14, 15);                                  \
        o[3] = SHUF(u3, u7, 0, 1, 2, 3, 8, 9, 10, 11);                                    \
        o[7] = SHUF(u3, u7, 4, 5, 6, 7, 12, 13, 14, 15);                                  \
    } while (0)

// Coefficients column-major: ct + 8 * u holds column u (horizontal
// frequency u) for the eight rows, which are the lanes of the first pass.
// Only the first C columns and the first R rows may hold values; the others
// are known zeros, which lets the compiler drop the work they would cost
// (the results are the same as with the zeros computed).
template <int R, int C>
__attribute__((always_inline)) inline void idct_block_rc(const int16_t* ct, int8_t* out,
                                                         int stride) {
    v8u x[8], y[8], p[8];
    for (int k = 0; k < 8; ++k) {
        if (k >= C) {
            x[k] = v8u{};
            continue;
        }
        v8s c;
        std::memcpy(&c, ct + 8 * k, 16);
        x[k] = reinterpret_cast<v8u>(__builtin_convertvector(c, v8i));
    }
    IDCT_LANES(x, y);  // y[j] lane v: result at column j of coefficient row v
    TRANSPOSE8(y, p);  // p[v] lane j: the same, one coefficient row per vector
    for (int v = R; v < 8; ++v) p[v] = v8u{};  // rows without coefficients
    IDCT_LANES(p, y);  // y[j] lane x: sample row j
    const v8i lo = {-127, -127, -127, -127, -127, -127, -127, -127};
    const v8i hi = {127, 127, 127, 127, 127, 127, 127, 127};
    for (int j = 0; j < 8; ++j) {
        v8i v = reinterpret_cast<v8i>(y[j] + 2u) >> 2;
        v8i m = v < lo;
        v = (v & ~m) | (lo & m);
        m = v > hi;
        v = (v & ~m) | (hi & m);
        // The clamped values fit the low byte of each lane.
        const v32c bytes = reinterpret_cast<v32c>(v);
        const v8c b = SHUF(bytes, bytes, 0, 4, 8, 12, 16, 20, 24, 28);
        std::memcpy(out + j * stride, &b, 8);
    }
}

__attribute__((always_inline)) inline void idct_block_vec(const int16_t* ct, int8_t* out,
                                                          int stride) {
    idct_block_rc<8, 8>(ct, out, stride);
}

// One 8-point forward transform on eight lanes at once: x[8] in, out[8].
#define FDCT_LANES(x, out)                                                                \
    do {                                                                                  \
        const v8i a = x[0] + x[7], b = x[3] + x[4], e = a + b;                            \
        const v8i p = SDESCALE(522, x[0] - x[7]), q = SDESCALE(2624, x[3] - x[4]);        \
        const v8i r = SDESCALE(616, x[1] - x[6]), t = SDESCALE(922, x[2] - x[5]);         \
        const v8i c = x[2] + x[5], f = c + x[1] + x[6];                                   \
        const v8i u = q + p, w = t + r;                                                   \
        const v8i m = SDESCALE(553, p - q), g = SDESCALE(553, a - b);                     \
        const v8i h = SDESCALE(1338, x[1] + x[6] - c), n = SDESCALE(1338, r - t);         \
        const v8i k = m - n;                                                              \
        const v8i z1 = SDESCALE(724, k), z2 = SDESCALE(724, g - h);                       \
        const v8i z3 = SDESCALE(724, u - w);                                              \
        const v8i y = z1 + n + m;                                                         \
        out[0] = ((f + e) * 362 + 256) >> 9;                                              \
        out[1] = u + w + y;                                                               \
        out[2] = g + h + z2;                                                              \
        out[3] = y + z3;                                                                  \
        out[4] = SDESCALE(724, e - f);                                                    \
        out[5] = z3 + z1;                                                                 \
        out[6] = z2;                                                                      \
        out[7] = SDESCALE(724, k);                                                        \
    } while (0)

// Sign-extends the low 16 bits of every lane.
#define KEEP16(v) (reinterpret_cast<v8i>(reinterpret_cast<v8u>(v) << 16) >> 16)

__attribute__((always_inline)) inline void fdct_block_vec(const int16_t* samples, int stride,
                                                          int16_t* out) {
    // Sample rows are loaded as vectors and transposed, so that the lanes
    // of the first pass are the rows: x[k] lane r is sample (r, k).
    v8u rows[8], cols[8];
    for (int r = 0; r < 8; ++r) {
        v8s v;
        std::memcpy(&v, samples + r * stride, 16);
        rows[r] = reinterpret_cast<v8u>(__builtin_convertvector(v, v8i));
    }
    TRANSPOSE8(rows, cols);
    v8i x[8], res[8];
    for (int k = 0; k < 8; ++k) x[k] = reinterpret_cast<v8i>(cols[k]);
    FDCT_LANES(x, res);  // res[k] lane r: coefficient k of sample row r
    for (int k = 0; k < 8; ++k) rows[k] = reinterpret_cast<v8u>(KEEP16(res[k]));
    TRANSPOSE8(rows, cols);  // cols[r] lane k: the same value
    for (int r = 0; r < 8; ++r) x[r] = reinterpret_cast<v8i>(cols[r]);
    FDCT_LANES(x, res);  // res[j] lane k: coefficient (j, k)
    for (int j = 0; j < 8; ++j) {
        const v8s v = __builtin_convertvector(res[j], v8s);
        std::memcpy(out + j * 8, &v, 16);
    }
}

void idct_generic(const int16_t* coef, int8_t* out, int stride) {
    idct_block_vec(coef, out, stride);
}

#if defined(__x86_64__)
// 16-bit lanes: see jpeg_simd.h.

// Whether the coefficient columns x[0..7] (8 vectors) may take the 16-bit
// lanes: their magnitudes summed with saturation per lane, halved, and the
// halves added up must stay within kIdctNarrowLimit / 2 - 4, which bounds
// the whole sum by kIdctNarrowLimit (saturation only makes it larger). The
// 256-bit form answers for both halves.
#define NARROW128(x, ok)                                                                  \
    do {                                                                                  \
        __m128i n_s = _mm_setzero_si128();                                                \
        for (int k = 0; k < 8; ++k)                                                       \
            n_s = _mm_adds_epu16(n_s, _mm_max_epi16(x[k], _mm_sub_epi16(_mm_setzero_si128(), x[k]))); \
        n_s = _mm_madd_epi16(_mm_srli_epi16(n_s, 1), _mm_set1_epi16(1));                  \
        n_s = _mm_add_epi32(n_s, _mm_shuffle_epi32(n_s, 0x4E));                           \
        n_s = _mm_add_epi32(n_s, _mm_shuffle_epi32(n_s, 0xB1));                           \
        ok = _mm_cvtsi128_si32(n_s) <= static_cast<int>(kIdctNarrowLimit / 2 - 4);        \
    } while (0)
#define NARROW256(x, ok_a, ok_b)                                                          \
    do {                                                                                  \
        __m256i n_s = _mm256_setzero_si256();                                             \
        for (int k = 0; k < 8; ++k)                                                       \
            n_s = _mm256_adds_epu16(n_s, _mm256_abs_epi16(x[k]));                         \
        n_s = _mm256_madd_epi16(_mm256_srli_epi16(n_s, 1), _mm256_set1_epi16(1));         \
        n_s = _mm256_add_epi32(n_s, _mm256_shuffle_epi32(n_s, 0x4E));                     \
        n_s = _mm256_add_epi32(n_s, _mm256_shuffle_epi32(n_s, 0xB1));                     \
        ok_a = _mm256_cvtsi256_si32(n_s) <= static_cast<int>(kIdctNarrowLimit / 2 - 4);   \
        ok_b = _mm256_extract_epi32(n_s, 4) <= static_cast<int>(kIdctNarrowLimit / 2 - 4); \
    } while (0)

// One block through 128-bit lanes: coefficient columns x in, sample rows
// out (descaled by 4, clamped to -127..127, packed to bytes).
#define IDCT16_BLOCK(MULR, x, out, stride)                                                \
    do {                                                                                  \
        __m128i y[8], p[8];                                                               \
        IDCT16(__m128i, ADD128, SUB128, MULR, x, y); /* y[j] lane v */                    \
        TRANSPOSE16(_mm_, y, p);                     /* p[v] lane j */                    \
        IDCT16(__m128i, ADD128, SUB128, MULR, p, y); /* y[i] lane j: sample row i */      \
        const __m128i two = _mm_set1_epi16(2), lo = _mm_set1_epi16(-127);                 \
        for (int i = 0; i < 8; i += 2) {                                                  \
            const __m128i r0 = _mm_max_epi16(_mm_srai_epi16(_mm_add_epi16(y[i], two), 2), lo); \
            const __m128i r1 = _mm_max_epi16(_mm_srai_epi16(_mm_add_epi16(y[i + 1], two), 2), lo); \
            const __m128i b = _mm_packs_epi16(r0, r1);                                    \
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out + i * stride), b);            \
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out + (i + 1) * stride),          \
                             _mm_unpackhi_epi64(b, b));                                   \
        }                                                                                 \
    } while (0)

#define LOAD_COLUMNS(x, ct)                                                               \
    for (int k = 0; k < 8; ++k) x[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(ct + 8 * k))

void idct_sse2(const int16_t* ct, int8_t* out, int stride) {
    __m128i x[8];
    LOAD_COLUMNS(x, ct);
    bool narrow;
    NARROW128(x, narrow);
    if (narrow) IDCT16_BLOCK(MULR_SSE2, x, out, stride);
    else idct_block_vec(ct, out, stride);
}

__attribute__((target("ssse3"))) void idct_ssse3(const int16_t* ct, int8_t* out, int stride) {
    __m128i x[8];
    LOAD_COLUMNS(x, ct);
    bool narrow;
    NARROW128(x, narrow);
    if (narrow) IDCT16_BLOCK(MULR_SSSE3, x, out, stride);
    else idct_block_vec(ct, out, stride);
}

__attribute__((target("avx2"))) void idct_avx2(const int16_t* ct, int8_t* out, int stride) {
    __m128i x[8];
    LOAD_COLUMNS(x, ct);
    bool narrow;
    NARROW128(x, narrow);
    if (narrow) IDCT16_BLOCK(MULR_SSSE3, x, out, stride);
    else idct_block_vec(ct, out, stride);
}

// Two blocks at once, one per 128-bit half (each on its own when it is too
// wide for the 16-bit lanes).
__attribute__((target("avx2"))) void idct_pair_avx2(const int16_t* a, int8_t* out_a, int stride_a,
                                                    const int16_t* b, int8_t* out_b,
                                                    int stride_b) {
    __m256i x[8], y[8], p[8];
    for (int k = 0; k < 8; ++k)
        x[k] = _mm256_inserti128_si256(
            _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a + 8 * k))),
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 8 * k)), 1);
    bool narrow_a, narrow_b;
    NARROW256(x, narrow_a, narrow_b);
    if (!narrow_a || !narrow_b) {
        idct_avx2(a, out_a, stride_a);
        idct_avx2(b, out_b, stride_b);
        return;
    }
    IDCT16(__m256i, ADD256, SUB256, MULR_AVX2, x, y);
    TRANSPOSE16(_mm256_, y, p);
    IDCT16(__m256i, ADD256, SUB256, MULR_AVX2, p, y);
    const __m256i two = _mm256_set1_epi16(2), lo = _mm256_set1_epi16(-127);
    for (int i = 0; i < 8; i += 2) {
        const __m256i r0 = _mm256_max_epi16(_mm256_srai_epi16(_mm256_add_epi16(y[i], two), 2), lo);
        const __m256i r1 = _mm256_max_epi16(_mm256_srai_epi16(_mm256_add_epi16(y[i + 1], two), 2), lo);
        const __m256i v = _mm256_packs_epi16(r0, r1);  // per half: row i, row i + 1
        const __m128i va = _mm256_castsi256_si128(v), vb = _mm256_extracti128_si256(v, 1);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out_a + i * stride_a), va);
        _mm_storeh_pd(reinterpret_cast<double*>(out_a + (i + 1) * stride_a), _mm_castsi128_pd(va));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(out_b + i * stride_b), vb);
        _mm_storeh_pd(reinterpret_cast<double*>(out_b + (i + 1) * stride_b), _mm_castsi128_pd(vb));
    }
}
#endif
#endif  // __GNUC__

}  // namespace

void idct_block_scalar(const int16_t* ct, int8_t* out, int stride) {
    int32_t p[64];  // p[v * 8 + x]: result at column x of coefficient row v
    for (int v = 0; v < 8; ++v) {
        int32_t x[8];
        for (int k = 0; k < 8; ++k) x[k] = ct[k * 8 + v];
        idct_1d(x, p + v * 8);
    }
    for (int x = 0; x < 8; ++x) {
        int32_t in[8], y[8];
        for (int k = 0; k < 8; ++k) in[k] = p[k * 8 + x];
        idct_1d(in, y);
        for (int j = 0; j < 8; ++j) out[j * stride + x] = clamp_sample(y[j]);
    }
}

void fdct_block(const int16_t* samples, int stride, int16_t* out) {
#if defined(__GNUC__)
    fdct_block_vec(samples, stride, out);
#else
    int32_t tmp[64];  // tmp[k * 8 + r]: coefficient k of sample row r
    for (int r = 0; r < 8; ++r) {
        int32_t in[8], y[8];
        for (int k = 0; k < 8; ++k) in[k] = samples[r * stride + k];
        fdct_1d(in, y);
        for (int k = 0; k < 8; ++k) tmp[k * 8 + r] = static_cast<int16_t>(y[k]);
    }
    for (int k = 0; k < 8; ++k) {
        int32_t y[8];
        fdct_1d(tmp + k * 8, y);
        for (int j = 0; j < 8; ++j) out[j * 8 + k] = static_cast<int16_t>(y[j]);
    }
#endif
}

void dct_kernels(Kernels& k, Isa isa) {
#if defined(__GNUC__)
    k.idct = idct_generic;
#else
    k.idct = idct_block_scalar;
#endif
#if defined(__GNUC__) && defined(__x86_64__)
    switch (isa) {
        case Isa::kPortable:
            break;
        case Isa::kSse2:
            k.idct = idct_sse2;
            break;
        case Isa::kSse41:
            k.idct = idct_ssse3;
            break;
        case Isa::kAvx2:
            k.idct = idct_avx2;
            k.idct_pair = idct_pair_avx2;
            break;
    }
#else
    (void)isa;
#endif
}

}  // namespace tesslin::jpeg
