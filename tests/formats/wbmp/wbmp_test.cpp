// WBMP: files written by ImageMagick against its decode, the widths
// detection accepts, damaged files. (The writer: tests/formats/raster.)
#include <gtest/gtest.h>

#include "formats/wbmp/wbmp.h"
#include "format_checks.h"
#include "magick.h"

using namespace tesslin;
using namespace tesslin::test;

TEST(WbmpRead, ImageMagickFilesDecodeAsItShowsThem) {
    if (!have_magick()) GTEST_SKIP() << "needs ImageMagick";
    const TempDir dir("wbmp");
    // (A file under 10 bytes is not recognised at all, and widths 2, 3, 10
    // and 11 match the Targa test, which runs first.)
    for (const char* size : {"5x9", "100x7", "200x130", "320x9", "321x9"}) {
        SCOPED_TRACE(size);
        const std::string path = dir / (std::string(size) + ".wbmp");
        ASSERT_TRUE(run(std::string("/usr/bin/convert -size ") + size +
                        " xc:gray50 -seed 7 +noise Random -threshold 50% -monochrome 'WBMP:" + path + "'"));
        const Handle h = IMG_decompress_bitmap(path.c_str());
        if (std::string(size) == "321x9") {
            // Wider than detection takes a WBMP to be: not recognised.
            EXPECT_EQ(h, IMG_ERR_UNSUPPORTED);
            EXPECT_EQ(IMGLOW_get_filetype(path.c_str()), IMG_ERR_UNSUPPORTED);
            continue;
        }
        ASSERT_GE(h, 0);
        EXPECT_EQ(IMGLOW_get_filetype(path.c_str()), IMG_FORMAT_WBMP);
        EXPECT_EQ(count_differences(handle_raster(h), magick(path), 3), 0u);
        EXPECT_EQ(info_of(h).biXPelsPerMeter, 72);
    }
}

TEST(WbmpRead, DamagedFilesAreRefused) {
    expect_statuses(wbmp::decode, {
        {"header cut short", {0, 0, 0x81}, IMG_ERR_READ},
        {"rows cut short", {0, 0, 16, 3, 1, 2, 3, 4, 5}, IMG_ERR_READ},
        {"six-byte width", {0, 0, 0x81, 0x81, 0x81, 0x81, 0x81, 1, 1, 0}, IMG_ERR_BAD_IMAGE},
        {"zero width", {0, 0, 0, 1, 0}, IMG_ERR_BAD_IMAGE},
        {"height beyond the file", {0, 0, 8, 0x87, 0xFF, 0xFF, 0x7F, 0}, IMG_ERR_READ},
    });
}
