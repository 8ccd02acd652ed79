// PNG writer: round trips through our reader, pngcheck's verdict, and
// Pillow reading our files back.
#include <random>

#include "png_test.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

struct Image {
    Bytes header;  // 40 bytes + palette
    std::vector<Bytes> rows;
};

// Random pixels with the row padding (bytes and bits past the width) zero,
// a palette of distinct colours for 4 and 8 bits, 300 dots per inch.
Image random_image(int32_t w, int32_t h, int bits, uint32_t seed) {
    Image im;
    im.header.assign(40 + palette_bytes(uint32_t(bits)), 0);
    auto* hdr = reinterpret_cast<DibHeader*>(im.header.data());
    *hdr = dib_header(w, h, uint16_t(bits));
    hdr->biCompression = bits == 32 ? IMG_COMPRESSION_ALPHA : 0;
    dib_set_resolution(hdr, 300, 300);
    for (uint32_t i = 0; i < palette_entries(uint32_t(bits)); ++i)
        dib_palette(im.header.data())[i] = RgbQuad{uint8_t(i * 3), uint8_t(255 - i), uint8_t(i * 7 + 1), 0};
    std::mt19937 rng(seed);
    const uint64_t used_bits = uint64_t(w) * uint32_t(bits);
    for (int32_t y = 0; y < h; ++y) {
        Bytes row(row_bytes(uint32_t(w), uint32_t(bits)), 0);
        for (uint64_t b = 0; b < used_bits / 8; ++b) row[b] = uint8_t(rng() >> 5);
        if (used_bits % 8) row[used_bits / 8] = uint8_t((rng() >> 5) & (0xFF00 >> (used_bits % 8)));
        im.rows.push_back(row);
    }
    return im;
}

struct Supply {
    const std::vector<Bytes>* rows;
    int32_t fail_row = -1;
    static int32_t row(intptr_t user, uint8_t* buffer, int32_t row, uint32_t bytes) {
        auto* s = reinterpret_cast<Supply*>(user);
        if (row == s->fail_row) return -2;
        std::memcpy(buffer, (*s->rows)[size_t(row)].data(), std::min<size_t>(bytes, (*s->rows)[size_t(row)].size()));
        return 0;
    }
};

// Encodes the image into a memory stream of `capacity` bytes (0: ample);
// *status gets the encoder's result.
Bytes png_write(const Image& im, int32_t* status, int32_t fail_row = -1, uint32_t capacity = 0) {
    Bytes buf(capacity ? capacity : im.rows.size() * (im.rows[0].size() + 1) * 2 + 65536);
    const int32_t s = stream::mem_create_sized(buf.data(), uint32_t(buf.size()));
    Supply supply{&im.rows, fail_row};
    *status = png_encode(s, reinterpret_cast<const DibHeader*>(im.header.data()), Supply::row,
                         reinterpret_cast<intptr_t>(&supply), 0);
    buf.resize(size_t(std::max(stream::seek(s, 0, 1), 0)));
    stream::mem_release(s);
    return *status < 0 ? Bytes{} : buf;
}

}  // namespace

TEST(PngWriter, RefusalsAndFailures) {
    Image im = random_image(8, 8, 32, 1);
    int32_t status = 0;
    reinterpret_cast<DibHeader*>(im.header.data())->biCompression = 0;  // four colour channels
    png_write(im, &status);
    EXPECT_EQ(status, IMG_ERR_DEPTH);
    im = random_image(8, 8, 24, 1);
    png_write(im, &status, 5);
    EXPECT_EQ(status, -2) << "the supply's status";
    png_write(im, &status, -1, 100);
    EXPECT_EQ(status, IMG_ERR_WRITE) << "a stream that cannot take the data";
}

// Every depth and several widths read back here (pixels, palette, alpha
// marker, resolution); pngcheck passes the files (chunk order and CRCs; the
// 640-pixel rows span several IDAT chunks), and Pillow reads the pixels we
// wrote: 16-bit grey samples, colours (through the palette), RGBA.
TEST(PngWriter, EveryDepthReadsBackHereAndInPeers) {
    const bool pngcheck = have_tool("pngcheck");
    for (int bits : {1, 4, 8, 16, 24, 32})
        for (int32_t w : {1, 13, 640}) {
            SCOPED_TRACE(testing::Message() << bits << " bits, width " << w);
            const Image im = random_image(w, 37, bits, uint32_t(bits * 1000 + w));
            int32_t status = 0;
            const Bytes png = png_write(im, &status);
            ASSERT_EQ(status, 0);
            const Decoded d = png_read(png);
            ASSERT_EQ(d.status, 0);
            EXPECT_EQ(d.bits(), bits);
            EXPECT_EQ(d.h().biCompression, bits == 32 ? 200u : 0u);
            EXPECT_EQ(d.h().biXPelsPerMeter, 300);
            EXPECT_EQ(d.rows, im.rows);
            if (bits == 4 || bits == 8) {
                EXPECT_EQ(0, std::memcmp(d.palette(), dib_palette(im.header.data()), palette_bytes(uint32_t(bits))));
            }
            const Scratch path("png_peer.png");
            write_file(path, png);
            if (pngcheck) {
                EXPECT_TRUE(run("pngcheck -q " + path.path));
            }
            if (!have_pillow()) continue;
            const Raster got = pillow(path, bits == 32 ? "RGBA" : bits == 16 ? "I;16" : "RGB");
            Raster want = d.raster();
            if (bits == 16) {  // big-endian 16-bit samples
                want.channels = 2;
                want.px.clear();
                for (const Bytes& row : im.rows)
                    for (size_t x = 0; x < size_t(w); ++x) want.px.insert(want.px.end(), {row[2 * x + 1], row[2 * x]});
            }
            EXPECT_EQ(count_differences(got, want, want.channels), 0u);
        }
}
