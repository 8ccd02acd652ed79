// Histogram equalisation in place.
//
//   IMG_histogram_equalize  8-bit grey and 16 bits; IMG_ERR_DEPTH otherwise
//
// IMG_ERR_HANDLE for a bad handle. The palette is kept.
#include <cmath>
#include <vector>

#include "core/api.h"
#include "process/tone/tone.h"

using namespace tesslin;

namespace {

// One pass counts the values, one maps them: value v becomes
// trunc(L x the fraction of pixels up to and including v), L = 2^bits - 1,
// so the order of values is kept and the range spread to 0 ... L.
template <typename T>
void equalise(BitmapObject* obj, uint32_t levels) {
    std::vector<uint32_t> bins(levels, 0);
    const auto width = uint32_t(obj->width);
    for (int32_t r = 0; r < obj->height; ++r) {
        const T* row = reinterpret_cast<const T*>(obj->plain_row(r));
        for (uint32_t x = 0; x < width; ++x) ++bins[row[x]];
    }
    const double n = double(width) * double(obj->height);
    const double top = double(levels - 1);
    std::vector<T> map(levels);
    double sum = 0;
    for (uint32_t v = 0; v < levels; ++v) {
        sum += bins[v] / n;
        map[v] = T(std::min(top, std::trunc(top * sum)));
    }
    for (int32_t r = 0; r < obj->height; ++r) {
        T* row = reinterpret_cast<T*>(obj->plain_row(r));
        for (uint32_t x = 0; x < width; ++x) row[x] = map[row[x]];
    }
}

int32_t histogram_equalize(int32_t handle) {
    BitmapObject* obj = nullptr;
    if (int32_t s = tone::find(handle, &obj)) return s;
    if (obj->bits() == 16)
        equalise<uint16_t>(obj, 65536);  // 16-bit DIB rows are little-endian, as is the host
    else if (tone::is_grey8(obj))
        equalise<uint8_t>(obj, 256);
    else
        return IMG_ERR_DEPTH;
    return 0;
}

}  // namespace

extern "C" TESSLIN_API int32_t IMG_histogram_equalize(int32_t handle) {
    return api_call([&] { return histogram_equalize(handle); });
}
