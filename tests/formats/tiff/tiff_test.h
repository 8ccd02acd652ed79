// Helpers of the TIFF tests: the reader run on bytes in memory.
#pragma once

#include "formats/jpeg/jpeg.h"
#include "formats/tiff/tiff.h"
#include "test_util.h"
#include "tiff_builder.h"

namespace tesslin::test {

inline Decoded decode(const Bytes& file, uint32_t position = 0) { return decode_with(tiff::decode, file, position); }
inline Decoded decode_file(const std::string& path, uint32_t position = 0) { return decode(read_file(path), position); }
// The JPEG decoder's delivery for a JPEG file, to hold TIFF pages against.
inline Decoded jpeg_rows(const Bytes& file) {
    return decode_with([](uint32_t p, IMG_RASTER_CALLBACK r, intptr_t u, IMG_HEADER_CALLBACK h,
                          int32_t s) { return jpeg::decode(p, r, u, h, s); },
                       file);
}

}  // namespace tesslin::test
