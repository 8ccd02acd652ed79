#include "core/limits.h"

namespace tesslin::limits {

int32_t image_bytes(uint64_t width, uint64_t height, uint32_t bits, ImageBytes* out,
                    uint64_t cap) {
    uint64_t row_bits = 0, total = 0;
    if (__builtin_mul_overflow(width, uint64_t(bits), &row_bits) || row_bits > UINT64_MAX - 31)
        return IMG_ERR_BAD_IMAGE;
    const uint64_t row = (row_bits + 31) / 32 * 4;
    if (__builtin_mul_overflow(row, height, &total) || total > cap) return IMG_ERR_BAD_IMAGE;
    out->row = row;
    out->total = total;
    return 0;
}

int32_t check_declared_size(int64_t capacity, uint64_t data_at, uint64_t need, Coding coding,
                            int32_t refusal) {
    if (capacity < 0) return 0;
    const uint64_t stored = uint64_t(capacity) > data_at ? uint64_t(capacity) - data_at : 0;
    uint64_t most = 0;
    if (__builtin_mul_overflow(stored, coding.ratio, &most) ||
        __builtin_add_overflow(most, coding.allowance, &most))
        return 0;  // more than any declared size can need
    return need > most ? refusal : 0;
}

}  // namespace tesslin::limits
