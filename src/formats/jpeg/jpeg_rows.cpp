// Conversion of sample planes into delivered rows. Every component is
// replicated to the full resolution: pixel x of line y takes the sample at
// (x / (hmax / h), y / (vmax / v)) of its plane.
//
// YCbCr rows with the luminance at full resolution and the chroma halved
// or not horizontally (4:4:4, 4:2:2, 4:2:0, 4:4:0) go through the vector
// kernels below; they compute the chroma terms once for the two lines that
// share a chroma row. Everything else is table-driven.
#include "formats/jpeg/jpeg_rows.h"

#include <cstring>
#include <new>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "core/dib.h"
#include "formats/jpeg/jpeg_internal.h"

namespace tesslin::jpeg {

bool Plane::allocate(int w, int h, bool coefficients) {
    width = w;
    height = h;
    const size_t n = static_cast<size_t>(w) * static_cast<size_t>(h);
    if (coefficients) {
        c.reset(new (std::nothrow) int32_t[n]);
        if (!c) return false;
        std::memset(c.get(), 0, n * sizeof(int32_t));
        return true;
    }
    s.reset(new (std::nothrow) int8_t[n]);
    if (!s) return false;
    std::memset(s.get(), 0, n);
    return true;
}

bool RowConverter::init(const RowLayout& layout, const Kernels& kernels) {
    l_ = layout;
    for (int i = 0; i < l_.nf; ++i) {
        fx_[i] = l_.hmax / l_.h[i];
        fy_[i] = l_.vmax / l_.v[i];
    }
    const bool ycc = !l_.coefficients && l_.nf == 3 && !l_.rgb;
    if (ycc && fx_[0] == 1 && fx_[1] == fx_[2] && (fx_[1] == 1 || fx_[1] == 2))
        ycc_rows_ = kernels.ycc_rows;
    pairs_ = ycc && fy_[0] == 1 && fy_[1] % 2 == 0 && fy_[2] % 2 == 0;
    return true;
}

void RowConverter::convert(int y, uint8_t* out0, uint8_t* out1) const {
    uint32_t used;
    if (l_.coefficients) {
        coefficients(y, out0);
        used = static_cast<uint32_t>(l_.width) * 4 * static_cast<uint32_t>(l_.nf);
    } else if (l_.nf == 1) {
        grey(y, out0);
        used = static_cast<uint32_t>(l_.width);
    } else if (l_.nf == 3 && l_.rgb) {
        rgb(y, out0);
        used = static_cast<uint32_t>(l_.width) * 3;
    } else if (l_.nf == 3) {
        ycc(y, out0, out1);
        used = static_cast<uint32_t>(l_.width) * 3;
    } else {
        four(y, out0);
        used = static_cast<uint32_t>(l_.width) * 4;
    }
    if (l_.row_bytes > used) {
        std::memset(out0 + used, 0, l_.row_bytes - used);
        if (out1) std::memset(out1 + used, 0, l_.row_bytes - used);
    }
}

void RowConverter::grey(int y, uint8_t* out) const {
    // Samples are within -127..127, so the level shift is the top bit.
    const int8_t* s = row(0, y);
    int x = 0;
    for (; x + 8 <= l_.width; x += 8) {
        uint64_t v;
        std::memcpy(&v, s + x, 8);
        v ^= 0x8080808080808080ull;
        std::memcpy(out + x, &v, 8);
    }
    for (; x < l_.width; ++x) out[x] = range_limit(s[x]);
}

namespace {

// Table-driven YCbCr of pixels start .. width - 1 of one line, chroma
// sample j serving pixels f * j .. f * j + f - 1.
void ycc_tail(const int8_t* lum, const int8_t* cb, const int8_t* cr, int f, int start, int width,
              uint8_t* out) {
    const ChromaTables& t = chroma_tables();
    out += 3 * start;
    for (int x = start, j = start / f; x < width; x += f, ++j) {
        const uint8_t b = static_cast<uint8_t>(cb[j]), r = static_cast<uint8_t>(cr[j]);
        const int32_t tb = t.cb_b[b], tg = t.cb_g[b] + t.cr_g[r], tr = t.cr_r[r];
        const int n = width - x < f ? width - x : f;
        for (int i = 0; i < n; ++i, out += 3) {
            const int32_t v = lum[x + i];
            out[0] = range_limit(v + tb);
            out[1] = range_limit(v - tg);
            out[2] = range_limit(v + tr);
        }
    }
}

#if defined(__x86_64__) && defined(__GNUC__)
// The chroma tables as multiplications: trunc(k * c) = sign(c) *
// ((|c| * M) >> 15) for every c in -128..127 with M = ceil(k * 2^15)
// (checked against the tables by the tests). (2|c| * M) >> 16 is one
// unsigned high multiplication.
constexpr uint16_t kCrR = 45941, kCbG = 11277, kCrG = 23401, kCbB = 58065;

// Byte shuffles that interleave 16 blue, 16 green and 16 red bytes into 48
// bytes: mask [out][channel], 0x80 where another channel's byte goes; each
// mask twice, for both halves of a 256-bit register.
struct InterleaveMasks {
    alignas(32) uint8_t m[3][3][32];
    constexpr InterleaveMasks() : m() {
        for (int out = 0; out < 3; ++out)
            for (int ch = 0; ch < 3; ++ch)
                for (int p = 0; p < 32; ++p) {
                    const int q = 16 * out + p % 16;
                    m[out][ch][p] = static_cast<uint8_t>(q % 3 == ch ? q / 3 : 0x80);
                }
    }
};
constexpr InterleaveMasks kInterleave;

__attribute__((target("sse4.1"))) inline __m128i chroma_term(__m128i c, uint16_t m) {
    const __m128i twice = _mm_slli_epi16(_mm_abs_epi16(c), 1);
    return _mm_sign_epi16(_mm_mulhi_epu16(twice, _mm_set1_epi16(static_cast<int16_t>(m))), c);
}

// 16 pixels of blue, green and red sums (level shift included) as 48 bytes;
// packus clamps to 0..255 exactly like the range limit.
__attribute__((target("sse4.1"))) inline void store_bgr16(__m128i b0, __m128i b1, __m128i g0,
                                                          __m128i g1, __m128i r0, __m128i r1,
                                                          uint8_t* out) {
    const __m128i bb = _mm_packus_epi16(b0, b1), gg = _mm_packus_epi16(g0, g1),
                  rr = _mm_packus_epi16(r0, r1);
    for (int o = 0; o < 3; ++o) {
        const __m128i v = _mm_or_si128(
            _mm_or_si128(_mm_shuffle_epi8(bb, _mm_load_si128(reinterpret_cast<const __m128i*>(kInterleave.m[o][0]))),
                         _mm_shuffle_epi8(gg, _mm_load_si128(reinterpret_cast<const __m128i*>(kInterleave.m[o][1])))),
            _mm_shuffle_epi8(rr, _mm_load_si128(reinterpret_cast<const __m128i*>(kInterleave.m[o][2]))));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16 * o), v);
    }
}

// 16 pixels per step; the chroma terms of a step serve both lines.
__attribute__((target("sse4.1"))) int ycc_rows_sse41(const int8_t* lum0, const int8_t* lum1,
                                                    const int8_t* cb, const int8_t* cr, int f,
                                                    int width, uint8_t* out0, uint8_t* out1) {
    const __m128i bias = _mm_set1_epi16(128);
    int x = 0;
    for (; x + 16 <= width; x += 16) {
        __m128i tb[2], tg[2], tr[2];  // per pixel: blue, (minus) green and red terms + 128
        if (f == 2) {
            const __m128i cbv = _mm_cvtepi8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(cb + x / 2)));
            const __m128i crv = _mm_cvtepi8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(cr + x / 2)));
            const __m128i b = _mm_add_epi16(chroma_term(cbv, kCbB), bias);
            const __m128i r = _mm_add_epi16(chroma_term(crv, kCrR), bias);
            const __m128i g = _mm_sub_epi16(bias, _mm_add_epi16(chroma_term(cbv, kCbG), chroma_term(crv, kCrG)));
            tb[0] = _mm_unpacklo_epi16(b, b), tb[1] = _mm_unpackhi_epi16(b, b);
            tg[0] = _mm_unpacklo_epi16(g, g), tg[1] = _mm_unpackhi_epi16(g, g);
            tr[0] = _mm_unpacklo_epi16(r, r), tr[1] = _mm_unpackhi_epi16(r, r);
        } else {
            const __m128i cbv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(cb + x));
            const __m128i crv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(cr + x));
            for (int h = 0; h < 2; ++h) {
                const __m128i c1 = _mm_cvtepi8_epi16(h ? _mm_srli_si128(cbv, 8) : cbv);
                const __m128i c2 = _mm_cvtepi8_epi16(h ? _mm_srli_si128(crv, 8) : crv);
                tb[h] = _mm_add_epi16(chroma_term(c1, kCbB), bias);
                tr[h] = _mm_add_epi16(chroma_term(c2, kCrR), bias);
                tg[h] = _mm_sub_epi16(bias, _mm_add_epi16(chroma_term(c1, kCbG), chroma_term(c2, kCrG)));
            }
        }
        for (int line = 0; line < 2; ++line) {
            const int8_t* lum = line ? lum1 : lum0;
            if (!lum) break;
            const __m128i yv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lum + x));
            const __m128i y0 = _mm_cvtepi8_epi16(yv), y1 = _mm_cvtepi8_epi16(_mm_srli_si128(yv, 8));
            store_bgr16(_mm_add_epi16(y0, tb[0]), _mm_add_epi16(y1, tb[1]), _mm_add_epi16(y0, tg[0]),
                        _mm_add_epi16(y1, tg[1]), _mm_add_epi16(y0, tr[0]), _mm_add_epi16(y1, tr[1]),
                        (line ? out1 : out0) + 3 * x);
        }
    }
    return x;
}

__attribute__((target("avx2"))) inline __m256i chroma_term256(__m256i c, uint16_t m) {
    const __m256i twice = _mm256_slli_epi16(_mm256_abs_epi16(c), 1);
    return _mm256_sign_epi16(_mm256_mulhi_epu16(twice, _mm256_set1_epi16(static_cast<int16_t>(m))), c);
}

// 32 pixels of blue, green and red sums: lo holds pixels 0..15, hi 16..31.
__attribute__((target("avx2"))) inline void store_bgr32(__m256i b_lo, __m256i b_hi, __m256i g_lo,
                                                        __m256i g_hi, __m256i r_lo, __m256i r_hi,
                                                        uint8_t* out) {
    // packus works per half; the permutation puts pixels 0..15 in the low
    // half and 16..31 in the high one.
    const __m256i bb = _mm256_permute4x64_epi64(_mm256_packus_epi16(b_lo, b_hi), 0xD8);
    const __m256i gg = _mm256_permute4x64_epi64(_mm256_packus_epi16(g_lo, g_hi), 0xD8);
    const __m256i rr = _mm256_permute4x64_epi64(_mm256_packus_epi16(r_lo, r_hi), 0xD8);
    __m256i v[3];
    for (int o = 0; o < 3; ++o)
        v[o] = _mm256_or_si256(
            _mm256_or_si256(_mm256_shuffle_epi8(bb, _mm256_load_si256(reinterpret_cast<const __m256i*>(kInterleave.m[o][0]))),
                            _mm256_shuffle_epi8(gg, _mm256_load_si256(reinterpret_cast<const __m256i*>(kInterleave.m[o][1])))),
            _mm256_shuffle_epi8(rr, _mm256_load_si256(reinterpret_cast<const __m256i*>(kInterleave.m[o][2]))));
    // v[o]: bytes 16o .. 16o + 15 of pixels 0..15 (low half) and of pixels
    // 16..31 (high half).
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), _mm256_permute2x128_si256(v[0], v[1], 0x20));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 32), _mm256_permute2x128_si256(v[2], v[0], 0x30));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 64), _mm256_permute2x128_si256(v[1], v[2], 0x31));
}

// 32 pixels per step; the chroma terms of a step serve both lines.
__attribute__((target("avx2"))) int ycc_rows_avx2(const int8_t* lum0, const int8_t* lum1,
                                                  const int8_t* cb, const int8_t* cr, int f,
                                                  int width, uint8_t* out0, uint8_t* out1) {
    const __m256i bias = _mm256_set1_epi16(128);
    int x = 0;
    for (; x + 32 <= width; x += 32) {
        __m256i tb[2], tg[2], tr[2];  // pixels 0..15 and 16..31 of the step
        if (f == 2) {
            const __m256i cbv = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(cb + x / 2)));
            const __m256i crv = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(cr + x / 2)));
            const __m256i b = _mm256_add_epi16(chroma_term256(cbv, kCbB), bias);
            const __m256i r = _mm256_add_epi16(chroma_term256(crv, kCrR), bias);
            const __m256i g = _mm256_sub_epi16(
                bias, _mm256_add_epi16(chroma_term256(cbv, kCbG), chroma_term256(crv, kCrG)));
            // unpacklo / unpackhi double samples 0..3 | 8..11 and 4..7 | 12..15.
            const __m256i bl = _mm256_unpacklo_epi16(b, b), bh = _mm256_unpackhi_epi16(b, b);
            const __m256i gl = _mm256_unpacklo_epi16(g, g), gh = _mm256_unpackhi_epi16(g, g);
            const __m256i rl = _mm256_unpacklo_epi16(r, r), rh = _mm256_unpackhi_epi16(r, r);
            tb[0] = _mm256_permute2x128_si256(bl, bh, 0x20), tb[1] = _mm256_permute2x128_si256(bl, bh, 0x31);
            tg[0] = _mm256_permute2x128_si256(gl, gh, 0x20), tg[1] = _mm256_permute2x128_si256(gl, gh, 0x31);
            tr[0] = _mm256_permute2x128_si256(rl, rh, 0x20), tr[1] = _mm256_permute2x128_si256(rl, rh, 0x31);
        } else {
            for (int h = 0; h < 2; ++h) {
                const __m256i c1 = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(cb + x + 16 * h)));
                const __m256i c2 = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(cr + x + 16 * h)));
                tb[h] = _mm256_add_epi16(chroma_term256(c1, kCbB), bias);
                tr[h] = _mm256_add_epi16(chroma_term256(c2, kCrR), bias);
                tg[h] = _mm256_sub_epi16(
                    bias, _mm256_add_epi16(chroma_term256(c1, kCbG), chroma_term256(c2, kCrG)));
            }
        }
        for (int line = 0; line < 2; ++line) {
            const int8_t* lum = line ? lum1 : lum0;
            if (!lum) break;
            const __m256i y0 = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(lum + x)));
            const __m256i y1 = _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(lum + x + 16)));
            store_bgr32(_mm256_add_epi16(y0, tb[0]), _mm256_add_epi16(y1, tb[1]),
                        _mm256_add_epi16(y0, tg[0]), _mm256_add_epi16(y1, tg[1]),
                        _mm256_add_epi16(y0, tr[0]), _mm256_add_epi16(y1, tr[1]),
                        (line ? out1 : out0) + 3 * x);
        }
    }
    if (x + 16 <= width) {
        const int done = ycc_rows_sse41(lum0 + x, lum1 ? lum1 + x : nullptr, cb + x / f, cr + x / f,
                                        f, 16, out0 + 3 * x, out1 ? out1 + 3 * x : nullptr);
        x += done;
    }
    return x;
}
#endif

}  // namespace

void RowConverter::ycc(int y, uint8_t* out0, uint8_t* out1) const {
    const int w = l_.width;
    if (ycc_rows_) {
        const int8_t* lum0 = row(0, y);
        const int8_t* lum1 = out1 ? row(0, y + 1) : nullptr;
        const int8_t* cb = row(1, y);
        const int8_t* cr = row(2, y);
        const int f = fx_[1];
        const int start = ycc_rows_(lum0, lum1, cb, cr, f, w, out0, out1);
        ycc_tail(lum0, cb, cr, f, start, w, out0);
        if (out1) ycc_tail(lum1, cb, cr, f, start, w, out1);
        return;
    }
    for (int line = 0; line < (out1 ? 2 : 1); ++line) {
        const int yy = y + line;
        uint8_t* out = line ? out1 : out0;
        const int8_t* lum = row(0, yy);
        const int8_t* cb = row(1, yy);
        const int8_t* cr = row(2, yy);
        if (fx_[0] == 1 && fx_[1] == fx_[2]) {
            ycc_tail(lum, cb, cr, fx_[1], 0, w, out);
            continue;
        }
        const ChromaTables& t = chroma_tables();
        for (int x = 0; x < w; ++x, out += 3) {
            const int32_t v = lum[x / fx_[0]];
            const uint8_t b = static_cast<uint8_t>(cb[x / fx_[1]]);
            const uint8_t r = static_cast<uint8_t>(cr[x / fx_[2]]);
            out[0] = range_limit(v + t.cb_b[b]);
            out[1] = range_limit(v - (t.cb_g[b] + t.cr_g[r]));
            out[2] = range_limit(v + t.cr_r[r]);
        }
    }
}

void RowConverter::rgb(int y, uint8_t* out) const {
    const int8_t* r = row(0, y);
    const int8_t* g = row(1, y);
    const int8_t* b = row(2, y);
    for (int x = 0; x < l_.width; ++x, out += 3) {
        out[0] = range_limit(b[x / fx_[2]]);
        out[1] = range_limit(g[x / fx_[1]]);
        out[2] = range_limit(r[x / fx_[0]]);
    }
}

void RowConverter::four(int y, uint8_t* out) const {
    const ChromaTables& t = chroma_tables();
    const int8_t* p0 = row(0, y);
    const int8_t* p1 = row(1, y);
    const int8_t* p2 = row(2, y);
    const int8_t* p3 = row(3, y);
    for (int x = 0; x < l_.width; ++x, out += 4) {
        const int32_t c0 = p0[x / fx_[0]], c1 = p1[x / fx_[1]], c2 = p2[x / fx_[2]],
                      k = p3[x / fx_[3]];
        if (l_.cmyk_mode == 0) {
            out[0] = static_cast<uint8_t>(255 - range_limit(c0));
            out[1] = static_cast<uint8_t>(255 - range_limit(c1));
            out[2] = static_cast<uint8_t>(255 - range_limit(c2));
            out[3] = static_cast<uint8_t>(255 - range_limit(k));
            continue;
        }
        const uint8_t b = static_cast<uint8_t>(c1), r = static_cast<uint8_t>(c2);
        const int32_t tb = t.cb_b[b], tg = t.cb_g[b] + t.cr_g[r], tr = t.cr_r[r];
        if (l_.cmyk_mode == 1) {
            out[0] = range_limit(c0 + tb - k - 128);
            out[1] = range_limit(c0 - tg - k - 128);
            out[2] = range_limit(c0 + tr - k - 128);
            out[3] = static_cast<uint8_t>(k + 128);
        } else {
            out[0] = range_limit(c0 + tr);
            out[1] = range_limit(c0 - tg);
            out[2] = range_limit(c0 + tb);
            out[3] = static_cast<uint8_t>(255 - range_limit(k));
        }
    }
}

// Each pixel carries one 32-bit little-endian value per component, taken
// from the component's own coefficient plane (0 outside it).
void RowConverter::coefficients(int y, uint8_t* out) const {
    for (int c = 0; c < l_.nf; ++c) {
        const Plane& p = *l_.plane[c];
        const int32_t* src = y < p.height ? p.coefficient_row(y) : nullptr;
        for (int x = 0; x < l_.width; ++x) {
            const int32_t v = (src && x < p.width) ? src[x] : 0;
            store_le32(out + (static_cast<size_t>(x) * l_.nf + c) * 4, static_cast<uint32_t>(v));
        }
    }
}

void row_kernels(Kernels& k, Isa isa) {
#if defined(__x86_64__) && defined(__GNUC__)
    if (isa == Isa::kSse41) k.ycc_rows = ycc_rows_sse41;
    if (isa == Isa::kAvx2) k.ycc_rows = ycc_rows_avx2;
#else
    (void)k, (void)isa;
#endif
}

}  // namespace tesslin::jpeg
