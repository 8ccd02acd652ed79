// Skew and orientation detection on run records.
//
//   IMG_get_deskew_angle   1-bit (plain pages encoded first); IMG_ERR_HANDLE,
//                          IMG_ERR_DEPTH, IMG_ERR_BAD_IMAGE (null out),
//                          IMG_ERR_MEMORY, a negative progress answer
//   IMG_auto_orient        the same
//
// Both vote into a line-angle accumulator: skew detection with the edges of
// the black runs for every angle of the search range, orientation with every
// black pixel for four angles around the horizontal and four around the
// vertical (decided by how sharply each direction peaks, see below). Rows and columns within a tenth of the width of the edges are
// ignored so that scanner borders do not outvote the text.
#include <vector>

#include "core/api.h"
#include "core/settings.h"
#include "process/cleanup/bilevel.h"

using namespace tesslin;
using namespace tesslin::cleanup;

extern "C" {

TESSLIN_API int32_t IMG_get_deskew_angle(int32_t handle, int32_t* angle, int32_t lo, int32_t hi) {
    return api_call([&]() -> int32_t {
        int32_t status = 0;
        BitmapObject* obj = bilevel_page(handle, &status);
        if (!obj) return status;
        if (!angle) return IMG_ERR_BAD_IMAGE;
        if (hi <= lo) {
            *angle = -lo;
            return 0;
        }
        // A line at slope angle a collects its votes at accumulator angle a + 90.
        std::vector<int32_t> degrees;
        for (int64_t a = lo; a < hi; ++a) degrees.push_back(int32_t(a + 90));
        HoughVotes votes;
        if (votes.init(degrees, obj->width, obj->height) != 0) return IMG_ERR_MEMORY;
        const int32_t w = obj->width, h = obj->height, m = edge_margin(w);
        const uint32_t left = uint32_t(m), right = uint32_t(w - m);
        for (int32_t y = m; y < h - m; ++y) {
            const uint32_t* p = obj->run_record(y) + 1;
            bool started = false;
            for (; *p < uint32_t(w); ++p) {
                if (*p <= left || *p >= right) continue;
                if (!started) {
                    votes.start_row(y);
                    started = true;
                }
                votes.vote(*p);
            }
            if (int32_t s = report_progress(h - 2 * m, y - m, obj->row_bytes); s < 0) return s;
        }
        const int32_t k = votes.winner();
        *angle = -(lo + (k < 0 ? 0 : k));
        return 0;
    });
}

TESSLIN_API int32_t IMG_auto_orient(int32_t handle, int32_t* orientation) {
    return api_call([&]() -> int32_t {
        int32_t status = 0;
        BitmapObject* obj = bilevel_page(handle, &status);
        if (!obj) return status;
        if (!orientation) return IMG_ERR_BAD_IMAGE;
        HoughVotes votes;
        if (votes.init({88, 89, 90, 91, 178, 179, 180, 181}, obj->width, obj->height) != 0)
            return IMG_ERR_MEMORY;
        const int32_t w = obj->width, h = obj->height, m = edge_margin(w);
        const uint32_t left = uint32_t(m), right = uint32_t(w - m);
        for (int32_t y = m; y < h - m; ++y) {
            const uint32_t* p = obj->run_record(y) + 1;
            votes.start_row(y);
            for (; p[0] < uint32_t(w); p += 2) {
                uint32_t from = p[0], to = p[1] < uint32_t(w) ? p[1] : uint32_t(w);
                if (from <= left) from = left + 1;
                if (to > right) to = right;
                for (uint32_t x = from; x < to; ++x) votes.vote(x);
                if (p[1] >= uint32_t(w)) break;
            }
            if (int32_t s = report_progress(h - 2 * m, y - m, obj->row_bytes); s < 0) return s;
        }
        // The tallest single counter is a poor judge on real pages: the
        // aligned first letters of left-justified lines make a column that
        // outvotes any one text row. What sets text lines apart is their
        // length: turning the accumulator angle one or two degrees away
        // smears a long line over many distances, while the short vertical
        // strokes of letters hardly notice. So each direction scores the
        // energy at its best angle over the energy at its worst, and the
        // sharper direction wins; a page with no counter above 2 reads 0.
        if (votes.winner() < 0) {
            *orientation = 0;
            return 0;
        }
        auto sharpness = [&](uint32_t first) {
            double hi = 0, lo = -1;
            for (uint32_t k = first; k < first + 4; ++k) {
                const double e = votes.energy(k);
                hi = e > hi ? e : hi;
                lo = lo < 0 || e < lo ? e : lo;
            }
            return lo > 0 ? hi / lo : hi;
        };
        *orientation = sharpness(4) > sharpness(0) ? 90 : 0;
        return 0;
    });
}

}  // extern "C"
