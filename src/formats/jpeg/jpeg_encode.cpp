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

namespace tesslin::jpeg {
namespace {

// Code and length per symbol of one Huffman table (T.81 Annex C).
struct HuffmanEncode {
    uint16_t code[256] = {};
    uint8_t size[256] = {};
    explicit HuffmanEncode(const HuffmanCodeLengths& table) {
        int k = 0;
        uint32_t c = 0;
        for (int len = 1; len <= 16; ++len) {
            for (int i = 0; i < table.counts[len - 1]; ++i, ++k) {
                code[table.symbols[k]] = static_cast<uint16_t>(c++);
                size[table.symbols[k]] = static_cast<uint8_t>(len);
            }
            c <<= 1;
        }
    }
};

const HuffmanEncode& dc_luma() { static const HuffmanEncode t(kDcLuma); return t; }
const HuffmanEncode& dc_chroma() { static const HuffmanEncode t(kDcChroma); return t; }
const HuffmanEncode& ac_luma() { static const HuffmanEncode t(kAcLuma); return t; }
const HuffmanEncode& ac_chroma() { static const HuffmanEncode t(kAcChroma); return t; }

}  // namespace

uint64_t quantise_block_scalar(const int16_t* coef, const Quantiser& q, int16_t* zz) {
    uint64_t mask = 0;
    for (int k = 0; k < 64; ++k) {
        const int n = kZigzag[k];
        zz[k] = static_cast<int16_t>(q(n, coef[n]));
        mask |= static_cast<uint64_t>(zz[k] != 0) << k;
    }
    return mask;
}

namespace {

#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("avx2"))) uint64_t quantise_avx2(const int16_t* coef, const Quantiser& q,
                                                       int16_t* zz) {
    alignas(32) int16_t natural[64];
    for (int i = 0; i < 64; i += 8) {
        const __m256i x = _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(coef + i)));
        const __m256i n = _mm256_add_epi32(_mm256_abs_epi32(x),
                                           _mm256_load_si256(reinterpret_cast<const __m256i*>(q.add + i)));
        const __m256i hi = _mm256_mullo_epi32(n, _mm256_load_si256(reinterpret_cast<const __m256i*>(q.recip_hi + i)));
        const __m256i lo = _mm256_srli_epi32(
            _mm256_mullo_epi32(n, _mm256_load_si256(reinterpret_cast<const __m256i*>(q.recip_lo + i))), 16);
        const __m256i v = _mm256_sign_epi32(_mm256_srli_epi32(_mm256_add_epi32(hi, lo), 16), x);
        const __m128i packed = _mm_packs_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
        _mm_store_si128(reinterpret_cast<__m128i*>(natural + i), packed);
    }
    for (int k = 0; k < 64; ++k) zz[k] = natural[kZigzag[k]];
    uint64_t mask = 0;
    for (int i = 0; i < 64; i += 32) {
        const __m256i zero = _mm256_setzero_si256();
        const __m256i a = _mm256_cmpeq_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(zz + i)), zero);
        const __m256i b = _mm256_cmpeq_epi16(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(zz + i + 16)), zero);
        // Bytes of the 16-bit compare results, restored to position order.
        const __m256i bytes = _mm256_permute4x64_epi64(_mm256_packs_epi16(a, b), 0xD8);
        mask |= static_cast<uint64_t>(~static_cast<uint32_t>(_mm256_movemask_epi8(bytes))) << i;
    }
    return mask;
}

// Colour conversion of 16 blue, green, red pixels per step. The colour
// tables trunc(c * v + 0.5) are exact as (v * M + 2^15) >> 16 with these
// 16-bit constants (checked against the tables by the tests), and that is
// an unsigned high multiplication plus the top bit of the low half.
constexpr uint16_t kYR = 19595, kYG = 38470, kYB = 7472, kCbR = 11059, kCbG = 21709, kHalf = 32768,
                   kCrG = 27439, kCrB = 5329;

// Byte shuffles that split 48 bytes of blue, green, red into the three
// channels: mask [input vector][channel].
struct SplitMasks {
    alignas(16) uint8_t m[3][3][16];
    constexpr SplitMasks() : m() {
        for (int in = 0; in < 3; ++in)
            for (int ch = 0; ch < 3; ++ch)
                for (int p = 0; p < 16; ++p) {
                    const int b = 3 * p + ch - 16 * in;
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
    const __m128i* mk = reinterpret_cast<const __m128i*>(kSplit.m);
    const __m128i shift = _mm_set1_epi16(128);
    const __m128i evens = _mm_setr_epi8(0, 2, 4, 6, 8, 10, 12, 14, -1, -1, -1, -1, -1, -1, -1, -1);
    int x = 0;
    for (; x + 16 <= n; x += 16, bgr += 48) {
        const __m128i in[3] = {_mm_loadu_si128(reinterpret_cast<const __m128i*>(bgr)),
                               _mm_loadu_si128(reinterpret_cast<const __m128i*>(bgr + 16)),
                               _mm_loadu_si128(reinterpret_cast<const __m128i*>(bgr + 32))};
        __m128i ch[3];
        for (int c = 0; c < 3; ++c)
            ch[c] = _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(in[0], _mm_load_si128(mk + c)),
                                              _mm_shuffle_epi8(in[1], _mm_load_si128(mk + 3 + c))),
                                 _mm_shuffle_epi8(in[2], _mm_load_si128(mk + 6 + c)));
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

#endif

}  // namespace

int bgr_to_ycc_fast(const uint8_t* bgr, int n, int h, int16_t* y, int16_t* cb, int16_t* cr) {
#if defined(__x86_64__) && defined(__GNUC__)
    if (cpu::has_sse41()) return bgr_to_ycc_sse41(bgr, n, h, y, cb, cr);
#endif
    (void)bgr, (void)n, (void)h, (void)y, (void)cb, (void)cr;
    return 0;
}

QuantiseFn quantise_block() {
#if defined(__x86_64__) && defined(__GNUC__)
    static const QuantiseFn fn = cpu::has_avx2() ? quantise_avx2 : quantise_block_scalar;
    return fn;
#else
    return quantise_block_scalar;
#endif
}

namespace {

// Bits most significant first; every 0xFF byte is followed by 0x00.
class BitWriter {
public:
    explicit BitWriter(StreamWriter& out) : out_(out) {}

    void put(uint32_t code, int size) {
        acc_ = (acc_ << size) | (code & ((1u << size) - 1));
        n_ += size;
        total_ += static_cast<uint64_t>(size);
        if (n_ >= 32) drain();
    }

    // Pads with zero bits to a multiple of 16 bits counted from the start
    // of the data and writes everything out.
    void finish() {
        const int pad = static_cast<int>((16 - total_ % 16) % 16);
        if (pad) put(0, pad);
        while (n_ >= 8) emit_byte();
        flush();
    }

    void flush() {
        if (used_) out_.write(buf_, used_);
        used_ = 0;
    }

private:
    // Four bytes at once when none of them is 0xFF.
    void drain() {
        const uint32_t w = static_cast<uint32_t>(acc_ >> (n_ - 32));
        if ((((~w) - 0x01010101u) & w & 0x80808080u) == 0) {
            store_be32(buf_ + used_, w);
            used_ += 4;
            n_ -= 32;
        } else {
            while (n_ >= 8) emit_byte();
        }
        if (used_ >= kFlushAt) flush();
    }
    void emit_byte() {
        n_ -= 8;
        const uint8_t b = static_cast<uint8_t>(acc_ >> n_);
        buf_[used_++] = b;
        if (b == 0xFF) buf_[used_++] = 0;
    }

    static constexpr uint32_t kFlushAt = 30000;
    StreamWriter& out_;
    uint64_t acc_ = 0;
    int n_ = 0;
    uint64_t total_ = 0;
    uint8_t buf_[kFlushAt + 64];
    uint32_t used_ = 0;
};

inline int magnitude_bits(uint32_t v) { return v ? 32 - __builtin_clz(v) : 0; }

struct Encoder {
    Encoder(const DibHeader* h, IMG_SUPPLY_CALLBACK s, intptr_t u) : header(h), supply(s), user(u) {}
    const DibHeader* header;
    IMG_SUPPLY_CALLBACK supply;
    intptr_t user;

    int width = 0, height = 0, bits = 0, nf = 0, h1 = 1, v1 = 1;
    bool grey = false;
    int channels = 0;  // bytes per prepared pixel
    int padded_w = 0, mcus_x = 0, mcus_y = 0;
    uint32_t in_bytes = 0;
    const RgbQuad* palette = nullptr;
    std::unique_ptr<uint8_t[]> in_row, prep;
    std::unique_ptr<int16_t[]> planes[4];
    int plane_w[4] = {};
    Quantiser luma_q, chroma_q;
    int32_t pred[4] = {};

    int32_t run(StreamWriter& out);
    bool write_headers(StreamWriter& out);
    void prepare();
    void convert(int line);
    void encode_block(BitWriter& bw, const int16_t* samples, int stride, int comp);
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
void Encoder::prepare() {
    const uint8_t* src = in_row.get();
    uint8_t* dst = prep.get();
    if (bits >= 24) {
        std::memcpy(dst, src, static_cast<size_t>(width) * channels);
    } else if (grey) {
        if (bits == 8) {
            std::memcpy(dst, src, static_cast<size_t>(width));
        } else if (bits == 4) {
            for (int x = 0; x < width; ++x)
                dst[x] = palette[(src[x >> 1] >> (x & 1 ? 0 : 4)) & 15].rgbBlue;
        } else {
            for (int x = 0; x < width; ++x) dst[x] = (src[x >> 3] >> (7 - (x & 7)) & 1) ? 255 : 0;
        }
    } else {
        pixels::palette_to_bgr24(src, static_cast<uint32_t>(bits), palette, dst,
                                 static_cast<uint32_t>(width));
    }
    for (int x = width; x < padded_w; ++x)
        std::memcpy(dst + static_cast<size_t>(x) * channels,
                    dst + static_cast<size_t>(width - 1) * channels, static_cast<size_t>(channels));
}

// Level-shifted samples of line `line` (0 .. 8 * v1 - 1) of the MCU row;
// chroma and the fourth component keep the top-left sample of every
// h1 x v1 group.
void Encoder::convert(int line) {
    const uint8_t* p = prep.get();
    int16_t* y = planes[0].get() + static_cast<size_t>(line) * padded_w;
    if (nf == 1) {
        for (int x = 0; x < padded_w; ++x) y[x] = static_cast<int16_t>(p[x] - 128);
        return;
    }
    const RgbTables& t = rgb_tables();
    // Three components: blue, green, red bytes. Four: bytes 0, 1, 2 take the
    // places of red, green and blue.
    const int ri = nf == 3 ? 2 : 0, bi = nf == 3 ? 0 : 2;
    const int step = channels;
    const bool chroma = line % v1 == 0;
    const int cw = padded_w / h1;
    const size_t row = static_cast<size_t>(line / v1) * cw;
    int16_t* cb = planes[1].get() + row;
    int16_t* cr = planes[2].get() + row;
    int start = 0;  // pixels already converted
    if (nf == 3 && h1 <= 2) start = bgr_to_ycc_fast(p, padded_w, chroma ? h1 : 0, y, cb, cr);
    for (int x = start; x < padded_w; ++x) {
        const uint8_t* px = p + static_cast<size_t>(x) * step;
        y[x] = static_cast<int16_t>(t.y_r[px[ri]] + t.y_g[px[1]] + t.y_b[px[bi]] - 128);
    }
    if (!chroma) return;
    int16_t* k = nf == 4 ? planes[3].get() + row : nullptr;
    for (int j = start / h1; j < cw; ++j) {
        const uint8_t* px = p + static_cast<size_t>(j) * h1 * step;
        const uint8_t r = px[ri], g = px[1], b = px[bi];
        cb[j] = static_cast<int16_t>(t.cb_r[r] + t.cb_g[g] + t.cb_b[b]);
        cr[j] = static_cast<int16_t>(t.cr_r[r] + t.cr_g[g] + t.cr_b[b]);
        if (k) k[j] = static_cast<int16_t>(127 - px[3]);
    }
}

void Encoder::encode_block(BitWriter& bw, const int16_t* samples, int stride, int comp) {
    alignas(32) int16_t coef[64];
    alignas(32) int16_t v[64];
    fdct_block()(samples, stride, coef);
    const uint64_t nonzero = quantise_block()(coef, comp ? chroma_q : luma_q, v);
    const HuffmanEncode& dc = comp ? dc_chroma() : dc_luma();
    const HuffmanEncode& ac = comp ? ac_chroma() : ac_luma();
    const int32_t diff = v[0] - pred[comp];
    pred[comp] = v[0];
    const uint32_t mag = static_cast<uint32_t>(diff < 0 ? -diff : diff);
    const int cat = magnitude_bits(mag);
    bw.put((static_cast<uint32_t>(dc.code[cat]) << cat) |
               (static_cast<uint32_t>(diff < 0 ? diff - 1 : diff) & ((1u << cat) - 1)),
           dc.size[cat] + cat);
    // Non-zero coefficients in zig-zag order; every 16 zeros before one
    // become a 0xF0 symbol, trailing zeros an end of block.
    uint64_t rest = nonzero >> 1;
    int k = 0;
    while (rest) {
        int run = __builtin_ctzll(rest);
        k += run + 1;
        rest = run + 1 < 64 ? rest >> (run + 1) : 0;
        for (; run >= 16; run -= 16) bw.put(ac.code[0xF0], ac.size[0xF0]);
        const int32_t x = v[k];
        const int size = magnitude_bits(static_cast<uint32_t>(x < 0 ? -x : x));
        const int sym = (run << 4) | size;
        bw.put((static_cast<uint32_t>(ac.code[sym]) << size) |
                   (static_cast<uint32_t>(x < 0 ? x - 1 : x) & ((1u << size) - 1)),
               ac.size[sym] + size);
    }
    if (k < 63) bw.put(ac.code[0], ac.size[0]);
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
    in_row.reset(new (std::nothrow) uint8_t[in_bytes + 8]);
    prep.reset(new (std::nothrow) uint8_t[static_cast<size_t>(padded_w) * channels + 8]);
    if (!in_row || !prep) return IMG_ERR_MEMORY;
    for (int c = 0; c < nf; ++c) {
        plane_w[c] = c == 0 ? padded_w : padded_w / h1;
        const size_t n = static_cast<size_t>(plane_w[c]) * (c == 0 ? 8 * v1 : 8);
        planes[c].reset(new (std::nothrow) int16_t[n]);
        if (!planes[c]) return IMG_ERR_MEMORY;
    }

    if (!write_headers(out)) return out.status();
    std::unique_ptr<BitWriter> bw(new (std::nothrow) BitWriter(out));
    if (!bw) return IMG_ERR_MEMORY;

    int line = 0;
    for (int my = 0; my < mcus_y; ++my) {
        for (int l = 0; l < 8 * v1; ++l) {
            if (line < height) {
                const int32_t r = supply(user, in_row.get(), line, in_bytes);
                if (r < 0) return r;
                prepare();
                ++line;
            }
            convert(l);
        }
        for (int m = 0; m < mcus_x; ++m) {
            for (int by = 0; by < v1; ++by)
                for (int bx = 0; bx < h1; ++bx)
                    encode_block(*bw,
                                 planes[0].get() + static_cast<size_t>(by) * 8 * padded_w +
                                     (m * h1 + bx) * 8,
                                 padded_w, 0);
            for (int c = 1; c < nf; ++c) encode_block(*bw, planes[c].get() + m * 8, plane_w[c], c);
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
