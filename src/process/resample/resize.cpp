// Nearest-neighbour resizing.
//
//   IMG_resize_bitmap   every depth (1, 4, 8, 16, 24, 32)
//
// Plain rows: 16.16 steps step = (old << 16) / new in each direction; new
// pixel i takes source pixel (i * step) >> 16, and new stored row j
// (counting from the bottom, as rows are stored) source stored row
// (j * ystep) >> 16. Run-encoded bilevel images stay run-encoded and are
// scaled on their change positions, from the crop rectangle: row t (0 =
// top) takes source row crop y + ((t * ystep) >> 16) with ystep =
// trunc(crop height / new height * 65536), and each change position p of
// the crop becomes ((p - crop x) * xstep) >> 16 with xstep = trunc(new
// width / crop width * 65536).
// Statuses: 0; IMG_ERR_HANDLE; IMG_ERR_BAD_IMAGE (a size below 1);
// IMG_ERR_MEMORY; a negative status of the progress callback (once per new
// row), which leaves the image as it was.
#include <algorithm>
#include <vector>

#include "core/api.h"
#include "core/limits.h"
#include "core/runs.h"
#include "core/settings.h"
#include "process/resample/resample.h"
#include "process/resample/scale_rows.h"

namespace tesslin::resample {

int32_t check_new_size(int32_t width, int32_t height, uint32_t bits) {
    if (width < 1 || height < 1) return IMG_ERR_BAD_IMAGE;
    limits::ImageBytes size;
    if (limits::check_dimensions(uint64_t(width), uint64_t(height)) != 0 ||
        limits::image_bytes(uint64_t(width), uint64_t(height), bits, &size) != 0)
        return IMG_ERR_MEMORY;
    return 0;
}

int32_t open_for_resize(int32_t handle, int32_t width, int32_t height, BitmapObject** out) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    if (!obj->dib || (obj->run_encoded && !obj->line_offsets)) return IMG_ERR_MEMORY;
    if (width < 1 || height < 1) return IMG_ERR_BAD_IMAGE;
    *out = obj;
    return 0;
}

Area source_area(const BitmapObject* obj) {
    Area a{obj->crop_x, obj->crop_y, obj->crop_width, obj->crop_height};
    if (a.x < 0 || a.x >= obj->width || a.y < 0 || a.y >= obj->height || a.width < 1 ||
        a.height < 1)
        return {0, 0, obj->width, obj->height};
    a.width = std::min(a.width, obj->width - a.x);
    a.height = std::min(a.height, obj->height - a.y);
    return a;
}

int32_t finish(process::NewImage& img, BitmapObject* obj) {
    if (img.install(obj) != 0) return IMG_ERR_MEMORY;
    obj->display_rect[2] = obj->width;
    obj->display_rect[3] = obj->height;
    return 0;
}

namespace {

int32_t nearest_plain(BitmapObject* obj, process::NewImage& img) {
    const int32_t nw = img.width(), nh = img.height(), h = obj->height;
    const uint32_t bits = obj->bits();
    const uint64_t ystep = (uint64_t(h) << 16) / uint64_t(nh);
    for (int32_t r = 0; r < nh; ++r) {
        if (int32_t p = report_progress(nh, r, img.row_bytes()); p < 0) return p;
        const uint64_t stored = uint64_t(nh - 1 - r);
        const int32_t src_stored = int32_t((stored * ystep) >> 16);
        scale_row(obj->plain_row(h - 1 - src_stored), bits, uint32_t(obj->width), img.row(r),
                  uint32_t(nw));
    }
    return 0;
}

int32_t nearest_runs(BitmapObject* obj, process::NewImage& img) {
    const int32_t nw = img.width(), nh = img.height();
    const Area a = source_area(obj);
    const uint64_t ystep = uint64_t(double(a.height) / nh * 65536.0);
    const uint64_t xstep = uint64_t(double(nw) / a.width * 65536.0);
    std::vector<uint32_t> cut(runs::max_record_bytes(uint32_t(a.width)) / 4);
    std::vector<uint32_t> record(runs::max_record_bytes(uint32_t(nw)) / 4);
    std::vector<uint32_t> list;
    for (int32_t t = 0; t < nh; ++t) {
        if (int32_t p = report_progress(nh, t, img.row_bytes()); p < 0) return p;
        const int32_t src = int32_t(std::min<uint64_t>(uint64_t(a.y) + ((uint64_t(t) * ystep) >> 16),
                                                       uint64_t(obj->height - 1)));
        runs::cut_record(obj->run_record(src), uint32_t(obj->width), uint32_t(a.x),
                         uint32_t(a.width), cut.data());
        list.clear();
        for (uint32_t i = 1; cut[i] < uint32_t(a.width); ++i)
            runs::append_change(list, uint32_t((uint64_t(cut[i]) * xstep) >> 16));
        const uint32_t length = runs::record_from_changes(
            list.data(), uint32_t(list.size()), uint32_t(nw), record.data());
        if (img.append_record(record.data(), length) != 0) return IMG_ERR_MEMORY;
    }
    return 0;
}

}  // namespace

int32_t resize_nearest(BitmapObject* obj, int32_t width, int32_t height) {
    const uint32_t bits = obj->bits();
    if (int32_t s = check_new_size(width, height, bits); s != 0) return s;
    const bool runs = obj->run_encoded != 0;
    process::NewImage img;
    if (img.create(obj->header(), width, height, int32_t(bits), runs) != 0) return IMG_ERR_MEMORY;
    if (int32_t s = runs ? nearest_runs(obj, img) : nearest_plain(obj, img); s != 0) return s;
    return finish(img, obj);
}

}  // namespace tesslin::resample

extern "C" TESSLIN_API int32_t IMG_resize_bitmap(int32_t handle, int32_t width, int32_t height) {
    using namespace tesslin;
    return api_call([&]() -> int32_t {
        BitmapObject* obj = nullptr;
        if (int32_t s = resample::open_for_resize(handle, width, height, &obj); s != 0) return s;
        return resample::resize_nearest(obj, width, height);
    });
}
