#include "process/resample/scale_rows.h"

#include <cstring>
#include <vector>

#include "core/dib.h"
#include "core/runs.h"

namespace tesslin::resample {

void scale_row(const uint8_t* src, uint32_t bits, uint32_t src_width, uint8_t* dst,
               uint32_t dst_width) {
    std::memset(dst, 0, row_bytes(dst_width, bits));
    if (!dst_width) return;
    const uint64_t step = (uint64_t(src_width) << 16) / dst_width;
    if (bits >= 8) {
        const uint32_t bpp = bits / 8;
        for (uint32_t x = 0; x < dst_width; ++x) {
            const uint32_t sx = static_cast<uint32_t>((x * step) >> 16);
            std::memcpy(dst + x * bpp, src + sx * bpp, bpp);
        }
    } else if (bits == 4) {
        for (uint32_t x = 0; x < dst_width; ++x) {
            const uint32_t sx = static_cast<uint32_t>((x * step) >> 16);
            const uint8_t v = (sx & 1) ? (src[sx >> 1] & 15) : (src[sx >> 1] >> 4);
            dst[x >> 1] = static_cast<uint8_t>(dst[x >> 1] | ((x & 1) ? v : v << 4));
        }
    } else {
        for (uint32_t x = 0; x < dst_width; ++x) {
            const uint32_t sx = static_cast<uint32_t>((x * step) >> 16);
            if ((src[sx >> 3] >> (7 - (sx & 7))) & 1) dst[x >> 3] |= uint8_t(0x80 >> (x & 7));
        }
    }
}

uint32_t scale_record(const uint32_t* record, uint32_t src_width, uint32_t dst_width,
                      uint32_t* out) {
    std::vector<uint32_t> list;
    for (uint32_t i = 1; i <= src_width + 1; ++i) {
        const uint32_t p = record[i];
        if (p >= src_width) break;
        runs::append_change(list, static_cast<uint32_t>(uint64_t(p) * dst_width / src_width));
    }
    return runs::record_from_changes(list.data(), static_cast<uint32_t>(list.size()), dst_width,
                                     out);
}

}  // namespace tesslin::resample
