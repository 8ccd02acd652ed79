// Rotation by an angle that is not a multiple of a quarter turn.
//
//   geometry::rotate_any   the body of IMG_rotate_bitmap for such angles
//
// Every depth (1, 4, 8, 16, 24, 32); run-encoded images are expanded into a
// packed work copy and their turned rows encoded back into run records.
// Statuses: 0; IMG_ERR_MEMORY; a negative status of the progress callback
// (once per destination row), which leaves the image as it was.
//
// Size. With the angle folded into 0 .. 90 degrees (a, 360 - a, a - 180 or
// 180 - a), X = w/2 cos a + w/2 + h/2 sin a and Y = w/2 sin a + h/2 + h/2
// cos a; the image grows by 2 (round(X) - w) columns and 2 (round(Y) - h)
// rows, so it holds the whole turned picture (w cos a + h sin a wide) and
// keeps the parity of its size: source and destination centres then fall on
// the same point of the pixel grid. A square of 100 turned by 45 degrees
// becomes 142 x 142.
//
// Sampling. Each destination pixel centre is turned back into the source
// (inverse mapping) and takes the source pixel it falls in (nearest
// neighbour); no trigonometry per pixel: source coordinates step along each
// destination row in 32.32 fixed point, each row's start computed afresh,
// and the part of the row whose samples fall inside the source is found by
// exact integer division beforehand, so the inner loops copy without tests.
// Packed images are sampled in strips of 256 new columns, so that the
// source lines a strip reads stay in the cache from row to row.
// Pixels outside get the background: white for bilevel images, 0 for the
// other depths. The crop rectangle becomes the whole new image.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <vector>

#include "core/limits.h"
#include "core/runs.h"
#include "core/settings.h"
#include "process/geometry/geometry.h"
#include "process/new_image.h"

namespace tesslin::geometry {

namespace {

constexpr int kFrac = 32;
constexpr double kOne = double(int64_t(1) << kFrac);

int64_t floor_div(int64_t n, int64_t d) { return n >= 0 ? n / d : -((-n + d - 1) / d); }
int64_t ceil_div(int64_t n, int64_t d) { return -floor_div(-n, d); }

// Narrows [lo, hi) to the X for which low <= a + X d < high.
void clip(int64_t a, int64_t d, int64_t low, int64_t high, int64_t& lo, int64_t& hi) {
    if (d == 0) {
        if (a < low || a >= high) hi = lo;
        return;
    }
    if (d > 0) {
        lo = std::max(lo, ceil_div(low - a, d));
        hi = std::min(hi, ceil_div(high - a, d));
    } else {
        lo = std::max(lo, floor_div(a - high, -d) + 1);
        hi = std::min(hi, floor_div(a - low, -d) + 1);
    }
}

struct Span {
    int64_t u, v, du, dv;  // source column and row of pixel `lo`, 32.32
    int64_t lo, hi;        // destination columns sampling inside the source
};

template <uint32_t Bpp>
void sample_bytes(const uint8_t* const* src, const Span& s, uint8_t* dst) {
    int64_t u = s.u, v = s.v;
    uint8_t* d = dst + s.lo * Bpp;
    for (int64_t x = s.lo; x < s.hi; ++x, u += s.du, v += s.dv, d += Bpp)
        std::memcpy(d, src[v >> kFrac] + (u >> kFrac) * Bpp, Bpp);
}

void sample_nibbles(const uint8_t* const* src, const Span& s, uint8_t* dst) {
    int64_t u = s.u, v = s.v;
    for (int64_t x = s.lo; x < s.hi; ++x, u += s.du, v += s.dv) {
        const int64_t sx = u >> kFrac;
        const uint8_t b = src[v >> kFrac][sx >> 1];
        const uint32_t n = (sx & 1) ? b & 15u : uint32_t(b >> 4);
        dst[x >> 1] = uint8_t(dst[x >> 1] | ((x & 1) ? n : n << 4));
    }
}

// Destination starts white; black samples clear their bit.
void sample_bits(const uint8_t* const* src, const Span& s, uint8_t* dst) {
    int64_t u = s.u, v = s.v;
    for (int64_t x = s.lo; x < s.hi; ++x, u += s.du, v += s.dv) {
        const int64_t sx = u >> kFrac;
        if (!(src[v >> kFrac][sx >> 3] & (0x80 >> (sx & 7))))
            dst[x >> 3] = uint8_t(dst[x >> 3] & ~(0x80 >> (x & 7)));
    }
}

}  // namespace

int32_t rotate_any(BitmapObject* obj, int32_t angle) {
    const int32_t w = obj->width, h = obj->height;
    const uint32_t bits = obj->bits();
    const bool runs = obj->run_encoded != 0;

    double folded = angle / 100.0;
    if (folded >= 270)
        folded = 360 - folded;
    else if (folded >= 180)
        folded -= 180;
    else if (folded >= 90)
        folded = 180 - folded;
    const double f = folded * std::numbers::pi / 180;
    const double half_w = w / 2.0, half_h = h / 2.0;
    const double gx = half_w * std::cos(f) + half_w + half_h * std::sin(f);
    const double gy = half_w * std::sin(f) + half_h + half_h * std::cos(f);
    const int64_t nw = w + 2 * (std::llround(gx) - w);
    const int64_t nh = h + 2 * (std::llround(gy) - h);
    limits::ImageBytes size;
    if (limits::check_dimensions(uint64_t(std::max<int64_t>(nw, 0)), uint64_t(std::max<int64_t>(nh, 0))) != 0 ||
        limits::image_bytes(uint64_t(nw), uint64_t(nh), bits, &size) != 0)
        return IMG_ERR_MEMORY;

    std::vector<uint8_t> storage;
    std::vector<const uint8_t*> src;
    if (int32_t s = row_pointers(obj, storage, src); s != 0) return s;

    process::NewImage img;
    if (img.create(obj->header(), int32_t(nw), int32_t(nh), int32_t(bits), runs) != 0)
        return IMG_ERR_MEMORY;
    const uint32_t rb = img.row_bytes();
    const uint32_t used = uint32_t((uint64_t(nw) * bits + 7) / 8);
    std::vector<uint8_t> work(runs ? rb : 0);
    std::vector<uint32_t> record(runs ? runs::max_record_bytes(uint32_t(nw)) / 4 : 0);

    const double theta = angle / 100.0 * std::numbers::pi / 180;
    const double c = std::cos(theta), s = std::sin(theta);
    Span span{};
    span.du = std::llround(c * kOne);
    span.dv = std::llround(-s * kOne);
    const double dx0 = 0.5 - nw / 2.0;
    const int64_t width_fx = int64_t(w) << kFrac, height_fx = int64_t(h) << kFrac;

    auto background = [&](uint8_t* dst) {
        std::memset(dst, bits == 1 ? 0xFF : 0x00, used);
        std::memset(dst + used, 0, rb - used);
        if (bits == 1 && (nw & 7)) dst[used - 1] = uint8_t(dst[used - 1] & (0xFF00 >> (nw & 7)));
    };
    // Samples columns [from, to) of new row y into dst.
    auto sample = [&](int64_t y, int64_t from, int64_t to, uint8_t* dst) {
        // Pixel centre (x + 0.5, y + 0.5) relative to the destination's
        // centre, turned back by the angle, relative to the source's.
        const double dy = y + 0.5 - nh / 2.0;
        span.u = std::llround((half_w + dx0 * c + dy * s) * kOne);
        span.v = std::llround((half_h - dx0 * s + dy * c) * kOne);
        span.lo = from;
        span.hi = to;
        clip(span.u, span.du, 0, width_fx, span.lo, span.hi);
        clip(span.v, span.dv, 0, height_fx, span.lo, span.hi);
        if (span.lo >= span.hi) return;
        span.u += span.lo * span.du;
        span.v += span.lo * span.dv;
        switch (bits) {
            case 1: sample_bits(src.data(), span, dst); break;
            case 4: sample_nibbles(src.data(), span, dst); break;
            case 8: sample_bytes<1>(src.data(), span, dst); break;
            case 16: sample_bytes<2>(src.data(), span, dst); break;
            case 24: sample_bytes<3>(src.data(), span, dst); break;
            default: sample_bytes<4>(src.data(), span, dst); break;
        }
    };

    if (runs) {
        for (int64_t y = 0; y < nh; ++y) {
            if (int32_t p = report_progress(int32_t(nh), int32_t(y), rb); p < 0) return p;
            background(work.data());
            sample(y, 0, nw, work.data());
            const uint32_t length = runs::encode(work.data(), uint32_t(nw), record.data());
            if (img.append_record(record.data(), length) != 0) return IMG_ERR_MEMORY;
        }
    } else {
        for (int64_t y = 0; y < nh; ++y) {
            if (int32_t p = report_progress(int32_t(nh), int32_t(y), rb); p < 0) return p;
            background(img.row(int32_t(y)));
        }
        // Strips of new columns, top to bottom: consecutive rows of a strip
        // read nearly the same source lines, which then stay in the cache.
        constexpr int64_t kStrip = 256;
        for (int64_t from = 0; from < nw; from += kStrip)
            for (int64_t y = 0; y < nh; ++y) sample(y, from, std::min(nw, from + kStrip), img.row(int32_t(y)));
    }
    if (img.install(obj) != 0) return IMG_ERR_MEMORY;
    fit_display_extent(obj);
    return 0;
}

}  // namespace tesslin::geometry
