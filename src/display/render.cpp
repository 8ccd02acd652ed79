// The one drawing routine every display, device-bitmap and print entry
// point goes through (display.h).
//
// The part of the target rectangle that lies on the surface is turned back
// into the source's own orientation (undoing the display angle), where it
// is a rectangle of the scaled, unrotated picture. That piece is built row
// by row from the source, whose rows are therefore always read across
// whatever the angle (run records are expanded once per row, never read
// down a column), and is then written to the surface turned by the angle and
// combined with the surface's pixels. The scratch piece is never larger
// than the visible part of the target.
#include <algorithm>
#include <cstring>

#include "core/bitmap.h"
#include "display/display.h"
#include "process/tone/tone.h"
#include "platform/surface.h"

namespace tesslin::display {

// ---- sources ---------------------------------------------------------------

BitmapSource::BitmapSource(BitmapObject* obj) : obj_(obj) {
    width = obj->crop_width;
    height = obj->crop_height;
    toned_ = tone::bitmap_tone_table(*obj, tone_);
}

// While a bitmap's window/level state is enabled, its 8-bit grey or 16-bit
// samples are shown as the grey levels of the mapping table.
static void window_level_row(BitmapObject* o, tone::WindowLevel& wl, int32_t y, int32_t x0,
                             int32_t n, uint8_t* rgb) {
    const uint8_t* row = o->plain_row(y);
    for (int32_t i = 0; i < n; ++i) {
        const size_t x = size_t(x0 + i);
        const uint8_t v = wl.bits == 8 ? wl.table8()[row[x]]
                                       : uint8_t(wl.table16()[row[2 * x] | row[2 * x + 1] << 8]);
        rgb[3 * size_t(i)] = rgb[3 * size_t(i) + 1] = rgb[3 * size_t(i) + 2] = v;
    }
}

void BitmapSource::row(int32_t y, int32_t x0, int32_t n, uint8_t* rgb, uint8_t* keyed) {
    BitmapObject* o = obj_;
    tone::WindowLevel* wl = tone::window_level_state(o);
    if (wl && wl->bits == o->bits() && !o->run_encoded)
        window_level_row(o, *wl, o->crop_y + y, o->crop_x + x0, n, rgb);
    else
        row_to_rgb(o, o->crop_y + y, o->crop_x + x0, n, rgb, scratch_);
    if (toned_)
        for (size_t i = 0; i < size_t(n) * 3; ++i) rgb[i] = tone_[rgb[i]];
    if (!keyed) return;
    const uint32_t bits = o->bits();
    const uint32_t key = o->transparent_color;
    if (bits > 8) {
        // A COLORREF: 0x00BBGGRR.
        const uint8_t r = key & 0xFF, g = (key >> 8) & 0xFF, b = (key >> 16) & 0xFF;
        for (int32_t i = 0; i < n; ++i) {
            const uint8_t* p = rgb + 3 * size_t(i);
            keyed[i] = p[0] == r && p[1] == g && p[2] == b;
        }
        return;
    }
    // A palette index: compare indices, not colours, so that a palette
    // holding the transparent entry's colour twice keeps the other one.
    const uint32_t index = key & 0xFF;
    const uint8_t* row = o->run_encoded ? scratch_.data() : o->plain_row(o->crop_y + y);
    for (int32_t i = 0; i < n; ++i) {
        const uint32_t x = uint32_t(o->crop_x + x0 + i);
        uint32_t v;
        if (bits == 8) v = row[x];
        else if (bits == 4) v = (row[x / 2] >> ((x & 1) ? 0 : 4)) & 15;
        else v = (row[x / 8] >> (7 - (x & 7))) & 1;
        keyed[i] = v == index;
    }
}

SurfaceSource::SurfaceSource(const platform::Surface& s) : s_(s) {
    width = s.width;
    height = s.height;
}

void SurfaceSource::row(int32_t y, int32_t x0, int32_t n, uint8_t* rgb, uint8_t* keyed) {
    std::memcpy(rgb, s_.rgb + (size_t(y) * size_t(s_.width) + size_t(x0)) * 3, size_t(n) * 3);
    if (keyed) std::memset(keyed, 0, size_t(n));
}

// ---- render ----------------------------------------------------------------

namespace {

// Source pixels [lo, hi) that target index `i` of `count` covers along an
// axis of `size` source pixels: at least one, the first being the one
// nearest sampling takes (the pixel under the target's left or top edge).
struct Span {
    int32_t lo, hi;
};
Span cover(int64_t i, int64_t count, int64_t size) {
    const int64_t lo = i * size / count;
    const int64_t hi = std::max(lo + 1, (i + 1) * size / count);
    return {int32_t(lo), int32_t(hi)};
}

// One byte of a raster operation with a white brush: the high nibble of the
// operation's index byte is the truth table of (source, destination).
inline uint8_t rop_byte(uint32_t table, uint8_t s, uint8_t d) {
    uint8_t r = 0;
    if (table & 1) r |= uint8_t(~s & ~d);
    if (table & 2) r |= uint8_t(~s & d);
    if (table & 4) r |= uint8_t(s & ~d);
    if (table & 8) r |= uint8_t(s & d);
    return r;
}

}  // namespace

int32_t render(Source& source, intptr_t dc, const Placement& where, const Blend& how) {
    platform::Surface s;
    if (!platform::dc_surface(dc, &s)) return IMG_ERR_BAD_IMAGE;
    const int32_t angle = where.angle;
    if (angle != 0 && angle != 90 && angle != 180 && angle != 270) return IMG_ERR_UNSUPPORTED;
    const bool mirror_x = where.width < 0, mirror_y = where.height < 0;
    const int64_t w = mirror_x ? -int64_t(where.width) : where.width;
    const int64_t h = mirror_y ? -int64_t(where.height) : where.height;
    const int64_t sw = source.width, sh = source.height;
    if (w < 1 || h < 1 || sw < 1 || sh < 1) return IMG_ERR_DISPLAY_RECT;

    // The visible part of the target: [left, right) x [top, bottom).
    int64_t left = std::max<int64_t>(where.x, 0), right = std::min<int64_t>(where.x + w, s.width);
    int64_t top = std::max<int64_t>(where.y, 0), bottom = std::min<int64_t>(where.y + h, s.height);
    if (where.clip_width > 0 && where.clip_height > 0) {
        left = std::max<int64_t>(left, where.clip_x);
        right = std::min<int64_t>(right, int64_t(where.clip_x) + where.clip_width);
        top = std::max<int64_t>(top, where.clip_y);
        bottom = std::min<int64_t>(bottom, int64_t(where.clip_y) + where.clip_height);
    }
    if (left >= right || top >= bottom) return 0;
    const int64_t i0 = left - where.x, i1 = right - where.x;  // target columns in the rectangle
    const int64_t j0 = top - where.y, j1 = bottom - where.y;  // target rows

    // The picture before turning is wa x hb; the visible part of it is
    // [a0, a1) x [b0, b1). Clockwise by 90 the picture's top row becomes the
    // rectangle's right column.
    const bool across = angle == 90 || angle == 270;
    const int64_t wa = across ? h : w, hb = across ? w : h;
    int64_t a0, a1, b0, b1;
    switch (angle) {
        case 0: a0 = i0, a1 = i1, b0 = j0, b1 = j1; break;
        case 180: a0 = w - i1, a1 = w - i0, b0 = h - j1, b1 = h - j0; break;
        case 90: a0 = j0, a1 = j1, b0 = w - i1, b1 = w - i0; break;
        default: a0 = h - j1, a1 = h - j0, b0 = i0, b1 = i1; break;
    }
    const size_t na = size_t(a1 - a0), nb = size_t(b1 - b0);

    // Source columns of each picture column, and the span read per row.
    std::vector<Span> cols(na);
    int32_t lo = INT32_MAX, hi = 0;
    for (size_t k = 0; k < na; ++k) {
        const int64_t a = a0 + int64_t(k);
        cols[k] = cover(mirror_x ? wa - 1 - a : a, wa, sw);
        if (how.filter == Filter::kNearest) cols[k].hi = cols[k].lo + 1;
        lo = std::min(lo, cols[k].lo);
        hi = std::max(hi, cols[k].hi);
    }
    const size_t span = size_t(hi - lo);

    // The visible piece of the picture, turned back: na x nb pixels.
    std::vector<uint8_t> piece(na * nb * 3);
    std::vector<uint8_t> keyed(how.transparent ? na * nb : 0);
    std::vector<uint8_t> rgb(span * 3), key(how.transparent ? span : 0);
    std::vector<uint64_t> sums(how.filter == Filter::kAverage ? span * 3 : 0);
    int32_t loaded = -1;
    for (size_t k = 0; k < nb; ++k) {
        const int64_t b = b0 + int64_t(k);
        Span rows = cover(mirror_y ? hb - 1 - b : b, hb, sh);
        if (how.filter == Filter::kNearest) rows.hi = rows.lo + 1;
        uint8_t* out = piece.data() + k * na * 3;
        if (how.filter == Filter::kNearest || rows.hi - rows.lo == 1) {
            if (rows.lo != loaded) {
                source.row(rows.lo, lo, int32_t(span), rgb.data(), key.empty() ? nullptr : key.data());
                loaded = rows.lo;
            }
            if (how.filter == Filter::kNearest) {
                for (size_t c = 0; c < na; ++c) {
                    std::memcpy(out + 3 * c, rgb.data() + 3 * size_t(cols[c].lo - lo), 3);
                    if (!keyed.empty()) keyed[k * na + c] = key[size_t(cols[c].lo - lo)];
                }
                continue;
            }
            std::fill(sums.begin(), sums.end(), 0);
            for (size_t i = 0; i < span * 3; ++i) sums[i] = rgb[i];
        } else {
            std::fill(sums.begin(), sums.end(), 0);
            for (int32_t y = rows.lo; y < rows.hi; ++y) {
                source.row(y, lo, int32_t(span), rgb.data(), nullptr);
                for (size_t i = 0; i < span * 3; ++i) sums[i] += rgb[i];
            }
            loaded = -1;  // rgb holds a row, but no transparency marks for it
        }
        // Average over the covered columns.
        const uint64_t height_n = uint64_t(rows.hi - rows.lo);
        for (size_t c = 0; c < na; ++c) {
            uint64_t acc[3] = {0, 0, 0};
            for (int32_t x = cols[c].lo; x < cols[c].hi; ++x)
                for (int ch = 0; ch < 3; ++ch) acc[ch] += sums[size_t(x - lo) * 3 + size_t(ch)];
            const uint64_t n = height_n * uint64_t(cols[c].hi - cols[c].lo);
            for (int ch = 0; ch < 3; ++ch) out[3 * c + size_t(ch)] = uint8_t((acc[ch] + n / 2) / n);
        }
    }

    // Out to the surface, turned by the angle.
    const uint32_t table = (how.rop >> 20) & 15;
    const bool copy = table == 0xC;
    const int32_t opacity = std::clamp(how.opacity, 1, 100);
    const bool plain_copy = angle == 0 && keyed.empty() && opacity == 100 && copy;
    for (int64_t j = j0; j < j1; ++j) {
        uint8_t* d = s.rgb + (size_t(where.y + j) * size_t(s.width) + size_t(where.x + i0)) * 3;
        if (plain_copy) {  // the piece's row is the surface's row
            std::memcpy(d, piece.data() + size_t(j - b0) * na * 3, na * 3);
            continue;
        }
        for (int64_t i = i0; i < i1; ++i, d += 3) {
            int64_t a, b;
            switch (angle) {
                case 0: a = i, b = j; break;
                case 180: a = w - 1 - i, b = h - 1 - j; break;
                case 90: a = j, b = w - 1 - i; break;
                default: a = h - 1 - j, b = i; break;
            }
            const size_t at = size_t(b - b0) * na + size_t(a - a0);
            if (!keyed.empty() && keyed[at]) continue;
            const uint8_t* p = piece.data() + at * 3;
            if (opacity < 100) {
                for (int ch = 0; ch < 3; ++ch)
                    d[ch] = uint8_t((p[ch] * opacity + d[ch] * (100 - opacity) + 50) / 100);
            } else if (copy) {
                d[0] = p[0], d[1] = p[1], d[2] = p[2];
            } else {
                for (int ch = 0; ch < 3; ++ch) d[ch] = rop_byte(table, p[ch], d[ch]);
            }
        }
    }
    return 0;
}

}  // namespace tesslin::display
