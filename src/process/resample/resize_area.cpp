// Area-averaging resize (the exported name speaks of bicubic; no cubic
// kernel is involved).
//
//   IMG_resize_bitmap_bicubic
//
// Depths: 8 with a grey palette, 16 (each sample one channel), 24, 32 (four
// channels). IMG_ERR_DEPTH below 8 bits, IMG_ERR_NOT_GRAY for an 8-bit
// colour palette; also IMG_ERR_HANDLE, IMG_ERR_BAD_IMAGE (a size below 1),
// IMG_ERR_MEMORY and a negative status of the progress callback (the image
// then unchanged).
//
// The source is the crop rectangle (cx, cy, cw, ch). Each new pixel is the
// mean (sum per channel, integer division) of a box of m = max(2, ceil(cw /
// new width)) columns by n = max(2, ceil(ch / new height)) rows: columns
// cx + ((i * xstep) >> 16) onward (xstep = (cw << 16) / new width), the
// last column of the area repeating past its right edge; rows from r =
// min(cy + (((t + 1) * ystep) >> 16), height - 1) upward, r - n + 1 .. r
// (ystep = trunc(ch / new height * 65536)), row 0 repeating above the top.
// A uniform image stays uniform at any size, a one-pixel checkerboard
// halved becomes uniform mid grey, and even at equal size the image is a
// 2 x 2 average.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/settings.h"
#include "process/resample/resample.h"

namespace tesslin::resample {

namespace {

template <typename T>
int32_t average(BitmapObject* obj, process::NewImage& img, uint32_t channels) {
    const Area a = source_area(obj);
    const uint32_t nw = uint32_t(img.width()), nh = uint32_t(img.height());
    const uint32_t m = std::max<uint32_t>(2, (uint32_t(a.width) + nw - 1) / nw);
    const uint32_t n = std::max<uint32_t>(2, (uint32_t(a.height) + nh - 1) / nh);
    const uint64_t xstep = (uint64_t(a.width) << 16) / nw;
    const uint64_t ystep = uint64_t(double(a.height) / nh * 65536.0);
    const uint64_t divisor = uint64_t(m) * n;

    // Sums of the box's rows for each column of the area, then prefix sums
    // along the row, so each new pixel costs one subtraction per channel.
    const uint32_t cw = uint32_t(a.width);
    std::vector<uint64_t> column(size_t(cw) * channels);
    std::vector<uint64_t> prefix((size_t(cw) + 1) * channels);
    std::vector<uint32_t> x0(nw);
    for (uint32_t i = 0; i < nw; ++i) x0[i] = uint32_t((uint64_t(i) * xstep) >> 16);

    for (uint32_t t = 0; t < nh; ++t) {
        if (int32_t p = report_progress(int32_t(nh), int32_t(t), img.row_bytes()); p < 0) return p;
        const int64_t r = std::min<int64_t>(a.y + int64_t((uint64_t(t + 1) * ystep) >> 16),
                                            obj->height - 1);
        std::fill(column.begin(), column.end(), 0);
        for (uint32_t k = 0; k < n; ++k) {
            const int64_t y = std::max<int64_t>(0, r - k);
            const T* src = reinterpret_cast<const T*>(obj->plain_row(int32_t(y))) +
                           size_t(a.x) * channels;
            for (size_t s = 0; s < column.size(); ++s) column[s] += src[s];
        }
        for (uint32_t c = 0; c < channels; ++c) prefix[c] = 0;
        for (size_t s = 0; s < column.size(); ++s) prefix[s + channels] = prefix[s] + column[s];

        T* out = reinterpret_cast<T*>(img.row(int32_t(t)));
        for (uint32_t i = 0; i < nw; ++i) {
            // Columns x0 .. x0 + m - 1; those past the area repeat its last.
            const uint32_t first = x0[i];
            const uint32_t end = std::min(cw, first + m);
            const uint32_t repeats = first + m - end;
            for (uint32_t c = 0; c < channels; ++c) {
                uint64_t sum = prefix[size_t(end) * channels + c] - prefix[size_t(first) * channels + c];
                sum += uint64_t(repeats) * column[size_t(cw - 1) * channels + c];
                out[size_t(i) * channels + c] = T(sum / divisor);
            }
        }
    }
    return 0;
}

int32_t resize_area(int32_t handle, int32_t width, int32_t height) {
    BitmapObject* obj = nullptr;
    if (int32_t s = open_for_resize(handle, width, height, &obj); s != 0) return s;
    const uint32_t bits = obj->bits();
    if (bits < 8) return IMG_ERR_DEPTH;
    if (bits == 8 && bitmap_is_color(obj)) return IMG_ERR_NOT_GRAY;
    if (int32_t s = check_new_size(width, height, bits); s != 0) return s;
    process::NewImage img;
    if (img.create(obj->header(), width, height, int32_t(bits), false) != 0) return IMG_ERR_MEMORY;
    const uint32_t used = uint32_t(width) * (bits / 8);
    for (int32_t r = 0; r < height; ++r) std::memset(img.row(r) + used, 0, img.row_bytes() - used);
    const int32_t s = bits == 16 ? average<uint16_t>(obj, img, 1) : average<uint8_t>(obj, img, bits / 8);
    if (s != 0) return s;
    return finish(img, obj);
}

}  // namespace

}  // namespace tesslin::resample

extern "C" TESSLIN_API int32_t IMG_resize_bitmap_bicubic(int32_t handle, int32_t width,
                                                         int32_t height) {
    return tesslin::api_call([&] { return tesslin::resample::resize_area(handle, width, height); });
}
