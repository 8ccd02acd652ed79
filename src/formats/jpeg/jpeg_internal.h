// Pieces shared by the JPEG decoder and encoder: the fixed tables, the
// integer transforms and the Huffman table construction. Private to
// src/formats/jpeg/ (and the tests that prove the fast paths exact).
#pragma once

#include <cstdint>
#include <cstring>

namespace tesslin::jpeg {

// Position k in zig-zag scan order to the natural (row-major) index, and to
// the column-major index the inverse transform reads.
extern const uint8_t kZigzag[64];
extern const uint8_t kZigzagColumns[64];
// Default quantisation tables 0 and 1 (zig-zag order), used when a stream
// defines neither; the encoder's tables before the quality is first set.
const uint16_t* default_quant(int table);

// The four Huffman tables written by the encoder and installed by the
// decoder for a scan whose table was never defined: counts per length
// 1..16 then symbols.
struct HuffmanCodeLengths {
    uint8_t counts[16];
    const uint8_t* symbols;
    int total;
};
extern const HuffmanCodeLengths kDcLuma, kDcChroma, kAcLuma, kAcChroma;

// ---- Decoder colour tables -------------------------------------------------
// Indexed by the chroma sample's byte (0..127 for 0..127, 128..255 for
// -128..-1): the product of the signed value and the constant, truncated
// toward zero.
struct ChromaTables {
    int16_t cr_r[256];  // 1.402
    int16_t cb_g[256];  // 0.34414
    int16_t cr_g[256];  // 0.71414
    int16_t cb_b[256];  // 1.772
};
const ChromaTables& chroma_tables();

// Level shift and clamp of a signed sample sum: 0 below -128, 255 above 127.
inline uint8_t range_limit(int32_t v) {
    v += 128;
    return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
}

// ---- Encoder colour tables --------------------------------------------------
// Nine tables of trunc(c * v + 0.5) for v = 0..255, negated for the negative
// constants.
struct RgbTables {
    int16_t y_r[256], y_g[256], y_b[256];
    int16_t cb_r[256], cb_g[256], cb_b[256];
    int16_t cr_r[256], cr_g[256], cr_b[256];
};
const RgbTables& rgb_tables();

// The colour tables applied to a row of blue, green, red bytes: Y of every
// pixel (level-shifted), Cb and Cr of every h-th pixel for h = 1 or 2 (none
// for h = 0), as fast as the processor allows. Returns how many leading
// pixels it converted (a multiple of 16, possibly 0); the caller does the
// rest with the tables.
int bgr_to_ycc_fast(const uint8_t* bgr, int n, int h, int16_t* y, int16_t* cb, int16_t* cr);

// ---- Integer transforms -----------------------------------------------------
// All arithmetic is 32-bit two's complement; wrap-around on absurd inputs is
// part of the definition (and never undefined behaviour here).
inline int32_t wrap_mul(int32_t c, int32_t x) {
    return static_cast<int32_t>(static_cast<uint32_t>(c) * static_cast<uint32_t>(x));
}
inline int32_t wrap_add(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t wrap_sub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}
// (c * x + 512) >> 10, arithmetic shift.
inline int32_t descale(int32_t c, int32_t x) { return wrap_add(wrap_mul(c, x), 512) >> 10; }

// One 8-point inverse transform (gain 2).
void idct_1d(const int32_t* in, int32_t* out);
// One 8-point forward transform (gain 2).
void fdct_1d(const int32_t* in, int32_t* out);

// Inverse transform of one block of 64 dequantised coefficients stored
// column-major (coef[u * 8 + v], u the horizontal and v the vertical
// frequency) into 8 rows of signed samples clamped to -127..127. `used`
// has bit v set when row v of the block holds a non-zero coefficient and
// bit 8 + u when column u does (a superset is fine; no column bits at all
// means any column may).
using IdctFn = void (*)(const int16_t* coef, uint32_t used, int8_t* out, int stride);
IdctFn idct_block();
void idct_block_scalar(const int16_t* coef, uint32_t used, int8_t* out, int stride);

// Forward transform of an 8 x 8 block of level-shifted samples within
// -128..128 (rows of `stride` int16 values) into 64 coefficients in natural
// order, four times the T.81 scale, kept to 16 bits.
using FdctFn = void (*)(const int16_t* samples, int stride, int16_t* out);
FdctFn fdct_block();
void fdct_block_scalar(const int16_t* samples, int stride, int16_t* out);

// ---- Quantisation (encoder) -------------------------------------------------
// Coefficients four times the T.81 scale divided by table entry Q:
// sign(x) * (|x| / 4) for Q = 1, else sign(x) * ((|x| + 2Q) / (4Q)).
// The division is a multiplication by r = floor(2^32 / 4Q) + 1 (2^30 for
// Q = 1) and a shift by 32, exact for every dividend below 2^16 (the error
// of the reciprocal stays below one part in 2^32 / 4Q). The product is
// taken in two 16-bit halves of r so that it fits 32-bit lanes:
// (n * r) >> 32 = (n * (r >> 16) + ((n * (r & 0xFFFF)) >> 16)) >> 16.
struct Quantiser {
    alignas(32) int32_t add[64];       // 2Q, or 0 for Q = 1
    alignas(32) int32_t recip_hi[64];  // r >> 16
    alignas(32) int32_t recip_lo[64];  // r & 0xFFFF
    void set(const uint8_t* natural) {
        for (int i = 0; i < 64; ++i) {
            const uint32_t q = natural[i] ? natural[i] : 1;
            const uint32_t r =
                q == 1 ? (1u << 30) : static_cast<uint32_t>((uint64_t(1) << 32) / (4 * q) + 1);
            add[i] = q == 1 ? 0 : static_cast<int32_t>(2 * q);
            recip_hi[i] = static_cast<int32_t>(r >> 16);
            recip_lo[i] = static_cast<int32_t>(r & 0xFFFF);
        }
    }
    int32_t operator()(int i, int32_t x) const {
        const uint32_t n = static_cast<uint32_t>(x < 0 ? -x : x) + static_cast<uint32_t>(add[i]);
        const uint32_t hi = n * static_cast<uint32_t>(recip_hi[i]);
        const uint32_t lo = (n * static_cast<uint32_t>(recip_lo[i])) >> 16;
        const int32_t v = static_cast<int32_t>((hi + lo) >> 16);
        return x < 0 ? -v : v;
    }
};

// Quantises a block of coefficients (natural order) into zig-zag order and
// returns the mask of the non-zero positions (bit k for position k).
using QuantiseFn = uint64_t (*)(const int16_t* coef, const Quantiser& q, int16_t* zz);
QuantiseFn quantise_block();
uint64_t quantise_block_scalar(const int16_t* coef, const Quantiser& q, int16_t* zz);

// ---- Huffman decoding tables -----------------------------------------------
constexpr int kLookBits = 9;
constexpr uint32_t kEndOfBlock = 0xFF;

struct HuffmanDecode {
    bool defined = false;
    uint8_t counts[16] = {};
    uint8_t symbols[256] = {};
    int32_t maxcode[17] = {};  // per length 1..16: largest code, -1 when none
    int32_t offset[17] = {};   // symbol index = code + offset[len]
    // Entry for the next kLookBits bits: (length << 8) | symbol, or 0 when
    // the code is longer than kLookBits bits.
    uint16_t look[1 << kLookBits] = {};
    // AC tables: the code and its value bits together when both fit in
    // kLookBits bits: bits 0-7 the total length (0: not here), bits 8-15
    // the zero run before the value (kEndOfBlock for symbol 0x00), bits
    // 16-31 the extended value (0 for a run without value).
    uint32_t fast[1 << kLookBits] = {};
};

// Builds the decoding table from counts and symbols (T.81 Annex C and
// F.2.2.3). False when the counts describe more codes than fit their
// lengths.
bool build_huffman(HuffmanDecode& t, const uint8_t counts[16], const uint8_t* symbols);

// Symbol of an s-bit received value: T.81 EXTEND.
inline int32_t extend(uint32_t v, int s) {
    return (s && v < (1u << (s - 1))) ? static_cast<int32_t>(v) - (1 << s) + 1 : static_cast<int32_t>(v);
}

}  // namespace tesslin::jpeg
