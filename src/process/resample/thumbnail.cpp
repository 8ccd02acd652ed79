// Thumbnails: a resize method chosen by depth.
//
//   IMG_create_thumbnail
//
// 1 bit: IMG_resize_to_gray (8-bit grey when shrinking both ways); 4 and 8
// bits: IMG_promote_24, then IMG_resize_bitmap_bicubic; 16, 24 and 32 bits:
// IMG_resize_bitmap_bicubic. No aspect ratio of its own. Statuses: those of
// the operations it calls (IMG_ERR_HANDLE, IMG_ERR_BAD_IMAGE for a size
// below 1, IMG_ERR_MEMORY, a negative status of the progress callback).
// A 4- or 8-bit image whose resize fails after the promotion gets its old
// image back, so every failure leaves the image as it was.
#include <cstring>

#include "core/api.h"
#include "core/bitmap.h"
#include "platform/platform.h"
#include "tesslin/tesslin.h"

// IMG_promote_24 belongs to the colour operations, which are built beside
// this file. Until they are part of the same library this reference is
// weak, and 4- and 8-bit thumbnails answer IMG_ERR_UNSUPPORTED; once they
// are, the declaration in tesslin.h replaces this one.
extern "C" int32_t IMG_promote_24(int32_t handle) __attribute__((weak));

extern "C" TESSLIN_API int32_t IMG_create_thumbnail(int32_t handle, int32_t width, int32_t height) {
    using namespace tesslin;
    return api_call([&]() -> int32_t {
        BitmapObject* obj = bitmap_get(handle);
        if (!obj) return IMG_ERR_HANDLE;
        if (!obj->dib) return IMG_ERR_MEMORY;
        if (width < 1 || height < 1) return IMG_ERR_BAD_IMAGE;
        switch (obj->bits()) {
            case 1: return IMG_resize_to_gray(handle, width, height);
            case 4:
            case 8: {
                if (!IMG_promote_24) return IMG_ERR_UNSUPPORTED;
                // A copy of the image to put back should the resize fail.
                uint32_t size = 0;
                if (!platform::block_size(obj->dib, &size)) size = obj->dib_capacity;
                void* copy = platform::block_alloc(size);
                if (!copy) return IMG_ERR_MEMORY;
                std::memcpy(copy, obj->dib, size);
                const BitmapObject before = *obj;
                if (int32_t s = IMG_promote_24(handle); s < 0) {
                    platform::block_free(copy);
                    return s;
                }
                const int32_t s = IMG_resize_bitmap_bicubic(handle, width, height);
                if (s >= 0) {
                    platform::block_free(copy);
                    return s;
                }
                platform::block_free(obj->dib);
                obj->dib = static_cast<uint8_t*>(copy);
                obj->width = before.width;
                obj->height = before.height;
                obj->row_bytes = before.row_bytes;
                obj->dib_capacity = before.dib_capacity;
                obj->crop_x = before.crop_x, obj->crop_y = before.crop_y;
                obj->crop_width = before.crop_width, obj->crop_height = before.crop_height;
                std::memcpy(obj->display_rect, before.display_rect, sizeof before.display_rect);
                return s;
            }
            default: return IMG_resize_bitmap_bicubic(handle, width, height);
        }
    });
}
