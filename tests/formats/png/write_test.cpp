// PNG writer: round trips through our reader, pngcheck's verdict, and
// Pillow reading our files back.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "png_helpers.h"
#include "test_util.h"

using namespace tesslin;
using namespace tesslin::pngtest;

namespace {

struct Image {
    std::vector<uint8_t> header;
    std::vector<std::vector<uint8_t>> rows;
};

// Random pixels with the row padding (bytes and bits past the width) zero,
// a palette of distinct colours for 4 and 8 bits, 300 dots per inch.
Image random_image(int32_t w, int32_t h, int bits, uint32_t seed) {
    Image im;
    im.header = dib_header(w, h, bits, bits == 32 ? 200 : 0);
    auto* hdr = reinterpret_cast<DibHeader*>(im.header.data());
    hdr->biXPelsPerMeter = hdr->biYPelsPerMeter = 300;
    RgbQuad* pal = dib_palette(im.header.data());
    for (uint32_t i = 0; i < palette_entries(uint32_t(bits)); ++i)
        pal[i] = RgbQuad{uint8_t(i * 3), uint8_t(255 - i), uint8_t(i * 7 + 1), 0};
    std::mt19937 rng(seed);
    const uint32_t rb = row_bytes(uint32_t(w), uint32_t(bits));
    const uint64_t used_bits = uint64_t(w) * uint32_t(bits);
    for (int32_t y = 0; y < h; ++y) {
        std::vector<uint8_t> row(rb, 0);
        for (uint64_t b = 0; b < used_bits / 8; ++b) row[b] = uint8_t(rng() >> 5);
        if (used_bits % 8) row[used_bits / 8] = uint8_t((rng() >> 5) & (0xFF00 >> (used_bits % 8)));
        im.rows.push_back(row);
    }
    return im;
}

using test::have_tool;
using test::temp_path;

}  // namespace

TEST(PngWriter, EveryDepthRoundTripsThroughTheReader) {
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        for (int32_t w : {1, 13, 640}) {
            const Image im = random_image(w, 37, bits, uint32_t(bits * 1000 + w));
            int32_t status = 0;
            const auto png = encode(im.header, im.rows, &status);
            ASSERT_EQ(status, 0) << bits;
            const Decoded d = decode(png);
            ASSERT_EQ(d.status, 0) << bits;
            EXPECT_EQ(d.bits(), bits);
            EXPECT_EQ(d.h().biCompression, bits == 32 ? 200u : 0u);
            EXPECT_EQ(d.h().biXPelsPerMeter, 300);
            EXPECT_EQ(d.rows, im.rows) << bits << " bits, width " << w;
            if (bits == 4 || bits == 8) {
                EXPECT_EQ(0, std::memcmp(d.palette(), dib_palette(im.header.data()), palette_bytes(uint32_t(bits))));
            }
        }
    }
}

TEST(PngWriter, RefusalsAndFailures) {
    Image im = random_image(8, 8, 32, 1);
    int32_t status = 0;
    reinterpret_cast<DibHeader*>(im.header.data())->biCompression = 0;  // four colour channels
    encode(im.header, im.rows, &status);
    EXPECT_EQ(status, IMG_ERR_DEPTH);

    im = random_image(8, 8, 24, 1);
    SupplyRows fail;
    fail.fail_row = 5;
    fail.fail_status = -2;
    encode(im.header, im.rows, &status, fail);
    EXPECT_EQ(status, -2);

    // A stream that cannot take the data: -9.
    std::vector<uint8_t> small(100);
    const int32_t s = stream::mem_create_sized(small.data(), uint32_t(small.size()));
    SupplyRows rows;
    rows.rows = &im.rows;
    EXPECT_EQ(png_encode(s, reinterpret_cast<const DibHeader*>(im.header.data()), supply_row,
                         reinterpret_cast<intptr_t>(&rows), 0),
              IMG_ERR_WRITE);
    stream::mem_release(s);
}

TEST(PngWriter, ChunkLayout) {
    // A noisy image spans several IDAT chunks of 8192 bytes and one shorter.
    const Image im = random_image(300, 200, 24, 7);
    int32_t status = 0;
    const auto png = encode(im.header, im.rows, &status);
    ASSERT_EQ(status, 0);
    std::vector<std::string> types;
    std::vector<uint32_t> idat;
    for (size_t at = 8; at + 12 <= png.size();) {
        const uint32_t len = load_be32(&png[at]);
        const std::string type(png.begin() + long(at) + 4, png.begin() + long(at) + 8);
        if (types.empty() || types.back() != type) types.push_back(type);
        if (type == "IDAT") idat.push_back(len);
        EXPECT_EQ(load_be32(&png[at + 8 + len]), png_crc(&png[at + 4], len + 4)) << type;
        at += 12 + len;
    }
    EXPECT_EQ(types, (std::vector<std::string>{"IHDR", "pHYs", "IDAT", "IEND"}));
    ASSERT_GE(idat.size(), 3u);
    for (size_t i = 0; i + 1 < idat.size(); ++i) EXPECT_EQ(idat[i], 8192u);
    EXPECT_LE(idat.back(), 8192u);
    EXPECT_EQ(png[24], 8);  // depth
    EXPECT_EQ(png[25], 2);  // RGB
}

TEST(PngWriter, FilesPassPngcheck) {
    if (!have_tool("pngcheck")) GTEST_SKIP() << "pngcheck not installed";
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        const Image im = random_image(123, 45, bits, uint32_t(bits));
        int32_t status = 0;
        const auto png = encode(im.header, im.rows, &status);
        ASSERT_EQ(status, 0);
        const std::string path = temp_path("png_check_" + std::to_string(bits) + ".png");
        write_file(path, png);
        EXPECT_EQ(std::system(("pngcheck -q " + path + " >/dev/null").c_str()), 0) << bits << " bits";
        std::remove(path.c_str());
    }
}

TEST(PngWriter, PillowReadsOurFilesBackIdentically) {
    if (!test::have_pillow()) GTEST_SKIP() << "Pillow not installed";
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        const int32_t w = 77, h = 21;
        const Image im = random_image(w, h, bits, uint32_t(bits + 40));
        int32_t status = 0;
        const auto png = encode(im.header, im.rows, &status);
        ASSERT_EQ(status, 0);
        const std::string path = temp_path("png_pillow_" + std::to_string(bits) + ".png");
        const std::string raw = path + ".raw";
        write_file(path, png);
        // Pillow's pixels: grey values (1 and 16 bits), RGB (palettes
        // resolved), or RGBA.
        const char* mode = bits == 32 ? "RGBA" : bits == 1 || bits == 16 ? "L" : "RGB";
        const std::string script = std::string("from PIL import Image\nim = Image.open('") + path + "')\n" +
                                   (bits == 16 ? "data = bytes(v >> 8 for v in im.getdata())\n"
                                               : "data = im.convert('" + std::string(mode) + "').tobytes()\n") +
                                   "open('" + raw + "', 'wb').write(data)\n";
        const std::string script_path = path + ".py";
        write_file(script_path, std::vector<uint8_t>(script.begin(), script.end()));
        ASSERT_EQ(std::system(("/usr/bin/python3 " + script_path).c_str()), 0);
        const auto pillow = read_file(raw);
        const size_t channels = bits == 32 ? 4 : bits == 1 || bits == 16 ? 1 : 3;
        ASSERT_EQ(pillow.size(), size_t(w) * h * channels) << bits;
        Decoded mine;
        mine.header = im.header;
        mine.rows = im.rows;
        int bad = 0;
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) {
                const uint8_t* p = &pillow[(size_t(y) * w + x) * channels];
                const RgbQuad q = pixel(mine, y, x);
                if (channels == 1)
                    bad += bits == 1 ? p[0] != (index(mine, y, x) ? 255 : 0) : p[0] != index(mine, y, x);
                else
                    bad += p[0] != q.rgbRed || p[1] != q.rgbGreen || p[2] != q.rgbBlue ||
                           (channels == 4 && p[3] != q.rgbReserved);
            }
        EXPECT_EQ(bad, 0) << bits << " bits";
        for (const auto& f : {path, raw, script_path}) std::remove(f.c_str());
    }
}
