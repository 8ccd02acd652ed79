// Fax decoding against the corpus's raw pages and their reference raster,
// plus the end-of-page, damaged-data and callback rules.
#include "fax.h"

using namespace tesslin;
using namespace tesslin::test;
using ccitt::FaxParams;

namespace {

struct RawPage {
    const char* name;
    int32_t stream_mode, memory_mode;
};
constexpr RawPage kRawPages[] = {
    {"g3", ccitt::kModeG3, ccitt::kModeMhMemory},
    {"g32d", ccitt::kModeG3Mr, ccitt::kModeG3MrMemory},
    {"g4", ccitt::kModeG4, ccitt::kModeG4Memory},
};
FaxParams page_params(int32_t mode, uint32_t fill_order = 1) {
    return fax_params(kCorpusWidth, kCorpusHeight, mode, fill_order);
}

// Stream and memory modes, both fill orders: every decode gives the
// reference page, each row once, Group 4 rows as run records; a failing
// line callback stops it. With the no-inversion flag clear, rows arrive
// inverted (packed rows with every bit flipped, run records whose changes
// begin with an extra 0).
TEST(CcittDecode, RawCorpusPagesMatchReference) {
    for (const RawPage& raw : kRawPages)
        for (uint32_t fill_order : {1u, 2u})
            for (int32_t mode : {raw.stream_mode, raw.memory_mode}) {
                SCOPED_TRACE(std::string(raw.name) + " mode " + std::to_string(mode) + " fill order " +
                             std::to_string(fill_order));
                const Bytes data = fill_order == 1 ? corpus_fax(raw.name) : bit_reversed(corpus_fax(raw.name));
                Collector c(kCorpusWidth, kCorpusHeight), stop(kCorpusWidth, kCorpusHeight);
                EXPECT_EQ(decode_bytes(data, page_params(mode, fill_order), c, kCorpusHeight), 0);
                // The line callback's negative status stops the decoder at once.
                stop.fail_at = 5;
                EXPECT_EQ(decode_bytes(data, page_params(mode, fill_order), stop, kCorpusHeight), -99);
                EXPECT_EQ(stop.deliveries[4], 1);
                EXPECT_EQ(stop.deliveries[6], 0);
                EXPECT_EQ(c.error, "");
                EXPECT_TRUE(c.each_row_once());
                EXPECT_EQ(page_difference(c.page, corpus_page()), "");
                const bool g4 = mode == ccitt::kModeG4 || mode == ccitt::kModeG4Memory;
                EXPECT_EQ(g4 ? c.records : c.packed, int(kCorpusHeight));
                FaxParams p = page_params(mode, fill_order);
                p.no_inversion = 0;
                Collector inverted(kCorpusWidth, kCorpusHeight);
                inverted.invert = true;
                EXPECT_EQ(decode_bytes(data, p, inverted, kCorpusHeight), 0);
                EXPECT_EQ(inverted.error, "");
                EXPECT_EQ(page_difference(inverted.page, corpus_page()), "");
            }
}

TEST(CcittDecode, InversionFlagInvertsRows) {
    // Records of a white row (one V0): length, then the changes. Inverted,
    // an extra 0 comes first. At width 160 the plain record would be 20
    // bytes, the size of the packed row, so it is one word longer.
    auto first_record = [](uint32_t width, uint32_t no_inversion) {
        std::vector<uint32_t> record;
        FaxParams p = fax_params(width, 1, ccitt::kModeG4Memory);
        p.no_inversion = no_inversion;
        p.data_length = 1;
        const uint8_t v0 = 0x80;
        auto line = [](uint8_t* row, intptr_t user, int32_t, uint32_t count) -> int32_t {
            reinterpret_cast<std::vector<uint32_t>*>(user)->assign(reinterpret_cast<uint32_t*>(row),
                                                                   reinterpret_cast<uint32_t*>(row) + count / 4);
            return 0;
        };
        EXPECT_EQ(ccitt::fax_decode_g4(&v0, 1, 0, p, 0, line, intptr_t(&record)), 0);
        return record;
    };
    EXPECT_EQ(first_record(kCorpusWidth, 0), (std::vector<uint32_t>{24, 0, 1728, 1728, 1728, 1728}));
    const std::vector<uint32_t> narrow = first_record(160, 1);
    ASSERT_EQ(narrow.size(), 6u);
    EXPECT_EQ(narrow[0], 24u);
}

// Mode 3: three EOL codes in a row end the page; the call's remaining rows
// are white even when coded rows follow. The memory mode ignores EOLs. A
// Group 3 2-D strip without an EOL in its first 2,000 codes is refused; the
// same data too short for 2,000 codes ends the page instead.
TEST(CcittDecode, Group3EolRules) {
    // EOL, a black row of 8 (white 0, black 8), EOL x 3, another black row.
    const Bytes data = bits_to_bytes("000000000001" "00110101" "000101" "000000000001" "000000000001"
                                     "000000000001" "00110101" "000101");
    for (int32_t mode : {ccitt::kModeG3, ccitt::kModeMhMemory}) {
        Collector c(8, 4);
        ASSERT_EQ(decode_bytes(data, fax_params(8, 4, mode), c, 4), 0);
        EXPECT_TRUE(c.each_row_once());
        EXPECT_EQ(c.page.row(0)[0], 0x00);
        EXPECT_EQ(c.page.row(1)[0], mode == ccitt::kModeG3 ? 0xFF : 0x00);
        EXPECT_EQ(c.page.row(2)[0], 0xFF);
        EXPECT_EQ(c.page.row(3)[0], 0xFF);
    }
    for (int32_t mode : {ccitt::kModeG3Mr, ccitt::kModeG3MrMemory}) {
        Collector c(64, 4), d(64, 4);
        EXPECT_EQ(decode_bytes(Bytes(2000, 0xFF), fax_params(64, 4, mode), c, 4), IMG_ERR_BAD_IMAGE);
        EXPECT_EQ(decode_bytes(Bytes(100, 0xFF), fax_params(64, 4, mode), d, 4), 0);
        EXPECT_TRUE(d.each_row_once());
    }
}

// An EOL where a mode code is expected: each zero followed by at least five
// more is a V0 code of one bit, so the first six zeros make two rows that
// copy their reference row (three V0 each); "0000011" after them is a VR3.
TEST(CcittDecode, EolInTwoDimensionalRowsReadsAsV0) {
    // Row 0: horizontal (white 3, black 2), V0 to the end. Then an EOL.
    Collector c(16, 8);
    ASSERT_EQ(decode_bytes(bits_to_bytes("001" "1000" "11" "1" "000000000001", '1'),
                           fax_params(16, 8, ccitt::kModeG4Memory), c, 8),
              0);
    for (uint32_t y = 0; y < 3; ++y) {
        EXPECT_EQ(c.page.row(y)[0], 0xE7) << y;  // black at columns 3 and 4
        EXPECT_EQ(c.page.row(y)[1], 0xFF) << y;
    }
    EXPECT_NE(c.page.row(3)[0], 0xE7);
}

// Truncated and damaged pages: every decoder returns 0 (or -3 for damage)
// and delivers every row once; rows before the cut are the reference's.
TEST(CcittDecode, TruncatedAndDamagedData) {
    const Page& ref = corpus_page();
    for (const RawPage& raw : kRawPages) {
        SCOPED_TRACE(raw.name);
        const Bytes& full = corpus_fax(raw.name);
        Bytes damaged = full;
        for (size_t i = damaged.size() / 3; i < damaged.size(); i += 101) damaged[i] ^= 0x5A;
        for (int32_t mode : {raw.stream_mode, raw.memory_mode}) {
            for (size_t cut = 0; cut < full.size(); cut += full.size() / 23 + 1) {
                Collector c(kCorpusWidth, kCorpusHeight);
                ASSERT_EQ(decode_bytes(Bytes(full.begin(), full.begin() + long(cut)), page_params(mode), c,
                                       kCorpusHeight),
                          0);
                ASSERT_TRUE(c.each_row_once());
                ASSERT_EQ(c.error, "");
                EXPECT_EQ(std::memcmp(c.page.row(0), ref.row(0), ref.stride), 0);
            }
            Collector c(kCorpusWidth, kCorpusHeight);
            const int32_t s = decode_bytes(damaged, page_params(mode), c, kCorpusHeight);
            EXPECT_TRUE(s == 0 || s == IMG_ERR_BAD_IMAGE) << s;
            EXPECT_TRUE(s != 0 || c.each_row_once());
            EXPECT_EQ(c.error, "");
        }
    }
}

TEST(CcittDecode, RefusedParameters) {
    const Bytes data(16, 0xFF);
    Collector c(8, 8);
    EXPECT_EQ(decode_bytes(data, fax_params(0, 8, ccitt::kModeG4Memory), c, 8), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(decode_bytes(data, fax_params(ccitt::kMaxFaxWidth + 1, 8, ccitt::kModeG4Memory), c, 8),
              IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(decode_bytes(data, fax_params(8, 8, 77), c, 8), IMG_ERR_UNSUPPORTED);
    FaxParams p = fax_params(8, 8, ccitt::kModeG4);
    EXPECT_EQ(ccitt::fax_decode_1d(nullptr, 8, 0, p, 0, Collector::line, intptr_t(&c)), IMG_ERR_UNSUPPORTED);
    // Rows at or beyond the height are never delivered.
    Collector d(8, 8);
    EXPECT_EQ(decode_bytes(data, fax_params(8, 8, ccitt::kModeMhMemory), d, 20, 4), 0);
    EXPECT_EQ(d.error, "");
    EXPECT_EQ(d.deliveries[3], 0);
    EXPECT_EQ(d.deliveries[4], 1);
}

// The stream is left after the data the decoder used.
TEST(CcittDecode, StreamPositionAfterDecode) {
    Bytes data = corpus_fax("g4");
    const size_t coded = data.size();
    data.resize(coded + 40000, 0xAB);  // data behind the page
    void* block = to_block(data);
    const int32_t s = stream::mem_create_sized(block, uint32_t(data.size()));
    Collector c(kCorpusWidth, kCorpusHeight);
    FaxParams p = page_params(ccitt::kModeG4);
    EXPECT_EQ(ccitt::fax_decode_g4(nullptr, kCorpusHeight, 0, p, s, Collector::line, intptr_t(&c)), 0);
    const uint32_t at = uint32_t(stream::seek(s, 0, 1));
    EXPECT_LE(at, coded);
    EXPECT_GE(at, coded - 2);
    stream::mem_release(s);
    tesslin_block_free(block);
    EXPECT_EQ(page_difference(c.page, corpus_page()), "");
}

}  // namespace
