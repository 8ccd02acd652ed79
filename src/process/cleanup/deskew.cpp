// Skew removal by two shears.
//
//   IMG_deskew_bitmap   1-bit (plain pages encoded first); IMG_ERR_HANDLE,
//                       IMG_ERR_DEPTH, IMG_ERR_MEMORY
//
// The page turns by `angle` whole degrees (positive = clockwise) about its
// middle and keeps its size. First every row slides sideways: its change
// positions move by a shift that grows by a fixed 16.16 step per row and is
// zero at the middle row. Then every column slides up or down by the same
// rule applied across the columns (the step computed over the page height),
// which is the second shear of a shear-turn-shear-turn rotation done without
// the two quarter turns. Content pushed past an edge is cut there; what comes
// in from the other side is white.
#include <cmath>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/runs.h"
#include "process/cleanup/bilevel.h"
#include "process/new_image.h"

using namespace tesslin;
using namespace tesslin::cleanup;

namespace {

// 16.16 shift step of a shear across `extent` pixels for sine s.
int64_t shear_step(int32_t extent, double s) {
    if (extent <= 0) return 0;
    return (int64_t(int32_t(double(extent) * s)) * 65536) / extent;
}

// Copies bits [from, to) of `src` into `dst` (same positions), or sets them
// white when src is null.
void copy_bits(uint8_t* dst, const uint8_t* src, uint32_t from, uint32_t to) {
    if (from >= to) return;
    uint32_t b0 = from >> 3, b1 = (to - 1) >> 3;
    uint8_t m0 = uint8_t(0xFFu >> (from & 7));
    uint8_t m1 = uint8_t(0xFFu << (7 - ((to - 1) & 7)));
    auto put = [&](uint32_t b, uint8_t mask) {
        uint8_t v = src ? src[b] : 0xFF;
        dst[b] = uint8_t((dst[b] & ~mask) | (v & mask));
    };
    if (b0 == b1) {
        put(b0, uint8_t(m0 & m1));
        return;
    }
    put(b0, m0);
    if (b1 > b0 + 1) {
        if (src)
            std::memcpy(dst + b0 + 1, src + b0 + 1, b1 - b0 - 1);
        else
            std::memset(dst + b0 + 1, 0xFF, b1 - b0 - 1);
    }
    put(b1, m1);
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_deskew_bitmap(int32_t handle, int32_t angle) {
    return api_call([&]() -> int32_t {
        int32_t status = 0;
        BitmapObject* obj = bilevel_page(handle, &status);
        if (!obj) return status;
        if (angle == 0) return 0;
        const int32_t w = obj->width, h = obj->height;
        if (w < 1 || h < 1) return 0;
        const double s = std::sin(-double(angle) * 3.14159265358979323846 / 180.0);
        const uint32_t rb = uint32_t(((uint64_t(w) + 31) / 32) * 4);

        // First shear: rows slide sideways, expanded into a top-down packed page.
        std::vector<uint8_t> page(size_t(rb) * size_t(h));
        std::vector<uint32_t> changes(size_t(w) + 2);
        const int64_t step = shear_step(w, s);
        int64_t acc = -(int64_t(h / 2) * step);
        for (int32_t y = 0; y < h; ++y, acc += step) {
            const int64_t shift = acc >> 16;
            const uint32_t* p = obj->run_record(y) + 1;
            uint32_t n = 0;
            for (; p[n] < uint32_t(w); ++n) {
                int64_t v = int64_t(p[n]) + shift;
                changes[n] = uint32_t(v < 0 ? 0 : (v > w ? w : v));
            }
            // A row ending black: its closing position moves as well.
            if (n & 1) {
                int64_t v = int64_t(w) + shift;
                changes[n++] = uint32_t(v < 0 ? 0 : (v > w ? w : v));
            }
            changes[n] = uint32_t(w);
            runs::expand_changes(changes.data(), uint32_t(w), page.data() + size_t(y) * rb, rb);
        }

        // Second shear: column bands slide up or down. Column x takes the
        // shift the turned page's row w - 1 - x would get.
        const int64_t step2 = shear_step(h, s);
        const int64_t acc2 = -(int64_t(w / 2) * step2);
        struct Band {
            uint32_t from, to;
            int64_t shift;
        };
        std::vector<Band> bands;
        for (int32_t x = 0; x < w; ++x) {
            const int64_t shift = (acc2 + int64_t(w - 1 - x) * step2) >> 16;
            if (bands.empty() || bands.back().shift != shift)
                bands.push_back({uint32_t(x), uint32_t(x) + 1, shift});
            else
                bands.back().to = uint32_t(x) + 1;
        }

        process::NewImage out;
        if (out.create(obj->header(), w, h, 1, true) != 0) return IMG_ERR_MEMORY;
        std::vector<uint8_t> row(rb);
        std::vector<uint32_t> record(runs::max_record_bytes(uint32_t(w)) / 4);
        for (int32_t y = 0; y < h; ++y) {
            for (const Band& b : bands) {
                const int64_t src = int64_t(y) - b.shift;
                copy_bits(row.data(), src >= 0 && src < h ? page.data() + size_t(src) * rb : nullptr,
                          b.from, b.to);
            }
            const uint32_t length = runs::encode(row.data(), uint32_t(w), record.data());
            if (out.append_record(record.data(), length) != 0) return IMG_ERR_MEMORY;
        }
        return out.install(obj);
    });
}

}  // extern "C"
