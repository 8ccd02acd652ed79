// Cropping the white borders of a bilevel page.
//
//   IMG_autocrop_bitmap   1-bit (plain pages encoded first); IMG_ERR_HANDLE,
//                         IMG_ERR_DEPTH, IMG_ERR_MEMORY
//
// The box holding every black pixel, widened by the margin on each side and
// kept inside the page, becomes the new page; its rows are cut out of the
// run records directly. A page whose first non-white row is its last (or
// that has no black pixel) is left unchanged. A negative margin counts as 0.
#include <algorithm>
#include <vector>

#include "core/api.h"
#include "core/runs.h"
#include "process/cleanup/bilevel.h"
#include "process/new_image.h"

using namespace tesslin;
using namespace tesslin::cleanup;

extern "C" {

TESSLIN_API int32_t IMG_autocrop_bitmap(int32_t handle, int32_t margin) {
    return api_call([&]() -> int32_t {
        int32_t status = 0;
        BitmapObject* obj = bilevel_page(handle, &status);
        if (!obj) return status;
        const int32_t w = obj->width, h = obj->height;
        const uint32_t uw = uint32_t(w);
        const int64_t g = std::max(margin, 0);
        int32_t top = 0;
        while (top < h && obj->run_record(top)[1] >= uw) ++top;
        if (top >= h - 1) return 0;
        int32_t bottom = h - 1;
        while (bottom >= 0 && obj->run_record(bottom)[1] >= uw) --bottom;
        if (bottom < 1) return 0;
        uint32_t left = uw, right = 0;
        for (int32_t y = top; y <= bottom; ++y) {
            const uint32_t* p = obj->run_record(y) + 1;
            if (p[0] >= uw) continue;
            left = std::min(left, p[0]);
            uint32_t n = change_count(obj, y);
            right = std::max(right, (n & 1) ? uw : p[n - 1]);
        }
        const int64_t x0 = std::max<int64_t>(0, int64_t(left) - g);
        const int64_t y0 = std::max<int64_t>(0, int64_t(top) - g);
        const int64_t cw = std::min<int64_t>(w, int64_t(right) + g) - x0;
        const int64_t ch = std::min<int64_t>(h, int64_t(bottom) + 1 + g) - y0;
        if (cw < 1 || ch < 1) return 0;

        process::NewImage out;
        if (out.create(obj->header(), int32_t(cw), int32_t(ch), 1, true) != 0) return IMG_ERR_MEMORY;
        std::vector<uint32_t> record(runs::max_record_bytes(uint32_t(cw)) / 4);
        for (int64_t y = y0; y < y0 + ch; ++y) {
            const uint32_t length = runs::cut_record(obj->run_record(int32_t(y)), uw, uint32_t(x0),
                                                     uint32_t(cw), record.data());
            if (out.append_record(record.data(), length) != 0) return IMG_ERR_MEMORY;
        }
        return out.install(obj);
    });
}

}  // extern "C"
