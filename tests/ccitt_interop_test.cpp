// Our encoders' output read by libtiff (through Pillow): the streams are
// wrapped in a minimal TIFF and must decode to the page we encoded.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "ccitt_test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

bool have_pillow() {
    static const bool ok = std::system("/usr/bin/python3 -c 'import PIL' >/dev/null 2>&1") == 0;
    return ok;
}

void put16(std::vector<uint8_t>& v, uint32_t x) {
    v.push_back(uint8_t(x));
    v.push_back(uint8_t(x >> 8));
}
void put32(std::vector<uint8_t>& v, uint32_t x) {
    put16(v, x & 0xFFFF);
    put16(v, x >> 16);
}

// A little-endian single-image TIFF: min-is-white bilevel, one or more strips
// of rows_per_strip rows.
std::vector<uint8_t> minimal_tiff(uint32_t width, uint32_t height, uint32_t compression, uint32_t fill_order,
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
Page pillow_decode(const std::vector<uint8_t>& tiff, uint32_t width, uint32_t height) {
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

std::vector<uint8_t> encode(const Page& page, bool g4, int32_t framing, int32_t bit_order, int32_t first = 0,
                            int32_t rows = -1) {
    Supplier sup{&page, true};
    DibHeader h = bilevel_header(page.width, rows < 0 ? page.height : uint32_t(rows), true);
    std::vector<uint8_t> out;
    int32_t status = encode_to_bytes(out, 8u << 20, [&](int32_t s) {
        if (!g4) return ccitt::fax_encode_1d(s, &h, Supplier::supply, intptr_t(&sup), bit_order, framing);
        return ccitt::fax_encode_g4_rows(s, &h, Supplier::supply, intptr_t(&sup), bit_order, framing, first);
    });
    EXPECT_EQ(status, 0);
    return out;
}

TEST(CcittInterop, LibtiffReadsOurGroup4) {
    if (!have_pillow()) GTEST_SKIP() << "Pillow not available";
    for (const char* ref : {"corpus/refs/540397096c9b25d0.pbm", "corpus/refs/ff178facd1ae4c0c.pbm"}) {
        const Page page = load_pbm(data_path(ref));
        for (int32_t bit_order : {0, 1}) {
            SCOPED_TRACE(std::string(ref) + " bit order " + std::to_string(bit_order));
            Supplier sup{&page, true};
            DibHeader h = bilevel_header(page.width, page.height, true);
            std::vector<uint8_t> g4;
            ASSERT_EQ(encode_to_bytes(g4, 8u << 20, [&](int32_t s) {
                          return ccitt::fax_encode_g4(s, &h, Supplier::supply, intptr_t(&sup), bit_order,
                                                      ccitt::kFrameG4);
                      }),
                      0);
            const auto tiff = minimal_tiff(page.width, page.height, 4, bit_order ? 2 : 1, page.height, {g4});
            EXPECT_EQ(page_difference(pillow_decode(tiff, page.width, page.height), page), "");
        }
    }
}

// Strips written by fax_encode_g4_rows, one stream per strip.
TEST(CcittInterop, LibtiffReadsOurGroup4Strips) {
    if (!have_pillow()) GTEST_SKIP() << "Pillow not available";
    const Page page = load_pbm(data_path("corpus/refs/3d67d77b51bcb234.pbm"));
    const uint32_t per_strip = 512;
    std::vector<std::vector<uint8_t>> strips;
    for (uint32_t y = 0; y < page.height; y += per_strip)
        strips.push_back(encode(page, true, ccitt::kFrameG4, 0, int32_t(y),
                                int32_t(std::min(per_strip, page.height - y))));
    const auto tiff = minimal_tiff(page.width, page.height, 4, 1, per_strip, strips);
    EXPECT_EQ(page_difference(pillow_decode(tiff, page.width, page.height), page), "");
}

// Modified Huffman (TIFF compression 2) and Group 3 1-D with EOLs
// (compression 3), in both fill orders.
TEST(CcittInterop, LibtiffReadsOurModifiedHuffman) {
    if (!have_pillow()) GTEST_SKIP() << "Pillow not available";
    const Page page = load_pbm(data_path("corpus/refs/540397096c9b25d0.pbm"));
    const auto mh = minimal_tiff(page.width, page.height, 2, 1, page.height,
                                 {encode(page, false, ccitt::kFrameMhAligned, 0)});
    EXPECT_EQ(page_difference(pillow_decode(mh, page.width, page.height), page), "");
    for (int32_t bit_order : {0, 1}) {
        const auto g3 = minimal_tiff(page.width, page.height, 3, bit_order ? 2 : 1, page.height,
                                     {encode(page, false, ccitt::kFrameG3, bit_order)});
        EXPECT_EQ(page_difference(pillow_decode(g3, page.width, page.height), page), "") << bit_order;
    }
}

}  // namespace
