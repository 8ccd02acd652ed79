// PCX and DCX: files made by Pillow and ImageMagick decode to their pixels,
// what we write reads back exactly in both, the reader's rules on files
// built here, damaged data, and an append to a full page table. (The
// corpus' PCX and DCX pages are checked by the conformance suite.)
#include <gtest/gtest.h>

#include "formats/pcx/pcx.h"
#include "format_checks.h"
#include "peer_decode.h"
#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// A PCX file: the header fields given, each line's bytes as literals (or as
// a run of one when the byte looks like a count), then `tail`.
struct PcxHeader {
    uint8_t version = 5, bits = 8, planes = 1;
    uint16_t xmin = 0, ymin = 0, xmax = 0, ymax = 0, bytes_per_line = 0, palette_info = 1;
    Bytes header_palette;  // up to 48 bytes
};
Bytes pcx_file(const PcxHeader& s, const std::vector<Bytes>& lines, const Bytes& tail = {}) {
    Bytes f(128, 0);
    f[0] = 10, f[1] = s.version, f[2] = 1, f[3] = s.bits;
    store_le16(&f[4], s.xmin), store_le16(&f[6], s.ymin), store_le16(&f[8], s.xmax), store_le16(&f[10], s.ymax);
    std::copy(s.header_palette.begin(), s.header_palette.end(), f.begin() + 16);
    f[65] = s.planes;
    store_le16(&f[66], s.bytes_per_line), store_le16(&f[68], s.palette_info);
    for (const Bytes& line : lines)
        for (uint8_t b : line) {
            if (b >= 0xC0) f.push_back(0xC1);
            f.push_back(b);
        }
    f.insert(f.end(), tail.begin(), tail.end());
    return f;
}

Decoded read_pcx(const Bytes& file) { return decode_with(pcx::decode, file); }
Decoded read_dcx(const Bytes& file, uint32_t page) {
    return decode_with(pcx::decode_dcx, file, page ? kPositionIsPage | page : 0);
}

// Peer-made files: Pillow's four modes, ImageMagick's 8-bit, 24-bit and
// 1-bit PCX and a four-page DCX (two 256-colour pages with palettes of
// their own, a 1-bit page whose palette is white, black, a 24-bit page).
const char* kPillowScript = R"(
import random, sys
from PIL import Image
random.seed(5)
d = sys.argv[1]
for mode, n in [('1', 2), ('L', 256), ('P', 200), ('RGB', 0)]:
    im = Image.new(mode, (43, 27))
    if mode == 'P':
        im.putpalette([random.randrange(256) for _ in range(3 * n)])
    px = [tuple(random.randrange(256) for _ in range(3)) if mode == 'RGB' else random.randrange(n) * (255 if mode == '1' else 1) for _ in range(43 * 27)]
    im.putdata(px)
    im.save('%s/pil_%s.pcx' % (d, mode))
)";

// ImageMagick reads a 1-bit PCX page as 0 white, 1 black whatever its
// header palette says; Pillow and this reader follow the palette (0 black
// unless the palette is white, black). The pixels ImageMagick shows for a
// page that this reader decodes to `ours`.
Raster as_magick_shows(const Bytes& file, int page, Raster ours) {
    size_t at = 0;
    if (load_le32(file.data()) == pcx::kDcxMagic) at = load_le32(&file[4 + 4 * size_t(page)]);
    const uint8_t* h = &file[at];
    if (h[3] == 1 && h[65] == 1 && !(h[16] && h[17] && h[18]))
        for (uint8_t& v : ours.px) v = uint8_t(255 - v);
    return ours;
}

}  // namespace

TEST(PcxPeers, FilesOfPillowAndImageMagickDecodeToTheirPixels) {
    if (!have_pillow() || !have_tool("/usr/bin/convert")) GTEST_SKIP() << "Pillow or ImageMagick missing";
    const std::string d = temp_path("pcx_peers");
    fs::create_directories(d);
    write_file(d + "/make.py", Bytes(kPillowScript, kPillowScript + std::strlen(kPillowScript)));
    ASSERT_TRUE(run("/usr/bin/python3 '" + d + "/make.py' '" + d + "'"));
    ASSERT_TRUE(run("cd '" + d + "' && /usr/bin/convert -respect-parentheses -seed 3 -size 37x21 xc: +noise Random "
                    "\\( +clone -colors 200 -write im8.pcx \\) \\( +clone -write im24.pcx +delete \\) "
                    "\\( -size 37x21 plasma:fractal -colors 30 \\) \\( +clone -monochrome -write im1.pcx \\) "
                    "\\( -size 37x21 gradient:red-blue \\) -delete 0 im.dcx"));
    struct Case { const char* file; int pages; int32_t code; };
    const Case cases[] = {{"pil_1.pcx", 1, IMG_FORMAT_PCX}, {"pil_L.pcx", 1, IMG_FORMAT_PCX},
                          {"pil_P.pcx", 1, IMG_FORMAT_PCX}, {"pil_RGB.pcx", 1, IMG_FORMAT_PCX},
                          {"im8.pcx", 1, IMG_FORMAT_PCX}, {"im24.pcx", 1, IMG_FORMAT_PCX},
                          {"im1.pcx", 1, IMG_FORMAT_PCX}, {"im.dcx", 4, IMG_FORMAT_DCX}};
    std::vector<std::string> paths;
    for (const Case& c : cases) paths.push_back(d + "/" + c.file);
    peer_decode(paths);
    for (const Case& c : cases) {
        const std::string path = d + "/" + c.file;
        EXPECT_EQ(IMGLOW_get_filetype(path.c_str()), c.code) << c.file;
        EXPECT_EQ(IMGLOW_get_pages(path.c_str()), c.pages) << c.file;
        for (int page = 0; page < c.pages; ++page) {
            const Handle h = IMG_decompress_bitmap_page(path.c_str(), page);
            ASSERT_GE(h, 0) << c.file << " page " << page;
            const Raster ours = handle_raster(h);
            // Pillow takes every DCX page's 256 colours from the end of the file.
            if (c.pages == 1) {
                EXPECT_EQ(count_differences(ours, peer_frame(path, "pil", page), 3), 0u) << c.file << " " << page;
            }
            EXPECT_EQ(count_differences(as_magick_shows(read_file(path), page, ours), peer_frame(path, "im", page), 3), 0u)
                << c.file << " " << page;
        }
    }
    fs::remove_all(d);
}

// What we write: PCX at every depth it holds, each also a page of one DCX,
// read back here and exactly by Pillow and ImageMagick.
TEST(PcxWrite, PeersReadBackEveryPage) {
    struct Case { int32_t w, h; int bits; };
    const Case cases[] = {{45, 31, 1}, {45, 31, 4}, {300, 111, 8}, {33, 20, 24}, {1, 1, 8}};
    std::vector<std::string> paths;
    std::vector<int32_t> handles;
    const Scratch dcx("written.dcx");
    for (const Case& c : cases) {
        handles.push_back(random_image(c.w, c.h, c.bits, uint32_t(c.w + c.bits)));
        paths.push_back(temp_path("written" + std::to_string(paths.size()) + ".pcx"));
        ASSERT_EQ(IMG_save_bitmap(handles.back(), paths.back().c_str(), IMG_FORMAT_PCX), 0);
        ASSERT_EQ(IMG_save_bitmap(handles.back(), dcx.c_str(), IMG_FORMAT_DCX), 0);
        const Handle back = IMG_decompress_bitmap(paths.back().c_str());
        ASSERT_GE(back, 0);
        EXPECT_EQ(count_differences(handle_raster(back), handle_raster(handles.back()), 3), 0u) << c.bits;
        EXPECT_EQ(info_of(back).biBitCount, c.bits);
    }
    // The page table is read by both peers below, page by page.
    const Bytes file = read_file(dcx);
    EXPECT_EQ(IMGLOW_get_pages(dcx.c_str()), 5);
    if (have_pillow() && have_tool("/usr/bin/convert")) {
        paths.push_back(dcx);
        peer_decode(paths);
        for (size_t i = 0; i < handles.size(); ++i) {
            const Raster ours = handle_raster(handles[i]);
            EXPECT_EQ(count_differences(ours, peer_frame(paths[i], "pil"), 3), 0u) << paths[i];
            EXPECT_EQ(count_differences(as_magick_shows(file, int(i), ours), peer_frame(dcx, "im", int(i)), 3), 0u) << i;
            EXPECT_EQ(count_differences(as_magick_shows(read_file(paths[i]), 0, ours), peer_frame(paths[i], "im"), 3), 0u)
                << paths[i];
        }
    }
    for (const std::string& path : paths) remove_with_decodes(path);
    for (int32_t h : handles) IMG_delete_bitmap(h);
}

TEST(PcxWrite, RunsDepthsAndAFullPageTable) {
    // 200 equal bytes and a lone 0xC5: FF v FF v FF v CB v, C1 C5.
    const Handle h = make_handle(201, 1, 8, [](uint8_t* row, uint32_t, int32_t) {
        std::memset(row, 7, 200);
        row[200] = 0xC5;
    });
    const Bytes file = save_mem(h, IMG_FORMAT_PCX);
    ASSERT_EQ(file.size(), 128u + 10 + 769);
    EXPECT_EQ(Bytes(file.begin() + 128, file.begin() + 138), (Bytes{0xFF, 7, 0xFF, 7, 0xFF, 7, 0xCB, 7, 0xC1, 0xC5}));
    EXPECT_EQ(file[file.size() - 769], 0x0C);
    for (int bits : {16, 32})
        for (int32_t code : {IMG_FORMAT_PCX, IMG_FORMAT_DCX}) EXPECT_EQ(save_status(bits, code), IMG_ERR_DEPTH) << bits;

    // An append to a table with no free entry left: the file stays byte for
    // byte as it was. (Appends failing part way: the pipeline's
    // append-failure test, DCX at every row and every growth limit.)
    const Scratch path("append.dcx");
    ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_FORMAT_DCX), 0);
    ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_FORMAT_DCX), 0);
    Bytes full = read_file(path);
    for (uint32_t i = 2; i < 99; ++i) store_le32(&full[4 + 4 * i], load_le32(&full[8]));
    write_file(path, full);
    EXPECT_EQ(IMG_save_bitmap(h, path.c_str(), IMG_FORMAT_DCX), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(read_file(path), full);
    EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 99);
}

// The reader's rules on files built here.
TEST(PcxRead, BuiltFilesFollowTheReadersRules) {
    Bytes palette(48);
    for (size_t i = 0; i < 48; ++i) palette[i] = uint8_t(i * 5 + 3);
    // Four 1-bit planes, 10 pixels from Xmin 10: a 4-bit DIB with the
    // header palette, pixel = plane bits 0..3, as Pillow and ImageMagick read it.
    const Bytes planar = pcx_file({.version = 5, .bits = 1, .planes = 4, .xmin = 10, .xmax = 19, .ymax = 1,
                                   .bytes_per_line = 2, .header_palette = palette},
                                  {{0xA5, 0x40, 0x0F, 0x80, 0xF0, 0x00, 0x33, 0xC0}, {0xFF, 0xC0, 0, 0, 0, 0, 0xFF, 0xC0}});
    Decoded d = read_pcx(planar);
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(d.width(), 10);
    EXPECT_EQ(d.bits(), 4);
    const std::string path = temp_path("planar.pcx");
    write_file(path, planar);
    peer_decode({path});
    for (const char* tool : {"pil", "im"})
        EXPECT_EQ(count_differences(d.raster(), peer_frame(path, tool), 3), 0u) << tool;
    remove_with_decodes(path);

    // 256 colours without the 0x0C marker: the last 768 bytes all the same.
    Bytes rgb(768);
    for (size_t i = 0; i < 768; ++i) rgb[i] = uint8_t(i / 3 + i % 3);
    d = read_pcx(pcx_file({.xmax = 2, .bytes_per_line = 4, .header_palette = {}}, {{0, 5, 255, 0}}, rgb));
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(d.palette()[5].rgbRed, 5);
    EXPECT_EQ(d.palette()[5].rgbBlue, 7);
    // 1 bit with the header palette white, black: black, white and the bits
    // inverted. Version 3: the default 16 colours.
    Bytes white_black(48);
    std::fill(white_black.begin(), white_black.begin() + 3, 255);
    d = read_pcx(pcx_file({.version = 2, .bits = 1, .xmax = 7, .bytes_per_line = 2, .header_palette = white_black},
                          {{0x0F, 0}}));
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(d.rows[0][0], 0xF0);
    EXPECT_EQ(d.palette()[0].rgbRed, 0);
    d = read_pcx(pcx_file({.version = 3, .bits = 4, .xmax = 1, .bytes_per_line = 1, .header_palette = {}}, {{0x9C}}));
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(d.palette()[9].rgbRed, 255);
    EXPECT_EQ(d.palette()[4].rgbBlue, 128);
}

TEST(PcxRead, DamagedDataGivesItsStatus) {
    const PcxHeader grey{.bits = 4, .xmax = 7, .ymax = 2, .bytes_per_line = 4, .header_palette = {}};
    const Bytes good = pcx_file(grey, {{1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}});
    PcxHeader huge = grey;
    huge.xmax = huge.ymax = 0xFFFF;
    huge.bytes_per_line = 0xFFFF;
    PcxHeader two_bits = grey;
    two_bits.bits = 2;
    PcxHeader narrow = grey;
    narrow.bytes_per_line = 3;
    PcxHeader no_palette = grey;
    no_palette.bits = 8;
    no_palette.bytes_per_line = 8;
    Bytes overfull = pcx_file(grey, {});
    overfull.insert(overfull.end(), {0xFF, 1});  // 63 bytes into a 4-byte line
    expect_statuses(pcx::decode, {
        {"intact", good, 0, 3},
        {"header cut short", Bytes(good.begin(), good.begin() + 100), IMG_ERR_OPEN, 0},
        {"no data", Bytes(good.begin(), good.begin() + 128), IMG_ERR_READ, 0},
        {"data cut short", Bytes(good.begin(), good.begin() + 128 + 9), IMG_ERR_READ, 2},
        {"a run far past the line", overfull, IMG_ERR_BAD_IMAGE, 0},
        {"65535 x 65535 in 130 bytes", pcx_file(huge, {{1}}), IMG_ERR_BAD_IMAGE, 0},
        {"256 colours without a palette", pcx_file(no_palette, {{1, 2, 3, 4, 5, 6, 7, 8}}), IMG_ERR_READ, 0},
        {"2 bits per pixel", pcx_file(two_bits, {{1}}), IMG_ERR_UNSUPPORTED, 0},
        {"lines shorter than the width", pcx_file(narrow, {{1}}), IMG_ERR_BAD_IMAGE, 0},
    });
    // DCX page tables: a second page, a third that is not there, one past
    // the file, one with bit 31 set, a wrong magic.
    Bytes dcx(16, 0);
    store_le32(&dcx[0], pcx::kDcxMagic);
    store_le32(&dcx[4], 16);
    store_le32(&dcx[8], 16);
    dcx.insert(dcx.end(), good.begin(), good.end());
    EXPECT_EQ(read_dcx(dcx, 1).status, 0);
    EXPECT_EQ(read_dcx(dcx, 2).status, IMG_ERR_NO_PAGE);
    store_le32(&dcx[8], 1u << 20);
    EXPECT_EQ(read_dcx(dcx, 1).status, IMG_ERR_OPEN);
    store_le32(&dcx[8], 0x80000010u);
    EXPECT_EQ(read_dcx(dcx, 1).status, IMG_ERR_NO_PAGE);
    dcx[0] ^= 1;
    EXPECT_EQ(read_dcx(dcx, 0).status, IMG_ERR_BAD_IMAGE);
}
