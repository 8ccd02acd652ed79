// Helpers of the TIFF tests: decoding with test callbacks, TIFF files built
// entry by entry, and the peer tools (libtiff's tiffinfo and tiffcp,
// Pillow) as oracles.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "core/dib.h"
#include "core/stream.h"
#include "formats/tiff/tiff.h"
#include "image_util.h"
#include "test_util.h"

namespace tesslin::tifftest {

using test::Raster;

// What a decode delivered: the header and palette, and each row by number
// (run records expanded to packed rows).
struct Decoded {
    int32_t status = 0;
    std::vector<uint8_t> header;
    std::vector<std::vector<uint8_t>> rows;
    int32_t deliveries = 0;
    int32_t stop_header = 0;

    const DibHeader& h() const { return *reinterpret_cast<const DibHeader*>(header.data()); }
    const RgbQuad* palette() const { return dib_palette(header.data()); }
    int32_t width() const { return h().biWidth; }
    int32_t height() const { return h().biHeight; }
    int bits() const { return h().biBitCount; }
    bool complete() const {
        for (const auto& r : rows)
            if (r.empty()) return false;
        return !rows.empty();
    }
};

int32_t on_header(const IMG_BITMAPINFOHEADER* header, intptr_t user);
int32_t on_row(uint8_t* row, intptr_t user, int32_t number, uint32_t bytes);

// Decodes a TIFF held in memory with the reader's position argument.
Decoded decode(const std::vector<uint8_t>& file, uint32_t position = 0);
inline Decoded decode_file(const std::string& path, uint32_t position = 0) {
    return decode(test::read_file(path), position);
}

// Pixel (x, y) of a decode as red, green, blue(, fourth byte).
void pixel(const Decoded& d, int32_t x, int32_t y, uint8_t out[4]);
// Number of pixels whose first `channels` components differ from the
// reference (-1 for a size mismatch).
int64_t differences(const Decoded& d, const Raster& ref, int channels);
// Peak signal-to-noise ratio of a decode against a reference (RGB).
double psnr(const Decoded& d, const Raster& ref);

// A TIFF built from entries; values that do not fit in 4 bytes go behind
// the directory. Data blocks (strips) are placed first, each at its own
// offset returned by add_data().
struct Builder {
    bool big = false;
    std::vector<uint8_t> bytes;
    struct Entry {
        uint16_t tag, type;
        uint32_t count;
        std::vector<uint8_t> data;  // the value bytes in file order
    };
    std::vector<Entry> entries;

    explicit Builder(bool big_endian = false);
    uint32_t add_data(const std::vector<uint8_t>& data);
    void add(uint16_t tag, uint16_t type, const std::vector<uint32_t>& values);
    void add_short(uint16_t tag, uint32_t v) { add(tag, 3, {v}); }
    void add_long(uint16_t tag, uint32_t v) { add(tag, 4, {v}); }
    void add_rational(uint16_t tag, uint32_t num, uint32_t den) { add(tag, 5, {num, den}); }
    void add_ascii(uint16_t tag, const std::string& text);
    // Appends the directory; returns its offset. `next` is its next offset.
    uint32_t finish_directory(uint32_t next = 0);
    // Points the header (or a directory's next field) at a directory.
    void set_first(uint32_t ifd);
    void put32_at(uint32_t at, uint32_t v);
};

// A bilevel/grey/RGB page of uncompressed strips.
std::vector<uint8_t> simple_tiff(uint32_t width, uint32_t height, uint32_t samples, uint32_t bits,
                                 uint32_t photometric, const std::vector<uint8_t>& pixels,
                                 uint32_t rows_per_strip = 0);

// Peer tools.
using test::have_pillow;
using test::have_tool;
// Runs a shell command; true on exit status 0. Its output goes to `output`.
bool run(const std::string& command, std::string* output = nullptr);
// Pillow's pixels of page `page`, converted to `mode` ("RGB", "RGBA", "L",
// "CMYK"; "I;16": 16-bit grey, two bytes a pixel, big-endian): an empty
// raster when Pillow fails.
Raster pillow(const std::string& path, const std::string& mode, int page = 0);
// A scratch file name in the test's temporary directory.
using test::temp_path;

}  // namespace tesslin::tifftest
