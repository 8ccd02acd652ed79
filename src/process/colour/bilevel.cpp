// Reduction to bilevel: ordered dither (Bayer matrix or clustered-dot
// screen), Stucki error diffusion and thresholding. The result is kept as
// run records with palette black, white.
//
//   IMG_bayer_mono      white where grey > Bayer threshold
//   IMG_halftone_mono   white where grey > screen threshold
//   IMG_diffusion_mono  Stucki error diffusion, serpentine
//   IMG_thresh_mono     white where grey > threshold; -1: automatic
//
// Every one: sources of 4, 8, 16, 24, 32 bits; IMG_ERR_UNSUPPORTED for 1 bit,
// IMG_ERR_HANDLE, IMG_ERR_MEMORY, or the progress callback's status; the
// bitmap keeps its image on every failure.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/settings.h"
#include "process/colour/frame.h"
#include "process/colour/ordered_dither.h"
#include "process/colour/rows.h"

using namespace tesslin;

namespace {

// Clustered-dot screen: line x mod 8, position s mod 8, like the Bayer
// matrix.
constexpr uint8_t kScreen[8][8] = {
    {136, 192, 160, 128, 116, 60, 92, 124}, {168, 232, 224, 212, 84, 20, 28, 40},
    {200, 248, 244, 180, 52, 4, 8, 72},     {152, 184, 216, 148, 100, 68, 36, 104},
    {112, 56, 88, 120, 140, 196, 164, 132}, {80, 16, 24, 44, 172, 236, 228, 208},
    {48, 0, 12, 76, 204, 252, 240, 176},    {96, 64, 32, 108, 156, 188, 220, 144},
};

enum class Method { kBayer, kScreen, kDiffusion, kThreshold };

// Packs `width` decisions white(x) (1 or 0) into a 1-bit row.
template <typename White>
void pack(uint32_t width, uint8_t* out, White white) {
    uint32_t x = 0;
    for (; x + 8 <= width; x += 8) {
        uint32_t byte = 0;
        for (uint32_t i = 0; i < 8; ++i) byte = (byte << 1) | white(x + i);
        out[x >> 3] = uint8_t(byte);
    }
    if (x < width) {
        uint32_t byte = 0;
        for (uint32_t i = x; i < width; ++i) byte |= white(i) << (7 - (i - x));
        out[x >> 3] = uint8_t(byte);
    }
}

// What a pixel value v passes on (it is white when v > 127): the shares of its
// error e (v - 255 for white, else v), each a division truncated toward
// zero: 8e/42, 4e/42, e/21, e/42. Values stay within -128..383 (every error
// lies within -128..128, and what arrives at a pixel is a weighted mean of
// errors), so they come from a table indexed by the value: the next pixel
// waits only for one load.
struct Decision {
    int16_t q8, q4, q2, q1;
};
static_assert(sizeof(Decision) == 8, "one scaled index per entry");
constexpr int32_t kLowest = -128, kHighest = 383;
inline Decision decide(int32_t v) {
    const int32_t white = v > 127, e = v - 255 * white;
    return Decision{int16_t(8 * e / 42), int16_t(4 * e / 42), int16_t(e / 21), int16_t(e / 42)};
}
const Decision* decision_table() {
    static const auto table = [] {
        std::vector<Decision> t(size_t(kHighest - kLowest + 1));
        for (int32_t v = kLowest; v <= kHighest; ++v) t[size_t(v - kLowest)] = decide(v);
        return t;
    }();
    return table.data() - kLowest;
}

// One row of Stucki diffusion over rows a, b, c (each with two spare cells
// before pixel 0 and after the last), in the direction `Step` (+1 or -1).
// The shares for the two pixels ahead on row a and for the five cells
// around the pixel on rows b and c are gathered in registers; a cell is
// written once no later pixel of the row reaches it. The row comes out as
// its colour changes, ascending, starting from white (room for width + 1);
// returns their number.
template <int Step>
uint32_t stucki_row(int32_t* a, int32_t* b, int32_t* c, uint32_t width, uint32_t* changes) {
    const Decision* table = decision_table();
    const int32_t n = int32_t(width);
    int32_t x = Step > 0 ? 0 : n - 1;
    int32_t ahead1 = 0, ahead2 = 0;          // shares for a[x], a[x + Step]
    int32_t b0 = 0, b1 = 0, b2 = 0, b3 = 0;  // shares for b[x - 2 Step] .. b[x + Step]
    int32_t c0 = 0, c1 = 0, c2 = 0, c3 = 0;
    // Left to right a change is where a pixel differs from the one before
    // (white before the row); right to left it is the column after a pixel
    // that differs from the one after it, collected descending.
    uint32_t count = 0;
    int32_t previous = Step > 0 ? 1 : (a[x] > 127);
    for (int32_t i = 0; i < n; ++i, x += Step) {
        const int32_t v = a[x] + ahead1;
        const Decision q = v >= kLowest && v <= kHighest ? table[v] : decide(v);
        const int32_t white = v > 127;
        changes[count] = uint32_t(Step > 0 ? x : x + 1);
        count += uint32_t(white != previous);
        previous = white;
        ahead1 = ahead2 + q.q8;
        ahead2 = q.q4;
        b[x - 2 * Step] += b0 + q.q2;
        b0 = b1 + q.q4, b1 = b2 + q.q8, b2 = b3 + q.q4, b3 = q.q2;
        c[x - 2 * Step] += c0 + q.q1;
        c0 = c1 + q.q2, c1 = c2 + q.q4, c2 = c3 + q.q2, c3 = q.q1;
    }
    if (Step < 0) {
        // Pixel 0 black: a change from the white before the row.
        if (!previous) changes[count++] = 0;
        std::reverse(changes, changes + count);
    }
    // The cells the last pixels reach: x is now one step past the row's end.
    a[x] += ahead1, a[x + Step] += ahead2;
    b[x - 2 * Step] += b0, b[x - Step] += b1, b[x] += b2, b[x + Step] += b3;
    c[x - 2 * Step] += c0, c[x - Step] += c1, c[x] += c2, c[x + Step] += c3;
    return count;
}

// The 256-entry table of the threshold: identity, or for -1 the cumulative
// histogram of the image's grey values scaled to 0..255 (the threshold is
// then 40).
void threshold_table(colour::RowReader& src, int32_t* threshold, uint32_t* table) {
    for (uint32_t g = 0; g < 256; ++g) table[g] = g;
    if (*threshold != -1) return;
    uint64_t counts[256] = {};
    std::vector<uint32_t> grey(src.width());
    for (int32_t s = 0; s < src.height(); ++s) {
        src.grey(s, grey.data());
        for (uint32_t v : grey) ++counts[v];
    }
    const double n = double(src.width()) * double(src.height());
    double sum = 0;
    for (uint32_t g = 0; g < 256; ++g) {
        sum += double(counts[g]) / n;
        table[g] = uint32_t(sum * 255);
    }
    *threshold = 40;
}

int32_t to_bilevel(int32_t handle, Method method, int32_t threshold) {
    BitmapObject* obj = nullptr;
    if (int32_t s = colour::find(handle, &obj)) return s;
    colour::discard_window_level(obj);
    if (obj->bits() == 1) return IMG_ERR_UNSUPPORTED;

    process::NewImage image;
    if (int32_t s = colour::create(image, obj, 1, true)) return s;
    colour::RowReader src(obj);
    const uint32_t width = src.width();
    const int32_t height = src.height();
    colour::BilevelRows rows(image, method != Method::kDiffusion);
    std::vector<uint32_t> grey(width);

    uint32_t table[256];
    if (method == Method::kThreshold) {
        threshold_table(src, &threshold, table);
        // The table's low byte against the threshold: white above it.
        for (uint32_t g = 0; g < 256; ++g) table[g] = int32_t(table[g] & 255) > threshold ? 1 : 0;
    }

    // Stucki working rows: two spare cells at each end.
    const size_t pitch = size_t(width) + 4;
    std::vector<int32_t> work;
    std::vector<uint32_t> changes;
    int32_t *a = nullptr, *b = nullptr, *c = nullptr;
    if (method == Method::kDiffusion) {
        work.assign(pitch * 3, 0);
        changes.assign(size_t(width) + 1, 0);
        a = work.data() + 2, b = a + pitch, c = b + pitch;
        src.grey(0, a), src.grey(1, b), src.grey(2, c);
    }

    for (int32_t s = 0; s < height; ++s) {
        switch (method) {
            case Method::kBayer:
            case Method::kScreen: {
                const auto& m = method == Method::kBayer ? colour::kBayer : kScreen;
                const uint32_t at = uint32_t(s) & 7;
                src.grey(s, grey.data());
                const uint32_t* g = grey.data();
                pack(width, rows.row(s), [&](uint32_t x) { return g[x] > m[x & 7][at] ? 1u : 0u; });
                break;
            }
            case Method::kThreshold:
                src.grey(s, grey.data());
                pack(width, rows.row(s), [&](uint32_t x) { return table[grey[x]]; });
                break;
            case Method::kDiffusion: {
                const uint32_t count = s & 1 ? stucki_row<-1>(a, b, c, width, changes.data())
                                             : stucki_row<1>(a, b, c, width, changes.data());
                if (int32_t r = rows.put_changes(changes.data(), count)) return r;
                int32_t* done = a;
                a = b, b = c, c = done;
                // The spare cells are never read; cleared so that long pages
                // cannot make them overflow.
                c[-2] = c[-1] = c[width] = c[width + 1] = 0;
                src.grey(s + 3, c);
                break;
            }
        }
        if (int32_t p = report_progress(height, s, rows.row_bytes()); p < 0) return p;
    }
    if (int32_t s = rows.finish()) return s;
    return colour::install(image, obj);
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_bayer_mono(int32_t handle) {
    return api_call([&] { return to_bilevel(handle, Method::kBayer, 0); });
}

TESSLIN_API int32_t IMG_halftone_mono(int32_t handle) {
    return api_call([&] { return to_bilevel(handle, Method::kScreen, 0); });
}

TESSLIN_API int32_t IMG_diffusion_mono(int32_t handle) {
    return api_call([&] { return to_bilevel(handle, Method::kDiffusion, 0); });
}

TESSLIN_API int32_t IMG_thresh_mono(int32_t handle, int32_t threshold) {
    return api_call([&] { return to_bilevel(handle, Method::kThreshold, threshold); });
}

}  // extern "C"
