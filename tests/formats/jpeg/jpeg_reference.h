// Independent and plain references for the JPEG tests. libjpeg-turbo reads
// the quantised DCT coefficients of a stream (the entropy layer's oracle);
// a plain, pixel-by-pixel form of this library's own arithmetic (integer
// transforms, colour conversion, sampling, quantisation) turns them into
// the rows the decoder must give, and turns a DIB into the coefficients the
// encoder must write. Never used by the library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "jpeg_test.h"

namespace tesslin::test {

struct JpegCoefficients {
    int width = 0, height = 0, nf = 0, hmax = 1, vmax = 1;
    bool arithmetic = false;
    int units = 0, xd = 0, yd = 0;               // JFIF density; units 0 without JFIF
    int adobe_transform = -1, adobe_flags0 = 0;  // transform -1: no Adobe segment
    struct Component {
        int h = 1, v = 1;
        uint16_t q[64] = {};          // natural order
        std::vector<int16_t> blocks;  // whole MCUs, block rows top down, natural order, quantised
        bool operator==(const Component&) const = default;
    } c[4];
    int mx() const { return (width + 8 * hmax - 1) / (8 * hmax); }
    int my() const { return (height + 8 * vmax - 1) / (8 * vmax); }
    bool operator==(const JpegCoefficients&) const = default;
};

// libjpeg-turbo's reading of a stream: its number of warnings, or -1 when
// it refuses the stream (*error gets the message).
int peer_coefficients(const Bytes& file, JpegCoefficients* out, std::string* error = nullptr);

// The header and rows the decoder gives for those coefficients: samples,
// or the dequantised coefficients (the coefficient output).
void reference_rows(const JpegCoefficients& in, bool coefficients, Decoded* out);

// The coefficients the encoder writes for a DIB (bottom-up rows in a block)
// with the current quality tables and sampling settings.
void reference_forward(const void* dib, JpegCoefficients* out);

// The transforms alone: 64 dequantised coefficients in natural order to
// 8 x 8 samples; 8 x 8 level-shifted samples to 64 coefficients.
void reference_idct(const int16_t* natural, int8_t* samples);
void reference_fdct(const int16_t* samples, int16_t* coefficients);

}  // namespace tesslin::test
