// The TIFF page decoder, split over several files: tiff_read.cpp (opening,
// the DIB header, row conversion, planar data), tiff_strips.cpp (the strip
// decoders that produce raw rows), tiff_jpeg.cpp (JPEG-compressed pages),
// tiff_fax.cpp (CCITT and JBIG pages).
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "core/limits.h"
#include "formats/tiff/lzw.h"
#include "formats/tiff/tiff_dir.h"
#include "pipeline/codec.h"

namespace tesslin::tiff {

// How a raw row of the file becomes a DIB row.
enum class Kind : uint8_t {
    kCopy,      // 1, 4 or 8 bits, one sample: the bytes as they are
    kWiden2,    // 2-bit samples into 4-bit pixels
    kGrey16,    // 16-bit grey: little-endian samples
    kGrey12,    // 12-bit grey: 16-bit little-endian samples, value << 4
    kFirstOfTwo,// grey and alpha: the grey sample
    kRgb8,      // RGB (and further samples): BGR
    kRgba8,     // RGBA: BGRA
    kRgb16,     // 16-bit RGB: BGR of the high bytes
    kRgba16,    // 16-bit RGBA: BGRA of the high bytes
    kRgb4,      // 4-bit RGB(A): BGR, value x 16
    kRgb1,      // 1-bit RGB: BGR of 128 or 0
    kNibble4,   // four 1-bit samples: one 4-bit pixel (sample i in bit i)
    kCmyk8,     // 8-bit CMYK: as stored (further samples dropped)
    kCmyk16,    // 16-bit CMYK: the high bytes
    kCmy8,      // separated with 3 samples: BGR = 255 - sample
    kYCbCr,     // 8-bit YCbCr, subsampled h x v: BGR
    kLab,       // 8-bit CIELab: BGR
    kChannel,   // channel mode: one byte of each pixel as 8-bit grey
};

// A byte buffer that keeps its memory between uses and does not clear
// what it adds (a strip is read over it at once). 32 bytes of slack follow
// the data, so that copies may move whole 32-byte steps.
class Bytes {
public:
    uint8_t* data() { return bytes_.get(); }
    const uint8_t* data() const { return bytes_.get(); }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    uint8_t operator[](size_t i) const { return bytes_[i]; }
    const uint8_t* begin() const { return bytes_.get(); }
    const uint8_t* end() const { return bytes_.get() + size_; }
    // Sets the size, keeping the first min(old, n) bytes.
    void resize(size_t n) {
        if (n > capacity_) {
            const size_t c = std::max(n, capacity_ * 2);
            std::unique_ptr<uint8_t[]> b(new uint8_t[c + kSlack]());
            if (size_) std::memcpy(b.get(), bytes_.get(), size_);
            bytes_ = std::move(b);
            capacity_ = c;
        }
        size_ = n;
    }

private:
    static constexpr size_t kSlack = 32;
    std::unique_ptr<uint8_t[]> bytes_;
    size_t size_ = 0, capacity_ = 0;
};

class PageReader {
public:
    PageReader(TiffFile& file, const Directory& dir, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, uint32_t tile, int32_t channel);
    int32_t run();

    // Layout of what the strip decoders produce.
    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }

private:
    // ---- tiff_read.cpp ----
    int32_t plan();
    int32_t build_header();
    int32_t build_palette(RgbQuad* palette, uint32_t bits);
    int32_t load_strip_table();
    int32_t check_size(limits::Coding coding) const;
    uint32_t strip_index(uint32_t plane, uint32_t strip) const;
    bool strip_bounds(uint32_t index, uint32_t* offset, uint32_t* count);
    int32_t read_strip(uint32_t index, Bytes* out);
    // A raw row of plane `plane`, unit row `unit` (an image row, or v rows of
    // subsampled YCbCr). `owned`: the decoder does not need the bytes again,
    // so they may be changed in place, and the buffer holds out_row_ bytes.
    int32_t row_out(uint32_t plane, uint32_t unit, uint8_t* raw, bool owned);
    int32_t deliver_unit(uint32_t unit, const uint8_t* raw);
    void convert(const uint8_t* raw, uint32_t sub_row, uint8_t* out);
    void undo_predictor(uint8_t* row) const;
    int32_t finish_planar();
    int32_t run_strips();

    // ---- tiff_strips.cpp ----
    int32_t strip_uncompressed(uint32_t index, uint32_t plane, uint32_t unit0, uint32_t units);
    int32_t strip_packbits(uint32_t index, uint32_t plane, uint32_t unit0, uint32_t units);
    int32_t strip_lzw(uint32_t index, uint32_t plane, uint32_t unit0, uint32_t units);
    int32_t strip_deflate(uint32_t index, uint32_t plane, uint32_t unit0, uint32_t units);

    // ---- tiff_jpeg.cpp ----
    int32_t decode_jpeg();
    int32_t decode_old_jpeg();

    // ---- tiff_fax.cpp ----
    int32_t decode_ccitt();
    int32_t decode_jbig();

public:
    // State the callback adapters of the JPEG path reach.
    TiffFile& file_;
    const Directory& dir_;
    IMG_RASTER_CALLBACK raster_;
    intptr_t user_;
    IMG_HEADER_CALLBACK header_;

private:
    uint32_t tile_;
    int32_t channel_;  // 0, or the byte of each pixel channel mode selects

    // Geometry
    uint32_t width_ = 0, height_ = 0;
    uint32_t samples_ = 1, bits_ = 1;
    uint32_t compression_ = 1;
    uint32_t photometric_ = 0;
    uint32_t planes_ = 1;           // 1, or the samples of planar data
    uint32_t rows_per_strip_ = 0;
    uint32_t strips_per_plane_ = 0;
    uint32_t unit_rows_ = 1;        // image rows per raw row (subsampled YCbCr)
    uint32_t sub_h_ = 1, sub_v_ = 1;
    uint32_t raw_row_ = 0;          // bytes of one raw row (of one plane)
    uint32_t chunky_row_ = 0;       // bytes of one raw row with every sample
    Kind kind_ = Kind::kCopy;
    bool invert_ = false;
    bool reverse_bits_ = false;     // fill order 2 outside the CCITT path
    bool predictor_ = false;
    bool direct_ = false;           // raw rows are DIB rows (their buffers hold the padding)
    bool in_place_ = false;         // raw rows become DIB rows where they stand
    uint32_t out_bits_ = 1;
    uint32_t out_row_ = 0;          // DIB row bytes
    std::vector<uint8_t> header_block_;

    // Strips
    std::vector<uint32_t> offsets_, counts_;
    bool have_counts_ = false;

    // Work rows
    std::vector<uint8_t> fix_;      // raw row being corrected (predictor, bit order)
    std::vector<uint8_t> out_;      // DIB row handed to the callback
    std::vector<uint8_t> planes_store_;
    std::vector<uint8_t> chunky_;   // planar rows interleaved
    Bytes strip_;                   // compressed strip
    std::unique_ptr<LzwDecoder> lzw_;

};

// Bit-reverses every byte of a buffer (fill order 2).
void reverse_bits(uint8_t* data, size_t n);
extern const uint8_t kBitReverse[256];

}  // namespace tesslin::tiff
