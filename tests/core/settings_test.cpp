// Process-wide settings with their checks and defaults, and the standard
// palettes.
#include <gtest/gtest.h>

#include <cstring>

#include "core/settings.h"
#include "process/palette.h"
#include "test_util.h"

using namespace tesslin;

TEST(Settings, DefaultsAreThoseOfAFreshLibrary) {
    // A fresh object holds what a freshly loaded library starts with.
    Settings s;
    EXPECT_EQ(s.decomp_reduction, 0);
    EXPECT_EQ(s.dithermode, 1);
    EXPECT_EQ(s.alias, 2);
    EXPECT_EQ(s.alias_quality, 100);
    EXPECT_EQ(s.jpeg_h, 2);
    EXPECT_EQ(s.jpeg_v, 1);
    EXPECT_EQ(s.image_orientation, 1);
    EXPECT_EQ(s.pdf_width, 612);
    EXPECT_EQ(s.pdf_height, 792);
    EXPECT_EQ(s.auto_detect[38], 0);
    EXPECT_EQ(s.auto_detect[78], 0);
    EXPECT_EQ(s.auto_detect[0], 1);
    EXPECT_EQ(s.jpeg_luma[0], 16);
    EXPECT_EQ(s.jpeg_chroma[3], 46);
    EXPECT_EQ(IMGLOW_get_auto_detect(38), 0);
}

TEST(Settings, AutoDetectMapsTiffAndBmpVariants) {
    EXPECT_EQ(IMGLOW_unset_auto_detect(0), 1);
    EXPECT_EQ(IMGLOW_set_auto_detect(9), 0) << "code 9 acts on TIFF and returns the old flag";
    EXPECT_EQ(IMGLOW_get_auto_detect(0), 1);
    EXPECT_EQ(IMGLOW_unset_auto_detect(12), 1);
    EXPECT_EQ(IMGLOW_get_auto_detect(1), 0);
    EXPECT_EQ(IMGLOW_set_auto_detect(1), 0);
    for (int32_t bad : {-1, 79, 1000}) {
        EXPECT_EQ(IMGLOW_set_auto_detect(bad), IMG_ERR_UNSUPPORTED);
        EXPECT_EQ(IMGLOW_unset_auto_detect(bad), IMG_ERR_UNSUPPORTED);
        EXPECT_EQ(IMGLOW_get_auto_detect(bad), IMG_ERR_UNSUPPORTED);
    }
}

TEST(Settings, ValuesAreCheckedAsDocumented) {
    Settings& s = settings();
    IMGLOW_set_decomp_rect(-10, -10, 100, 100);
    EXPECT_EQ(std::vector<int32_t>(s.decomp_rect, s.decomp_rect + 4),
              std::vector<int32_t>({0, 0, 100, 100}));
    IMGLOW_set_decomp_rect(0, 0, 0, 0);

    IMGLOW_set_alias(3);
    EXPECT_EQ(IMGLOW_set_alias(5), 0);
    EXPECT_EQ(s.alias, 3);
    IMGLOW_set_alias(2);

    IMGLOW_set_alias_quality(-3);
    EXPECT_EQ(s.alias_quality, 1);
    IMGLOW_set_alias_quality(250);
    EXPECT_EQ(s.alias_quality, 100);
    IMGLOW_set_alias_quality(0);
    EXPECT_EQ(s.alias_quality, 0);
    IMGLOW_set_alias_quality(100);

    IMGLOW_set_image_orientation(6);
    EXPECT_EQ(IMGLOW_set_image_orientation(9), 0);
    EXPECT_EQ(s.image_orientation, 6);
    IMGLOW_set_image_orientation(1);
}

TEST(Settings, QualityScalesBothJpegTables) {
    Settings& s = settings();
    IMGLOW_set_comp_quality(50);
    EXPECT_EQ(0, std::memcmp(s.jpeg_luma, kJpegLumaBase, 64));
    EXPECT_EQ(0, std::memcmp(s.jpeg_chroma, kJpegChromaBase, 64));
    IMGLOW_set_comp_quality(75);
    for (int i = 0; i < 64; ++i) {
        int half = (kJpegLumaBase[i] * 50 + 50) / 100;
        EXPECT_EQ(s.jpeg_luma[i], half < 1 ? 1 : half);
    }
    IMGLOW_set_comp_quality(100);
    for (int i = 0; i < 64; ++i) EXPECT_EQ(s.jpeg_chroma[i], 1);
    uint8_t at_one[64];
    IMGLOW_set_comp_quality(1);
    std::memcpy(at_one, s.jpeg_luma, 64);
    IMGLOW_set_comp_quality(0);
    EXPECT_EQ(0, std::memcmp(at_one, s.jpeg_luma, 64)) << "0 acts as 1";
    EXPECT_EQ(s.jpeg_luma[63], 196);  // (99 * 198 + 50) / 100
    IMGLOW_set_comp_quality(50);
}

TEST(Settings, NoticeAndDateAreCopiedWithinTheirLengths) {
    char notice[200], date[11];
    IMGLOW_get_bitmap_name(notice, date);
    std::string keep_notice = notice, keep_date = date;
    std::string long_text(300, 'x');
    IMGLOW_set_bitmap_name(long_text.c_str(), "12-31-2099-and-more");
    IMGLOW_get_bitmap_name(notice, date);
    EXPECT_EQ(std::strlen(notice), 199u);
    EXPECT_STREQ(date, "12-31-2099");
    IMGLOW_set_bitmap_name(keep_notice.c_str(), keep_date.c_str());
}

TEST(Settings, StatusBarTurnsOnAndOff) {
    static int calls = 0;
    IMG_STATUS_CALLBACK cb = [](intptr_t user, int32_t, int32_t row, uint32_t) -> int32_t {
        ++calls;
        return row == 10 ? static_cast<int32_t>(user) : 0;
    };
    IMG_set_statusbar(-1, cb, 1);
    EXPECT_EQ(report_progress(20, 3, 4), 0);
    EXPECT_EQ(report_progress(20, 10, 4), -1);
    IMG_set_statusbar(0, nullptr, 0);
    EXPECT_EQ(report_progress(20, 10, 4), 0);
    EXPECT_EQ(calls, 2);
}

TEST(Settings, VersionAndProfile) {
    int32_t major = 0, minor = 9;
    EXPECT_EQ(IMG_ifl_version(&major, &minor), 0);
    EXPECT_EQ(major, 13);
    EXPECT_EQ(minor, 0);
    EXPECT_EQ(IMG_set_profile(1, 2), 0);
}

namespace {

std::vector<RgbQuad> palette_for(int bits, const char* name) {
    alignas(4) uint8_t block[1064];
    std::memset(block, 0xCD, sizeof block);
    auto* h = reinterpret_cast<DibHeader*>(block);
    *h = DibHeader{40, 1, 1, 1, uint16_t(bits), 0, 0, 0, 0, 0, 0};
    build_standard_palette(h, name);
    const RgbQuad* p = dib_palette(block);
    return std::vector<RgbQuad>(p, p + palette_entries(uint32_t(bits)) + (bits < 8 ? 1 : 0));
}

bool same(const RgbQuad& q, int r, int g, int b) {
    return q.rgbRed == r && q.rgbGreen == g && q.rgbBlue == b && q.rgbReserved == 0;
}

}  // namespace

TEST(StandardPalettes, GreyRampsFollowTheBitCount) {
    auto four = palette_for(4, "tiff");
    for (int i = 0; i < 16; ++i) EXPECT_TRUE(same(four[i], i * 16, i * 16, i * 16)) << i;
    EXPECT_EQ(four[16].rgbRed, 0xCD) << "a 4-bit palette stops at 16 entries";
    auto eight = palette_for(8, "tiff");
    for (int i = 0; i < 256; ++i) EXPECT_TRUE(same(eight[i], i, i, i));
    auto sixteen = palette_for(16, "tiff");
    EXPECT_TRUE(same(sixteen[255], 255, 255, 255));
}

TEST(StandardPalettes, BilevelIsAlwaysBlackAndWhite) {
    auto one = palette_for(1, "dither");
    EXPECT_TRUE(same(one[0], 0, 0, 0));
    EXPECT_TRUE(same(one[1], 255, 255, 255));
    EXPECT_EQ(one[2].rgbRed, 0xCD);
}

TEST(StandardPalettes, SixteenColourTables) {
    auto dither = palette_for(4, "dither");
    EXPECT_TRUE(same(dither[1], 200, 0, 0));
    EXPECT_TRUE(same(dither[6], 0, 200, 200));
    EXPECT_TRUE(same(dither[8], 0, 0, 0));
    EXPECT_TRUE(same(dither[15], 255, 255, 255));
    auto unknown = palette_for(4, "no such name");
    EXPECT_TRUE(same(unknown[7], 128, 128, 128));
    auto pcx = palette_for(4, "pcx");
    EXPECT_TRUE(same(pcx[4], 0, 0, 128));
    EXPECT_TRUE(same(pcx[12], 0, 0, 255));
}

TEST(StandardPalettes, The332PaletteFollowsTheDitheringMode) {
    auto targa = palette_for(8, "targa");
    EXPECT_TRUE(same(targa[0xFF], 255, 255, 255));
    EXPECT_TRUE(same(targa[0x25], 36, 36, 85));  // red 1, green 1, blue 1
    IMGLOW_set_dithermode(2);
    auto fixed = palette_for(8, "332");
    EXPECT_TRUE(same(fixed[0], 0, 0, 0));
    EXPECT_TRUE(same(fixed[8], 192, 220, 192));
    EXPECT_TRUE(same(fixed[246], 255, 251, 240));
    EXPECT_TRUE(same(fixed[255], 255, 255, 255));
    IMGLOW_set_dithermode(0);
    auto cube = palette_for(8, "332");
    for (int i = 0; i < 256; ++i) EXPECT_TRUE(same(cube[i], targa[i].rgbRed, targa[i].rgbGreen,
                                                   targa[i].rgbBlue));
    IMGLOW_set_dithermode(1);
    // Wider names on a 4-bit header fill only its 16 entries.
    auto narrow = palette_for(4, "332");
    EXPECT_EQ(narrow[16].rgbRed, 0xCD);
}
