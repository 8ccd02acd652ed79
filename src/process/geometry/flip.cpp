// Mirroring left to right and top to bottom.
//
//   IMG_flip_bitmapx   mirror left-right
//   IMG_flip_bitmapy   mirror top-bottom
//
// Both: every depth (1, 4, 8, 16, 24, 32); run-encoded bilevel images stay
// run-encoded and are mirrored on their change positions, never expanded.
// Statuses: 0; IMG_ERR_HANDLE; IMG_ERR_MEMORY (no DIB, no memory); a
// negative status of the progress callback (called once per row), which
// leaves the image as it was. The crop rectangle is mirrored with the
// image, so it keeps covering the same pixels.
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/runs.h"
#include "core/settings.h"
#include "process/geometry/geometry.h"
#include "process/new_image.h"

using namespace tesslin;

namespace {

enum class Axis { kX, kY };

int32_t flip(int32_t handle, Axis axis) {
    BitmapObject* obj = nullptr;
    if (int32_t s = geometry::open_image(handle, &obj); s != 0) return s;
    const int32_t w = obj->width, h = obj->height;
    const uint32_t bits = obj->bits();
    const bool runs = obj->run_encoded != 0;
    process::NewImage img;
    if (img.create(obj->header(), w, h, int32_t(bits), runs) != 0) return IMG_ERR_MEMORY;

    std::vector<uint32_t> record(runs ? runs::max_record_bytes(uint32_t(w)) / 4 : 0);
    for (int32_t r = 0; r < h; ++r) {
        if (int32_t p = report_progress(h, r, obj->row_bytes); p < 0) return p;
        const int32_t from = axis == Axis::kY ? h - 1 - r : r;
        if (runs) {
            const uint32_t* src = obj->run_record(from);
            uint32_t length = 0;
            if (axis == Axis::kX) {
                length = geometry::mirror_record(src, uint32_t(w), record.data());
                src = record.data();
            } else {
                length = src[0];
            }
            if (img.append_record(src, length) != 0) return IMG_ERR_MEMORY;
        } else if (axis == Axis::kX) {
            geometry::mirror_row(obj->plain_row(from), bits, uint32_t(w), img.row(r));
        } else {
            std::memcpy(img.row(r), obj->plain_row(from), obj->row_bytes);
        }
    }
    geometry::Crop c = geometry::crop_of(obj);
    if (img.install(obj) != 0) return IMG_ERR_MEMORY;
    if (axis == Axis::kX)
        c.x = w - c.width - c.x;
    else
        c.y = h - c.height - c.y;
    geometry::set_crop(obj, c);
    return 0;
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_flip_bitmapx(int32_t handle) {
    return api_call([&] { return flip(handle, Axis::kX); });
}

TESSLIN_API int32_t IMG_flip_bitmapy(int32_t handle) {
    return api_call([&] { return flip(handle, Axis::kY); });
}

}  // extern "C"
