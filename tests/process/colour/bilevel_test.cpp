// Reduction to bilevel: the thresholds' own numbers on uniform images, the
// automatic threshold, local brightness kept on a ramp and on a photograph,
// and the save driver's reduction for bilevel-only codes.
#include <gtest/gtest.h>

#include "colour_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// The 8 x 8 Bayer thresholds; line x mod 8, position s mod 8 (s the stored
// row, counted from the bottom).
constexpr uint8_t kBayer[8][8] = {
    {4, 128, 32, 160, 8, 136, 40, 168},   {192, 64, 224, 96, 200, 72, 232, 104},
    {48, 176, 16, 144, 56, 184, 24, 152}, {240, 112, 208, 80, 248, 120, 216, 88},
    {12, 140, 44, 172, 4, 132, 36, 164},  {204, 76, 236, 108, 196, 68, 228, 100},
    {60, 188, 28, 156, 52, 180, 20, 148}, {252, 124, 220, 92, 244, 116, 212, 84},
};

int32_t grey_handle(int32_t width, int32_t height, const std::function<uint8_t(int32_t, int32_t)>& grey) {
    return make_handle(width, height, 8, [&](uint8_t* row, uint32_t, int32_t y) {
        for (int32_t x = 0; x < width; ++x) row[x] = grey(x, y);
    });
}

// White pixels of a bilevel handle, after checking it is run-encoded with
// palette black, white.
Raster bilevel(int32_t h) {
    EXPECT_EQ(info_of(h).biBitCount, 1);
    EXPECT_EQ(info_of(h).biCompression, uint32_t(IMG_COMPRESSION_RUNS));
    const Bytes header = header_of(h);
    EXPECT_EQ(load_le32(header.data() + 40), 0u);
    EXPECT_EQ(load_le32(header.data() + 44), 0x00FFFFFFu);
    return handle_raster(h);
}

size_t whites(const Raster& r) {
    size_t n = 0;
    for (int32_t y = 0; y < r.height; ++y)
        for (int32_t x = 0; x < r.width; ++x) n += r.at(x, y)[0] == 255;
    return n;
}

}  // namespace

// Uniform greys against the Bayer matrix: white where the grey exceeds the
// threshold (4 stays black: the smallest thresholds are 4).
TEST(Bilevel, BayerOnUniformGreys) {
    for (uint8_t level : {128, 4, 5, 255}) {
        const Handle h = grey_handle(21, 19, [&](int32_t, int32_t) { return level; });
        ASSERT_EQ(IMG_bayer_mono(h), 0);
        const Raster r = bilevel(h);
        for (int32_t y = 0; y < 19; ++y)
            for (int32_t x = 0; x < 21; ++x) {
                const bool white = level > kBayer[x % 8][(19 - 1 - y) % 8];
                ASSERT_EQ(r.at(x, y)[0], white ? 255 : 0) << int(level) << " at " << x << "," << y;
            }
    }
}

// Uniform extremes: no stray pixel from the screen's 0 threshold or from
// diffusion.
TEST(Bilevel, UniformExtremesStayPure) {
    for (auto op : {IMG_halftone_mono, IMG_diffusion_mono, IMG_bayer_mono})
        for (uint8_t level : {0, 255}) {
            const Handle h = grey_handle(37, 23, [&](int32_t, int32_t) { return level; });
            ASSERT_EQ(op(h), 0);
            EXPECT_EQ(whites(bilevel(h)), level ? 37u * 23 : 0u) << int(level);
        }
}

// Fixed thresholds on colour; the automatic threshold on images 10 % and
// 20 % black: the black pixels map to 25 (stay black) and 51 (above 40:
// everything white).
TEST(Bilevel, Thresholds) {
    const Handle h = rgb_handle(4, 1, [](int32_t x, int32_t) { return x < 2 ? 0xFFFFFFu : 0x7F7F7Fu; });
    ASSERT_EQ(IMG_thresh_mono(h, 127), 0);
    const Raster r = bilevel(h);
    EXPECT_EQ(r.at(0, 0)[0], 255);
    EXPECT_EQ(r.at(3, 0)[0], 0);
    for (const auto& c : {std::pair{1, size_t(90)}, {2, size_t(100)}}) {
        const int black_rows = c.first;  // a plain name: the lambda below captures it
        const size_t white = c.second;
        const Handle a = grey_handle(10, 10, [&](int32_t, int32_t y) { return uint8_t(y < black_rows ? 0 : 255); });
        ASSERT_EQ(IMG_thresh_mono(a, -1), 0);
        EXPECT_EQ(whites(bilevel(a)), white);
    }
}

// Local brightness: on a grey ramp the share of white pixels over every
// 8-column band (one tile of the ordered dithers) matches the ramp's mean
// within 4 %; on a photograph the mean of every 16 x 16 block stays near the
// block's grey mean (on average within 3 %, never beyond 12 %).
TEST(Bilevel, DithersKeepTheBrightness) {
    const Raster photo = corpus_reference("jpeg/grey.jpg");
    ASSERT_FALSE(photo.px.empty());
    Raster ramp{512, 64, 1, Bytes(512 * 64)};
    for (size_t i = 0; i < ramp.px.size(); ++i) ramp.px[i] = uint8_t(i % 512 / 2);
    const struct {
        const Raster& grey;
        int32_t bw, bh;
        double mean, worst;
    } sources[] = {{ramp, 8, 64, 0.04, 0.04}, {photo, 16, 16, 0.03, 0.12}};
    for (const auto& src : sources) {
        for (auto op : {IMG_bayer_mono, IMG_halftone_mono, IMG_diffusion_mono}) {
            const Raster& grey = src.grey;
            const Handle h =
                grey_handle(grey.width, grey.height, [&](int32_t x, int32_t y) { return grey.at(x, y)[0]; });
            ASSERT_EQ(op(h), 0);
            const Raster r = bilevel(h);
            double total = 0, worst = 0;
            int blocks = 0;
            for (int32_t by = 0; by + src.bh <= grey.height; by += src.bh)
                for (int32_t bx = 0; bx + src.bw <= grey.width; bx += src.bw, ++blocks) {
                    double a = 0, b = 0;
                    for (int32_t y = by; y < by + src.bh; ++y)
                        for (int32_t x = bx; x < bx + src.bw; ++x) a += grey.at(x, y)[0], b += r.at(x, y)[0];
                    const double d = std::abs(a - b) / (src.bw * src.bh * 255.0);
                    total += d, worst = std::max(worst, d);
                }
            EXPECT_LE(total / blocks, src.mean) << grey.width;
            EXPECT_LE(worst, src.worst) << grey.width;
        }
    }
}

// Bilevel-only encoders receive deeper images as the decode driver's ordered
// dither: Bayer line (image row & 7), position (x & 7), white above the
// threshold; 16-bit samples through the palette entry of their high byte.
TEST(Bilevel, SaveToBilevelCodesDithersLikeTheDecodeDriver) {
    for (int bits : {8, 16, 24}) {
        const Handle h = make_handle(29, 17, bits, [&](uint8_t* row, uint32_t n, int32_t y) {
            for (uint32_t i = 0; i < n; ++i) row[i] = uint8_t(y * 13 + i * 5);
        });
        const Raster src = handle_raster(h);
        int32_t status = 0;
        const Bytes g4 = save_mem(h, 10, &status);
        ASSERT_GT(status, 0) << bits;
        const Handle back = decode_mem(g4);
        ASSERT_GE(back, 0);
        const Raster r = handle_raster(back);
        for (int32_t y = 0; y < 17; ++y)
            for (int32_t x = 0; x < 29; ++x) {
                const uint8_t* p = src.at(x, y);
                const uint32_t lum = (59u * p[1] + 11u * p[2] + 30u * p[0]) / 100;
                const int32_t hi = bits == 16 ? (y * 13 + (2 * x + 1) * 5) & 255 : -1;
                const uint32_t grey = bits == 16 ? uint32_t(hi) : lum;  // grey ramp palette
                ASSERT_EQ(r.at(x, y)[0], grey > kBayer[y & 7][x & 7] ? 255 : 0) << bits << " bits " << x << "," << y;
            }
    }
}

// Stucki diffusion as its definition reads it (three rows, serpentine by
// stored row, shares truncated toward zero, nothing clamped) against the
// operation, on noise of awkward sizes.
TEST(Bilevel, DiffusionFollowsItsDefinitionOnNoise) {
    for (const auto& size : {std::pair{1, 1}, {7, 2}, {9, 3}, {64, 5}, {333, 47}}) {
        const int w = size.first, h = size.second;  // plain names: the lambdas capture them
        uint32_t seed = uint32_t(w * 31 + h);
        std::vector<uint8_t> grey(size_t(w) * size_t(h));
        for (uint8_t& g : grey) g = uint8_t((seed = seed * 1103515245u + 12345u) >> 16);
        const Handle handle = grey_handle(w, h, [&](int32_t x, int32_t y) { return grey[size_t(y * w + x)]; });
        ASSERT_EQ(IMG_diffusion_mono(handle), 0);
        const Raster r = bilevel(handle);
        // Rows of width + 4 with two spare cells at each end; stored row s
        // is image row h - 1 - s.
        std::vector<std::vector<int>> rows(3, std::vector<int>(size_t(w) + 4, 0));
        auto fetch = [&](std::vector<int>& row, int s) {
            if (s < h)
                for (int x = 0; x < w; ++x) row[size_t(x) + 2] = grey[size_t((h - 1 - s) * w + x)];
        };
        for (int k = 0; k < 3; ++k) fetch(rows[size_t(k)], k);
        for (int s = 0; s < h; ++s) {
            auto &a = rows[0], &b = rows[1], &c = rows[2];
            const int dir = s % 2 ? -1 : 1;
            for (int i = 0; i < w; ++i) {
                const int x = (dir > 0 ? i : w - 1 - i) + 2;
                const int v = a[size_t(x)], e = v > 127 ? v - 255 : v;
                ASSERT_EQ(r.at(x - 2, h - 1 - s)[0], v > 127 ? 255 : 0) << w << "x" << h << " row " << s;
                a[size_t(x + dir)] += 8 * e / 42, a[size_t(x + 2 * dir)] += 4 * e / 42;
                const int wb[5] = {e / 21, 4 * e / 42, 8 * e / 42, 4 * e / 42, e / 21};
                const int wc[5] = {e / 42, e / 21, 4 * e / 42, e / 21, e / 42};
                for (int d = -2; d <= 2; ++d) b[size_t(x + d)] += wb[d + 2], c[size_t(x + d)] += wc[d + 2];
            }
            std::rotate(rows.begin(), rows.begin() + 1, rows.end());
            fetch(rows[2], s + 3);
        }
    }
}
