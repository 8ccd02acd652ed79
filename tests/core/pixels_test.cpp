// Shared pixel conversions: what the format tests do not reach. The vector
// swaps against their plain loops on every length around the vector widths
// (in place and not), and the index widths no current format uses.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "core/pixels.h"

using namespace tesslin;

namespace {

std::vector<uint8_t> pattern(size_t n) {
    std::vector<uint8_t> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = uint8_t(i * 37 + 11);
    return v;
}

}  // namespace

TEST(Pixels, VectorSwapsMatchPlainLoopsOnEveryLength) {
    using Swap = void (*)(const uint8_t*, uint8_t*, uint32_t);
    const struct {
        Swap vector, plain;
        uint32_t bytes;
    } cases[] = {{pixels::swap_rgb24, pixels::portable::swap_rgb24, 3},
                 {pixels::swap_rgb32, pixels::portable::swap_rgb32, 4}};
    for (const auto& c : cases) {
        for (uint32_t n = 0; n <= 53; ++n) {
            const auto src = pattern(size_t(n) * c.bytes);
            std::vector<uint8_t> want(src.size()), got(src.size()), in_place = src;
            c.plain(src.data(), want.data(), n);
            c.vector(src.data(), got.data(), n);
            c.vector(in_place.data(), in_place.data(), n);
            EXPECT_EQ(got, want) << c.bytes << " bytes, " << n << " pixels";
            EXPECT_EQ(in_place, want) << c.bytes << " bytes, " << n << " pixels in place";
            if (n) {
                EXPECT_EQ(want[0], src[2]);
            }
        }
    }
}

TEST(Pixels, IndicesOfEveryWidthExpand) {
    RgbQuad palette[256];
    for (int i = 0; i < 256; ++i) palette[i] = RgbQuad{uint8_t(i), uint8_t(255 - i), uint8_t(i ^ 0x55), 0};
    const uint8_t row[2] = {0xB4, 0x1E};  // 1011 0100 0001 1110
    const struct {
        uint32_t bits;
        std::vector<uint8_t> indices;
    } cases[] = {{1, {1, 0, 1, 1, 0, 1, 0, 0, 0, 0, 0, 1, 1, 1, 1, 0}},
                 {2, {2, 3, 1, 0, 0, 1, 3, 2}},
                 {4, {11, 4, 1, 14}},
                 {8, {0xB4, 0x1E}}};
    for (const auto& c : cases) {
        const auto n = uint32_t(c.indices.size());
        std::vector<uint8_t> unpacked(n), bgr(3 * n), bgra(4 * n);
        pixels::unpack_indices(row, c.bits, unpacked.data(), n);
        EXPECT_EQ(unpacked, c.indices) << c.bits << " bits";
        pixels::palette_to_bgr24(row, c.bits, palette, bgr.data(), n);
        pixels::palette_to_bgra32(row, c.bits, palette, bgra.data(), n);
        std::vector<uint8_t> want_bgr, want_bgra;
        for (uint8_t i : c.indices) {
            const RgbQuad& q = palette[i];
            want_bgr.insert(want_bgr.end(), {q.rgbBlue, q.rgbGreen, q.rgbRed});
            want_bgra.insert(want_bgra.end(), {q.rgbBlue, q.rgbGreen, q.rgbRed, 255});
        }
        EXPECT_EQ(bgr, want_bgr) << c.bits << " bits";
        EXPECT_EQ(bgra, want_bgra) << c.bits << " bits";
    }
}

TEST(Pixels, SixteenBitSamplesKeepTheirHighByteInEitherOrder) {
    // Two pixels of red, green, blue, alpha, extra: 0xRR01, 0xGG02 ...
    std::vector<uint8_t> big, little;
    for (int x = 0; x < 2; ++x)
        for (uint8_t v : {0x10, 0x20, 0x30, 0x40, 0x50}) {
            const uint8_t hi = uint8_t(v + x), lo = uint8_t(v >> 4);
            big.insert(big.end(), {hi, lo});
            little.insert(little.end(), {lo, hi});
        }
    for (const auto& [src, order] :
         {std::pair{big, pixels::Endian::kBig}, std::pair{little, pixels::Endian::kLittle}}) {
        std::vector<uint8_t> bgr(6), bgra(8), first(4);
        pixels::rgb16_to_bgr24(src.data(), 5, order, bgr.data(), 2);
        pixels::rgba16_to_bgra32(src.data(), 5, order, bgra.data(), 2);
        pixels::high_bytes16(src.data(), 5, 2, order, first.data(), 2);
        EXPECT_EQ(bgr, (std::vector<uint8_t>{0x30, 0x20, 0x10, 0x31, 0x21, 0x11}));
        EXPECT_EQ(bgra, (std::vector<uint8_t>{0x30, 0x20, 0x10, 0x40, 0x31, 0x21, 0x11, 0x41}));
        EXPECT_EQ(first, (std::vector<uint8_t>{0x10, 0x20, 0x11, 0x21}));
    }
    std::vector<uint8_t> grey = {7, 200}, bgr(6);
    pixels::grey_to_bgr24(grey.data(), bgr.data(), 2);
    EXPECT_EQ(bgr, (std::vector<uint8_t>{7, 7, 7, 200, 200, 200}));
}
