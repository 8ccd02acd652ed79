// Fixed JPEG tables: zig-zag order, the default quantisation tables, the
// Huffman tables of ITU-T T.81 Annex K, the colour tables, and the
// construction of Huffman decoding tables.
#include <atomic>
#include <cstring>

#include "core/cpu.h"
#include "core/settings.h"
#include "formats/jpeg/jpeg_internal.h"

namespace tesslin::jpeg {

const uint8_t kZigzag[64] = {0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,
                             12, 19, 26, 33, 40, 48, 41, 34, 27, 20, 13, 6,  7,  14, 21, 28,
                             35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23, 30, 37, 44, 51,
                             58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

const uint8_t kZigzagColumns[64] = {
    0,  8,  1,  2,  9,  16, 24, 17, 10, 3,  4,  11, 18, 25, 32, 40, 33, 26, 19, 12, 5,  6,
    13, 20, 27, 34, 41, 48, 56, 49, 42, 35, 28, 21, 14, 7,  15, 22, 29, 36, 43, 50, 57, 58,
    51, 44, 37, 30, 23, 31, 38, 45, 52, 59, 60, 53, 46, 39, 47, 54, 61, 62, 55, 63};

namespace {

struct DefaultQuant {
    uint16_t t[2][64];
    DefaultQuant() {
        for (int k = 0; k < 64; ++k) {
            t[0][k] = kJpegLumaBase[kZigzag[k]];
            t[1][k] = kJpegChromaDefault[kZigzag[k]];
        }
    }
};

const uint8_t kDcSymbols[12] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};

const uint8_t kAcLumaSymbols[162] = {
    0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61,
    0x07, 0x22, 0x71, 0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52,
    0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72, 0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25,
    0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45,
    0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63, 0x64,
    0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
    0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99,
    0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6,
    0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3,
    0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8,
    0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

const uint8_t kAcChromaSymbols[162] = {
    0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61,
    0x71, 0x13, 0x22, 0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33,
    0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1, 0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18,
    0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44,
    0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63,
    0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
    0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97,
    0x98, 0x99, 0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4,
    0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca,
    0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7,
    0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

// trunc(c * v + 0.5) for v >= 0, negated for negative constants.
int16_t rounded(double c, int v) {
    const double a = c < 0 ? -c : c;
    const int r = static_cast<int>(a * v + 0.5);
    return static_cast<int16_t>(c < 0 ? -r : r);
}

}  // namespace

const uint16_t* default_quant(int table) {
    static const DefaultQuant defaults;
    return defaults.t[table ? 1 : 0];
}

const HuffmanCodeLengths kDcLuma = {{0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0}, kDcSymbols, 12};
const HuffmanCodeLengths kDcChroma = {{0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0}, kDcSymbols, 12};
const HuffmanCodeLengths kAcLuma = {{0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d},
                             kAcLumaSymbols, 162};
const HuffmanCodeLengths kAcChroma = {{0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77},
                               kAcChromaSymbols, 162};

const ChromaTables& chroma_tables() {
    static const ChromaTables t = [] {
        ChromaTables c{};
        for (int i = 0; i < 256; ++i) {
            const int v = i < 128 ? i : i - 256;
            c.cr_r[i] = static_cast<int16_t>(1.402 * v);
            c.cb_g[i] = static_cast<int16_t>(0.34414 * v);
            c.cr_g[i] = static_cast<int16_t>(0.71414 * v);
            c.cb_b[i] = static_cast<int16_t>(1.772 * v);
        }
        return c;
    }();
    return t;
}

const RgbTables& rgb_tables() {
    static const RgbTables t = [] {
        RgbTables r{};
        for (int v = 0; v < 256; ++v) {
            r.y_r[v] = rounded(0.299, v);
            r.y_g[v] = rounded(0.587, v);
            r.y_b[v] = rounded(0.114, v);
            r.cb_r[v] = rounded(-0.16874, v);
            r.cb_g[v] = rounded(-0.33126, v);
            r.cb_b[v] = rounded(0.5, v);
            r.cr_r[v] = rounded(0.5, v);
            r.cr_g[v] = rounded(-0.41869, v);
            r.cr_b[v] = rounded(-0.08131, v);
        }
        return r;
    }();
    return t;
}

bool build_huffman(HuffmanDecode& t, const uint8_t counts[16], const uint8_t* symbols, bool dc) {
    int total = 0;
    for (int i = 0; i < 16; ++i) total += counts[i];
    if (total > 256) return false;
    std::memcpy(t.counts, counts, 16);
    std::memset(t.symbols, 0, sizeof t.symbols);
    std::memcpy(t.symbols, symbols, static_cast<size_t>(total));

    // Canonical codes: consecutive within a length, doubled between lengths.
    int32_t code = 0;
    int index = 0;
    for (int len = 1; len <= 16; ++len) {
        const int n = counts[len - 1];
        t.offset[len] = index - code;
        t.maxcode[len] = n ? code + n - 1 : -1;
        code += n;
        index += n;
        if (code > (1 << len)) return false;  // more codes than the length holds
        code <<= 1;
    }

    // Lookahead: run the bit-serial search over every prefix.
    auto search = [&](uint32_t v, int bits, int* length) -> int {
        for (int len = 1; len <= bits; ++len) {
            const int32_t c = static_cast<int32_t>(v >> (bits - len));
            if (c <= t.maxcode[len]) {
                *length = len;
                return t.symbols[(c + t.offset[len]) & 0xFF];
            }
        }
        return -1;
    };
    for (uint32_t v = 0; v < (1u << kLookBits); ++v) {
        int len = 0;
        const int sym = search(v, kLookBits, &len);
        t.look[v] = sym < 0 ? 0 : static_cast<uint16_t>((len << 8) | sym);
    }
    for (uint32_t v = 0; v < (1u << kFastBits); ++v) {
        int len = 0;
        const int sym = search(v, kFastBits, &len);
        if (sym < 0) {
            t.fast[v] = 0;
            continue;
        }
        // DC symbols are the value's bit count (above 16: corrupt data, left
        // to the bit-serial path); AC symbols a zero run and a bit count.
        const int run = dc ? 0 : sym >> 4, size = dc ? sym : sym & 15;
        if (dc && size > 16) {
            t.fast[v] = kFastCode | static_cast<uint32_t>(len) | (static_cast<uint32_t>(sym) << 8);
        } else if (sym == 0 && !dc) {
            t.fast[v] = kFastValue | static_cast<uint32_t>(len) | (kEndOfBlock << 8);
        } else if (len + size <= kFastBits) {
            const uint32_t bits = (v >> (kFastBits - len - size)) & ((1u << size) - 1);
            const int32_t value = size ? extend(bits, size) : 0;
            t.fast[v] = kFastValue | static_cast<uint32_t>(len + size) |
                        (static_cast<uint32_t>(run) << 8) | (static_cast<uint32_t>(value) << 16);
        } else {
            t.fast[v] = kFastCode | static_cast<uint32_t>(len) | (static_cast<uint32_t>(sym) << 8);
        }
    }
    t.defined = true;
    return true;
}

Isa best_isa() {
#if defined(__GNUC__) && defined(__x86_64__)
    if (cpu::has_avx2() && cpu::has_sse41()) return Isa::kAvx2;
    if (cpu::has_sse41() && cpu::has_ssse3()) return Isa::kSse41;
    return Isa::kSse2;
#else
    return Isa::kPortable;
#endif
}

namespace {

std::atomic<int> g_kernel_limit{static_cast<int>(Isa::kAvx2)};

Kernels build_kernels(Isa isa) {
    Kernels k;
    k.isa = isa;
    dct_kernels(k, isa);
    row_kernels(k, isa);
    encode_kernels(k, isa);
    return k;
}

template <Isa I>
const Kernels& kernels_for() {
    static const Kernels k = build_kernels(I);
    return k;
}

}  // namespace

const Kernels& kernels() {
    static const Isa best = best_isa();
    const int limit = g_kernel_limit.load(std::memory_order_relaxed);
    const Isa isa = static_cast<int>(best) < limit ? best : static_cast<Isa>(limit);
    switch (isa) {
        case Isa::kAvx2: return kernels_for<Isa::kAvx2>();
        case Isa::kSse41: return kernels_for<Isa::kSse41>();
        case Isa::kSse2: return kernels_for<Isa::kSse2>();
        case Isa::kPortable: break;
    }
    return kernels_for<Isa::kPortable>();
}

void limit_kernels(Isa isa) { g_kernel_limit.store(static_cast<int>(isa), std::memory_order_relaxed); }

}  // namespace tesslin::jpeg
