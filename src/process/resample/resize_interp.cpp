// Interpolating resize, and the black-preserving shrink of bilevel pages.
//
//   IMG_resize_bitmap_interp
//
// Depths: 1; 8 with a grey palette; 16, 24, 32. IMG_ERR_UNSUPPORTED for 4
// bits, IMG_ERR_NOT_GRAY for an 8-bit colour palette.
//   1 bit, shrinking both ways: a new pixel is black when any source pixel
//     it covers is (run records walked directly; the result stays
//     run-encoded when the source was); other sizes: IMG_resize_bitmap.
//   Width not growing: nearest neighbour, exactly as IMG_resize_bitmap.
//   Width growing: linear interpolation in both directions in 8.8 fixed
//     point, each channel (one 16-bit value for 16 bits) on its own. Along a
//     row, with step = (new << 16) / old, source pixel k lands on d0 = (k *
//     step) >> 16 and pixel k + 1 on d1; the pixels d0 .. d1 - 1 between
//     get the ramp (v_k * 256 + i * slope) >> 8, slope = ((v_k+1 - v_k) *
//     256) / (d1 - d0); the last new pixel is the last source pixel. Rows
//     ramp the same way between interpolated source rows (stored order,
//     bottom row first); rows past the last source row repeat it.
// Statuses also: IMG_ERR_HANDLE, IMG_ERR_BAD_IMAGE (a size below 1),
// IMG_ERR_MEMORY, a negative status of the progress callback (the image
// then unchanged).
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/runs.h"
#include "core/settings.h"
#include "process/resample/resample.h"

namespace tesslin::resample {

namespace {

// ---- bilevel shrink --------------------------------------------------------

int32_t shrink_bilevel(BitmapObject* obj, int32_t nw, int32_t nh) {
    const bool runs = obj->run_encoded != 0;
    const int32_t w = obj->width, h = obj->height;
    process::NewImage img;
    if (img.create(obj->header(), nw, nh, 1, runs) != 0) return IMG_ERR_MEMORY;
    const Area a = source_area(obj);
    const uint64_t ystep = uint64_t(double(a.height) / nh * 65536.0);
    const uint64_t xstep = uint64_t(double(nw) / a.width * 65536.0);
    const int32_t quality = settings().alias_quality;
    const uint32_t rb = img.row_bytes();
    std::vector<uint8_t> row(rb);
    std::vector<uint32_t> changes(size_t(w) + 2);
    std::vector<uint32_t> cut(runs::max_record_bytes(uint32_t(a.width)) / 4);
    std::vector<uint32_t> source(runs::max_record_bytes(uint32_t(w)) / 4);
    std::vector<uint32_t> record(runs::max_record_bytes(uint32_t(nw)) / 4);

    for (int32_t t = 0; t < nh; ++t) {
        if (int32_t p = report_progress(nh, t, rb); p < 0) return p;
        const int64_t first = std::min<int64_t>(a.y + int64_t((uint64_t(t) * ystep) >> 16), h - 1);
        int64_t end = std::min<int64_t>(a.y + int64_t((uint64_t(t + 1) * ystep) >> 16), h);
        int64_t span = std::max<int64_t>(1, end - first);
        if (quality < 100) span = std::max<int64_t>(1, span * quality / 100);
        end = std::min<int64_t>(first + span, h);

        runs::fill_bits(row.data(), 0, uint32_t(nw), true);
        for (int64_t y = first; y < end; ++y) {
            const uint32_t* rec = obj->run_encoded ? obj->run_record(int32_t(y)) : nullptr;
            if (!rec) {
                runs::encode(obj->plain_row(int32_t(y)), uint32_t(w), source.data());
                rec = source.data();
            }
            runs::cut_record(rec, uint32_t(w), uint32_t(a.x), uint32_t(a.width), cut.data());
            for (uint32_t k = 1; cut[k] < uint32_t(a.width); k += 2) {
                const uint64_t b = std::min(cut[k + 1], uint32_t(a.width));
                const uint32_t from = uint32_t((uint64_t(cut[k]) * xstep) >> 16);
                const uint32_t to = uint32_t(std::min<uint64_t>((b * xstep + 0xFFFF) >> 16, uint64_t(nw)));
                runs::fill_bits(row.data(), from, std::max(to, from + 1), false);
                if (b >= uint32_t(a.width)) break;
            }
        }
        if (runs) {
            const uint32_t length = runs::encode(row.data(), uint32_t(nw), record.data());
            if (img.append_record(record.data(), length) != 0) return IMG_ERR_MEMORY;
        } else {
            std::memcpy(img.row(t), row.data(), rb);
        }
    }
    return finish(img, obj);
}

// ---- interpolation ------------------------------------------------------------

// Samples of one kind (8- or 16-bit), `channels` per pixel.
template <typename T>
struct Interpolator {
    uint32_t channels;
    uint32_t w, nw;
    uint64_t xstep;

    // A source row to the new width.
    void row(const T* src, T* dst) const {
        for (uint32_t k = 0; k < w; ++k) {
            const uint32_t d0 = uint32_t(std::min<uint64_t>((uint64_t(k) * xstep) >> 16, nw - 1));
            const uint32_t d1 = uint32_t(std::min<uint64_t>((uint64_t(k + 1) * xstep) >> 16, nw - 1));
            const uint32_t span = d1 - d0;
            const T* a = src + size_t(k) * channels;
            const T* b = k + 1 < w ? a + channels : a;
            T* d = dst + size_t(d0) * channels;
            if (span > 1) {
                for (uint32_t c = 0; c < channels; ++c) {
                    const int32_t base = int32_t(a[c]) * 256;
                    const int32_t slope = (int32_t(b[c]) - int32_t(a[c])) * 256 / int32_t(span);
                    for (uint32_t i = 0; i < span; ++i)
                        d[size_t(i) * channels + c] = T((base + int32_t(i) * slope) >> 8);
                }
            } else {
                std::memcpy(d, a, sizeof(T) * channels);
            }
        }
        std::memcpy(dst + size_t(nw - 1) * channels, src + size_t(w - 1) * channels,
                    sizeof(T) * channels);
    }
};

template <typename T>
void ramp_rows(const T* a, const T* b, size_t samples, uint32_t i, uint32_t span, T* out) {
    for (size_t s = 0; s < samples; ++s) {
        const int32_t base = int32_t(a[s]) * 256;
        const int32_t slope = (int32_t(b[s]) - int32_t(a[s])) * 256 / int32_t(span);
        out[s] = T((base + int32_t(i) * slope) >> 8);
    }
}

template <typename T>
int32_t interpolate(BitmapObject* obj, process::NewImage& img, uint32_t channels) {
    const uint32_t w = uint32_t(obj->width), h = uint32_t(obj->height);
    const uint32_t nw = uint32_t(img.width()), nh = uint32_t(img.height());
    const Interpolator<T> across{channels, w, nw, (uint64_t(nw) << 16) / w};
    const uint64_t ystep = (uint64_t(nh) << 16) / h;
    const size_t samples = size_t(nw) * channels;
    std::vector<T> a(samples), b(samples);
    // Stored row s (0 = bottom) of the source and of the new image.
    auto source = [&](uint32_t s) { return reinterpret_cast<const T*>(obj->plain_row(int32_t(h - 1 - s))); };
    auto target = [&](uint32_t s) { return reinterpret_cast<T*>(img.row(int32_t(nh - 1 - s))); };
    int64_t done = -1;  // highest new stored row written so far
    auto store = [&](uint32_t s) -> int32_t {
        done = std::max<int64_t>(done, s);
        return report_progress(int32_t(nh), int32_t(s), img.row_bytes());
    };
    across.row(source(0), a.data());
    for (uint32_t k = 0; k < h; ++k) {
        const uint32_t r0 = uint32_t(std::min<uint64_t>((uint64_t(k) * ystep) >> 16, nh - 1));
        const uint32_t r1 = uint32_t(std::min<uint64_t>((uint64_t(k + 1) * ystep) >> 16, nh - 1));
        if (k + 1 < h)
            across.row(source(k + 1), b.data());
        else
            b = a;
        if (r1 - r0 > 1) {
            for (uint32_t i = 0; i < r1 - r0; ++i) {
                ramp_rows(a.data(), b.data(), samples, i, r1 - r0, target(r0 + i));
                if (int32_t p = store(r0 + i); p < 0) return p;
            }
        } else {
            std::memcpy(target(r0), a.data(), samples * sizeof(T));
            if (int32_t p = store(r0); p < 0) return p;
        }
        std::swap(a, b);
    }
    // The last source row (now in a) ends the image; rows between repeat it.
    for (int64_t s = done + 1; s < int64_t(nh) - 1; ++s) {
        std::memcpy(target(uint32_t(s)), a.data(), samples * sizeof(T));
        if (int32_t p = store(uint32_t(s)); p < 0) return p;
    }
    std::memcpy(target(nh - 1), a.data(), samples * sizeof(T));
    return 0;
}

int32_t resize_interp(int32_t handle, int32_t width, int32_t height) {
    BitmapObject* obj = nullptr;
    if (int32_t s = open_for_resize(handle, width, height, &obj); s != 0) return s;
    const uint32_t bits = obj->bits();
    if (bits == 4) return IMG_ERR_UNSUPPORTED;
    if (bits == 8 && bitmap_is_color(obj)) return IMG_ERR_NOT_GRAY;
    if (bits == 1) {
        if (width < obj->width && height < obj->height) {
            if (int32_t s = check_new_size(width, height, 1); s != 0) return s;
            return shrink_bilevel(obj, width, height);
        }
        return resize_nearest(obj, width, height);
    }
    if (width <= obj->width) return resize_nearest(obj, width, height);
    if (int32_t s = check_new_size(width, height, bits); s != 0) return s;
    process::NewImage img;
    if (img.create(obj->header(), width, height, int32_t(bits), false) != 0) return IMG_ERR_MEMORY;
    // Fill bytes after the last pixel of each row stay zero.
    const uint32_t used = uint32_t(width) * (bits / 8);
    for (int32_t r = 0; r < height; ++r) std::memset(img.row(r) + used, 0, img.row_bytes() - used);
    const int32_t s = bits == 16 ? interpolate<uint16_t>(obj, img, 1)
                                 : interpolate<uint8_t>(obj, img, bits / 8);
    if (s != 0) return s;
    return finish(img, obj);
}

}  // namespace

}  // namespace tesslin::resample

extern "C" TESSLIN_API int32_t IMG_resize_bitmap_interp(int32_t handle, int32_t width,
                                                        int32_t height) {
    return tesslin::api_call([&] { return tesslin::resample::resize_interp(handle, width, height); });
}
