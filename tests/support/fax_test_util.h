// Helpers for the tests of the fax document formats (CALS, raw fax, IMT,
// BTR, KFX, LSD, MAG): the corpus page and its reference, handles made from
// pages and back, saving and decoding through the public interface, and the
// netpbm and libtiff tools that serve as independent readers and writers.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "ccitt_test_util.h"

namespace tesslin::test {

// The raw fax streams of the corpus: 1728 x 2200, most significant bit
// first, all three the same page.
constexpr uint32_t kCorpusWidth = 1728;
constexpr uint32_t kCorpusHeight = 2200;

inline std::string corpus_file(const std::string& name) {
    return data_path("corpus/" + name);
}

// The reference raster of the corpus fax page (P4, 1 = black).
inline const Page& corpus_page() {
    static const Page page = load_pbm(corpus_file("refs/540397096c9b25d0.pbm"));
    return page;
}

// A handle's rows as a page (1 = white, as the handle's palette is black,
// white).
inline Page handle_page(int32_t handle) {
    int32_t w = 0, h = 0, bits = 0;
    IMG_bitmap_info(handle, &w, &h, &bits);
    Page p = blank_page(uint32_t(w), uint32_t(h));
    if (bits != 1) return p;
    for (int32_t y = 0; y < h; ++y) {
        std::vector<uint8_t> row = get_row(handle, y);
        std::memcpy(p.row(uint32_t(y)), row.data(), p.stride);
    }
    return p;
}

// A bilevel handle holding the page, with the given resolution.
inline int32_t page_handle(const Page& page, int32_t dpi_x = 0, int32_t dpi_y = 0) {
    void* dib = make_dib(int32_t(page.width), int32_t(page.height), 1,
                         [&](uint8_t* row, uint32_t n, int32_t r) {
                             std::memcpy(row, page.row(uint32_t(r)), n);
                         });
    auto* h = static_cast<DibHeader*>(dib);
    h->biXPelsPerMeter = dpi_x;
    h->biYPelsPerMeter = dpi_y;
    return IMG_create_handle_keep(dib);
}

// Saves a handle into memory; *status gets the result (the byte count).
inline std::vector<uint8_t> save_to_bytes(int32_t handle, int32_t code, int32_t* status,
                                          uint32_t capacity = 8u << 20) {
    void* block = tesslin_block_alloc(capacity);
    const int32_t n = IMG_save_bitmap_mem(handle, block, code);
    *status = n;
    std::vector<uint8_t> out;
    if (n > 0) out.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
    tesslin_block_free(block);
    return out;
}

// Decodes bytes held in a library block (so that the memory stream knows
// their size).
inline int32_t decode_block(const std::vector<uint8_t>& data, int32_t page = 0) {
    void* block = to_block(data);
    const int32_t h = IMG_decompress_bitmap_mem(block, page);
    tesslin_block_free(block);
    return h;
}

inline int32_t fax_from_bytes(const std::vector<uint8_t>& data, int32_t width, int32_t height,
                              int32_t mode, int32_t fill_order) {
    void* block = to_block(data);
    const int32_t h = IMG_decompress_fax_mem(block, width, height, mode, fill_order);
    tesslin_block_free(block);
    return h;
}

inline int32_t fax_from_file(const std::string& path, int32_t width, int32_t height,
                             int32_t mode, int32_t fill_order) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return IMG_ERR_OPEN;
    const int32_t h = IMG_decompress_fax(fd, width, height, mode, fill_order);
    ::close(fd);
    return h;
}

// Difference between a handle and a page ("" when equal), and the handle
// deleted.
inline std::string take_difference(int32_t handle, const Page& want) {
    if (handle < 0) return "status " + std::to_string(handle);
    const std::string d = page_difference(handle_page(handle), want);
    IMG_delete_bitmap(handle);
    return d;
}

// A file in memory is identified as `code`, decodes with the resolution
// given, and holds exactly the page.
inline void expect_file_decodes(const std::vector<uint8_t>& file, int32_t code, int32_t dpi,
                                const Page& want) {
    void* block = to_block(file);
    EXPECT_EQ(IMGLOW_get_filetype_mem(block), code);
    const int32_t h = IMG_decompress_bitmap_mem(block, 0);
    tesslin_block_free(block);
    ASSERT_GE(h, 0);
    std::vector<uint8_t> header(kHeaderBlockSize);
    IMGLOW_get_bitmap_header(h, header.data());
    EXPECT_EQ(reinterpret_cast<const DibHeader*>(header.data())->biXPelsPerMeter, dpi);
    EXPECT_EQ(take_difference(h, want), "");
}

// A scratch file path under the test's temporary directory.
inline std::string scratch(const std::string& name) {
    return temp_path("fax-" + name);
}

inline bool run(const std::string& cmd) { return std::system((cmd + " 2>/dev/null").c_str()) == 0; }

// Rows of a page as they stand in a P4 file (1 = black).
inline std::vector<uint8_t> pbm_bytes(const Page& p) {
    std::string head = "P4\n" + std::to_string(p.width) + " " + std::to_string(p.height) + "\n";
    std::vector<uint8_t> out(head.begin(), head.end());
    const uint32_t rb = (p.width + 7) / 8;
    for (uint32_t y = 0; y < p.height; ++y)
        for (uint32_t b = 0; b < rb; ++b) out.push_back(uint8_t(~p.row(y)[b]));
    return out;
}

// A test page: the corpus page's top left corner, cut to width x height
// (repeated downwards when taller), with a black frame so that every edge
// column and row carries changes.
inline Page test_page(uint32_t width, uint32_t height) {
    const Page& src = corpus_page();
    Page p = blank_page(width, height);
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            const bool edge = x == 0 || y == 0 || x + 1 == width || y + 1 == height;
            const bool white = !edge && x < src.width && src.pixel_white(x, y % src.height);
            if (!white) runs::fill_bits(p.row(y), x, x + 1, false);
        }
    return p;
}

}  // namespace tesslin::test
