// The standard palettes written into headers by name.
#include <gtest/gtest.h>

#include "process/colour/palette.h"
#include "test_util.h"

using namespace tesslin;

namespace {

// The palette `name` gives a header of `bits`, with one entry beyond it
// (left at 0xCD when the palette is shorter than the block).
std::vector<RgbQuad> palette_for(int bits, const char* name) {
    alignas(4) uint8_t block[1064];
    std::memset(block, 0xCD, sizeof block);
    auto* h = reinterpret_cast<DibHeader*>(block);
    *h = dib_header(1, 1, uint16_t(bits));
    build_standard_palette(h, name);
    const RgbQuad* p = dib_palette(block);
    return std::vector<RgbQuad>(p, p + palette_entries(uint32_t(bits)) + (bits < 8 ? 1 : 0));
}

uint32_t rgb(const RgbQuad& q) {
    return q.rgbReserved ? 0xFFFFFFFF : uint32_t(q.rgbRed) << 16 | uint32_t(q.rgbGreen) << 8 | q.rgbBlue;
}

}  // namespace

TEST(StandardPalettes, NamedEntries) {
    struct Case {
        int bits;
        const char* name;
        int dithermode;
        size_t entry;
        uint32_t want;  // 0xRRGGBB, 0xCDCDCDCD: nothing written there
    } cases[] = {
        {4, "tiff", 1, 5, 0x505050},          {4, "tiff", 1, 16, 0xCDCDCDCD},  // 16 entries only
        {8, "tiff", 1, 200, 0xC8C8C8},        {16, "tiff", 1, 255, 0xFFFFFF},
        {1, "dither", 1, 0, 0x000000},        {1, "dither", 1, 1, 0xFFFFFF},   {1, "dither", 1, 2, 0xCDCDCDCD},
        {4, "dither", 1, 1, 0xC80000},        {4, "dither", 1, 6, 0x00C8C8},   {4, "dither", 1, 8, 0x000000},
        {4, "dither", 1, 15, 0xFFFFFF},       {4, "no such name", 1, 7, 0x808080},
        {4, "pcx", 1, 4, 0x000080},           {4, "pcx", 1, 12, 0x0000FF},
        {8, "targa", 1, 0xFF, 0xFFFFFF},      {8, "targa", 1, 0x25, 0x242455},  // red, green, blue 1 (3-3-2)
        {8, "targa", 1, 0, 0x000000},         {8, "targa", 1, 200, 0xDA4800},   // 6, 2, 0
        {8, "332", 2, 0, 0x000000},           {8, "332", 2, 8, 0xC0DCC0},      {8, "332", 2, 246, 0xFFFBF0},
        {8, "332", 2, 255, 0xFFFFFF},         {4, "332", 1, 16, 0xCDCDCDCD},
    };
    for (const Case& c : cases) {
        IMGLOW_set_dithermode(c.dithermode);
        const auto p = palette_for(c.bits, c.name);
        const uint32_t got = c.want == 0xCDCDCDCD ? uint32_t(p[c.entry].rgbRed) * 0x01010101u : rgb(p[c.entry]);
        EXPECT_EQ(got, c.want) << c.bits << " bits " << c.name << " entry " << c.entry;
    }
    // Grey ramps follow the bit count; mode 0's 332 palette is the cube.
    const auto four = palette_for(4, "tiff"), eight = palette_for(8, "tiff"), targa = palette_for(8, "targa");
    for (uint32_t i = 0; i < 16; ++i) EXPECT_EQ(rgb(four[i]), i * 16 * 0x010101u) << i;
    for (uint32_t i = 0; i < 256; ++i) EXPECT_EQ(rgb(eight[i]), i * 0x010101u) << i;
    IMGLOW_set_dithermode(0);
    const auto cube = palette_for(8, "332");
    IMGLOW_set_dithermode(1);
    for (size_t i = 0; i < 256; ++i) EXPECT_EQ(rgb(cube[i]), rgb(targa[i])) << i;
}
