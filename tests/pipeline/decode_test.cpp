// The decode driver and the library's decode callbacks: dispatch, the
// decode settings (depth and size reduction, rectangle, progress) on real
// files, header-only decodes and what failures leave behind.
#include <gtest/gtest.h>

#include "pipeline/codec.h"
#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

class Decode : public ::testing::Test {
protected:
    void TearDown() override {
        IMGLOW_set_decomp_reduction(0);
        IMGLOW_set_decompsize(0, 0);
        IMGLOW_set_decomp_rect(0, 0, 0, 0);
        IMG_set_statusbar(0, nullptr, 0);
    }
};

// 24-bit pixels that name their own position: blue and the low half of
// green the column, red and the high half of green the row.
void position_fill(uint8_t* row, uint32_t n, int32_t r) {
    for (uint32_t x = 0; x < n / 3; ++x) {
        row[x * 3] = uint8_t(x);
        row[x * 3 + 1] = uint8_t((x >> 8) | ((uint32_t(r) >> 8) << 4));
        row[x * 3 + 2] = uint8_t(r);
    }
}
uint32_t column_of(const uint8_t* p) { return p[0] | ((p[1] & 15u) << 8); }
uint32_t row_of(const uint8_t* p) { return p[2] | ((uint32_t(p[1]) >> 4) << 8); }

std::pair<int32_t, int32_t> size_of(int32_t h) { return {info_of(h).biWidth, info_of(h).biHeight}; }

// A BMP file of position_fill pixels in a library block.
void* position_bmp(int32_t width, int32_t height) {
    return to_block(save_mem(Handle(make_handle(width, height, 24, position_fill)), IMG_FORMAT_BMP));
}

}  // namespace

TEST_F(Decode, UnknownFormatAndMissingFileLeaveNothingBehind) {
    const int32_t probe = make_handle(2, 2, 8);
    IMG_delete_bitmap(probe);
    EXPECT_EQ(decode_mem(Bytes(100, 0xEE)), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(IMG_decompress_bitmap("/nonexistent/x.bmp"), IMG_ERR_OPEN);
    // A truncated file fails without keeping its handle.
    Bytes cut = read_file(corpus("bmp/rgb24.bmp"));
    cut.resize(cut.size() / 2);
    EXPECT_EQ(decode_mem(cut), IMG_ERR_READ);
    const Handle again = make_handle(2, 2, 8);
    EXPECT_EQ(again, probe);  // the slot the failed decodes took is free again
}

TEST_F(Decode, HeaderOnlyDecode) {
    IMG_BITMAPINFOHEADER info{};
    ASSERT_EQ(IMGLOW_get_fileinfo(corpus("bmp/rgb24.bmp").c_str(), &info), 0);
    EXPECT_EQ(info.biWidth, 227);
    EXPECT_EQ(info.biHeight, 149);
    EXPECT_EQ(info.biBitCount, 24);
    EXPECT_EQ(info.biSize, 40u);
    EXPECT_EQ(IMGLOW_get_fileinfo("/nonexistent", &info), IMG_ERR_OPEN);
    ASSERT_EQ(IMGLOW_get_fileinfo(corpus("png/rgb.png").c_str(), &info), 0);
    EXPECT_EQ(info.biWidth, 454);
    const std::string junk = corpus("README.md");  // no format
    EXPECT_EQ(IMGLOW_get_fileinfo(junk.c_str(), &info), IMG_ERR_UNSUPPORTED);
}

TEST_F(Decode, DepthReduction) {
    const std::string rgb = corpus("bmp/rgb24.bmp");
    const Handle full = IMG_decompress_bitmap(rgb.c_str());
    IMGLOW_set_decomp_reduction(8);
    const Handle eight = IMG_decompress_bitmap(rgb.c_str());
    ASSERT_GE(eight, 0);
    EXPECT_EQ(info_of(eight).biBitCount, 8);
    // Every pixel's palette colour (the 3-3-2 cube, the standard palettes'
    // "targa") stays within the reach of the ordered dither and the 3-3-2
    // levels of the source colour (blue has 2 bits).
    const Raster src = handle_raster(full), dst = handle_raster(eight);
    size_t far = 0;
    for (size_t i = 0; i < src.px.size(); ++i) far += std::abs(int(dst.px[i]) - int(src.px[i])) > (i % 3 == 2 ? 104 : 72);
    EXPECT_EQ(far, 0u);

    // A 4-bit image keeps its depth under reduction 8.
    EXPECT_EQ(info_of(Handle(IMG_decompress_bitmap(corpus("suites/bmpsuite/g/pal4rle.bmp").c_str()))).biBitCount, 4);

    // An 8-bit grey image with reduction 1 is bilevel in plain rows, the
    // ordered dither the save driver gives bilevel codes (checked pixel by
    // pixel against the Bayer matrix in Bilevel.SaveToBilevelCodes...).
    IMGLOW_set_decomp_reduction(1);
    const std::string grey = corpus("suites/bmpsuite/g/pal8gs.bmp");
    const Handle one = IMG_decompress_bitmap(grey.c_str());
    ASSERT_GE(one, 0);
    EXPECT_EQ(info_of(one).biBitCount, 1);
    EXPECT_EQ(info_of(one).biCompression, 0u);
    IMGLOW_set_decomp_reduction(0);
    const Handle saved = decode_mem(save_mem(Handle(IMG_decompress_bitmap(grey.c_str())), IMG_FORMAT_TIFF_G4));
    EXPECT_EQ(count_differences(handle_raster(one), handle_raster(saved), 1), 0u);

    // 24 bits with reduction 4: the 16-colour dither palette (its entries
    // are the standard palettes' test).
    IMGLOW_set_decomp_reduction(4);
    EXPECT_EQ(info_of(Handle(IMG_decompress_bitmap(rgb.c_str()))).biBitCount, 4);
}

// A reduced size keeps one source row per destination row (BMP rows arrive
// bottom first, so destination row d keeps the last of its rows, 8d + 7) and
// steps columns by 10; one larger than the image in a direction reduces
// nothing. A rectangle is cut out, clipped at the right and bottom edges,
// and refused when it starts outside the image.
TEST_F(Decode, SizeReductionAndRectangle) {
    void* block = position_bmp(1000, 800);
    const struct {
        int32_t size[2], rect[4];
        int32_t width, height;
        uint32_t x0, x_step, y0, y_step;
    } cases[] = {
        {{100, 100}, {0, 0, 0, 0}, 100, 100, 0, 10, 7, 8},
        {{2000, 100}, {0, 0, 0, 0}, 1000, 800, 0, 1, 0, 1},
        {{0, 0}, {10, 20, 50, 30}, 50, 30, 10, 1, 20, 1},
        {{0, 0}, {960, 790, 100, 100}, 40, 10, 960, 1, 790, 1},
    };
    for (const auto& c : cases) {
        IMGLOW_set_decompsize(c.size[0], c.size[1]);
        IMGLOW_set_decomp_rect(c.rect[0], c.rect[1], c.rect[2], c.rect[3]);
        const Handle h = IMG_decompress_bitmap_mem(block, 0);
        ASSERT_GE(h, 0);
        ASSERT_EQ(size_of(h), std::pair(c.width, c.height));
        for (int32_t d = 0; d < c.height; d += 11) {
            const auto row = get_row(h, d);
            for (uint32_t x = 0; x < uint32_t(c.width); x += 9) {
                EXPECT_EQ(row_of(&row[x * 3]), c.y0 + c.y_step * uint32_t(d)) << c.width << " row " << d;
                EXPECT_EQ(column_of(&row[x * 3]), c.x0 + c.x_step * x) << c.width << " column " << x;
            }
        }
    }
    IMGLOW_set_decomp_rect(1000, 0, 10, 10);
    EXPECT_EQ(IMG_decompress_bitmap_mem(block, 0), IMG_ERR_BAD_IMAGE);
    tesslin_block_free(block);
}

// A bilevel image arriving bottom row first is run-encoded (its pixels are a
// conformance row); cut to a rectangle and reduced in size.
TEST_F(Decode, RectangleAndSizeReductionOnABilevelImage) {
    const Raster ref = read_netpbm(corpus("refs/ff178facd1ae4c0c.pbm"));
    const std::string mono = corpus("bmp/mono.bmp");
    EXPECT_EQ(info_of(Handle(IMG_decompress_bitmap(mono.c_str()))).biCompression, 99u);
    IMGLOW_set_decomp_rect(13, 40, 101, 60);
    const Handle cut = IMG_decompress_bitmap(mono.c_str());
    ASSERT_GE(cut, 0);
    const Raster c = handle_raster(cut);
    ASSERT_EQ(c.width, 101);
    ASSERT_EQ(c.height, 60);
    size_t bad = 0;
    for (int32_t y = 0; y < 60; ++y)
        for (int32_t x = 0; x < 101; ++x) bad += c.at(x, y)[0] != ref.at(x + 13, y + 40)[0];
    EXPECT_EQ(bad, 0u);

    // Scaled run positions: every destination pixel has the colour of some
    // source pixel of the columns it stands for, in its source row.
    IMGLOW_set_decomp_rect(0, 0, 0, 0);
    IMGLOW_set_decompsize(100, 50);
    const Handle small = IMG_decompress_bitmap(mono.c_str());
    ASSERT_GE(small, 0);
    const Raster s = handle_raster(small);
    ASSERT_EQ(s.width, 100);
    ASSERT_EQ(s.height, 50);
    bad = 0;
    for (int32_t d = 0; d < 50; ++d) {
        // Rows arrive bottom first: the last source row of each group.
        int32_t src_row = 0;
        for (int32_t r = 0; r < 149; ++r)
            if (50 * r / 149 == d) src_row = r;
        for (int32_t x = 0; x < 100; ++x) {
            const int32_t lo = x * 227 / 100, hi = std::min(227, (x + 1) * 227 / 100 + 2);
            bool found = false;
            for (int32_t sx = std::max(0, lo - 1); sx < hi && !found; ++sx)
                found = ref.at(sx, src_row)[0] == s.at(x, d)[0];
            bad += !found;
        }
    }
    EXPECT_EQ(bad, 0u);
}

namespace {
int32_t progress_calls = 0;
int32_t progress(intptr_t stop_row, int32_t total, int32_t row, uint32_t) {
    EXPECT_EQ(total, 149);
    ++progress_calls;
    return row == int32_t(stop_row) ? -4 : 0;
}
}  // namespace

// The raster callback and the progress callback see every row, and either
// ends the decode at once with its own status.
TEST_F(Decode, CallbacksSeeEveryRowAndCanStopTheDecode) {
    void* block = to_block(read_file(corpus("bmp/rgb24.bmp")));
    Decoded all, stop;
    stop.stop_row = 3;
    stop.stop_status = -5;
    EXPECT_EQ(IMGLOW_decompress_bitmap_mem(block, 0, Decoded::on_row, intptr_t(&all), Decoded::on_header), 0);
    EXPECT_EQ(all.order.size(), 149u);
    EXPECT_EQ(IMGLOW_decompress_bitmap_mem(block, 0, Decoded::on_row, intptr_t(&stop), Decoded::on_header), -5);
    EXPECT_EQ(stop.order.back(), 3);  // nothing after row 3
    IMG_set_statusbar(-1, progress, 1);
    progress_calls = 0;
    EXPECT_GE(Handle(IMG_decompress_bitmap_mem(block, 0)), 0);
    EXPECT_EQ(progress_calls, 149);
    IMG_set_statusbar(100, progress, 1);
    EXPECT_EQ(IMG_decompress_bitmap_mem(block, 0), -4);
    tesslin_block_free(block);
}

namespace {

// A decode that announces a 24-bit 7 x 6 image and delivers rows 0 and 2
// from its own buffer and row 3 built where raster_destination says; rows
// 1, 4 and 5 never come.
int32_t partial_body(void* context, IMG_RASTER_CALLBACK raster, intptr_t user,
                     IMG_HEADER_CALLBACK header) {
    auto* destinations = static_cast<std::vector<bool>*>(context);
    alignas(4) uint8_t block[kHeaderBlockSize] = {};
    auto* h = reinterpret_cast<DibHeader*>(block);
    *h = dib_header(7, 6, 24);
    if (int32_t r = header(h, user); r < 0) return r;
    const uint32_t rb = row_bytes(7, 24);
    std::vector<uint8_t> own(rb, 0);
    for (int32_t row : {0, 2, 3}) {
        uint8_t* out = raster_destination(raster, user, row);
        destinations->push_back(out != nullptr);
        if (!out || row != 3) out = own.data();
        for (uint32_t i = 0; i < rb; ++i) out[i] = uint8_t(row * 16 + i);
        if (int32_t r = raster(out, user, row, rb); r < 0) return r;
    }
    return 0;
}

}  // namespace

// The image is not cleared when it is made: rows a decoder never delivers
// are cleared when the decode ends (a freed block of the same size full of
// 0xAA first, so that stale memory would show), delivered rows are kept,
// and a row built in place is not copied over.
TEST_F(Decode, RowsNeverDeliveredAreClearedAndRowsBuiltInPlaceKept) {
    const uint32_t rb = row_bytes(7, 24);
    for (int reduce : {0, 8}) {
        SCOPED_TRACE(reduce);
        IMGLOW_set_decomp_reduction(reduce);
        // The size the image's block has: header, rows rounded up to 8, and
        // the library's slack after them.
        const uint32_t block_size = 40 + rb * 8 + 8192;
        void* stale = tesslin_block_alloc(block_size);
        std::memset(stale, 0xAA, block_size);
        tesslin_block_free(stale);
        std::vector<bool> destinations;
        const Handle h = decode_into_handle(partial_body, &destinations);
        ASSERT_GE(h, 0);
        // Rows are built in place only when they are stored as delivered.
        ASSERT_EQ(destinations.size(), 3u);
        for (bool d : destinations) EXPECT_EQ(d, reduce == 0);
        for (int32_t row = 0; row < 6; ++row) {
            const auto got = get_row(h, row);
            const bool delivered = row == 0 || row == 2 || row == 3;
            if (reduce) {
                if (!delivered) {
                    EXPECT_EQ(got, Bytes(got.size(), 0)) << row;
                }
                continue;
            }
            ASSERT_EQ(got.size(), rb);
            for (uint32_t i = 0; i < rb; ++i)
                ASSERT_EQ(got[i], delivered ? uint8_t(row * 16 + i) : 0) << row << " " << i;
        }
    }
    // Other callbacks get no destination.
    EXPECT_EQ(raster_destination(Decoded::on_row, 1, 0), nullptr);
}
