// Playing a GIF animation in a window: every frame decoded into a handle of
// its own, drawn through IMG_display_bitmap, deleted, and held on screen for
// the file's delay while the calling thread sleeps.
//
//   IMG_animate   window, file, drawn size (0: the frame's), position
#include <chrono>
#include <thread>

#include "core/api.h"
#include "platform/platform.h"
#include "platform/surface.h"

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMG_animate(intptr_t window, const char* file, int32_t width, int32_t height,
                                int32_t x, int32_t y) {
    return api_call([&]() -> int32_t {
        const int32_t delay = IMGLOW_get_anim_delay(file);
        if (delay < 0) return delay;
        const intptr_t dc = platform::window_dc(window);
        if (!dc) return IMG_ERR_BAD_IMAGE;
        const int32_t fd = platform::file_open(file, 0);
        if (fd < 0) return IMG_ERR_OPEN;
        const auto hold = std::chrono::milliseconds(int64_t(delay) * 10);
        int32_t result = 0;
        for (int32_t frame = 0; frame <= 0xFFFF; ++frame) {
            const auto start = std::chrono::steady_clock::now();
            const int32_t handle = IMG_decompress_bitmap_fd(fd, 0, frame);
            if (handle < 0) break;
            int32_t w = width, h = height, bits = 0;
            if (w == 0 || h == 0) IMG_bitmap_info(handle, &w, &h, &bits);
            int32_t s = IMG_bitmap_palette(handle, dc);
            if (s >= 0) s = IMG_display_bitmap(handle, dc, x, y, w, h);
            IMG_delete_bitmap(handle);
            if (s < 0) {
                result = s;
                break;
            }
            std::this_thread::sleep_until(start + hold);
        }
        platform::file_close(fd);
        return result;
    });
}

}  // extern "C"
