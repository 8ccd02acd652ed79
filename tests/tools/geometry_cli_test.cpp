// tesslin rotate, flip, invert and resize, run as users run them; results
// read back by libtiff's tools and Pillow.
#include "test_util.h"

namespace {

using namespace tesslin::test;

struct Result {
    bool ok;
    std::string text;
};
Result cli(const std::string& args) {
    std::string out;
    const bool ok = run("'" + std::string(TESSLIN_CLI) + "' " + args, &out);
    return {ok, out};
}
int exit_status(const std::string& args) {
    const int raw = std::system(("'" + std::string(TESSLIN_CLI) + "' " + args + " >/dev/null 2>&1").c_str());
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
}

// "Image Width: W Image Length: H" of tiffinfo, and the compression line.
std::string tiffinfo(const std::string& file) {
    std::string out;
    run("tiffinfo '" + file + "'", &out);
    return out;
}

TEST(GeometryCli, RotateSwapsWidthAndHeightOfAG4Page) {
    if (!have_tool("tiffinfo")) GTEST_SKIP() << "libtiff tools";
    const std::string out = temp_path("rotated.tif");
    const Result r = cli("rotate '" + corpus("doc/g4.tif") + "' '" + out + "' --angle 90");
    ASSERT_TRUE(r.ok) << r.text;
    const std::string info = tiffinfo(out);
    EXPECT_NE(info.find("Image Width: 2200 Image Length: 1728"), std::string::npos) << info;
    EXPECT_NE(info.find("CCITT Group 4"), std::string::npos) << info;
    // Turned back by -90 it is the page again.
    const std::string back = temp_path("back.tif");
    ASSERT_TRUE(cli("rotate '" + out + "' '" + back + "' --angle -90 --quiet").ok);
    const int32_t a = IMG_decompress_bitmap(corpus("doc/g4.tif").c_str());
    const int32_t b = IMG_decompress_bitmap(back.c_str());
    for (int32_t y = 0; y < 2200; y += 7) ASSERT_EQ(get_row(a, y), get_row(b, y)) << y;
    IMG_delete_bitmap(a);
    IMG_delete_bitmap(b);
    fs::remove(out);
    fs::remove(back);
}

TEST(GeometryCli, FlipInvertAndResizeReadBackInPillow) {
    if (!have_pillow()) GTEST_SKIP() << "Pillow";
    const std::string in = corpus("png/grey.png"), out = temp_path("geometry_cli.png");
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
        const Result r = cli(c.args + " '" + in + "' '" + out + "'");
        ASSERT_TRUE(r.ok) << c.args << ": " << r.text;
        const Raster got = pillow(out, "L");
        ASSERT_EQ(got.width, c.w) << c.args;
        ASSERT_EQ(got.height, c.h) << c.args;
        for (int32_t y = 0; c.at && y < c.h; ++y)
            for (int32_t x = 0; x < c.w; ++x) ASSERT_EQ(*got.at(x, y), c.at(src, x, y)) << c.args;
        fs::remove(out);
    }
}

TEST(GeometryCli, BadValuesAreUsageErrorsAndWriteNothing) {
    const std::string in = corpus("png/grey.png"), out = temp_path("never.png");
    for (const char* args : {"rotate --angle abc", "rotate --angle 12.345", "rotate --angle 400", "rotate",
                             "flip", "flip -z", "resize --width -5", "resize --height 0", "resize",
                             "resize --width 10 --method cubic", "invert --bogus"}) {
        EXPECT_EQ(exit_status(std::string(args) + " '" + in + "' '" + out + "'"), 2) << args;
        EXPECT_FALSE(fs::exists(out)) << args;
    }
    const Result r = cli("rotate --angle abc '" + in + "' '" + out + "'");
    EXPECT_NE(r.text.find("--angle needs degrees"), std::string::npos) << r.text;
    // A method the page's depth does not take fails with the status named.
    const Result d = cli("resize --width 10 --method grey '" + in + "' '" + out + "'");
    EXPECT_FALSE(d.ok);
    EXPECT_NE(d.text.find("IMG_ERR_DEPTH"), std::string::npos) << d.text;
    EXPECT_FALSE(fs::exists(out));
}

}  // namespace
