// Drawing into the software surfaces: what lands on the surface is the crop
// rectangle, stretched nearest-neighbour and mirrored as asked, for every
// storage of the image.
#include <gtest/gtest.h>

#include <array>

#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

std::array<uint8_t, 3> at(intptr_t dc, int32_t x, int32_t y) {
    int32_t w = 0, h = 0;
    tesslin_dc_size(dc, &w, &h);
    const uint8_t* p = tesslin_dc_pixels(dc) + (size_t(y) * size_t(w) + size_t(x)) * 3;
    return {p[0], p[1], p[2]};
}

// A 4 x 3 24-bit image whose pixel (x, y) is (40 x, 60 y, 7).
int32_t gradient() {
    return make_handle(4, 3, 24, [](uint8_t* row, uint32_t, int32_t r) {
        for (int x = 0; x < 4; ++x) {
            row[3 * x] = 7;
            row[3 * x + 1] = uint8_t(60 * r);
            row[3 * x + 2] = uint8_t(40 * x);
        }
    });
}

}  // namespace

TEST(DisplayDraw, StretchesMirrorsAndClips) {
    const Handle h = gradient();
    const intptr_t dc = tesslin_dc_create(10, 8);
    ASSERT_NE(dc, 0);
    // Twice the size: each image pixel becomes a 2 x 2 block.
    ASSERT_EQ(IMG_display_bitmap(h, dc, 1, 1, 8, 6), 0);
    for (int32_t y = 0; y < 6; ++y)
        for (int32_t x = 0; x < 8; ++x) {
            const std::array<uint8_t, 3> want{uint8_t(40 * (x / 2)), uint8_t(60 * (y / 2)), 7};
            EXPECT_EQ(at(dc, x + 1, y + 1), want) << x << "," << y;
        }
    EXPECT_EQ(at(dc, 0, 0), (std::array<uint8_t, 3>{255, 255, 255}));  // untouched
    int32_t rx, ry, rw, rh;
    IMGLOW_get_display_rect(h, &rx, &ry, &rw, &rh);
    EXPECT_EQ(rw, 8);
    EXPECT_EQ(rh, 6);
    // Mirrored both ways at 1:1, partly off the surface to the right.
    ASSERT_EQ(IMG_display_bitmap(h, dc, 8, 0, -4, -3), 0);
    EXPECT_EQ(at(dc, 8, 0), (std::array<uint8_t, 3>{120, 120, 7}));
    EXPECT_EQ(at(dc, 9, 2), (std::array<uint8_t, 3>{80, 0, 7}));
    // The crop rectangle is what is drawn.
    IMG_set_croprect(h, 2, 1, 1, 1);
    ASSERT_EQ(IMG_display_bitmap(h, dc, 0, 0, 3, 3), 0);
    EXPECT_EQ(at(dc, 2, 2), (std::array<uint8_t, 3>{80, 60, 7}));
    tesslin_dc_destroy(dc);
}

TEST(DisplayDraw, BilevelRunRecordsAndPalettes) {
    // Column x is black when x is odd.
    const Handle h = make_handle(9, 2, 1, [](uint8_t* row, uint32_t n, int32_t) {
        for (uint32_t b = 0; b < n; ++b) row[b] = 0xAA;
    });
    const intptr_t dc = tesslin_dc_create(9, 2);
    for (int pass = 0; pass < 2; ++pass) {
        ASSERT_EQ(IMG_display_bitmap(h, dc, 0, 0, 9, 2), 0);
        for (int32_t x = 0; x < 9; ++x)
            EXPECT_EQ(at(dc, x, 1)[0], x % 2 ? 0 : 255) << "pass " << pass << " x " << x;
        // The same page in the other storage (packed rows or run records).
        if (IMG_dib_to_runs(h) != 0) {
            ASSERT_EQ(IMG_runs_to_dib(h), 0);
        }
    }
    tesslin_dc_destroy(dc);
}
