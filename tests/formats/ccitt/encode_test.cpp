// Fax encoding: every corpus bilevel page through every encoder, framing and
// bit order and back through the decoders, plus the exact code layouts.
#include <filesystem>

#include "ccitt_test_util.h"
#include "pipeline/decode.h"

using namespace tesslin;
using namespace tesslin::test;
using ccitt::FaxParams;

namespace {

std::vector<std::string> bilevel_references() {
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(data_path("corpus/refs")))
        if (e.path().extension() == ".pbm") out.push_back(e.path().string());
    std::sort(out.begin(), out.end());
    return out;
}

// Splits IOCA-framed output into its blocks and returns the code stream.
std::vector<uint8_t> unframe(const std::vector<uint8_t>& framed, std::vector<uint32_t>* sizes = nullptr) {
    std::vector<uint8_t> out;
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

int32_t encode_page(std::vector<uint8_t>& out, const Page& page, bool records, int32_t bit_order, int32_t framing,
                    bool g4, int32_t first_row = 0, int32_t rows = -1) {
    Supplier sup{&page, records};
    DibHeader h = bilevel_header(page.width, rows < 0 ? page.height : uint32_t(rows), records);
    return encode_to_bytes(out, 8u << 20, [&](int32_t s) {
        if (!g4) return ccitt::fax_encode_1d(s, &h, Supplier::supply, intptr_t(&sup), bit_order, framing);
        if (first_row || rows >= 0)
            return ccitt::fax_encode_g4_rows(s, &h, Supplier::supply, intptr_t(&sup), bit_order, framing, first_row);
        return ccitt::fax_encode_g4(s, &h, Supplier::supply, intptr_t(&sup), bit_order, framing);
    });
}

// Every bilevel page of the corpus, every encoder and framing, both bit
// orders, packed and run supply: decoding gives the page back.
TEST(CcittEncode, CorpusPagesRoundTrip) {
    const auto refs = bilevel_references();
    ASSERT_GE(refs.size(), 5u);
    struct Case {
        const char* name;
        bool g4;
        int32_t framing;
        std::vector<int32_t> decode_modes;
    };
    const Case cases[] = {
        {"mh aligned", false, ccitt::kFrameMhAligned, {ccitt::kModeMhAligned}},
        {"g3", false, ccitt::kFrameG3, {ccitt::kModeG3, ccitt::kModeMhMemory}},
        {"g4", true, ccitt::kFrameG4, {ccitt::kModeG4, ccitt::kModeG4Memory}},
        {"g4 ioca", true, ccitt::kFrameG4Ioca, {ccitt::kModeG4Memory}},
    };
    for (const auto& path : refs) {
        const Page page = load_pbm(path);
        ASSERT_GT(page.width, 0u) << path;
        for (const Case& k : cases) {
            std::vector<uint8_t> natural;
            for (int32_t bit_order : {0, 1}) {
                for (bool records : {false, true}) {
                    SCOPED_TRACE(path + " " + k.name + " bit order " + std::to_string(bit_order) +
                                 (records ? " records" : " packed"));
                    std::vector<uint8_t> coded;
                    ASSERT_EQ(encode_page(coded, page, records, bit_order, k.framing, k.g4), 0);
                    if (bit_order == 0 && !records) natural = coded;
                    // Packed and run supply give the same bytes.
                    if (bit_order == 0) {
                        EXPECT_EQ(coded, natural);
                    }
                    if (k.framing == ccitt::kFrameG4Ioca) coded = unframe(coded);
                    // Mode 2 output keeps its natural order whatever the flag says.
                    const bool reversed = bit_order && k.framing != ccitt::kFrameMhAligned;
                    for (int32_t mode : k.decode_modes) {
                        Collector c(page.width, page.height);
                        FaxParams p = fax_params(page.width, page.height, mode, reversed ? 2 : 1);
                        ASSERT_EQ(decode_bytes(coded, p, c, page.height), 0);
                        EXPECT_TRUE(c.each_row_once());
                        EXPECT_EQ(c.error, "");
                        EXPECT_EQ(page_difference(c.page, page), "");
                    }
                }
            }
        }
    }
}

// With the bit-order flag every Group 4 and mode 3 byte is the bit reversal of
// the plain output; mode 2 ignores the flag.
TEST(CcittEncode, BitOrderFlagReversesBytes) {
    const Page page = load_pbm(data_path("corpus/refs/a5f17d7ebb0d89e1.pbm"));
    for (auto [framing, g4] : {std::pair{ccitt::kFrameG4, true}, std::pair{ccitt::kFrameG4Ioca, true},
                               std::pair{ccitt::kFrameG3, false}, std::pair{ccitt::kFrameMhAligned, false}}) {
        std::vector<uint8_t> plain, flagged;
        ASSERT_EQ(encode_page(plain, page, false, 0, framing, g4), 0);
        ASSERT_EQ(encode_page(flagged, page, false, 1, framing, g4), 0);
        if (framing == ccitt::kFrameMhAligned) {
            EXPECT_EQ(flagged, plain);
        } else if (framing == ccitt::kFrameG4Ioca) {
            std::vector<uint32_t> a, b;
            EXPECT_EQ(bit_reversed(unframe(plain, &a)), unframe(flagged, &b));
            EXPECT_EQ(a, b);
        } else {
            EXPECT_EQ(bit_reversed(plain), flagged);
        }
    }
}

// An all-white page of n rows is n V0 codes and EOFB; the last partial word
// is written as two bytes when 8 or more of its bits are used.
TEST(CcittEncode, WhitePageIsV0CodesAndEofb) {
    Page white = blank_page(100, 16);
    std::vector<uint8_t> out;
    ASSERT_EQ(encode_page(out, white, false, 0, ccitt::kFrameG4, true), 0);
    EXPECT_EQ(out, (std::vector<uint8_t>{0xFF, 0xFF, 0x00, 0x10, 0x01, 0x00}));
    Page three = blank_page(100, 3);
    ASSERT_EQ(encode_page(out, three, false, 0, ccitt::kFrameG4, true), 0);
    // 111 000000000001 000000000001 (27 bits): one byte holds the last 3 bits.
    EXPECT_EQ(out, (std::vector<uint8_t>{0xE0, 0x02, 0x00, 0x20}));
    ASSERT_EQ(encode_page(out, three, false, 0, ccitt::kFrameG4Ioca, true), 0);
    EXPECT_EQ(out, (std::vector<uint8_t>{0xFE, 0x92, 0x00, 0x04, 0xE0, 0x02, 0x00, 0x20}));
}

std::string as_bits(const std::vector<uint8_t>& bytes) {
    std::string s;
    for (uint8_t b : bytes)
        for (int i = 7; i >= 0; --i) s += (b >> i) & 1 ? '1' : '0';
    return s;
}

// Mode 3 layout: EOL after 31 zero bits, rows each followed by an EOL that
// ends on a 16-bit boundary, one more EOL at the end. A black run of 3,000 is
// make-up 2560, make-up 384, terminating 56.
TEST(CcittEncode, G3LayoutAndLongRuns) {
    Page page = blank_page(3000, 2);
    runs::fill_bits(page.row(0), 0, 3000, false);  // row 0 black, row 1 white
    std::vector<uint8_t> out;
    ASSERT_EQ(encode_page(out, page, false, 0, ccitt::kFrameG3, false), 0);
    std::string expect = std::string(31, '0') + "1";
    std::string row0 = "00110101" "000000011111" "000000110100" "000000101000";
    // Row 1, white 3000: make-up 2560, make-up 384, terminating 56.
    const std::string row1 = "000000011111" "00110111" "01011001";
    for (const std::string& r : {row0, row1}) {
        expect += r;
        while (expect.size() % 16) expect += '0';
        expect += std::string(15, '0') + "1";
    }
    expect += std::string(31, '0') + "1";
    EXPECT_EQ(as_bits(out), expect);

    ASSERT_EQ(encode_page(out, page, false, 0, ccitt::kFrameMhAligned, false), 0);
    std::string aligned = row0;
    while (aligned.size() % 8) aligned += '0';
    aligned += row1;
    while (aligned.size() % 8) aligned += '0';
    EXPECT_EQ(as_bits(out), aligned);

    // A height of 0 writes nothing.
    DibHeader h = bilevel_header(100, 0, false);
    Supplier sup{&page, false};
    ASSERT_EQ(encode_to_bytes(out, 1024, [&](int32_t s) {
                  return ccitt::fax_encode_1d(s, &h, Supplier::supply, intptr_t(&sup), 0, ccitt::kFrameG3);
              }),
              0);
    EXPECT_TRUE(out.empty());
}

// Bands from fax_encode_g4_rows are complete streams: each decodes on its own
// against a white reference row, as successive calls of one decode.
TEST(CcittEncode, BandsDecodeOnTheirOwn) {
    const Page page = load_pbm(data_path("corpus/refs/a64e889e1ba7de48.pbm"));
    const uint32_t cut = 413;
    std::vector<uint8_t> top, bottom;
    ASSERT_EQ(encode_page(top, page, true, 0, ccitt::kFrameG4, true, 0, int32_t(cut)), 0);
    ASSERT_EQ(encode_page(bottom, page, true, 0, ccitt::kFrameG4, true, int32_t(cut), int32_t(page.height - cut)), 0);

    Collector c(page.width, page.height);
    FaxParams p = fax_params(page.width, page.height, ccitt::kModeG4Memory);
    ASSERT_EQ(decode_bytes(top, p, c, cut, 0), 0);
    // Without the flag the first call fills the rest of the image with its last row.
    EXPECT_EQ(c.deliveries[page.height - 1], 1);
    EXPECT_EQ(std::memcmp(c.page.row(page.height - 1), page.row(cut - 1), page.stride), 0);
    ASSERT_EQ(decode_bytes(bottom, p, c, page.height - cut, cut), 0);
    EXPECT_EQ(page_difference(c.page, page), "");

    Collector d(page.width, page.height);
    p.flags = ccitt::kFaxNoRepeatToHeight;
    ASSERT_EQ(decode_bytes(top, p, d, cut, 0), 0);
    ASSERT_EQ(decode_bytes(bottom, p, d, page.height - cut, cut), 0);
    EXPECT_TRUE(d.each_row_once());
    EXPECT_EQ(page_difference(d.page, page), "");
}

// Mode 1: an EOL, a skipped bit and a 1-D row, then an EOL, a skipped bit and
// 2-D rows without EOL. Built from a white MH row and a Group 4 band of the
// following rows, which starts from a white reference row.
TEST(CcittEncode, PlainTwoDimensionalMode) {
    Page page = load_pbm(data_path("corpus/refs/540397096c9b25d0.pbm"));
    for (uint32_t i = 0; i < page.stride; ++i) ASSERT_EQ(page.row(0)[i], 0xFF);
    std::vector<uint8_t> mh, g4;
    ASSERT_EQ(encode_page(mh, page, false, 0, ccitt::kFrameMhAligned, false, 0, 1), 0);
    ASSERT_EQ(encode_page(g4, page, false, 0, ccitt::kFrameG4, true, 1, int32_t(page.height - 1)), 0);
    std::string bits = "000000000001" "1" + as_bits(mh) + "000000000001" "0" + as_bits(g4);
    while (bits.size() % 8) bits += '0';
    std::vector<uint8_t> data;
    for (size_t i = 0; i < bits.size(); i += 8) data.push_back(uint8_t(std::stoi(bits.substr(i, 8), nullptr, 2)));
    Collector c(page.width, page.height);
    ASSERT_EQ(decode_bytes(data, fax_params(page.width, page.height, ccitt::kModeMrPlain), c, page.height), 0);
    EXPECT_EQ(page_difference(c.page, page), "");
}

// Rows far too busy for one code buffer (every pixel a run) still encode.
TEST(CcittEncode, BusyRowsOutgrowTheBuffer) {
    Page page = blank_page(150001, 3);
    for (uint32_t y = 0; y < 3; ++y)
        for (uint32_t x = y; x < page.width; x += 2) runs::fill_bits(page.row(y), x, x + 1, false);
    for (auto [framing, g4] : {std::pair{ccitt::kFrameG3, false}, std::pair{ccitt::kFrameG4, true},
                               std::pair{ccitt::kFrameG4Ioca, true}}) {
        std::vector<uint8_t> out;
        ASSERT_EQ(encode_page(out, page, true, 0, framing, g4), 0);
        std::vector<uint32_t> sizes;
        if (framing == ccitt::kFrameG4Ioca) {
            out = unframe(out, &sizes);
            for (size_t i = 0; i + 1 < sizes.size(); ++i) EXPECT_EQ(sizes[i] % 2, 0u);
            EXPECT_GT(sizes.size(), 2u);
        }
        Collector c(page.width, page.height);
        ASSERT_EQ(decode_bytes(out, fax_params(page.width, page.height, g4 ? ccitt::kModeG4Memory : ccitt::kModeG3), c,
                               page.height),
                  0);
        EXPECT_EQ(page_difference(c.page, page), "");
    }
}

// Failures: the supply's status, a full stream, refused arguments.
TEST(CcittEncode, Failures) {
    const Page page = load_pbm(data_path("corpus/refs/ff178facd1ae4c0c.pbm"));
    Supplier sup{&page, false};
    sup.fail_at = 7;
    DibHeader h = bilevel_header(page.width, page.height, false);
    std::vector<uint8_t> out;
    for (bool g4 : {false, true}) {
        EXPECT_EQ(encode_to_bytes(out, 1 << 20, [&](int32_t s) {
                      return g4 ? ccitt::fax_encode_g4(s, &h, Supplier::supply, intptr_t(&sup), 0, 4)
                                : ccitt::fax_encode_1d(s, &h, Supplier::supply, intptr_t(&sup), 0, 3);
                  }),
                  -77);
    }
    sup.fail_at = -1;
    for (bool g4 : {false, true}) {
        EXPECT_EQ(encode_to_bytes(out, 100, [&](int32_t s) {
                      return g4 ? ccitt::fax_encode_g4(s, &h, Supplier::supply, intptr_t(&sup), 0, 4)
                                : ccitt::fax_encode_1d(s, &h, Supplier::supply, intptr_t(&sup), 0, 3);
                  }),
                  IMG_ERR_WRITE);
    }
    EXPECT_EQ(encode_to_bytes(out, 1 << 20, [&](int32_t s) {
                  return ccitt::fax_encode_1d(s, &h, Supplier::supply, intptr_t(&sup), 0, ccitt::kFrameG4);
              }),
              IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(encode_to_bytes(out, 1 << 20, [&](int32_t s) {
                  return ccitt::fax_encode_g4(s, &h, Supplier::supply, intptr_t(&sup), 0, ccitt::kFrameG3);
              }),
              IMG_ERR_UNSUPPORTED);
    DibHeader bad = bilevel_header(0, 5, false);
    EXPECT_EQ(ccitt::fax_encode_g4(0, &bad, Supplier::supply, intptr_t(&sup), 0, 4), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(ccitt::fax_encode_g4(0, nullptr, Supplier::supply, intptr_t(&sup), 0, 4), IMG_ERR_BAD_IMAGE);
}

}  // namespace

// The seam the TIFF reader uses: decoders feeding the library's own header
// and raster callbacks. Group 4 records and Group 3 packed rows both land in
// the run store; strips decode through it with the repeat turned off on every
// call but the last.
TEST(CcittEncode, DecodersFeedTheLibraryCallbacks) {
    const Page page = load_pbm(data_path("corpus/refs/a64e889e1ba7de48.pbm"));
    std::vector<uint8_t> g3, top, bottom;
    const uint32_t cut = 500;
    ASSERT_EQ(encode_page(g3, page, false, 0, ccitt::kFrameG3, false), 0);
    ASSERT_EQ(encode_page(top, page, true, 0, ccitt::kFrameG4, true, 0, int32_t(cut)), 0);
    ASSERT_EQ(encode_page(bottom, page, true, 0, ccitt::kFrameG4, true, int32_t(cut), int32_t(page.height - cut)), 0);

    struct Strip {
        const std::vector<uint8_t>* data;
        int32_t mode;
        uint32_t first, rows, flags;
    };
    const std::vector<std::vector<Strip>> decodes = {
        {{&g3, ccitt::kModeMhMemory, 0, page.height, 0}},
        {{&top, ccitt::kModeG4Memory, 0, cut, ccitt::kFaxNoRepeatToHeight},
         {&bottom, ccitt::kModeG4Memory, cut, page.height - cut, 0}},
    };
    for (const auto& strips : decodes) {
        DecodeContext ctx;
        ASSERT_EQ(begin_decode(ctx), 0);
        uint8_t header[48] = {};
        DibHeader h = bilevel_header(page.width, page.height, false);
        std::memcpy(header, &h, 40);
        std::memset(header + 44, 0xFF, 3);  // palette: black, white
        int32_t status = library_header(reinterpret_cast<const DibHeader*>(header), intptr_t(&ctx));
        for (const Strip& s : strips) {
            if (status < 0) break;
            FaxParams p = fax_params(page.width, page.height, s.mode);
            p.flags = s.flags;
            p.data_length = uint32_t(s.data->size());
            status = ccitt::fax_decode(s.data->data(), s.rows, s.first, p, 0, library_raster, intptr_t(&ctx));
        }
        const int32_t handle = finish_decode(ctx, status);
        ASSERT_GE(handle, 0);
        for (uint32_t y = 0; y < page.height; ++y) {
            const std::vector<uint8_t> row = get_row(handle, int32_t(y));
            for (uint32_t x = 0; x < page.width; ++x)
                ASSERT_EQ((row[x >> 3] >> (7 - (x & 7))) & 1, page.pixel_white(x, y) ? 1 : 0) << y << " " << x;
        }
        IMG_delete_bitmap(handle);
    }
}
