// JPEG encoding: files libjpeg-turbo reads without a warning into the
// coefficients the plain reference derives from the DIB, files Pillow reads
// cleanly and close to the source, the quality and
// sampling settings, colour-model choice and failures.
#include <gtest/gtest.h>

#include "core/settings.h"
#include "formats/jpeg/jpeg_internal.h"
#include "jpeg_reference.h"
#include "jpeg_test.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

class JpegEncode : public ::testing::Test {
protected:
    void SetUp() override { saved_ = settings(); }
    void TearDown() override {
        Settings& s = settings();
        std::memcpy(s.jpeg_luma, saved_.jpeg_luma, 64);
        std::memcpy(s.jpeg_chroma, saved_.jpeg_chroma, 64);
        s.jpeg_h = saved_.jpeg_h;
        s.jpeg_v = saved_.jpeg_v;
    }
    Settings saved_;
};

void* photo_dib() {
    const Raster p = read_netpbm(data_path("corpus/refs/b8d8b9b4501bf26d.ppm"));
    EXPECT_GT(p.width, 0);
    return dib_from_pnm(p);
}

// Palette DIBs: 8-bit with a colour palette, 4-bit grey, 4-bit colour,
// 1-bit black/white and 1-bit white/black.
void* palette_dib(int bits, bool grey, bool inverted = false) {
    void* dib = make_dib(61, 37, bits, [&](uint8_t* row, uint32_t n, int32_t r) {
        for (uint32_t b = 0; b < n; ++b) row[b] = uint8_t(r * 13 + b * 29 + (b >> 2));
    });
    RgbQuad* pal = dib_palette(dib);
    const int entries = 1 << bits;
    for (int i = 0; i < entries; ++i) {
        const int v = bits == 1 ? (inverted ? 255 - 255 * i : 255 * i) : i * 255 / (entries - 1);
        pal[i] = grey ? RgbQuad{uint8_t(v), uint8_t(v), uint8_t(v), 0}
                      : RgbQuad{uint8_t(v), uint8_t(255 - v), uint8_t(v * 7), 0};
    }
    return dib;
}

// Coefficients, tables, sampling factors, JFIF density and Adobe transform
// as libjpeg reads them from the encoder's file, against the reference.
void expect_reference_coefficients(const void* dib, const std::string& what) {
    SCOPED_TRACE(what);
    int32_t status = 0;
    const auto bytes = jpeg_encode_dib(dib, &status);
    ASSERT_EQ(status, 0);
    JpegCoefficients got, want;
    std::string error;
    ASSERT_EQ(peer_coefficients(bytes, &got, &error), 0) << error;
    reference_forward(dib, &want);
    EXPECT_TRUE(got == want);
}

}  // namespace

TEST_F(JpegEncode, LibjpegReadsTheReferenceCoefficients) {
    void* photo = photo_dib();
    // Every value of every channel through the colour conversion, with and
    // without chroma decimation, on lines with and without chroma.
    void* ramp = make_dib(256, 40, 24, [](uint8_t* row, uint32_t, int32_t y) {
        for (int x = 0; x < 256; ++x) {
            row[3 * x] = uint8_t(x * 13 + y * 5);
            row[3 * x + 1] = uint8_t(x * 7 + y * 3);
            row[3 * x + 2] = uint8_t(x);
        }
    });
    std::vector<std::pair<std::string, void*>> dibs = {
        {"grey 8-bit", make_dib(45, 33, 8)}, {"32-bit", make_dib(29, 19, 32)}, {"1 x 1", make_dib(1, 1, 24)},
        {"17 x 5", make_dib(17, 5, 24)},     {"1-bit white/black", palette_dib(1, true, true)}};
    for (int bits : {1, 4, 8})
        for (bool grey : {true, false})
            dibs.push_back({std::to_string(bits) + "-bit " + (grey ? "grey" : "colour"), palette_dib(bits, grey)});
    for_each_isa([&](const jpeg::Kernels&) {
        for (const auto& [h, v] : {std::pair{2, 1}, {1, 1}, {2, 2}, {4, 1}, {1, 2}, {4, 2}})
            for (int q : {1, 30, 75, 100}) {
                IMGLOW_set_comp_quality(q);
                IMGLOW_set_jpg_interleave(h, v);
                expect_reference_coefficients(photo, "photo " + std::to_string(h) + "x" + std::to_string(v) + " q" +
                                                         std::to_string(q));
                if (q == 75 && h < 4)
                    expect_reference_coefficients(ramp, "every value, " + std::to_string(h) + "x" + std::to_string(v));
            }
        IMGLOW_set_comp_quality(75);
        IMGLOW_set_jpg_interleave(2, 2);
        for (const auto& [name, dib] : dibs) expect_reference_coefficients(dib, name);
    });
    for (const auto& [name, dib] : dibs) tesslin_block_free(dib);
    tesslin_block_free(photo);
    tesslin_block_free(ramp);
}

TEST_F(JpegEncode, PillowReadsOurFilesCloseToTheSource) {
    if (!have_pillow()) GTEST_SKIP() << "no Pillow";
    const Raster photo = read_netpbm(data_path("corpus/refs/b8d8b9b4501bf26d.ppm"));
    const Raster grey = read_netpbm(data_path("corpus/refs/61c574297165518c.pgm"));
    IMGLOW_set_comp_quality(75);
    struct Case {
        const Raster* source;
        int h, v;
        const char* name;
    } cases[] = {{&photo, 2, 1, "422"}, {&photo, 2, 2, "420"}, {&photo, 1, 1, "444"}, {&grey, 2, 1, "grey"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        IMGLOW_set_jpg_interleave(c.h, c.v);
        void* dib = dib_from_pnm(*c.source);
        int32_t status = 0;
        const Scratch jpg(std::string(c.name) + ".jpg");
        write_file(jpg, jpeg_encode_dib(dib, &status));
        tesslin_block_free(dib);
        ASSERT_EQ(status, 0);
        const double db = psnr(pillow(jpg, c.source->channels == 1 ? "L" : "RGB"), *c.source);
        std::printf("%-5s Pillow %6.2f dB\n", c.name, db);
        EXPECT_GE(db, 30.0);
    }
}

// Our 32-bit files (Adobe YCCK) come back close to the source through our
// decoder in the same byte order, and Pillow sees the same four channels.
TEST_F(JpegEncode, FourChannelImagesRoundTrip) {
    const Raster cmyk = read_netpbm(data_path("corpus/refs/6df08250079a4171.pam"));
    ASSERT_GT(cmyk.width, 0);
    void* dib = dib_from_pnm(cmyk);
    IMGLOW_set_comp_quality(75);
    const Scratch jpg("cmyk.jpg");
    write_file(jpg, jpeg_encode_dib(dib));
    tesslin_block_free(dib);
    Decoded d;
    ASSERT_EQ(jpeg_decode_file(jpg, &d), 0);
    EXPECT_GE(psnr(samples(d), cmyk.px), 30.0);
    if (have_pillow()) { EXPECT_GE(psnr(pillow(jpg, "CMYK").px, samples(d)), 40.0); }
}

TEST_F(JpegEncode, QualityTablesAndColourModel) {
    void* grey = make_dib(16, 8, 8);
    auto dqt = [&](void* dib) {
        const auto bytes = jpeg_encode_dib(dib);
        const size_t at = std::min(find_marker(bytes, 0xDB), bytes.size());
        return Bytes(bytes.begin() + long(at), bytes.begin() + long(std::min(at + 134, bytes.size())));
    };
    IMGLOW_set_comp_quality(100);
    auto t = dqt(grey);
    ASSERT_EQ(t.size(), 134u);
    EXPECT_EQ(t[3], 132);  // length: both tables, also for a grey image
    for (int k = 0; k < 64; ++k) EXPECT_EQ(t[5 + k], 1) << k;
    IMGLOW_set_comp_quality(50);
    t = dqt(grey);
    for (int k = 0; k < 64; ++k) {
        EXPECT_EQ(t[5 + k], kJpegLumaBase[jpeg::kZigzag[k]]);
        EXPECT_EQ(t[70 + k], kJpegChromaBase[jpeg::kZigzag[k]]);
    }
    IMGLOW_set_comp_quality(500);
    const auto high = dqt(grey);
    IMGLOW_set_comp_quality(100);
    EXPECT_EQ(high, dqt(grey));
    IMGLOW_set_comp_quality(-3);
    const auto low = dqt(grey);
    IMGLOW_set_comp_quality(1);
    EXPECT_EQ(low, dqt(grey));
    EXPECT_EQ(low[5], 32);  // 16 * 198 / 100, rounded

    // Entry 0 above level 40 makes a palette colour: three components, H1
    // as set. (Other models and samplings are held against the reference.)
    IMGLOW_set_jpg_interleave(2, 1);
    dib_palette(grey)[0] = RgbQuad{41, 41, 41, 0};
    JpegCoefficients c;  // (libjpeg warns here about zero bytes after the last block)
    ASSERT_GE(peer_coefficients(jpeg_encode_dib(grey), &c), 0);
    EXPECT_EQ(c.nf, 3);
    EXPECT_EQ(c.c[0].h * 16 + c.c[0].v, 0x21);
    EXPECT_EQ(settings().jpeg_h, 2);  // the setting itself is left alone
    tesslin_block_free(grey);
}

TEST_F(JpegEncode, Failures) {
    void* deep = make_dib(8, 8, 16);
    int32_t status = 0;
    jpeg_encode_dib(deep, &status);
    EXPECT_EQ(status, IMG_ERR_DEPTH);
    void* dib = make_dib(64, 64, 24);
    jpeg_encode_dib(dib, &status, 9);
    EXPECT_EQ(status, -7);  // the supply's status
    jpeg_encode_dib(dib, &status, -1, 700);
    EXPECT_EQ(status, IMG_ERR_WRITE) << "a memory stream too small for the file";
    tesslin_block_free(deep);
    tesslin_block_free(dib);
}
