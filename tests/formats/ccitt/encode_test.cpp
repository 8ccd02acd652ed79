// Fax encoding: every corpus bilevel page through every encoder, framing
// and bit order and back through the decoders, libtiff (through Pillow)
// reading our streams, and the exact code layouts.
#include "fax.h"

using namespace tesslin;
using namespace tesslin::test;
using ccitt::FaxParams;

namespace {

// Splits IOCA-framed output into its blocks and returns the code stream.
Bytes unframe(const Bytes& framed, std::vector<uint32_t>* sizes = nullptr) {
    Bytes out;
    size_t at = 0;
    while (at + 4 <= framed.size()) {
        EXPECT_EQ(framed[at], 0xFE);
        EXPECT_EQ(framed[at + 1], 0x92);
        const uint32_t n = uint32_t(framed[at + 2]) << 8 | framed[at + 3];
        if (sizes) sizes->push_back(n);
        at += 4;
        out.insert(out.end(), framed.begin() + long(at), framed.begin() + long(std::min(at + n, framed.size())));
        at += n;
    }
    EXPECT_EQ(at, framed.size());
    return out;
}

struct Framing {
    const char* name;
    bool g4;
    int32_t framing;
    std::vector<int32_t> decode_modes;
};
const Framing kFramings[] = {
    {"mh aligned", false, ccitt::kFrameMhAligned, {ccitt::kModeMhAligned}},
    {"g3", false, ccitt::kFrameG3, {ccitt::kModeG3, ccitt::kModeMhMemory}},
    {"g4", true, ccitt::kFrameG4, {ccitt::kModeG4, ccitt::kModeG4Memory}},
    {"g4 ioca", true, ccitt::kFrameG4Ioca, {ccitt::kModeG4Memory}},
};

// Every bilevel page of the corpus, every encoder and framing, both bit
// orders, packed and run supply: our decoders and libtiff (through Pillow:
// Modified Huffman as TIFF compression 2, Group 3 with EOLs as 3, Group 4 as
// 4, in either fill order) give the page back. With the bit-order flag every
// byte is the bit reversal of the plain output, except in mode 2, which
// ignores the flag.
TEST(CcittEncode, CorpusPagesRoundTrip) {
    std::vector<std::string> refs;
    for (const auto& e : fs::directory_iterator(corpus("refs")))
        if (e.path().extension() == ".pbm") refs.push_back(e.path().string());
    ASSERT_GE(refs.size(), 5u);
    for (const auto& path : refs) {
        const Page page = load_pbm(path);
        ASSERT_GT(page.width, 0u) << path;
        for (const Framing& k : kFramings) {
            Bytes natural;
            for (int32_t bit_order : {0, 1})
                for (bool records : {false, true}) {
                    SCOPED_TRACE(path + " " + k.name + " bit order " + std::to_string(bit_order) +
                                 (records ? " records" : " packed"));
                    Bytes coded;
                    ASSERT_EQ(encode_page(coded, page, records, bit_order, k.framing, k.g4), 0);
                    if (bit_order == 0 && !records) natural = coded;
                    const bool reversed = bit_order && k.framing != ccitt::kFrameMhAligned;
                    std::vector<uint32_t> a, b;
                    if (k.framing == ccitt::kFrameG4Ioca) {
                        EXPECT_EQ(unframe(coded, &a), reversed ? bit_reversed(unframe(natural, &b)) : unframe(natural, &b));
                        EXPECT_EQ(a, b);
                        coded = unframe(coded);
                    } else {
                        EXPECT_EQ(coded, reversed ? bit_reversed(natural) : natural);
                        if (records && (bit_order == 0 || reversed) && have_pillow()) {
                            const uint32_t compression = k.g4 ? 4 : k.framing == ccitt::kFrameG3 ? 3 : 2;
                            EXPECT_EQ(page_difference(libtiff_decode(page.width, page.height, compression,
                                                                     reversed ? 2 : 1, page.height, {coded}),
                                                      page),
                                      "");
                        }
                    }
                    for (int32_t mode : k.decode_modes) {
                        Collector c(page.width, page.height);
                        ASSERT_EQ(decode_bytes(coded, fax_params(page.width, page.height, mode, reversed ? 2 : 1), c,
                                               page.height),
                                  0);
                        EXPECT_TRUE(c.each_row_once());
                        EXPECT_EQ(c.error, "");
                        EXPECT_EQ(page_difference(c.page, page), "");
                    }
                }
        }
    }
}

// Exact code layouts. Group 4: an all-white page of n rows is n V0 codes
// and EOFB; the last partial word is written as two bytes when 8 or more of
// its bits are used. Mode 3: EOL after 31 zero bits, rows each followed by
// an EOL that ends on a 16-bit boundary, one more EOL at the end; a run of
// 3,000 is make-up 2560, make-up 384, terminating 56; a height of 0 writes
// nothing.
TEST(CcittEncode, ExactCodeLayouts) {
    Bytes out;
    ASSERT_EQ(encode_page(out, blank_page(100, 16), false, 0, ccitt::kFrameG4, true), 0);
    EXPECT_EQ(out, (Bytes{0xFF, 0xFF, 0x00, 0x10, 0x01, 0x00}));
    // 111 000000000001 000000000001 (27 bits): one byte holds the last 3 bits.
    ASSERT_EQ(encode_page(out, blank_page(100, 3), false, 0, ccitt::kFrameG4, true), 0);
    EXPECT_EQ(out, (Bytes{0xE0, 0x02, 0x00, 0x20}));
    ASSERT_EQ(encode_page(out, blank_page(100, 3), false, 0, ccitt::kFrameG4Ioca, true), 0);
    EXPECT_EQ(out, (Bytes{0xFE, 0x92, 0x00, 0x04, 0xE0, 0x02, 0x00, 0x20}));
    Page page = blank_page(3000, 2);
    page.set_black(0, 3000, 0);  // row 0 black, row 1 white
    const std::string row0 = "00110101" "000000011111" "000000110100" "000000101000";
    const std::string row1 = "000000011111" "00110111" "01011001";
    std::string expect = std::string(31, '0') + "1", aligned;
    for (const std::string& r : {row0, row1}) {
        expect += r;
        while (expect.size() % 16) expect += '0';
        expect += std::string(15, '0') + "1";
        aligned += r;
        while (aligned.size() % 8) aligned += '0';
    }
    expect += std::string(31, '0') + "1";
    ASSERT_EQ(encode_page(out, page, false, 0, ccitt::kFrameG3, false), 0);
    EXPECT_EQ(as_bits(out), expect);
    ASSERT_EQ(encode_page(out, page, false, 0, ccitt::kFrameMhAligned, false), 0);
    EXPECT_EQ(as_bits(out), aligned);
    ASSERT_EQ(encode_page(out, page, false, 0, ccitt::kFrameG3, false, 0, 0), 0);
    EXPECT_TRUE(out.empty());
}

// Bands of 512 rows from fax_encode_g4_rows are complete streams: each
// decodes on its own against a white reference row, as successive calls of
// one decode, and libtiff reads them as the strips of a page. Without the
// no-repeat flag the first call fills the rest of the image with its last row.
TEST(CcittEncode, BandsDecodeOnTheirOwn) {
    const Page page = load_pbm(corpus("refs/a64e889e1ba7de48.pbm"));
    std::vector<Bytes> strips;
    for (uint32_t y = 0; y < page.height; y += 512) {
        strips.emplace_back();
        ASSERT_EQ(encode_page(strips.back(), page, true, 0, ccitt::kFrameG4, true, int32_t(y),
                              int32_t(std::min(512u, page.height - y))),
                  0);
    }
    for (uint32_t flags : {0u, ccitt::kFaxNoRepeatToHeight}) {
        Collector c(page.width, page.height);
        FaxParams p = fax_params(page.width, page.height, ccitt::kModeG4Memory);
        p.flags = flags;
        for (uint32_t y = 0; y < page.height; y += 512) {
            ASSERT_EQ(decode_bytes(strips[y / 512], p, c, std::min(512u, page.height - y), y), 0);
            if (y == 0 && !flags) {
                EXPECT_EQ(c.deliveries[page.height - 1], 1);
                EXPECT_EQ(std::memcmp(c.page.row(page.height - 1), page.row(511), page.stride), 0);
            }
        }
        EXPECT_TRUE(!flags || c.each_row_once());
        EXPECT_EQ(page_difference(c.page, page), "");
    }
    if (have_pillow()) {
        EXPECT_EQ(page_difference(libtiff_decode(page.width, page.height, 4, 1, 512, strips), page), "");
    }
}

// Rows far too busy for one code buffer (every pixel a run) still encode.
TEST(CcittEncode, BusyRowsOutgrowTheBuffer) {
    Page page = blank_page(150001, 3);
    for (uint32_t y = 0; y < 3; ++y)
        for (uint32_t x = y; x < page.width; x += 2) page.set_black(x, x + 1, y);
    for (const Framing& k : kFramings) {
        if (k.framing == ccitt::kFrameMhAligned) continue;
        Bytes out;
        ASSERT_EQ(encode_page(out, page, true, 0, k.framing, k.g4), 0);
        if (k.framing == ccitt::kFrameG4Ioca) {
            std::vector<uint32_t> sizes;
            out = unframe(out, &sizes);
            for (size_t i = 0; i + 1 < sizes.size(); ++i) EXPECT_EQ(sizes[i] % 2, 0u);
            EXPECT_GT(sizes.size(), 2u);
        }
        Collector c(page.width, page.height);
        ASSERT_EQ(decode_bytes(out, fax_params(page.width, page.height, k.decode_modes[0]), c, page.height), 0);
        EXPECT_EQ(page_difference(c.page, page), "") << k.name;
    }
}

// Failures: the supply's status, a full stream, refused arguments.
TEST(CcittEncode, Failures) {
    const Page page = load_pbm(corpus("refs/ff178facd1ae4c0c.pbm"));
    Supplier sup{&page, false};
    DibHeader h = dib_header(int32_t(page.width), int32_t(page.height), 1);
    auto encode = [&](bool g4, int32_t framing, uint32_t capacity) {
        Bytes out;
        return encode_to_bytes(out, capacity, [&](int32_t s) {
            return g4 ? ccitt::fax_encode_g4(s, &h, Supplier::supply, intptr_t(&sup), 0, framing)
                      : ccitt::fax_encode_1d(s, &h, Supplier::supply, intptr_t(&sup), 0, framing);
        });
    };
    for (bool g4 : {false, true}) {
        sup.fail_at = 7;
        EXPECT_EQ(encode(g4, g4 ? 4 : 3, 1 << 20), -77);
        sup.fail_at = -1;
        EXPECT_EQ(encode(g4, g4 ? 4 : 3, 100), IMG_ERR_WRITE);
        EXPECT_EQ(encode(g4, g4 ? ccitt::kFrameG3 : ccitt::kFrameG4, 1 << 20), IMG_ERR_UNSUPPORTED);
    }
    DibHeader bad = dib_header(0, 5, 1);
    EXPECT_EQ(ccitt::fax_encode_g4(0, &bad, Supplier::supply, intptr_t(&sup), 0, 4), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(ccitt::fax_encode_g4(0, nullptr, Supplier::supply, intptr_t(&sup), 0, 4), IMG_ERR_BAD_IMAGE);
}

}  // namespace
