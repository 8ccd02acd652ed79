// The page commands of the tesslin tool (colour, flips, turns, resizing): each
// writes what its library operation makes of the page, read back by Pillow;
// bad values are usage errors that write nothing. (The operations' own pixels
// are checked against numpy, Pillow and the corpus references in tests/process.)
#include <gtest/gtest.h>

#include "cli.h"

using namespace tesslin::test;

// Each command's option parsing reaches the right operation with the right
// arguments: Pillow's reading of the output equals the operation's result.
TEST(PageCli, CommandsWriteWhatTheOperationsMake) {
    if (!have_pillow()) GTEST_SKIP() << "Pillow";
    const struct {
        const char *args, *input, *ext;
        int32_t (*op)(int32_t);
    } cases[] = {
        {"dither --method halftone", "png/rgb.png", "tif", IMG_halftone_mono},
        {"dither", "png/rgb.png", "tif", IMG_diffusion_mono},
        {"threshold --level 90", "png/rgb.png", "tif", [](int32_t h) { return IMG_thresh_mono(h, 90); }},
        {"threshold --level auto", "png/rgb.png", "tif", [](int32_t h) { return IMG_thresh_mono(h, -1); }},
        {"reduce --colors 16 --method ordered", "png/rgb.png", "bmp", IMG_bayer_color},
        {"reduce --colors 256 --method popularity", "png/rgb.png", "bmp", IMG_popularity_color},
        {"reduce", "png/rgb.png", "bmp", [](int32_t h) { return IMG_octree_color(h, 8, nullptr, 256); }},
        {"promote --bits 32", "png/rgb.png", "png", IMG_promote_32},
        {"gray", "png/rgb.png", "png", IMG_color_gray},
        {"gray", "bmp/mono.bmp", "png", IMG_promote_8},  // bilevel pages become 0 and 255
        {"flip -x", "png/grey.png", "png", IMG_flip_bitmapx},
        {"flip -x -y", "png/grey.png", "png", [](int32_t h) { return IMG_rotate_bitmap(h, 18000); }},
        {"invert", "png/grey.png", "png", IMG_invert_bitmap},
        {"resize --width 908 --height 596", "png/grey.png", "png",
         [](int32_t h) { return IMG_resize_bitmap(h, 908, 596); }},
        {"resize --width 227", "png/grey.png", "png",
         [](int32_t h) { return IMG_resize_bitmap(h, 227, 149); }},
        {"resize --width 100 --height 50 --method area", "png/grey.png", "png",
         [](int32_t h) { return IMG_resize_bitmap_bicubic(h, 100, 50); }},
        {"rotate --angle 90", "doc/g4.tif", "tif", [](int32_t h) { return IMG_rotate_bitmap(h, 9000); }},
        {"rotate --angle -90", "doc/g4.tif", "tif", [](int32_t h) { return IMG_rotate_bitmap(h, -9000); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.args) + " " + c.input);
        const Scratch out(std::string("page-cli.") + c.ext);
        const CliRun r = run_cli(std::string(c.args) + " " + quote(corpus(c.input)) + " " + quote(out));
        ASSERT_EQ(r.status, 0) << r.text();
        const Handle want = IMG_decompress_bitmap(corpus(c.input).c_str());
        ASSERT_GE(c.op(want), 0);
        EXPECT_EQ(count_differences(pillow(out, "RGB"), handle_raster(want), 3), 0u);
    }
}

TEST(PageCli, BadValuesAreUsageErrorsAndWriteNothing) {
    const Scratch out("page-cli-bad.png");
    const struct {
        const char* args;
        int status;
        const char* message;
    } cases[] = {
        {"threshold --level 256", 2, "--level needs a number from 0 to 255 or 'auto', not '256'"},
        {"threshold --level dark", 2, "not 'dark'"},
        {"dither --method floyd", 2, "--method needs bayer, halftone or diffusion, not 'floyd'"},
        {"reduce --colors 64", 2, "--colors needs 16 or 256"},
        {"reduce --colors 16 --method popularity", 2, "--method popularity makes 256 colours, not 16"},
        {"reduce --colors 256 --method ordered", 2, "--method ordered makes 16 colours, not 256"},
        {"reduce --method kmeans", 2, "not 'kmeans'"},
        {"promote --bits 16", 2, "--bits needs 8, 24 or 32"},
        {"promote", 2, "promote needs --bits 8, 24 or 32"},
        {"rotate --angle abc", 2, "--angle needs degrees"},
        {"rotate --angle 12.345", 2, ""},
        {"rotate --angle 400", 2, ""},
        {"rotate", 2, ""},
        {"flip", 2, ""},
        {"flip -z", 2, ""},
        {"resize --width -5", 2, ""},
        {"resize --height 0", 2, ""},
        {"resize", 2, ""},
        {"resize --width 10 --method cubic", 2, ""},
        {"invert --bogus", 2, ""},
        // An operation the page's depth does not take fails with the status named.
        {"promote --bits 8", 1, "IMG_ERR_UNSUPPORTED"},
        {"resize --width 10 --method grey", 1, "IMG_ERR_DEPTH"},
    };
    for (const auto& c : cases) {
        const CliRun r = run_cli(std::string(c.args) + " " + quote(corpus("png/rgb.png")) + " " + quote(out));
        EXPECT_EQ(r.status, c.status) << c.args;
        EXPECT_NE(r.text().find(c.message), std::string::npos) << c.args << ": " << r.text();
        EXPECT_FALSE(fs::exists(out.path)) << c.args;
    }
}
