// Colour model conversions: the CMYK formula's bytes, grey beside Pillow's
// luma on a photograph, and planes split and joined.
#include <gtest/gtest.h>

#include "colour_util.h"

using namespace tesslin;
using namespace tesslin::test;

// RGB to CMYK bytes (cyan, magenta, yellow, black) of the formula; white
// and black are the definition's own examples. The result is compression 0
// (CMYK); reading it back (Promote.CmykAndAlphaToRgb) is not the inverse.
TEST(Convert, RgbToCmykBytes) {
    struct Case {
        uint32_t rgb, cmyk;  // cmyk: cyan in the lowest byte
    } cases[] = {
        {0xFFFFFF, 0x00000000},
        {0x000000, 0x4CF1F1F1},  // 241, 241, 241, 76
        {0x0A64C8, 0x49006EE8},  // c 245 m 155 y 55, k 73: 232, 110, 0 (yellow below k)
        {0xFF0000, 0x4CF1F100},  // c 0 below k: 0, 241, 241, 76
    };
    for (const Case& c : cases) {
        const Handle h = rgb_handle(3, 2, [&](int32_t, int32_t) { return c.rgb; });
        ASSERT_EQ(IMG_rgb_to_cmyk(h), 0);
        EXPECT_EQ(info_of(h).biBitCount, 32);
        EXPECT_EQ(info_of(h).biCompression, 0u);
        EXPECT_EQ(load_le32(get_row(h, 1).data() + 4), c.cmyk) << std::hex << c.rgb;
    }
}

// Grey: 253 for 24-bit white, 213 for a palette entry of white; on a
// photograph within 3 levels of Pillow's luma (299 R + 587 G + 114 B).
TEST(Convert, GreyValues) {
    const Handle white = rgb_handle(2, 2, [](int32_t, int32_t) { return 0xFFFFFFu; });
    ASSERT_EQ(IMG_color_gray(white), 0);
    EXPECT_EQ(get_row(white, 0)[0], 253);
    const Bytes header = header_of(white);
    EXPECT_EQ(load_le32(header.data() + 40 + 4 * 200), 0xC8C8C8u);  // grey ramp
    const Handle pal = make_handle(2, 2, 8, [](uint8_t* row, uint32_t, int32_t) { row[0] = row[1] = 255; });
    ASSERT_EQ(IMG_color_gray(pal), 0);
    EXPECT_EQ(get_row(pal, 1)[1], 213);

    const std::string file = corpus("png/rgb.png");
    const Raster luma = pillow(file, "L");
    if (luma.px.empty()) GTEST_SKIP() << "Pillow missing";
    const Handle h = IMG_decompress_bitmap(file.c_str());
    ASSERT_EQ(IMG_color_gray(h), 0);
    const Raster ours = handle_raster(h);
    int worst = 0;
    for (int32_t y = 0; y < luma.height; ++y)
        for (int32_t x = 0; x < luma.width; ++x) worst = std::max(worst, std::abs(ours.at(x, y)[0] - luma.at(x, y)[0]));
    EXPECT_LE(worst, 3);
}

// Planes 0, 1, 2 of a photograph are its blue, green and red; combined they
// give the photograph back. Four planes make CMYK. Plane 3 of 24 bits and
// planes of other sizes are refused.
TEST(Convert, SeparateAndCombine) {
    const Handle h = IMG_decompress_bitmap(corpus("tone/rgb-none.tif").c_str());
    ASSERT_GE(h, 0);
    const Raster original = handle_raster(h);
    Handle planes[3];
    for (int p = 0; p < 3; ++p) {
        planes[p] = IMG_color_separate(h, p);
        ASSERT_GE(planes[p], 0);
        EXPECT_EQ(info_of(planes[p]).biBitCount, 8);
        const Raster r = handle_raster(planes[p]);
        for (int32_t y = 0; y < r.height; y += 7)
            for (int32_t x = 0; x < r.width; x += 5) ASSERT_EQ(r.at(x, y)[0], original.at(x, y)[2 - p]);
    }
    EXPECT_EQ(IMG_color_separate(h, 3), IMG_ERR_DEPTH);
    EXPECT_EQ(IMG_color_separate(h, -1), IMG_ERR_DEPTH);
    const Handle back = IMG_color_combine(planes[0], planes[1], planes[2], 0, 3);
    ASSERT_GE(back, 0);
    EXPECT_EQ(info_of(back).biBitCount, 24);
    EXPECT_EQ(count_differences(handle_raster(back), original, 3), 0u);

    const Handle cmyk = IMG_color_combine(planes[0], planes[1], planes[2], planes[0], 4);
    ASSERT_GE(cmyk, 0);
    EXPECT_EQ(info_of(cmyk).biBitCount, 32);
    EXPECT_EQ(info_of(cmyk).biCompression, 0u);
    const Handle black = IMG_color_separate(cmyk, 3);
    ASSERT_GE(black, 0);
    EXPECT_EQ(get_row(black, 9), get_row(planes[0], 9));

    const Handle small = make_handle(5, 5, 8);
    EXPECT_EQ(IMG_color_combine(planes[0], small, planes[2], 0, 3), IMG_ERR_DEPTH);
    EXPECT_EQ(IMG_color_combine(planes[0], planes[1], planes[2], 0, 2), IMG_ERR_DEPTH);
    EXPECT_EQ(IMG_color_combine(planes[0], h, planes[2], 0, 3), IMG_ERR_DEPTH);
    EXPECT_EQ(IMG_color_combine(planes[0], planes[1], planes[2], -5, 4), IMG_ERR_HANDLE);
}
