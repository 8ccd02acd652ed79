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

// One row of Stucki diffusion over rows a, b, c (each with two spare cells
// before pixel 0 and after the last), in the direction `Step` (+1 or -1).
template <int Step>
void stucki_row(int32_t* a, int32_t* b, int32_t* c, uint32_t width, uint8_t* out) {
    const int32_t n = int32_t(width);
    int32_t x = Step > 0 ? 0 : n - 1;
    for (int32_t i = 0; i < n; ++i, x += Step) {
        const int32_t v = a[x];
        int32_t e = v;
        if (v > 127) {
            out[x >> 3] = uint8_t(out[x >> 3] | (0x80 >> (x & 7)));
            e = v - 255;
        }
        const int32_t q8 = 8 * e / 42, q4 = 4 * e / 42, q2 = e / 21, q1 = e / 42;
        a[x + Step] += q8;
        a[x + 2 * Step] += q4;
        b[x - 2] += q2, b[x - 1] += q4, b[x] += q8, b[x + 1] += q4, b[x + 2] += q2;
        c[x - 2] += q1, c[x - 1] += q2, c[x] += q4, c[x + 1] += q2, c[x + 2] += q1;
    }
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
    colour::BilevelRows rows(width, height);
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
    int32_t *a = nullptr, *b = nullptr, *c = nullptr;
    if (method == Method::kDiffusion) {
        work.assign(pitch * 3, 0);
        a = work.data() + 2, b = a + pitch, c = b + pitch;
        src.grey(0, a), src.grey(1, b), src.grey(2, c);
    }

    for (int32_t s = 0; s < height; ++s) {
        uint8_t* out = rows.row(s);
        switch (method) {
            case Method::kBayer:
            case Method::kScreen: {
                const auto& m = method == Method::kBayer ? colour::kBayer : kScreen;
                const uint32_t at = uint32_t(s) & 7;
                src.grey(s, grey.data());
                const uint32_t* g = grey.data();
                pack(width, out, [&](uint32_t x) { return g[x] > m[x & 7][at] ? 1u : 0u; });
                break;
            }
            case Method::kThreshold:
                src.grey(s, grey.data());
                pack(width, out, [&](uint32_t x) { return table[grey[x]]; });
                break;
            case Method::kDiffusion: {
                std::memset(out, 0, rows.row_bytes());
                if (s & 1)
                    stucki_row<-1>(a, b, c, width, out);
                else
                    stucki_row<1>(a, b, c, width, out);
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
    if (int32_t s = rows.encode_into(image)) return s;
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
