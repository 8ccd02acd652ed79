// The colour commands of the tesslin tool: what they write equals the
// library operation on the same page, and bad values are usage errors that
// write nothing.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>

#include "test_util.h"

using namespace tesslin::test;

namespace {

struct CliResult {
    int status = -1;
    std::string err;
};

CliResult tesslin_cli(const std::string& args) {
    const std::string err = temp_path("colour-cli.err");
    const int raw = std::system(("'" + std::string(TESSLIN_CLI) + "' " + args + " >/dev/null 2>'" + err + "'").c_str());
    const Bytes e = read_file(err);
    fs::remove(err);
    return CliResult{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, std::string(e.begin(), e.end())};
}

std::string q(const std::string& s) { return "'" + s + "'"; }

}  // namespace

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
        const std::string out = temp_path(std::string("colour-cli.") + c.ext);
        ASSERT_EQ(tesslin_cli(std::string(c.args) + " " + q(photo) + " " + q(out)).status, 0);
        const int32_t ours = IMG_decompress_bitmap(out.c_str());
        const int32_t want = IMG_decompress_bitmap(photo.c_str());
        ASSERT_GE(ours, 0);
        ASSERT_GE(c.op(want), 0);
        EXPECT_EQ(count_differences(handle_raster(ours), handle_raster(want), 3), 0u);
        IMG_delete_bitmap(ours);
        IMG_delete_bitmap(want);
        fs::remove(out);
    }
}

TEST(ColourCli, BadValuesAreUsageErrors) {
    const std::string photo = corpus("png/rgb.png"), out = temp_path("colour-cli-bad.png");
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
        const CliResult r = tesslin_cli(std::string(c.args) + " " + q(photo) + " " + q(out));
        EXPECT_EQ(r.status, 2) << c.args;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << ": " << r.err;
        EXPECT_FALSE(fs::exists(out)) << c.args;
    }
    // A depth the page cannot be promoted to is a failed operation.
    const CliResult r = tesslin_cli("promote --bits 8 " + q(photo) + " " + q(out));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("IMG_ERR_UNSUPPORTED"), std::string::npos);
    EXPECT_FALSE(fs::exists(out));
}

// gray matches Pillow's luma within 3 levels; a bilevel page becomes 0/255.
TEST(ColourCli, GrayBesidePillow) {
    const std::string photo = corpus("png/rgb.png"), out = temp_path("colour-cli-gray.png");
    const Raster luma = pillow(photo, "L");
    if (luma.px.empty()) GTEST_SKIP() << "Pillow missing";
    ASSERT_EQ(tesslin_cli("gray " + q(photo) + " " + q(out)).status, 0);
    const Raster ours = pillow(out, "L");
    ASSERT_EQ(ours.px.size(), luma.px.size());
    int worst = 0;
    for (size_t i = 0; i < ours.px.size(); ++i) worst = std::max(worst, std::abs(ours.px[i] - luma.px[i]));
    EXPECT_LE(worst, 3);
    ASSERT_EQ(tesslin_cli("gray " + q(corpus("bmp/mono.bmp")) + " " + q(out)).status, 0);
    const Raster page = pillow(out, "L"), want = read_netpbm(corpus("refs/ff178facd1ae4c0c.pbm"));
    EXPECT_EQ(count_differences(page, want, 1), 0u);
    fs::remove(out);
}
