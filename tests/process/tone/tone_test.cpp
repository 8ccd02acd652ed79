// Tone settings, filters and effects on small synthetic images, checked
// against hand-worked numbers and, for saved tone mappings, Pillow's reading
// of the saved file.
#include <gtest/gtest.h>

#include "core/bitmap.h"
#include "process/tone/tone.h"
#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

int32_t uniform(int32_t w, int32_t h, int bits, uint8_t v) {
    return make_handle(w, h, bits, [v](uint8_t* row, uint32_t n, int32_t) { std::memset(row, v, n); });
}

// The window/level entry of value v, or -1 without a mapping.
int32_t window_entry(int32_t handle, uint32_t v) {
    tone::WindowLevel* wl = tone::window_level_state(bitmap_get(handle));
    if (!wl) return -1;
    return wl->bits == 8 ? wl->table8()[v] : wl->table16()[v];
}

}  // namespace

TEST(ToneTable, HandWorkedEntries) {
    struct Case { int32_t gamma, brightness, contrast, in, out; } cases[] = {
        {0, 0, 0, 254, 254},   {0, 0, 0, 255, 255},  {0, 0, 0, 0, 0},        // identity
        {0, 20, 0, 100, 120},  {0, 20, 0, 0, 20},    {0, 20, 0, 250, 255},   // brightness
        {0, 0, 50, 128, 128},  {0, 0, 50, 200, 229}, {0, 0, 50, 50, 19}, {0, 0, 50, 0, 0},
        {200, 0, 0, 64, 128},  {50, 0, 0, 128, 64},  // gamma 2.0 and 0.5
        {0, 0, -100, 255, 156},  // contrast -100: m = 56, 255 x 56 / 255 + 100
    };
    for (const Case& c : cases) {
        uint8_t t[256];
        tone::tone_table(c.gamma, c.brightness, c.contrast, t);
        EXPECT_EQ(t[c.in], c.out) << c.gamma << " " << c.brightness << " " << c.contrast << " @" << c.in;
    }
}

// What is drawn carries the tone settings: 16-bit samples through the
// window/level table as grey, and every channel through the tone table.
TEST(WindowLevel, DisplayDrawsThroughTheTables) {
    const Handle h16 = make_handle(2, 1, 16, [](uint8_t* row, uint32_t, int32_t) {
        store_le16(row, 1200), store_le16(row + 2, 2000);
    });
    ASSERT_EQ(IMG_window_level(h16, 1000, 1400, 1), 0);
    const intptr_t dc = tesslin_dc_create(2, 1);
    ASSERT_EQ(IMG_display_bitmap(h16, dc, 0, 0, 2, 1), 0);
    const uint8_t* px = tesslin_dc_pixels(dc);
    EXPECT_EQ(Bytes(px, px + 6), (Bytes{128, 128, 128, 255, 255, 255}));
    const Handle rgb = make_handle(1, 1, 24, [](uint8_t* row, uint32_t, int32_t) {
        row[0] = 50, row[1] = 128, row[2] = 200;  // blue, green, red
    });
    ASSERT_EQ(IMG_set_lut(rgb, 50, 0), 0);
    ASSERT_EQ(IMG_display_bitmap(rgb, dc, 0, 0, 1, 1), 0);
    EXPECT_EQ(Bytes(px, px + 3), (Bytes{229, 128, 19}));  // the contrast-50 entries
    tesslin_dc_destroy(dc);
}

TEST(WindowLevel, SixteenAndEightBitTables) {
    const Handle h16 = make_handle(4, 2, 16, [](uint8_t* row, uint32_t, int32_t r) {
        for (int x = 0; x < 4; ++x) store_le16(row + 2 * x, uint16_t(1000 + 500 * x + r));
    });
    ASSERT_EQ(IMG_window_level(h16, 100, 300, 1), 0);
    struct { uint32_t v; int32_t e; } w16[] = {{0, 0}, {99, 0}, {100, 0}, {200, 128}, {299, 254}, {300, 255}, {65535, 255}};
    for (auto c : w16) EXPECT_EQ(window_entry(h16, c.v), c.e) << c.v;
    // low = high = 0: the image's own range 1000 ... 2501.
    ASSERT_EQ(IMG_window_level(h16, 0, 0, 1), 0);
    EXPECT_EQ(window_entry(h16, 1000), 0);
    EXPECT_EQ(window_entry(h16, 2501), 255);
    EXPECT_EQ(IMG_window_level(h16, 0, 0, 0), 0);
    EXPECT_EQ(window_entry(h16, 1000), -1);

    const Handle g8 = make_handle(3, 1, 8, [](uint8_t* row, uint32_t, int32_t) { row[0] = 50, row[1] = 100, row[2] = 150; });
    ASSERT_EQ(IMG_window_level(g8, 0, 0, 1), 0);
    EXPECT_EQ(window_entry(g8, 50), 0);
    EXPECT_EQ(window_entry(g8, 100), 128);
    EXPECT_EQ(window_entry(g8, 150), 255);
    // A colour palette, 24 bits and 1 bit are refused.
    dib_palette(bitmap_get(g8)->dib)[7] = RgbQuad{0, 0, 255, 0};
    EXPECT_EQ(IMG_window_level(g8, 0, 255, 1), IMG_ERR_DEPTH);
    for (int bits : {1, 4, 24, 32}) {
        const Handle h = make_handle(4, 4, bits);
        EXPECT_EQ(IMG_window_level(h, 0, 255, 1), IMG_ERR_DEPTH) << bits;
    }
    EXPECT_EQ(IMG_window_level(9999, 0, 255, 1), IMG_ERR_HANDLE);
}

TEST(HistogramEqualize, HalvesAndOrder) {
    const Handle h = make_handle(8, 4, 8, [](uint8_t* row, uint32_t, int32_t r) { std::memset(row, r < 2 ? 10 : 20, 8); });
    ASSERT_EQ(IMG_histogram_equalize(h), 0);
    EXPECT_EQ(IMGLOW_read_pixel(h, 3, 0), 127);
    EXPECT_EQ(IMGLOW_read_pixel(h, 3, 3), 255);

    // A narrow 16-bit ramp keeps its order and spreads to the full range.
    const Handle r16 = make_handle(64, 1, 16, [](uint8_t* row, uint32_t, int32_t) {
        for (int x = 0; x < 64; ++x) store_le16(row + 2 * x, uint16_t(3000 + x));
    });
    ASSERT_EQ(IMG_histogram_equalize(r16), 0);
    int32_t prev = -1;
    for (int x = 0; x < 64; ++x) {
        const int32_t v = IMGLOW_read_pixel(r16, x, 0);
        EXPECT_GT(v, prev);
        prev = v;
    }
    EXPECT_LT(IMGLOW_read_pixel(r16, 0, 0), 2048);
    EXPECT_EQ(prev, 65535);
    const Handle c = make_handle(4, 4, 24);
    EXPECT_EQ(IMG_histogram_equalize(c), IMG_ERR_DEPTH);
}

TEST(Filters, UniformImagesAndKernels) {
    // Filter: 7 keeps uniform 100, 1 gives 0, 8 gives 700 clamped; border
    // columns keep their values.
    struct { int bits; int32_t filter; int32_t inside; } conv[] = {
        {8, 7, 100}, {8, 1, 0}, {8, 8, 255}, {24, 7, 100}, {32, 1, 0}, {24, 8, 255},
    };
    for (auto c : conv) {
        const Handle h = uniform(9, 5, c.bits, 100);
        ASSERT_EQ(IMG_process_bitmap(h, c.filter, nullptr), 0);
        const Bytes top = get_row(h, 0), mid = get_row(h, 2);
        const int step = c.bits / 8;
        EXPECT_EQ(mid[size_t(4 * step)], c.inside) << c.bits << " filter " << c.filter;
        EXPECT_EQ(top[size_t(4 * step)], c.inside) << "top row, filter " << c.filter;
        EXPECT_EQ(mid[0], 100) << "border column";
    }
    // Sharpening and smoothing leave a uniform image as it is.
    for (int bits : {4, 8, 16, 24, 32})
        for (int32_t amount : {-200, -64, 0, 16, 128, 300}) {
            const Handle h = uniform(7, 6, bits, 0x55);
            const Bytes flat = get_row(h, 0);
            ASSERT_EQ(IMG_sharpen_bitmap(h, amount), 0);
            for (int r = 0; r < 6; ++r) EXPECT_EQ(get_row(h, r), flat) << bits << " " << amount;
        }
    // A lone bright sample: smoothing weight 17, sharpening (amount 16) weight 15.
    struct { int32_t amount; int32_t centre; } spot[] = {{0, 17 * 180 / 25}, {16, 2 * 180 - 15 * 180 / 23}};
    for (auto c : spot) {
        const Handle h = make_handle(3, 3, 8, [](uint8_t* row, uint32_t, int32_t r) { std::memset(row, 0, 3); if (r == 1) row[1] = 180; });
        ASSERT_EQ(IMG_sharpen_bitmap(h, c.amount), 0);
        EXPECT_EQ(IMGLOW_read_pixel(h, 1, 1), c.centre);
    }
    // Refusals.
    const Handle mono = make_handle(16, 4, 1), colour = make_handle(8, 4, 8), grey = make_handle(8, 4, 8);
    dib_palette(bitmap_get(colour)->dib)[3] = RgbQuad{255, 0, 0, 0};
    EXPECT_EQ(IMG_sharpen_bitmap(mono, 0), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(IMG_sharpen_bitmap(colour, 0), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(IMG_process_bitmap(mono, 1, nullptr), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(IMG_process_bitmap(grey, 10, nullptr), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(IMG_process_bitmap(grey, 0, nullptr), IMG_ERR_UNSUPPORTED);
    const int8_t identity[9] = {0, 0, 0, 0, 1, 0, 0, 0, 0};
    const Bytes before = get_row(grey, 2);
    EXPECT_EQ(IMG_process_bitmap(grey, 0, identity), 0);
    EXPECT_EQ(get_row(grey, 2), before);
}

TEST(RedEye, SyntheticFace) {
    // A skin-coloured face on grey with two red pupils (radius 4, 49 pixels)
    // and one 3 x 3 red patch elsewhere. A red area is corrected only while
    // it is smaller than width x height / 800 pixels: 160 here.
    const int32_t w = 400, hgt = 320;
    auto paint = [](uint8_t* row, uint32_t, int32_t r) {
        for (int x = 0; x < 400; ++x) {
            uint8_t* p = row + 3 * x;
            auto in = [&](int cx, int cy, int rad) { return (x - cx) * (x - cx) + (r - cy) * (r - cy) <= rad * rad; };
            p[0] = 128, p[1] = 128, p[2] = 128;
            if (in(100, 80, 60)) p[0] = 140, p[1] = 172, p[2] = 224;
            if (in(80, 65, 4) || in(120, 65, 4)) p[0] = 40, p[1] = 30, p[2] = 210;
            if (x >= 20 && x < 23 && r >= 20 && r < 23) p[0] = 30, p[1] = 30, p[2] = 200;
            if (in(300, 240, 10)) p[0] = 40, p[1] = 30, p[2] = 210;  // 317 pixels: too large
        }
    };
    const Handle h = make_handle(w, hgt, 24, paint);
    ASSERT_EQ(IMG_remove_red_eye(h, -1, 0, 0, 0), 0);
    for (auto [x, y] : {std::pair{80, 65}, {120, 65}, {77, 66}, {121, 68}}) {
        const int32_t v = IMGLOW_read_pixel(h, x, y);
        EXPECT_EQ(v >> 16, 30) << x << "," << y;  // red became min(green, blue)
    }
    EXPECT_EQ(IMGLOW_read_pixel(h, 21, 21), 30 << 16 | 30 << 8 | 30);
    EXPECT_EQ(IMGLOW_read_pixel(h, 100, 110), 224 << 16 | 172 << 8 | 140);  // skin kept
    EXPECT_EQ(IMGLOW_read_pixel(h, 300, 240) >> 16, 210);
    // Only inside the search rectangle; no red: nothing changes.
    const Handle part = make_handle(w, hgt, 24, paint);
    ASSERT_EQ(IMG_remove_red_eye(part, 100, 40, 60, 60), 0);
    EXPECT_EQ(IMGLOW_read_pixel(part, 80, 65) >> 16, 210);
    EXPECT_EQ(IMGLOW_read_pixel(part, 120, 65) >> 16, 30);
    const Handle grey = uniform(100, 100, 24, 90);
    const Bytes flat = get_row(grey, 50);
    ASSERT_EQ(IMG_remove_red_eye(grey, -1, -1, -1, -1), 0);
    EXPECT_EQ(get_row(grey, 50), flat);
    for (int bits : {8, 32}) {
        const Handle o = make_handle(8, 8, bits);
        EXPECT_EQ(IMG_remove_red_eye(o, -1, -1, -1, -1), IMG_ERR_DEPTH);
        EXPECT_EQ(IMG_antique_effect(o), IMG_ERR_DEPTH);
    }
}

TEST(Antique, SepiaAndFrame) {
    const Handle h = uniform(500, 40, 24, 255);
    ASSERT_EQ(IMG_antique_effect(h), 0);
    const int32_t frame = 250 << 16 | 220 << 8 | 183, inside = 253 << 16 | 199 << 8 | 139;
    struct { int x, y, v; } probes[] = {{0, 20, frame}, {9, 20, frame}, {10, 20, inside}, {489, 20, inside},
                                        {490, 20, frame}, {250, 9, frame}, {250, 10, inside}, {250, 30, frame}};
    for (auto p : probes) EXPECT_EQ(IMGLOW_read_pixel(h, p.x, p.y), p.v) << p.x << "," << p.y;
}

TEST(ReadPixel, EveryDepth) {
    const Handle c = make_handle(2, 2, 24, [](uint8_t* row, uint32_t, int32_t r) { row[3] = 1, row[4] = 2, row[5] = uint8_t(3 + r); });
    EXPECT_EQ(IMGLOW_read_pixel(c, 1, 0), 3 * 65536 + 2 * 256 + 1);
    EXPECT_EQ(IMGLOW_read_pixel(c, 1, 1), 4 * 65536 + 2 * 256 + 1);
    EXPECT_EQ(IMGLOW_read_pixel(c, 2, 0), IMG_ERR_BAD_IMAGE);
    const Handle n = make_handle(3, 1, 4, [](uint8_t* row, uint32_t, int32_t) { row[0] = 0xA5, row[1] = 0xC0; });
    EXPECT_EQ(IMGLOW_read_pixel(n, 0, 0), 0xA);
    EXPECT_EQ(IMGLOW_read_pixel(n, 1, 0), 0x5);
    EXPECT_EQ(IMGLOW_read_pixel(n, 2, 0), 0xC);
    const Handle m = make_handle(16, 1, 1, [](uint8_t* row, uint32_t, int32_t) { row[0] = 0x40, row[1] = 0x01; });
    EXPECT_EQ(IMGLOW_read_pixel(m, 1, 0), 1);
    EXPECT_EQ(IMGLOW_read_pixel(m, 0, 0), 0);
    EXPECT_EQ(IMGLOW_read_pixel(m, 15, 0), 1);
    ASSERT_EQ(IMG_dib_to_runs(m), 0);
    EXPECT_EQ(IMGLOW_read_pixel(m, 1, 0), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(IMGLOW_read_pixel(12345, 0, 0), IMG_ERR_HANDLE);
}

TEST(Merge, ByHandleAndAlpha) {
    // 1 bit, OR: white (1) wins; both end as plain rows.
    const Handle d = make_handle(32, 4, 1, [](uint8_t* row, uint32_t n, int32_t) { std::memset(row, 0x0F, n); });
    const Handle s = make_handle(16, 2, 1, [](uint8_t* row, uint32_t n, int32_t) { std::memset(row, 0xF0, n); });
    ASSERT_EQ(IMG_dib_to_runs(d), 0);
    ASSERT_EQ(IMG_dib_to_runs(s), 0);
    ASSERT_EQ(IMG_merge_bitmap_handle(d, s, 1, 8, 2), 0);
    EXPECT_EQ(IMGLOW_read_pixel(d, 8, 2), 1);
    EXPECT_EQ(get_row(d, 3)[1], 0xFF);
    EXPECT_EQ(get_row(d, 3)[3], 0x0F);
    EXPECT_EQ(get_row(d, 1)[1], 0x0F);
    EXPECT_NE(IMGLOW_read_pixel(s, 0, 0), IMG_ERR_UNSUPPORTED);
    // 8 bit copy and AND, clipped at the destination's right and bottom.
    const Handle g = uniform(10, 3, 8, 0xF0), k = uniform(6, 6, 8, 0x3C);
    ASSERT_EQ(IMG_merge_bitmap_handle(g, k, 0, 7, 1), 0);
    EXPECT_EQ(IMGLOW_read_pixel(g, 6, 1), 0xF0);
    EXPECT_EQ(IMGLOW_read_pixel(g, 9, 2), 0x3C);
    ASSERT_EQ(IMG_merge_bitmap_handle(g, k, 2, 0, 0), 0);
    EXPECT_EQ(IMGLOW_read_pixel(g, 0, 0), 0x30);
    EXPECT_EQ(IMG_merge_bitmap_handle(g, d, 0, 0, 0), IMG_ERR_DEPTH);

    // Alpha: a 2 x 1 bitmap (alpha 128 and 0) onto a 4 x 2 packed 24-bit DIB.
    const Handle a = make_handle(2, 1, 32, [](uint8_t* row, uint32_t, int32_t) {
        const uint8_t px[8] = {200, 100, 0, 128, 9, 9, 9, 0};
        std::memcpy(row, px, 8);
    });
    bitmap_get(a)->header()->biCompression = 200;
    std::vector<uint8_t> dest(40 + 2 * 12, 0);
    auto* dh = reinterpret_cast<IMG_BITMAPINFOHEADER*>(dest.data());
    *reinterpret_cast<DibHeader*>(dh) = dib_header(4, 2, 24);
    for (size_t i = 40; i < dest.size(); ++i) dest[i] = 100;
    ASSERT_EQ(IMG_merge_bitmap_alpha(a, dh, 1, 1, 0), 0);
    const uint8_t* p = dest.data() + 40 + 3;  // image row 1 is stored first
    EXPECT_EQ(p[0], (100 * 127 >> 8) + (200 * 128 >> 8));
    EXPECT_EQ(p[1], (100 * 127 >> 8) + (100 * 128 >> 8));
    EXPECT_EQ(p[2], (100 * 127 >> 8));
    EXPECT_EQ(p[3], 100);  // alpha 0 left
    ASSERT_EQ(IMG_merge_bitmap_alpha(a, dh, 0, 1, 1), 0);
    EXPECT_EQ(dest[40], 200);
    bitmap_get(a)->header()->biCompression = 0;
    EXPECT_EQ(IMG_merge_bitmap_alpha(a, dh, 0, 0, 1), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(IMG_merge_bitmap_alpha(g, dh, 0, 0, 1), IMG_ERR_DEPTH);
}

TEST(SaveToneMap, PillowReadsTheMappedRows) {
    if (!have_pillow()) GTEST_SKIP() << "Pillow missing";
    // Pixels 50, 128, 200 under contrast 50 (the hand-worked entries) are saved
    // as 19, 128, 229; gamma alone does not reach the saved file.
    const uint8_t values[3] = {50, 128, 200};
    struct { int bits; int32_t contrast, gamma; uint8_t expect[3]; } cases[] = {
        {24, 50, 0, {19, 128, 229}}, {8, 50, 0, {19, 128, 229}}, {24, 0, 250, {50, 128, 200}},
    };
    for (auto c : cases) {
        const Handle h = make_handle(9, 2, c.bits, [&](uint8_t* row, uint32_t n, int32_t) {
            for (uint32_t i = 0; i < n; ++i) row[i] = values[(c.bits == 8 ? i : i / 3) % 3];
        });
        ASSERT_EQ(IMG_set_lut(h, c.contrast, 0), 0);
        ASSERT_EQ(IMG_set_gamma(h, c.gamma), 0);
        const Scratch path("tone.png");
        ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_FORMAT_PNG), 0);
        const Raster r = pillow(path, "L");
        ASSERT_EQ(r.width, 9);
        for (int i = 0; i < 3; ++i) EXPECT_EQ(r.px[size_t(i)], c.expect[i]) << c.bits << " " << i;
    }
    // A colour palette is mapped in the saved palette.
    const Handle p = make_handle(4, 1, 8, [](uint8_t* row, uint32_t, int32_t) { row[0] = 0, row[1] = 1; });
    dib_palette(bitmap_get(p)->dib)[1] = RgbQuad{200, 128, 50, 0};  // blue, green, red
    ASSERT_EQ(IMG_set_lut(p, 50, 0), 0);
    const Scratch path("tonepal.png");
    ASSERT_EQ(IMG_save_bitmap(p, path.c_str(), IMG_FORMAT_PNG), 0);
    const Raster rgb = pillow(path, "RGB");
    ASSERT_EQ(rgb.width, 4);
    EXPECT_EQ(Bytes(rgb.px.begin() + 3, rgb.px.begin() + 6), (Bytes{19, 128, 229}));
}
