// Pixel access and combining images.
//
//   IMGLOW_read_pixel        all depths; IMG_ERR_UNSUPPORTED for a
//                            run-encoded image, IMG_ERR_BAD_IMAGE outside it
//   IMG_merge_bitmap_handle  equal depths; IMG_ERR_DEPTH when they differ
//   IMG_merge_bitmap_alpha   32 bits with alpha (compression 200) into a
//                            packed 24-bit DIB; IMG_ERR_UNSUPPORTED for CMYK,
//                            IMG_ERR_DEPTH for other depths
//
// All: IMG_ERR_HANDLE for a bad handle.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "process/tone/tone.h"

using namespace tesslin;

namespace {

constexpr uint32_t kAlphaCompression = 200;

int32_t read_pixel(int32_t handle, int32_t x, int32_t y) {
    BitmapObject* obj = nullptr;
    if (int32_t s = tone::find(handle, &obj)) return s;
    if (obj->run_encoded) return IMG_ERR_UNSUPPORTED;
    if (x < 0 || y < 0 || x >= obj->width || y >= obj->height) return IMG_ERR_BAD_IMAGE;
    const uint8_t* row = obj->plain_row(y);
    switch (obj->bits()) {
        case 1: return (row[x / 8] >> (7 - x % 8)) & 1;
        case 4: return x % 2 ? row[x / 2] & 15 : row[x / 2] >> 4;
        case 8: return row[x];
        case 16: return load_le16(row + 2 * x);
        case 24: return row[3 * x] | row[3 * x + 1] << 8 | row[3 * x + 2] << 16;
        default: return int32_t(load_le32(row + 4 * size_t(x)));
    }
}

int32_t merge_handle(int32_t dest, int32_t source, int32_t mode, int32_t x, int32_t y) {
    BitmapObject *d = nullptr, *s = nullptr;
    if (int32_t st = tone::find(dest, &d)) return st;
    if (int32_t st = tone::find(source, &s)) return st;
    const uint32_t bits = d->bits();
    if (s->bits() != bits) return IMG_ERR_DEPTH;
    if (x < 0 || y < 0) return IMG_ERR_BAD_IMAGE;
    if (bits == 1) {
        // Both become plain rows, and stay so.
        if (int32_t st = IMG_runs_to_dib(dest); st < 0) return st;
        if (int32_t st = IMG_runs_to_dib(source); st < 0) return st;
        d = bitmap_get(dest), s = bitmap_get(source);
    }
    // Column x as a byte offset (rounded down to a byte below 8 bits).
    const uint64_t offset = bits >= 8 ? uint64_t(x) * (bits / 8) : uint64_t(x) * bits / 8;
    const uint64_t dest_bytes = (uint64_t(bits) * uint32_t(d->width) + 7) / 8;
    if (offset >= dest_bytes) return 0;
    const auto count = uint32_t(std::min<uint64_t>((uint64_t(bits) * uint32_t(s->width) + 7) / 8,
                                                   dest_bytes - offset));
    for (int32_t r = 0; r < s->height && int64_t(y) + r < d->height; ++r) {
        const uint8_t* from = s->plain_row(r);
        uint8_t* to = d->plain_row(y + r) + offset;
        switch (mode) {
            case 0: std::memcpy(to, from, count); break;
            case 1: for (uint32_t i = 0; i < count; ++i) to[i] |= from[i]; break;
            case 2: for (uint32_t i = 0; i < count; ++i) to[i] &= from[i]; break;
            default: break;
        }
    }
    return 0;
}

int32_t merge_alpha(int32_t handle, IMG_BITMAPINFOHEADER* dest, int32_t x, int32_t y,
                    int32_t copy) {
    BitmapObject* obj = nullptr;
    if (int32_t s = tone::find(handle, &obj)) return s;
    if (obj->bits() != 32) return IMG_ERR_DEPTH;
    if (obj->header()->biCompression != kAlphaCompression) return IMG_ERR_UNSUPPORTED;
    if (!dest || dest->biBitCount != 24 || dest->biWidth <= 0 || dest->biHeight == 0)
        return IMG_ERR_BAD_IMAGE;
    // The destination: header, the colours it lists, then bottom-up rows
    // (top-down for a negative height).
    const bool top_down = dest->biHeight < 0;
    const int64_t dest_height = top_down ? -int64_t(dest->biHeight) : dest->biHeight;
    const int64_t dest_width = dest->biWidth;
    uint8_t* dest_pixels =
        reinterpret_cast<uint8_t*>(dest) + dest->biSize + size_t(dest->biClrUsed) * 4;
    const uint32_t dest_row = row_bytes(uint32_t(dest_width), 24);
    for (int32_t r = 0; r < obj->height; ++r) {
        const int64_t dy = int64_t(y) + r;
        if (dy < 0) continue;
        if (dy >= dest_height) break;
        const int64_t stored = top_down ? dy : dest_height - 1 - dy;
        uint8_t* to = dest_pixels + size_t(stored) * dest_row;
        const uint8_t* from = obj->plain_row(r);
        for (int32_t c = 0; c < obj->width; ++c) {
            const int64_t dx = int64_t(x) + c;
            if (dx < 0) continue;
            if (dx >= dest_width) break;
            const uint8_t* p = from + 4 * size_t(c);
            const uint32_t a = p[3];
            if (!a) continue;
            uint8_t* q = to + 3 * size_t(dx);
            for (int i = 0; i < 3; ++i)
                q[i] = copy ? p[i]
                            : uint8_t(std::min<uint32_t>(
                                  255, ((q[i] * (255 - a)) >> 8) + ((p[i] * a) >> 8)));
        }
    }
    return 0;
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMGLOW_read_pixel(int32_t handle, int32_t x, int32_t y) {
    return api_call([&] { return read_pixel(handle, x, y); });
}

TESSLIN_API int32_t IMG_merge_bitmap_handle(int32_t dest, int32_t source, int32_t mode, int32_t x,
                                            int32_t y) {
    return api_call([&] { return merge_handle(dest, source, mode, x, y); });
}

TESSLIN_API int32_t IMG_merge_bitmap_alpha(int32_t handle, IMG_BITMAPINFOHEADER* dest, int32_t x,
                                           int32_t y, int32_t copy) {
    return api_call([&] { return merge_alpha(handle, dest, x, y, copy); });
}

}  // extern "C"
