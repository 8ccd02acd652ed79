// Fax decoding against the corpus's raw pages and their reference raster,
// plus the end-of-page, damaged-data and callback rules.
#include <fcntl.h>
#include <unistd.h>

#include <thread>

#include "ccitt_test_util.h"

using namespace tesslin;
using namespace tesslin::test;
using ccitt::FaxParams;

namespace {

constexpr uint32_t kPageWidth = 1728, kPageHeight = 2200;

const Page& reference_page() {
    static const Page p = load_pbm(data_path("corpus/refs/540397096c9b25d0.pbm"));
    return p;
}

struct RawPage {
    const char* file;
    int32_t stream_mode;
    int32_t memory_mode;
};
constexpr RawPage kRawPages[] = {
    {"page.g3", ccitt::kModeG3, ccitt::kModeMhMemory},
    {"page.g32d", ccitt::kModeG3Mr, ccitt::kModeG3MrMemory},
    {"page.g4", ccitt::kModeG4, ccitt::kModeG4Memory},
};

std::vector<uint8_t> raw_page(const char* name) {
    return read_file(data_path(std::string("corpus/doc/") + name));
}

// Stream modes from an open file descriptor, memory modes from a buffer, both
// fill orders: every decode gives the reference page, each row once.
TEST(CcittDecode, RawCorpusPagesMatchReference) {
    const Page& ref = reference_page();
    ASSERT_EQ(ref.width, kPageWidth);
    for (const RawPage& raw : kRawPages) {
        SCOPED_TRACE(raw.file);
        const std::vector<uint8_t> data = raw_page(raw.file);
        ASSERT_FALSE(data.empty());
        const std::vector<uint8_t> reversed = bit_reversed(data);

        // Stream mode from the file itself.
        {
            int fd = ::open(data_path(std::string("corpus/doc/") + raw.file).c_str(), O_RDONLY);
            ASSERT_GE(fd, 0);
            Collector c(kPageWidth, kPageHeight);
            FaxParams p = fax_params(kPageWidth, kPageHeight, raw.stream_mode);
            EXPECT_EQ(ccitt::fax_decode(nullptr, kPageHeight, 0, p, fd, Collector::line, intptr_t(&c)), 0);
            ::close(fd);
            EXPECT_EQ(c.error, "");
            EXPECT_TRUE(c.each_row_once());
            EXPECT_EQ(page_difference(c.page, ref), "");
        }
        for (int fill_order : {1, 2}) {
            const auto& bytes = fill_order == 1 ? data : reversed;
            for (int32_t mode : {raw.stream_mode, raw.memory_mode}) {
                SCOPED_TRACE("mode " + std::to_string(mode) + " fill order " + std::to_string(fill_order));
                Collector c(kPageWidth, kPageHeight);
                EXPECT_EQ(decode_bytes(bytes, fax_params(kPageWidth, kPageHeight, mode, uint32_t(fill_order)), c,
                                       kPageHeight),
                          0);
                EXPECT_EQ(c.error, "");
                EXPECT_TRUE(c.each_row_once());
                EXPECT_EQ(page_difference(c.page, ref), "");
                if (mode == ccitt::kModeG4 || mode == ccitt::kModeG4Memory)
                    EXPECT_EQ(c.records, int(kPageHeight));
                else
                    EXPECT_EQ(c.packed, int(kPageHeight));
            }
        }
    }
}

// With the no-inversion flag clear, rows arrive inverted: packed rows with
// every bit flipped, run records whose changes begin with an extra 0.
TEST(CcittDecode, InversionFlagInvertsRows) {
    const Page& ref = reference_page();
    for (const RawPage& raw : kRawPages) {
        SCOPED_TRACE(raw.file);
        FaxParams p = fax_params(kPageWidth, kPageHeight, raw.memory_mode);
        p.no_inversion = 0;
        Collector c(kPageWidth, kPageHeight);
        c.invert = true;
        EXPECT_EQ(decode_bytes(raw_page(raw.file), p, c, kPageHeight), 0);
        EXPECT_EQ(c.error, "");
        EXPECT_EQ(page_difference(c.page, ref), "");
    }
    // A record of an inverted Group 4 row: length, 0, then the row's changes.
    struct First {
        std::vector<uint32_t> record;
        static int32_t line(uint8_t* row, intptr_t user, int32_t index, uint32_t count) {
            auto* f = reinterpret_cast<First*>(user);
            if (index == 0) f->record.assign(reinterpret_cast<uint32_t*>(row), reinterpret_cast<uint32_t*>(row) + count / 4);
            return 0;
        }
    } first;
    FaxParams p = fax_params(kPageWidth, 1, ccitt::kModeG4Memory);
    p.no_inversion = 0;
    const std::vector<uint8_t> white_row = {0x80};  // one V0: a white row
    p.data_length = 1;
    ASSERT_EQ(ccitt::fax_decode_g4(white_row.data(), 1, 0, p, 0, First::line, intptr_t(&first)), 0);
    EXPECT_EQ(first.record, (std::vector<uint32_t>{24, 0, kPageWidth, kPageWidth, kPageWidth, kPageWidth}));
}

// A white row 160 pixels wide makes a five-word record of 20 bytes, the size
// of the packed row, so the record is one word longer.
TEST(CcittDecode, RecordLengthNeverEqualsPackedRow) {
    const std::vector<uint8_t> data = {0xFF};
    FaxParams p = fax_params(160, 2, ccitt::kModeG4Memory);
    std::vector<uint32_t> counts;
    auto line = [](uint8_t* row, intptr_t user, int32_t, uint32_t count) -> int32_t {
        auto* v = reinterpret_cast<std::vector<uint32_t>*>(user);
        v->push_back(count);
        v->push_back(reinterpret_cast<uint32_t*>(row)[0]);
        return 0;
    };
    p.data_length = 1;
    ASSERT_EQ(ccitt::fax_decode_g4(data.data(), 2, 0, p, 0, line, intptr_t(&counts)), 0);
    EXPECT_EQ(counts, (std::vector<uint32_t>{24, 24, 24, 24}));
}

// Mode 3: three EOL codes in a row end the page; the call's remaining rows are
// white even when coded rows follow.
TEST(CcittDecode, ThreeEolsEndTheG3Page) {
    // EOL, a black row of 8 (white 0, black 8), EOL, EOL, EOL, then another
    // black row that must not be decoded.
    // bits: 000000000001 00110101 000101 000000000001 000000000001 000000000001 00110101 000101
    std::string bits = "000000000001" "00110101" "000101" "000000000001" "000000000001"
                       "000000000001" "00110101" "000101";
    while (bits.size() % 8) bits += '0';
    std::vector<uint8_t> data;
    for (size_t i = 0; i < bits.size(); i += 8) data.push_back(uint8_t(std::stoi(bits.substr(i, 8), nullptr, 2)));
    for (int32_t mode : {ccitt::kModeG3, ccitt::kModeMhMemory}) {
        Collector c(8, 4);
        ASSERT_EQ(decode_bytes(data, fax_params(8, 4, mode), c, 4), 0);
        EXPECT_TRUE(c.each_row_once());
        EXPECT_EQ(c.page.row(0)[0], 0x00);
        // Mode 128 ignores EOL codes and decodes the second black row.
        EXPECT_EQ(c.page.row(1)[0], mode == ccitt::kModeG3 ? 0xFF : 0x00);
        EXPECT_EQ(c.page.row(2)[0], 0xFF);
        EXPECT_EQ(c.page.row(3)[0], 0xFF);
    }
}

// An EOL where a mode code is expected: each zero followed by at least five
// more is a V0 code of one bit, so the first six zeros make two rows that copy
// their reference row (three V0 each); "0000011" after them is a VR3.
TEST(CcittDecode, EolInTwoDimensionalRowsReadsAsV0) {
    // Row 0: horizontal (white 3, black 2), V0 to the end. Then an EOL.
    std::string bits = "001" "1000" "11" "1" "000000000001";
    while (bits.size() % 8) bits += '1';
    std::vector<uint8_t> data;
    for (size_t i = 0; i < bits.size(); i += 8) data.push_back(uint8_t(std::stoi(bits.substr(i, 8), nullptr, 2)));
    Collector c(16, 8);
    ASSERT_EQ(decode_bytes(data, fax_params(16, 8, ccitt::kModeG4Memory), c, 8), 0);
    for (uint32_t y = 0; y < 3; ++y) {
        EXPECT_EQ(c.page.row(y)[0], 0xE7) << y;  // black at columns 3 and 4
        EXPECT_EQ(c.page.row(y)[1], 0xFF) << y;
    }
    EXPECT_NE(c.page.row(3)[0], 0xE7);
}

// A Group 3 2-D strip without an EOL in its first 2,000 codes is refused; the
// same data too short for 2,000 codes ends the page instead.
TEST(CcittDecode, EolHuntLimit) {
    std::vector<uint8_t> ones(2000, 0xFF);  // white runs of 7, never an EOL
    for (int32_t mode : {ccitt::kModeG3Mr, ccitt::kModeG3MrMemory}) {
        Collector c(64, 4);
        EXPECT_EQ(decode_bytes(ones, fax_params(64, 4, mode), c, 4), IMG_ERR_BAD_IMAGE);
        Collector d(64, 4);
        EXPECT_EQ(decode_bytes(std::vector<uint8_t>(100, 0xFF), fax_params(64, 4, mode), d, 4), 0);
        EXPECT_TRUE(d.each_row_once());
    }
}

// Truncated and damaged pages: every decoder returns 0 and delivers every row
// once, and the rows before the damage are the reference's.
TEST(CcittDecode, TruncatedAndDamagedData) {
    const Page& ref = reference_page();
    for (const RawPage& raw : kRawPages) {
        SCOPED_TRACE(raw.file);
        const std::vector<uint8_t> full = raw_page(raw.file);
        for (size_t cut = 0; cut < full.size(); cut += full.size() / 23 + 1) {
            std::vector<uint8_t> part(full.begin(), full.begin() + long(cut));
            for (int32_t mode : {raw.stream_mode, raw.memory_mode}) {
                Collector c(kPageWidth, kPageHeight);
                ASSERT_EQ(decode_bytes(part, fax_params(kPageWidth, kPageHeight, mode), c, kPageHeight), 0);
                ASSERT_TRUE(c.each_row_once());
                ASSERT_EQ(c.error, "");
                EXPECT_EQ(std::memcmp(c.page.row(0), ref.row(0), ref.stride), 0);
            }
        }
        // Flipped bytes in the middle.
        std::vector<uint8_t> damaged = full;
        for (size_t i = damaged.size() / 3; i < damaged.size(); i += 101) damaged[i] ^= 0x5A;
        for (int32_t mode : {raw.stream_mode, raw.memory_mode}) {
            Collector c(kPageWidth, kPageHeight);
            int32_t s = decode_bytes(damaged, fax_params(kPageWidth, kPageHeight, mode), c, kPageHeight);
            EXPECT_TRUE(s == 0 || s == IMG_ERR_BAD_IMAGE) << s;
            if (s == 0) {
                EXPECT_TRUE(c.each_row_once());
            }
            EXPECT_EQ(c.error, "");
        }
    }
}

// Random bytes in every mode, widths and fill orders: no crash, no row index
// outside the image, a complete image or a negative status.
TEST(CcittDecode, RandomDataEveryMode) {
    uint32_t seed = 12345;
    auto next = [&] { return seed = seed * 1103515245u + 12345u; };
    const int32_t modes[] = {1, 2, 3, 4, 45, 128, 129, 130};
    for (int round = 0; round < 200; ++round) {
        std::vector<uint8_t> data(next() % 600);
        for (auto& b : data) b = uint8_t(next() >> 16);
        if (round % 3 == 0)
            for (auto& b : data) b &= uint8_t(next() >> 8);  // many zeros: fill, EOLs
        const uint32_t width = 1 + next() % 300, height = 1 + next() % 40;
        for (int32_t mode : modes) {
            Collector c(width, height);
            FaxParams p = fax_params(width, height, mode, 1 + (round & 1));
            int32_t s = decode_bytes(data, p, c, height);
            ASSERT_TRUE(s == 0 || s == IMG_ERR_BAD_IMAGE) << s;
            ASSERT_EQ(c.error, "");
            if (s == 0) {
                ASSERT_TRUE(c.each_row_once());
            }
        }
    }
}

// The line callback's negative status stops every decoder at once.
TEST(CcittDecode, CallbackStatusIsReturned) {
    for (const RawPage& raw : kRawPages) {
        for (int32_t mode : {raw.stream_mode, raw.memory_mode}) {
            Collector c(kPageWidth, kPageHeight);
            c.fail_at = 5;
            EXPECT_EQ(decode_bytes(raw_page(raw.file), fax_params(kPageWidth, kPageHeight, mode), c, kPageHeight),
                      -99);
            EXPECT_EQ(c.deliveries[4], 1);
            EXPECT_EQ(c.deliveries[6], 0);
        }
    }
}

// Parameters the decoders refuse.
TEST(CcittDecode, RefusedParameters) {
    const std::vector<uint8_t> data(16, 0xFF);
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

// Tables are built once; decoders on several threads give the same rows.
TEST(CcittDecode, ThreadsDecodeAlike) {
    const std::vector<uint8_t> g4 = raw_page("page.g4"), g3 = raw_page("page.g3");
    std::vector<Collector> out(4, Collector(kPageWidth, kPageHeight));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            decode_bytes(i & 1 ? g3 : g4, fax_params(kPageWidth, kPageHeight, i & 1 ? ccitt::kModeG3 : ccitt::kModeG4),
                         out[size_t(i)], kPageHeight);
        });
    for (auto& t : threads) t.join();
    for (auto& c : out) EXPECT_EQ(page_difference(c.page, reference_page()), "");
}

// The stream is left after the data the decoder used.
TEST(CcittDecode, StreamPositionAfterDecode) {
    std::vector<uint8_t> data = raw_page("page.g4");
    const size_t coded = data.size();
    data.resize(coded + 40000, 0xAB);  // data behind the page
    void* block = tesslin_block_alloc(uint32_t(data.size()));
    std::memcpy(block, data.data(), data.size());
    int32_t s = stream::mem_create_sized(block, uint32_t(data.size()));
    Collector c(kPageWidth, kPageHeight);
    FaxParams p = fax_params(kPageWidth, kPageHeight, ccitt::kModeG4);
    EXPECT_EQ(ccitt::fax_decode_g4(nullptr, kPageHeight, 0, p, s, Collector::line, intptr_t(&c)), 0);
    const int32_t at = stream::seek(s, 0, 1);
    EXPECT_LE(uint32_t(at), coded);
    EXPECT_GE(uint32_t(at), coded - 2);
    stream::mem_release(s);
    tesslin_block_free(block);
    EXPECT_EQ(page_difference(c.page, reference_page()), "");
}

}  // namespace
