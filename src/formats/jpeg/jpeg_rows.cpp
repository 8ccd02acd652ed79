// Conversion of sample planes into delivered rows. Every component is
// replicated to the full resolution: pixel x of line y takes the sample at
// (x / (hmax / h), y / (vmax / v)) of its plane.
#include "core/cpu.h"
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

bool RowConverter::init(const RowLayout& layout) {
    l_ = layout;
    for (int i = 0; i < l_.nf; ++i) {
        fx_[i] = l_.hmax / l_.h[i];
        fy_[i] = l_.vmax / l_.v[i];
    }
    return true;
}

void RowConverter::convert(int y, uint8_t* out) const {
    if (l_.coefficients) coefficients(y, out);
    else if (l_.nf == 1) grey(y, out);
    else if (l_.nf == 3 && l_.rgb) rgb(y, out);
    else if (l_.nf == 3) ycc(y, out);
    else four(y, out);
}

void RowConverter::grey(int y, uint8_t* out) const {
    const int8_t* s = row(0, y);
    for (int x = 0; x < l_.width; ++x) out[x] = range_limit(s[x]);
}

namespace {

#if defined(__x86_64__)
// The chroma tables as multiplications: trunc(k * c) = sign(c) *
// ((|c| * M) >> 15) for every c in -128..127 with M = ceil(k * 2^15)
// (checked against the tables by the tests). (2|c| * M) >> 16 is one
// unsigned high multiplication.
constexpr uint16_t kCrR = 45941, kCbG = 11277, kCrG = 23401, kCbB = 58065;

// Byte shuffles that interleave 16 blue, 16 green and 16 red bytes into 48
// bytes: mask [out][channel], 0x80 where another channel's byte goes.
struct InterleaveMasks {
    alignas(16) uint8_t m[3][3][16];
    constexpr InterleaveMasks() : m() {
        for (int out = 0; out < 3; ++out)
            for (int ch = 0; ch < 3; ++ch)
                for (int p = 0; p < 16; ++p) {
                    const int q = 16 * out + p;
                    m[out][ch][p] = static_cast<uint8_t>(q % 3 == ch ? q / 3 : 0x80);
                }
    }
};
constexpr InterleaveMasks kInterleave;

__attribute__((target("sse4.1"))) inline __m128i chroma_term(__m128i c, uint16_t m) {
    const __m128i twice = _mm_slli_epi16(_mm_abs_epi16(c), 1);
    return _mm_sign_epi16(_mm_mulhi_epu16(twice, _mm_set1_epi16(static_cast<int16_t>(m))), c);
}

// 16 pixels per step with every luminance sample used and each chroma
// sample serving f (1 or 2) adjacent pixels; returns the pixels done.
__attribute__((target("sse4.1"))) int ycc_sse41(const int8_t* lum, const int8_t* cb,
                                               const int8_t* cr, int f, int width,
                                               uint8_t* out) {
    const __m128i bias = _mm_set1_epi16(128);
    const __m128i* mk = reinterpret_cast<const __m128i*>(kInterleave.m);
    int x = 0;
    for (; x + 16 <= width; x += 16, out += 48) {
        const __m128i yv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(lum + x));
        const __m128i y0 = _mm_cvtepi8_epi16(yv), y1 = _mm_cvtepi8_epi16(_mm_srli_si128(yv, 8));
        __m128i b0, b1, g0, g1, r0, r1;
        if (f == 2) {
            const __m128i cbv = _mm_cvtepi8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(cb + x / 2)));
            const __m128i crv = _mm_cvtepi8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(cr + x / 2)));
            const __m128i tb = chroma_term(cbv, kCbB), tr = chroma_term(crv, kCrR);
            const __m128i tg = _mm_add_epi16(chroma_term(cbv, kCbG), chroma_term(crv, kCrG));
            b0 = _mm_unpacklo_epi16(tb, tb), b1 = _mm_unpackhi_epi16(tb, tb);
            g0 = _mm_unpacklo_epi16(tg, tg), g1 = _mm_unpackhi_epi16(tg, tg);
            r0 = _mm_unpacklo_epi16(tr, tr), r1 = _mm_unpackhi_epi16(tr, tr);
        } else {
            const __m128i cbv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(cb + x));
            const __m128i crv = _mm_loadu_si128(reinterpret_cast<const __m128i*>(cr + x));
            const __m128i cb0 = _mm_cvtepi8_epi16(cbv), cb1 = _mm_cvtepi8_epi16(_mm_srli_si128(cbv, 8));
            const __m128i cr0 = _mm_cvtepi8_epi16(crv), cr1 = _mm_cvtepi8_epi16(_mm_srli_si128(crv, 8));
            b0 = chroma_term(cb0, kCbB), b1 = chroma_term(cb1, kCbB);
            r0 = chroma_term(cr0, kCrR), r1 = chroma_term(cr1, kCrR);
            g0 = _mm_add_epi16(chroma_term(cb0, kCbG), chroma_term(cr0, kCrG));
            g1 = _mm_add_epi16(chroma_term(cb1, kCbG), chroma_term(cr1, kCrG));
        }
        // Level shift, then packus clamps to 0..255 exactly like the range
        // limit.
        const __m128i bb = _mm_packus_epi16(_mm_add_epi16(_mm_add_epi16(y0, b0), bias),
                                            _mm_add_epi16(_mm_add_epi16(y1, b1), bias));
        const __m128i gg = _mm_packus_epi16(_mm_add_epi16(_mm_sub_epi16(y0, g0), bias),
                                            _mm_add_epi16(_mm_sub_epi16(y1, g1), bias));
        const __m128i rr = _mm_packus_epi16(_mm_add_epi16(_mm_add_epi16(y0, r0), bias),
                                            _mm_add_epi16(_mm_add_epi16(y1, r1), bias));
        for (int o = 0; o < 3; ++o) {
            const __m128i v = _mm_or_si128(
                _mm_or_si128(_mm_shuffle_epi8(bb, _mm_load_si128(mk + 3 * o)),
                             _mm_shuffle_epi8(gg, _mm_load_si128(mk + 3 * o + 1))),
                _mm_shuffle_epi8(rr, _mm_load_si128(mk + 3 * o + 2)));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16 * o), v);
        }
    }
    return x;
}

#endif

}  // namespace

void RowConverter::ycc(int y, uint8_t* out) const {
    const ChromaTables& t = chroma_tables();
    const int8_t* lum = row(0, y);
    const int8_t* cb = row(1, y);
    const int8_t* cr = row(2, y);
    const int w = l_.width;
    if (fx_[0] == 1 && fx_[1] == fx_[2]) {
        const int f = fx_[1];
        int start = 0;
#if defined(__x86_64__)
        if ((f == 1 || f == 2) && cpu::has_sse41()) start = ycc_sse41(lum, cb, cr, f, w, out);
#endif
        out += 3 * start;
        for (int x = start, j = start / f; x < w; x += f, ++j) {
            const uint8_t b = static_cast<uint8_t>(cb[j]), r = static_cast<uint8_t>(cr[j]);
            const int32_t tb = t.cb_b[b], tg = t.cb_g[b] + t.cr_g[r], tr = t.cr_r[r];
            const int n = w - x < f ? w - x : f;
            for (int i = 0; i < n; ++i, out += 3) {
                const int32_t v = lum[x + i];
                out[0] = range_limit(v + tb);
                out[1] = range_limit(v - tg);
                out[2] = range_limit(v + tr);
            }
        }
        return;
    }
    for (int x = 0; x < w; ++x, out += 3) {
        const int32_t v = lum[x / fx_[0]];
        const uint8_t b = static_cast<uint8_t>(cb[x / fx_[1]]);
        const uint8_t r = static_cast<uint8_t>(cr[x / fx_[2]]);
        out[0] = range_limit(v + t.cb_b[b]);
        out[1] = range_limit(v - (t.cb_g[b] + t.cr_g[r]));
        out[2] = range_limit(v + t.cr_r[r]);
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

}  // namespace tesslin::jpeg
