// tesslin rotate, flip, invert and resize, run as users run them; results
// read back by libtiff's tools and Pillow.
#include "cli.h"

namespace {

using namespace tesslin::test;

TEST(GeometryCli, RotateSwapsWidthAndHeightOfAG4Page) {
    if (!have_tool("tiffinfo")) GTEST_SKIP() << "libtiff tools";
    const Scratch out("rotated.tif"), back("back.tif");
    const CliRun r = run_cli("rotate '" + corpus("doc/g4.tif") + "' '" + out.path + "' --angle 90");
    ASSERT_EQ(r.status, 0) << r.text();
    std::string info;
    run("tiffinfo '" + out.path + "'", &info);
    EXPECT_NE(info.find("Image Width: 2200 Image Length: 1728"), std::string::npos) << info;
    EXPECT_NE(info.find("CCITT Group 4"), std::string::npos) << info;
    // Turned back by -90 it is the page again.
    ASSERT_EQ(run_cli("rotate '" + out.path + "' '" + back.path + "' --angle -90 --quiet").status, 0);
    const Handle a = IMG_decompress_bitmap(corpus("doc/g4.tif").c_str()), b = IMG_decompress_bitmap(back.c_str());
    for (int32_t y = 0; y < 2200; y += 7) ASSERT_EQ(get_row(a, y), get_row(b, y)) << y;
}

TEST(GeometryCli, FlipInvertAndResizeReadBackInPillow) {
    if (!have_pillow()) GTEST_SKIP() << "Pillow";
    const std::string in = corpus("png/grey.png");
    const Scratch out("geometry_cli.png");
    const Raster src = pillow(in, "L");
    struct Case {
        std::string args;
        int32_t w, h;
        // Expected sample at (x, y) of the result from the source.
        uint8_t (*at)(const Raster&, int32_t, int32_t);
    } cases[] = {
        {"flip -x", 454, 298, [](const Raster& s, int32_t x, int32_t y) { return *s.at(453 - x, y); }},
        {"flip -x -y", 454, 298, [](const Raster& s, int32_t x, int32_t y) { return *s.at(453 - x, 297 - y); }},
        {"invert", 454, 298, [](const Raster& s, int32_t x, int32_t y) { return uint8_t(255 - *s.at(x, y)); }},
        {"resize --width 908 --height 596", 908, 596, [](const Raster& s, int32_t x, int32_t y) { return *s.at(x / 2, y / 2); }},
        {"resize --width 227", 227, 149, nullptr},
        {"resize --width 100 --height 50 --method area", 100, 50, nullptr},
    };
    for (const Case& c : cases) {
        const CliRun r = run_cli(c.args + " '" + in + "' '" + out.path + "'");
        ASSERT_EQ(r.status, 0) << c.args << ": " << r.text();
        const Raster got = pillow(out, "L");
        ASSERT_EQ(got.width, c.w) << c.args;
        ASSERT_EQ(got.height, c.h) << c.args;
        for (int32_t y = 0; c.at && y < c.h; ++y)
            for (int32_t x = 0; x < c.w; ++x) ASSERT_EQ(*got.at(x, y), c.at(src, x, y)) << c.args;
        fs::remove(out.path);
    }
}

TEST(GeometryCli, BadValuesAreUsageErrorsAndWriteNothing) {
    const std::string in = corpus("png/grey.png");
    const Scratch out("never.png");
    for (const char* args : {"rotate --angle abc", "rotate --angle 12.345", "rotate --angle 400", "rotate",
                             "flip", "flip -z", "resize --width -5", "resize --height 0", "resize",
                             "resize --width 10 --method cubic", "invert --bogus"}) {
        const CliRun r = run_cli(std::string(args) + " '" + in + "' '" + out.path + "'");
        EXPECT_EQ(r.status, 2) << args;
        EXPECT_FALSE(fs::exists(out.path)) << args;
        if (args == std::string("rotate --angle abc")) {
            EXPECT_NE(r.text().find("--angle needs degrees"), std::string::npos) << r.text();
        }
    }
    // A method the page's depth does not take fails with the status named.
    const CliRun d = run_cli("resize --width 10 --method grey '" + in + "' '" + out.path + "'");
    EXPECT_NE(d.status, 0);
    EXPECT_NE(d.text().find("IMG_ERR_DEPTH"), std::string::npos) << d.text();
    EXPECT_FALSE(fs::exists(out.path));
}

}  // namespace
