// Raw fax data: IMG_decompress_fax and IMG_decompress_fax_mem on the
// corpus streams and on streams written by netpbm and libtiff, the raw
// writers (format codes 33, 34, 52, 53) read back by those tools, and the
// height of 0 that stops at the end of the page.
#include <cstdlib>
#include <thread>

#include "fax_test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

struct RawStream {
    const char* file;
    int32_t mode;
};
constexpr RawStream kRawStreams[] = {
    {"doc/page.g3", 3},    // Group 3 one-dimensional with EOL codes
    {"doc/page.g32d", 2},  // Group 3 two-dimensional: EOL and tag bit per row
    {"doc/page.g4", 4},    // Group 4
};

// Every corpus stream, from a file and from memory, in both fill orders
// (fill order 2 on a bit-reversed copy), with the height given and with 0.
TEST(FaxRaw, CorpusStreamsDecodeToTheirReference) {
    const Page& want = corpus_page();
    ASSERT_EQ(want.width, kCorpusWidth);
    ASSERT_EQ(want.height, kCorpusHeight);
    for (const RawStream& s : kRawStreams) {
        const std::vector<uint8_t> natural = read_file(corpus_file(s.file));
        ASSERT_FALSE(natural.empty()) << s.file;
        const std::string reversed_path = scratch(std::string("reversed-") + (s.file + 4));
        write_file(reversed_path, bit_reversed(natural));
        for (int32_t fill : {1, 2}) {
            const std::string path = fill == 1 ? corpus_file(s.file) : reversed_path;
            const std::vector<uint8_t> bytes = fill == 1 ? natural : bit_reversed(natural);
            for (int32_t height : {int32_t(kCorpusHeight), 0}) {
                SCOPED_TRACE(std::string(s.file) + " fill order " + std::to_string(fill) +
                             " height " + std::to_string(height));
                EXPECT_EQ(take_difference(fax_from_file(path, kCorpusWidth, height, s.mode, fill),
                                          want),
                          "");
                EXPECT_EQ(take_difference(fax_from_bytes(bytes, kCorpusWidth, height, s.mode, fill),
                                          want),
                          "");
            }
        }
        std::remove(reversed_path.c_str());
    }
}

// Modes other than 2 to 6: Modified Huffman rows one after the other, with
// no EOL and no alignment. White rows of 1728 pixels are 17 bits each
// (make-up 1728, then white 0), so no row after the first starts on a byte.
TEST(FaxRaw, OtherModesReadUnalignedModifiedHuffman) {
    constexpr uint32_t kRows = 40;
    std::vector<uint8_t> bits;
    auto put = [&](const char* code) {
        for (const char* c = code; *c; ++c) bits.push_back(uint8_t(*c - '0'));
    };
    for (uint32_t r = 0; r < kRows; ++r) {
        if (r == 7) {  // one row: white 64, black 2, white 1662
            put("11011");         // white make-up 64
            put("00110101");      // white 0
            put("11");            // black 2
            put("011000");        // white make-up 1600
            put("00101011");      // white 62 (1600 + 62 = 1662)
            continue;
        }
        put("010011011");  // white make-up 1728
        put("00110101");   // white 0
    }
    std::vector<uint8_t> data((bits.size() + 7) / 8, 0);
    for (size_t i = 0; i < bits.size(); ++i)
        if (bits[i]) data[i / 8] |= uint8_t(0x80 >> (i % 8));
    Page want = blank_page(kCorpusWidth, kRows);
    runs::fill_bits(want.row(7), 64, 66, false);
    for (int32_t mode : {0, 1, 7, 128, -5}) {
        SCOPED_TRACE("mode " + std::to_string(mode));
        EXPECT_EQ(take_difference(fax_from_bytes(data, kCorpusWidth, kRows, mode, 1), want), "");
        EXPECT_EQ(take_difference(fax_from_bytes(data, kCorpusWidth, 0, mode, 1), want), "");
    }
}

// Height 0 ends at the end of the page: RTC (netpbm's pbmtog3 writes one),
// EOFB, or the end of the data, whatever follows.
TEST(FaxRaw, HeightZeroStopsAtTheEndOfThePage) {
    const Page page = test_page(1728, 1100);
    const int32_t h = page_handle(page);
    ASSERT_GE(h, 0);
    for (int32_t code : {53, 52}) {
        SCOPED_TRACE("code " + std::to_string(code));
        int32_t n = 0;
        std::vector<uint8_t> data = save_to_bytes(h, code, &n);
        ASSERT_GT(n, 0);
        EXPECT_EQ(take_difference(fax_from_bytes(data, 1728, 0, code == 53 ? 3 : 4, 1), page), "");
        // Data after the page's end (the two EOLs the Group 3 writer ends
        // with; Group 4: EOFB) is not read as rows.
        data.insert(data.end(), 300, 0xA5);
        EXPECT_EQ(take_difference(fax_from_bytes(data, 1728, 0, code == 53 ? 3 : 4, 1), page), "");
    }
    IMG_delete_bitmap(h);

    if (!have_tool("pbmtog3")) GTEST_SKIP() << "netpbm is not installed";
    const std::string pbm = scratch("rtc.pbm"), g3 = scratch("rtc.g3");
    write_file(pbm, pbm_bytes(page));
    ASSERT_TRUE(run("pbmtog3 " + pbm + " > " + g3));
    std::vector<uint8_t> data = read_file(g3);
    data.insert(data.end(), 500, 0x5A);  // junk after the RTC
    EXPECT_EQ(take_difference(fax_from_bytes(data, 1728, 0, 3, 1), page), "");
    // With the height given, rows after the RTC are white.
    Page taller = blank_page(1728, 1500);
    for (uint32_t y = 0; y < page.height; ++y) std::memcpy(taller.row(y), page.row(y), page.stride);
    EXPECT_EQ(take_difference(fax_from_bytes(data, 1728, 1500, 3, 1), taller), "");
    std::remove(pbm.c_str());
    std::remove(g3.c_str());
}

// The raw writers' output read by netpbm (Group 3) and libtiff (Group 4, in
// a minimal TIFF), and by our own decoder; 34 is 52 bit-reversed, 33 is 53
// bit-reversed.
TEST(FaxRaw, WritersProduceStreamsOtherToolsRead) {
    const Page page = test_page(1701, 333);
    const int32_t h = page_handle(page);
    ASSERT_GE(h, 0);
    std::vector<uint8_t> out[4];
    const int32_t codes[4] = {33, 53, 34, 52};
    for (int i = 0; i < 4; ++i) {
        int32_t n = 0;
        out[i] = save_to_bytes(h, codes[i], &n);
        ASSERT_GT(n, 0) << codes[i];
    }
    IMG_delete_bitmap(h);
    EXPECT_EQ(out[0], bit_reversed(out[1]));
    EXPECT_EQ(out[2], bit_reversed(out[3]));
    EXPECT_EQ(take_difference(fax_from_bytes(out[0], 1701, 333, 3, 2), page), "");
    EXPECT_EQ(take_difference(fax_from_bytes(out[1], 1701, 0, 3, 1), page), "");
    EXPECT_EQ(take_difference(fax_from_bytes(out[2], 1701, 0, 4, 2), page), "");
    EXPECT_EQ(take_difference(fax_from_bytes(out[3], 1701, 333, 4, 1), page), "");

    // Group 4 in a minimal TIFF, read by libtiff through Pillow.
    if (have_pillow()) {
        for (int i : {2, 3}) {
            const auto tiff = minimal_tiff(1701, 333, 4, i == 2 ? 2 : 1, 333, {out[i]});
            EXPECT_EQ(page_difference(pillow_decode(tiff, 1701, 333), page), "") << codes[i];
        }
    }
    if (!have_tool("g3topbm")) GTEST_SKIP() << "netpbm is not installed";
    // Group 3 in natural and reversed bit order, read by netpbm.
    const std::string raw = scratch("raw.g3"), pbm = scratch("raw.pbm");
    write_file(raw, out[1]);
    ASSERT_TRUE(run("g3topbm " + raw + " > " + pbm));
    EXPECT_EQ(page_difference(load_pbm(pbm), page), "");
    write_file(raw, out[0]);
    ASSERT_TRUE(run("g3topbm -reversebits " + raw + " > " + pbm));
    EXPECT_EQ(page_difference(load_pbm(pbm), page), "");
    std::remove(raw.c_str());
    std::remove(pbm.c_str());
}

// Code 53 takes any depth (the save's run supply dithers to one bit); the
// other raw codes only bilevel images.
TEST(FaxRaw, DepthRules) {
    const int32_t grey = make_handle(64, 8, 8, [](uint8_t* row, uint32_t n, int32_t r) {
        for (uint32_t i = 0; i < n; ++i) row[i] = (i / 8 + uint32_t(r)) % 2 ? 255 : 0;
    });
    ASSERT_GE(grey, 0);
    int32_t n = 0;
    for (int32_t code : {33, 34, 52}) {
        save_to_bytes(grey, code, &n);
        EXPECT_EQ(n, IMG_ERR_DEPTH) << code;
    }
    const std::vector<uint8_t> g3 = save_to_bytes(grey, 53, &n);
    ASSERT_GT(n, 0);
    Page want = blank_page(64, 8);
    for (uint32_t y = 0; y < 8; ++y)
        for (uint32_t x = 0; x < 64; ++x)
            if ((x / 8 + y) % 2 == 0) runs::fill_bits(want.row(y), x, x + 1, false);
    EXPECT_EQ(take_difference(fax_from_bytes(g3, 64, 8, 3, 1), want), "");
    IMG_delete_bitmap(grey);
}

// ABIC modes go to the ABIC module: absent gives -37; present, its rows.
TEST(FaxRaw, AbicModesUseTheModule) {
    const std::vector<uint8_t> data(64, 0);
    const std::string empty = scratch("no-modules");
    std::filesystem::create_directories(empty);
    tesslin_set_plugin_dir(empty.c_str());
    IMG_unload_plugins();
    EXPECT_EQ(fax_from_bytes(data, 20, 6, 5, 1), IMG_ERR_ABIC_PLUGIN);
    EXPECT_EQ(fax_from_bytes(data, 20, 6, 6, 1), IMG_ERR_ABIC_PLUGIN);
    tesslin_set_plugin_dir((std::string(TESSLIN_TEST_PLUGINS) + "/abicmod").c_str());
    // The test module's row i is black in its first (i mod width) + 1 pixels.
    const int32_t h = fax_from_bytes(data, 20, 6, 5, 1);
    Page want = blank_page(20, 6);
    for (uint32_t y = 0; y < 6; ++y) runs::fill_bits(want.row(y), 0, y + 1, false);
    EXPECT_EQ(take_difference(h, want), "");
    const int32_t g = fax_from_bytes(data, 10, 3, 6, 1);
    ASSERT_GE(g, 0);
    int32_t w = 0, ht = 0, bits = 0;
    IMG_bitmap_info(g, &w, &ht, &bits);
    EXPECT_EQ(bits, 4);
    EXPECT_EQ(w, 10);
    EXPECT_EQ(ht, 3);
    IMG_delete_bitmap(g);
    IMG_unload_plugins();
    tesslin_set_plugin_dir(nullptr);
}

// Decodes and saves on several threads at once give the same results.
TEST(FaxRaw, ThreadsDecodeAndSaveAlike) {
    const std::vector<uint8_t> g4 = read_file(corpus_file("doc/page.g4"));
    const std::vector<uint8_t> g3 = read_file(corpus_file("doc/page.g3"));
    std::string result[4];
    std::vector<uint8_t> saved[4];
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            const int32_t h = t % 2 ? fax_from_bytes(g4, kCorpusWidth, 0, 4, 1)
                                    : fax_from_bytes(g3, kCorpusWidth, 0, 3, 1);
            int32_t n = 0;
            saved[t] = save_to_bytes(h, 18, &n);
            result[t] = take_difference(h, corpus_page());
        });
    for (auto& th : threads) th.join();
    for (int t = 0; t < 4; ++t) {
        EXPECT_EQ(result[t], "") << t;
        EXPECT_EQ(saved[t], saved[0]) << t;
    }
}

TEST(FaxRaw, BadArgumentsAndDataFailCleanly) {
    const std::vector<uint8_t> g4 = read_file(corpus_file("doc/page.g4"));
    EXPECT_EQ(fax_from_bytes(g4, 0, 10, 4, 1), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(fax_from_bytes(g4, 1 << 25, 10, 4, 1), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(fax_from_bytes(g4, 1728, -1, 4, 1), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(IMG_decompress_fax_mem(nullptr, 1728, 10, 4, 1), IMG_ERR_BAD_IMAGE);
    // No data: no row.
    const std::string empty = scratch("empty.fax");
    write_file(empty, {});
    for (int32_t mode : {2, 3, 4, 9})
        for (int32_t height : {0, 10}) EXPECT_EQ(fax_from_file(empty, 1728, height, mode, 1), IMG_ERR_READ);
    std::remove(empty.c_str());
    // More rows than the data has bits.
    EXPECT_EQ(fax_from_bytes({0xFF, 0xFF}, 1728, 17, 4, 1), IMG_ERR_READ);
    EXPECT_EQ(fax_from_file("/no/such/file", 1728, 0, 4, 1), IMG_ERR_OPEN);
    // Every prefix of every stream decodes or fails without harm.
    for (const RawStream& s : kRawStreams) {
        const std::vector<uint8_t> data = read_file(corpus_file(s.file));
        for (size_t cut = 0; cut < data.size(); cut += 997) {
            const std::vector<uint8_t> part(data.begin(), data.begin() + long(cut));
            for (int32_t height : {0, int32_t(kCorpusHeight)}) {
                const int32_t h = fax_from_bytes(part, kCorpusWidth, height, s.mode, 1);
                if (h >= 0) IMG_delete_bitmap(h);
            }
        }
    }
}

}  // namespace
