// Process-wide settings: the checks on their values. (The progress callback
// is checked by the decode and operation tests that it stops; the JPEG
// quality tables where they are written, in the JPEG encoder's tests.)
#include <gtest/gtest.h>

#include "core/settings.h"
#include "test_util.h"

using namespace tesslin;

TEST(Settings, AutoDetectMapsTiffAndBmpVariants) {
    EXPECT_EQ(IMGLOW_get_auto_detect(38), 0) << "plain text is off in a fresh library";
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
    EXPECT_EQ(std::vector<int32_t>(s.decomp_rect, s.decomp_rect + 4), std::vector<int32_t>({0, 0, 100, 100}));
    IMGLOW_set_decomp_rect(0, 0, 0, 0);
    IMGLOW_set_alias(3);
    EXPECT_EQ(IMGLOW_set_alias(5), 0);
    EXPECT_EQ(s.alias, 3);
    IMGLOW_set_alias(2);
    for (auto [given, kept] : {std::pair{-3, 1}, {250, 100}, {0, 0}, {100, 100}}) {
        IMGLOW_set_alias_quality(given);
        EXPECT_EQ(s.alias_quality, kept) << given;
    }
    IMGLOW_set_image_orientation(6);
    EXPECT_EQ(IMGLOW_set_image_orientation(9), 0);
    EXPECT_EQ(s.image_orientation, 6);
    IMGLOW_set_image_orientation(1);
}

TEST(Settings, NoticeAndDateAreCopiedWithinTheirLengths) {
    char notice[200], date[11];
    IMGLOW_get_bitmap_name(notice, date);
    const std::string keep_notice = notice, keep_date = date;
    IMGLOW_set_bitmap_name(std::string(300, 'x').c_str(), "12-31-2099-and-more");
    IMGLOW_get_bitmap_name(notice, date);
    EXPECT_EQ(std::strlen(notice), 199u);
    EXPECT_STREQ(date, "12-31-2099");
    IMGLOW_set_bitmap_name(keep_notice.c_str(), keep_date.c_str());
}
