// Device bitmaps: a bitmap's pixels prepared for the device, kept apart from
// the handle and drawn again without converting them. On the software
// surfaces a device bitmap is a device context of its own (24-bit RGB), so
// it is read with tesslin_dc_pixels and freed with tesslin_dc_destroy.
//
//   IMG_dib_to_ddb          the crop rectangle at 1:1 (display angle not
//                           applied) as a new device bitmap: its handle;
//                           IMG_ERR_HANDLE; IMG_ERR_BAD_IMAGE dc not live;
//                           IMG_ERR_MEMORY no memory, or a crop wider or
//                           higher than a surface can be (32,768)
//   IMG_display_ddb         stretches (nearest) a device bitmap over a
//                           rectangle, negative sizes mirroring: 0;
//                           IMG_ERR_BAD_IMAGE for a ddb or dc that is not
//                           live; IMG_ERR_DISPLAY_RECT size 0
//   IMG_display_ddb_effect  the same drawn in 16 steps: effect 0 at once,
//                           1 wiping from the left, 2 from the right, 3 from
//                           the top, 4 from the bottom, waiting the wipe
//                           delay (IMGLOW_set_wipedelay; 0 means 2 ms)
//                           between steps; IMG_ERR_UNSUPPORTED for another
//                           effect
//   IMG_create_handle_ddb   a new 24-bit bitmap handle from a device
//                           bitmap: the handle; IMG_ERR_BAD_IMAGE not live;
//                           IMG_ERR_MEMORY
#include <chrono>
#include <cstring>
#include <thread>

#include "core/api.h"
#include "core/bitmap.h"
#include "core/settings.h"
#include "display/display.h"
#include "platform/surface.h"

namespace tesslin::display {
namespace {

constexpr int kEffectSteps = 16;

intptr_t dib_to_ddb(int32_t handle, intptr_t dc) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    platform::Surface s;
    if (!platform::dc_surface(dc, &s)) return IMG_ERR_BAD_IMAGE;
    if (!obj->dib) return IMG_ERR_MEMORY;
    BusyMark busy(obj);
    const intptr_t ddb = tesslin_dc_create(obj->crop_width, obj->crop_height);
    if (!ddb) return IMG_ERR_MEMORY;
    BitmapSource source(obj);
    Placement where;
    where.width = obj->crop_width;
    where.height = obj->crop_height;
    if (const int32_t r = render(source, ddb, where, Blend{}); r < 0) {
        tesslin_dc_destroy(ddb);
        return r;
    }
    return ddb;
}

int32_t display_ddb(intptr_t ddb, intptr_t dc, int32_t x, int32_t y, int32_t width,
                    int32_t height, int32_t effect) {
    platform::Surface from;
    if (!platform::dc_surface(ddb, &from)) return IMG_ERR_BAD_IMAGE;
    if (effect < 0 || effect > 4) return IMG_ERR_UNSUPPORTED;
    SurfaceSource source(from);
    Placement where;
    where.x = x, where.y = y, where.width = width, where.height = height;
    if (effect == 0) return render(source, dc, where, Blend{});

    const int64_t w = magnitude(width), h = magnitude(height);
    if (w < 1 || h < 1) return IMG_ERR_DISPLAY_RECT;
    const int32_t delay = settings().wipedelay ? settings().wipedelay : 2;
    for (int step = 0; step < kEffectSteps; ++step) {
        // Band `step` of the rectangle, counted from the side the wipe starts.
        const bool horizontal = effect <= 2;
        const int64_t extent = horizontal ? w : h;
        int64_t from_edge = extent * step / kEffectSteps;
        int64_t to_edge = extent * (step + 1) / kEffectSteps;
        if (effect == 2 || effect == 4) {
            const int64_t a = extent - to_edge, b = extent - from_edge;
            from_edge = a, to_edge = b;
        }
        if (to_edge <= from_edge) continue;
        if (horizontal) {
            where.clip_x = int32_t(x + from_edge), where.clip_width = int32_t(to_edge - from_edge);
            where.clip_y = y, where.clip_height = int32_t(h);
        } else {
            where.clip_y = int32_t(y + from_edge), where.clip_height = int32_t(to_edge - from_edge);
            where.clip_x = x, where.clip_width = int32_t(w);
        }
        if (const int32_t r = render(source, dc, where, Blend{}); r < 0) return r;
        if (step + 1 < kEffectSteps) std::this_thread::sleep_for(std::chrono::milliseconds(delay));
    }
    return 0;
}

int32_t create_handle_ddb(intptr_t ddb) {
    platform::Surface s;
    if (!platform::dc_surface(ddb, &s)) return IMG_ERR_BAD_IMAGE;
    const uint32_t rb = row_bytes(uint32_t(s.width), 24);
    const uint64_t bytes = uint64_t(kDibHeaderSize) + uint64_t(rb) * uint32_t(s.height);
    if (bytes > 0x7FFFFFFF) return IMG_ERR_MEMORY;
    auto* dib = static_cast<uint8_t*>(tesslin_block_alloc(uint32_t(bytes)));
    if (!dib) return IMG_ERR_MEMORY;
    *reinterpret_cast<DibHeader*>(dib) = dib_header(s.width, s.height, 24);
    uint8_t* pixels = dib + kDibHeaderSize;
    for (int32_t r = 0; r < s.height; ++r) {
        const uint8_t* in = s.rgb + size_t(r) * size_t(s.width) * 3;
        uint8_t* out = pixels + size_t(s.height - 1 - r) * rb;  // rows stored bottom-up
        for (int32_t x = 0; x < s.width; ++x) {
            out[3 * x] = in[3 * x + 2];
            out[3 * x + 1] = in[3 * x + 1];
            out[3 * x + 2] = in[3 * x];
        }
        std::memset(out + size_t(s.width) * 3, 0, rb - size_t(s.width) * 3);
    }
    const int32_t handle = IMG_create_handle_keep(dib);
    if (handle < 0) tesslin_block_free(dib);
    return handle;
}

}  // namespace
}  // namespace tesslin::display

using namespace tesslin;

extern "C" {

TESSLIN_API intptr_t IMG_dib_to_ddb(int32_t handle, intptr_t dc) {
    return api_call([&] { return display::dib_to_ddb(handle, dc); });
}

TESSLIN_API int32_t IMG_display_ddb(intptr_t ddb, intptr_t dc, int32_t x, int32_t y,
                                    int32_t width, int32_t height) {
    return api_call([&] { return display::display_ddb(ddb, dc, x, y, width, height, 0); });
}

TESSLIN_API int32_t IMG_display_ddb_effect(intptr_t ddb, intptr_t dc, int32_t x, int32_t y,
                                           int32_t width, int32_t height, int32_t effect) {
    return api_call([&] { return display::display_ddb(ddb, dc, x, y, width, height, effect); });
}

TESSLIN_API int32_t IMG_create_handle_ddb(intptr_t ddb) {
    return api_call([&] { return display::create_handle_ddb(ddb); });
}

}  // extern "C"
