// IMG_animate: every frame of a GIF drawn into the window in turn and held
// there for the file's delay while the thread sleeps.
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>

#include "gif_builder.h"
#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// Collects the red of each drawn frame's first pixel, through the display callback.
int32_t on_display(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    const uint8_t* px = reinterpret_cast<const uint8_t*>(h) + 40 + palette_bytes(h->biBitCount) +
                        size_t(h->biHeight - 1) * row_bytes(uint32_t(h->biWidth), h->biBitCount);
    reinterpret_cast<std::vector<uint8_t>*>(user)->push_back(dib_palette(h)[px[0]].rgbRed);
    return 1;
}

double cpu_seconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

}  // namespace

TEST(DisplayAnimate, DrawsEveryFrameAndSleepsThroughTheDelay) {
    // Three frames of one colour each (indices 1, 2, 3), 8 hundredths of a
    // second apiece.
    std::vector<GifFrame> frames;
    for (uint8_t i = 1; i <= 3; ++i)
        frames.push_back({.width = 6, .height = 5, .indices = std::vector<uint8_t>(30, i), .delay = i == 1 ? 8 : -1});
    const Scratch path("anim.gif");
    write_file(path, gif_file(6, 5, 2, frames));
    const intptr_t window = tesslin_window_create(20, 20);
    ASSERT_NE(window, 0);
    std::vector<uint8_t> seen;
    IMGLOW_set_dispfunc(on_display, reinterpret_cast<intptr_t>(&seen));
    const auto wall = std::chrono::steady_clock::now();
    const double cpu = cpu_seconds();
    EXPECT_EQ(IMG_animate(window, path.c_str(), 12, 10, 3, 2), 0);
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall).count();
    const double busy = cpu_seconds() - cpu;
    IMGLOW_set_dispfunc(nullptr, 0);
    EXPECT_EQ(seen, (std::vector<uint8_t>{gif_colour(1, 0, false), gif_colour(2, 0, false), gif_colour(3, 0, false)}));
    EXPECT_GE(elapsed, 0.24);
    EXPECT_LT(busy, 0.12) << "the delay must be slept, not spun";
    // The last frame, stretched to 12 x 10 at (3, 2); the rest untouched.
    const uint8_t* rgb = tesslin_dc_pixels(tesslin_window_dc(window));
    EXPECT_EQ(rgb[(2 * 20 + 3) * 3], gif_colour(3, 0, false));
    EXPECT_EQ(rgb[(11 * 20 + 14) * 3 + 2], gif_colour(3, 2, false));
    EXPECT_EQ(rgb[(12 * 20 + 15) * 3], 255);

    // Failures: no delay before the first frame, not a window, no file.
    EXPECT_EQ(IMG_animate(0, path.c_str(), 0, 0, 0, 0), IMG_ERR_BAD_IMAGE);
    frames[0].delay = -1;
    write_file(path, gif_file(6, 5, 2, frames));
    EXPECT_EQ(IMG_animate(window, path.c_str(), 0, 0, 0, 0), IMG_ERR_GIF_BLOCK);
    fs::remove(path.path);
    EXPECT_EQ(IMG_animate(window, path.c_str(), 0, 0, 0, 0), IMG_ERR_OPEN);
    tesslin_window_destroy(window);
}
