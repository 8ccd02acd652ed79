// Shared plumbing of the clean-up operations: handle validation for run
// records and the line-angle accumulator.
//
//   bilevel_page   any handle; 1-bit only (IMG_ERR_DEPTH otherwise);
//                  IMG_ERR_HANDLE, IMG_ERR_MEMORY
//   HoughVotes     IMG_ERR_MEMORY when the accumulator cannot be held
#include "process/cleanup/bilevel.h"

#include <cmath>

#include "tesslin/tesslin.h"

namespace tesslin::cleanup {

BitmapObject* bilevel_page(int32_t handle, int32_t* status) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) {
        *status = IMG_ERR_HANDLE;
        return nullptr;
    }
    if (!obj->dib) {
        *status = IMG_ERR_MEMORY;
        return nullptr;
    }
    if (obj->bits() != 1) {
        *status = IMG_ERR_DEPTH;
        return nullptr;
    }
    if (!obj->run_encoded) {
        int32_t s = IMG_dib_to_runs(handle);
        if (s < 0) {
            *status = s;
            return nullptr;
        }
    }
    *status = 0;
    return obj;
}

int32_t HoughVotes::init(const std::vector<int32_t>& degrees, int32_t width, int32_t height) {
    angles_ = uint32_t(degrees.size());
    const double dh = double(height > 0 ? height - 1 : 0);
    const double dw = double(width > 0 ? width - 1 : 0);
    distances_ = uint32_t(std::sqrt(dh * dh + dw * dw));
    // Counters beyond a quarter of a gigabyte mean a search range no caller
    // needs; refuse it rather than exhaust memory.
    const uint64_t cells = uint64_t(angles_) * distances_;
    const uint64_t xcells = uint64_t(angles_) * uint64_t(width > 0 ? width : 0);
    if (cells > (uint64_t(1) << 26) || xcells > (uint64_t(1) << 26)) return IMG_ERR_MEMORY;
    acc_.assign(size_t(cells), 0);
    ysin_.assign(angles_, 0);
    sin_.resize(angles_);
    xcos_.resize(size_t(xcells));
    constexpr double kRad = 3.14159265358979323846 / 180.0;
    for (uint32_t k = 0; k < angles_; ++k) {
        const double t = double(degrees[k]) * kRad;
        sin_[k] = std::sin(t);
        const double c = std::cos(t);
        for (int32_t x = 0; x < width; ++x) xcos_[size_t(x) * angles_ + k] = int32_t(x * c);
    }
    return 0;
}

void HoughVotes::start_row(int32_t y) {
    for (uint32_t k = 0; k < angles_; ++k) ysin_[k] = int32_t(y * sin_[k]);
}

int32_t HoughVotes::winner() const {
    uint32_t best = 2;
    int32_t index = -1;
    for (uint32_t k = 0; k < angles_; ++k) {
        const uint32_t* cell = acc_.data() + size_t(k) * distances_;
        for (uint32_t d = 0; d < distances_; ++d)
            if (cell[d] > best) {
                best = cell[d];
                index = int32_t(k);
            }
    }
    return index;
}

double HoughVotes::energy(uint32_t k) const {
    const uint32_t* cell = acc_.data() + size_t(k) * distances_;
    double sum = 0;
    for (uint32_t d = 0; d < distances_; ++d) sum += double(cell[d]) * double(cell[d]);
    return sum;
}

}  // namespace tesslin::cleanup
