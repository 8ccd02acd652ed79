// Shared plumbing of the clean-up operations on bilevel pages.
//
//   bilevel_page     validates a handle for an operation on run records
//   change_count     number of change positions of a record below the width
//   HoughVotes       the line-angle accumulator used by skew and
//                    orientation detection
#pragma once

#include <cstdint>
#include <vector>

#include "core/bitmap.h"

namespace tesslin::cleanup {

// The object of `handle` as a run-encoded 1-bit page. A plain 1-bit image is
// encoded to run records first. Writes the status to `status`:
// IMG_ERR_HANDLE, IMG_ERR_DEPTH for other depths, IMG_ERR_MEMORY.
BitmapObject* bilevel_page(int32_t handle, int32_t* status);

// Number of change positions of row r's record below the width.
inline uint32_t change_count(BitmapObject* obj, int32_t r) {
    const uint32_t* p = obj->run_record(r) + 1;
    const uint32_t w = uint32_t(obj->width);
    uint32_t n = 0;
    while (p[n] < w) ++n;
    return n;
}

// Edge margin the detectors ignore: a tenth of the width on pages wider than
// 100 pixels.
inline int32_t edge_margin(int32_t width) { return width > 100 ? width / 10 : 0; }

// Accumulator of line votes over a set of angles (whole degrees). A feature at
// column x, row y (0 = top) votes, for angle θ, for the distance
// |(trunc(y sin θ) + trunc(x cos θ)) / 2|.
class HoughVotes {
public:
    // 0 or IMG_ERR_MEMORY.
    int32_t init(const std::vector<int32_t>& degrees, int32_t width, int32_t height);
    // Distances of row y for every angle (call before voting for the row).
    void start_row(int32_t y);
    // One vote per angle for column x.
    void vote(uint32_t x) {
        const int32_t* xc = xcos_.data() + size_t(x) * angles_;
        uint32_t* cell = acc_.data();
        for (uint32_t k = 0; k < angles_; ++k, cell += distances_) {
            int32_t v = (ysin_[k] + xc[k]) / 2;
            uint32_t rho = uint32_t(v < 0 ? -v : v);
            if (rho < distances_) ++cell[rho];
        }
    }
    // Index of the angle holding the first counter strictly above the best so
    // far (which starts at 2), scanning angle by angle; -1 when none exceeds 2.
    int32_t winner() const;
    // Sum of the squared counters of angle k: high when the votes gather in
    // few distances, as the pixels of long lines at that angle do.
    double energy(uint32_t k) const;

private:
    uint32_t angles_ = 0;
    uint32_t distances_ = 0;
    std::vector<double> sin_;
    std::vector<int32_t> ysin_;
    std::vector<int32_t> xcos_;
    std::vector<uint32_t> acc_;
};

}  // namespace tesslin::cleanup
