// Windows and device contexts as software surfaces (see surface.h). Handles
// are numbers from a counter, never reused while the process runs, so that
// a destroyed handle cannot name a later surface by accident.
#include "platform/surface.h"

#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "tesslin/tesslin.h"

namespace tesslin::platform {
namespace {

// Largest client area or surface side: far beyond any screen or page, small
// enough that width x height x 3 stays well inside memory and 32 bits.
constexpr int32_t kMaxSide = 32768;

struct Dc {
    int32_t width, height;
    std::vector<uint8_t> rgb;
};

struct Window {
    int32_t width, height;
    intptr_t dc;
};

std::mutex g_lock;
intptr_t g_next = 1;
std::map<intptr_t, std::unique_ptr<Dc>> g_dcs;
std::map<intptr_t, Window> g_windows;

intptr_t new_dc(int32_t width, int32_t height) {
    auto dc = std::make_unique<Dc>();
    dc->width = width;
    dc->height = height;
    dc->rgb.assign(size_t(width) * size_t(height) * 3, 0xFF);  // white, like a fresh window
    const intptr_t id = g_next++;
    g_dcs.emplace(id, std::move(dc));
    return id;
}

bool size_ok(int32_t width, int32_t height) {
    return width >= 1 && height >= 1 && width <= kMaxSide && height <= kMaxSide;
}

}  // namespace

bool dc_surface(intptr_t dc, Surface* out) {
    std::lock_guard<std::mutex> hold(g_lock);
    auto it = g_dcs.find(dc);
    if (it == g_dcs.end()) return false;
    *out = Surface{it->second->width, it->second->height, it->second->rgb.data()};
    return true;
}

bool window_client(intptr_t window, int32_t* width, int32_t* height) {
    std::lock_guard<std::mutex> hold(g_lock);
    auto it = g_windows.find(window);
    if (it == g_windows.end()) return false;
    *width = it->second.width;
    *height = it->second.height;
    return true;
}

intptr_t window_dc(intptr_t window) {
    std::lock_guard<std::mutex> hold(g_lock);
    auto it = g_windows.find(window);
    return it == g_windows.end() ? 0 : it->second.dc;
}

}  // namespace tesslin::platform

using namespace tesslin::platform;

extern "C" {

TESSLIN_API intptr_t tesslin_window_create(int32_t client_width, int32_t client_height) {
    if (!size_ok(client_width, client_height)) return 0;
    try {
        std::lock_guard<std::mutex> hold(g_lock);
        const intptr_t dc = new_dc(client_width, client_height);
        const intptr_t id = g_next++;
        g_windows.emplace(id, Window{client_width, client_height, dc});
        return id;
    } catch (...) {
        return 0;
    }
}

TESSLIN_API int32_t tesslin_window_destroy(intptr_t window) {
    std::lock_guard<std::mutex> hold(g_lock);
    auto it = g_windows.find(window);
    if (it == g_windows.end()) return IMG_ERR_BAD_IMAGE;
    g_dcs.erase(it->second.dc);
    g_windows.erase(it);
    return 0;
}

TESSLIN_API intptr_t tesslin_window_dc(intptr_t window) { return window_dc(window); }

TESSLIN_API intptr_t tesslin_dc_create(int32_t width, int32_t height) {
    if (!size_ok(width, height)) return 0;
    try {
        std::lock_guard<std::mutex> hold(g_lock);
        return new_dc(width, height);
    } catch (...) {
        return 0;
    }
}

TESSLIN_API uint8_t* tesslin_dc_pixels(intptr_t dc) {
    Surface s;
    return dc_surface(dc, &s) ? s.rgb : nullptr;
}

TESSLIN_API int32_t tesslin_dc_size(intptr_t dc, int32_t* width, int32_t* height) {
    Surface s;
    if (!dc_surface(dc, &s)) return IMG_ERR_BAD_IMAGE;
    if (width) *width = s.width;
    if (height) *height = s.height;
    return 0;
}

TESSLIN_API int32_t tesslin_dc_destroy(intptr_t dc) {
    std::lock_guard<std::mutex> hold(g_lock);
    // A window's own device context goes with the window.
    for (const auto& [id, w] : g_windows)
        if (w.dc == dc) return IMG_ERR_BAD_IMAGE;
    return g_dcs.erase(dc) ? 0 : IMG_ERR_BAD_IMAGE;
}

}  // extern "C"
