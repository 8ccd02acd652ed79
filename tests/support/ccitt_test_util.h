// Helpers for the fax codec tests: bilevel pages, reference rasters, a line
// callback that collects decoded rows, supply callbacks for the encoders and
// encoding into memory.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "core/runs.h"
#include "core/stream.h"
#include "formats/ccitt/ccitt.h"
#include "image_util.h"
#include "test_util.h"

namespace tesslin::test {

inline std::vector<uint8_t> bit_reversed(std::vector<uint8_t> v) {
    for (auto& b : v) {
        uint8_t r = 0;
        for (int i = 0; i < 8; ++i)
            if (b & (1 << i)) r |= uint8_t(0x80 >> i);
        b = r;
    }
    return v;
}

// A bilevel page as the library holds rows: packed, 1 = white, rows of
// row_bytes(width, 1) bytes, bits past the width set.
struct Page {
    uint32_t width = 0, height = 0, stride = 0;
    std::vector<uint8_t> bits;
    uint8_t* row(uint32_t y) { return bits.data() + size_t(y) * stride; }
    const uint8_t* row(uint32_t y) const { return bits.data() + size_t(y) * stride; }
    bool pixel_white(uint32_t x, uint32_t y) const { return row(y)[x >> 3] & (0x80 >> (x & 7)); }
};

inline Page blank_page(uint32_t width, uint32_t height) {
    Page p;
    p.width = width;
    p.height = height;
    p.stride = row_bytes(width, 1);
    p.bits.assign(size_t(p.stride) * height, 0xFF);
    return p;
}

// A P4 reference raster as a page.
inline Page load_pbm(const std::string& path) {
    const Raster r = read_netpbm(path);
    Page p = blank_page(uint32_t(r.width), uint32_t(r.height));
    for (int32_t y = 0; y < r.height; ++y)
        for (int32_t x = 0; x < r.width; ++x)
            if (*r.at(x, y) < 128) runs::fill_bits(p.row(uint32_t(y)), uint32_t(x), uint32_t(x) + 1, false);
    return p;
}

// First row (and column) where two pages differ, or "" when they agree.
inline std::string page_difference(const Page& a, const Page& b) {
    if (a.width != b.width || a.height != b.height)
        return "size " + std::to_string(a.width) + "x" + std::to_string(a.height) + " vs " +
               std::to_string(b.width) + "x" + std::to_string(b.height);
    for (uint32_t y = 0; y < a.height; ++y)
        for (uint32_t x = 0; x < a.width; ++x)
            if (a.pixel_white(x, y) != b.pixel_white(x, y))
                return "row " + std::to_string(y) + " column " + std::to_string(x);
    return "";
}

// Collects decoded rows into a page; run records are expanded after their
// form is checked.
struct Collector {
    Page page;
    bool invert = false;  // rows arrive inverted: store them the right way round
    std::vector<int> deliveries;  // per row
    int records = 0, packed = 0;
    std::string error;
    int32_t fail_at = -1;  // row index at which to return -99

    Collector(uint32_t width, uint32_t height) : page(blank_page(width, height)) {
        deliveries.assign(height, 0);
    }

    static int32_t line(uint8_t* row, intptr_t user, int32_t index, uint32_t count) {
        auto* c = reinterpret_cast<Collector*>(user);
        return c->take(row, index, count);
    }

    int32_t take(uint8_t* row, int32_t index, uint32_t count) {
        if (index == fail_at) return -99;
        if (index < 0 || uint32_t(index) >= page.height) {
            error = "row index " + std::to_string(index) + " out of range";
            return 0;
        }
        ++deliveries[index];
        uint8_t* dst = page.row(uint32_t(index));
        if (count == page.stride) {
            ++packed;
            std::memcpy(dst, row, count);
        } else {
            ++records;
            const auto* rec = reinterpret_cast<const uint32_t*>(row);
            if (rec[0] != count) error = "record length word differs from the count";
            if (count % 4 || count < 20) error = "record length " + std::to_string(count);
            uint32_t words = count / 4;
            for (uint32_t i = 2; i < words; ++i)
                if (rec[i] < rec[i - 1]) error = "record positions decrease";
            if (rec[words - 1] != page.width) error = "record does not end with the width";
            runs::expand(rec, page.width, dst, page.stride);
        }
        if (invert)
            for (uint32_t i = 0; i < page.stride; ++i) dst[i] = uint8_t(~dst[i]);
        if (page.width & 7) dst[page.width / 8] |= uint8_t(0xFF >> (page.width & 7));
        return 0;
    }

    bool each_row_once() const {
        for (int d : deliveries)
            if (d != 1) return false;
        return true;
    }
};

// Decodes coded data held in memory, through a memory stream for the stream
// modes.
inline int32_t decode_bytes(const std::vector<uint8_t>& data, ccitt::FaxParams params,
                            Collector& out, uint32_t rows, uint32_t first_row = 0) {
    const bool memory = params.mode == ccitt::kModeMhMemory || params.mode == ccitt::kModeG3MrMemory ||
                        params.mode == ccitt::kModeG4Memory || params.mode == ccitt::kModeMrPlain;
    params.data_length = uint32_t(data.size());
    if (memory)
        return ccitt::fax_decode(data.data(), rows, first_row, params, 0, Collector::line,
                                 intptr_t(&out));
    void* block = to_block(data);
    int32_t s = stream::mem_create_sized(block, uint32_t(data.size()));
    int32_t status = ccitt::fax_decode(nullptr, rows, first_row, params, s, Collector::line,
                                       intptr_t(&out));
    stream::mem_release(s);
    tesslin_block_free(block);
    return status;
}

inline ccitt::FaxParams fax_params(uint32_t width, uint32_t height, int32_t mode,
                                   uint32_t fill_order = 1) {
    ccitt::FaxParams p;
    p.width = width;
    p.height = height;
    p.mode = mode;
    p.fill_order = fill_order;
    return p;
}

// Supplies a page's rows, packed or as run records.
struct Supplier {
    const Page* page;
    bool records;
    int32_t fail_at = -1;

    static int32_t supply(intptr_t user, uint8_t* buffer, int32_t row, uint32_t count) {
        auto* s = reinterpret_cast<Supplier*>(user);
        if (row == s->fail_at) return -77;
        if (row < 0 || uint32_t(row) >= s->page->height || count != s->page->stride) return -3;
        const uint8_t* src = s->page->row(uint32_t(row));
        if (!s->records) {
            std::memcpy(buffer, src, count);
            return 0;
        }
        uint32_t len = runs::encode(src, s->page->width, reinterpret_cast<uint32_t*>(buffer));
        reinterpret_cast<uint32_t*>(buffer)[0] = 0;  // the supply's records start with 0
        return int32_t(len);
    }
};

inline DibHeader bilevel_header(uint32_t width, uint32_t height, bool records) {
    DibHeader h{};
    h.biSize = 40;
    h.biWidth = int32_t(width);
    h.biHeight = int32_t(height);
    h.biPlanes = 1;
    h.biBitCount = 1;
    h.biCompression = records ? IMG_COMPRESSION_RUNS : 0;
    return h;
}

// Runs an encoder into a memory stream; returns its status and the bytes.
template <typename Encode>
int32_t encode_to_bytes(std::vector<uint8_t>& out, uint32_t capacity, Encode&& encode) {
    void* block = tesslin_block_alloc(capacity);
    int32_t s = stream::mem_create_sized(block, capacity);
    int32_t status = encode(s);
    int32_t length = stream::length(s);
    out.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + (length > 0 ? length : 0));
    stream::mem_release(s);
    tesslin_block_free(block);
    return status;
}

// ---- libtiff (through Pillow) as the reader of coded data ----------------

inline void put16(std::vector<uint8_t>& v, uint32_t x) {
    v.push_back(uint8_t(x));
    v.push_back(uint8_t(x >> 8));
}
inline void put32(std::vector<uint8_t>& v, uint32_t x) {
    put16(v, x & 0xFFFF);
    put16(v, x >> 16);
}

// A little-endian single-image TIFF: min-is-white bilevel, one or more strips
// of rows_per_strip rows.
inline std::vector<uint8_t> minimal_tiff(uint32_t width, uint32_t height, uint32_t compression, uint32_t fill_order,
                                  uint32_t rows_per_strip, const std::vector<std::vector<uint8_t>>& strips) {
    std::vector<uint8_t> f = {'I', 'I', 42, 0};
    put32(f, 0);  // IFD offset, set below
    std::vector<uint32_t> offsets;
    for (const auto& s : strips) {
        offsets.push_back(uint32_t(f.size()));
        f.insert(f.end(), s.begin(), s.end());
        if (f.size() & 1) f.push_back(0);
    }
    // Strip offset and count arrays.
    const uint32_t offsets_at = uint32_t(f.size());
    for (uint32_t o : offsets) put32(f, o);
    const uint32_t counts_at = uint32_t(f.size());
    for (const auto& s : strips) put32(f, uint32_t(s.size()));
    const uint32_t n = uint32_t(strips.size());

    const uint32_t ifd = uint32_t(f.size());
    f[4] = uint8_t(ifd);
    f[5] = uint8_t(ifd >> 8);
    f[6] = uint8_t(ifd >> 16);
    f[7] = uint8_t(ifd >> 24);
    struct Entry {
        uint16_t tag, type;
        uint32_t count, value;
    };
    std::vector<Entry> e = {
        {256, 4, 1, width},
        {257, 4, 1, height},
        {258, 3, 1, 1},
        {259, 3, 1, compression},
        {262, 3, 1, 0},
        {266, 3, 1, fill_order},
        {273, 4, n, n == 1 ? offsets[0] : offsets_at},
        {277, 3, 1, 1},
        {278, 4, 1, rows_per_strip},
        {279, 4, n, n == 1 ? uint32_t(strips[0].size()) : counts_at},
    };
    if (compression == 3) e.push_back({292, 4, 1, 4});  // T4Options: EOLs byte-aligned
    put16(f, uint32_t(e.size()));
    for (const Entry& x : e) {
        put16(f, x.tag);
        put16(f, x.type);
        put32(f, x.count);
        put32(f, x.value);  // SHORT values sit in the low half (little-endian)
    }
    put32(f, 0);
    return f;
}

// Decodes a TIFF with Pillow (libtiff underneath) into a page.
inline Page pillow_decode(const std::vector<uint8_t>& tiff, uint32_t width, uint32_t height) {
    const auto dir = std::filesystem::temp_directory_path();
    const std::string stem = (dir / ("ccitt_interop_" + std::to_string(::getpid()))).string();
    const std::string in = stem + ".tif", out = stem + ".grey";
    write_file(in, tiff);
    const std::string cmd = "/usr/bin/python3 -c \"import sys; from PIL import Image; "
                            "im = Image.open(sys.argv[1]); im.load(); "
                            "open(sys.argv[2], 'wb').write(im.convert('L').tobytes())\" " +
                            in + " " + out;
    Page p;
    if (std::system(cmd.c_str()) == 0) {
        std::vector<uint8_t> grey = read_file(out);
        if (grey.size() == size_t(width) * height) {
            p = blank_page(width, height);
            for (uint32_t y = 0; y < height; ++y)
                for (uint32_t x = 0; x < width; ++x)
                    if (grey[size_t(y) * width + x] < 128) runs::fill_bits(p.row(y), x, x + 1, false);
        }
    }
    std::filesystem::remove(in);
    std::filesystem::remove(out);
    return p;
}

}  // namespace tesslin::test
