// Exported operations on bitmap handles: create, describe, read and rewrite
// rows, palettes, crop rectangle, per-handle state, run-record conversion.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "core/api.h"
#include "core/bitmap.h"
#include "core/runs.h"
#include "platform/platform.h"

using namespace tesslin;

namespace {

// Validates a handle and that it has a DIB.
int32_t get_with_dib(int32_t handle, BitmapObject** out) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    if (!obj->dib) return IMG_ERR_MEMORY;
    *out = obj;
    return 0;
}

// Expands row r of a run-encoded image into `row` (row_bytes bytes).
void expand_stored_row(BitmapObject* obj, int32_t r, uint8_t* row) {
    runs::expand(obj->run_record(r), static_cast<uint32_t>(obj->width), row, obj->row_bytes);
}

// Replaces row r's record in a run store: in place when it fits the old
// record's space, else every following record moves up by the difference.
int32_t replace_record(BitmapObject* obj, int32_t r, const uint32_t* record, uint32_t length) {
    uint32_t* off = obj->line_offsets;
    const uint32_t space = off[r + 1] - off[r];
    if (length > space) {
        const uint32_t diff = length - space;
        const uint32_t used = off[obj->height];
        const uint64_t need = uint64_t(dib_prefix_bytes(obj)) + used + diff;
        if (need > obj->dib_capacity) {
            uint64_t capacity = need + 64000;
            if (capacity + 8192 > UINT32_MAX) return IMG_ERR_MEMORY;
            void* grown = platform::block_realloc(obj->dib, static_cast<uint32_t>(capacity + 8192));
            if (!grown) return IMG_ERR_MEMORY;
            obj->dib = static_cast<uint8_t*>(grown);
            obj->dib_capacity = static_cast<uint32_t>(capacity);
        }
        uint8_t* px = obj->pixels();
        std::memmove(px + off[r + 1] + diff, px + off[r + 1], used - off[r + 1]);
        for (int32_t i = r + 1; i <= obj->height; ++i) off[i] += diff;
    }
    std::memcpy(obj->pixels() + off[r], record, length);
    return 0;
}

bool dib_fits_block(const void* dib) {
    uint32_t size = 0;
    if (!platform::block_size(dib, &size)) return true;  // foreign: cannot tell
    const auto* h = static_cast<const DibHeader*>(dib);
    uint64_t need = kDibHeaderSize + palette_bytes(h->biBitCount) +
                    row_bytes64(uint64_t(h->biWidth), h->biBitCount) * uint64_t(h->biHeight);
    return need <= size;
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_create_handle_keep(void* dib) {
    return api_call([&]() -> int32_t {
        if (!dib) return IMG_ERR_BAD_IMAGE;
        auto* h = static_cast<DibHeader*>(dib);
        int32_t handle = slot_allocate();
        if (handle < 0) return IMG_ERR_MEMORY;
        normalise_bilevel_palette(h);
        if (h->biWidth < 1 || h->biHeight < 1 || h->biBitCount < 1 ||
            !dib_depth_valid(h->biBitCount) || h->biCompression == IMG_COMPRESSION_RUNS ||
            !dib_fits_block(dib)) {
            slot_release(handle, false);
            return IMG_ERR_BAD_IMAGE;
        }
        BitmapObject* obj = bitmap_get(handle);
        bitmap_reset_state(obj, h->biWidth, h->biHeight);
        obj->width = h->biWidth;
        obj->height = h->biHeight;
        obj->row_bytes = row_bytes(static_cast<uint32_t>(h->biWidth), h->biBitCount);
        obj->dib_capacity = palette_bytes(h->biBitCount) + obj->row_bytes * uint32_t(h->biHeight) +
                            kDibHeaderSize;
        obj->dib = static_cast<uint8_t*>(dib);
        return handle;
    });
}

TESSLIN_API int32_t IMG_create_handle_shell(const void* header) {
    return api_call([&]() -> int32_t {
        if (!header) return IMG_ERR_BAD_IMAGE;
        // Work copy of header and palette, normalised like any new image.
        alignas(DibHeader) uint8_t work[kHeaderBlockSize] = {};
        const auto* src = static_cast<const DibHeader*>(header);
        if (src->biWidth < 1 || src->biHeight < 1 || !dib_depth_valid(src->biBitCount))
            return IMG_ERR_BAD_IMAGE;
        std::memcpy(work, header, kDibHeaderSize + palette_bytes(src->biBitCount));
        auto* h = reinterpret_cast<DibHeader*>(work);
        normalise_bilevel_palette(h);
        int32_t handle = slot_allocate();
        if (handle < 0) return IMG_ERR_MEMORY;
        BitmapObject* obj = bitmap_get(handle);
        bitmap_reset_state(obj, h->biWidth, h->biHeight);
        if (h->biClrUsed & 0x1000) {
            obj->transparent = 1;
            obj->transparent_color = h->biClrUsed;
        }
        if (bitmap_create_dib(obj, h, h->biWidth, h->biHeight, h->biBitCount, false) != 0) {
            slot_release(handle, true);
            return IMG_ERR_MEMORY;
        }
        DibHeader* stored = obj->header();
        if (stored->biCompression != IMG_COMPRESSION_ALPHA) stored->biCompression = 0;
        stored->biClrUsed = stored->biClrImportant = 0;
        return handle;
    });
}

TESSLIN_API int32_t IMG_delete_bitmap(int32_t handle) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    // A display of this bitmap on another thread finishes first.
    while (display_busy_flag(obj)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    slot_release(handle, true);
    return 0;
}

TESSLIN_API int32_t IMG_delete_bitmap_keep(int32_t handle) {
    if (!bitmap_get(handle)) return IMG_ERR_HANDLE;
    slot_release(handle, false);
    return 0;
}

TESSLIN_API intptr_t IMG_bitmap_info(int32_t handle, int32_t* width, int32_t* height,
                                     int32_t* bits) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    if (!obj->dib) return IMG_ERR_MEMORY;
    const DibHeader* h = obj->header();
    if (width) *width = h->biWidth;
    if (height) *height = h->biHeight;
    if (bits) *bits = h->biBitCount;
    return reinterpret_cast<intptr_t>(h);
}

TESSLIN_API int32_t IMGLOW_get_bitmap_header(int32_t handle, void* buffer) {
    BitmapObject* obj = nullptr;
    if (int32_t s = get_with_dib(handle, &obj)) return s;
    if (!buffer) return IMG_ERR_BAD_IMAGE;
    std::memcpy(buffer, obj->dib, dib_prefix_bytes(obj));
    return 0;
}

TESSLIN_API int32_t IMGLOW_get_palette(int32_t handle, void* palette) {
    BitmapObject* obj = nullptr;
    if (int32_t s = get_with_dib(handle, &obj)) return s;
    if (!palette) return IMG_ERR_BAD_IMAGE;
    std::memcpy(palette, dib_palette(obj->dib), palette_bytes(obj->bits()));
    return 0;
}

TESSLIN_API int32_t IMGLOW_put_palette(int32_t handle, const void* palette) {
    BitmapObject* obj = nullptr;
    if (int32_t s = get_with_dib(handle, &obj)) return s;
    if (!palette) return IMG_ERR_BAD_IMAGE;
    std::memcpy(dib_palette(obj->dib), palette, palette_bytes(obj->bits()));
    return 0;
}

TESSLIN_API int32_t IMGLOW_get_raster(int32_t handle, void* buffer, int32_t row, uint32_t count) {
    return api_call([&]() -> int32_t {
        BitmapObject* obj = nullptr;
        if (int32_t s = get_with_dib(handle, &obj)) return s;
        if (!buffer || row < 0 || row >= obj->height) return IMG_ERR_BAD_IMAGE;
        if (count == 0 || count > obj->row_bytes) count = obj->row_bytes;
        if (!obj->run_encoded) {
            std::memcpy(buffer, obj->plain_row(row), count);
            return 0;
        }
        if (count == obj->row_bytes) {
            expand_stored_row(obj, row, static_cast<uint8_t*>(buffer));
            return 0;
        }
        std::vector<uint8_t> work(obj->row_bytes);
        expand_stored_row(obj, row, work.data());
        std::memcpy(buffer, work.data(), count);
        return 0;
    });
}

TESSLIN_API int32_t IMGLOW_put_raster(int32_t handle, const void* buffer, int32_t row,
                                      uint32_t count) {
    return api_call([&]() -> int32_t {
        BitmapObject* obj = nullptr;
        if (int32_t s = get_with_dib(handle, &obj)) return s;
        if (!buffer || row < 0 || row >= obj->height) return IMG_ERR_BAD_IMAGE;
        if (count == 0 || count > obj->row_bytes) count = obj->row_bytes;
        if (!obj->run_encoded) {
            std::memcpy(obj->plain_row(row), buffer, count);
            return 0;
        }
        // A partial row keeps the rest of the stored row.
        const auto width = static_cast<uint32_t>(obj->width);
        std::vector<uint8_t> packed(obj->row_bytes);
        if (count < obj->row_bytes) expand_stored_row(obj, row, packed.data());
        std::memcpy(packed.data(), buffer, count);
        std::vector<uint32_t> record(runs::max_record_bytes(width) / 4);
        uint32_t length = runs::encode(packed.data(), width, record.data());
        return replace_record(obj, row, record.data(), length);
    });
}

TESSLIN_API int32_t IMG_get_croprect(int32_t handle, int32_t* x, int32_t* y, int32_t* width,
                                     int32_t* height) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    if (x) *x = obj->crop_x;
    if (y) *y = obj->crop_y;
    if (width) *width = obj->crop_width;
    if (height) *height = obj->crop_height;
    return 0;
}

TESSLIN_API int32_t IMG_set_croprect(int32_t handle, int32_t x, int32_t y, int32_t width,
                                     int32_t height) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    if (x < 0 || x >= obj->width) x = 0;
    if (y < 0 || y >= obj->height) y = 0;
    if (width < 1) width = 1;
    if (height < 1) height = 1;
    if (int64_t(x) + width > obj->width) width = obj->width - x;
    if (int64_t(y) + height > obj->height) height = obj->height - y;
    obj->crop_x = x;
    obj->crop_y = y;
    obj->crop_width = width;
    obj->crop_height = height;
    return 0;
}

TESSLIN_API int32_t IMGLOW_get_display_rect(int32_t handle, int32_t* x, int32_t* y,
                                            int32_t* width, int32_t* height) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    if (x) *x = obj->display_rect[0];
    if (y) *y = obj->display_rect[1];
    if (width) *width = obj->display_rect[2];
    if (height) *height = obj->display_rect[3];
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_rop(int32_t handle, uint32_t rop) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    obj->rop = rop;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_alias_img(int32_t handle, int32_t mode) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    obj->alias_mode = mode;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_transp_color(int32_t handle, uint32_t color) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    obj->transparent_color = color;
    obj->transparent = 1;
    return 0;
}

TESSLIN_API int32_t IMGLOW_get_transp_color(int32_t handle) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    if (!obj->transparent) return IMG_ERR_NO_TRANSPARENCY;
    return static_cast<int32_t>(obj->transparent_color);
}

TESSLIN_API int32_t IMG_dib_to_runs(int32_t handle) {
    return api_call([&]() -> int32_t {
        BitmapObject* obj = bitmap_get(handle);
        if (!obj) return IMG_ERR_HANDLE;
        if (!obj->dib) return IMG_ERR_MEMORY;
        if (obj->run_encoded) return IMG_ERR_UNSUPPORTED;
        if (obj->bits() != 1) return IMG_ERR_DEPTH;

        // Build the run store in a fresh object state, keep the old DIB until
        // every row is encoded.
        uint8_t* plain_dib = obj->dib;
        const int32_t w = obj->width, h = obj->height;
        BitmapObject work = *obj;
        work.dib = nullptr;
        work.line_offsets = nullptr;
        if (bitmap_create_dib(&work, reinterpret_cast<DibHeader*>(plain_dib), w, h, 1, true) != 0)
            return IMG_ERR_MEMORY;
        std::vector<uint32_t> record(runs::max_record_bytes(uint32_t(w)) / 4);
        const uint32_t rb = obj->row_bytes;
        for (int32_t r = 0; r < h; ++r) {
            const uint8_t* row = dib_pixels(plain_dib) + size_t(h - r - 1) * rb;
            uint32_t length = runs::encode(row, uint32_t(w), record.data());
            if (run_store_append(&work, record.data(), length) != 0) {
                platform::block_free(work.dib);
                platform::block_free(work.line_offsets);
                return IMG_ERR_MEMORY;
            }
        }
        obj->dib = work.dib;
        obj->line_offsets = work.line_offsets;
        obj->dib_capacity = work.dib_capacity;
        obj->run_encoded = 1;
        obj->runs_stored = h;
        platform::block_free(plain_dib);
        return 0;
    });
}

TESSLIN_API int32_t IMG_runs_to_dib(int32_t handle) {
    return api_call([&]() -> int32_t {
        BitmapObject* obj = bitmap_get(handle);
        if (!obj) return IMG_ERR_HANDLE;
        if (!obj->dib) return IMG_ERR_MEMORY;
        if (!obj->run_encoded) return IMG_ERR_UNSUPPORTED;
        const uint64_t pixel_bytes = uint64_t(obj->row_bytes) * uint64_t(obj->height);
        const uint64_t size = palette_bytes(1) + pixel_bytes + 2040;
        if (size > UINT32_MAX) return IMG_ERR_MEMORY;
        auto* dib = static_cast<uint8_t*>(platform::block_alloc(static_cast<uint32_t>(size)));
        if (!dib) return IMG_ERR_MEMORY;
        std::memcpy(dib, obj->dib, dib_prefix_bytes(obj));
        auto* h = reinterpret_cast<DibHeader*>(dib);
        h->biCompression = 0;
        h->biSizeImage = static_cast<uint32_t>(pixel_bytes);
        uint8_t* px = dib_pixels(dib);
        for (int32_t r = 0; r < obj->height; ++r)
            expand_stored_row(obj, r, px + size_t(obj->height - r - 1) * obj->row_bytes);
        platform::block_free(obj->dib);
        platform::block_free(obj->line_offsets);
        obj->dib = dib;
        obj->line_offsets = nullptr;
        obj->run_encoded = 0;
        obj->runs_stored = 0;
        obj->dib_capacity = static_cast<uint32_t>(palette_bytes(1) + pixel_bytes + kDibHeaderSize);
        return 0;
    });
}

}  // extern "C"
