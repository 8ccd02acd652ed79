// IMT, BTR, KFX, LSD and MAG: files built from the header layouts around
// the corpus page's Group 3 and Group 4 streams (and pages of our own
// encoders), the IMT and BTR writers read back by us and by libtiff and
// netpbm, MAG pages counted and selected, and damaged headers.
#include "fax.h"
#include "formats/faxcontainers/faxcontainers.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

const Bytes& corpus_g4() { return corpus_fax("g4"); }
const Bytes& corpus_g3() { return corpus_fax("g3"); }

void le16(Bytes& f, size_t at, uint32_t v) {
    if (f.size() < at + 2) f.resize(at + 2, 0);
    store_le16(&f[at], uint16_t(v));
}
void le32(Bytes& f, size_t at, uint32_t v) {
    le16(f, at, v & 0xFFFF);
    le16(f, at + 2, v >> 16);
}
void append(Bytes& f, const Bytes& d) { f.insert(f.end(), d.begin(), d.end()); }

Bytes imt_file(uint8_t compression, uint8_t bit_order, const Bytes& data,
                              uint32_t version = 1) {
    Bytes f = {'\'', 'C', '1', 0};
    le16(f, 4, version);
    f.resize(22, 0);
    f[6] = compression;
    le32(f, 8, kCorpusHeight);
    le32(f, 12, kCorpusWidth / 8);
    le16(f, 16, 204);
    f[18] = bit_order;
    append(f, data);
    return f;
}

// Code 42: Group 4 bit-reversed behind the 22-byte header; the width field
// holds whole bytes, so 1700 pixels are written and read back as 1696.
TEST(FaxContainers, ImtWriter) {
    const Page page = test_page(1700, 500);
    const Handle h = page_handle(page, 300, 300);
    int32_t n = 0;
    const Bytes file = save_mem(h, 42, &n);
    ASSERT_GT(n, 22);
    const Bytes head(file.begin(), file.begin() + 22);
    EXPECT_EQ(head, (Bytes{'\'', 'C', '1', 0, 1, 0, 3, 0, 0xF4, 1, 0, 0, 212, 0, 0, 0,
                                          44, 1, 1, 0, 1, 0}));
    Page narrow = blank_page(1696, 500);
    for (uint32_t y = 0; y < 500; ++y)
        for (uint32_t x = 0; x < 1696; ++x)
            if (!page.white(x, y)) narrow.set_black(x, x + 1, y);
    if (have_pillow()) {
        EXPECT_EQ(page_difference(libtiff_decode(1696, 500, 4, 2, 500, {Bytes(file.begin() + 22, file.end())}), narrow), "");
    }
    EXPECT_EQ(save_status(8, 42), IMG_ERR_DEPTH);
    const Handle tiny = page_handle(test_page(7, 4));
    save_mem(tiny, 42, &n);
    EXPECT_EQ(n, IMG_ERR_BAD_IMAGE);  // no whole byte of width
}

Bytes btr_file(uint8_t coding, const Bytes& data) {
    Bytes f(128, 0);
    f[0] = 0xBB;
    le16(f, 1, 1);
    f[3] = coding;
    le16(f, 4, 200);
    le16(f, 6, 100);
    f[8] = 1;
    le16(f, 9, kCorpusWidth);
    f[11] = f[12] = 1;
    le16(f, 45, kCorpusHeight);
    append(f, data);
    return f;
}

// Code 29: Group 3 one-dimensional with EOL codes after a 128-byte header;
// resolutions 200 and 100 (at most 100 dpi) or 200.
TEST(FaxContainers, BtrWriter) {
    const Page page = test_page(1728, 300);
    for (int32_t dpi : {96, 100, 101, 300}) {
        const Handle h = page_handle(page, 204, dpi);
        int32_t n = 0;
        const Bytes file = save_mem(h, 29, &n);
        ASSERT_GT(n, 128);
        Bytes want = btr_file(1, {});
        le16(want, 9, 1728);
        le16(want, 45, 300);
        le16(want, 6, dpi <= 100 ? 100 : 200);
        EXPECT_EQ(Bytes(file.begin(), file.begin() + 128), want) << dpi;
        EXPECT_EQ(take_difference(decode_mem(file), page), "");
        if (dpi == 300 && have_tool("g3topbm")) {
            EXPECT_EQ(page_difference(g3topbm(Bytes(file.begin() + 128, file.end())), page), "");
        }
    }
    const Handle wide = page_handle(test_page(70000, 2));
    int32_t n = 0;
    save_mem(wide, 29, &n);
    EXPECT_EQ(n, IMG_ERR_BAD_IMAGE);  // the width field is 16-bit
}

Bytes lsd_file(uint8_t coding, uint8_t bit_order, bool at_150, const Bytes& data) {
    Bytes f = {0xDC, 0xDC};
    le16(f, 6, kCorpusHeight);
    le16(f, 8, kCorpusWidth);
    f.resize(16, 0);
    f[12] = coding;
    f[13] = bit_order;
    le16(f, 14, at_150 ? 2 : 0);
    f.resize(at_150 ? 150 : 512, 0);
    append(f, data);
    return f;
}

Bytes kfx_file(const Bytes& data) {
    Bytes f = {'.', 'K', 'F'};
    le16(f, 12, kCorpusWidth / 8);
    le16(f, 14, kCorpusHeight);
    f.resize(512, 0);
    append(f, data);
    return f;
}

// Every header layout and coding around the corpus page's streams gives the
// page, with the container's code and resolution; headers cut short: -12.
TEST(FaxContainers, ReadersGiveTheCorpusPage) {
    const Bytes g4 = corpus_g4(), g3 = corpus_g3(), g4r = bit_reversed(g4), g3r = bit_reversed(g3);
    const struct {
        const char* what;
        Bytes file;
        int32_t code, dpi;
    } cases[] = {
        {"IMT Group 4, first pixel in the low bit", imt_file(3, 1, g4r), IMG_FORMAT_IMT, 204},
        {"IMT Group 4", imt_file(3, 0, g4), IMG_FORMAT_IMT, 204},
        {"IMT Group 3, bit order 7 (any but 1 is natural)", imt_file(1, 7, g3), IMG_FORMAT_IMT, 204},
        {"IMT Group 3, bit order 1", imt_file(1, 1, g3r), IMG_FORMAT_IMT, 204},
        {"BTR Group 3", btr_file(1, g3), IMG_FORMAT_BTR, 200},
        {"KFX", kfx_file(g4r), IMG_FORMAT_KFX, 0},
        {"LSD Group 4, bit order 2: low bit first", lsd_file(0, 2, false, g4r), IMG_FORMAT_LSD, 0},
        {"LSD coding 1, bit order 0: low bit first", lsd_file(1, 0, false, g4r), IMG_FORMAT_LSD, 0},
        {"LSD coding and bit order 0: natural", lsd_file(0, 0, false, g4), IMG_FORMAT_LSD, 0},
        {"LSD data at stream offset 150", lsd_file(0, 1, true, g4), IMG_FORMAT_LSD, 0},
        {"LSD Group 3", lsd_file(2, 1, false, g3), IMG_FORMAT_LSD, 0},
        {"LSD Group 3, bit order 2, at 150", lsd_file(2, 2, true, g3r), IMG_FORMAT_LSD, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        expect_file_decodes(c.file, c.code, c.dpi, corpus_page());
    }
    const std::pair<Bytes, size_t> cuts[] = {{imt_file(2, 1, g4r), 21}, {btr_file(1, g3), 127},
                                             {kfx_file(g4r), 21}, {kfx_file(g4r), 512},
                                             {lsd_file(0, 2, false, g4r), 511}};
    for (const auto& [file, n] : cuts)
        EXPECT_EQ(decode_mem(Bytes(file.begin(), file.begin() + long(n))), IMG_ERR_READ) << n;
    // BTR coding 3 is Group 4 (detection only knows coding 1, so the reader
    // is asked directly); an IMT compression the reader does not know gives
    // the header, no rows and status 0; IMT version 2 is refused.
    const Decoded btr = decode_with(faxcontainers::decode_btr, btr_file(3, g4));
    ASSERT_EQ(btr.status, 0);
    EXPECT_EQ(page_difference(raster_page(btr.raster()), corpus_page()), "");
    const Decoded count = decode_with(faxcontainers::decode_imt, imt_file(2, 1, g4r));
    EXPECT_EQ(count.status, 0);
    EXPECT_FALSE(count.header.empty());
    EXPECT_TRUE(count.order.empty());
    EXPECT_EQ(decode_mem(imt_file(3, 1, g4, 2)), IMG_ERR_UNSUPPORTED);
}

// A MAG file of the given pages (Group 4, first pixel in the low bit): the
// first block at 149 (or 161 with the sizes at 155/157 left 0), each page's
// data followed by the next page's block of 100 bytes.
Bytes mag_file(const std::vector<std::pair<Page, Bytes>>& pages, bool moved) {
    Bytes f = {'W', 'T', 'I'};
    size_t block = moved ? 161 : 149;
    f.resize(block + 108, 0);
    for (const auto& [page, data] : pages) {
        if (f.size() < block + 108) f.resize(block + 108, 0);
        le16(f, block + 6, page.width);
        le16(f, block + 8, page.height);
        const size_t at = block + 108;
        le32(f, block + 100, uint32_t(at));
        le32(f, block + 104, uint32_t(data.size()));
        f.resize(at);
        append(f, data);
        block = f.size();
    }
    return f;
}

TEST(FaxContainers, MagPagesAreCountedAndSelected) {
    std::vector<std::pair<Page, Bytes>> pages;
    pages.emplace_back(corpus_page(), bit_reversed(corpus_g4()));
    for (auto [w, h] : {std::pair{900u, 700u}, std::pair{2000u, 90u}}) {
        Page p = test_page(w, h);
        const Handle handle = page_handle(p);
        int32_t n = 0;
        pages.emplace_back(p, save_mem(handle, 34, &n));  // raw Group 4, bit-reversed
        ASSERT_GT(n, 0);
    }
    for (bool moved : {false, true}) {
        SCOPED_TRACE(moved ? "sizes at 167" : "sizes at 155");
        const std::string path = temp_path("pages.mag");
        write_file(path, mag_file(pages, moved));
        EXPECT_EQ(IMGLOW_get_filetype(path.c_str()), 61);
        EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 3);
        for (int32_t p = 0; p < 3; ++p) {
            const int32_t h = IMG_decompress_bitmap_page(path.c_str(), p);
            ASSERT_GE(h, 0) << p;
            EXPECT_EQ(info_of(h).biXPelsPerMeter, 300);
            EXPECT_EQ(take_difference(h, pages[size_t(p)].first), "") << "page " << p;
        }
        EXPECT_EQ(IMG_decompress_bitmap_page(path.c_str(), 3), IMG_ERR_NO_PAGE);
        EXPECT_EQ(IMG_decompress_bitmap_page(path.c_str(), 60000), IMG_ERR_NO_PAGE);
        fs::remove(path);
    }
}

TEST(FaxContainers, MagDamagedRecords) {
    Page p = test_page(64, 20);
    const Handle handle = page_handle(p);
    int32_t n = 0;
    const Bytes g4 = save_mem(handle, 34, &n);
    const Bytes good = mag_file({{p, g4}, {p, g4}}, false);
    auto page_of = [](const Bytes& f, int32_t page) {
        const Scratch path("bad.mag");
        write_file(path, f);
        return std::pair{int32_t(Handle(IMG_decompress_bitmap_page(path.c_str(), page))),
                         IMGLOW_get_pages(path.c_str())};
    };
    const auto fine = page_of(good, 1);
    EXPECT_GE(fine.first, 0);
    EXPECT_EQ(fine.second, 2);
    auto bad = good;
    le32(bad, 253, 0);  // empty first record: its length is looked for at 261
    EXPECT_EQ(page_of(bad, 0).first, IMG_ERR_NO_PAGE);
    bad = good;
    le16(bad, 155, 0);  // width 0 (height kept): no page
    EXPECT_EQ(page_of(bad, 0).first, IMG_ERR_NO_PAGE);
    bad = good;
    le32(bad, 249, uint32_t(-50));  // the chain loops back
    EXPECT_EQ(page_of(bad, 1).first, IMG_ERR_NO_PAGE);
    EXPECT_EQ(page_of(bad, 0).first, IMG_ERR_NO_PAGE);
    // Cut inside the second page's block: one page, the second missing.
    const Bytes cut(good.begin(), good.begin() + long(257 + g4.size() + 50));
    EXPECT_EQ(page_of(cut, 0).second, 1);
    EXPECT_EQ(page_of(cut, 1).first, IMG_ERR_NO_PAGE);
    // Cut before the first record (no page), or before the sizes (a short header).
    EXPECT_EQ(page_of(Bytes(good.begin(), good.begin() + 200), 0).first, IMG_ERR_NO_PAGE);
    EXPECT_EQ(page_of(Bytes(good.begin(), good.begin() + 156), 0).first, IMG_ERR_READ);
}

}  // namespace
