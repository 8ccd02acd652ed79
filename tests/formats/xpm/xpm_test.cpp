// X pixmap output: the text written, and ImageMagick reading it back
// (Pillow reads only one character per pixel and no comment lines).
#include <gtest/gtest.h>

#include "magick.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

std::string xpm_text(int32_t handle) {
    int32_t status = 0;
    const Bytes out = save_mem(handle, IMG_FORMAT_XPM, &status);
    return std::string(out.begin(), out.end());
}

}  // namespace

TEST(XpmWrite, TextOfColoursAndPixels) {
    // 1 bit: two colours of one character, "^" for 0 and "_" for 1.
    int32_t h = make_handle(4, 2, 1, [](uint8_t* row, uint32_t, int32_t r) { row[0] = r ? 0x50 : 0xA0; });
    EXPECT_EQ(xpm_text(h),
              "/* XPM */\nstatic char *untitled[] = {\n"
              "/* width height ncolors cpp [x_hot] [y_hot] */\n\"4 2 2 1 -1 -1\",\n"
              "/* colors */\n\"^\tc #000000\",\n\"_\tc #FFFFFF\",\n"
              "/* pixels */\n\"_^_^\",\n\"^_^_\"};\n");
    IMG_delete_bitmap(h);
    // 8 bits: two characters per pixel; entry 33 is "__", red 255, green
    // 128, blue 0 the colour #FF8000.
    void* dib = make_dib(2, 1, 8, [](uint8_t* row, uint32_t, int32_t) { row[0] = 33, row[1] = 0; });
    dib_palette(dib)[33] = RgbQuad{0, 128, 255, 0};
    h = IMG_create_handle_keep(dib);
    const std::string text = xpm_text(h);
    EXPECT_NE(text.find("\"2 1 256 2 -1 -1\",\n"), std::string::npos);
    EXPECT_NE(text.find("\"__\tc #FF8000\",\n"), std::string::npos);
    EXPECT_NE(text.find("\"e}\tc #FFFFFF\",\n/* pixels */\n\"__^^\"};\n"), std::string::npos);
    IMG_delete_bitmap(h);
    for (int bits : {16, 24}) EXPECT_EQ(save_status(bits, IMG_FORMAT_XPM), IMG_ERR_DEPTH) << bits;
}

TEST(XpmWrite, ImageMagickReadsBackWhatWeWrite) {
    if (!have_magick()) GTEST_SKIP() << "needs ImageMagick";
    for (int bits : {1, 4, 8}) {
        SCOPED_TRACE(std::to_string(bits) + " bits");
        void* dib = make_dib(29, 11, bits);
        for (int i = 0; i < (bits == 1 ? 0 : bits == 4 ? 16 : 256); ++i)
            dib_palette(dib)[i] = RgbQuad{uint8_t(i * 3), uint8_t(255 - i), uint8_t(i * 7), 0};
        const Handle h = IMG_create_handle_keep(dib);
        const Scratch path("out.xpm");
        ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_FORMAT_XPM), 0);
        const Raster ours = handle_raster(h);
        EXPECT_EQ(count_differences(ours, magick(path), 3), 0u);
    }
}
