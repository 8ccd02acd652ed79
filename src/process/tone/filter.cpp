// Neighbourhood filters in place: smoothing and sharpening, 3 x 3
// convolution with built-in or caller kernels.
//
//   IMG_sharpen_bitmap  4 and 8 bits with grey palettes, 16, 24, 32;
//                       IMG_ERR_UNSUPPORTED for 1 bit and colour palettes
//   IMG_process_bitmap  8, 16, 24, 32 (4- and 8-bit colour palettes made
//                       grey first, 4-bit grey left as it is);
//                       IMG_ERR_UNSUPPORTED for 1 bit and unknown filters
//
// Both: IMG_ERR_HANDLE for a bad handle, IMG_ERR_MEMORY, or the progress
// callback's negative status (the rows done so far stay changed).
//
// Samples: bytes for 4, 8, 24 and 32 bits (4-bit rows are filtered byte by
// byte), 16-bit values for 16 bits. A sample's neighbours are the adjacent
// samples of 4-, 8- and 16-bit rows, the samples one pixel (3 or 4 bytes)
// away in 24- and 32-bit rows.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/settings.h"
#include "process/tone/tone.h"

using namespace tesslin;

namespace {

struct Layout {
    uint32_t step;     // samples between neighbouring pixels
    uint32_t samples;  // samples in a row
};

Layout layout_of(const BitmapObject* obj) {
    const auto width = uint32_t(obj->width);
    switch (reinterpret_cast<const DibHeader*>(obj->dib)->biBitCount) {
        case 4: return {1, (width + 1) / 2};
        case 24: return {3, width * 3};
        case 32: return {4, width * 4};
        default: return {1, width};  // 8 and 16
    }
}

bool grey_palette(BitmapObject* obj) { return !bitmap_is_color(obj); }

// Smoothing in storage order: from stored row 1 upward and left to right,
// in place, so the neighbours below and to the left are already done. With
// `sharpen` a smoothed sample b becomes clamp(2 x original - b).
template <typename T>
int32_t smooth(BitmapObject* obj, int32_t weight, bool sharpen, int32_t maximum) {
    const Layout l = layout_of(obj);
    const int32_t height = obj->height;
    const int32_t divisor = weight + 8;
    const uint32_t step = l.step;
    if (l.samples <= 2 * step) return 0;  // no sample off the border
    const size_t stride = obj->row_bytes / sizeof(T);
    T* base = reinterpret_cast<T*>(obj->pixels());
    for (int32_t s = 1; s + 1 < height; ++s) {
        T* row = base + size_t(s) * stride;
        const T* below = row - stride;
        const T* above = row + stride;
        for (uint32_t i = step; i + step < l.samples; ++i) {
            const int32_t centre = row[i];
            const int32_t sum = below[i - step] + below[i] + below[i + step] + row[i - step] +
                                row[i + step] + above[i - step] + above[i] + above[i + step];
            int32_t v = (weight * centre + sum) / divisor;
            if (sharpen) v = std::clamp(2 * centre - v, 0, maximum);
            row[i] = T(v);
        }
        if (int32_t r = report_progress(height, s, obj->row_bytes); r < 0) return r;
    }
    return 0;
}

int32_t sharpen_bitmap(int32_t handle, int32_t amount) {
    BitmapObject* obj = nullptr;
    if (int32_t s = tone::find(handle, &obj)) return s;
    const uint32_t bits = obj->bits();
    if (bits == 1 || ((bits == 4 || bits == 8) && !grey_palette(obj))) return IMG_ERR_UNSUPPORTED;
    const int32_t q = amount & ~15;
    const int32_t base = bits == 4 ? 144 : 136;
    const int32_t shift = bits == 4 ? 4 : 3;
    int32_t weight = q >= 1 ? (base - q) >> shift : (base + q) >> shift;
    // Amounts far outside -136 ... 136 would give a weight of -8 or less (a
    // zero or negative divisor): they act as the strongest setting.
    weight = std::max(weight, 1);
    if (bits == 16) return smooth<uint16_t>(obj, weight, amount > 0, 65535);
    return smooth<uint8_t>(obj, weight, amount > 0, 255);
}

// The built-in kernels, k0 ... k8: the stored row below, the row itself, the
// stored row above, each left, centre, right.
constexpr int32_t kKernels[9][9] = {
    {0, 1, 0, 1, -4, 1, 0, 1, 0},        {-1, -1, -1, -1, 8, -1, -1, -1, -1},
    {-1, -1, -1, 2, 2, 2, -1, -1, -1},   {-1, 2, -1, -1, 2, -1, -1, 2, -1},
    {-1, -1, 2, -1, 2, -1, 2, -1, -1},   {2, -1, -1, -1, 2, -1, -1, -1, 2},
    {0, -1, 0, -1, 5, -1, 0, -1, 0},     {1, 1, 1, 0, 0, 1, 1, 1, 1},
    {-1, 0, -1, 0, 4, 0, -1, 0, -1},
};

// Convolution from the unfiltered values: the rows below and of the sample
// are kept as copies while the row is rewritten; the top and bottom rows
// stand in for their own missing neighbour row. The first and last sample of
// every row keep their values. Sums are clamped to 0 ... maximum (255 for
// bytes, 65,535 for 16-bit values).
template <typename T>
int32_t convolve(BitmapObject* obj, const int32_t* k, int32_t maximum) {
    const Layout l = layout_of(obj);
    const int32_t height = obj->height;
    const uint32_t step = l.step;
    const size_t stride = obj->row_bytes / sizeof(T);
    T* base = reinterpret_cast<T*>(obj->pixels());
    std::vector<T> below_copy(l.samples), own_copy(l.samples);
    std::memcpy(below_copy.data(), base, l.samples * sizeof(T));  // row 0's "below" is itself
    for (int32_t s = 0; s < height; ++s) {
        T* row = base + size_t(s) * stride;
        std::memcpy(own_copy.data(), row, l.samples * sizeof(T));
        const T* own = own_copy.data();
        const T* below = below_copy.data();
        const T* above = s + 1 < height ? row + stride : own;
        for (uint32_t i = step; i + step < l.samples; ++i) {
            const int32_t v = k[0] * below[i - step] + k[1] * below[i] + k[2] * below[i + step] +
                              k[3] * own[i - step] + k[4] * own[i] + k[5] * own[i + step] +
                              k[6] * above[i - step] + k[7] * above[i] + k[8] * above[i + step];
            row[i] = T(std::clamp(v, 0, maximum));
        }
        std::swap(below_copy, own_copy);
        if (int32_t r = report_progress(height, s, obj->row_bytes); r < 0) return r;
    }
    return 0;
}

int32_t process_bitmap(int32_t handle, int32_t filter, const int8_t* user_kernel) {
    BitmapObject* obj = nullptr;
    if (int32_t s = tone::find(handle, &obj)) return s;
    if (filter < 0 || filter > 9 || (filter == 0 && !user_kernel)) return IMG_ERR_UNSUPPORTED;
    uint32_t bits = obj->bits();
    if (bits == 1) return IMG_ERR_UNSUPPORTED;
    if ((bits == 4 || bits == 8) && !grey_palette(obj)) {
        if (int32_t s = IMG_color_gray(handle); s < 0) return s;
        obj = bitmap_get(handle);
        bits = obj->bits();
    }
    if (bits == 4) return 0;
    int32_t k[9];
    for (int i = 0; i < 9; ++i) k[i] = filter == 0 ? user_kernel[i] : kKernels[filter - 1][i];
    if (bits == 16) return convolve<uint16_t>(obj, k, 65535);
    return convolve<uint8_t>(obj, k, 255);
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_sharpen_bitmap(int32_t handle, int32_t amount) {
    return api_call([&] { return sharpen_bitmap(handle, amount); });
}

TESSLIN_API int32_t IMG_process_bitmap(int32_t handle, int32_t filter, const int8_t* kernel) {
    return api_call([&] { return process_bitmap(handle, filter, kernel); });
}

}  // extern "C"
