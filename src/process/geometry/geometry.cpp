#include "process/geometry/geometry.h"

#include <array>
#include <cstring>

#include "core/limits.h"
#include "core/runs.h"

namespace tesslin::geometry {

namespace {

constexpr std::array<uint8_t, 256> make_bit_reverse() {
    std::array<uint8_t, 256> t{};
    for (unsigned v = 0; v < 256; ++v) {
        unsigned r = 0;
        for (int b = 0; b < 8; ++b) r |= ((v >> b) & 1u) << (7 - b);
        t[v] = static_cast<uint8_t>(r);
    }
    return t;
}
constexpr std::array<uint8_t, 256> kBitReverse = make_bit_reverse();

template <uint32_t Bpp>
void mirror_pixels(const uint8_t* src, uint32_t width, uint8_t* dst) {
    const uint8_t* s = src + size_t(width - 1) * Bpp;
    for (uint32_t x = 0; x < width; ++x, s -= Bpp, dst += Bpp) std::memcpy(dst, s, Bpp);
}

}  // namespace

void mirror_row(const uint8_t* src, uint32_t bits, uint32_t width, uint8_t* dst) {
    const uint32_t rb = row_bytes(width, bits);
    switch (bits) {
        case 8: mirror_pixels<1>(src, width, dst); break;
        case 16: mirror_pixels<2>(src, width, dst); break;
        case 24: mirror_pixels<3>(src, width, dst); break;
        case 32: mirror_pixels<4>(src, width, dst); break;
        case 4:
        case 1: {
            // Reverse the bytes, each with its pixels reversed; the row then
            // starts with the pad bits that followed the last pixel, which a
            // shift across the bytes removes.
            const uint32_t used = (width * bits + 7) / 8;
            const uint32_t pad = used * 8 - width * bits;
            auto reversed = [&](int64_t i) -> uint32_t {
                if (i < 0) return 0;
                const uint8_t v = src[i];
                return bits == 1 ? kBitReverse[v] : uint8_t((v << 4) | (v >> 4));
            };
            for (uint32_t i = 0; i < used; ++i) {
                const int64_t at = int64_t(used) - 1 - i;
                dst[i] = pad ? uint8_t((reversed(at) << pad) | (reversed(at - 1) >> (8 - pad)))
                             : uint8_t(reversed(at));
            }
            std::memset(dst + used, 0, rb - used);
            return;
        }
        default: return;
    }
    const uint32_t used = (width * bits + 7) / 8;
    std::memset(dst + used, 0, rb - used);
}

uint32_t mirror_record(const uint32_t* record, uint32_t width, uint32_t* out) {
    const uint32_t* p = record + 1;
    uint32_t k = 0;
    while (k <= width && p[k] < width) ++k;
    // The new change list is written straight where the record's positions
    // go; record_from_changes then only closes it (it copies forward).
    uint32_t* list = out + 1;
    uint32_t n = 0;
    if (k & 1) list[n++] = 0;
    for (uint32_t i = k; i-- > 0;)
        if (p[i] != 0) list[n++] = width - p[i];
    return runs::record_from_changes(list, n, width, out);
}

uint32_t invert_record(const uint32_t* record, uint32_t width, uint32_t* out) {
    const uint32_t* p = record + 1;
    uint32_t* list = out + 1;
    uint32_t n = 0;
    uint32_t i = 0;
    if (p[0] == 0)
        i = 1;  // starts black: drop the leading 0
    else
        list[n++] = 0;
    for (; i <= width && p[i] < width; ++i) list[n++] = p[i];
    return runs::record_from_changes(list, n, width, out);
}

int32_t open_image(int32_t handle, BitmapObject** out) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    if (!obj->dib || (obj->run_encoded && !obj->line_offsets)) return IMG_ERR_MEMORY;
    *out = obj;
    return 0;
}

int32_t row_pointers(BitmapObject* obj, std::vector<uint8_t>& storage,
                     std::vector<const uint8_t*>& rows) {
    const int32_t h = obj->height;
    rows.resize(size_t(h));
    if (!obj->run_encoded) {
        for (int32_t r = 0; r < h; ++r) rows[size_t(r)] = obj->plain_row(r);
        return 0;
    }
    const uint64_t bytes = uint64_t(obj->row_bytes) * uint64_t(h);
    if (bytes > limits::kMaxImageBytes) return IMG_ERR_MEMORY;
    storage.resize(size_t(bytes));
    for (int32_t r = 0; r < h; ++r) {
        uint8_t* row = storage.data() + size_t(r) * obj->row_bytes;
        runs::expand(obj->run_record(r), uint32_t(obj->width), row, obj->row_bytes);
        rows[size_t(r)] = row;
    }
    return 0;
}

}  // namespace tesslin::geometry
