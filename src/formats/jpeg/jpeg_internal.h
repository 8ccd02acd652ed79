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
// frequency) into 8 rows of signed samples clamped to -127..127, `stride`
// bytes apart. The vector kernels run in 16-bit lanes, which give the same
// results, when the coefficients' magnitudes sum to kIdctNarrowLimit or
// less (see jpeg_dct.cpp).
constexpr uint32_t kIdctNarrowLimit = 16384;
using IdctFn = void (*)(const int16_t* coef, int8_t* out, int stride);
// Two blocks at once.
using IdctPairFn = void (*)(const int16_t* a, int8_t* out_a, int stride_a, const int16_t* b,
                            int8_t* out_b, int stride_b);
void idct_block_scalar(const int16_t* coef, int8_t* out, int stride);
// A block whose only non-zero coefficient is the DC one: one value.
inline int8_t idct_dc_value(int16_t dc) {
    int32_t y = descale(724, descale(724, dc));
    y = wrap_add(y, 2) >> 2;
    return static_cast<int8_t>(y < -127 ? -127 : y > 127 ? 127 : y);
}

// Forward transform of an 8 x 8 block of level-shifted samples within
// -128..128 (rows of `stride` int16 values) into 64 coefficients in natural
// order, four times the T.81 scale, kept to 16 bits; the portable form that
// the plain encoder kernel uses.
void fdct_block(const int16_t* samples, int stride, int16_t* out);

// ---- Quantisation (encoder) -------------------------------------------------
// Coefficients four times the T.81 scale divided by table entry Q:
// sign(x) * (|x| / 4) for Q = 1, else sign(x) * ((|x| + 2Q) / (4Q)).
// The division is a multiplication by r = floor(2^32 / 4Q) + 1 (2^30 for
// Q = 1) and a shift by 32, exact for every dividend below 2^16 (the error
// of the reciprocal stays below one part in 2^32 / 4Q). The product is
// taken in two 16-bit halves of r so that it fits 32-bit lanes:
// (n * r) >> 32 = (n * (r >> 16) + ((n * (r & 0xFFFF)) >> 16)) >> 16.
// Quantisation of coefficients four times the T.81 scale by table entry
// Q: sign(x) * (|x| / 4) for Q = 1, else sign(x) * ((|x| + 2Q) / (4Q)),
// for every 16-bit x. Both divisions are floor((|x| + add) / 4) / Q with
// add = 2Q (0 for Q = 1); n = (|x| + add) >> 2 stays below 8,320. The
// quotient by Q is a 16-bit high multiplication by r = min(65535,
// 65536 / Q), which is at most one short (its error stays below
// n / 65536 < 1), and one correction: q + 1 when n - q * Q is still Q or
// more. Every step fits 16-bit lanes.
struct Quantiser {
    alignas(32) uint16_t add[64];      // 2Q, or 0 for Q = 1
    alignas(32) uint16_t recip[64];    // min(65535, 65536 / Q)
    alignas(32) uint16_t divisor[64];  // Q
    void set(const uint8_t* natural) {
        for (int i = 0; i < 64; ++i) {
            const uint32_t q = natural[i] ? natural[i] : 1;
            add[i] = static_cast<uint16_t>(q == 1 ? 0 : 2 * q);
            recip[i] = static_cast<uint16_t>(q == 1 ? 65535 : 65536 / q);
            divisor[i] = static_cast<uint16_t>(q);
        }
    }
    int32_t operator()(int i, int32_t x) const {
        const uint32_t n = (static_cast<uint32_t>(x < 0 ? -x : x) + add[i]) >> 2;
        uint32_t v = (n * recip[i]) >> 16;
        if (n - v * divisor[i] >= divisor[i]) ++v;
        return x < 0 ? -static_cast<int32_t>(v) : static_cast<int32_t>(v);
    }
};

// Quantises a block of coefficients into `out`, both in natural order, and
// returns the mask of the non-zero results in zig-zag order (bit k for
// zig-zag position k).
uint64_t quantise_block_scalar(const int16_t* coef, const Quantiser& q, int16_t* out);
// The forward transform and the quantisation of one block (`stride` as for
// fdct_block), with the mask quantise_block_scalar returns; the pair form
// does two blocks with the same stride and table, and stores the second
// mask in *mask_b.
using FdctQuantiseFn = uint64_t (*)(const int16_t* samples, int stride, const Quantiser& q,
                                    int16_t* out);
using FdctQuantisePairFn = uint64_t (*)(const int16_t* a, const int16_t* b, int stride,
                                        const Quantiser& q, int16_t* out_a, int16_t* out_b,
                                        uint64_t* mask_b);

// ---- Colour conversion kernels ------------------------------------------------
// Decoder: one or two rows of luminance samples (lum1 and out1 null for
// one) that share a row of chroma samples, into blue, green, red bytes;
// chroma sample j serves pixels f * j .. f * j + f - 1 (f = 1 or 2).
// Returns how many leading pixels it converted; the caller does the rest.
using YccRowsFn = int (*)(const int8_t* lum0, const int8_t* lum1, const int8_t* cb,
                          const int8_t* cr, int f, int width, uint8_t* out0, uint8_t* out1);
// Encoder: the colour tables applied to a row of blue, green, red bytes: Y
// of every pixel (level-shifted), Cb and Cr of every h-th pixel for h = 1
// or 2 (none for h = 0). Returns how many leading pixels it converted (the
// caller does the rest with the tables).
using BgrToYccFn = int (*)(const uint8_t* bgr, int n, int h, int16_t* y, int16_t* cb,
                           int16_t* cr);

// ---- Processor-specific kernels ---------------------------------------------
// The codec's loops with vector forms, by instruction set. Portable: plain
// C++ (GCC vector extensions where available), the reference for the
// others; SSE2: the x86-64 baseline; SSE4.1 (with SSSE3) and AVX2 are used
// when the processor has them. Every set gives identical results.
enum class Isa { kPortable = 0, kSse2 = 1, kSse41 = 2, kAvx2 = 3 };

struct Kernels {
    Isa isa = Isa::kPortable;
    IdctFn idct = nullptr;
    IdctPairFn idct_pair = nullptr;  // null: pairs go one block at a time
    FdctQuantiseFn fdct_quantise = nullptr;
    FdctQuantisePairFn fdct_quantise_pair = nullptr;  // null: one block at a time
    YccRowsFn ycc_rows = nullptr;      // null: table-driven rows
    BgrToYccFn bgr_to_ycc = nullptr;   // null: table-driven rows
};

// The best instruction set of the processor.
Isa best_isa();
// The kernels of the best instruction set, capped by limit_kernels. Read
// once per decode or encode.
const Kernels& kernels();
// Caps the instruction set kernels() answers with from now on (the tests
// run every set the processor has against the reference this way; the
// library never calls it). Not meant to change while codecs run.
void limit_kernels(Isa isa);

// Each source file fills in its own kernels for an instruction set.
void dct_kernels(Kernels& k, Isa isa);     // jpeg_dct.cpp
void row_kernels(Kernels& k, Isa isa);     // jpeg_rows.cpp
void encode_kernels(Kernels& k, Isa isa);  // jpeg_encode.cpp

// ---- Huffman decoding tables -----------------------------------------------
constexpr int kLookBits = 9;
constexpr int kFastBits = 10;
constexpr uint32_t kEndOfBlock = 0xFF;
// Flags of HuffmanDecode::fast entries.
constexpr uint32_t kFastValue = 0x80;  // code and value bits together
constexpr uint32_t kFastCode = 0x40;   // the code alone (its value bits follow)
constexpr uint32_t kFastLength = 0x3F;

struct HuffmanDecode {
    bool defined = false;
    uint8_t counts[16] = {};
    uint8_t symbols[256] = {};
    int32_t maxcode[17] = {};  // per length 1..16: largest code, -1 when none
    int32_t offset[17] = {};   // symbol index = code + offset[len]
    // Entry for the next kLookBits bits: (length << 8) | symbol, or 0 when
    // the code is longer than kLookBits bits.
    uint16_t look[1 << kLookBits] = {};
    // Entry for the next kFastBits bits, 0 when the code is longer:
    //   kFastValue | bits used (code and value) | run << 8 | value << 16
    //     when the value bits fit too: the run is the AC symbol's high
    //     nibble (kEndOfBlock for symbol 0x00; 0 in DC tables), the value
    //     the extended received value (0 without value bits);
    //   kFastCode | code length | symbol << 8 otherwise.
    uint32_t fast[1 << kFastBits] = {};
};

// Builds the decoding table of a DC or an AC table from counts and symbols
// (T.81 Annex C and F.2.2.3). False when the counts describe more codes
// than fit their lengths.
bool build_huffman(HuffmanDecode& t, const uint8_t counts[16], const uint8_t* symbols, bool dc);

// Symbol of an s-bit received value: T.81 EXTEND.
inline int32_t extend(uint32_t v, int s) {
    return (s && v < (1u << (s - 1))) ? static_cast<int32_t>(v) - (1 << s) + 1 : static_cast<int32_t>(v);
}

}  // namespace tesslin::jpeg
