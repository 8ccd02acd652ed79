// Splitting a colour image into grey planes and joining planes again. Both
// make a new bitmap from a packed DIB as IMG_create_handle does (so the
// decode settings apply to it) and leave their sources unchanged.
//
//   IMG_color_separate  byte `plane` of every pixel of a 24- or 32-bit image
//                       -> new 8-bit grey bitmap; IMG_ERR_DEPTH for other
//                       depths and for planes outside the pixel
//   IMG_color_combine   three 8-bit planes -> new 24-bit bitmap (blue,
//                       green, red), four -> new 32-bit CMYK bitmap;
//                       IMG_ERR_DEPTH for planes that are not 8 bits or not
//                       of one size, and plane counts other than 3 and 4
//
// Both: the new handle, IMG_ERR_HANDLE, IMG_ERR_MEMORY, or what creating the
// new bitmap returns.
#include <cstring>
#include <memory>

#include "core/api.h"
#include "core/limits.h"
#include "process/colour/frame.h"
#include "process/colour/palette.h"
#include "platform/platform.h"

using namespace tesslin;

namespace {

struct BlockFree {
    void operator()(uint8_t* p) const { platform::block_free(p); }
};
using Block = std::unique_ptr<uint8_t, BlockFree>;

// A library block for a packed DIB of `pixel_bytes` rows after `prefix`
// bytes of header and palette; null when it is too large or memory runs out.
Block packed_block(uint64_t prefix, uint64_t pixel_bytes) {
    if (pixel_bytes > limits::kMaxImageBytes) return nullptr;
    const uint64_t size = prefix + pixel_bytes;
    return Block(static_cast<uint8_t*>(platform::block_alloc(uint32_t(size))));
}

int32_t separate(int32_t handle, int32_t plane) {
    BitmapObject* obj = nullptr;
    if (int32_t s = colour::find(handle, &obj)) return s;
    const uint32_t bits = obj->bits();
    if (bits != 24 && bits != 32) return IMG_ERR_DEPTH;
    const int32_t step = int32_t(bits / 8);
    if (plane < 0 || plane >= step) return IMG_ERR_DEPTH;

    const uint32_t width = uint32_t(obj->width), height = uint32_t(obj->height);
    const uint32_t rb = row_bytes(width, 8);
    const uint64_t pixels = uint64_t(rb) * height;
    Block block = packed_block(kHeaderBlockSize, pixels);
    if (!block) return IMG_ERR_MEMORY;
    auto* h = reinterpret_cast<DibHeader*>(block.get());
    *h = DibHeader{};
    h->biSize = kDibHeaderSize;
    h->biWidth = obj->width;
    h->biHeight = obj->height;
    h->biPlanes = 1;
    h->biBitCount = 8;
    h->biSizeImage = uint32_t(pixels + kHeaderBlockSize);
    build_standard_palette(h, "tiff");
    uint8_t* out = block.get() + kHeaderBlockSize;
    for (uint32_t s = 0; s < height; ++s, out += rb) {
        const uint8_t* p = obj->pixels() + size_t(s) * obj->row_bytes + plane;
        for (uint32_t x = 0; x < width; ++x, p += step) out[x] = *p;
        std::memset(out + width, 0, rb - width);
    }
    return IMG_create_handle(block.get());
}

int32_t combine(const int32_t* handles, int32_t planes) {
    if (planes != 3 && planes != 4) return IMG_ERR_DEPTH;
    BitmapObject* obj[4] = {};
    for (int32_t i = 0; i < planes; ++i)
        if (int32_t s = colour::find(handles[i], &obj[i])) return s;
    const int32_t width = obj[2]->width, height = obj[2]->height;
    for (int32_t i = 0; i < planes; ++i)
        if (obj[i]->bits() != 8 || obj[i]->width != width || obj[i]->height != height) return IMG_ERR_DEPTH;

    const uint32_t bits = uint32_t(planes) * 8;
    const uint32_t rb = row_bytes(uint32_t(width), bits), plane_rb = row_bytes(uint32_t(width), 8);
    const uint64_t pixels = uint64_t(rb) * uint32_t(height);
    Block block = packed_block(kDibHeaderSize, pixels);
    if (!block) return IMG_ERR_MEMORY;
    auto* h = reinterpret_cast<DibHeader*>(block.get());
    *h = dib_header(width, height, uint16_t(bits));
    h->biSizeImage = uint32_t(pixels + kDibHeaderSize);
    uint8_t* out = block.get() + kDibHeaderSize;
    for (int32_t s = 0; s < height; ++s, out += rb) {
        for (int32_t i = 0; i < planes; ++i) {
            const uint8_t* p = obj[i]->pixels() + size_t(s) * plane_rb;
            for (int32_t x = 0; x < width; ++x) out[size_t(x) * size_t(planes) + size_t(i)] = p[x];
        }
        const uint32_t used = uint32_t(width) * uint32_t(planes);
        std::memset(out + used, 0, rb - used);
    }
    const int32_t made = IMG_create_handle(block.get());
    if (made >= 0 && planes == 4) {
        BitmapObject* result = bitmap_get(made);
        if (result && result->bits() == 32) result->header()->biCompression = 0;
    }
    return made;
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_color_separate(int32_t handle, int32_t plane) {
    return api_call([&] { return separate(handle, plane); });
}

TESSLIN_API int32_t IMG_color_combine(int32_t a, int32_t b, int32_t c, int32_t d, int32_t planes) {
    return api_call([&] {
        const int32_t handles[4] = {a, b, c, d};
        return combine(handles, planes);
    });
}

}  // extern "C"
