// TIFF reader: libtiff's test images against their references, the
// reader's rules on files built for the purpose, the directory queries and
// damaged input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include "format_checks.h"
#include "tiff_test.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

const std::string kSuite = corpus("suites/libtiff");
const std::string kCorpus = data_path("corpus");

Handle handle_of(const std::string& path, int32_t page = 0) { return IMG_decompress_bitmap_page(path.c_str(), page); }

}  // namespace

// libtiff's test images: each decodes to Pillow's decode (libtiff
// underneath), 16-bit samples kept whole or by their high bytes, or, for the
// planar grey-with-alpha file Pillow cannot open, to libtiff's tiff2rgba.
// The one file we cannot read is listed with its reason.
TEST(TiffSuite, EveryFileDecodesToItsReference) {
    if (!have_pillow()) GTEST_SKIP() << "no Pillow";
    const std::map<std::string, std::string> refused = {
        {"logluv-3c-16b.tiff", "SGILog compression (34676) of LogLuv data is not read"},
    };
    int checked = 0;
    for (const auto& entry : fs::directory_iterator(kSuite)) {
        const std::string name = entry.path().filename().string();
        const std::string path = entry.path().string();
        if (entry.path().extension() != ".tiff") continue;
        ++checked;
        if (refused.count(name)) {
            EXPECT_LT(handle_of(path), 0) << name << ": " << refused.at(name);
            continue;
        }
        if (name == "quad-tile.jpg.tiff") {
            // Tiled JPEG with shared tables and 2 x 2 chroma, assembled from
            // its tiles; libtiff interpolates chroma where we replicate it.
            const Handle h = IMG_decompress_tiled_bitmap(path.c_str(), 0);
            ASSERT_GE(h, 0) << name;
            EXPECT_GT(psnr(handle_raster(h), pillow(path, "RGB")), 30.0) << name;
            continue;
        }
        const Decoded d = decode_file(path);
        ASSERT_EQ(d.status, 0) << name;
        ASSERT_TRUE(d.complete()) << name;
        if (name == "minisblack-1c-16b.tiff") {
            // 16-bit grey keeps every bit: little-endian samples.
            const Raster ref = pillow(path, "I;16");
            ASSERT_EQ(ref.width, d.width());
            int64_t wrong = 0;
            for (int32_t y = 0; y < ref.height; ++y)
                for (int32_t x = 0; x < ref.width; ++x)
                    wrong += load_le16(&d.rows[size_t(y)][size_t(x) * 2]) != load_be16(ref.at(x, y));
            EXPECT_EQ(wrong, 0) << name;
            continue;
        }
        if (name == "minisblack-2c-8b-alpha.tiff") {
            // Grey with associated alpha in separate planes: the stored grey
            // is kept, the alpha dropped. libtiff's tiff2rgba divides the
            // grey by the alpha; multiplied back it must match ours within
            // rounding.
            if (!have_tool("tiff2rgba")) continue;
            const Scratch rgba("rgba.tif");
            ASSERT_TRUE(run("tiff2rgba -c none '" + path + "' '" + rgba.path + "'"));
            const Raster ref = pillow(rgba, "RGBA");
            ASSERT_EQ(ref.width, d.width());
            int64_t wrong = 0;
            for (int32_t y = 0; y < ref.height; ++y)
                for (int32_t x = 0; x < ref.width; ++x) {
                    const uint8_t* p = ref.at(x, y);
                    wrong += std::abs(int(d.rows[size_t(y)][size_t(x)]) - (p[0] * p[3] + 127) / 255) > 1;
                }
            EXPECT_EQ(wrong, 0) << name;
            continue;
        }
        // 16-bit RGB keeps the high bytes, as Pillow does; old-style LZW
        // (quad-lzw-compat) codes least significant bit first.
        const Raster ref = pillow(path, "RGB");
        ASSERT_GT(ref.width, 0) << name;
        EXPECT_EQ(count_differences(d.raster(), ref, 3), 0u) << name;
    }
    EXPECT_EQ(checked, 12);
}

// The pixel layouts of the corpus pages: depth, compression marker and
// palette, which the conformance suite does not look at.
TEST(TiffRead, PagesArriveInTheirDibLayout) {
    struct Case {
        const char* file;
        int bits;
        uint32_t compression;
    };
    for (const Case& c : {Case{"tone/rgb-none.tif", 24, 0}, Case{"tone/rgba.tif", 32, 200},
                          Case{"tone/cmyk.tif", 32, 0}, Case{"tone/rgb16.tif", 24, 0},
                          Case{"tone/palette4.tif", 4, 0}, Case{"tone/grey-none.tif", 8, 0},
                          Case{"doc/g4.tif", 1, 0}, Case{"doc/g4-strips.tif", 1, 0},
                          Case{"doc/bilevel-lzw.tif", 1, 0}}) {
        const Decoded d = decode_file(kCorpus + "/" + c.file);
        ASSERT_EQ(d.status, 0) << c.file;
        EXPECT_EQ(d.bits(), c.bits) << c.file;
        EXPECT_EQ(d.h().biCompression, c.compression) << c.file;
        EXPECT_EQ(d.h().biSizeImage, row_bytes(uint32_t(d.width()), uint32_t(c.bits)) * uint32_t(d.height()));
        if (c.bits == 8) {
            for (int i = 0; i < 256; ++i) ASSERT_EQ(d.palette()[i].rgbRed, i) << c.file;
        }
        if (c.bits == 1) {
            // Black, white; white runs of WhiteIsZero pages arrive as 1 bits.
            EXPECT_EQ(d.palette()[0].rgbRed, 0);
            EXPECT_EQ(d.palette()[1].rgbRed, 255);
        }
    }
}

// A tiled page decoded with tile index 5 delivers tile 5 alone, sized as a
// tile; the tile and tag queries describe the file. (Whole tiled pages are
// held against their references by the conformance suite; files that are
// not tiled are refused here.)
TEST(TiffRead, TilesAndTheirQueries) {
    const std::string path = kCorpus + "/tone/rgb-tiled.tif";
    const auto file = read_file(path);
    const Decoded t5 = decode(file, 0x80000000u | (5u << 16));
    ASSERT_EQ(t5.status, 0);
    EXPECT_EQ(t5.width(), 64);
    EXPECT_EQ(t5.height(), 64);
    // Tile 5 is the second tile of the second row of tiles (4 across).
    const Raster whole = read_netpbm(kCorpus + "/refs/b8d8b9b4501bf26d.ppm");
    EXPECT_EQ(t5.raster().at(3, 7)[0], whole.at(64 + 3, 64 + 7)[0]);
    EXPECT_EQ(t5.raster().at(3, 7)[2], whole.at(64 + 3, 64 + 7)[2]);

    int32_t info[5] = {};
    EXPECT_EQ(IMGLOW_get_tile_info(path.c_str(), info, 0), 0);
    EXPECT_EQ(std::vector<int32_t>(info, info + 5), (std::vector<int32_t>{227, 149, 64, 64, 12}));
    EXPECT_EQ(IMGLOW_is_tiled_image(path.c_str()), 1);
    const std::string striped = kCorpus + "/tone/rgb-none.tif";
    EXPECT_EQ(IMGLOW_is_tiled_image(striped.c_str()), 0);
    EXPECT_EQ(IMGLOW_get_tile_info(striped.c_str(), info, 0), IMG_ERR_NOT_TILED);
    EXPECT_EQ(IMGLOW_get_tile_info(striped.c_str(), info, 1), IMG_ERR_NO_PAGE);
    const std::string png = kCorpus + "/png/rgb.png";
    EXPECT_EQ(IMGLOW_get_tile_info(png.c_str(), info, 0), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(IMGLOW_is_tiled_image("/nonexistent.tif"), 0);
    EXPECT_EQ(IMG_decompress_tiled_bitmap((kCorpus + "/bmp/rgb24.bmp").c_str(), 0), IMG_ERR_NOT_TILED);
    EXPECT_EQ(IMG_decompress_tiled_bitmap(striped.c_str(), 0), IMG_ERR_NOT_TILED);
    EXPECT_EQ(IMG_decompress_tiled_bitmap("/nonexistent", 0), IMG_ERR_OPEN);
}

// Tag queries on a fax page; its resolution in the header, in dots per inch;
// without ImageLength, width 1728 gives the standard 1045 rows.
TEST(TiffRead, TagQueriesAndFaxPageFields) {
    const std::string path = kCorpus + "/doc/g4.tif";
    Bytes f = read_file(path);
    const Decoded white = decode(f);
    ASSERT_EQ(white.status, 0);
    EXPECT_EQ(white.h().biXPelsPerMeter, 200);
    EXPECT_EQ(white.h().biYPelsPerMeter, 200);
    store_le16(&f[tiff_field(f, 257) - 8], 0x7FFF);  // some private tag number instead of ImageLength
    const Decoded d = decode(f);
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(d.height(), 1045);
    EXPECT_TRUE(d.complete());
    int32_t value = -1;
    char text[64] = {};
    EXPECT_EQ(IMGLOW_get_tiff_tag(256, 0, &value, path.c_str(), nullptr), 0);
    EXPECT_EQ(value, 1728);
    EXPECT_EQ(IMGLOW_get_tiff_tag(282, 0, &value, path.c_str(), nullptr), 0);  // RATIONAL
    EXPECT_EQ(value, 200);
    // ASCII: copied into the buffer, at most its size.
    const int32_t n = IMGLOW_get_tiff_tag(305, sizeof text, &value, path.c_str(), text);
    EXPECT_GT(n, 10);
    EXPECT_EQ(std::string(text).rfind("GPL Ghostscript", 0), 0u);
    EXPECT_EQ(IMGLOW_get_tiff_tag(305, 3, &value, path.c_str(), text), 3);
    EXPECT_EQ(IMGLOW_get_tiff_tag(999, 0, &value, path.c_str(), nullptr), IMG_ERR_NOT_FOUND);
    // PageNumber (two SHORTs): the whole value field.
    const std::string multi = kCorpus + "/doc/multipage-g4.tif";
    EXPECT_EQ(IMGLOW_get_tiff_tag_page(257, 0, &value, multi.c_str(), nullptr, 2), 0);
    EXPECT_EQ(value, 2200);
    EXPECT_EQ(IMGLOW_get_tiff_tag_page(257, 0, &value, multi.c_str(), nullptr, 3), IMG_ERR_NO_PAGE);
    // A page beyond the directory chain (the pages on it: the conformance suite).
    EXPECT_EQ(handle_of(multi, 3), IMG_ERR_NO_PAGE);
    const std::string png = kCorpus + "/png/rgb.png";
    EXPECT_EQ(IMGLOW_get_tiff_tag(256, 0, &value, png.c_str(), nullptr), IMG_ERR_UNSUPPORTED);
    const int fd = open(multi.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    lseek(fd, 100, SEEK_SET);  // the stream variant starts from offset 0 itself
    EXPECT_EQ(IMGLOW_get_tiff_tag_page_fd(256, 0, &value, fd, nullptr, 1), 0);
    EXPECT_EQ(value, 1700);
    close(fd);
}

// The directory listing decodes the signed and floating field types in
// either byte order (the unsigned ones and ASCII: the CLI's tag listing
// against libtiff's tiffdump) and sizes its array with a first call.
TEST(TiffRead, DirectoryListing) {
    for (bool big : {false, true}) {
        SCOPED_TRACE(big ? "big-endian" : "little-endian");
        TiffBuilder b(big);
        const uint32_t strip = b.add_data(Bytes(4, 0));
        b.add_long(256, 8);
        b.add_long(257, 4);
        b.add_long(273, strip);
        auto be_or_le = [&](Bytes v) {
            if (!big) std::reverse(v.begin(), v.end());
            return v;
        };
        b.entries.push_back({0x8001, 6, 1, {0xFB}});                        // SBYTE -5
        b.entries.push_back({0x8002, 8, 1, be_or_le({0xFF, 0xFE})});        // SSHORT -2
        b.entries.push_back({0x8003, 12, 1, be_or_le({0x3F, 0xF8, 0, 0, 0, 0, 0, 0})});  // 1.5
        Bytes srational = be_or_le({0xFF, 0xFF, 0xFF, 0xFF});  // -1 / 3
        const Bytes three = be_or_le({0, 0, 0, 3});
        srational.insert(srational.end(), three.begin(), three.end());
        b.entries.push_back({0x8004, 10, 1, srational});
        b.set_first(b.finish_directory());
        const Scratch path("listing.tif");
        write_file(path, b.bytes);

        const int32_t n = IMGLOW_get_tiff_directory(path.c_str(), 0, nullptr, 0);
        ASSERT_EQ(n, 7);
        std::vector<IMG_TIFF_FIELD> f(size_t(n) + 2, IMG_TIFF_FIELD{0xEEEE, 0, 0, 0, {}});
        EXPECT_EQ(IMGLOW_get_tiff_directory(path.c_str(), 0, f.data(), 3), n);
        EXPECT_EQ(f[2].tag, 273);
        EXPECT_EQ(f[3].tag, 0xEEEE) << "no more than max entries written";
        ASSERT_EQ(IMGLOW_get_tiff_directory(path.c_str(), 0, f.data(), n + 2), n);
        std::map<uint16_t, IMG_TIFF_FIELD> by_tag;
        for (int32_t i = 0; i < n; ++i) by_tag[f[size_t(i)].tag] = f[size_t(i)];
        EXPECT_EQ(by_tag[256].value[0], 8u);
        EXPECT_EQ(int32_t(by_tag[0x8001].value[0]), -5);
        EXPECT_EQ(int32_t(by_tag[0x8002].value[0]), -2);
        const uint64_t bits = uint64_t(by_tag[0x8003].value[1]) << 32 | by_tag[0x8003].value[0];
        double d;
        std::memcpy(&d, &bits, sizeof d);
        EXPECT_EQ(d, 1.5);
        EXPECT_EQ(int32_t(by_tag[0x8004].value[0]), -1);
        EXPECT_EQ(by_tag[0x8004].value[1], 3u);

        EXPECT_EQ(IMGLOW_get_tiff_directory(path.c_str(), 1, f.data(), n), IMG_ERR_NO_PAGE);
        // Cut inside the directory.
        Bytes cut(b.bytes.begin(), b.bytes.end() - 30);
        write_file(path, cut);
        EXPECT_LT(IMGLOW_get_tiff_directory(path.c_str(), 0, f.data(), n), 0);
    }
    const std::string png = kCorpus + "/png/rgb.png";
    EXPECT_EQ(IMGLOW_get_tiff_directory(png.c_str(), 0, nullptr, 0), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(IMGLOW_get_tiff_directory("/nonexistent.tif", 0, nullptr, 0), IMG_ERR_OPEN);
}

// Channel mode (a negative page): one byte of each pixel as 8-bit grey.
TEST(TiffRead, ChannelMode) {
    const auto file = read_file(kCorpus + "/tone/rgb-none.tif");
    const Decoded whole = decode(file);
    const Decoded green = decode(file, uint32_t(-1));
    ASSERT_EQ(green.status, 0);
    EXPECT_EQ(green.bits(), 8);
    const Raster rgb = whole.raster();
    for (int32_t x = 0; x < whole.width(); x += 17) EXPECT_EQ(green.rows[40][size_t(x)], rgb.at(x, 40)[1]);
    EXPECT_EQ(decode(file, uint32_t(-3)).status, IMG_ERR_BAD_IMAGE);  // RGB has bytes 0 to 2
}

// Compressed data that ends early, directories that loop or point outside
// the file, counts no file can hold, zero tile sizes: negative statuses.
TEST(TiffRead, DamagedFilesFailCleanly) {
    const Bytes lzw = read_file(kCorpus + "/tone/rgb-lzw.tif");
    const Bytes packbits = read_file(kCorpus + "/tone/rgb-packbits.tif");
    const Bytes none = read_file(kCorpus + "/tone/rgb-none.tif");
    const Bytes g4 = read_file(kCorpus + "/doc/g4-strips.tif");

    auto with = [](Bytes f, size_t at, uint32_t v) {
        store_le32(&f[at], v);
        return f;
    };
    Bytes wide = with(lzw, tiff_field(lzw, 256), 0x00FFFFFF);
    store_le16(&wide[tiff_field(lzw, 256) - 6], 4);
    Bytes two_entries = none, not_tiff = none;
    store_le16(&two_entries[load_le32(&none[4])], 2);  // entry counts outside 3..550
    not_tiff[0] = 'X';
    TiffBuilder b;
    b.add_long(256, 64);
    b.add_long(257, 64);
    b.add_long(322, 0);
    b.add_long(323, 16);
    b.add_long(324, 8);
    const Bytes zero_tile = b.finish();
    expect_statuses(tiff::decode, {
        {"uncompressed strips cut short", Bytes(none.begin(), none.begin() + 50000), IMG_ERR_BAD_IMAGE},
        {"first directory beyond the file", with(none, 4, 0x7FFFFF00), IMG_ERR_BAD_IMAGE},
        {"StripOffsets array beyond the file", with(none, tiff_field(none, 273), 0x7FFFF000), IMG_ERR_READ},
        {"a width no stream can back", wide, IMG_ERR_BAD_IMAGE},
        {"two directory entries", two_entries, IMG_ERR_BAD_IMAGE},
        {"wrong byte order word", not_tiff, IMG_ERR_UNSUPPORTED},
        {"6 bytes", Bytes(none.begin(), none.begin() + 6), IMG_ERR_BAD_IMAGE},
        {"tile width 0", zero_tile, IMG_ERR_BAD_IMAGE},
    });
    // A directory chain that loops: the pages end where it loops.
    Bytes f = none;
    const uint32_t ifd = load_le32(&f[4]);
    const uint32_t n = load_le16(&f[ifd]);
    store_le32(&f[ifd + 2 + 12 * n], ifd);
    EXPECT_EQ(decode(f, 0x80000005u).status, IMG_ERR_NO_PAGE);
    const Scratch loop("loop.tif"), zero("zero-tile.tif");
    write_file(loop, f);
    EXPECT_EQ(IMGLOW_get_pages(loop.c_str()), 1);
    EXPECT_EQ(IMGLOW_get_tiff_tag_page(256, 0, nullptr, loop.c_str(), nullptr, 4), IMG_ERR_NO_PAGE);
    write_file(zero, zero_tile);
    int32_t info[5];
    EXPECT_EQ(IMGLOW_get_tile_info(zero.c_str(), info, 0), IMG_ERR_BAD_IMAGE);
    EXPECT_LT(IMG_decompress_tiled_bitmap(zero.c_str(), 0), 0);
    // Every truncation of a Group 4 and an LZW file: a status, never a crash.
    for (const auto* src : {&g4, &lzw, &packbits}) {
        for (size_t cut = 8; cut < src->size(); cut += src->size() / 97 + 1) decode(Bytes(src->begin(), src->begin() + long(cut)));
    }
}

// A damaged LZW strip in the middle of a page: its rows arrive as far as
// they decoded and the rest of the page decodes.
TEST(TiffRead, LzwStripWithABadCodeDoesNotStopThePage) {
    Bytes f = read_file(kCorpus + "/tone/rgb-lzw-strips.tif");
    const uint32_t offsets = load_le32(&f[tiff_field(f, 273)]);
    const uint32_t strip3 = load_le32(&f[offsets + 12]);
    for (int i = 40; i < 60; ++i) f[strip3 + uint32_t(i)] = 0xFF;
    const Decoded d = decode(f);
    EXPECT_EQ(d.status, 0);
    EXPECT_TRUE(d.complete());
    const Raster ref = read_netpbm(kCorpus + "/refs/b8d8b9b4501bf26d.ppm");
    // Strips other than the damaged one are intact.
    EXPECT_EQ(d.raster().at(100, 100)[0], ref.at(100, 100)[0]);
}

// Old-style JPEG (compression 6 with the tables in the directory): a
// baseline JPEG file taken apart into tables and entropy-coded data decodes
// to what the JPEG decoder makes of the file itself.
TEST(TiffRead, OldStyleJpeg) {
    const Bytes jpg = read_file(kCorpus + "/jpeg/420.jpg");
    // cjpeg writes one table a segment.
    std::map<int, Bytes> quant, huff;  // by table id; huff: class * 4 + id
    int width = 0, height = 0, h1 = 1, v1 = 1, tq[3] = {}, td[3] = {}, ta[3] = {};
    size_t data = 0;
    for (size_t pos = 2; pos + 4 <= jpg.size() && !data;) {
        const int marker = jpg[pos + 1];
        const size_t len = load_be16(&jpg[pos + 2]);
        const uint8_t* seg = &jpg[pos + 4];
        if (marker == 0xDB) quant[seg[0] & 15].assign(seg + 1, seg + 65);
        if (marker == 0xC4) huff[(seg[0] >> 4) * 4 + (seg[0] & 15)].assign(seg + 1, seg + len - 2);
        if (marker == 0xC0) {
            height = load_be16(seg + 1);
            width = load_be16(seg + 3);
            h1 = seg[7] >> 4;
            v1 = seg[7] & 15;
        }
        for (int c = 0; c < 3 && marker == 0xC0; ++c) tq[c] = seg[8 + 3 * c];
        for (int c = 0; c < 3 && marker == 0xDA; ++c) {
            td[c] = seg[2 + 2 * c] >> 4;
            ta[c] = seg[2 + 2 * c] & 15;
        }
        pos += 2 + len;
        if (marker == 0xDA) data = pos;
    }
    ASSERT_GT(data, 0u);
    ASSERT_EQ(jpg[jpg.size() - 2], 0xFF);
    TiffBuilder b;
    const uint32_t strip = b.add_data(Bytes(jpg.begin() + long(data), jpg.end() - 2));
    std::vector<uint32_t> q, dc, ac;
    for (int c = 0; c < 3; ++c) {
        q.push_back(b.add_data(quant[tq[c]]));
        dc.push_back(b.add_data(huff[td[c]]));
        ac.push_back(b.add_data(huff[4 + ta[c]]));
    }
    b.add_long(256, uint32_t(width));
    b.add_long(257, uint32_t(height));
    b.add(258, 3, {8, 8, 8});
    b.add_short(259, 6);
    b.add_short(262, 6);
    b.add_long(273, strip);
    b.add_short(277, 3);
    b.add_long(278, uint32_t(height));
    b.add_long(279, uint32_t(jpg.size() - 2 - data));
    b.add_short(512, 1);
    b.add(519, 4, q);
    b.add(520, 4, dc);
    b.add(521, 4, ac);
    b.add(530, 3, {uint32_t(h1), uint32_t(v1)});
    b.set_first(b.finish_directory());

    const Decoded whole = jpeg_rows(jpg);
    ASSERT_EQ(whole.status, 0);
    const Decoded d = decode(b.bytes);
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(d.width(), width);
    EXPECT_EQ(d.bits(), 24);
    EXPECT_TRUE(d.rows == whole.rows);
}

namespace {

using Extra = std::vector<std::pair<uint16_t, std::vector<uint32_t>>>;

// A one-strip uncompressed page of the given samples.
Bytes page_of(uint32_t width, uint32_t height, std::vector<uint32_t> bits, uint32_t photometric, const Bytes& data,
              bool big = false, const Extra& extra = {}) {
    return tiff_page(width, height, std::move(bits), photometric, {data}, 1, 0, extra, big);
}

}  // namespace

// Sample layouts the corpus does not hold, each with the DIB row it becomes.
TEST(TiffRead, SampleLayouts) {
    struct Layout {
        const char* what;
        uint32_t width;
        std::vector<uint32_t> bits;
        uint32_t photometric;
        Bytes data;
        bool big;
        Extra extra;
        int dib_bits;  // 0: not checked
        Bytes row;     // the start of the delivered row
    };
    const Layout layouts[] = {
        // 4-bit pixels of value x 4 under the 16-level ramp.
        {"2-bit grey", 4, {2}, 1, {0x1B}, false, {}, 4, {0x04, 0x8C}},
        {"16-bit grey, big-endian file: little-endian samples", 2, {16}, 1, {0x12, 0x34, 0xAB, 0xCD}, true, {}, 16,
         {0x34, 0x12, 0xCD, 0xAB}},
        {"12-bit grey: 16-bit samples shifted up by 4", 2, {12}, 1, {0xAB, 0xC1, 0x23}, false, {}, 0, {0xC0, 0xAB, 0x30, 0x12}},
        {"grey and alpha: the grey", 2, {8, 8}, 1, {10, 200, 20, 100}, false, {}, 8, {10, 20}},
        {"WhiteIsZero grey: inverted", 2, {8}, 0, {10, 250}, false, {}, 0, {245, 5}},
        {"4-bit RGB: value x 16, blue first", 1, {4, 4, 4}, 2, {0x12, 0x30}, false, {}, 0, {48, 32, 16}},
        {"separated, three samples: 255 - sample", 1, {8, 8, 8}, 5, {10, 20, 30}, false, {}, 0, {225, 235, 245}},
        // Y0, Y1, Cb, Cr for two pixels; each correction truncated
        // (1.772 x 72 = 127.6, 0.34414 x 72 = 24.8).
        {"YCbCr subsampled 2 x 1", 2, {8, 8, 8}, 6, {100, 150, 200, 128}, false, {{530, {2, 1}}}, 24,
         {227, 76, 100, 255, 126, 150}},
        {"horizontal differencing of 16-bit samples", 2, {16}, 1, {0xE8, 0x03, 0x05, 0x00}, false, {{317, {2}}}, 0,
         {0xE8, 0x03, 0xED, 0x03}},
        {"fill order 2: the bits of each byte reversed", 8, {1}, 1, {0x01}, false, {{266, {2}}}, 0, {0x80}},
    };
    for (const Layout& l : layouts) {
        const Decoded d = decode(page_of(l.width, 1, l.bits, l.photometric, l.data, l.big, l.extra));
        ASSERT_EQ(d.status, 0) << l.what;
        if (l.dib_bits) { EXPECT_EQ(d.bits(), l.dib_bits) << l.what; }
        EXPECT_EQ(Bytes(d.rows[0].begin(), d.rows[0].begin() + long(l.row.size())), l.row) << l.what;
    }
    EXPECT_EQ(decode(page_of(4, 1, {2}, 1, {0x1B})).palette()[4].rgbRed, 64);
    // CIELab: L 100 (255) is white, L 0 nearly black (the conversion keeps
    // the 16 / 116 offset of its cube root: 9).
    Decoded d = decode(page_of(2, 1, {8, 8, 8}, 8, {255, 0, 0, 0, 0, 0}));
    ASSERT_EQ(d.status, 0);
    for (int i = 0; i < 3; ++i) EXPECT_GE(d.rows[0][size_t(i)], 250);
    for (int i = 3; i < 6; ++i) EXPECT_EQ(d.rows[0][size_t(i)], 9);
    // A colour map of 8-bit levels is taken as it is.
    std::vector<uint32_t> map(3 * 16, 0);
    map[1] = 200, map[16 + 1] = 100, map[32 + 1] = 50;  // red, green, blue of entry 1
    d = decode(page_of(2, 1, {4}, 3, {0x10}, false, {{320, map}}));
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(d.palette()[1].rgbRed, 200);
    EXPECT_EQ(d.palette()[1].rgbGreen, 100);
    EXPECT_EQ(d.palette()[1].rgbBlue, 50);
    // Resolution 200 per centimetre is reported as 508 dots per inch.
    d = decode(page_of(8, 1, {1}, 1, {0x55}, false, {{282, {200, 1}}, {283, {400, 2}}, {296, {3}}}));
    EXPECT_EQ(d.h().biXPelsPerMeter, 508);
    EXPECT_EQ(d.h().biYPelsPerMeter, 508);
    // PackBits runs may run past the end of a row into the next one.
    Bytes packbits = page_of(4, 2, {8}, 1, {uint8_t(257 - 8), 77});
    store_le16(&packbits[tiff_field(packbits, 259)], 32773);
    d = decode(packbits);
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(d.rows[0][3], 77);
    EXPECT_EQ(d.rows[1][0], 77);
}

// JPEG pages with photometric RGB hold their components without colour
// conversion (as libtiff writes them, with no marker saying so).
TEST(TiffRead, JpegPagesInRgb) {
    if (!have_tool("tiffcp") || !have_pillow()) GTEST_SKIP() << "tiffcp or Pillow missing";
    const Scratch path("jpeg-rgb.tif");
    ASSERT_TRUE(run("tiffcp -c jpeg:r -r 16 '" + kCorpus + "/tone/rgb-none.tif' '" + path.path + "'"));
    const Decoded d = decode_file(path);
    ASSERT_EQ(d.status, 0);
    EXPECT_GT(psnr(d.raster(), pillow(path, "RGB")), 40.0);
}

// Compression 32010 goes to the ABIC module, with the page's size and
// depth read from its directory.
TEST(TiffRead, AbicPagesGoToTheModule) {
    Bytes f = page_of(20, 6, {1}, 0, Bytes(40, 0));
    store_le16(&f[tiff_field(f, 259)], 32010);
    void* block = to_block(f);
    EXPECT_EQ(IMGLOW_get_filetype_mem(block), 46);
    IMG_unload_plugins();
    tesslin_set_plugin_dir((std::string(TESSLIN_TEST_PLUGINS) + "/abicmod").c_str());
    const Handle h = IMG_decompress_bitmap_mem(block, 0);
    tesslin_set_plugin_dir(nullptr);
    IMG_unload_plugins();
    tesslin_block_free(block);
    ASSERT_GE(h, 0);
    const DibHeader info = info_of(h);
    EXPECT_EQ(std::vector<int32_t>({info.biWidth, info.biHeight, info.biBitCount}), std::vector<int32_t>({20, 6, 1}));
}
