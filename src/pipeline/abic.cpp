// The ABIC fallback: compressed data that no built-in decoder reads (a
// decoder answers IMG_ERR_COMPRESSION) is handed to the ABIC module, which delivers packed
// 1-bit rows; the result is assembled as a DIB and decoded from memory.
#include <cstring>
#include <vector>

#include "core/dib.h"
#include "core/limits.h"
#include "core/stream.h"
#include "pipeline/decode.h"
#include "pipeline/plugins.h"
#include "pipeline/registry.h"
#include "platform/platform.h"

namespace tesslin {
namespace {

// Frees the library blocks it holds when it goes out of scope.
struct Blocks {
    uint8_t* dib = nullptr;
    uint8_t* work = nullptr;
    ~Blocks() {
        platform::block_free(dib);
        platform::block_free(work);
    }
};

}  // namespace

int32_t abic_fallback(int32_t stream, int32_t page) {
    const int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here;
    AbicParams p{};
    int32_t r = kAbicParamsAbsent;
    for (const FormatDescriptor* f : registry::formats()) {
        if (!f->abic_params) continue;
        r = f->abic_params(stream, page, &p);
        if (r != kAbicParamsAbsent) break;
        stream::seek(stream, here, 0);
    }
    if (r == kAbicParamsAbsent) return IMG_ERR_COMPRESSION;
    if (r < 0) return r;
    return abic_decode_image(stream, p);
}

int32_t abic_decode_image(int32_t stream, const AbicParams& p) {
    if (p.width < 1 || p.height < 1 || (p.bits != 1 && p.bits != 4 && p.bits != 8))
        return IMG_ERR_BAD_IMAGE;

    int32_t r = limits::check_dimensions(uint64_t(p.width), uint64_t(p.height));
    if (r < 0) return r;
    const uint32_t bits = uint32_t(p.bits);
    limits::ImageBytes size;
    if ((r = limits::image_bytes(uint64_t(p.width), uint64_t(p.height), bits, &size)) < 0)
        return r;
    const uint64_t rb = size.row;
    const uint64_t pixel_bytes = size.total;
    const uint32_t pal = palette_bytes(bits);
    // Pixel data the module's coded data cannot back is refused before it is
    // allocated.
    r = limits::check_declared_size(stream::capacity(stream), 0, pixel_bytes, limits::kBilevel,
                                    IMG_ERR_BAD_IMAGE);
    if (r < 0) return r;
    const uint64_t dib_size = pal + pixel_bytes + 5040;
    if (dib_size + 1000 > 0x7FFFFFFF) return IMG_ERR_BAD_IMAGE;

    Blocks b;
    b.dib = static_cast<uint8_t*>(platform::block_alloc(uint32_t(dib_size)));
    if (!b.dib) return IMG_ERR_MEMORY;
    std::memset(b.dib, 0, size_t(pixel_bytes) + pal + 2040);

    // Rows are stored from the top (a negative height), as the module
    // delivers them.
    auto* h = reinterpret_cast<DibHeader*>(b.dib);
    h->biSize = kDibHeaderSize;
    h->biWidth = p.width;
    h->biHeight = -p.height;
    h->biPlanes = 1;
    h->biBitCount = static_cast<uint16_t>(bits);
    h->biSizeImage = static_cast<uint32_t>(pixel_bytes + pal + kDibHeaderSize);
    h->biXPelsPerMeter = p.x_dpi;
    h->biYPelsPerMeter = p.y_dpi;
    RgbQuad* q = dib_palette(b.dib);
    if (bits == 1) {
        q[0] = RgbQuad{255, 255, 255, 0};  // white, black: the reader normalises it
        q[1] = RgbQuad{0, 0, 0, 0};
    } else {
        for (uint32_t i = 0; i < (1u << bits); ++i) {
            const auto v = static_cast<uint8_t>(bits == 4 ? i * 17 : i);
            q[i] = RgbQuad{v, v, v, 0};
        }
    }
    uint8_t* pixels = b.dib + kDibHeaderSize + pal;

    if (bits == 1) {
        r = plugins::abic_decode(stream, p.width, p.height, pixels);
    } else {
        // Deeper images come as bit planes: for each row, `bits` 1-bit rows,
        // most significant plane first.
        const uint64_t plane_rb = row_bytes64(uint64_t(p.width), 1);
        const uint64_t work_size = plane_rb * uint64_t(p.height) * bits + pal + 40 + 1000;
        if (work_size > 0x7FFFFFFF) return IMG_ERR_BAD_IMAGE;
        b.work = static_cast<uint8_t*>(platform::block_alloc(uint32_t(work_size)));
        if (!b.work) return IMG_ERR_MEMORY;
        std::memset(b.work, 0xFF, size_t(work_size));
        r = plugins::abic_decode(stream, p.width, p.height * p.bits, b.work);
        if (r >= 0) {
            for (int32_t y = 0; y < p.height; ++y) {
                uint8_t* out = pixels + size_t(y) * rb;
                for (int32_t x = 0; x < p.width; ++x) {
                    uint32_t v = 0;
                    for (uint32_t k = 0; k < bits; ++k) {
                        const uint8_t* plane = b.work + (size_t(y) * bits + k) * plane_rb;
                        v = (v << 1) | ((plane[x >> 3] >> (7 - (x & 7))) & 1);
                    }
                    if (bits == 8)
                        out[x] = static_cast<uint8_t>(v);
                    else
                        out[x >> 1] |= static_cast<uint8_t>((x & 1) ? v : v << 4);
                }
            }
        }
    }
    if (r < 0) return r;
    return IMG_decompress_bitmap_mem(b.dib, 0);
}

}  // namespace tesslin
