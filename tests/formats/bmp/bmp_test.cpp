// BMP reader and writers: the corpus and BMP Suite against independent
// references, and the reader's and writers' documented behaviour.
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <set>

#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

const std::string kSuite = corpus("suites/bmpsuite/");

// Little BMP files built in the tests.
Bytes bmp_file(int32_t width, int32_t height, uint16_t bits, uint32_t compression,
                              const Bytes& palette, const Bytes& data,
                              int32_t ppm = 0) {
    Bytes f(54, 0);
    f[0] = 'B';
    f[1] = 'M';
    store_le32(&f[2], uint32_t(54 + palette.size() + data.size()));
    store_le32(&f[10], uint32_t(54 + palette.size()));
    store_le32(&f[14], 40);
    store_le32(&f[18], uint32_t(width));
    store_le32(&f[22], uint32_t(height));
    store_le16(&f[26], 1);
    store_le16(&f[28], bits);
    store_le32(&f[30], compression);
    store_le32(&f[38], uint32_t(ppm));
    store_le32(&f[42], uint32_t(ppm));
    f.insert(f.end(), palette.begin(), palette.end());
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

Bytes grey_palette(int entries) {
    Bytes p;
    for (int i = 0; i < entries; ++i) {
        const auto v = uint8_t(i * 255 / (entries - 1));
        p.insert(p.end(), {v, v, v, 0});
    }
    return p;
}

}  // namespace

// Every good file of BMP Suite against Pillow's decode (tests/data/bmp/
// make_refs.py wrote the references). Where the library converts by its own
// documented rules the comparison follows them:
// - 16-bit pixels are widened by shifting (a 5-bit field times 8, a 6-bit
//   field times 4, so 31 becomes 248), while Pillow spreads them over 0..255
//   (31 becomes 255): the fields themselves are compared.
// - A bilevel image is always held with palette black, white (a palette of
//   white, black inverts the pixels; other colours are replaced): the two
//   colours must map one to one onto Pillow's.
// - 32-bit files are read as 24-bit (their fourth byte is not alpha).
// Two files are held against the uncompressed file with the same picture
// (bmpsuite.tsv says which): Pillow refuses rgb32bf.bmp's mask layout, and
// reads pal4rle.bmp's odd-length absolute runs one pixel short.
TEST(BmpRead, BmpSuiteGoodFilesDecodeToWhatPillowShows) {
    const std::map<std::string, std::array<int, 3>> sixteen = {
        {"g/rgb16.bmp", {5, 5, 5}},     {"g/rgb16bfdef.bmp", {5, 5, 5}},
        {"g/rgb16-565.bmp", {5, 6, 5}}, {"g/rgb16-565pal.bmp", {5, 6, 5}}};
    const auto rows = read_tsv(data_path("bmp/bmpsuite.tsv"));
    ASSERT_EQ(rows.size(), 27u);
    for (const auto& row : rows) {
        SCOPED_TRACE(row[0]);
        const Handle h = IMG_decompress_bitmap((kSuite + row[0]).c_str());
        ASSERT_GE(h, 0);
        const Raster ours = handle_raster(h);
        const Raster ref = read_netpbm(data_path("bmp/" + row[1]));
        int32_t w = 0, ht = 0, bits = 0;
        IMG_bitmap_info(h, &w, &ht, &bits);
        ASSERT_EQ(ours.width, ref.width);
        ASSERT_EQ(ours.height, ref.height);
        if (auto it = sixteen.find(row[0]); it != sixteen.end()) {
            EXPECT_EQ(bits, 24);
            size_t bad = 0;
            for (size_t i = 0; i < ref.px.size(); ++i) {
                const int field = it->second[i % 3];
                const int max = (1 << field) - 1;
                bad += ours.px[i] != ((ref.px[i] * max + 127) / 255) << (8 - field);
            }
            EXPECT_EQ(bad, 0u);
        } else if (bits == 1) {
            std::map<uint32_t, uint32_t> mapping;
            std::set<uint32_t> seen;
            size_t bad = 0;
            for (size_t i = 0; i < ref.px.size(); i += 3) {
                const uint32_t a = ref.px[i] << 16 | ref.px[i + 1] << 8 | ref.px[i + 2];
                const uint32_t b = ours.px[i] << 16 | ours.px[i + 1] << 8 | ours.px[i + 2];
                auto [pos, fresh] = mapping.emplace(a, b);
                if (!fresh) bad += pos->second != b;
                if (fresh) bad += !seen.insert(b).second;
            }
            EXPECT_EQ(bad, 0u);
        } else {
            EXPECT_EQ(count_differences(ours, ref, 3), 0u);
        }
    }
}

// Questionable and bad files: each decodes or returns a negative status,
// and the ones whose data cannot be an image are refused.
TEST(BmpRead, BmpSuiteQuestionableAndBadFilesDecodeOrFailCleanly) {
    size_t decoded = 0, refused = 0;
    for (const char* dir : {"q", "b"}) {
        for (const auto& e : fs::directory_iterator(kSuite + dir)) {
            SCOPED_TRACE(e.path().string());
            const Handle h = IMG_decompress_bitmap(e.path().c_str());
            if (h >= 0) {
                ++decoded;
                EXPECT_GT(handle_raster(h).width, 0);  // every row readable
            } else {
                ++refused;
            }
        }
    }
    EXPECT_EQ(decoded + refused, 63u);
    const std::map<std::string, int32_t> expected = {
        {"b/reallybig.bmp", IMG_ERR_BAD_IMAGE},   {"b/badwidth.bmp", IMG_ERR_BAD_IMAGE},
        {"b/badbitcount.bmp", IMG_ERR_DEPTH},     {"b/shortfile.bmp", IMG_ERR_READ},
        {"b/rletopdown.bmp", IMG_ERR_BAD_IMAGE},  {"q/pal2.bmp", IMG_ERR_DEPTH},
        {"q/pal1huffmsb.bmp", IMG_ERR_VARIANT},
    };
    for (const auto& [file, status] : expected) {
        SCOPED_TRACE(file);
        EXPECT_EQ(IMG_decompress_bitmap((kSuite + file).c_str()), status);
    }
}

TEST(BmpRead, BareDibInMemoryDecodesLikeTheFile) {
    Bytes file = read_file(kSuite + "g/pal8.bmp");
    Bytes bare(file.begin() + 14, file.end());
    void* block = to_block(bare);
    const Handle a = IMG_create_handle(block);
    const Handle b = IMG_decompress_bitmap((kSuite + "g/pal8.bmp").c_str());
    tesslin_block_free(block);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    EXPECT_EQ(count_differences(handle_raster(a), handle_raster(b), 3), 0u);
    // A bare DIB's resolution fields are dots per inch already, a file's
    // pixels per metre (2835 -> 72); a bare DIB's value that large (2001 or
    // more) is converted too.
    EXPECT_EQ(info_of(b).biXPelsPerMeter, 72);
    EXPECT_EQ(info_of(a).biXPelsPerMeter, 72);
}

// Files built here: the status of each and the start of its rows, top first.
TEST(BmpRead, BuiltFilesGiveTheirRowsOrStatus) {
    // A bare 1-bit DIB of compression 99, 40 x 2: row 0 black 8..16, row 1 white.
    Bytes records;
    for (uint8_t w : {28, 8, 16, 40, 40, 40, 40, 20, 40, 40, 40, 40}) records.insert(records.end(), {w, 0, 0, 0});
    Bytes runs = bmp_file(40, 2, 1, IMG_COMPRESSION_RUNS, {0, 0, 0, 0, 255, 255, 255, 0}, records);
    runs.erase(runs.begin(), runs.begin() + 14);
    Bytes long_record = runs;
    store_le32(&long_record[48], 4000);
    const Bytes white_black = bmp_file(8, 2, 1, 0, {255, 255, 255, 0, 0, 0, 0, 0}, {0x00, 0, 0, 0, 0xFF, 0, 0, 0});
    struct Case {
        const char* what;
        Bytes file;
        int32_t status;
        std::vector<Bytes> rows;
    };
    const Case cases[] = {
        // Palette white, black becomes black, white with the pixels inverted.
        {"white/black palette, top row black", white_black, 0, {{0x00}, {0xFF}}},
        // From the bottom: delta (5, 1), a run of 3 pixels of 7, end of row, a
        // run of 4 pixels of 2, end of bitmap; the row buffer is not cleared.
        {"RLE8 delta", bmp_file(8, 3, 8, 1, grey_palette(256), {0, 2, 5, 1, 3, 7, 0, 0, 4, 2, 0, 1}), 0,
         {{2, 2, 2, 2, 0, 7, 7, 7}, {0, 0, 0, 0, 0, 7, 7, 7}, {0, 0, 0, 0, 0, 0, 0, 0}}},
        {"run records", runs, 0, {{0xFF, 0x00}, {0xFF, 0xFF}}},
        {"a record longer than any row can need", long_record, IMG_ERR_BAD_IMAGE, {}},
        // 1.2 GB of rows declared, refused before allocation.
        {"20000 x 20000 at 24 bits from 16 bytes", bmp_file(20000, 20000, 24, 0, {}, Bytes(16)), IMG_ERR_READ, {}},
        {"RLE8 expanding beyond reason", bmp_file(30000, 30000, 8, 1, grey_palette(256), {0, 1}), IMG_ERR_BAD_IMAGE, {}},
        {"only the last row's padding missing", bmp_file(3, 2, 24, 0, {}, Bytes(12 + 9, 0x40)), 0, {}},
    };
    for (const Case& c : cases) {
        const Handle h = decode_mem(c.file);
        EXPECT_EQ(std::min(int32_t(h), 0), c.status) << c.what;
        for (size_t y = 0; y < c.rows.size() && h >= 0; ++y) {
            const Bytes row = get_row(h, int32_t(y));
            EXPECT_EQ(Bytes(row.begin(), row.begin() + long(c.rows[y].size())), c.rows[y]) << c.what << " row " << y;
        }
    }
    // Index 0 is black now, index 1 white.
    const Raster r = handle_raster(Handle(decode_mem(white_black)));
    EXPECT_EQ(r.at(0, 0)[0] | r.at(0, 0)[1] | r.at(0, 0)[2], 0);
    EXPECT_EQ(r.at(0, 1)[0] & r.at(0, 1)[1] & r.at(0, 1)[2], 255);
}

// Embedded JPEG data (compression 4, or the code "JPEG") is decoded by the
// JPEG decoder: the same image as the JPEG data on its own (the corpus file,
// BMP Suite's rgb24jpeg.bmp from its data offset), and the JPEG decoder's
// refusal for a stream without any scan.
TEST(BmpRead, EmbeddedJpegGoesToTheJpegDecoder) {
    EXPECT_EQ(decode_mem(bmp_file(4, 4, 0, 4, {}, {0xFF, 0xD8, 0xFF, 0xD9})), IMG_ERR_BAD_IMAGE);
    const Bytes jpg = read_file(corpus("jpeg/444.jpg")), suite = read_file(kSuite + "q/rgb24jpeg.bmp");
    Bytes code = bmp_file(454, 298, 0, 4, {}, jpg);
    store_le32(&code[30], 0x4745504Au);
    for (const auto& [bmp, data] : {std::pair{bmp_file(454, 298, 0, 4, {}, jpg), jpg}, std::pair{code, jpg},
                                    std::pair{suite, Bytes(suite.begin() + load_le32(&suite[10]), suite.end())}}) {
        const Handle from_bmp = decode_mem(bmp), from_jpeg = decode_mem(data);
        ASSERT_GE(from_bmp, 0);
        ASSERT_GE(from_jpeg, 0);
        EXPECT_EQ(count_differences(handle_raster(from_bmp), handle_raster(from_jpeg), 3), 0u);
    }
}
