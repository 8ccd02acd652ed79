// Plain reference codec for the JPEG tests: the decoding and encoding
// procedures written the straightforward way (one bit at a time through the
// Huffman code tree, the transforms with their intermediate block, colour
// values computed from the constants for every pixel, division for
// quantisation, a 16-bit bit accumulator). The library's decoder and
// encoder must give exactly the same rows and bytes; this code exists only
// to prove that and is never used by the library.
#pragma once

#include <cstdint>
#include <vector>

#include "jpeg_test.h"

namespace tesslin::test {

struct ReferenceOptions {
    uint32_t strip_rows = 0;
    bool coefficients = false;
    const std::vector<uint8_t>* tables = nullptr;  // tables-only stream installed first
};

// Decodes a whole JPEG stream held in memory; same statuses as the library
// for the streams the tests give it.
int32_t reference_decode(const std::vector<uint8_t>& file, Decoded* out,
                         const ReferenceOptions& options = {});

// Encodes a DIB (bottom-up rows in a block) with the current quality tables
// and sampling settings.
int32_t reference_encode(const void* dib, std::vector<uint8_t>* out);

// The transforms alone: 64 dequantised coefficients in natural order to
// 8 x 8 samples; 8 x 8 level-shifted samples to 64 coefficients.
void reference_idct(const int16_t* natural, int8_t* samples);
void reference_fdct(const int16_t* samples, int16_t* coefficients);

}  // namespace tesslin::test
