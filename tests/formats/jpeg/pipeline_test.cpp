// JPEG through the library's save entry points: IMG_save_bitmap with format
// code 13 (by code and by file name). (Decoding through the entry points is
// held against references by the conformance suite and the BMP tests.)
#include <gtest/gtest.h>

#include "core/settings.h"
#include "jpeg_test.h"

using namespace tesslin;
using namespace tesslin::test;

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
    EXPECT_GE(psnr(handle_raster(back), photo), 30.0);

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
