// Raw fax data: IMG_decompress_fax and IMG_decompress_fax_mem on the corpus
// streams and on streams written by netpbm, the raw writers (format codes
// 33, 34, 52, 53) read back by netpbm and libtiff, and the height of 0 that
// stops at the end of the page.
#include "fax.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

struct RawStream {
    const char* name;
    int32_t mode;
};
constexpr RawStream kRawStreams[] = {{"g3", 3}, {"g32d", 2}, {"g4", 4}};

// Every corpus stream from a file (fill order 1, the height given) and from
// memory (fill order 2 on a bit-reversed copy, height 0: the end of the page).
TEST(FaxRaw, CorpusStreamsDecodeToTheirReference) {
    for (const RawStream& s : kRawStreams) {
        SCOPED_TRACE(s.name);
        const std::string path = corpus(std::string("doc/page.") + s.name);
        EXPECT_EQ(take_difference(fax_from_file(path, kCorpusWidth, kCorpusHeight, s.mode, 1), corpus_page()), "");
        EXPECT_EQ(take_difference(fax_from_bytes(bit_reversed(corpus_fax(s.name)), kCorpusWidth, 0, s.mode, 2),
                                  corpus_page()),
                  "");
    }
}

// Modes other than 2 to 6: Modified Huffman rows one after the other, with
// no EOL and no alignment. White rows of 1728 pixels are 17 bits each
// (make-up 1728, then white 0), so no row after the first starts on a byte.
TEST(FaxRaw, OtherModesReadUnalignedModifiedHuffman) {
    constexpr uint32_t kRows = 40;
    std::string bits;
    for (uint32_t r = 0; r < kRows; ++r)
        bits += r == 7 ? "11011" "00110101" "11" "011000" "00101011"  // white 64, black 2, white 1600 + 62
                       : "010011011" "00110101";                       // white 1728, white 0
    const Bytes data = bits_to_bytes(bits);
    Page want = blank_page(kCorpusWidth, kRows);
    want.set_black(64, 66, 7);
    for (int32_t mode : {0, 1, 7, 128, -5})
        for (int32_t height : {int32_t(kRows), 0})
            EXPECT_EQ(take_difference(fax_from_bytes(data, kCorpusWidth, height, mode, 1), want), "") << mode;
}

// Height 0 ends at the end of the page: RTC (netpbm's pbmtog3 writes one),
// EOFB, or the end of the data, whatever follows.
TEST(FaxRaw, HeightZeroStopsAtTheEndOfThePage) {
    const Page page = test_page(1728, 1100);
    const Handle h = page_handle(page);
    for (int32_t code : {53, 52}) {
        int32_t n = 0;
        Bytes data = save_mem(h, code, &n);
        ASSERT_GT(n, 0) << code;
        EXPECT_EQ(take_difference(fax_from_bytes(data, 1728, 0, code == 53 ? 3 : 4, 1), page), "") << code;
        // Data after the page's end (two EOLs, or EOFB) is not read as rows.
        data.insert(data.end(), 300, 0xA5);
        EXPECT_EQ(take_difference(fax_from_bytes(data, 1728, 0, code == 53 ? 3 : 4, 1), page), "") << code;
    }
    if (!have_tool("pbmtog3")) GTEST_SKIP() << "netpbm is not installed";
    const std::string pbm = temp_path("rtc.pbm"), g3 = temp_path("rtc.g3");
    write_file(pbm, pbm_bytes(page));
    ASSERT_TRUE(run("pbmtog3 " + pbm + " > " + g3));
    Bytes data = read_file(g3);
    data.insert(data.end(), 500, 0x5A);  // junk after the RTC
    EXPECT_EQ(take_difference(fax_from_bytes(data, 1728, 0, 3, 1), page), "");
    // With the height given, rows after the RTC are white.
    Page taller = blank_page(1728, 1500);
    std::memcpy(taller.bits.data(), page.bits.data(), page.bits.size());
    EXPECT_EQ(take_difference(fax_from_bytes(data, 1728, 1500, 3, 1), taller), "");
    fs::remove(pbm);
    fs::remove(g3);
}

// The raw writers' output read by netpbm (Group 3), libtiff (Group 4) and
// our own decoder; 34 is 52 bit-reversed, 33 is 53 bit-reversed.
TEST(FaxRaw, WritersProduceStreamsOtherToolsRead) {
    const Page page = test_page(1701, 333);
    const Handle h = page_handle(page);
    Bytes out[4];
    const int32_t codes[4] = {33, 53, 34, 52}, modes[4] = {3, 3, 4, 4}, fills[4] = {2, 1, 2, 1};
    for (int i = 0; i < 4; ++i) {
        int32_t n = 0;
        out[i] = save_mem(h, codes[i], &n);
        ASSERT_GT(n, 0) << codes[i];
        EXPECT_EQ(take_difference(fax_from_bytes(out[i], 1701, i == 1 || i == 2 ? 0 : 333, modes[i], fills[i]), page), "");
        if (modes[i] == 4 && have_pillow()) {
            EXPECT_EQ(page_difference(libtiff_decode(1701, 333, 4, uint32_t(fills[i]), 333, {out[i]}), page), "");
        }
    }
    EXPECT_EQ(out[0], bit_reversed(out[1]));
    EXPECT_EQ(out[2], bit_reversed(out[3]));
    // Codes 33, 34 and 52 take bilevel images only (53 any depth: the pipeline's save tests).
    for (int32_t code : {33, 34, 52}) EXPECT_EQ(save_status(8, code), IMG_ERR_DEPTH) << code;
    if (!have_tool("g3topbm")) GTEST_SKIP() << "netpbm is not installed";
    EXPECT_EQ(page_difference(g3topbm(out[1]), page), "");
    EXPECT_EQ(page_difference(g3topbm(out[0], "-reversebits"), page), "");
}

// ABIC modes go to the ABIC module: absent gives -37; present, its rows:
// the test module's row i is black in its first (i mod width) + 1 pixels,
// and 4-bit pages combine four module rows as bit planes, most significant
// first.
TEST(FaxRaw, AbicModesUseTheModule) {
    const Bytes data(64, 0);
    const std::string empty = temp_path("no-modules");
    fs::create_directories(empty);
    tesslin_set_plugin_dir(empty.c_str());
    IMG_unload_plugins();
    EXPECT_EQ(fax_from_bytes(data, 20, 6, 5, 1), IMG_ERR_ABIC_PLUGIN);
    EXPECT_EQ(fax_from_bytes(data, 20, 6, 6, 1), IMG_ERR_ABIC_PLUGIN);
    tesslin_set_plugin_dir((std::string(TESSLIN_TEST_PLUGINS) + "/abicmod").c_str());
    Page want = blank_page(20, 6);
    for (uint32_t y = 0; y < 6; ++y) want.set_black(0, y + 1, y);
    EXPECT_EQ(take_difference(fax_from_bytes(data, 20, 6, 5, 1), want), "");
    const Handle g = fax_from_bytes(data, 10, 3, 6, 1);
    ASSERT_GE(g, 0);
    const DibHeader info = info_of(g);
    EXPECT_EQ(info.biBitCount, 4);
    EXPECT_EQ(info.biWidth, 10);
    ASSERT_EQ(info.biHeight, 3);
    for (int y = 0; y < 3; ++y) {
        const Bytes row = get_row(g, y);
        for (int x = 0; x < 10; ++x) {
            int v = 0;
            for (int k = 0; k < 4; ++k) v = (v << 1) | (x <= (4 * y + k) % 10 ? 1 : 0);
            EXPECT_EQ((x & 1) ? row[size_t(x) / 2] & 15 : row[size_t(x) / 2] >> 4, v) << x << "," << y;
        }
    }
    IMG_unload_plugins();
    tesslin_set_plugin_dir(nullptr);
}

TEST(FaxRaw, BadArgumentsAndDataFailCleanly) {
    const Bytes& g4 = corpus_fax("g4");
    EXPECT_EQ(fax_from_bytes(g4, 0, 10, 4, 1), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(fax_from_bytes(g4, 1 << 25, 10, 4, 1), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(fax_from_bytes(g4, 1728, -1, 4, 1), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(IMG_decompress_fax_mem(nullptr, 1728, 10, 4, 1), IMG_ERR_BAD_IMAGE);
    // No data: no row. More rows than the data has bits: no row either.
    const std::string empty = temp_path("empty.fax");
    write_file(empty, {});
    for (int32_t mode : {2, 3, 4, 9})
        for (int32_t height : {0, 10}) EXPECT_EQ(fax_from_file(empty, 1728, height, mode, 1), IMG_ERR_READ);
    fs::remove(empty);
    EXPECT_EQ(fax_from_bytes({0xFF, 0xFF}, 1728, 17, 4, 1), IMG_ERR_READ);
    EXPECT_EQ(fax_from_file("/no/such/file", 1728, 0, 4, 1), IMG_ERR_OPEN);
    // (Cut and damaged streams in every mode: the raw fax fuzz target, whose
    // seeds are the corpus streams.)
}

}  // namespace
