// Sample planes of one MCU row and their conversion into delivered rows:
// chroma replication (no interpolation), YCbCr to BGR through the chroma
// tables, the three four-component modes, and coefficient rows.
#pragma once

#include <cstdint>
#include <memory>

#include "formats/jpeg/jpeg_internal.h"

namespace tesslin::jpeg {

struct Plane {
    int width = 0, height = 0;
    std::unique_ptr<int8_t[]> s;   // signed samples, -127..127
    std::unique_ptr<int32_t[]> c;  // coefficients (coefficient output)

    bool allocate(int w, int h, bool coefficients);
    int8_t* samples() { return s.get(); }
    int32_t* coefficients() { return c.get(); }
    const int8_t* sample_row(int y) const { return s.get() + static_cast<size_t>(y) * width; }
    const int32_t* coefficient_row(int y) const { return c.get() + static_cast<size_t>(y) * width; }
};

struct RowLayout {
    int nf = 0;
    int width = 0;          // pixels per delivered row
    uint32_t row_bytes = 0;  // bytes per delivered row, padding included
    int hmax = 1, vmax = 1;
    int cmyk_mode = 2;  // four components: 0 inverted CMYK, 1 YCC with K, 2 YCCK
    bool rgb = false;   // three components: red, green, blue without conversion
    bool coefficients = false;
    const Plane* plane[4] = {};
    int h[4] = {}, v[4] = {};
};

class RowConverter {
public:
    bool init(const RowLayout& layout, const Kernels& kernels);
    // True when lines 2m and 2m + 1 share their chroma rows, so that
    // convert() can make both at once.
    bool pairs() const { return pairs_; }
    // Converts line y (0 .. 8 * vmax - 1) of the current MCU row into out0,
    // and line y + 1 into out1 when out1 is given (pairs() only, y even).
    // Writes every byte of the row, padding included.
    void convert(int y, uint8_t* out0, uint8_t* out1 = nullptr) const;

private:
    const int8_t* row(int c, int y) const { return l_.plane[c]->sample_row(y / fy_[c]); }
    void grey(int y, uint8_t* out) const;
    void ycc(int y, uint8_t* out0, uint8_t* out1) const;
    void rgb(int y, uint8_t* out) const;
    void four(int y, uint8_t* out) const;
    void coefficients(int y, uint8_t* out) const;

    RowLayout l_;
    YccRowsFn ycc_rows_ = nullptr;
    bool pairs_ = false;
    int fx_[4] = {1, 1, 1, 1}, fy_[4] = {1, 1, 1, 1};
};

}  // namespace tesslin::jpeg
