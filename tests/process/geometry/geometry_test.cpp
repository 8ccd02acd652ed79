// Flips, turns and inversion against numpy (rot90, fliplr, flipud) and
// Pillow (any angle), on every depth with odd widths and on a run-encoded
// 300-dpi Group 4 page; crop rectangles, progress cancelling, statuses.
#include "numpy_check.h"

namespace {

using namespace tesslin;
using namespace tesslin::test;

const int kDepths[] = {1, 4, 8, 16, 24, 32};

struct Op {
    const char* name;   // numpy's operation
    int32_t (*apply)(int32_t);
};
const Op kOps[] = {
    {"rot90cw", [](int32_t h) { return IMG_rotate_bitmap(h, 9000); }},
    {"rot180", [](int32_t h) { return IMG_rotate_bitmap(h, 18000); }},
    {"rot90ccw", [](int32_t h) { return IMG_rotate_bitmap(h, 27000); }},
    {"rot90ccw", [](int32_t h) { return IMG_rotate_bitmap(h, -9000); }},
    {"rot90cw", [](int32_t h) { return IMG_rotate_bitmap(h, -27000); }},
    {"fliplr", IMG_flip_bitmapx},
    {"flipud", IMG_flip_bitmapy},
};

TEST(Geometry, TurnsFlipsAndInversionMatchNumpyOnEveryDepth) {
    if (!have_numpy()) GTEST_SKIP() << "numpy and Pillow for /usr/bin/python3";
    NumpyChecks checks;
    for (int bits : kDepths) {
        // Odd sizes, one large enough for the 16-row blocks of the bilevel
        // transpose; a single column and a whole number of words.
        for (auto [w, ht] : {std::pair{37, 23}, {331, 41}, {1, 9}, {64, 9}}) {
            for (const Op& op : kOps) {
                const Handle h = noise_handle(w, ht, bits);
                const PixelArray before = pixels_of(h);
                ASSERT_EQ(op.apply(h), 0) << op.name << " " << bits;
                checks.add(op.name, before, pixels_of(h));
            }
            const Handle h = noise_handle(w, ht, bits);
            const PixelArray before = pixels_of(h);
            ASSERT_EQ(IMG_invert_bitmap(h), 0);
            checks.add("invert " + std::to_string(bits <= 8 ? bits : 8), before, pixels_of(h));
        }
    }
    const auto results = checks.run();
    for (size_t i = 0; i < results.size(); ++i) EXPECT_EQ(results[i], "ok") << checks.line(i);
}

TEST(Geometry, RunEncodedPageStaysRunEncodedAndMatchesNumpy) {
    if (!have_tool("/usr/bin/convert") || !have_numpy()) GTEST_SKIP() << "ImageMagick, numpy";
    const Handle page = g4_page_300dpi();
    ASSERT_GE(page, 0);
    ASSERT_EQ(info_of(page).biCompression, uint32_t(IMG_COMPRESSION_RUNS));
    const PixelArray before = pixels_of(page);
    NumpyChecks checks;
    for (const Op& op : {kOps[0], kOps[5], kOps[6]}) {
        const Handle h = g4_page_300dpi();
        ASSERT_EQ(op.apply(h), 0);
        EXPECT_EQ(info_of(h).biCompression, uint32_t(IMG_COMPRESSION_RUNS)) << op.name;
        checks.add(op.name, before, pixels_of(h));
    }
    // The other operations on run records equal the same on packed rows.
    for (auto op : {+[](int32_t h) { return IMG_rotate_bitmap(h, 27000); },
                    +[](int32_t h) { return IMG_rotate_bitmap(h, 18000); },
                    +[](int32_t h) { return IMG_invert_bitmap(h); },
                    +[](int32_t h) { return IMG_rotate_bitmap(h, 1250); }}) {
        const Handle runs = g4_page_300dpi(), plain = g4_page_300dpi();
        ASSERT_EQ(IMG_runs_to_dib(plain), 0);
        ASSERT_EQ(op(runs), 0);
        ASSERT_EQ(op(plain), 0);
        EXPECT_EQ(info_of(runs).biCompression, uint32_t(IMG_COMPRESSION_RUNS));
        EXPECT_TRUE(pixels_of(runs) == pixels_of(plain));
    }
    const auto results = checks.run();
    for (size_t i = 0; i < results.size(); ++i) EXPECT_EQ(results[i], "ok") << checks.line(i);
    fs::remove(temp_path("page300.tif"));
}

TEST(Geometry, AnyAngleGrowsTheImageAndFillsTheCorners) {
    for (int bits : {1, 8, 24}) {
        const Handle h = noise_handle(100, 100, bits);
        ASSERT_EQ(IMG_rotate_bitmap(h, 4500), 0);
        const PixelArray a = pixels_of(h);
        EXPECT_EQ(a.width, 142);
        EXPECT_EQ(a.height, 142);
        const uint8_t background = bits == 1 ? 1 : 0;
        for (int32_t corner : {0, 141, 142 * 141, 142 * 142 - 1})
            EXPECT_EQ(a.px[size_t(corner) * size_t(a.k)], background) << bits << " bits";
        EXPECT_EQ(crop_of(h), std::vector<int32_t>({0, 0, 142, 142}));
    }
    // Angle 0 and whole turns change nothing.
    const Handle same = noise_handle(5, 3, 4);
    const PixelArray before = pixels_of(same);
    EXPECT_EQ(IMG_rotate_bitmap(same, 0), 0);
    EXPECT_EQ(IMG_rotate_bitmap(same, 36000), 0);
    EXPECT_EQ(pixels_of(same), before);
    if (!have_numpy()) return;
    // Direction and sampling against Pillow's nearest-neighbour rotate.
    NumpyChecks checks;
    for (int32_t angle : {4500, 1250, -3000, 20000, 31599}) {
        const Handle h = make_handle(61, 40, 8, [](uint8_t* row, uint32_t n, int32_t r) {
            for (uint32_t b = 0; b < n; ++b) row[b] = uint8_t(1 + (b / 6 + uint32_t(r) / 5) % 2 * 100 + b);
        });
        const PixelArray before = pixels_of(h);
        ASSERT_EQ(IMG_rotate_bitmap(h, angle), 0);
        checks.add("rotate " + std::to_string(angle / 100.0), before, pixels_of(h));
    }
    const auto results = checks.run();
    for (size_t i = 0; i < results.size(); ++i)
        EXPECT_GE(std::atof(results[i].c_str() + 6), 0.97) << checks.line(i) << ": " << results[i];
}

// Flipping and inverting edit run records in place: rows of width 10 (from
// their change positions: black at either end, all black, all white) give
// what the same operations give on packed rows (numpy's above).
TEST(Geometry, RunRecordEdits) {
    for (const std::vector<uint32_t>& changes :
         {std::vector<uint32_t>{2, 5}, {0, 3}, {4}, {0}, {}, {0, 3, 6}}) {
        for (auto op : {IMG_flip_bitmapx, IMG_invert_bitmap}) {
            const Handle runs = make_handle(10, 1, 1, [&](uint8_t* row, uint32_t n, int32_t) {
                std::vector<uint32_t> p = changes;
                p.push_back(10);
                runs::expand_changes(p.data(), 10, row, n);
            });
            const Handle plain = make_handle(10, 1, 1);
            ASSERT_EQ(IMGLOW_put_raster(plain, get_row(runs, 0).data(), 0, 0), 0);
            ASSERT_EQ(IMG_dib_to_runs(runs), 0);
            ASSERT_EQ(op(runs), 0);
            ASSERT_EQ(op(plain), 0);
            EXPECT_EQ(info_of(runs).biCompression, uint32_t(IMG_COMPRESSION_RUNS));
            EXPECT_EQ(pixels_of(runs), pixels_of(plain)) << changes.size();
        }
    }
}

TEST(Geometry, CropRectangleFollowsTheContent) {
    // 100 x 50, black block under the crop (10, 5, 20, 30), white elsewhere;
    // packed 8-bit and run-encoded bilevel.
    struct Case {
        int32_t (*op)(int32_t);
        std::vector<int32_t> crop;
    } cases[] = {
        {IMG_flip_bitmapx, {70, 5, 20, 30}},
        {IMG_flip_bitmapy, {10, 15, 20, 30}},
        {[](int32_t h) { return IMG_rotate_bitmap(h, 18000); }, {70, 15, 20, 30}},
        {[](int32_t h) { return IMG_rotate_bitmap(h, 9000); }, {15, 10, 30, 20}},
        {[](int32_t h) { return IMG_rotate_bitmap(h, 27000); }, {5, 70, 30, 20}},
    };
    for (int bits : {1, 8}) {
        for (const Case& c : cases) {
            const Handle h = make_handle(100, 50, bits, [&](uint8_t* row, uint32_t n, int32_t r) {
                std::memset(row, 0xFF, n);
                if (r >= 5 && r < 35 && bits == 1) runs::fill_bits(row, 10, 30, false);
                if (r >= 5 && r < 35 && bits == 8) std::memset(row + 10, 0, 20);
            });
            if (bits == 1) {
                ASSERT_EQ(IMG_dib_to_runs(h), 0);
            }
            ASSERT_EQ(IMG_set_croprect(h, 10, 5, 20, 30), 0);
            ASSERT_EQ(c.op(h), 0);
            const std::vector<int32_t> crop = crop_of(h);
            EXPECT_EQ(crop, c.crop);
            const PixelArray a = pixels_of(h);
            size_t black = 0;
            for (int32_t y = crop[1]; y < crop[1] + crop[3]; ++y)
                for (int32_t x = crop[0]; x < crop[0] + crop[2]; ++x) black += a.px[size_t(y * a.width + x)] == 0;
            EXPECT_EQ(black, 600u) << bits;
        }
    }
}

// Every turn, flip, inversion and resizing, on run records and packed rows:
// a progress callback that cancels leaves the image as it was, and a deleted
// handle is refused.
TEST(Geometry, CancelLeavesTheImageAndBadHandlesAreRefused) {
    int32_t (*const ops[])(int32_t) = {
        IMG_flip_bitmapx, IMG_flip_bitmapy, IMG_invert_bitmap,
        [](int32_t h) { return IMG_rotate_bitmap(h, 9000); },
        [](int32_t h) { return IMG_rotate_bitmap(h, 18000); },
        [](int32_t h) { return IMG_rotate_bitmap(h, 27000); },
        [](int32_t h) { return IMG_rotate_bitmap(h, 3000); },
        [](int32_t h) { return IMG_resize_bitmap(h, 17, 13); },
        // The last four do not take every depth.
        [](int32_t h) { return IMG_resize_bitmap_interp(h, 17, 13); },
        [](int32_t h) { return IMG_resize_bitmap_bicubic(h, 17, 13); },
        [](int32_t h) { return IMG_resize_to_gray(h, 17, 13); },
        [](int32_t h) { return IMG_create_thumbnail(h, 17, 13); },
    };
    for (int bits : {1, 8, 24}) {
        for (size_t i = 0; i < std::size(ops); ++i) {
            const int32_t h = noise_handle(40, 20, bits);
            if (bits == 1) {
                ASSERT_EQ(IMG_dib_to_runs(h), 0);
            }
            const PixelArray before = pixels_of(h);
            IMG_set_statusbar(0, stop_at_row_3, 1);
            const int32_t s = ops[i](h);
            IMG_set_statusbar(0, nullptr, 0);
            if (i < 8 || (s != IMG_ERR_DEPTH && s != IMG_ERR_UNSUPPORTED && s != IMG_ERR_NOT_GRAY)) {
                EXPECT_EQ(s, -77) << i << ", " << bits << " bits";
            }
            EXPECT_EQ(pixels_of(h), before);
            IMG_delete_bitmap(h);
            EXPECT_EQ(ops[i](h), IMG_ERR_HANDLE);
        }
    }
    EXPECT_EQ(IMG_rotate_bitmap(-1, 0), IMG_ERR_HANDLE);
}

}  // namespace
