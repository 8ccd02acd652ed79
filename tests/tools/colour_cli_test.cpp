// The colour commands of the tesslin tool: what they write equals the
// library operation on the same page, and bad values are usage errors that
// write nothing.
#include <gtest/gtest.h>

#include "cli.h"

using namespace tesslin::test;

// Each command's output file holds what the library operation makes of the
// page (compared pixel by pixel after decoding both).
TEST(ColourCli, CommandsWriteWhatTheOperationsMake) {
    const std::string photo = corpus("png/rgb.png");
    struct Case {
        const char* args;
        const char* ext;
        int32_t (*op)(int32_t);
    } cases[] = {
        {"dither --method halftone", "tif", IMG_halftone_mono},
        {"dither", "tif", IMG_diffusion_mono},
        {"threshold --level 90", "tif", [](int32_t h) { return IMG_thresh_mono(h, 90); }},
        {"threshold --level auto", "tif", [](int32_t h) { return IMG_thresh_mono(h, -1); }},
        {"reduce --colors 16 --method ordered", "bmp", IMG_bayer_color},
        {"reduce --colors 256 --method popularity", "bmp", IMG_popularity_color},
        {"reduce", "bmp", [](int32_t h) { return IMG_octree_color(h, 8, nullptr, 256); }},
        {"promote --bits 32", "png", IMG_promote_32},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        const Scratch out(std::string("colour-cli.") + c.ext);
        ASSERT_EQ(run_cli(std::string(c.args) + " " + quote(photo) + " " + quote(out)).status, 0);
        const Handle ours = IMG_decompress_bitmap(out.c_str()), want = IMG_decompress_bitmap(photo.c_str());
        ASSERT_GE(ours, 0);
        ASSERT_GE(c.op(want), 0);
        EXPECT_EQ(count_differences(handle_raster(ours), handle_raster(want), 3), 0u);
    }
}

TEST(ColourCli, BadValuesAreUsageErrors) {
    const std::string photo = corpus("png/rgb.png");
    const Scratch out("colour-cli-bad.png");
    struct Case {
        const char* args;
        const char* message;
    } cases[] = {
        {"threshold --level 256", "--level needs a number from 0 to 255 or 'auto', not '256'"},
        {"threshold --level dark", "not 'dark'"},
        {"dither --method floyd", "--method needs bayer, halftone or diffusion, not 'floyd'"},
        {"reduce --colors 64", "--colors needs 16 or 256"},
        {"reduce --colors 16 --method popularity", "--method popularity makes 256 colours, not 16"},
        {"reduce --colors 256 --method ordered", "--method ordered makes 16 colours, not 256"},
        {"reduce --method kmeans", "not 'kmeans'"},
        {"promote --bits 16", "--bits needs 8, 24 or 32"},
        {"promote", "promote needs --bits 8, 24 or 32"},
    };
    for (const Case& c : cases) {
        const CliRun r = run_cli(std::string(c.args) + " " + quote(photo) + " " + quote(out));
        EXPECT_EQ(r.status, 2) << c.args;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << ": " << r.err;
        EXPECT_FALSE(fs::exists(out.path)) << c.args;
    }
    // A depth the page cannot be promoted to is a failed operation.
    const CliRun r = run_cli("promote --bits 8 " + quote(photo) + " " + quote(out));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("IMG_ERR_UNSUPPORTED"), std::string::npos);
    EXPECT_FALSE(fs::exists(out.path));
}

// gray matches Pillow's luma within 3 levels; a bilevel page becomes 0/255.
TEST(ColourCli, GrayBesidePillow) {
    const std::string photo = corpus("png/rgb.png");
    const Scratch out("colour-cli-gray.png");
    const Raster luma = pillow(photo, "L");
    if (luma.px.empty()) GTEST_SKIP() << "Pillow missing";
    ASSERT_EQ(run_cli("gray " + quote(photo) + " " + quote(out)).status, 0);
    const Raster ours = pillow(out, "L");
    ASSERT_EQ(ours.px.size(), luma.px.size());
    int worst = 0;
    for (size_t i = 0; i < ours.px.size(); ++i) worst = std::max(worst, std::abs(ours.px[i] - luma.px[i]));
    EXPECT_LE(worst, 3);
    ASSERT_EQ(run_cli("gray " + quote(corpus("bmp/mono.bmp")) + " " + quote(out) + " --overwrite").status, 0);
    const Raster page = pillow(out, "L"), want = read_netpbm(corpus("refs/ff178facd1ae4c0c.pbm"));
    EXPECT_EQ(count_differences(page, want, 1), 0u);
}
