// Speck removal and stroke thickening on run records.
//
//   IMG_despeckel_bitmap   1-bit (plain pages encoded first); IMG_ERR_HANDLE,
//                          IMG_ERR_DEPTH, IMG_ERR_MEMORY, a negative
//                          progress answer
//   IMG_despeckle_bitmap   the same operation
//
// Each result row is computed from the row itself and its two neighbours
// (the first and last rows take the result of their inner neighbour) with a
// counter per column.
//  - Level 1 and above cleans: a black pixel scores 1, plus 2 inside a run of
//    at least 6; each neighbour row adds the same to pixels already scored.
//    The pixel stays black when its score exceeds level / 10 (1 ... 9), so
//    with levels below 20 a pixel survives only with a black pixel above or
//    below it or inside a horizontal run of 6 or more.
//  - Level 0 and below thickens: a dilation by a plus-shaped element.
// Only the columns of the centre row's runs can turn black when cleaning, so
// the work follows the black runs, not the page width. Pages of fewer than
// three rows are left as they are.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/runs.h"
#include "core/settings.h"
#include "process/cleanup/bilevel.h"
#include "process/new_image.h"

using namespace tesslin;
using namespace tesslin::cleanup;

namespace {

// Calls f(start, end) for every black run of a record's change list.
template <typename F>
void for_runs(const uint32_t* p, uint32_t w, F&& f) {
    for (; p[0] < w; p += 2) {
        const uint32_t end = p[1] < w ? p[1] : w;
        f(p[0], end);
        if (p[1] >= w) break;
    }
}

int32_t despeckle(int32_t handle, int32_t level) {
    int32_t status = 0;
    BitmapObject* obj = bilevel_page(handle, &status);
    if (!obj) return status;
    const int32_t w = obj->width, h = obj->height;
    if (h < 3 || w < 1) return 0;
    const uint32_t uw = uint32_t(w);
    int32_t t = (level / 10) & 255;
    if (t == 0) t = 1;
    if (t > 9) t = 9;

    process::NewImage out;
    if (out.create(obj->header(), w, h, 1, true) != 0) return IMG_ERR_MEMORY;
    std::vector<uint8_t> count(uw + 2, 0);
    std::vector<uint32_t> changes;
    changes.reserve(uw + 2);
    std::vector<uint32_t> record(runs::max_record_bytes(uw) / 4);
    std::vector<uint8_t> packed;
    for (int32_t r = 0; r < h; ++r) {
        const int32_t c = r == 0 ? 1 : std::min(h - 2, r);
        const uint32_t* centre = obj->run_record(c) + 1;
        const uint32_t* above = obj->run_record(c - 1) + 1;
        const uint32_t* below = obj->run_record(c + 1) + 1;
        changes.clear();
        if (level >= 1) {
            for_runs(centre, uw, [&](uint32_t a, uint32_t b) {
                const uint8_t inner = b - a >= 6 ? 3 : 1;
                std::memset(&count[a], inner, b - a);
                count[a] = 1;
                count[b - 1] = 1;
            });
            auto neighbour = [&](uint32_t a, uint32_t b) {
                const bool long_run = b - a >= 6;
                for (uint32_t x = a; x < b; ++x)
                    if (count[x]) count[x] += (long_run && x != a && x + 1 != b) ? 3 : 1;
            };
            for_runs(above, uw, neighbour);
            for_runs(below, uw, neighbour);
            // Threshold inside the centre runs, then clear what was used.
            for_runs(centre, uw, [&](uint32_t a, uint32_t b) {
                bool black = false;
                for (uint32_t x = a; x < b; ++x) {
                    const bool on = count[x] > t;
                    if (on != black) {
                        runs::append_change(changes, x);
                        black = on;
                    }
                }
                if (black) runs::append_change(changes, b);
                std::memset(&count[a], 0, b - a);
            });
        } else {
            // Thickening: the union of the centre runs widened by one pixel
            // and the neighbour runs, merged through the counters.
            uint32_t lo = uw, hi = 0;
            auto mark = [&](uint32_t a, uint32_t b) {
                std::memset(&count[a], 1, b - a);
                lo = std::min(lo, a);
                hi = std::max(hi, b);
            };
            for_runs(centre, uw, [&](uint32_t a, uint32_t b) {
                mark(a > 0 ? a - 1 : 0, std::min(uw, b + 1));
            });
            for_runs(above, uw, mark);
            for_runs(below, uw, mark);
            bool black = false;
            for (uint32_t x = lo; x < hi; ++x) {
                const bool on = count[x] != 0;
                if (on != black) {
                    changes.push_back(x);
                    black = on;
                }
            }
            if (black) changes.push_back(hi);
            if (hi > lo) std::memset(&count[lo], 0, hi - lo);
        }
        const uint32_t length = runs::record_from_changes(changes.data(), uint32_t(changes.size()),
                                                          uw, record.data());
        if (out.append_record(record.data(), length) != 0) return IMG_ERR_MEMORY;
        if (int32_t s = report_progress(h, r, obj->row_bytes); s < 0) return s;
    }
    return out.install(obj);
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_despeckel_bitmap(int32_t handle, int32_t level) {
    return api_call([&] { return despeckle(handle, level); });
}

TESSLIN_API int32_t IMG_despeckle_bitmap(int32_t handle, int32_t level) {
    return api_call([&] { return despeckle(handle, level); });
}

}  // extern "C"
