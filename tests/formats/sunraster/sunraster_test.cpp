// Sun raster: files written by ImageMagick and netpbm's pnmtorast, and
// hand-built 32-bit files, against ImageMagick's decode; byte encoding;
// damaged files. (The writer: tests/formats/raster.)
#include <gtest/gtest.h>

#include "formats/sunraster/sunraster.h"
#include "format_checks.h"
#include "magick.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// Header words, colour map and data of a Sun raster file.
Bytes ras(uint32_t w, uint32_t h, uint32_t depth, uint32_t type, const Bytes& data,
          uint32_t map_type = 0, const Bytes& map = {}) {
    const uint32_t words[8] = {0x59A66A95, w, h, depth, uint32_t(data.size()), type, map_type,
                               uint32_t(map.size())};
    Bytes f(32);
    for (int i = 0; i < 8; ++i) store_be32(&f[size_t(i) * 4], words[i]);
    f.insert(f.end(), map.begin(), map.end());
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

// 37 x 23 pixels of 24 bits (file rows padded to 16 bits).
Bytes rows24(bool pad) {
    Bytes b;
    for (uint32_t y = 0; y < 23; ++y) {
        for (uint32_t x = 0; x < 37; ++x) {
            const uint8_t v = y < 10 ? uint8_t(0x80) : uint8_t(x * 7 + y);
            b.insert(b.end(), {v, uint8_t(y * 11), uint8_t(x < 20 ? 9 : x * 3)});
        }
        if (pad) b.push_back(0);
    }
    return b;
}

}  // namespace

// (ImageMagick's own Sun raster files: the conformance rows misc/*.ras.)
TEST(SunRasterRead, FilesOfEveryKindDecodeAsImageMagickShowsThem) {
    if (!have_magick() || !have_tool("pnmtorast")) GTEST_SKIP() << "needs ImageMagick and netpbm";
    const TempDir dir("sun_variants");
    const std::string ppm = dir / "src.ppm";
    ASSERT_TRUE(run("/usr/bin/convert -size 37x23 xc: -channel R -fx 'i/w' -channel G -fx 'j/h' "
                    "-channel B -fx '(i*j%7)/7' +channel -depth 8 '" + ppm + "'"));
    const char* made[][2] = {
        {"pnm-rgb24.ras", "pnmtorast -standard SRC > OUT"},
        {"pnm-pal8.ras", "/usr/bin/convert SRC -colors 60 ppm:- | pnmtorast -standard > OUT"},
        {"pnm-pal8-rle.ras", "/usr/bin/convert SRC -colors 60 ppm:- | pnmtorast -rle > OUT"},
        {"pnm-grey.ras", "/usr/bin/convert SRC -colorspace gray pgm:- | pnmtorast -standard > OUT"},
        {"pnm-grey-rle.ras", "/usr/bin/convert SRC -colorspace gray pgm:- | pnmtorast -rle > OUT"},
        {"pnm-mono.ras", "/usr/bin/convert SRC -monochrome pbm:- | pnmtorast -standard > OUT"},
        {"pnm-mono-rle.ras", "/usr/bin/convert SRC -monochrome pbm:- | pnmtorast -rle > OUT"},
    };
    for (const auto& [file, make] : made) {
        std::string cmd = make;
        cmd.replace(cmd.find("SRC"), 3, "'" + ppm + "'");
        cmd.replace(cmd.find("OUT"), 3, "'" + (dir / file) + "'");
        ASSERT_TRUE(run(cmd)) << cmd;
    }
    // 32-bit pixels with the padding byte first, blue-first (type 1) and
    // red-first (type 3); a raw colour map (type 2), skipped. (Byte-encoded
    // data: netpbm's files above, and the escapes and runs across rows
    // below; the decoding does not depend on the depth.)
    const Bytes rows = rows24(true), pixels = rows24(false);
    Bytes x32;
    for (size_t i = 0; i < pixels.size(); i += 3)
        x32.insert(x32.end(), {0xEE, pixels[i], pixels[i + 1], pixels[i + 2]});
    const std::pair<const char*, Bytes> built[] = {
        {"plain24.ras", ras(37, 23, 24, 1, rows)},
        {"xbgr32.ras", ras(37, 23, 32, 1, x32)},
        {"xrgb32.ras", ras(37, 23, 32, 3, x32)},
        {"raw-map.ras", ras(37, 23, 24, 1, rows, 2, Bytes(30, 7))},
    };
    for (const auto& [name, file] : built) write_file(dir / name, file);
    // ImageMagick leaves the end of a byte-encoded file's last row black
    // when the data ends in a run (Pillow miscounts runs): an encoded file is
    // held against ImageMagick's decode of the same picture stored plain.
    size_t files = 0;
    for (const auto& e : fs::directory_iterator(dir.path)) {
        std::string name = e.path().filename();
        if (e.path().extension() != ".ras") continue;
        SCOPED_TRACE(name);
        const Handle h = IMG_decompress_bitmap(e.path().c_str());
        ASSERT_GE(h, 0);
        if (const size_t at = name.find("-rle"); at != std::string::npos) name.erase(at, 4);
        EXPECT_EQ(count_differences(handle_raster(h), magick(dir / name), 3), 0u);
        ++files;
    }
    EXPECT_EQ(files, 11u);
}

TEST(SunRasterRead, ByteEncodingEscapesAndDamagedFiles) {
    // 0x80 0x00 is one 0x80; 0x80 0x04 0x11 five bytes 0x11 (on into row
    // 1). Rows are 4 bytes: 3 pixels and the padding to 16 bits.
    const Decoded d =
        decode_with(sunraster::decode, ras(3, 2, 8, 2, {0x80, 0, 0x80, 4, 0x11, 0x22, 0x33}));
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(Bytes(d.rows[0].begin(), d.rows[0].begin() + 3), (Bytes{0x80, 0x11, 0x11}));
    EXPECT_EQ(Bytes(d.rows[1].begin(), d.rows[1].begin() + 3), (Bytes{0x11, 0x11, 0x22}));
    Bytes magic = ras(3, 2, 8, 1, Bytes(8, 1));
    magic[3] = 0x96;
    Bytes big_map = ras(3, 2, 8, 1, Bytes(8, 1), 1, Bytes(30, 1));
    store_be32(&big_map[28], 3000);
    expect_statuses(sunraster::decode, {
        {"short header", Bytes(magic.begin(), magic.begin() + 31), IMG_ERR_READ},
        {"wrong magic", magic, IMG_ERR_BAD_IMAGE},
        {"colour map larger than the file", big_map, IMG_ERR_READ},
        {"rows cut short", ras(3, 2, 8, 1, Bytes(7, 1)), IMG_ERR_READ},
        {"encoded rows cut short", ras(3, 2, 8, 2, {0x80, 2, 5, 0x80}), IMG_ERR_READ},
        {"encoded size no data can reach", ras(20000, 20000, 8, 2, {0x80, 255, 1}), IMG_ERR_BAD_IMAGE},
        {"depth 7", ras(3, 2, 7, 1, Bytes(8, 1)), IMG_ERR_BAD_IMAGE},
        {"zero height", ras(3, 0, 8, 1, Bytes(8, 1)), IMG_ERR_BAD_IMAGE},
    });
}
