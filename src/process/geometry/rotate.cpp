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
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
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

// Eight source rows (i0 ..) by up to eight source bytes (bx0 .. end), one
// 8 x 8 bit transpose per byte; rows past the image count as 0 bits.
inline void transpose_bits_8x8s(const uint8_t* const* src, uint32_t i0, uint32_t bx0, uint32_t end,
                                uint32_t sw, uint32_t sh, uint8_t* const* dst) {
    const uint32_t take = std::min(8u, end - bx0);
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

#if defined(__SSE2__)
// Sixteen source rows (i0 ..) by eight source bytes (bx0 ..) at once: the
// bytes are transposed in registers so that each vector holds one byte
// column of the sixteen rows, and each of its eight pixel columns is then
// one movemask: a 16-bit piece of a destination row. The rows go in, eight
// at a time, last first, so that the first row lands in the most
// significant bit of each destination byte.
inline void transpose_bits_16x64(const uint8_t* const* src, uint32_t i0, uint32_t bx0, uint32_t sw,
                                 uint8_t* const* dst) {
    __m128i r[16];
    for (int l = 0; l < 16; ++l) {
        const uint32_t row = i0 + uint32_t(l < 8 ? 7 - l : 23 - l);
        r[l] = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src[row] + bx0));
    }
    __m128i a[8], b[8];
    for (int l = 0; l < 8; ++l) a[l] = _mm_unpacklo_epi8(r[2 * l], r[2 * l + 1]);
    for (int l = 0; l < 4; ++l) {
        b[2 * l] = _mm_unpacklo_epi16(a[2 * l], a[2 * l + 1]);
        b[2 * l + 1] = _mm_unpackhi_epi16(a[2 * l], a[2 * l + 1]);
    }
    // b[2g + h]: rows 4g .. 4g + 3, bytes 4h .. 4h + 3 (each row's 4 bytes
    // spread over 4 groups of 4 lanes).
    for (int h = 0; h < 2; ++h) {
        a[4 * h + 0] = _mm_unpacklo_epi32(b[h], b[2 + h]);
        a[4 * h + 1] = _mm_unpackhi_epi32(b[h], b[2 + h]);
        a[4 * h + 2] = _mm_unpacklo_epi32(b[4 + h], b[6 + h]);
        a[4 * h + 3] = _mm_unpackhi_epi32(b[4 + h], b[6 + h]);
    }
    __m128i col[8];
    for (int h = 0; h < 2; ++h) {
        col[4 * h + 0] = _mm_unpacklo_epi64(a[4 * h + 0], a[4 * h + 2]);
        col[4 * h + 1] = _mm_unpackhi_epi64(a[4 * h + 0], a[4 * h + 2]);
        col[4 * h + 2] = _mm_unpacklo_epi64(a[4 * h + 1], a[4 * h + 3]);
        col[4 * h + 3] = _mm_unpackhi_epi64(a[4 * h + 1], a[4 * h + 3]);
    }
    const uint32_t at = i0 >> 3;
    for (uint32_t k = 0; k < 8; ++k) {
        __m128i v = col[k];
        const uint32_t j0 = (bx0 + k) * 8;
        const uint32_t n = std::min(8u, sw - j0);
        for (uint32_t q = 0; q < n; ++q) {
            // Two destination bytes, the first row's byte first.
            const uint16_t bits = uint16_t(_mm_movemask_epi8(v));
            std::memcpy(dst[j0 + q] + at, &bits, 2);
            v = _mm_add_epi8(v, v);
        }
    }
}
#endif

template <typename Done>
int32_t transpose_bits(const uint8_t* const* src, uint32_t sw, uint32_t sh, uint8_t* const* dst,
                       Done&& done) {
    const uint32_t used = (sw + 7) / 8;  // source bytes holding pixels
    // Chunks of 32 source bytes (256 destination rows): each pass over the
    // source rows reads half a cache line of each and fills its destination
    // rows from start to end.
    constexpr uint32_t kChunk = 32;
    for (uint32_t cb = 0; cb < used; cb += kChunk) {
        const uint32_t ce = std::min(used, cb + kChunk);
        uint32_t i0 = 0;
#if defined(__SSE2__)
        const uint32_t whole = cb + (ce - cb) / 8 * 8;  // end of the full 8-byte groups
        for (; i0 + 16 <= sh; i0 += 16)
            for (uint32_t bx0 = cb; bx0 < whole; bx0 += 8) transpose_bits_16x64(src, i0, bx0, sw, dst);
        // The rest of the chunk's bytes for those rows, eight rows at a time.
        for (uint32_t r0 = 0; r0 < i0; r0 += 8)
            for (uint32_t bx0 = whole; bx0 < ce; bx0 += 8) transpose_bits_8x8s(src, r0, bx0, ce, sw, sh, dst);
#endif
        for (; i0 < sh; i0 += 8)
            for (uint32_t bx0 = cb; bx0 < ce; bx0 += 8) transpose_bits_8x8s(src, i0, bx0, ce, sw, sh, dst);
        if (int32_t s = done(cb * 8, std::min(sw, ce * 8)); s < 0) return s;
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
// encoded as the new image's records. The painting goes in bands of work
// rows small enough to stay in the first-level cache while every source
// row paints its column into them; each source row keeps its place in its
// change list from band to band.
int32_t quarter_runs(BitmapObject* obj, bool clockwise, process::NewImage& img) {
    const uint32_t w = uint32_t(obj->width), h = uint32_t(obj->height);
    const uint32_t rb = row_bytes(h, 1);
    std::vector<uint8_t> work(size_t(rb) * w, 0xFF);
    // The rows with black pixels: their change lists, destination columns
    // and places in their lists.
    struct Source {
        const uint32_t* p;
        uint32_t column, k;
    };
    std::vector<Source> rows;
    for (uint32_t s = 0; s < h; ++s) {
        const uint32_t* p = obj->run_record(int32_t(s)) + 1;
        if (p[0] < w) rows.push_back({p, clockwise ? h - 1 - s : s, 0});
    }
    // Source columns with any black pixel: the other new rows are white.
    std::vector<uint8_t> inked(w, 0);
    for (const Source& r : rows)
        for (uint32_t k = 0; k <= w && r.p[k] < w; k += 2) {
            const uint32_t end = std::min(r.p[k + 1], w);
            if (end > r.p[k]) std::memset(inked.data() + r.p[k], 1, end - r.p[k]);
        }
    constexpr uint32_t kBand = 256;
    for (uint32_t xb = 0; xb < w; xb += kBand) {
        const uint32_t xe = std::min(w, xb + kBand);
        for (Source& r : rows) {
            const uint8_t clear = uint8_t(~(0x80u >> (r.column & 7)));
            uint8_t* column = work.data() + (r.column >> 3);
            const uint32_t* p = r.p;
            uint32_t k = r.k;
            while (k <= w && p[k] < xe) {
                const uint32_t a = std::max(p[k], xb), b = std::min(p[k + 1], xe);
                if (clockwise) {
                    for (uint32_t x = a; x < b; ++x) column[size_t(x) * rb] &= clear;
                } else {
                    for (uint32_t x = a; x < b; ++x) column[size_t(w - 1 - x) * rb] &= clear;
                }
                if (p[k + 1] > xe) break;  // the run goes on in the next band
                k += 2;
            }
            r.k = k;
        }
    }
    std::vector<uint32_t> record(runs::max_record_bytes(h) / 4);
    uint32_t white[8];
    const uint32_t white_length = runs::record_from_changes(&h, 1, h, white);
    for (uint32_t j = 0; j < w; ++j) {
        if (int32_t p = report_progress(int32_t(w), int32_t(j), rb); p < 0) return p;
        const uint32_t x = clockwise ? j : w - 1 - j;
        if (!inked[x]) {
            if (img.append_record(white, white_length) != 0) return IMG_ERR_MEMORY;
            continue;
        }
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
