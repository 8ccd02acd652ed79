// Our encoders' output read by libtiff (through Pillow): the streams are
// wrapped in a minimal TIFF and must decode to the page we encoded.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "ccitt_test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

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
