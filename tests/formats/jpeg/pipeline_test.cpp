// JPEG through the library's save entry points: IMG_save_bitmap with format
// code 13 (by code and by file name) and the memory save write exactly the
// encoder's bytes, which the encoder tests hold against libjpeg. (Decoding
// through the entry points is held against references by the conformance
// suite and the BMP tests; crop rectangles by the save driver's tests.)
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
    const Scratch by_code("save13.jpg"), by_name("byname.jpg");
    ASSERT_EQ(IMG_save_bitmap(h, by_code.c_str(), 13), 0);
    ASSERT_EQ(IMG_save_bitmap(h, by_name.c_str(), -1), 0);
    const auto a = read_file(by_code);
    EXPECT_EQ(a, read_file(by_name));
    EXPECT_EQ(a, jpeg_encode_dib(reinterpret_cast<const void*>(IMG_bitmap_info(h, nullptr, nullptr, nullptr))));
    EXPECT_EQ(a, save_mem(h, 13));
    // The encoder's refusal of 16-bit images reaches the caller.
    EXPECT_EQ(IMG_save_bitmap(Handle(make_handle(8, 8, 16)), by_code.c_str(), 13), IMG_ERR_DEPTH);
    std::memcpy(settings().jpeg_luma, saved.jpeg_luma, 64);
    std::memcpy(settings().jpeg_chroma, saved.jpeg_chroma, 64);
}
