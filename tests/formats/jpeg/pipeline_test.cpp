// JPEG through the library's entry points: IMG_decompress_bitmap on JPEG
// files and on BMP files carrying JPEG data, IMG_save_bitmap with format
// code 13 (by code and by file name).
#include <gtest/gtest.h>

#include "core/settings.h"
#include "jpeg_test.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// The handle's rows against the decoder's own delivery.
void expect_handle_rows(int32_t h, const Decoded& d) {
    int32_t w = 0, ht = 0, bits = 0;
    ASSERT_NE(IMG_bitmap_info(h, &w, &ht, &bits), IMG_ERR_HANDLE);
    ASSERT_EQ(w, d.h().biWidth);
    ASSERT_EQ(ht, d.h().biHeight);
    ASSERT_EQ(bits, d.h().biBitCount);
    for (int r = 0; r < ht; ++r) {
        const auto row = get_row(h, r);
        ASSERT_EQ(row, d.rows[size_t(r)]) << "row " << r;
    }
}

}  // namespace

TEST(JpegPipeline, DecodeEntryPointsGiveTheDecodersRows) {
    for (const char* name : {"jpeg/420.jpg", "jpeg/grey.jpg", "jpeg/progressive.jpg", "jpeg/ycck.jpg",
                             "corpus/jpeg/dpi300.jpg"}) {
        SCOPED_TRACE(name);
        Decoded d;
        ASSERT_EQ(jpeg_decode_file(data_path(name), &d), 0);
        EXPECT_EQ(IMGLOW_get_filetype(data_path(name).c_str()), 13);
        const Handle h = IMG_decompress_bitmap(data_path(name).c_str());
        ASSERT_GE(h, 0);
        expect_handle_rows(h, d);
        auto* hd = reinterpret_cast<DibHeader*>(IMG_bitmap_info(h, nullptr, nullptr, nullptr));
        EXPECT_EQ(hd->biXPelsPerMeter, d.h().biXPelsPerMeter);
    }
    EXPECT_LT(IMG_decompress_bitmap(data_path("corpus/jpeg/arithmetic.jpg").c_str()), 0);
    EXPECT_LT(IMG_decompress_bitmap(data_path("jpeg/twelve-bit.jpg").c_str()), 0);
}

// The BMP suite's 24-bit file with JPEG compression: the BMP reader hands
// its data to the JPEG decoder at the data offset.
TEST(JpegPipeline, BmpWithJpegCompression) {
    const std::string path = data_path("corpus/suites/bmpsuite/q/rgb24jpeg.bmp");
    const auto bmp = read_file(path);
    ASSERT_GT(bmp.size(), 54u);
    const uint32_t offset = load_le32(&bmp[10]);
    Decoded d;
    ASSERT_EQ(jpeg_decode_bytes(bmp, &d, {}, offset), 0);
    const Handle h = IMG_decompress_bitmap(path.c_str());
    ASSERT_GE(h, 0);
    expect_handle_rows(h, d);
}

TEST(JpegPipeline, SaveWithCodeThirteen) {
    const Settings saved = settings();
    IMGLOW_set_comp_quality(75);
    const Raster photo = read_netpbm(data_path("corpus/refs/b8d8b9b4501bf26d.ppm"));
    ASSERT_GT(photo.width, 0);
    const Handle h = IMG_create_handle_keep(dib_from_pnm(photo));
    ASSERT_GE(h, 0);
    const std::string by_code = temp_path("save13.jpg"), by_name = temp_path("byname.jpg");
    ASSERT_EQ(IMG_save_bitmap(h, by_code.c_str(), 13), 0);
    ASSERT_EQ(IMG_save_bitmap(h, by_name.c_str(), -1), 0);
    const auto a = read_file(by_code), b = read_file(by_name);
    EXPECT_EQ(a, b);
    // The same bytes as the encoder gives directly, and as the memory save.
    auto* dib = reinterpret_cast<const void*>(IMG_bitmap_info(h, nullptr, nullptr, nullptr));
    EXPECT_EQ(a, jpeg_encode_dib(dib));
    void* block = tesslin_block_alloc(1 << 20);
    EXPECT_EQ(IMG_save_bitmap_mem(h, block, 13), int32_t(a.size()));
    EXPECT_EQ(0, std::memcmp(block, a.data(), a.size()));
    tesslin_block_free(block);
    // Back through the library: close to the source.
    const Handle back = IMG_decompress_bitmap(by_code.c_str());
    ASSERT_GE(back, 0);
    Bytes rgb;
    for (int r = 0; r < photo.height; ++r) {
        const auto row = get_row(back, r);
        for (int x = 0; x < photo.width; ++x)
            for (int c = 2; c >= 0; --c) rgb.push_back(row[size_t(3 * x + c)]);
    }
    EXPECT_GE(psnr(rgb, photo.px), 30.0);

    // A crop rectangle is what gets written.
    IMG_set_croprect(h, 10, 20, 50, 30);
    ASSERT_EQ(IMG_save_bitmap(h, by_code.c_str(), 13), 0);
    Decoded cropped;
    ASSERT_EQ(jpeg_decode_file(by_code, &cropped), 0);
    EXPECT_EQ(cropped.h().biWidth, 50);
    EXPECT_EQ(cropped.h().biHeight, 30);

    // 16-bit images are refused, 32-bit ones come back as four channels.
    const Handle deep = make_handle(8, 8, 16);
    EXPECT_EQ(IMG_save_bitmap(deep, by_code.c_str(), 13), IMG_ERR_DEPTH);
    const Handle four = make_handle(24, 16, 32);
    ASSERT_EQ(IMG_save_bitmap(four, by_code.c_str(), 13), 0);
    const Handle four_back = IMG_decompress_bitmap(by_code.c_str());
    int32_t bits = 0;
    IMG_bitmap_info(four_back, nullptr, nullptr, &bits);
    EXPECT_EQ(bits, 32);
    std::memcpy(settings().jpeg_luma, saved.jpeg_luma, 64);
    std::memcpy(settings().jpeg_chroma, saved.jpeg_chroma, 64);
}
