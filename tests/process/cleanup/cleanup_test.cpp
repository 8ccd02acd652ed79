// Document clean-up: skew, orientation, specks, borders and rectangle fills,
// on small pages built here and on 300-dpi text pages that ImageMagick sets
// in a system font and turns by known angles.
#include <gtest/gtest.h>

#include <random>

#include "magick.h"
#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

using Pixels = std::vector<std::pair<int32_t, int32_t>>;

// A white 1-bit page with the given black pixels (x, y; 0 = top), run-encoded.
int32_t page_with(int32_t w, int32_t h, const Pixels& black) {
    std::vector<std::vector<int32_t>> by_row(static_cast<size_t>(h));
    for (auto [x, y] : black) by_row[size_t(y)].push_back(x);
    const int32_t handle = make_handle(w, h, 1, [&](uint8_t* row, uint32_t n, int32_t r) {
        std::memset(row, 0xFF, n);
        for (int32_t x : by_row[size_t(r)]) row[x >> 3] &= uint8_t(~(0x80 >> (x & 7)));
    });
    IMG_dib_to_runs(handle);
    return handle;
}

bool is_black(const Bytes& row, int32_t x) { return !(row[size_t(x) >> 3] & (0x80 >> (x & 7))); }

Pixels black_pixels(int32_t handle) {
    int32_t w = 0, h = 0, bits = 0;
    IMG_bitmap_info(handle, &w, &h, &bits);
    Pixels out;
    for (int32_t y = 0; y < h; ++y) {
        const Bytes row = get_row(handle, y);
        for (int32_t x = 0; x < w; ++x)
            if (is_black(row, x)) out.push_back({x, y});
    }
    return out;
}

// A 300-dpi letter page of 11-point serif text turned by `degrees`
// (clockwise) as a bilevel G4 TIFF; empty when ImageMagick is missing.
std::string text_page(const std::string& name, double degrees) {
    if (!have_magick()) return "";
    std::string text;
    std::mt19937 rng(7);
    const char* words[] = {"the", "quick", "brown", "fox", "jumps", "over", "lazy", "dog", "scanned",
                           "document", "capture", "imaging", "pages", "of", "text", "lines"};
    for (int line = 0; line < 50; ++line) {
        std::string l;
        while (l.size() < 80) l += std::string(words[rng() % 16]) + " ";
        text += l + "\n";
    }
    const std::string out = temp_path(name + ".tif");
    std::string cmd = "/usr/bin/convert -density 300 -size 2550x3300 xc:white -font Liberation-Serif "
                      "-pointsize 11 -fill black -annotate +250+300 '" + text + "'";
    if (degrees != 0) cmd += " -background white -rotate " + std::to_string(degrees) + " +repage";
    cmd += " -threshold 50% -type bilevel -compress Group4 '" + out + "'";
    return run(cmd) ? out : "";
}

int32_t measure(int32_t handle, int32_t lo = -12, int32_t hi = 12) {
    int32_t angle = 999;
    EXPECT_EQ(IMG_get_deskew_angle(handle, &angle, lo, hi), 0);
    return angle;
}

}  // namespace

TEST(CleanupPages, SkewMeasuredAndRemoved) {
    for (double degrees : {-10.0, -5.0, -2.0, -0.5, 0.5, 3.0, 7.0, 10.0}) {
        SCOPED_TRACE(degrees);
        const std::string file = text_page("skew", degrees);
        if (file.empty()) GTEST_SKIP() << "ImageMagick missing";
        const Handle h = IMG_decompress_bitmap(file.c_str());
        ASSERT_GE(h, 0);
        const DibHeader before = info_of(h);
        const int32_t angle = measure(h);
        EXPECT_LE(std::abs(angle + degrees), 1.0);
        ASSERT_EQ(IMG_deskew_bitmap(h, angle), 0);
        EXPECT_EQ(std::pair(info_of(h).biWidth, info_of(h).biHeight), std::pair(before.biWidth, before.biHeight));
        EXPECT_LE(std::abs(measure(h)), 1);
    }
}

TEST(CleanupPages, OrientationAndBlankPages) {
    for (auto [degrees, expected] : {std::pair{0.0, 0}, {90.0, 90}, {-90.0, 90}, {180.0, 0}}) {
        const std::string file = text_page("orient", degrees);
        if (file.empty()) GTEST_SKIP() << "ImageMagick missing";
        const Handle h = IMG_decompress_bitmap(file.c_str());
        int32_t orientation = -1;
        EXPECT_EQ(IMG_auto_orient(h, &orientation), 0);
        EXPECT_EQ(orientation, expected) << degrees;
    }
    // Blank and nearly blank pages: nothing to vote for a line.
    for (const Pixels& dots : {Pixels{}, Pixels{{500, 700}, {1200, 1900}}}) {
        const Handle h = page_with(2550, 3300, dots);
        EXPECT_EQ(measure(h, -5, 5), 5);
        int32_t orientation = -1;
        EXPECT_EQ(IMG_auto_orient(h, &orientation), 0);
        EXPECT_EQ(orientation, 0);
    }
}

TEST(CleanupPages, DespeckleRemovesDotsKeepsText) {
    const std::string file = text_page("speck", 0);
    if (file.empty()) GTEST_SKIP() << "ImageMagick missing";
    const Handle h = IMG_decompress_bitmap(file.c_str());
    ASSERT_GE(h, 0);
    const Pixels text = black_pixels(h);
    // 2,000 lone dots in white space (nothing black within 3 pixels).
    int32_t w = 0, ht = 0, bits = 0;
    IMG_bitmap_info(h, &w, &ht, &bits);
    std::vector<uint8_t> ink(size_t(w) * size_t(ht), 0);
    for (auto [x, y] : text) ink[size_t(y) * size_t(w) + size_t(x)] = 1;
    auto clear = [&](int32_t x, int32_t y) {
        for (int32_t dy = -3; dy <= 3; ++dy)
            for (int32_t dx = -3; dx <= 3; ++dx)
                if (ink[size_t(y + dy) * size_t(w) + size_t(x + dx)]) return false;
        return true;
    };
    std::mt19937 rng(3);
    Pixels dots;
    while (dots.size() < 2000) {
        const int32_t x = 4 + int32_t(rng() % uint32_t(w - 8)), y = 4 + int32_t(rng() % uint32_t(ht - 8));
        if (!clear(x, y)) continue;
        ink[size_t(y) * size_t(w) + size_t(x)] = 2;
        dots.push_back({x, y});
    }
    const Handle specked = page_with(w, ht, [&] {
        Pixels all = text;
        all.insert(all.end(), dots.begin(), dots.end());
        return all;
    }());
    ASSERT_EQ(black_pixels(specked).size(), text.size() + dots.size());
    ASSERT_EQ(IMG_despeckle_bitmap(specked, 10), 0);
    size_t dots_left = 0, text_kept = 0;
    for (auto [x, y] : black_pixels(specked)) {
        const uint8_t v = ink[size_t(y) * size_t(w) + size_t(x)];
        dots_left += v == 2;
        text_kept += v == 1;
    }
    EXPECT_LE(dots_left, dots.size() / 100);
    EXPECT_GE(text_kept * 100, text.size() * 97);
}

TEST(CleanupPages, AutocropKeepsInkAndMargin) {
    const std::string file = text_page("crop", 0);
    if (file.empty()) GTEST_SKIP() << "ImageMagick missing";
    const Handle h = IMG_decompress_bitmap(file.c_str());
    const Pixels before = black_pixels(h);
    int32_t x0 = INT32_MAX, y0 = INT32_MAX, x1 = 0, y1 = 0;
    for (auto [x, y] : before) {
        x0 = std::min(x0, x), y0 = std::min(y0, y), x1 = std::max(x1, x), y1 = std::max(y1, y);
    }
    ASSERT_EQ(IMG_autocrop_bitmap(h, 20), 0);
    EXPECT_EQ(std::pair(info_of(h).biWidth, info_of(h).biHeight), std::pair(x1 - x0 + 1 + 40, y1 - y0 + 1 + 40));
    Pixels after = black_pixels(h);
    ASSERT_EQ(after.size(), before.size());
    for (size_t i = 0; i < after.size(); i += 97) {
        EXPECT_EQ(after[i].first, before[i].first - x0 + 20);
        EXPECT_EQ(after[i].second, before[i].second - y0 + 20);
    }
}

// The small cases: exact pixels after each operation.
TEST(CleanupRows, ExactResults) {
    struct Case {
        const char* what;
        Pixels in;
        std::function<int32_t(int32_t)> op;
        int32_t width, height;  // expected page size
        Pixels out;
    };
    auto despeckle = [](int32_t level) { return [=](int32_t h) { return IMG_despeckel_bitmap(h, level); }; };
    auto crop = [](int32_t m) { return [=](int32_t h) { return IMG_autocrop_bitmap(h, m); }; };
    const Case cases[] = {
        {"lone pixel", {{10, 10}}, despeckle(10), 40, 30, {}},
        {"vertical pair", {{10, 10}, {10, 11}}, despeckle(10), 40, 30, {{10, 10}, {10, 11}}},
        {"5-dash", {{5, 9}, {6, 9}, {7, 9}, {8, 9}, {9, 9}}, despeckle(10), 40, 30, {}},
        {"6-dash", {{5, 9}, {6, 9}, {7, 9}, {8, 9}, {9, 9}, {10, 9}}, despeckle(10), 40, 30,
         {{6, 9}, {7, 9}, {8, 9}, {9, 9}}},
        {"thicken", {{10, 10}}, despeckle(0), 40, 30, {{10, 9}, {9, 10}, {10, 10}, {11, 10}, {10, 11}}},
        {"crop 0", {{40, 30}}, crop(0), 1, 1, {{0, 0}}},
        {"crop 5", {{40, 30}}, crop(5), 11, 11, {{5, 5}}},
        {"crop white", {}, crop(5), 100, 80, {}},
        {"deskew 0", {{3, 4}}, [](int32_t h) { return IMG_deskew_bitmap(h, 0); }, 40, 30, {{3, 4}}},
        {"erase outside", {{1, 1}, {20, 20}}, [](int32_t h) { return IMG_erase_rect(h, 10, 10, 2, 1, 0, 0); },
         40, 30, {}},
        {"erase inside", {}, [](int32_t h) { return IMG_erase_rect(h, 38, 28, 5, 5, 0, 1); }, 40, 30,
         {{38, 28}, {39, 28}, {38, 29}, {39, 29}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const bool big = std::string(c.what).rfind("crop", 0) == 0;
        const Handle h = page_with(big ? 100 : 40, big ? 80 : 30, c.in);
        ASSERT_EQ(c.op(h), 0);
        EXPECT_EQ(std::pair(info_of(h).biWidth, info_of(h).biHeight), std::pair(c.width, c.height));
        Pixels expected = c.out;
        if (std::string(c.what) == "erase outside")  // everything but the 2 x 1 rectangle is black
            for (int32_t y = 0; y < 30; ++y)
                for (int32_t x = 0; x < 40; ++x)
                    if (!(y == 10 && (x == 10 || x == 11))) expected.push_back({x, y});
        std::sort(expected.begin(), expected.end(), [](auto a, auto b) { return std::pair(a.second, a.first) < std::pair(b.second, b.first); });
        EXPECT_EQ(black_pixels(h), expected);
    }
}

TEST(CleanupRows, StatusesAndColourFill) {
    const Handle grey = make_handle(8, 8, 8);
    int32_t out = 0;
    EXPECT_EQ(IMG_get_deskew_angle(grey, &out, -5, 5), IMG_ERR_DEPTH);
    EXPECT_EQ(IMG_auto_orient(grey, &out), IMG_ERR_DEPTH);
    EXPECT_EQ(IMG_deskew_bitmap(grey, 3), IMG_ERR_DEPTH);
    EXPECT_EQ(IMG_despeckle_bitmap(grey, 10), IMG_ERR_DEPTH);
    EXPECT_EQ(IMG_autocrop_bitmap(grey, 0), IMG_ERR_DEPTH);
    EXPECT_EQ(IMG_autocrop_bitmap(99, 0), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_erase_rect(99, 0, 0, 1, 1, 0, 1), IMG_ERR_HANDLE);

    // A COLORREF of 0x000000FF paints red on 24 bits; 16 and 32 bits take
    // the bytes high first.
    for (auto [bits, colour, bytes] : {std::tuple{24, 0x000000FFu, Bytes{0, 0, 0xFF}},
                                       {16, 0x1234u, Bytes{0x12, 0x34}},
                                       {32, 0x11223344u, Bytes{0x11, 0x22, 0x33, 0x44}},
                                       {8, 0x1FFu, Bytes{0xFF}}}) {
        const Handle h = make_handle(6, 4, bits);
        ASSERT_EQ(IMG_erase_rect(h, 2, 1, 2, 2, colour, 1), 0);
        const size_t n = bytes.size();
        const Bytes inside = get_row(h, 2), outside = get_row(h, 0);
        EXPECT_EQ(Bytes(inside.begin() + 3 * n, inside.begin() + 4 * n), bytes) << bits;
        EXPECT_NE(Bytes(outside.begin() + 3 * n, outside.begin() + 4 * n), bytes) << bits;
    }
    // A page shorter than three rows is left as it is.
    const Handle thin = page_with(10, 2, {{3, 0}});
    EXPECT_EQ(IMG_despeckle_bitmap(thin, 10), 0);
    EXPECT_EQ(black_pixels(thin).size(), 1u);
}
