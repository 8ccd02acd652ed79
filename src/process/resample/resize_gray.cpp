// Scale-to-grey of bilevel pages.
//
//   IMG_resize_to_gray
//
// Depth 1 only (IMG_ERR_DEPTH otherwise). Pages that shrink in both
// dimensions become 8-bit grey; other sizes go to IMG_resize_bitmap. Also
// IMG_ERR_HANDLE, IMG_ERR_BAD_IMAGE (a size below 1), IMG_ERR_MEMORY and a
// negative status of the progress callback (the image then unchanged).
//
// Over the crop rectangle (cx, cy, cw, ch): boxes of n = max(1, ceil(ch /
// new height)) rows by m = max(1, ceil(cw / new width)) columns make N = n
// m cells (at most 250: n is cut to 250 / m). For new row t the n rows
// starting n / 2 above row cy + ((t * ystep) >> 16) (ystep = trunc(ch / new
// height * 65536)) count their black pixels per column; new pixel i sums
// the counts of max(3, m) columns centred on column (i * xstep) >> 12 (xstep
// in 20.12 fixed point; the edge columns repeat past the area's edges) and
// becomes 255 - sum * 255 / N, 0 from a sum of N - 1 on: white stays 255,
// solid black gives 0. Run records are walked directly (each black run
// adds its overlap to the boxes it meets, so white stretches cost nothing);
// plain rows are turned into change lists first. The result is a
// plain 8-bit image with the grey ramp as palette, passed through the
// bitmap's tone table (gamma, brightness, contrast).
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/runs.h"
#include "core/settings.h"
#include "process/resample/resample.h"
#include "process/tone/tone.h"

namespace tesslin::resample {

namespace {

// The grey ramp passed through the bitmap's tone table.
void tone_palette(const BitmapObject* obj, RgbQuad* palette) {
    uint8_t table[256];
    for (int i = 0; i < 256; ++i) table[i] = uint8_t(i);
    tone::bitmap_tone_table(*obj, table);
    for (int i = 0; i < 256; ++i) palette[i] = RgbQuad{table[i], table[i], table[i], 0};
}

int32_t to_grey(BitmapObject* obj, int32_t nw, int32_t nh) {
    const int32_t w = obj->width, h = obj->height;
    const Area a = source_area(obj);
    const uint32_t cw = uint32_t(a.width), ch = uint32_t(a.height);
    uint32_t n = std::max<uint32_t>(1, (ch + uint32_t(nh) - 1) / uint32_t(nh));
    const uint32_t m = std::max<uint32_t>(1, (cw + uint32_t(nw) - 1) / uint32_t(nw));
    uint32_t cells = n * m;
    if (uint64_t(n) * m > 250) {
        n = std::max<uint32_t>(1, 250 / m);
        cells = 250;
    }
    const uint32_t box = std::max<uint32_t>(3, m);
    // Grey level for each count a box can reach.
    std::vector<uint8_t> level(size_t(box) * n + 1, 0);
    level[0] = 255;
    for (uint32_t c = 1; c + 1 < cells && c < level.size(); ++c) level[c] = uint8_t(255 - c * 255 / cells);

    process::NewImage img;
    if (img.create(obj->header(), nw, nh, 8, false) != 0) return IMG_ERR_MEMORY;
    tone_palette(obj, img.palette());
    img.header()->biClrUsed = 0;
    img.header()->biClrImportant = 0;

    const uint64_t ystep = uint64_t(double(ch) / nh * 65536.0);
    const uint64_t xstep = uint64_t(double(cw) / nw * 4096.0);
    // The columns [lo, hi) of each new pixel's box, in the area's columns;
    // they may reach past its edges, where the edge columns repeat.
    std::vector<int64_t> lo(static_cast<size_t>(nw)), hi(static_cast<size_t>(nw));
    for (uint32_t i = 0; i < uint32_t(nw); ++i) {
        lo[i] = int64_t((uint64_t(i) * xstep) >> 12) - box / 2;
        hi[i] = lo[i] + box;
    }
    // first_box[x]: the first box that ends after column x (both bounds
    // grow with i, so the boxes a run meets follow it in order).
    std::vector<uint32_t> first_box(size_t(cw) + 1);
    for (uint32_t x = 0, i = 0; x <= cw; ++x) {
        while (i < uint32_t(nw) && hi[i] <= int64_t(x)) ++i;
        first_box[x] = i;
    }
    std::vector<uint32_t> count(static_cast<size_t>(nw));
    std::vector<uint32_t> changes(size_t(w) + 2);
    const uint32_t rb = img.row_bytes();
    const uint32_t x0 = uint32_t(a.x), x_end = x0 + cw;
    constexpr int64_t kFar = int64_t(1) << 40;

    for (int32_t t = 0; t < nh; ++t) {
        if (int32_t p = report_progress(nh, t, rb); p < 0) return p;
        const int64_t base = a.y + int64_t((uint64_t(t) * ystep) >> 16);
        std::fill(count.begin(), count.end(), 0);
        for (uint32_t k = 0; k < n; ++k) {
            const int64_t y = std::clamp<int64_t>(base - n / 2 + k, 0, h - 1);
            const uint32_t* p = nullptr;
            if (obj->run_encoded) {
                p = obj->run_record(int32_t(y)) + 1;
            } else {
                runs::changes_from_packed(obj->plain_row(int32_t(y)), uint32_t(w), changes.data());
                p = changes.data();
            }
            // Each black run [p[j], p[j + 1]) adds its overlap with every box
            // it meets; a run that covers an edge column of the area also
            // covers the repeats of that column past the edge.
            for (uint32_t j = 0; j <= uint32_t(w) && p[j] < x_end; j += 2) {
                if (p[j + 1] <= x0) continue;
                const int64_t from = p[j] <= x0 ? -kFar : int64_t(p[j] - x0);
                const int64_t to = p[j + 1] >= x_end ? kFar : int64_t(p[j + 1] - x0);
                for (uint32_t i = first_box[from < 0 ? 0 : from]; i < uint32_t(nw) && lo[i] < to; ++i)
                    count[i] += uint32_t(std::min(to, hi[i]) - std::max(from, lo[i]));
                if (p[j + 1] >= x_end) break;
            }
        }
        uint8_t* out = img.row(t);
        for (uint32_t i = 0; i < uint32_t(nw); ++i) out[i] = level[std::min<size_t>(count[i], level.size() - 1)];
        std::memset(out + nw, 0, rb - uint32_t(nw));
    }
    return finish(img, obj);
}

int32_t resize_to_grey(int32_t handle, int32_t width, int32_t height) {
    BitmapObject* obj = nullptr;
    if (int32_t s = open_for_resize(handle, width, height, &obj); s != 0) return s;
    if (obj->bits() != 1) return IMG_ERR_DEPTH;
    if (width >= obj->width || height >= obj->height) return resize_nearest(obj, width, height);
    if (int32_t s = check_new_size(width, height, 8); s != 0) return s;
    return to_grey(obj, width, height);
}

}  // namespace

}  // namespace tesslin::resample

extern "C" TESSLIN_API int32_t IMG_resize_to_gray(int32_t handle, int32_t width, int32_t height) {
    return tesslin::api_call([&] { return tesslin::resample::resize_to_grey(handle, width, height); });
}
