// Inversion of every pixel value.
//
//   IMG_invert_bitmap   complement every pixel value
//
// Every depth. Plain rows: every byte of every stored row, the fill bytes at
// the end of each row included, is complemented, so palette images get
// complemented indices (the palette is not touched) and 16-, 24- and 32-bit
// images their negative. Run-encoded bilevel images stay run-encoded: each
// record gains or loses its leading 0, never expanded.
// Statuses: 0; IMG_ERR_HANDLE; IMG_ERR_MEMORY (no DIB, no memory); a
// negative status of the progress callback (once per row), which leaves the
// image as it was.
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/runs.h"
#include "core/settings.h"
#include "process/geometry/geometry.h"
#include "process/new_image.h"

using namespace tesslin;

namespace {

void complement(const uint8_t* src, uint8_t* dst, uint32_t n) {
    uint32_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t v;
        std::memcpy(&v, src + i, 8);
        v = ~v;
        std::memcpy(dst + i, &v, 8);
    }
    for (; i < n; ++i) dst[i] = uint8_t(~src[i]);
}

int32_t invert(int32_t handle) {
    BitmapObject* obj = nullptr;
    if (int32_t s = geometry::open_image(handle, &obj); s != 0) return s;
    const int32_t w = obj->width, h = obj->height;
    const bool runs = obj->run_encoded != 0;
    process::NewImage img;
    if (img.create(obj->header(), w, h, int32_t(obj->bits()), runs) != 0) return IMG_ERR_MEMORY;
    std::vector<uint32_t> record(runs ? runs::max_record_bytes(uint32_t(w)) / 4 : 0);
    for (int32_t r = 0; r < h; ++r) {
        if (int32_t p = report_progress(h, r, obj->row_bytes); p < 0) return p;
        if (runs) {
            const uint32_t length = geometry::invert_record(obj->run_record(r), uint32_t(w), record.data());
            if (img.append_record(record.data(), length) != 0) return IMG_ERR_MEMORY;
        } else {
            complement(obj->plain_row(r), img.row(r), obj->row_bytes);
        }
    }
    const geometry::Crop c = geometry::crop_of(obj);
    if (img.install(obj) != 0) return IMG_ERR_MEMORY;
    geometry::set_crop(obj, c);
    return 0;
}

}  // namespace

extern "C" TESSLIN_API int32_t IMG_invert_bitmap(int32_t handle) {
    return api_call([&] { return invert(handle); });
}
