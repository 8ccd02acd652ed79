// Rotation by hundredths of a degree, clockwise for positive angles.
//
//   IMG_rotate_bitmap   any angle; quarter and half turns exactly
//
// Every depth (1, 4, 8, 16, 24, 32). The angle is taken modulo 36000, so
// -9000 turns like 27000 and -27000 like 9000; 0 (and whole turns) change
// nothing. Quarter turns swap width and height and carry the crop rectangle
// with the picture; a half turn mirrors it both ways; other angles (see
// rotate_any.cpp) reset it to the whole, larger image. Run-encoded bilevel
// images stay run-encoded: a half turn works on the change positions, a
// quarter turn paints the runs into a packed work area and encodes its rows.
// Statuses: 0; IMG_ERR_HANDLE; IMG_ERR_MEMORY (no DIB, no memory, a result
// too large to hold); a negative status of the progress callback (once per
// destination row), which leaves the image as it was.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/limits.h"
#include "core/runs.h"
#include "core/settings.h"
#include "process/geometry/geometry.h"
#include "process/new_image.h"

using namespace tesslin;

namespace {

// ---- transposes: dst row j, column i = src row i, column j ----------------
//
// The rows are given as pointer arrays, so that the same transpose makes
// both quarter turns (the source rows in reverse order for a clockwise
// turn, the destination rows in reverse order for a counter-clockwise one).
// `done(first, end)` is told when destination rows [first, end) are
// complete and may stop the work with a negative status.

// An 8 x 8 bit matrix, first row in the most significant byte and first
// column in each byte's most significant bit, transposed.
inline uint64_t transpose8(uint64_t x) {
    uint64_t t;
    t = (x ^ (x >> 7)) & 0x00AA00AA00AA00AAull;
    x ^= t ^ (t << 7);
    t = (x ^ (x >> 14)) & 0x0000CCCC0000CCCCull;
    x ^= t ^ (t << 14);
    t = (x ^ (x >> 28)) & 0x00000000F0F0F0F0ull;
    x ^= t ^ (t << 28);
    return x;
}

template <typename Done>
int32_t transpose_bits(const uint8_t* const* src, uint32_t sw, uint32_t sh, uint8_t* const* dst,
                       Done&& done) {
    const uint32_t used = (sw + 7) / 8;  // source bytes holding pixels
    for (uint32_t bx0 = 0; bx0 < used; bx0 += 8) {
        const uint32_t take = std::min(8u, used - bx0);
        for (uint32_t i0 = 0; i0 < sh; i0 += 8) {
            uint8_t block[8][8] = {};
            const uint32_t rows = std::min(8u, sh - i0);
            for (uint32_t m = 0; m < rows; ++m) std::memcpy(block[m], src[i0 + m] + bx0, take);
            for (uint32_t k = 0; k < take; ++k) {
                uint64_t x = 0;
                for (uint32_t m = 0; m < 8; ++m) x |= uint64_t(block[m][k]) << (56 - 8 * m);
                x = transpose8(x);
                const uint32_t j0 = (bx0 + k) * 8;
                const uint32_t n = std::min(8u, sw - j0);
                for (uint32_t q = 0; q < n; ++q) dst[j0 + q][i0 >> 3] = uint8_t(x >> (56 - 8 * q));
            }
        }
        if (int32_t s = done(bx0 * 8, std::min(sw, (bx0 + 8) * 8)); s < 0) return s;
    }
    return 0;
}

template <typename Done>
int32_t transpose_nibbles(const uint8_t* const* src, uint32_t sw, uint32_t sh, uint8_t* const* dst,
                          Done&& done) {
    constexpr uint32_t kTile = 64;
    for (uint32_t jb = 0; jb < sw; jb += kTile) {
        const uint32_t je = std::min(sw, jb + kTile);
        for (uint32_t j = jb; j < je; ++j) std::memset(dst[j], 0, (sh + 1) / 2);
        for (uint32_t i = 0; i < sh; ++i) {
            const uint8_t* s = src[i];
            const uint32_t shift = (i & 1) ? 0 : 4;
            for (uint32_t j = jb; j < je; ++j) {
                const uint32_t v = (j & 1) ? s[j >> 1] & 15u : uint32_t(s[j >> 1] >> 4);
                dst[j][i >> 1] = uint8_t(dst[j][i >> 1] | (v << shift));
            }
        }
        if (int32_t s = done(jb, je); s < 0) return s;
    }
    return 0;
}

template <uint32_t Bpp, typename Done>
int32_t transpose_bytes(const uint8_t* const* src, uint32_t sw, uint32_t sh, uint8_t* const* dst,
                        Done&& done) {
    constexpr uint32_t kTile = 32;
    for (uint32_t jb = 0; jb < sw; jb += kTile) {
        const uint32_t je = std::min(sw, jb + kTile);
        for (uint32_t ib = 0; ib < sh; ib += kTile) {
            const uint32_t ie = std::min(sh, ib + kTile);
            for (uint32_t j = jb; j < je; ++j) {
                uint8_t* d = dst[j];
                for (uint32_t i = ib; i < ie; ++i) std::memcpy(d + i * Bpp, src[i] + j * Bpp, Bpp);
            }
        }
        if (int32_t s = done(jb, je); s < 0) return s;
    }
    return 0;
}

// ---- quarter turns --------------------------------------------------------

// Run-encoded: the black runs of each source row are painted down one
// column of a packed work area (white everywhere else), whose rows are then
// encoded as the new image's records.
int32_t quarter_runs(BitmapObject* obj, bool clockwise, process::NewImage& img) {
    const uint32_t w = uint32_t(obj->width), h = uint32_t(obj->height);
    const uint32_t rb = row_bytes(h, 1);
    std::vector<uint8_t> work(size_t(rb) * w, 0xFF);
    for (uint32_t s = 0; s < h; ++s) {
        const uint32_t c = clockwise ? h - 1 - s : s;
        const uint8_t clear = uint8_t(~(0x80u >> (c & 7)));
        uint8_t* column = work.data() + (c >> 3);
        const uint32_t* p = obj->run_record(int32_t(s)) + 1;
        for (uint32_t k = 0; k <= w && p[k] < w; k += 2) {
            const uint32_t a = p[k], b = std::min(p[k + 1], w);
            for (uint32_t x = a; x < b; ++x) {
                const uint32_t row = clockwise ? x : w - 1 - x;
                column[size_t(row) * rb] &= clear;
            }
            if (b >= w) break;
        }
    }
    std::vector<uint32_t> record(runs::max_record_bytes(h) / 4);
    for (uint32_t j = 0; j < w; ++j) {
        if (int32_t p = report_progress(int32_t(w), int32_t(j), rb); p < 0) return p;
        const uint32_t length = runs::encode(work.data() + size_t(j) * rb, h, record.data());
        if (img.append_record(record.data(), length) != 0) return IMG_ERR_MEMORY;
    }
    return 0;
}

int32_t quarter_plain(BitmapObject* obj, bool clockwise, process::NewImage& img) {
    const uint32_t w = uint32_t(obj->width), h = uint32_t(obj->height);
    const uint32_t bits = obj->bits();
    std::vector<const uint8_t*> src(h);
    std::vector<uint8_t*> dst(w);
    for (uint32_t i = 0; i < h; ++i) src[i] = obj->plain_row(int32_t(clockwise ? h - 1 - i : i));
    for (uint32_t j = 0; j < w; ++j) dst[j] = img.row(int32_t(clockwise ? j : w - 1 - j));
    // Fill bytes after the last pixel of each new row are zero.
    const uint32_t used = uint32_t((uint64_t(h) * bits + 7) / 8);
    for (uint32_t j = 0; j < w; ++j) std::memset(dst[j] + used, 0, img.row_bytes() - used);

    const uint32_t new_rb = img.row_bytes();
    auto done = [&](uint32_t first, uint32_t end) -> int32_t {
        for (uint32_t j = first; j < end; ++j)
            if (int32_t p = report_progress(int32_t(w), int32_t(j), new_rb); p < 0) return p;
        return 0;
    };
    switch (bits) {
        case 1: return transpose_bits(src.data(), w, h, dst.data(), done);
        case 4: return transpose_nibbles(src.data(), w, h, dst.data(), done);
        case 8: return transpose_bytes<1>(src.data(), w, h, dst.data(), done);
        case 16: return transpose_bytes<2>(src.data(), w, h, dst.data(), done);
        case 24: return transpose_bytes<3>(src.data(), w, h, dst.data(), done);
        case 32: return transpose_bytes<4>(src.data(), w, h, dst.data(), done);
        default: return IMG_ERR_DEPTH;
    }
}

int32_t quarter_turn(BitmapObject* obj, bool clockwise) {
    const int32_t w = obj->width, h = obj->height;
    const bool runs = obj->run_encoded != 0;
    process::NewImage img;
    if (img.create(obj->header(), h, w, int32_t(obj->bits()), runs) != 0) return IMG_ERR_MEMORY;
    // The resolution turns with the picture.
    std::swap(img.header()->biXPelsPerMeter, img.header()->biYPelsPerMeter);
    if (int32_t s = runs ? quarter_runs(obj, clockwise, img) : quarter_plain(obj, clockwise, img);
        s != 0)
        return s;
    const geometry::Crop c = geometry::crop_of(obj);
    if (img.install(obj) != 0) return IMG_ERR_MEMORY;
    if (clockwise)
        geometry::set_crop(obj, {h - c.y - c.height, c.x, c.height, c.width});
    else
        geometry::set_crop(obj, {c.y, w - c.x - c.width, c.height, c.width});
    geometry::fit_display_extent(obj);
    return 0;
}

// ---- half turn -------------------------------------------------------------

int32_t half_turn(BitmapObject* obj) {
    const int32_t w = obj->width, h = obj->height;
    const uint32_t bits = obj->bits();
    const bool runs = obj->run_encoded != 0;
    process::NewImage img;
    if (img.create(obj->header(), w, h, int32_t(bits), runs) != 0) return IMG_ERR_MEMORY;
    std::vector<uint32_t> record(runs ? runs::max_record_bytes(uint32_t(w)) / 4 : 0);
    for (int32_t r = 0; r < h; ++r) {
        if (int32_t p = report_progress(h, r, obj->row_bytes); p < 0) return p;
        if (runs) {
            const uint32_t length =
                geometry::mirror_record(obj->run_record(h - 1 - r), uint32_t(w), record.data());
            if (img.append_record(record.data(), length) != 0) return IMG_ERR_MEMORY;
        } else {
            geometry::mirror_row(obj->plain_row(h - 1 - r), bits, uint32_t(w), img.row(r));
        }
    }
    const geometry::Crop c = geometry::crop_of(obj);
    if (img.install(obj) != 0) return IMG_ERR_MEMORY;
    geometry::set_crop(obj, {w - c.x - c.width, h - c.y - c.height, c.width, c.height});
    return 0;
}

int32_t rotate(int32_t handle, int32_t angle) {
    BitmapObject* obj = nullptr;
    if (int32_t s = geometry::open_image(handle, &obj); s != 0) return s;
    int32_t a = angle % 36000;
    if (a < 0) a += 36000;
    switch (a) {
        case 0: return 0;
        case 9000: return quarter_turn(obj, true);
        case 18000: return half_turn(obj);
        case 27000: return quarter_turn(obj, false);
        default: return geometry::rotate_any(obj, a);
    }
}

}  // namespace

extern "C" TESSLIN_API int32_t IMG_rotate_bitmap(int32_t handle, int32_t angle) {
    return api_call([&] { return rotate(handle, angle); });
}
