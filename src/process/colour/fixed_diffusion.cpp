#include "process/colour/fixed_diffusion.h"

#include <array>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/settings.h"
#include "process/colour/frame.h"
#include "process/colour/palette.h"
#include "process/colour/rows.h"

namespace tesslin::colour {

namespace {

// Entry k is k - 512 clamped to 0..255: a value plus a share is read back
// as entry (value + share + 512).
constexpr std::array<uint8_t, 1024> kClamp = [] {
    std::array<uint8_t, 1024> t{};
    for (int k = 0; k < 1024; ++k) t[size_t(k)] = uint8_t(k < 512 ? 0 : k > 767 ? 255 : k - 512);
    return t;
}();

inline void add(int32_t& v, int32_t share) { v = kClamp[size_t(v + share + 512)]; }

int32_t nearest(int32_t b, int32_t g, int32_t r, const RgbQuad* palette) {
    int32_t best = 0x7FFFFFFF, index = 0;
    b >>= 1, g >>= 1, r >>= 1;
    for (int32_t i = 0; i < 256; ++i) {
        const int32_t db = b - (palette[i].rgbBlue >> 1), dg = g - (palette[i].rgbGreen >> 1),
                      dr = r - (palette[i].rgbRed >> 1);
        const int32_t d = db * db + dg * dg + dr * dr;
        if (d < best) {
            best = d, index = i;
            if (d == 0) break;
        }
    }
    return index;
}

}  // namespace

void diffuse_row_256(uint8_t* out, int32_t* current, int32_t* next, uint32_t width,
                     const RgbQuad* palette, int32_t* cache) {
    for (uint32_t x = 0; x < width; ++x) {
        int32_t* p = current + 4 * x;
        int32_t* q = next + 4 * x;
        const int32_t b = p[0], g = p[1], r = p[2];
        int32_t& cell = cache[((r >> 3) << 10) | ((g >> 3) << 5) | (b >> 3)];
        if (cell < 0) cell = nearest(b, g, r, palette);
        const RgbQuad& e = palette[cell];
        out[x] = uint8_t(cell);
        const int32_t error[3] = {b - e.rgbBlue, g - e.rgbGreen, r - e.rgbRed};
        for (int c = 0; c < 3; ++c) {
            const int32_t v = error[c];
            const int32_t e4 = v / 4, e8 = v / 8, e16 = v / 16;
            add(p[c + 4], e4), add(p[c + 8], e8);
            add(q[c - 8], e16), add(q[c - 4], e8), add(q[c], e4), add(q[c + 4], e8), add(q[c + 8], e16);
        }
    }
}

namespace {

int32_t mediancut(int32_t handle) {
    BitmapObject* obj = nullptr;
    if (int32_t s = find(handle, &obj)) return s;
    discard_window_level(obj);
    if (obj->bits() == 1) return IMG_ERR_DEPTH;

    process::NewImage image;
    if (int32_t s = create(image, obj, 8)) return s;
    build_standard_palette(image.header(), "332");
    const RgbQuad* palette = image.palette();
    std::vector<int32_t> cache(kInverseCacheCells, -1);

    RowReader src(obj);
    const uint32_t width = src.width();
    const int32_t height = src.height();
    const size_t pitch = (size_t(width) + 4) * 4;
    std::vector<int32_t> work(pitch * 2, 0);
    int32_t* cur = work.data() + 8;
    int32_t* next = cur + pitch;
    src.colour(0, cur), src.colour(1, next);
    for (int32_t s = 0; s < height; ++s) {
        uint8_t* out = stored_row(image, s);
        std::memset(out, 0, image.row_bytes());
        diffuse_row_256(out, cur, next, width, palette, cache.data());
        std::swap(cur, next);
        std::memset(next - 8, 0, 8 * sizeof(int32_t));
        std::memset(next + 4 * size_t(width), 0, 8 * sizeof(int32_t));
        src.colour(s + 2, next);
        if (int32_t p = report_progress(height, s, image.row_bytes()); p < 0) return p;
    }
    return install(image, obj);
}

}  // namespace

}  // namespace tesslin::colour

extern "C" TESSLIN_API int32_t IMG_mediancut_color(int32_t handle) {
    return tesslin::api_call([&] { return tesslin::colour::mediancut(handle); });
}
