// Photoshop: files written by ImageMagick and hand-built files of the modes
// it does not write, against ImageMagick's or Pillow's decode; channels,
// resources, damaged files. (The writer: tests/formats/raster.)
#include <gtest/gtest.h>

#include "formats/psd/psd.h"
#include "format_checks.h"
#include "magick.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// An 8-bit source picture of 37 x 23 pixels with alpha.
std::string source_png(const TempDir& dir) {
    const std::string png = dir / "source.png";
    run("/usr/bin/convert -size 37x23 gradient:orange-navy -depth 8 \\( +clone -fx 'i/w' \\) "
        "-alpha off -compose copy_opacity -composite '" + png + "'");
    return png;
}

// A file's DIB bytes with CMYK (32 bits without the alpha marker) as C, M,
// Y, K, which Pillow's "CMYK" mode gives.
Raster cmyk_of(int32_t h) {
    Raster r;
    IMG_bitmap_info(h, &r.width, &r.height, &r.channels);
    r.channels = 4;
    for (int32_t y = 0; y < r.height; ++y) {
        const Bytes row = get_row(h, y);
        r.px.insert(r.px.end(), row.begin(), row.begin() + r.width * 4);
    }
    return r;
}

Bytes psd_header(uint16_t channels, uint32_t w, uint32_t h, uint16_t depth, uint16_t mode) {
    Bytes f(26, 0);
    std::memcpy(f.data(), "8BPS", 4);
    store_be16(&f[4], 1);
    store_be16(&f[12], channels);
    store_be32(&f[14], h);
    store_be32(&f[18], w);
    store_be16(&f[22], depth);
    store_be16(&f[24], mode);
    return f;
}

// Header, empty colour data, resources and layers, compression, data.
Bytes psd_file(uint16_t channels, uint32_t w, uint32_t h, uint16_t depth, uint16_t mode,
               uint16_t compression, const Bytes& data, uint32_t layers = 0) {
    Bytes f = psd_header(channels, w, h, depth, mode);
    f.resize(f.size() + 14, 0);
    store_be32(&f[34], layers);
    store_be16(&f[38], compression);
    f.insert(f.end(), data.begin(), data.end());
    return f;
}

}  // namespace

// Pillow is the reference for RGBA and indexed files (ImageMagick reads its
// own differently) and CMYK (ink values as they are). Lab (gamma 1.8, as the
// TIFF reader) is 23.5 dB from ImageMagick's sRGB; a and b without their
// offset give 7 dB, swapped 17 dB. (Plain RGB and grey: conformance rows.)
TEST(PsdRead, EveryModeDecodesAsImageMagickOrPillowShowsIt) {
    if (!have_magick() || !have_pillow()) GTEST_SKIP() << "needs ImageMagick and Pillow";
    const TempDir dir("psd_variants");
    const std::string png = source_png(dir);
    ASSERT_TRUE(run("/usr/bin/python3 '" + data_path("raster/make_psd.py") + "' '" + dir.path + "'"));
    const struct {
        const char* file;
        const char* make;  // ImageMagick options, or null for a hand-built file
        const char* pillow_mode;  // null: ImageMagick's decode is the reference
        int bits;                 // 0: Lab, close to ImageMagick's conversion
    } cases[] = {
        {"rgba.psd", "", "RGBA", 32},
        {"rgba-rle.psd", "-compress RLE", "RGBA", 32},
        {"rgb16.psd", "-alpha off -depth 16", nullptr, 24},
        // 8-bit levels widened: the high byte is the level.
        {"grey16-rle.psd", "-alpha off -colorspace gray -depth 8 -depth 16 -compress RLE", nullptr, 8},
        {"indexed.psd", "-alpha off -colors 50 -type palette", "RGB", 8},
        {"cmyk.psd", "-alpha off -colorspace cmyk", "CMYK", 32},
        {"bitmap.psd", nullptr, nullptr, 1},
        {"bitmap-packbits.psd", nullptr, nullptr, 1},
        {"duotone.psd", nullptr, nullptr, 8},
        {"multichannel.psd", nullptr, "L", 8},
        {"rgb16-packbits.psd", nullptr, nullptr, 24},
        {"lab.psd", nullptr, nullptr, 0},
        {"lab-alpha.psd", nullptr, nullptr, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const std::string path = dir / c.file;
        if (c.make) {
            ASSERT_TRUE(run("/usr/bin/convert '" + png + "' " + c.make + " '" + path + "'"));
        }
        const Handle h = IMG_decompress_bitmap(path.c_str());
        ASSERT_GE(h, 0);
        if (!c.bits) {
            EXPECT_GT(psnr(handle_raster(h), magick(path, 3, "-colorspace sRGB")), 20.0);
            continue;
        }
        EXPECT_EQ(info_of(h).biBitCount, c.bits);
        const std::string mode = c.pillow_mode ? c.pillow_mode : "";
        const Raster ours = mode == "CMYK" ? cmyk_of(h) : handle_raster(h);
        const Raster ref = c.pillow_mode ? pillow(path, mode) : magick(path, ours.channels);
        EXPECT_EQ(count_differences(ours, ref, ours.channels), 0u);
    }
}

// Channel 2 is red, 3 alpha; the resolution resource gives the header's
// dots per inch and answers the resource query.
TEST(PsdRead, ChannelsAndResources) {
    if (!have_magick()) GTEST_SKIP() << "needs ImageMagick";
    const TempDir dir("psd_channels");
    const std::string path = dir / "rgba.psd";
    ASSERT_TRUE(run("/usr/bin/convert '" + source_png(dir) + "' -units PixelsPerInch -density 150 '" +
                    path + "'"));
    const Raster rgba = pillow(path, "RGBA");
    for (int channel : {2, 3}) {
        const Handle h = IMG_decompress_bitmap_page(path.c_str(), -channel);
        ASSERT_GE(h, 0);
        EXPECT_EQ(info_of(h).biBitCount, 8);
        const Raster grey = handle_raster(h);
        size_t bad = 0;
        for (size_t i = 0; i < size_t(grey.width) * size_t(grey.height); ++i)
            bad += grey.px[i * 3] != rgba.px[i * 4 + (channel == 2 ? 0 : 3)];
        EXPECT_EQ(bad, 0u) << "channel " << channel;
    }
    EXPECT_EQ(IMG_decompress_bitmap_page(path.c_str(), -4), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(info_of(Handle(IMG_decompress_bitmap(path.c_str()))).biXPelsPerMeter, 150);
    uint8_t info[16] = {};
    int32_t value = 0;
    EXPECT_EQ(IMGLOW_get_tiff_tag(1005, sizeof info, &value, path.c_str(), info), 1);
    EXPECT_EQ(load_be32(info) >> 16, 150u);  // 16.16 fixed point
    EXPECT_EQ(IMGLOW_get_tiff_tag(4000, sizeof info, &value, path.c_str(), info), IMG_ERR_NOT_FOUND);
}

TEST(PsdRead, DamagedFilesAreRefused) {
    const Bytes rgb(3 * 4 * 2, 9);
    Bytes indexed = psd_header(1, 4, 2, 8, 2);
    indexed.resize(indexed.size() + 4 + 100);
    store_be32(&indexed[26], 768);
    Bytes v2 = psd_file(3, 4, 2, 8, 3, 0, rgb);
    v2[5] = 2;
    expect_statuses(psd::decode, {
        {"short header", Bytes(rgb.begin(), rgb.begin() + 20), IMG_ERR_READ},
        {"57 channels", psd_file(57, 4, 2, 8, 3, 0, rgb), IMG_ERR_BAD_IMAGE},
        {"RGB with two channels", psd_file(2, 4, 2, 8, 3, 0, rgb), IMG_ERR_BAD_IMAGE},
        {"layer section beyond the file", psd_file(3, 4, 2, 8, 3, 0, rgb, 1000), IMG_ERR_READ},
        {"raw channels cut short", psd_file(3, 4, 2, 8, 3, 0, Bytes(rgb.begin(), rgb.end() - 1)),
         IMG_ERR_READ},
        {"PackBits table beyond the file", psd_file(3, 3000, 3000, 8, 3, 1, Bytes(200, 0)),
         IMG_ERR_READ},
        {"PackBits size no data can reach", psd_file(1, 4000, 4000, 8, 1, 1, Bytes(8010, 0)),
         IMG_ERR_BAD_IMAGE},
        {"PackBits rows cut short", psd_file(1, 4, 2, 8, 1, 1, {0, 2, 0, 2, 0xFD, 7, 0x01}),
         IMG_ERR_READ},
        {"indexed colour data cut short", indexed, IMG_ERR_READ},
        {"version 2", v2, IMG_ERR_VARIANT},
        {"32-bit samples", psd_file(3, 4, 2, 32, 3, 0, rgb), IMG_ERR_DEPTH},
        {"16-bit bitmap", psd_file(1, 4, 2, 16, 0, 0, rgb), IMG_ERR_BAD_IMAGE},
    });
}
