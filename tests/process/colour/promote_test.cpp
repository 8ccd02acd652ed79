// Depth promotion and CMYK to RGB: palette colours kept exactly (checked
// against the corpus's independent references), grey from the high byte of
// 16-bit samples, the CMYK formula's own numbers.
#include <gtest/gtest.h>

#include "colour_util.h"

using namespace tesslin;
using namespace tesslin::test;

// Every palette and bilevel corpus page promoted to 24 and 32 bits shows
// exactly the colours of its reference; to 8 bits palette images keep their
// colours and bilevel pages become 0/255 grey.
TEST(Promote, KeepsEveryPaletteColour) {
    for (const char* file : {"tone/palette8.tif", "tone/palette4.tif", "png/palette8.png", "bmp/mono.bmp",
                             "doc/g4.tif"}) {
        const Raster want = to_rgb(corpus_reference(file));
        ASSERT_FALSE(want.px.empty()) << file;
        struct {
            int32_t (*op)(int32_t);
            int bits;
        } const targets[] = {{IMG_promote_8, 8}, {IMG_promote_24, 24}, {IMG_promote_32, 32}};
        for (auto [op, bits] : targets) {
            SCOPED_TRACE(testing::Message() << file << " to " << bits);
            const Handle h = IMG_decompress_bitmap(corpus(file).c_str());
            ASSERT_GE(h, 0);
            ASSERT_EQ(op(h), 0);
            EXPECT_EQ(info_of(h).biBitCount, bits);
            EXPECT_EQ(info_of(h).biCompression, bits == 32 ? uint32_t(IMG_COMPRESSION_ALPHA) : 0u);
            EXPECT_EQ(IMG_runs_to_dib(h), IMG_ERR_UNSUPPORTED);  // plain rows now
            EXPECT_EQ(count_differences(handle_raster(h), want, 3), 0u);
        }
    }
}

// 16-bit samples: promote_24 and promote_32 write the high byte as grey and
// ignore the palette; promote_8 keeps the high byte and the palette.
TEST(Promote, SixteenBitSamplesGiveTheirHighByte) {
    auto make = [] {
        void* dib = make_dib(5, 2, 16, [](uint8_t* row, uint32_t, int32_t y) {
            for (int x = 0; x < 5; ++x) store_le16(row + 2 * x, uint16_t((x * 50 + y) << 8 | 0x7F));
        });
        dib_palette(dib)[100] = RgbQuad{1, 2, 3, 0};  // a non-grey entry nobody may use
        return IMG_create_handle_keep(dib);
    };
    const Handle h = make(), h8 = make(), h32 = make();
    ASSERT_EQ(IMG_promote_24(h), 0);
    ASSERT_EQ(IMG_promote_8(h8), 0);
    ASSERT_EQ(IMG_promote_32(h32), 0);
    for (int32_t y = 0; y < 2; ++y) {
        const Bytes r24 = get_row(h, y), r8 = get_row(h8, y), r32 = get_row(h32, y);
        for (int x = 0; x < 5; ++x) {
            const uint8_t v = uint8_t(x * 50 + y);
            EXPECT_EQ(r24[3 * x] * 0x10000 + r24[3 * x + 1] * 0x100 + r24[3 * x + 2], v * 0x010101);
            EXPECT_EQ(r8[x], v);
            EXPECT_EQ(load_le32(&r32[4 * x]), v * 0x010101u);
        }
    }
    EXPECT_EQ(dib_palette(header_of(h8).data())[100].rgbRed, 3);
}

// 32-bit to 24-bit: CMYK through the conversion formula, alpha-marked
// pixels by dropping the fourth byte.
TEST(Promote, CmykAndAlphaToRgb) {
    struct Case {
        uint32_t bytes, compression;
        uint8_t b, g, r;
    } cases[] = {
        {0x00000000, 0, 255, 255, 255},                         // no ink: white
        {0x4CF1F1F1, 0, 0, 0, 19},                              // the CMYK of black comes back dark red
        {0x000000FF, 0, 235, 198, 81},  // cyan 255: c = 145
        {0x80112233, IMG_COMPRESSION_ALPHA, 0x33, 0x22, 0x11},
    };
    for (const Case& c : cases) {
        for (auto op : {IMG_cmyk_to_rgb, IMG_promote_24}) {
            const Handle h = quad_handle(3, 2, c.bytes, c.compression);
            ASSERT_EQ(op(h), 0);
            ASSERT_EQ(info_of(h).biBitCount, 24);
            EXPECT_EQ(info_of(h).biCompression, 0u);
            const Bytes row = get_row(h, 1);
            EXPECT_EQ(row[6], c.b) << std::hex << c.bytes;
            EXPECT_EQ(row[7], c.g) << std::hex << c.bytes;
            EXPECT_EQ(row[8], c.r) << std::hex << c.bytes;
        }
    }
}
