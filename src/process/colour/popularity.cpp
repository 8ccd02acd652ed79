// Popularity palette: the 255 most frequent colour cells of 4 bits per
// channel after black, and every pixel mapped to the nearest of them.
//
//   IMG_popularity_color   24 and 32 bits -> 8 bits; IMG_ERR_UNSUPPORTED
//                          below 24 bits, IMG_ERR_HANDLE, IMG_ERR_MEMORY,
//                          or the progress callback's status (the bitmap
//                          keeps its image on every failure)
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/settings.h"
#include "process/colour/frame.h"
#include "process/colour/rows.h"

using namespace tesslin;

namespace {

constexpr uint32_t kBins = 4096;

inline uint32_t bin_of(const uint8_t* bgr) {
    return (uint32_t(bgr[2] >> 4) << 8) | (uint32_t(bgr[1] >> 4) << 4) | (bgr[0] >> 4);
}

// Nearest entry to a bin's colour in units of bin nibble x 2: squared
// distance, the lowest entry among equals, a distance of 0 ends the search.
uint8_t nearest(uint32_t bin, const uint16_t* chosen) {
    const int32_t r = int32_t(bin >> 8) * 2, g = int32_t((bin >> 4) & 15) * 2, b = int32_t(bin & 15) * 2;
    int32_t best = 65535, index = 0;
    for (int32_t i = 0; i < 256; ++i) {
        const uint32_t e = chosen[i];
        const int32_t dr = r - int32_t(e >> 8) * 2, dg = g - int32_t((e >> 4) & 15) * 2,
                      db = b - int32_t(e & 15) * 2;
        const int32_t d = db * db + dg * dg + dr * dr;
        if (d < best) {
            best = d, index = i;
            if (d == 0) break;
        }
    }
    return uint8_t(index);
}

int32_t popularity(int32_t handle) {
    BitmapObject* obj = nullptr;
    if (int32_t s = colour::find(handle, &obj)) return s;
    if (obj->bits() < 24) return IMG_ERR_UNSUPPORTED;

    process::NewImage image;
    if (int32_t s = colour::create(image, obj, 8)) return s;
    colour::RowReader src(obj);
    const uint32_t width = src.width();
    const int32_t height = src.height();

    // Counters of 16 bits: each counts modulo 65,536.
    std::vector<uint16_t> counts(kBins, 0);
    for (int32_t s = 0; s < height; ++s) {
        const uint8_t* p = src.bgr(s);
        for (uint32_t x = 0; x < width; ++x) ++counts[bin_of(p + 3 * x)];
    }
    // Entry 0 is bin 0; then the largest count each time (highest bin among
    // equals), its count cleared; bin 0's own count stays, so it can be
    // chosen again.
    uint16_t chosen[256];
    chosen[0] = 0;
    for (int i = 1; i < 256; ++i) {
        uint32_t best = 0;
        for (uint32_t bin = 1; bin < kBins; ++bin)
            if (counts[bin] >= counts[best]) best = bin;
        chosen[i] = uint16_t(best);
        counts[best] = 0;
    }
    RgbQuad* pal = image.palette();
    for (int i = 0; i < 256; ++i) {
        const uint32_t bin = chosen[i];
        pal[i] = RgbQuad{uint8_t((bin & 15) * 16), uint8_t(((bin >> 4) & 15) * 16), uint8_t((bin >> 8) * 16), 0};
    }

    // The mapping depends on the bin only: looked up once per bin.
    std::vector<int16_t> index_of(kBins, -1);
    for (int32_t s = 0; s < height; ++s) {
        const uint8_t* p = src.bgr(s);
        uint8_t* out = colour::stored_row(image, s);
        std::memset(out, 0, image.row_bytes());
        for (uint32_t x = 0; x < width; ++x) {
            const uint32_t bin = bin_of(p + 3 * x);
            if (index_of[bin] < 0) index_of[bin] = nearest(bin, chosen);
            out[x] = uint8_t(index_of[bin]);
        }
        if (int32_t r = report_progress(height, s, image.row_bytes()); r < 0) return r;
    }
    return colour::install(image, obj);
}

}  // namespace

extern "C" TESSLIN_API int32_t IMG_popularity_color(int32_t handle) {
    return api_call([&] { return popularity(handle); });
}
