// Drawing into the software surfaces and display geometry: stretching,
// mirroring and clipping, the documented mapping and fitting figures,
// drawings checked against ImageMagick's rotations, flips and box scaling of
// the same image, and the mapping checked against what the drawing put where.
#include <gtest/gtest.h>

#include <climits>

#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

Raster surface(intptr_t dc) {
    Raster r;
    tesslin_dc_size(dc, &r.width, &r.height);
    r.channels = 3;
    const uint8_t* p = tesslin_dc_pixels(dc);
    r.px.assign(p, p + size_t(r.width) * size_t(r.height) * 3);
    return r;
}

void write_ppm(const std::string& path, const Raster& r) {
    const std::string head = "P6\n" + std::to_string(r.width) + " " + std::to_string(r.height) + "\n255\n";
    Bytes b(head.begin(), head.end());
    b.insert(b.end(), r.px.begin(), r.px.end());
    write_file(path, b);
}

// ImageMagick's result of `ops` on the image, as RGB.
Raster magick(const Raster& image, const std::string& ops) {
    const Scratch in("geom_in.ppm"), out("geom_out.ppm");
    write_ppm(in, image);
    return run("/usr/bin/convert '" + in.path + "' " + ops + " '" + out.path + "'") ? read_netpbm(out) : Raster{};
}

// 7 x 5, every pixel a different colour.
int32_t colourful() {
    return make_handle(7, 5, 24, [](uint8_t* row, uint32_t, int32_t r) {
        for (int x = 0; x < 7; ++x) {
            row[3 * x] = uint8_t(30 * r), row[3 * x + 1] = uint8_t(200 - 25 * x),
            row[3 * x + 2] = uint8_t(36 * x + 5 * r);
        }
    });
}

}  // namespace

TEST(DisplayDraw, BilevelRunRecordsAndPalettes) {
    // Column x is black when x is odd.
    const Handle h = make_handle(9, 2, 1, [](uint8_t* row, uint32_t n, int32_t) { std::memset(row, 0xAA, n); });
    const intptr_t dc = tesslin_dc_create(9, 2);
    for (int pass = 0; pass < 2; ++pass) {
        ASSERT_EQ(IMG_display_bitmap(h, dc, 0, 0, 9, 2), 0);
        for (int32_t x = 0; x < 9; ++x)
            EXPECT_EQ(surface(dc).at(x, 1)[0], x % 2 ? 0 : 255) << "pass " << pass << " x " << x;
        // The same page in the other storage (packed rows or run records).
        if (IMG_dib_to_runs(h) != 0) {
            ASSERT_EQ(IMG_runs_to_dib(h), 0);
        }
    }
    tesslin_dc_destroy(dc);
}

// Window points outside the picture map to its nearest edge. (Every point
// inside, at every angle: MappingAgreesWithDrawing.)
TEST(DisplayGeometry, MappingClampsToThePicture) {
    const Handle h = make_handle(200, 100, 8);
    const intptr_t window = tesslin_window_create(400, 400);
    int32_t x = -40, y = 5000;
    ASSERT_EQ(IMGLOW_map_wnd_to_image(h, window, &x, &y), 0);
    EXPECT_EQ(std::pair(x, y), std::pair(0, 99));
    tesslin_window_destroy(window);
}

TEST(DisplayGeometry, FitFigures) {
    const Handle h = make_handle(1000, 3000, 8);
    const intptr_t dc = tesslin_dc_create(500, 500);
    int32_t cx, cy, cw, ch, dx, dy, dw, dh;
    EXPECT_EQ(IMG_display_fit_to_width(h, dc, 0, 0, 0, 500, 500), 50);
    IMG_get_croprect(h, &cx, &cy, &cw, &ch);
    EXPECT_EQ(std::pair(cw, ch), std::pair(1000, 1000));
    IMGLOW_get_display_rect(h, &dx, &dy, &dw, &dh);
    EXPECT_EQ(std::pair(dw, dh), std::pair(500, 500));
    // By height the whole image fits: 167 columns wide, centred.
    EXPECT_EQ(IMG_display_fit_to_height(h, dc, 0, 0, 0, 500, 500), 16);
    IMG_get_croprect(h, &cx, &cy, &cw, &ch);
    EXPECT_EQ(cw * 10000 + ch, 1000 * 10000 + 3000);
    IMGLOW_get_display_rect(h, &dx, &dy, &dw, &dh);
    EXPECT_EQ(std::pair(dx, dw), std::pair(166, 167));
    // Turned a quarter, the image is 3000 wide: fitting the width shows it all.
    IMG_set_display_angle(h, 90);
    EXPECT_EQ(IMG_display_fit_to_width(h, dc, 0, 0, 0, 500, 500), 16);
    IMGLOW_get_display_rect(h, &dx, &dy, &dw, &dh);
    EXPECT_EQ(std::pair(dy, dh), std::pair(167, 166));
    tesslin_dc_destroy(dc);
}

// The crop rectangle drawn at 1:1 or stretched nearest-neighbour, in each
// angle and mirroring, placed off the corner and clipped at the surface's
// edges: the white 16 x 12 surface holds what ImageMagick makes of the image.
TEST(DisplayGeometry, DrawingMatchesImageMagick) {
    if (!have_tool("/usr/bin/convert")) GTEST_SKIP() << "ImageMagick missing";
    const Handle h = colourful();
    const Raster image = handle_raster(h);
    struct Case {
        int32_t angle, x, y, w, h;  // a negative size mirrors
        bool crop;                  // the crop rectangle is the pixel at (2, 1)
        std::string ops;
    } cases[] = {{0, 0, 0, 14, 10, false, "-sample 200%"},
                 {0, 1, 1, 14, 10, false, "-sample 200%"},
                 {90, 0, 0, 5, 7, false, "-rotate 90"},
                 {180, 0, 0, 7, 5, false, "-rotate 180"},
                 {270, 0, 0, 10, 14, false, "-rotate 270 -sample 200%"},
                 {0, 0, 0, -7, 5, false, "-flop"},
                 {90, 0, 0, 5, -7, false, "-flip -rotate 90"},
                 {0, 12, 0, -7, -5, false, "-flip -flop"},
                 {0, 0, 0, 3, 3, true, "-crop 1x1+2+1 +repage -sample 300%"}};
    for (const Case& c : cases) {
        IMG_set_display_angle(h, c.angle);
        IMG_set_croprect(h, c.crop ? 2 : 0, c.crop ? 1 : 0, c.crop ? 1 : 7, c.crop ? 1 : 5);
        const intptr_t dc = tesslin_dc_create(16, 12);
        ASSERT_EQ(IMG_display_bitmap(h, dc, c.x, c.y, c.w, c.h), 0);
        const std::string place = " -background white -gravity northwest -splice " + std::to_string(c.x) + "x" +
                                  std::to_string(c.y) + " -extent 16x12";
        EXPECT_EQ(count_differences(surface(dc), magick(image, c.ops + place), 3), 0u) << c.ops << " at " << c.x;
        tesslin_dc_destroy(dc);
    }
    // Anti-aliased and printed drawings average like ImageMagick's box scaling.
    IMG_set_display_angle(h, 0);
    const Handle big = make_handle(64, 48, 24, [](uint8_t* row, uint32_t n, int32_t r) {
        for (uint32_t b = 0; b < n; ++b) row[b] = uint8_t((b * 37 + uint32_t(r) * 91) ^ (b >> 2));
    });
    const Raster want = magick(handle_raster(big), "-scale 25%");
    for (int print = 0; print < 2; ++print) {
        const intptr_t dc = tesslin_dc_create(16, 12);
        ASSERT_EQ(print ? IMG_print_bitmap(big, dc, 0, 0, 0, 0) : IMG_display_bitmap_iac(big, dc, 0, 0, 16, 12), 0);
        const Raster got = surface(dc);
        ASSERT_EQ(got.px.size(), want.px.size());
        for (size_t i = 0; i < got.px.size(); ++i) EXPECT_NEAR(got.px[i], want.px[i], 1) << i;
        tesslin_dc_destroy(dc);
    }
}

// The mappings agree with what the aspect drawing put where: an image
// point maps to a window point showing its colour (at whole scales, 10:1
// here, where pixel edges fall on window pixels), and every window point of
// the picture maps back to the image pixel drawn there.
TEST(DisplayGeometry, MappingAgreesWithDrawing) {
    const Handle h = colourful();
    const Raster image = handle_raster(h);
    const intptr_t window = tesslin_window_create(70, 70);
    const intptr_t dc = tesslin_window_dc(window);
    for (int32_t angle : {0, 90, 180, 270}) {
        IMG_set_display_angle(h, angle);
        ASSERT_EQ(IMG_display_bitmap_aspect(h, dc, 0, 0, 70, 70), 0);
        const Raster shown = surface(dc);
        for (int32_t iy = 0; iy < 5; ++iy)
            for (int32_t ix = 0; ix < 7; ++ix) {
                int32_t x = ix, y = iy;
                ASSERT_EQ(IMGLOW_map_image_to_wnd(h, window, &x, &y), 0);
                EXPECT_EQ(std::memcmp(shown.at(x, y), image.at(ix, iy), 3), 0) << angle << ": " << ix << "," << iy;
            }
        int32_t px, py, pw, ph;
        IMGLOW_get_display_rect(h, &px, &py, &pw, &ph);
        for (int32_t y = py; y < py + ph; ++y)
            for (int32_t x = px; x < px + pw; ++x) {
                int32_t ix = x, iy = y;
                ASSERT_EQ(IMGLOW_map_wnd_to_image(h, window, &ix, &iy), 0);
                ASSERT_EQ(std::memcmp(shown.at(x, y), image.at(ix, iy), 3), 0) << angle << ": " << x << "," << y;
            }
    }
    tesslin_window_destroy(window);
}

TEST(DisplayGeometry, CombiningWithTheSurface) {
    // 4-bit grey ramp, index 3 transparent; a white surface painted black first.
    const Handle h = make_handle(4, 1, 4, [](uint8_t* row, uint32_t, int32_t) { row[0] = 0x23, row[1] = 0x45; });
    const intptr_t dc = tesslin_dc_create(4, 1);
    const Handle black = make_handle(4, 1, 1, [](uint8_t* row, uint32_t n, int32_t) { std::memset(row, 0, n); });
    ASSERT_EQ(IMG_display_bitmap(black, dc, 0, 0, 4, 1), 0);
    IMGLOW_set_transp_color(h, 0x1003);
    ASSERT_EQ(IMG_display_bitmap_transp(h, dc, 0, 0, 4, 1), 0);
    const uint8_t* p = tesslin_dc_pixels(dc);
    EXPECT_EQ(p[0], 34);  // index 2
    EXPECT_EQ(p[3], 0);   // index 3: transparent, the black stays
    EXPECT_EQ(p[6], 68);
    // Half over black; then white ANDed (source AND destination) leaves it.
    ASSERT_EQ(IMG_merge_bitmap(h, dc, 0, 0, 4, 1, 50), 0);
    EXPECT_EQ(p[3], 26);  // (51 + 0) / 2 rounded
    const Handle white = make_handle(4, 1, 1, [](uint8_t* row, uint32_t n, int32_t) { std::memset(row, 0xFF, n); });
    IMGLOW_set_rop(white, 0x008800C6);
    ASSERT_EQ(IMG_display_bitmap(white, dc, 0, 0, 4, 1), 0);
    EXPECT_EQ(p[3], 26);
    int32_t entries[1] = {0};
    EXPECT_EQ(IMG_get_bitmap_palette(h, nullptr), 16);
    EXPECT_EQ(IMG_get_bitmap_palette(Handle(colourful()), reinterpret_cast<IMG_RGBQUAD*>(entries)), 0);
    tesslin_dc_destroy(dc);
}

TEST(DisplayGeometry, DeviceBitmaps) {
    const Handle h = colourful();
    const intptr_t dc = tesslin_dc_create(14, 10);
    const intptr_t ddb = IMG_dib_to_ddb(h, dc);
    ASSERT_GT(ddb, 0);
    const Handle back = IMG_create_handle_ddb(ddb);
    ASSERT_GE(back, 0);
    EXPECT_EQ(count_differences(handle_raster(back), handle_raster(h), 3), 0u);
    // A wipe ends with the same picture as drawing at once.
    ASSERT_EQ(IMG_display_ddb(ddb, dc, 0, 0, 14, 10), 0);
    const Raster at_once = surface(dc);
    const intptr_t dc2 = tesslin_dc_create(14, 10);
    for (int32_t effect : {1, 4}) {
        ASSERT_EQ(IMG_display_ddb_effect(ddb, dc2, 0, 0, 14, 10, effect), 0);
        EXPECT_EQ(count_differences(surface(dc2), at_once, 3), 0u) << effect;
    }
    EXPECT_EQ(IMG_display_ddb_effect(ddb, dc2, 0, 0, 14, 10, 9), IMG_ERR_UNSUPPORTED);
    tesslin_dc_destroy(ddb);
    EXPECT_EQ(IMG_display_ddb(ddb, dc, 0, 0, 14, 10), IMG_ERR_BAD_IMAGE);
    tesslin_dc_destroy(dc);
    tesslin_dc_destroy(dc2);
}

TEST(DisplayGeometry, BadArguments) {
    const Handle h = colourful();
    const intptr_t window = tesslin_window_create(50, 50), dc = tesslin_window_dc(window);
    int32_t x = 1, y = 1;
    for (int32_t angle : {45, -90, 360, INT_MIN}) EXPECT_EQ(IMG_set_display_angle(h, angle), IMG_ERR_UNSUPPORTED);
    IMG_set_display_angle(h, 180);
    EXPECT_EQ(IMG_set_display_angle(h, 45), IMG_ERR_UNSUPPORTED);
    x = 0, y = 0;
    IMGLOW_map_image_to_wnd(h, window, &x, &y);
    EXPECT_GT(x, 0);  // still turned: the image's corner is at the far side
    struct Case {
        const char* what;
        int32_t got, want;
    } cases[] = {
        {"angle, bad handle", IMG_set_display_angle(-1, 0), IMG_ERR_HANDLE},
        {"map, bad handle", IMGLOW_map_image_to_wnd(10000, window, &x, &y), IMG_ERR_HANDLE},
        {"map, null window", IMGLOW_map_image_to_wnd(h, 0, &x, &y), IMG_ERR_BAD_IMAGE},
        {"map, null point", IMGLOW_map_wnd_to_image(h, window, nullptr, &y), IMG_ERR_BAD_IMAGE},
        {"fit, zero area", IMG_display_fit_to_width(h, dc, window, 0, 0, 0, 50), IMG_ERR_DISPLAY_RECT},
        {"fit, null dc", IMG_display_fit_to_height(h, 0, window, 0, 0, 50, 50), IMG_ERR_BAD_IMAGE},
        {"fit, dead window", IMG_display_fit_to_height(h, dc, 987654, 0, 0, 50, 50), IMG_ERR_BAD_IMAGE},
        {"aspect, zero height", IMG_display_bitmap_aspect(h, dc, 0, 0, 5, 0), IMG_ERR_DISPLAY_RECT},
        {"transp, bad handle", IMG_display_bitmap_transp(-5, dc, 0, 0, 5, 5), IMG_ERR_HANDLE},
        {"iac, null dc", IMG_display_bitmap_iac(h, 0, 0, 0, 5, 5), IMG_ERR_BAD_IMAGE},
        {"merge, 101 %", IMG_merge_bitmap(h, dc, 0, 0, 5, 5, 101), IMG_ERR_UNSUPPORTED},
        {"print, zero width", IMG_print_bitmap_fast(h, dc, 0, 0, 0, 5), IMG_ERR_DISPLAY_RECT},
        {"ddb, null dc", int32_t(IMG_dib_to_ddb(h, 0)), IMG_ERR_BAD_IMAGE},
        {"ddb handle, null", IMG_create_handle_ddb(0), IMG_ERR_BAD_IMAGE},
        {"palette, bad handle", IMG_get_bitmap_palette(-1, nullptr), IMG_ERR_HANDLE},
        {"draw, zero width", IMG_display_bitmap(h, dc, 0, 0, 0, 4), IMG_ERR_DISPLAY_RECT},
        {"draw, unknown dc", IMG_display_bitmap(h, 12345678, 0, 0, 4, 4), IMG_ERR_BAD_IMAGE},
        {"draw, bad handle", IMG_display_bitmap(-1, dc, 0, 0, 4, 4), IMG_ERR_HANDLE},
        {"dc, zero width", int32_t(tesslin_dc_create(0, 5)), 0},
        {"window, zero width", int32_t(tesslin_window_create(0, 10)), 0},
        {"window, negative height", int32_t(tesslin_window_create(5, -1)), 0},
    };
    for (const Case& c : cases) EXPECT_EQ(c.got, c.want) << c.what;
    // A window's own surface goes with the window; a surface is destroyed once.
    EXPECT_EQ(tesslin_dc_destroy(dc), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(tesslin_window_destroy(window), 0);
    EXPECT_EQ(tesslin_dc_pixels(dc), nullptr);
    const intptr_t own = tesslin_dc_create(4, 4);
    EXPECT_EQ(tesslin_dc_destroy(own), 0);
    EXPECT_EQ(tesslin_dc_destroy(own), IMG_ERR_BAD_IMAGE);
}
