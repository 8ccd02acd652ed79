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

BilevelRows::BilevelRows(process::NewImage& image, bool packed)
    : image_(image),
      width_(uint32_t(image.width())),
      row_bytes_(tesslin::row_bytes(width_, 1)),
      record_(runs::max_record_bytes(width_) / 4) {
    if (packed) rows_.assign(size_t(row_bytes_) * size_t(image.height()), 0);
}

int32_t BilevelRows::put_changes(const uint32_t* changes, uint32_t count) {
    const uint32_t length = runs::record_from_changes(changes, count, width_, record_.data());
    return image_.append_record(record_.data(), length);
}

int32_t BilevelRows::finish() {
    RgbQuad* pal = image_.palette();
    pal[0] = RgbQuad{0, 0, 0, 0};
    pal[1] = RgbQuad{255, 255, 255, 0};
    if (rows_.empty()) {
        // Records came bottom row first.
        image_.reverse_records();
        return 0;
    }
    for (int32_t s = image_.height() - 1; s >= 0; --s) {
        const uint32_t length = runs::encode(row(s), width_, record_.data());
        if (image_.append_record(record_.data(), length) != 0) return IMG_ERR_MEMORY;
    }
    return 0;
}

}  // namespace tesslin::colour
