// X bitmap output: the text written, and ImageMagick reading it back (Pillow
// reads X bitmaps with their bits inverted).
#include <gtest/gtest.h>

#include "magick.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

std::string xbm_text(int32_t width, int32_t height, const Bytes& row_bytes) {
    const int32_t h = make_handle(width, height, 1, [&](uint8_t* row, uint32_t n, int32_t) {
        std::fill_n(row, n, 0);
        std::copy(row_bytes.begin(), row_bytes.end(), row);
    });
    int32_t status = 0;
    const Bytes out = save_mem(h, IMG_FORMAT_XBM, &status);
    IMG_delete_bitmap(h);
    return std::string(out.begin(), out.end());
}

}  // namespace

// 0xFF (eight white pixels) is 0x00, 0x00 is 0xff, 0x7F (a black pixel,
// then seven white) 0x01; items run on from row to row, twelve to a line.
TEST(XbmWrite, TextOfItemsAndLines) {
    EXPECT_EQ(xbm_text(16, 2, {0xFF, 0x7F}),
              "#define untitled_width 16\n#define untitled_height 2\n"
              "static char untitled_bits[] = {\n"
              "    0x00, 0x01, 0x00, 0x01};\n");
    EXPECT_EQ(xbm_text(96, 1, Bytes(12, 0x00)),
              "#define untitled_width 96\n#define untitled_height 1\n"
              "static char untitled_bits[] = {\n"
              "    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};\n");
    const std::string two_lines = xbm_text(104, 1, Bytes(13, 0x0F));
    EXPECT_NE(two_lines.find("0x0f, 0x0f,\n    0x0f};\n"), std::string::npos);
    EXPECT_EQ(save_status(8, IMG_FORMAT_XBM), IMG_ERR_DEPTH);
}

TEST(XbmWrite, ImageMagickReadsBackWhatWeWrite) {
    if (!have_magick()) GTEST_SKIP() << "needs ImageMagick";
    for (int32_t width : {1, 13, 64, 203}) {
        SCOPED_TRACE(width);
        const Handle h = make_handle(width, 17, 1);
        const Scratch path("out.xbm");
        ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_FORMAT_XBM), 0);
        EXPECT_EQ(count_differences(handle_raster(h), magick(path), 3), 0u);
        EXPECT_EQ(IMGLOW_get_filetype(path.c_str()), IMG_FORMAT_XBM);
    }
}
