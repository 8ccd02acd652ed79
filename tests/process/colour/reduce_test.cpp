// Reduction to palette images: the 16-colour dithers, the fixed-palette
// diffusion, the popularity and octree palettes, with the numbers of their
// own definitions and, for the octree, the quality ImageMagick's quantiser
// reaches on the same photograph.
#include <gtest/gtest.h>

#include "colour_util.h"
#include "process/colour/palette.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

std::vector<uint32_t> palette_of(int32_t h) {
    const Bytes header = header_of(h);
    std::vector<uint32_t> p;
    for (uint32_t i = 0; i < palette_entries(info_of(h).biBitCount); ++i)
        p.push_back(load_le32(header.data() + 40 + 4 * i) & 0xFFFFFF);
    return p;
}

// Index of pixel x of a 4- or 8-bit row.
uint32_t index_at(const Bytes& row, int bits, int32_t x) {
    return bits == 8 ? row[size_t(x)] : (x & 1) ? row[size_t(x) / 2] & 15 : row[size_t(x) / 2] >> 4;
}

int32_t photo() { return IMG_decompress_bitmap(corpus("png/rgb.png").c_str()); }

}  // namespace

// Burkes diffusion on pure (200, 0, 0): index 1 (128, 0, 0) first; its red
// error 72 gives the next pixel 18 and the one after 9, which with the
// second pixel's error of 90 reaches 231, above 220: index 9 (255, 0, 0).
TEST(Reduce, SixteenColourDiffusionNumbers) {
    const Handle h = rgb_handle(4, 1, [](int32_t, int32_t) { return 0xC80000u; });
    ASSERT_EQ(IMG_diffusion_color(h), 0);
    ASSERT_EQ(info_of(h).biBitCount, 4);
    EXPECT_EQ(get_row(h, 0)[0], 0x11);
    EXPECT_EQ(get_row(h, 0)[1], 0x91);
    EXPECT_EQ(palette_of(h)[1], 0x800000u);
    EXPECT_EQ(palette_of(h)[9], 0xFF0000u);
}

// Ordered 16-colour dither of white: every colour bit set (255 exceeds
// every threshold) and the intensity bit where 213 exceeds threshold + 40.
TEST(Reduce, SixteenColourOrderedDitherOfWhite) {
    const Handle h = rgb_handle(8, 8, [](int32_t, int32_t) { return 0xFFFFFFu; });
    ASSERT_EQ(IMG_bayer_color(h), 0);
    alignas(4) uint8_t block[1064] = {};
    *reinterpret_cast<DibHeader*>(block) = dib_header(1, 1, 4);
    build_standard_palette(reinterpret_cast<DibHeader*>(block), "pcx");
    int bright = 0;
    for (int32_t y = 0; y < 8; ++y)
        for (int32_t x = 0; x < 8; ++x) {
            const uint32_t i = index_at(get_row(h, y), 4, x);
            EXPECT_TRUE(i == 7 || i == 15);
            bright += i == 15;
        }
    EXPECT_EQ(bright, 44);  // thresholds below 173: 44 of the 64
    const Bytes header = header_of(h);
    EXPECT_EQ(Bytes(header.begin() + 40, header.begin() + 104), Bytes(block + 40, block + 104));
}

// The fixed-palette diffusion's palette follows the dithering mode; colours
// of the palette itself map to their own entry without error.
TEST(Reduce, FixedPaletteDiffusion) {
    for (int mode : {2, 1}) {
        IMGLOW_set_dithermode(mode);
        const Handle h = rgb_handle(16, 3, [](int32_t x, int32_t) { return x < 8 ? 0x000000u : 0xFFFFFFu; });
        ASSERT_EQ(IMG_mediancut_color(h), 0);
        // Mode 2: the fixed palette (entry 8 a light green); mode 1: the
        // 3-3-2 cube (the standard palettes' rows give both in full).
        const auto pal = palette_of(h);
        EXPECT_EQ(pal[8], mode == 2 ? 0xC0DCC0u : 0x004800u);
        EXPECT_EQ(pal[255], 0xFFFFFFu);
        for (int32_t y = 0; y < 3; ++y)
            for (int32_t x = 0; x < 16; ++x) EXPECT_EQ(pal[get_row(h, y)[size_t(x)]], x < 8 ? 0u : 0xFFFFFFu);
    }
    IMGLOW_set_dithermode(1);
}

// Three colours, none black: entry 0 black, the colours' 4-bit cells by
// frequency, then (240, 240, 240) for every remaining entry; pixels on
// their cells.
TEST(Reduce, PopularityPalette) {
    const Handle h = rgb_handle(10, 6, [](int32_t x, int32_t y) {
        const int32_t n = y * 10 + x;
        return n < 30 ? 0x2080F0u : n < 50 ? 0x11EE44u : 0xC0C0C0u;
    });
    ASSERT_EQ(IMG_popularity_color(h), 0);
    const auto pal = palette_of(h);
    EXPECT_EQ(pal[0], 0u);
    EXPECT_EQ(pal[1], 0x2080F0u);
    EXPECT_EQ(pal[2], 0x10E040u);
    EXPECT_EQ(pal[3], 0xC0C0C0u);
    for (size_t i = 4; i < 256; ++i) EXPECT_EQ(pal[i], 0xF0F0F0u);
    EXPECT_EQ(get_row(h, 0)[0], 1);
    EXPECT_EQ(get_row(h, 4)[0], 2);
    EXPECT_EQ(get_row(h, 5)[9], 3);
}

// Five distinct colours: five entries, every pixel exactly its own colour;
// a count of 4 is raised to 8 and keeps the five. A caller's palette
// becomes the tree; the image is then mapped onto it.
TEST(Reduce, OctreeOfFewColours) {
    const uint32_t colours[5] = {0x102030, 0xFF0000, 0x00FF80, 0x7F7F7F, 0xFEFEFE};
    for (auto [bits, count] : {std::pair{8, 256}, {8, 4}, {4, 16}}) {
        const Handle h = rgb_handle(11, 7, [&](int32_t x, int32_t y) { return colours[(x + 2 * y) % 5]; });
        const Raster before = handle_raster(h);
        ASSERT_EQ(IMG_octree_color(h, bits, nullptr, count), 5);
        EXPECT_EQ(info_of(h).biBitCount, bits);
        EXPECT_EQ(count_differences(handle_raster(h), before, 3), 0u);
    }
    // The caller's three colours are the palette, in tree order.
    const IMG_RGBQUAD caller[3] = {{255, 255, 255, 0}, {0, 0, 255, 0}, {0, 0, 0, 0}};
    const Handle h = rgb_handle(8, 8, [](int32_t x, int32_t) { return x < 4 ? 0u : 0xFFFFFFu; });
    ASSERT_EQ(IMG_octree_color(h, 8, caller, 3), 3);
    const auto pal = palette_of(h);
    EXPECT_EQ(std::vector<uint32_t>(pal.begin(), pal.begin() + 4),
              (std::vector<uint32_t>{0x000000, 0xFF0000, 0xFFFFFF, 0}));
    for (int32_t x = 0; x < 8; ++x) EXPECT_EQ(get_row(h, 3)[size_t(x)], x < 4 ? 0 : 2);
}

// 256 octree colours on a photograph: at least 30 dB, and within 3 dB of
// ImageMagick's 256-colour quantiser with Floyd-Steinberg dithering.
TEST(Reduce, OctreeQualityBesideImageMagick) {
    const Handle h = photo();
    ASSERT_GE(h, 0);
    const Raster original = handle_raster(h);
    // A reduction folds up to eight leaves into one, so the tree may end
    // a few leaves short of the maximum.
    const int32_t entries = IMG_octree_color(h, 8, nullptr, 256);
    EXPECT_GT(entries, 240);
    EXPECT_LE(entries, 256);
    const double ours = psnr(handle_raster(h), original);
    EXPECT_GE(ours, 30.0);
    if (!have_tool("/usr/bin/convert")) GTEST_SKIP() << "ImageMagick missing; ours " << ours << " dB";
    const Scratch out("octree-im.ppm");
    ASSERT_TRUE(run("/usr/bin/convert '" + corpus("png/rgb.png") +
                    "' -dither FloydSteinberg -colors 256 -depth 8 '" + out.path + "'"));
    const double theirs = psnr(read_netpbm(out), original);
    std::printf("octree 256 on png/rgb.png: ours %.2f dB, ImageMagick %.2f dB\n", ours, theirs);
    EXPECT_GE(ours, theirs - 3.0);
}
