// Software stand-ins for windows and device contexts. On Linux there is no
// window system call behind the display operations, so a "window" is a
// client area of a given size with a device context of the same size, and a
// device context is a 24-bit top-down RGB buffer that drawing writes into.
// Both are addressed by non-zero handles that the exported tesslin_window_*
// and tesslin_dc_* functions hand out (docs/platform.md).
#pragma once

#include <cstdint>

namespace tesslin::platform {

// A drawing surface: `width` x `height` pixels, 3 bytes (red, green, blue)
// each, rows top first without padding.
struct Surface {
    int32_t width = 0;
    int32_t height = 0;
    uint8_t* rgb = nullptr;
};

// The surface of a live device context handle; false for any other value.
bool dc_surface(intptr_t dc, Surface* out);

// Client area of a live window handle; false for any other value.
bool window_client(intptr_t window, int32_t* width, int32_t* height);

// The device context a window draws through (0 for a handle that is not a
// live window).
intptr_t window_dc(intptr_t window);

}  // namespace tesslin::platform
