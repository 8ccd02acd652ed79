// JPEG encoder: writes a DIB pulled row by row from the supply callback as a
// baseline sequential JFIF stream (one SOF0 frame, one interleaved scan,
// the T.81 Annex K Huffman tables, quantisation tables from the quality
// setting). Only one MCU row of samples is held at a time.
#include <cstring>
#include <memory>
#include <new>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "core/cpu.h"
#include "core/io.h"
#include "core/pixels.h"
#include "core/settings.h"
#include "formats/jpeg/jpeg.h"
#include "formats/jpeg/jpeg_internal.h"
#include "formats/jpeg/jpeg_simd.h"
#include "pipeline/codec.h"

namespace tesslin::jpeg {
namespace {

// Code and length per symbol of one Huffman table (T.81 Annex C).
// Code and length per symbol of one Huffman table (T.81 Annex C), as
// code << 8 | length.
struct HuffmanEncode {
    uint32_t code[256] = {};
    explicit HuffmanEncode(const HuffmanCodeLengths& table) {
        int k = 0;
        uint32_t c = 0;
        for (int len = 1; len <= 16; ++len) {
            for (int i = 0; i < table.counts[len - 1]; ++i, ++k)
                code[table.symbols[k]] = (c++ << 8) | static_cast<uint32_t>(len);
            c <<= 1;
        }
    }
};

const HuffmanEncode& dc_luma() { static const HuffmanEncode t(kDcLuma); return t; }
const HuffmanEncode& dc_chroma() { static const HuffmanEncode t(kDcChroma); return t; }
const HuffmanEncode& ac_luma() { static const HuffmanEncode t(kAcLuma); return t; }
const HuffmanEncode& ac_chroma() { static const HuffmanEncode t(kAcChroma); return t; }

}  // namespace

uint64_t quantise_block_scalar(const int16_t* coef, const Quantiser& q, int16_t* out) {
    for (int n = 0; n < 64; ++n) out[n] = static_cast<int16_t>(q(n, coef[n]));
    uint64_t mask = 0;
    for (int k = 0; k < 64; ++k) mask |= static_cast<uint64_t>(out[kZigzag[k]] != 0) << k;
    return mask;
}

namespace {

// The portable transform followed by the plain quantisation.
uint64_t fdct_quantise_plain(const int16_t* samples, int stride, const Quantiser& q, int16_t* out) {
    alignas(32) int16_t coef[64];
    fdct_block(samples, stride, coef);
    return quantise_block_scalar(coef, q, out);
}

}  // namespace

namespace {

#if defined(__x86_64__) && defined(__GNUC__)
// ---- Quantisation in 16-bit lanes (see Quantiser) ----

// Eight coefficients: sign(x) * (((|x| + add) >> 2) / Q).
#define QUANTISE8(ABS, SIGN, out, x, add, recip, divisor)                                \
    do {                                                                                  \
        const __m128i q_add = (add), q_recip = (recip), q_div = (divisor);                \
        const __m128i q_n = _mm_srli_epi16(_mm_add_epi16(ABS(x), q_add), 2);              \
        const __m128i q_0 = _mm_mulhi_epu16(q_n, q_recip);                                \
        const __m128i q_r = _mm_sub_epi16(q_n, _mm_mullo_epi16(q_0, q_div));              \
        const __m128i q_more = _mm_cmpgt_epi16(q_r, _mm_sub_epi16(q_div, _mm_set1_epi16(1))); \
        out = SIGN(_mm_sub_epi16(q_0, q_more), x);                                        \
    } while (0)
// The same on two blocks' rows side by side (one table row in both halves).
#define QUANTISE16(out, x, add, recip, divisor)                                           \
    do {                                                                                  \
        const __m256i q_add = (add), q_recip = (recip), q_div = (divisor);                \
        const __m256i q_n = _mm256_srli_epi16(_mm256_add_epi16(_mm256_abs_epi16(x), q_add), 2); \
        const __m256i q_0 = _mm256_mulhi_epu16(q_n, q_recip);                             \
        const __m256i q_r = _mm256_sub_epi16(q_n, _mm256_mullo_epi16(q_0, q_div));        \
        const __m256i q_more = _mm256_cmpgt_epi16(q_r, _mm256_sub_epi16(q_div, _mm256_set1_epi16(1))); \
        out = _mm256_sign_epi16(_mm256_sub_epi16(q_0, q_more), x);                        \
    } while (0)

inline __m128i abs_sse2(__m128i x) {
    const __m128i s = _mm_srai_epi16(x, 15);
    return _mm_sub_epi16(_mm_xor_si128(x, s), s);
}
inline __m128i sign_sse2(__m128i q, __m128i x) {
    const __m128i s = _mm_srai_epi16(x, 15);
    return _mm_sub_epi16(_mm_xor_si128(q, s), s);
}
#define ABS_SSE2(x) abs_sse2(x)
#define SIGN_SSE2(q, x) sign_sse2(q, x)
#define ABS_SSSE3(x) _mm_abs_epi16(x)
#define SIGN_SSSE3(q, x) _mm_sign_epi16(q, x)

inline __m128i load8(const void* p) { return _mm_load_si128(static_cast<const __m128i*>(p)); }

// The non-zero mask in zig-zag order from the rows' zero tests: the tests
// packed to bytes, two rows per vector (z[s] holds rows 2s and 2s + 1),
// put in zig-zag order by byte shuffles, 16 positions per vector, and
// their top bits gathered.
constexpr uint8_t kZz[64] = {0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,
                             12, 19, 26, 33, 40, 48, 41, 34, 27, 20, 13, 6,  7,  14, 21, 28,
                             35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23, 30, 37, 44, 51,
                             58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};
struct ZigzagBytes {
    alignas(16) uint8_t mask[4][4][16];  // [output][source]
    int first[4], last[4];
    constexpr ZigzagBytes() : mask(), first(), last() {
        for (int o = 0; o < 4; ++o) {
            first[o] = 3;
            last[o] = 0;
            for (int src = 0; src < 4; ++src)
                for (int i = 0; i < 16; ++i) {
                    const int n = kZz[16 * o + i];
                    const bool here = n / 16 == src;
                    mask[o][src][i] = static_cast<uint8_t>(here ? n % 16 : 0x80);
                    if (here && src < first[o]) first[o] = src;
                    if (here && src > last[o]) last[o] = src;
                }
        }
    }
};
constexpr ZigzagBytes kZzBytes;

#define ZIGZAG_MASK(z, result)                                                              \
    do {                                                                                  \
        uint64_t zero_ = 0;                                                               \
        for (int o = 0; o < 4; ++o) {                                                     \
            __m128i v_ = _mm_setzero_si128();                                             \
            for (int s_ = kZzBytes.first[o]; s_ <= kZzBytes.last[o]; ++s_)                \
                v_ = _mm_or_si128(v_, _mm_shuffle_epi8(z[s_], load8(kZzBytes.mask[o][s_]))); \
            zero_ |= static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(v_))) << (16 * o); \
        }                                                                                 \
        result = ~zero_;                                                                    \
    } while (0)

// The baseline has no byte shuffle: the mask is gathered one by one.
uint64_t quantise_sse2(const int16_t* coef, const Quantiser& q, int16_t* out) {
    for (int i = 0; i < 64; i += 8) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(coef + i));
        __m128i v;
        QUANTISE8(ABS_SSE2, SIGN_SSE2, v, x, load8(q.add + i), load8(q.recip + i), load8(q.divisor + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), v);
    }
    uint64_t mask = 0;
    for (int k = 0; k < 64; ++k) mask |= static_cast<uint64_t>(out[kZigzag[k]] != 0) << k;
    return mask;
}

uint64_t fdct_quantise_sse2(const int16_t* samples, int stride, const Quantiser& q, int16_t* out) {
    alignas(16) int16_t coef[64];
    __m128i rows[8], cols[8], tmp[8];
    for (int i = 0; i < 8; ++i)
        rows[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(samples + i * stride));
    TRANSPOSE16(_mm_, rows, cols);
    FDCT16(__m128i, ADD128, SUB128, MULR_SSE2, cols, tmp);
    TRANSPOSE16(_mm_, tmp, rows);
    FDCT16(__m128i, ADD128, SUB128, MULR_SSE2, rows, cols);
    for (int j = 0; j < 8; ++j) _mm_store_si128(reinterpret_cast<__m128i*>(coef + j * 8), cols[j]);
    return quantise_sse2(coef, q, out);
}

// Quantised rows r[0..7] (natural order) to `out`, and the mask.
#define STORE_AND_MASK128(r, out, mask)                                                   \
    do {                                                                                  \
        __m128i z_[4];                                                                    \
        for (int j = 0; j < 8; ++j) _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8 * j), r[j]); \
        for (int s = 0; s < 4; ++s)                                                       \
            z_[s] = _mm_packs_epi16(_mm_cmpeq_epi16(r[2 * s], _mm_setzero_si128()),       \
                                    _mm_cmpeq_epi16(r[2 * s + 1], _mm_setzero_si128()));  \
        ZIGZAG_MASK(z_, mask);                                                            \
    } while (0)

// Transform and quantisation in registers.
#define FDCT_QUANTISE128(samples, stride, q, out, mask)                                   \
    do {                                                                                  \
        __m128i rows[8], cols[8], tmp[8];                                                 \
        for (int i = 0; i < 8; ++i)                                                       \
            rows[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(samples + i * stride)); \
        TRANSPOSE16(_mm_, rows, cols);                                                    \
        FDCT16(__m128i, ADD128, SUB128, MULR_SSSE3, cols, tmp);                           \
        TRANSPOSE16(_mm_, tmp, rows);                                                     \
        FDCT16(__m128i, ADD128, SUB128, MULR_SSSE3, rows, cols);                          \
        for (int j = 0; j < 8; ++j)                                                       \
            QUANTISE8(ABS_SSSE3, SIGN_SSSE3, rows[j], cols[j], load8(q.add + 8 * j),      \
                      load8(q.recip + 8 * j), load8(q.divisor + 8 * j));                  \
        STORE_AND_MASK128(rows, out, mask);                                               \
    } while (0)

__attribute__((target("ssse3"))) uint64_t fdct_quantise_ssse3(const int16_t* samples, int stride,
                                                              const Quantiser& q, int16_t* out) {
    uint64_t mask;
    FDCT_QUANTISE128(samples, stride, q, out, mask);
    return mask;
}

__attribute__((target("avx2"))) uint64_t fdct_quantise_avx2(const int16_t* samples, int stride,
                                                            const Quantiser& q, int16_t* out) {
    uint64_t mask;
    FDCT_QUANTISE128(samples, stride, q, out, mask);
    return mask;
}

// Two blocks side by side, one per 128-bit half, through transform and
// quantisation (the same table row in both halves).
__attribute__((target("avx2"))) uint64_t fdct_quantise_pair_avx2(
    const int16_t* a, const int16_t* b, int stride, const Quantiser& q, int16_t* out_a,
    int16_t* out_b, uint64_t* mask_b) {
    __m256i rows[8], cols[8], tmp[8];
    for (int i = 0; i < 8; ++i)
        rows[i] = _mm256_inserti128_si256(
            _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a + i * stride))),
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i * stride)), 1);
    TRANSPOSE16(_mm256_, rows, cols);
    FDCT16(__m256i, ADD256, SUB256, MULR_AVX2, cols, tmp);
    TRANSPOSE16(_mm256_, tmp, rows);
    FDCT16(__m256i, ADD256, SUB256, MULR_AVX2, rows, cols);
    for (int j = 0; j < 8; ++j) {
        QUANTISE16(rows[j], cols[j], _mm256_broadcastsi128_si256(load8(q.add + 8 * j)),
                   _mm256_broadcastsi128_si256(load8(q.recip + 8 * j)),
                   _mm256_broadcastsi128_si256(load8(q.divisor + 8 * j)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out_a + 8 * j), _mm256_castsi256_si128(rows[j]));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out_b + 8 * j), _mm256_extracti128_si256(rows[j], 1));
    }
    __m128i za[4], zb[4];
    for (int s = 0; s < 4; ++s) {
        const __m256i zero = _mm256_setzero_si256();
        const __m256i z = _mm256_packs_epi16(_mm256_cmpeq_epi16(rows[2 * s], zero),
                                             _mm256_cmpeq_epi16(rows[2 * s + 1], zero));
        za[s] = _mm256_castsi256_si128(z);  // rows 2s and 2s + 1 of a
        zb[s] = _mm256_extracti128_si256(z, 1);
    }
    uint64_t ma, mb;
    ZIGZAG_MASK(za, ma);
    ZIGZAG_MASK(zb, mb);
    *mask_b = mb;
    return ma;
}

// ---- Colour conversion ----
// The colour tables trunc(c * v + 0.5) are exact as (v * M + 2^15) >> 16
// with these 16-bit constants (checked against the tables by the tests),
// and that is an unsigned high multiplication plus the top bit of the low
// half. All but one are also exact as (v * P + 2^14) >> 15, one pmulhrsw
// (0.41869 has no such P and keeps the two multiplications).
constexpr uint16_t kYR = 19595, kYG = 38470, kYB = 7472, kCbR = 11059, kCbG = 21709, kHalf = 32768,
                   kCrG = 27439, kCrB = 5329;
constexpr int16_t kPYR = 9798, kPYG = 19235, kPYB = 3736, kPCbR = 5529, kPCbG = 10855,
                  kPHalf = 16384, kPCrB = 2664;

// Byte shuffles that split 48 bytes of blue, green, red into the three
// channels: mask [input vector][channel], each twice for both halves of a
// 256-bit register.
struct SplitMasks {
    alignas(32) uint8_t m[3][3][32];
    constexpr SplitMasks() : m() {
        for (int in = 0; in < 3; ++in)
            for (int ch = 0; ch < 3; ++ch)
                for (int p = 0; p < 32; ++p) {
                    const int b = 3 * (p % 16) + ch - 16 * in;
                    m[in][ch][p] = static_cast<uint8_t>(b >= 0 && b < 16 ? b : 0x80);
                }
    }
};
constexpr SplitMasks kSplit;

__attribute__((target("sse4.1"))) inline __m128i colour_term(__m128i v, uint16_t m) {
    const __m128i k = _mm_set1_epi16(static_cast<int16_t>(m));
    return _mm_add_epi16(_mm_mulhi_epu16(v, k), _mm_srli_epi16(_mm_mullo_epi16(v, k), 15));
}

// Y of every pixel, and Cb, Cr of every h-th pixel when h is 1 or 2 (none
// when h is 0); returns the pixels done, a multiple of 16.
__attribute__((target("sse4.1"))) int bgr_to_ycc_sse41(const uint8_t* bgr, int n, int h,
                                                       int16_t* y, int16_t* cb, int16_t* cr) {
    const __m128i shift = _mm_set1_epi16(128);
    const __m128i evens = _mm_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, -1, -1, -1, -1, -1, -1, -1, -1);
    int x = 0;
    for (; x + 16 <= n; x += 16, bgr += 48) {
        const __m128i in[3] = {_mm_loadu_si128(reinterpret_cast<const __m128i*>(bgr)),
                               _mm_loadu_si128(reinterpret_cast<const __m128i*>(bgr + 16)),
                               _mm_loadu_si128(reinterpret_cast<const __m128i*>(bgr + 32))};
        __m128i ch[3];
        for (int c = 0; c < 3; ++c)
            ch[c] = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(in[0], load8(kSplit.m[0][c])),
                                              _mm_shuffle_epi8(in[1], load8(kSplit.m[1][c]))),
                                 _mm_shuffle_epi8(in[2], load8(kSplit.m[2][c])));
        for (int half = 0; half < 2; ++half) {
            const __m128i b = _mm_cvtepu8_epi16(half ? _mm_srli_si128(ch[0], 8) : ch[0]);
            const __m128i g = _mm_cvtepu8_epi16(half ? _mm_srli_si128(ch[1], 8) : ch[1]);
            const __m128i r = _mm_cvtepu8_epi16(half ? _mm_srli_si128(ch[2], 8) : ch[2]);
            const __m128i lum = _mm_sub_epi16(
                _mm_add_epi16(_mm_add_epi16(colour_term(r, kYR), colour_term(g, kYG)), colour_term(b, kYB)),
                shift);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(y + x + 8 * half), lum);
        }
        if (h == 0) continue;
        for (int half = 0; half < (h == 1 ? 2 : 1); ++half) {
            __m128i b8 = ch[0], g8 = ch[1], r8 = ch[2];
            if (h == 2) {
                b8 = _mm_shuffle_epi8(b8, evens), g8 = _mm_shuffle_epi8(g8, evens), r8 = _mm_shuffle_epi8(r8, evens);
            } else if (half) {
                b8 = _mm_srli_si128(b8, 8), g8 = _mm_srli_si128(g8, 8), r8 = _mm_srli_si128(r8, 8);
            }
            const __m128i b = _mm_cvtepu8_epi16(b8), g = _mm_cvtepu8_epi16(g8), r = _mm_cvtepu8_epi16(r8);
            const __m128i u = _mm_sub_epi16(_mm_sub_epi16(colour_term(b, kHalf), colour_term(r, kCbR)),
                                            colour_term(g, kCbG));
            const __m128i v = _mm_sub_epi16(_mm_sub_epi16(colour_term(r, kHalf), colour_term(g, kCrG)),
                                            colour_term(b, kCrB));
            const int at = x / h + 8 * half;
            _mm_storeu_si128(reinterpret_cast<__m128i*>(cb + at), u);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(cr + at), v);
        }
    }
    return x;
}

#define PM(v, p) _mm256_mulhrs_epi16(v, _mm256_set1_epi16(p))

// 32 pixels per step.
__attribute__((target("avx2"))) int bgr_to_ycc_avx2(const uint8_t* bgr, int n, int h, int16_t* y,
                                                    int16_t* cb, int16_t* cr) {
    const __m256i shift = _mm256_set1_epi16(128);
    const __m256i* mk = reinterpret_cast<const __m256i*>(kSplit.m);
    const __m256i evens = _mm256_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, -1, -1, -1, -1, -1, -1, -1, -1,
                                           0, 2, 4, 6, 8, 10, 12, 14, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m256i crg = _mm256_set1_epi16(static_cast<int16_t>(kCrG));
    int x = 0;
    for (; x + 32 <= n; x += 32, bgr += 96) {
        // Pixels 0..15 in the low halves, 16..31 in the high ones.
        __m256i in[3];
        for (int i = 0; i < 3; ++i)
            in[i] = _mm256_inserti128_si256(
                _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bgr + 16 * i))),
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(bgr + 48 + 16 * i)), 1);
        __m256i ch[3];  // bytes of blue, green, red
        for (int c = 0; c < 3; ++c)
            ch[c] = _mm256_or_si256(_mm256_or_si256(_mm256_shuffle_epi8(in[0], _mm256_load_si256(mk + c)),
                                                    _mm256_shuffle_epi8(in[1], _mm256_load_si256(mk + 3 + c))),
                                    _mm256_shuffle_epi8(in[2], _mm256_load_si256(mk + 6 + c)));
#define WIDE(v) _mm256_cvtepu8_epi16(half ? _mm256_extracti128_si256(v, 1) : _mm256_castsi256_si128(v))
// Even pixels: 8 of each half, gathered into the low 128 bits.
#define EVEN(v) \
    _mm256_cvtepu8_epi16(_mm256_castsi256_si128(_mm256_permute4x64_epi64(_mm256_shuffle_epi8(v, evens), 0x08)))
        for (int half = 0; half < 2; ++half) {
            const __m256i b = WIDE(ch[0]), g = WIDE(ch[1]), r = WIDE(ch[2]);
            const __m256i lum = _mm256_sub_epi16(
                _mm256_add_epi16(_mm256_add_epi16(PM(r, kPYR), PM(g, kPYG)), PM(b, kPYB)), shift);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(y + x + 16 * half), lum);
        }
        if (h == 0) continue;
        for (int half = 0; half < (h == 1 ? 2 : 1); ++half) {
            const __m256i b = h == 2 ? EVEN(ch[0]) : WIDE(ch[0]);
            const __m256i g = h == 2 ? EVEN(ch[1]) : WIDE(ch[1]);
            const __m256i r = h == 2 ? EVEN(ch[2]) : WIDE(ch[2]);
            const __m256i u = _mm256_sub_epi16(_mm256_sub_epi16(PM(b, kPHalf), PM(r, kPCbR)), PM(g, kPCbG));
            const __m256i gterm = _mm256_add_epi16(_mm256_mulhi_epu16(g, crg),
                                                   _mm256_srli_epi16(_mm256_mullo_epi16(g, crg), 15));
            const __m256i v = _mm256_sub_epi16(_mm256_sub_epi16(PM(r, kPHalf), gterm), PM(b, kPCrB));
            const int at = x / h + 16 * half;
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(cb + at), u);
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(cr + at), v);
        }
#undef WIDE
#undef EVEN
    }
    if (x + 16 <= n) x += bgr_to_ycc_sse41(bgr, 16, h, y + x, h ? cb + x / h : cb, h ? cr + x / h : cr);
    return x;
}
#undef PM

#endif

}  // namespace

void encode_kernels(Kernels& k, Isa isa) {
    k.fdct_quantise = fdct_quantise_plain;
#if defined(__x86_64__) && defined(__GNUC__)
    switch (isa) {
        case Isa::kPortable:
            break;
        case Isa::kSse2:
            k.fdct_quantise = fdct_quantise_sse2;
            break;
        case Isa::kSse41:
            k.fdct_quantise = fdct_quantise_ssse3;
            k.bgr_to_ycc = bgr_to_ycc_sse41;
            break;
        case Isa::kAvx2:
            k.fdct_quantise = fdct_quantise_avx2;
            k.fdct_quantise_pair = fdct_quantise_pair_avx2;
            k.bgr_to_ycc = bgr_to_ycc_avx2;
            break;
    }
#else
    (void)isa;
#endif
}

namespace {

// Bits most significant first; every 0xFF byte is followed by 0x00. The
// bits gather at the top of a 64-bit word that goes out eight bytes at a
// time, in one store when none of them is 0xFF.
class BitWriter {
public:
    explicit BitWriter(StreamWriter& out) : out_(out) {}

    // The low `size` bits of `bits` (1..32; nothing above them set).
    __attribute__((always_inline)) void put(uint32_t bits, int size) {
        free_ -= size;
        if (free_ >= 0) {
            acc_ |= static_cast<uint64_t>(bits) << free_;
            return;
        }
        acc_ |= static_cast<uint64_t>(bits) >> -free_;
        const uint64_t inv = ~acc_;  // a 0xFF byte becomes a zero byte
        if (!((inv - 0x0101010101010101ull) & ~inv & 0x8080808080808080ull) && used_ < kFlushAt) {
            const uint64_t be = __builtin_bswap64(acc_);
            std::memcpy(buf_ + used_, &be, 8);
            used_ += 8;
            data_bytes_ += 8;
        } else {
            emit_word();
        }
        free_ += 64;
        acc_ = static_cast<uint64_t>(bits) << free_;
    }

    // Pads with zero bits to a multiple of 16 bits counted from the start
    // of the data and writes everything out.
    void finish() {
        const uint64_t total = data_bytes_ * 8 + static_cast<uint64_t>(64 - free_);
        const int pad = static_cast<int>((16 - total % 16) % 16);
        if (pad) put(0, pad);
        for (int held = 64 - free_; held > 0; held -= 8) {
            emit_byte(static_cast<uint8_t>(acc_ >> 56));
            acc_ <<= 8;
        }
        free_ = 64;
        flush();
    }

    void flush() {
        if (used_) out_.write(buf_, used_);
        used_ = 0;
    }

private:
    __attribute__((noinline)) void emit_word() {
        const uint64_t inv = ~acc_;  // a 0xFF byte becomes a zero byte
        if (!((inv - 0x0101010101010101ull) & ~inv & 0x8080808080808080ull)) {
            const uint64_t be = __builtin_bswap64(acc_);
            std::memcpy(buf_ + used_, &be, 8);
            used_ += 8;
        } else {
            for (int i = 56; i >= 0; i -= 8) emit_byte(static_cast<uint8_t>(acc_ >> i));
        }
        data_bytes_ += 8;
        if (used_ >= kFlushAt) flush();
    }
    void emit_byte(uint8_t b) {
        buf_[used_++] = b;
        if (b == 0xFF) buf_[used_++] = 0;
    }

    static constexpr uint32_t kFlushAt = 30000;
    StreamWriter& out_;
    uint64_t acc_ = 0;
    int free_ = 64;            // bits of acc_ still free
    uint64_t data_bytes_ = 0;  // bytes of bits gone out (stuffing not counted)
    uint8_t buf_[kFlushAt + 64];
    uint32_t used_ = 0;
};

inline int magnitude_bits(uint32_t v) { return v ? 32 - __builtin_clz(v) : 0; }

struct Encoder {
    Encoder(const DibHeader* h, IMG_SUPPLY_CALLBACK s, intptr_t u) : header(h), supply(s), user(u) {}
    const DibHeader* header;
    IMG_SUPPLY_CALLBACK supply;
    intptr_t user;
    const Kernels& kern = kernels();

    int width = 0, height = 0, bits = 0, nf = 0, h1 = 1, v1 = 1;
    bool grey = false;
    int channels = 0;  // bytes per prepared pixel
    int padded_w = 0, mcus_x = 0, mcus_y = 0;
    uint32_t in_bytes = 0;
    const RgbQuad* palette = nullptr;
    // The lines of one MCU row as supplied (when the supply copies) and as
    // prepared (palette images), and where each line's prepared pixels are.
    std::unique_ptr<uint8_t[]> copies, prep;
    const uint8_t* lines[32] = {};
    int16_t last[32][4] = {};  // samples of each line's last pixel (Y, Cb, Cr, K)
    // Samples of a chunk of MCUs of the MCU row, level-shifted; chroma
    // decimated.
    int chunk_mcus = 0;
    std::unique_ptr<int16_t[]> planes[4];
    int plane_w[4] = {};
    Quantiser luma_q, chroma_q;
    int32_t pred[4] = {};
    // The quantised blocks of one MCU (natural order) with their non-zero
    // masks (zig-zag order).
    // DC luminance, DC chrominance, AC luminance, AC chrominance.
    const uint32_t* huff[4] = {dc_luma().code, dc_chroma().code, ac_luma().code, ac_chroma().code};
    static constexpr int kMaxBlocks = 4 * 4 + 3;
    alignas(32) int16_t zz[kMaxBlocks][64];
    uint64_t nonzero[kMaxBlocks];

    int32_t run(StreamWriter& out);
    bool write_headers(StreamWriter& out);
    const uint8_t* prepare(const uint8_t* src, int line);
    void convert(int line, int x0, int x1);
    void transform(const int16_t* a, const int16_t* b, int stride, const Quantiser& q, int at);
    void entropy(BitWriter& bw, const int16_t* v, uint64_t mask, int comp);
};

bool Encoder::write_headers(StreamWriter& out) {
    const Settings& s = settings();
    static const uint8_t soi[2] = {0xFF, 0xD8};
    out.write(soi, 2);
    if (nf == 4) {
        static const uint8_t app14[16] = {0xFF, 0xEE, 0, 14,   'A', 'd', 'o', 'b',
                                          'e',  1,    0, 0x40, 0,   0,   0,   2};
        out.write(app14, 16);
    }
    uint16_t xd = static_cast<uint16_t>(header->biXPelsPerMeter);
    uint16_t yd = static_cast<uint16_t>(header->biYPelsPerMeter);
    if (header->biXPelsPerMeter == 0) xd = yd = 96;
    const uint8_t app0[18] = {0xFF, 0xE0, 0, 16, 'J', 'F', 'I', 'F', 0, 1, 0, 1,
                              uint8_t(xd >> 8), uint8_t(xd), uint8_t(yd >> 8), uint8_t(yd), 0, 0};
    out.write(app0, 18);
    uint8_t dqt[134] = {0xFF, 0xDB, 0, 132, 0};
    for (int k = 0; k < 64; ++k) dqt[5 + k] = s.jpeg_luma[kZigzag[k]];
    dqt[69] = 1;
    for (int k = 0; k < 64; ++k) dqt[70 + k] = s.jpeg_chroma[kZigzag[k]];
    out.write(dqt, 134);
    uint8_t sof[2 + 8 + 12] = {0xFF, 0xC0, 0, uint8_t(8 + 3 * nf), 8,
                               uint8_t(height >> 8), uint8_t(height), uint8_t(width >> 8),
                               uint8_t(width), uint8_t(nf)};
    sof[10] = 1;
    sof[11] = static_cast<uint8_t>(16 * h1 + v1);
    sof[12] = 0;
    for (int c = 1; c < nf; ++c) {
        sof[10 + 3 * c] = static_cast<uint8_t>(c + 1);
        sof[11 + 3 * c] = 0x11;
        sof[12 + 3 * c] = 1;
    }
    out.write(sof, static_cast<uint32_t>(10 + 3 * nf));
    auto dht = [&](uint8_t id, const HuffmanCodeLengths& table) {
        const uint16_t len = static_cast<uint16_t>(2 + 1 + 16 + table.total);
        const uint8_t head[5] = {0xFF, 0xC4, uint8_t(len >> 8), uint8_t(len), id};
        out.write(head, 5);
        out.write(table.counts, 16);
        out.write(table.symbols, static_cast<uint32_t>(table.total));
    };
    dht(0x00, kDcLuma);
    dht(0x10, kAcLuma);
    if (nf > 1) {
        dht(0x01, kDcChroma);
        dht(0x11, kAcChroma);
    }
    uint8_t sos[2 + 6 + 8] = {0xFF, 0xDA, 0, uint8_t(6 + 2 * nf), uint8_t(nf), 1, 0x00};
    for (int c = 1; c < nf; ++c) {
        sos[5 + 2 * c] = static_cast<uint8_t>(c + 1);
        sos[6 + 2 * c] = 0x11;
    }
    sos[5 + 2 * nf] = 0;
    sos[6 + 2 * nf] = 63;
    sos[7 + 2 * nf] = 0;
    out.write(sos, static_cast<uint32_t>(8 + 2 * nf));
    return out.ok();
}

// The supplied row as `channels` bytes per pixel over the padded width,
// the last pixel repeated to the right.
const uint8_t* Encoder::prepare(const uint8_t* src, int line) {
    if (bits >= 24 || (grey && bits == 8)) return src;  // used as it is
    uint8_t* dst = prep.get() + static_cast<size_t>(line) * width * channels;
    if (grey) {
        if (bits == 4) {
            for (int x = 0; x < width; ++x)
                dst[x] = palette[(src[x >> 1] >> (x & 1 ? 0 : 4)) & 15].rgbBlue;
        } else {
            for (int x = 0; x < width; ++x) dst[x] = (src[x >> 3] >> (7 - (x & 7)) & 1) ? 255 : 0;
        }
    } else {
        pixels::palette_to_bgr24(src, static_cast<uint32_t>(bits), palette, dst,
                                 static_cast<uint32_t>(width));
    }
    return dst;
}

// Level-shifted samples of pixels x0 .. x1 - 1 of line `line` (0 .. 8 * v1
// - 1) of the MCU row into the chunk's planes; chroma and the fourth
// component keep the top-left sample of every h1 x v1 group. Pixels past
// the width (the padding on the right) repeat the line's last pixel.
void Encoder::convert(int line, int x0, int x1) {
    const uint8_t* p = lines[line];
    const int16_t* end = last[line];
    const int xe = x1 < width ? x1 : width;
    int16_t* y = planes[0].get() + static_cast<size_t>(line) * plane_w[0] - x0;
    if (nf == 1) {
        for (int x = x0; x < xe; ++x) y[x] = static_cast<int16_t>(p[x] - 128);
        for (int x = xe > x0 ? xe : x0; x < x1; ++x) y[x] = end[0];
        return;
    }
    const RgbTables& t = rgb_tables();
    // Three components: blue, green, red bytes. Four: bytes 0, 1, 2 take the
    // places of red, green and blue.
    const int ri = nf == 3 ? 2 : 0, bi = nf == 3 ? 0 : 2;
    const int step = channels;
    const bool chroma = line % v1 == 0;
    const size_t row = static_cast<size_t>(line / v1) * plane_w[1];
    int16_t* cb = planes[1].get() + row - x0 / h1;
    int16_t* cr = planes[2].get() + row - x0 / h1;
    int start = x0;  // pixels already converted
    if (nf == 3 && h1 <= 2 && kern.bgr_to_ycc && xe > x0)
        start += kern.bgr_to_ycc(p + static_cast<size_t>(x0) * 3, xe - x0, chroma ? h1 : 0, y + x0,
                                 cb + x0 / h1, cr + x0 / h1);
    for (int x = start; x < xe; ++x) {
        const uint8_t* px = p + static_cast<size_t>(x) * step;
        y[x] = static_cast<int16_t>(t.y_r[px[ri]] + t.y_g[px[1]] + t.y_b[px[bi]] - 128);
    }
    for (int x = xe > start ? xe : start; x < x1; ++x) y[x] = end[0];
    if (!chroma) return;
    int16_t* k = nf == 4 ? planes[3].get() + row - x0 / h1 : nullptr;
    for (int j = start / h1; j < x1 / h1; ++j) {
        const int x = j * h1;
        if (x >= width) {
            cb[j] = end[1];
            cr[j] = end[2];
            if (k) k[j] = end[3];
            continue;
        }
        const uint8_t* px = p + static_cast<size_t>(x) * step;
        const uint8_t r = px[ri], g = px[1], b = px[bi];
        cb[j] = static_cast<int16_t>(t.cb_r[r] + t.cb_g[g] + t.cb_b[b]);
        cr[j] = static_cast<int16_t>(t.cr_r[r] + t.cr_g[g] + t.cr_b[b]);
        if (k) k[j] = static_cast<int16_t>(127 - px[3]);
    }
}

// The samples of a prepared line's last pixel, for the padding.
void last_samples(const uint8_t* p, int width, int nf, int16_t* out) {
    if (nf == 1) {
        out[0] = static_cast<int16_t>(p[width - 1] - 128);
        return;
    }
    const RgbTables& t = rgb_tables();
    const int step = nf == 3 ? 3 : 4, ri = nf == 3 ? 2 : 0, bi = nf == 3 ? 0 : 2;
    const uint8_t* px = p + static_cast<size_t>(width - 1) * step;
    const uint8_t r = px[ri], g = px[1], b = px[bi];
    out[0] = static_cast<int16_t>(t.y_r[r] + t.y_g[g] + t.y_b[b] - 128);
    out[1] = static_cast<int16_t>(t.cb_r[r] + t.cb_g[g] + t.cb_b[b]);
    out[2] = static_cast<int16_t>(t.cr_r[r] + t.cr_g[g] + t.cr_b[b]);
    out[3] = static_cast<int16_t>(nf == 4 ? 127 - px[3] : 0);
}

// Forward transform and quantisation of the block at `a` (and of the one
// at `b`, with the same stride and table, when given) into zz[at] (and
// zz[at + 1]).
void Encoder::transform(const int16_t* a, const int16_t* b, int stride, const Quantiser& q, int at) {
    if (b && kern.fdct_quantise_pair) {
        nonzero[at] = kern.fdct_quantise_pair(a, b, stride, q, zz[at], zz[at + 1], &nonzero[at + 1]);
        return;
    }
    nonzero[at] = kern.fdct_quantise(a, stride, q, zz[at]);
    if (b) nonzero[at + 1] = kern.fdct_quantise(b, stride, q, zz[at + 1]);
}

// The Huffman codes of one quantised block (T.81 F.1.2): each symbol's
// code and its value bits in one put.
void Encoder::entropy(BitWriter& bw, const int16_t* v, uint64_t mask, int comp) {
    const uint32_t* dc = comp ? huff[1] : huff[0];
    const uint32_t* ac = comp ? huff[3] : huff[2];
    const int32_t diff = v[0] - pred[comp];
    pred[comp] = v[0];
    const int32_t ds = diff >> 31;
    const int cat = magnitude_bits(static_cast<uint32_t>((diff ^ ds) - ds));
    const uint32_t de = dc[cat];
    bw.put(((de >> 8) << cat) | (static_cast<uint32_t>(diff + ds) & ((1u << cat) - 1)),
           static_cast<int>(de & 0xFF) + cat);
    // Non-zero coefficients in zig-zag order; every 16 zeros before one
    // become a 0xF0 symbol, trailing zeros an end of block.
    uint64_t rest = mask >> 1;
    int k = 0;
    while (rest) {
        int run = __builtin_ctzll(rest);
        k += run + 1;
        rest = (rest >> run) >> 1;
        for (; run >= 16; run -= 16) bw.put(ac[0xF0] >> 8, static_cast<int>(ac[0xF0] & 0xFF));
        const int32_t x = v[kZigzag[k]];
        const int32_t xs = x >> 31;
        const int size = magnitude_bits(static_cast<uint32_t>((x ^ xs) - xs));
        const uint32_t e = ac[(run << 4) | size];
        bw.put(((e >> 8) << size) | (static_cast<uint32_t>(x + xs) & ((1u << size) - 1)),
               static_cast<int>(e & 0xFF) + size);
    }
    if (k < 63) bw.put(ac[0] >> 8, static_cast<int>(ac[0] & 0xFF));
}

int32_t Encoder::run(StreamWriter& out) {
    width = header->biWidth;
    height = header->biHeight;
    bits = header->biBitCount;
    if (bits == 16 || !(bits == 1 || bits == 4 || bits == 8 || bits == 24 || bits == 32))
        return IMG_ERR_DEPTH;
    if (width < 1 || height < 1) return IMG_ERR_BAD_IMAGE;
    if (width > 65535 || height > 65535) return IMG_ERR_UNSUPPORTED;
    palette = dib_palette(header);
    if (bits <= 8 && palette[0].rgbBlue <= 40) {
        grey = true;
        for (int i = 0; i < (1 << bits); ++i)
            if (palette[i].rgbBlue != palette[i].rgbGreen || palette[i].rgbBlue != palette[i].rgbRed)
                grey = false;
    }
    const Settings& s = settings();
    auto factor = [](int32_t f) { return f < 1 ? 1 : f > 4 ? 4 : f; };
    if (grey) {
        nf = 1;
        channels = 1;
    } else if (bits == 32) {
        nf = 4;
        channels = 4;
        v1 = factor(s.jpeg_v);
    } else {
        nf = 3;
        channels = 3;
        h1 = factor(s.jpeg_h);
        v1 = factor(s.jpeg_v);
    }
    luma_q.set(s.jpeg_luma);
    chroma_q.set(s.jpeg_chroma);

    mcus_x = (width + 8 * h1 - 1) / (8 * h1);
    mcus_y = (height + 8 * v1 - 1) / (8 * v1);
    padded_w = mcus_x * 8 * h1;
    in_bytes = row_bytes(static_cast<uint32_t>(width), static_cast<uint32_t>(bits));
    const int lines_per_row = 8 * v1;
    if (bits < 24 && !(grey && bits == 8)) {
        prep.reset(new (std::nothrow) uint8_t[static_cast<size_t>(width) * channels * lines_per_row + 8]);
        if (!prep) return IMG_ERR_MEMORY;
    }
    // Chunks of about 256 pixels keep the samples in the first-level cache.
    chunk_mcus = 256 / (8 * h1);
    if (chunk_mcus > mcus_x) chunk_mcus = mcus_x;
    for (int c = 0; c < nf; ++c) {
        plane_w[c] = chunk_mcus * 8 * (c == 0 ? h1 : 1);
        const size_t n = static_cast<size_t>(plane_w[c]) * (c == 0 ? lines_per_row : 8);
        planes[c].reset(new (std::nothrow) int16_t[n]);
        if (!planes[c]) return IMG_ERR_MEMORY;
    }

    if (!write_headers(out)) return out.status();
    std::unique_ptr<BitWriter> bw(new (std::nothrow) BitWriter(out));
    if (!bw) return IMG_ERR_MEMORY;

    int line = 0;
    for (int my = 0; my < mcus_y; ++my) {
        for (int l = 0; l < lines_per_row; ++l) {
            if (line == height) {
                // Below the image the last line repeats.
                lines[l] = lines[l - 1];
                std::memcpy(last[l], last[l - 1], sizeof last[l]);
                continue;
            }
            // The bitmap's own row when the save driver lets it be read in
            // place, else a copy.
            const uint8_t* src = supply_source(supply, user, line);
            uint8_t* buffer = const_cast<uint8_t*>(src);
            if (!src) {
                if (!copies) {
                    copies.reset(new (std::nothrow) uint8_t[static_cast<size_t>(in_bytes) * lines_per_row + 8]);
                    if (!copies) return IMG_ERR_MEMORY;
                }
                buffer = copies.get() + static_cast<size_t>(l) * in_bytes;
            }
            const int32_t r = supply(user, buffer, line, in_bytes);
            if (r < 0) return r;
            lines[l] = prepare(buffer, l);
            last_samples(lines[l], width, nf, last[l]);
            ++line;
        }
        for (int m0 = 0; m0 < mcus_x; m0 += chunk_mcus) {
            const int m1 = m0 + chunk_mcus < mcus_x ? m0 + chunk_mcus : mcus_x;
            for (int l = 0; l < lines_per_row; ++l) convert(l, m0 * 8 * h1, m1 * 8 * h1);
            for (int m = 0; m < m1 - m0; ++m) {
                // Transformed two at a time where the kernels pair blocks,
                // coded in scan order: luminance row by row, then Cb, Cr, K.
                int n = 0;
                for (int by = 0; by < v1; ++by) {
                    const int16_t* row = planes[0].get() + static_cast<size_t>(by) * 8 * plane_w[0] + m * h1 * 8;
                    for (int bx = 0; bx < h1; bx += 2, n += 2)
                        transform(row + bx * 8, bx + 1 < h1 ? row + bx * 8 + 8 : nullptr, plane_w[0], luma_q, n);
                    n -= h1 & 1;
                }
                if (nf >= 3) {
                    transform(planes[1].get() + m * 8, planes[2].get() + m * 8, plane_w[1], chroma_q, n);
                    n += 2;
                }
                if (nf == 4) transform(planes[3].get() + m * 8, nullptr, plane_w[3], chroma_q, n++);
                int comp = 0;
                for (int i = 0; i < n; ++i) {
                    if (i >= h1 * v1) comp = i - h1 * v1 + 1;
                    entropy(*bw, zz[i], nonzero[i], comp);
                }
            }
        }
        if (!out.ok()) return out.status();
    }
    bw->finish();
    static const uint8_t eoi[2] = {0xFF, 0xD9};
    out.write(eoi, 2);
    out.flush();
    return out.ok() ? 0 : out.status();
}

}  // namespace

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply, intptr_t user,
               int32_t) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    StreamWriter out(stream);
    std::unique_ptr<Encoder> e(new (std::nothrow) Encoder(header, supply, user));
    if (!e) return IMG_ERR_MEMORY;
    const int32_t r = e->run(out);
    return r < 0 ? r : 0;
}

}  // namespace tesslin::jpeg
