#include "process/colour/frame.h"

#include "core/limits.h"
#include "core/runs.h"

namespace tesslin::colour {

int32_t find(int32_t handle, BitmapObject** obj) {
    BitmapObject* o = bitmap_get(handle);
    if (!o) return IMG_ERR_HANDLE;
    if (!o->dib) return IMG_ERR_MEMORY;
    *obj = o;
    return 0;
}

void discard_window_level(BitmapObject*) {
    // No operation of the library sets a window/level mapping yet; the tone
    // operations that add one release it here.
}

int32_t create(process::NewImage& out, BitmapObject* obj, int32_t bits, bool runs) {
    limits::ImageBytes size;
    if (limits::image_bytes(uint64_t(obj->width), uint64_t(obj->height), uint32_t(bits), &size) != 0)
        return IMG_ERR_MEMORY;
    return out.create(obj->header(), obj->width, obj->height, bits, runs);
}

int32_t install(process::NewImage& image, BitmapObject* obj) {
    const int32_t x = obj->crop_x, y = obj->crop_y, w = obj->crop_width, h = obj->crop_height;
    if (int32_t s = image.install(obj)) return s;
    obj->crop_x = x, obj->crop_y = y, obj->crop_width = w, obj->crop_height = h;
    return 0;
}

int32_t BilevelRows::encode_into(process::NewImage& image) {
    RgbQuad* pal = image.palette();
    pal[0] = RgbQuad{0, 0, 0, 0};
    pal[1] = RgbQuad{255, 255, 255, 0};
    std::vector<uint32_t> record(runs::max_record_bytes(width_) / 4);
    const int32_t height = image.height();
    for (int32_t s = height - 1; s >= 0; --s) {
        const uint32_t length = runs::encode(row(s), width_, record.data());
        if (image.append_record(record.data(), length) != 0) return IMG_ERR_MEMORY;
    }
    return 0;
}

}  // namespace tesslin::colour
