// Resizing: nearest neighbour against its 16.16 mapping in numpy, area
// averaging against Pillow's box filter, interpolation against Pillow's
// bilinear, scale-to-grey of a 300-dpi page against a numpy box mean; the
// small cases, crop rectangles, cancelling and statuses.
#include "numpy_check.h"

namespace {

using namespace tesslin;
using namespace tesslin::test;

TEST(Resize, NearestFollowsTheFixedPointMappingOnEveryDepth) {
    if (!have_numpy()) GTEST_SKIP() << "numpy and Pillow for /usr/bin/python3";
    NumpyChecks checks;
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        for (auto [w, h] : {std::pair{50, 31}, {12, 9}, {37, 23}, {74, 46}, {5, 60}}) {
            const Handle handle = noise_handle(37, 23, bits);
            const PixelArray before = pixels_of(handle);
            ASSERT_EQ(IMG_resize_bitmap(handle, w, h), 0);
            EXPECT_EQ(crop_of(handle), std::vector<int32_t>({0, 0, w, h}));
            checks.add("nearest " + std::to_string(w) + " " + std::to_string(h), before, pixels_of(handle));
        }
    }
    const auto results = checks.run();
    for (size_t i = 0; i < results.size(); ++i) EXPECT_EQ(results[i], "ok") << checks.line(i);
}

// On run records nearest neighbour keeps the records and, at the same size
// and doubled, gives the packed rows' result (numpy's mapping above).
TEST(Resize, RunEncodedNearestStaysRunEncoded) {
    for (auto [w, h] : {std::pair{37, 23}, {74, 46}}) {
        const Handle runs = noise_handle(37, 23, 1), plain = noise_handle(37, 23, 1);
        ASSERT_EQ(IMG_dib_to_runs(runs), 0);
        ASSERT_EQ(IMG_resize_bitmap(runs, w, h), 0);
        ASSERT_EQ(IMG_resize_bitmap(plain, w, h), 0);
        EXPECT_EQ(info_of(runs).biCompression, uint32_t(IMG_COMPRESSION_RUNS));
        EXPECT_EQ(pixels_of(runs), pixels_of(plain)) << w;
    }
}

// The corpus photograph (or its grey version) as a handle.
int32_t photo(bool grey) {
    return IMG_decompress_bitmap(corpus(grey ? "png/grey.png" : "png/rgb.png").c_str());
}

TEST(Resize, AreaAveragingAndInterpolationAgainstPillow) {
    if (!have_numpy()) GTEST_SKIP() << "numpy and Pillow for /usr/bin/python3";
    struct Case {
        const char* filter;
        int32_t (*resize)(int32_t, int32_t, int32_t);
        int32_t w, h;
        double min_psnr;
    } cases[] = {
        {"box", IMG_resize_bitmap_bicubic, 454 / 4, 298 / 4, 35},
        {"box", IMG_resize_bitmap_bicubic, 151, 99, 35},
        {"box", IMG_resize_bitmap_bicubic, 200, 140, 35},
        {"bilinear", IMG_resize_bitmap_interp, 908, 596, 30},
        {"bilinear", IMG_resize_bitmap_interp, 700, 450, 30},
    };
    NumpyChecks checks;
    for (const Case& c : cases) {
        for (bool grey : {false, true}) {
            const Handle h = photo(grey);
            ASSERT_GE(h, 0);
            const PixelArray before = rgb_of(pixels_of(h));
            ASSERT_EQ(c.resize(h, c.w, c.h), 0);
            checks.add(std::string(c.filter) + " " + std::to_string(c.w) + " " + std::to_string(c.h),
                       before, rgb_of(pixels_of(h)));
        }
    }
    const auto results = checks.run();
    for (size_t i = 0; i < results.size(); ++i)
        EXPECT_GE(psnr_of(results[i]), cases[i / 2].min_psnr) << checks.line(i) << ": " << results[i];
}

TEST(Resize, ScaleToGreyOfAPageIsCloseToABoxMean) {
    if (!have_tool("/usr/bin/convert") || !have_numpy()) GTEST_SKIP() << "ImageMagick, numpy";
    const Handle h = g4_page_300dpi();
    fs::remove(temp_path("page300.tif"));
    ASSERT_GE(h, 0);
    ASSERT_EQ(info_of(h).biCompression, uint32_t(IMG_COMPRESSION_RUNS));
    PixelArray page = pixels_of(h);
    for (auto& v : page.px) v = v ? 255 : 0;
    const int32_t w = page.width / 4, ht = page.height / 4;
    ASSERT_EQ(IMG_resize_to_gray(h, w, ht), 0);
    const DibHeader info = info_of(h);
    EXPECT_EQ(info.biBitCount, 8);
    EXPECT_EQ(info.biCompression, 0u);
    EXPECT_EQ(info.biXPelsPerMeter, 300);
    NumpyChecks checks;
    checks.add("boxmean 4", page, pixels_of(h));
    const auto results = checks.run();
    ASSERT_EQ(results.size(), 1u);
    EXPECT_GE(psnr_of(results[0]), 24) << results[0];
}

TEST(Resize, SmallCases) {
    // Interpolation: 0, 255 to width 4 is 0, 127, 255, 255.
    Handle h = make_handle(2, 1, 8, [](uint8_t* row, uint32_t, int32_t) { row[0] = 0, row[1] = 255; });
    ASSERT_EQ(IMG_resize_bitmap_interp(h, 4, 1), 0);
    EXPECT_EQ(pixels_of(h).px, Bytes({0, 127, 255, 255}));

    // Area averaging: uniform stays uniform; a checkerboard halved is mid grey.
    for (auto [w, ht] : {std::pair{5, 3}, {20, 20}, {33, 17}}) {
        h = make_handle(20, 20, 24, [](uint8_t* row, uint32_t n, int32_t) { std::memset(row, 77, n); });
        ASSERT_EQ(IMG_resize_bitmap_bicubic(h, w, ht), 0);
        for (uint8_t v : pixels_of(h).px) ASSERT_EQ(v, 77);
    }
    h = make_handle(20, 20, 8, [](uint8_t* row, uint32_t n, int32_t r) {
        for (uint32_t b = 0; b < n; ++b) row[b] = (b + uint32_t(r)) % 2 ? 255 : 0;
    });
    ASSERT_EQ(IMG_resize_bitmap_bicubic(h, 10, 10), 0);
    for (uint8_t v : pixels_of(h).px) ASSERT_EQ(v, 127);

    // Scale-to-grey: white pages stay 255, black ones become 0.
    for (uint8_t fill : {0xFF, 0x00}) {
        h = make_handle(64, 48, 1, [&](uint8_t* row, uint32_t n, int32_t) { std::memset(row, fill, n); });
        ASSERT_EQ(IMG_dib_to_runs(h), 0);
        ASSERT_EQ(IMG_resize_to_gray(h, 16, 12), 0);
        for (uint8_t v : pixels_of(h).px) ASSERT_EQ(v, fill ? 255 : 0);
        EXPECT_EQ(crop_of(h), std::vector<int32_t>({0, 0, 16, 12}));
    }

    // Halving a bilevel page keeps a line on an odd stored row (counting from
    // the bottom), which nearest neighbour drops.
    for (bool interp : {true, false}) {
        h = make_handle(40, 40, 1, [](uint8_t* row, uint32_t n, int32_t r) { std::memset(row, r == 20 ? 0 : 0xFF, n); });
        ASSERT_EQ(interp ? IMG_resize_bitmap_interp(h, 20, 20) : IMG_resize_bitmap(h, 20, 20), 0);
        const PixelArray a = pixels_of(h);
        EXPECT_EQ(std::count(a.px.begin(), a.px.end(), 0), interp ? 20 : 0);
    }
}

TEST(Resize, ThumbnailsPickTheMethodByDepth) {
    // 1 bit: scale-to-grey; 24 bits: area averaging; 8 bits: promoted to 24
    // bits first (when the colour operations are part of the library).
    for (int bits : {1, 8, 24}) {
        const Handle a = noise_handle(64, 48, bits), b = noise_handle(64, 48, bits);
        const int32_t s = IMG_create_thumbnail(a, 16, 12);
        if (bits == 8 && s == IMG_ERR_UNSUPPORTED) continue;
        ASSERT_EQ(s, 0) << bits;
        EXPECT_EQ(info_of(a).biBitCount, bits == 1 ? 8 : 24);
        EXPECT_EQ(info_of(a).biWidth, 16);
        if (bits != 8) {
            ASSERT_EQ(bits == 1 ? IMG_resize_to_gray(b, 16, 12) : IMG_resize_bitmap_bicubic(b, 16, 12), 0);
            EXPECT_EQ(pixels_of(a), pixels_of(b));
        }
    }
}

TEST(Resize, Statuses) {
    struct Case {
        int32_t (*resize)(int32_t, int32_t, int32_t);
        int bits;
        int32_t status;
    } cases[] = {
        {IMG_resize_bitmap_interp, 4, IMG_ERR_UNSUPPORTED},
        {IMG_resize_bitmap_bicubic, 4, IMG_ERR_DEPTH},
        {IMG_resize_bitmap_bicubic, 1, IMG_ERR_DEPTH},
        {IMG_resize_to_gray, 8, IMG_ERR_DEPTH},
    };
    for (const Case& c : cases) {
        const Handle h = noise_handle(9, 9, c.bits);
        EXPECT_EQ(c.resize(h, 4, 4), c.status) << c.bits;
    }
    // An 8-bit colour palette.
    const Handle colour = noise_handle(9, 9, 8);
    Bytes pal(1024);
    IMGLOW_get_palette(colour, pal.data());
    pal[2] = 200;
    IMGLOW_put_palette(colour, pal.data());
    EXPECT_EQ(IMG_resize_bitmap_interp(colour, 20, 20), IMG_ERR_NOT_GRAY);
    EXPECT_EQ(IMG_resize_bitmap_bicubic(colour, 4, 4), IMG_ERR_NOT_GRAY);

    // A zero size is refused on every depth; cancelling is the geometry
    // tests' table.
    for (auto resize : {IMG_resize_bitmap, IMG_resize_bitmap_interp, IMG_resize_bitmap_bicubic,
                        IMG_resize_to_gray, IMG_create_thumbnail})
        for (int bits : {1, 8, 24})
            EXPECT_EQ(resize(Handle(noise_handle(9, 9, bits)), 0, 10), IMG_ERR_BAD_IMAGE) << bits;
}

}  // namespace
