// Tiled decode with a synthetic tiled decoder: tiles assembled into one
// image, edges clipped, bilevel tiles as run records.
#include <gtest/gtest.h>

#include "core/runs.h"
#include "core/stream.h"
#include "image_util.h"
#include "pipeline/decode.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

TileInfo g_info;
uint16_t g_bits = 8;
std::vector<uint32_t> g_positions;  // position arguments seen

uint8_t grey(uint32_t x, uint32_t y) { return uint8_t(x * 5 + y * 11); }
bool black(uint32_t x, uint32_t y) { return (x / 3 + y) % 2 == 0; }

// Serves tile (position >> 16) of a picture defined by grey() or black().
int32_t tiled_decoder(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                      IMG_HEADER_CALLBACK header, int32_t) {
    g_positions.push_back(position);
    const uint32_t tile = position_is_page(position) ? position_tile(position) : 0;
    const uint32_t tw = uint32_t(g_info.tile_width), th = uint32_t(g_info.tile_height);
    const uint32_t x0 = (tile % uint32_t(g_info.tiles_across)) * tw;
    const uint32_t y0 = (tile / uint32_t(g_info.tiles_across)) * th;
    std::vector<uint8_t> block(kHeaderBlockSize, 0);
    auto* h = reinterpret_cast<DibHeader*>(block.data());
    *h = DibHeader{40, int32_t(tw), int32_t(th), 1, g_bits, 0, 0, 0, 0, 0, 0};
    for (int i = 0; i < 256; ++i)
        dib_palette(block.data())[i] = RgbQuad{uint8_t(i), uint8_t(i), uint8_t(i), 0};
    if (g_bits == 1) dib_palette(block.data())[1] = RgbQuad{255, 255, 255, 0};
    if (int32_t s = header(h, user); s < 0) return s;
    std::vector<uint32_t> row(runs::max_record_bytes(tw) / 4 + 4);
    auto* bytes = reinterpret_cast<uint8_t*>(row.data());
    for (uint32_t i = 0; i < th; ++i) {
        const uint32_t y = g_bits == 1 ? th - 1 - i : i;  // bilevel tiles from the bottom
        uint32_t count = row_bytes(tw, g_bits);
        if (g_bits == 8) {
            for (uint32_t x = 0; x < tw; ++x) bytes[x] = grey(x0 + x, y0 + y);
        } else {
            std::vector<uint8_t> packed(row_bytes(tw, 1), 0);
            for (uint32_t x = 0; x < tw; ++x)
                if (!black(x0 + x, y0 + y)) packed[x / 8] |= uint8_t(0x80 >> (x % 8));
            count = runs::encode(packed.data(), tw, row.data());
        }
        if (int32_t s = raster(bytes, user, int32_t(y), count); s < 0) return s;
    }
    return 0;
}

}  // namespace

TEST(Tiled, TilesAreAssembledIntoOneImage) {
    for (uint16_t bits : {uint16_t(8), uint16_t(1)}) {
        SCOPED_TRACE(bits);
        g_bits = bits;
        g_info = TileInfo{50, 30, 16, 16, 4, 8};  // edges clipped on the right and bottom
        g_positions.clear();
        std::vector<uint8_t> none(16, 0);
        void* block = to_block(none);
        const int32_t s = stream::mem_create(block);
        const int32_t h = decode_tiled(s, 0, 2, g_info, tiled_decoder);
        ASSERT_GE(h, 0);
        ASSERT_EQ(g_positions.size(), 8u);
        EXPECT_EQ(g_positions[5], (5u << 16 | 2u) | 0x80000000u);
        const Raster r = handle_raster(h);
        ASSERT_EQ(r.width, 50);
        ASSERT_EQ(r.height, 30);
        size_t bad = 0;
        for (int32_t y = 0; y < 30; ++y)
            for (int32_t x = 0; x < 50; ++x) {
                const uint8_t want = bits == 8 ? grey(uint32_t(x), uint32_t(y))
                                               : (black(uint32_t(x), uint32_t(y)) ? 0 : 255);
                bad += r.at(x, y)[0] != want;
            }
        EXPECT_EQ(bad, 0u);
        IMG_delete_bitmap(h);
        stream::mem_release(s);
        tesslin_block_free(block);
    }
}

TEST(Tiled, NotTiledAndBadGeometry) {
    EXPECT_EQ(IMG_decompress_tiled_bitmap(data_path("corpus/bmp/rgb24.bmp").c_str(), 0),
              IMG_ERR_NOT_TILED);
    EXPECT_EQ(IMG_decompress_tiled_bitmap("/nonexistent", 0), IMG_ERR_OPEN);
    const TileInfo too_few{50, 30, 16, 16, 3, 6};  // 3 tiles across cannot cover 50 columns
    EXPECT_EQ(decode_tiled(0, 0, 0, too_few, tiled_decoder), IMG_ERR_BAD_IMAGE);
}
