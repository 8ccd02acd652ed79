// The small raster writers (Sun raster, Targa, Photoshop, WBMP, X bitmap,
// X pixmap): every depth each takes, read back exactly by ImageMagick (or
// Pillow where ImageMagick reads the format differently), the header fields
// that say how each file was written, and the depths each refuses.
#include <gtest/gtest.h>

#include "magick.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

enum Palette { kGrey, kColour, kAlpha };  // 4/8 bits: the palette; 32 bits: the alpha marker

struct Written {
    const char* ext;
    int32_t code;
    int bits;
    int32_t width, height;
    Palette palette;
    bool magick;         // ImageMagick reads it back (not past 16000 pixels for WBMP)
    const char* pillow;  // Pillow's mode when Pillow reads it back
    std::vector<std::pair<size_t, uint8_t>> header;  // bytes the file must have, by offset
};

// Header bytes: Sun depth and map length (4 bits as 8 with a map); Targa
// map, type and depth (16 bits as 8-bit grey, TARGA_24 as 15-bit pixels);
// Photoshop mode; WBMP multi-byte sizes (ImageMagick reads up to 16000).
const Written kWritten[] = {
    {"ras", IMG_FORMAT_SUN_RASTER, 1, 37, 23, kGrey, true, "RGB", {{15, 1}, {30, 0}, {31, 0}}},
    {"ras", IMG_FORMAT_SUN_RASTER, 4, 37, 23, kColour, true, "RGB", {{15, 8}, {30, 3}, {31, 0}}},
    {"ras", IMG_FORMAT_SUN_RASTER, 8, 37, 23, kColour, true, "RGB", {{15, 8}, {30, 3}, {31, 0}}},
    {"ras", IMG_FORMAT_SUN_RASTER, 24, 37, 23, kGrey, true, "RGB", {{15, 24}, {30, 0}, {31, 0}}},
    {"tga", IMG_FORMAT_TARGA, 8, 45, 17, kGrey, true, nullptr, {{1, 0}, {2, 3}, {16, 8}}},
    {"tga", IMG_FORMAT_TARGA, 8, 45, 17, kColour, true, nullptr, {{1, 1}, {2, 1}, {16, 8}}},
    {"tga", IMG_FORMAT_TARGA, 16, 45, 17, kGrey, true, nullptr, {{1, 0}, {2, 3}, {16, 8}}},
    {"tga", IMG_FORMAT_TARGA, 24, 45, 17, kGrey, true, nullptr, {{1, 0}, {2, 2}, {16, 24}}},
    {"tga", IMG_FORMAT_TARGA, 32, 45, 17, kAlpha, true, nullptr, {{1, 0}, {2, 2}, {16, 32}}},
    {"tga", IMG_FORMAT_TARGA_24, 24, 45, 17, kGrey, true, nullptr, {{1, 0}, {2, 2}, {16, 15}}},
    {"psd", IMG_FORMAT_PSD, 1, 301, 250, kGrey, true, nullptr, {{24, 0}, {25, 0}}},
    {"psd", IMG_FORMAT_PSD, 8, 301, 250, kColour, false, "RGB", {{24, 0}, {25, 2}}},
    {"psd", IMG_FORMAT_PSD, 24, 301, 250, kGrey, true, nullptr, {{24, 0}, {25, 3}}},
    {"psd", IMG_FORMAT_PSD, 32, 301, 250, kAlpha, false, "RGBA", {{24, 0}, {25, 3}}},
    {"psd", IMG_FORMAT_PSD, 32, 301, 250, kGrey, false, "CMYK", {{24, 0}, {25, 4}}},
    {"wbmp", IMG_FORMAT_WBMP, 1, 100, 5, kGrey, true, nullptr, {{0, 0}, {1, 0}, {2, 0x64}, {3, 5}}},
    {"wbmp", IMG_FORMAT_WBMP, 1, 200, 5, kGrey, true, nullptr, {{2, 0x81}, {3, 0x48}, {4, 5}}},
    {"wbmp", IMG_FORMAT_WBMP, 1, 20000, 5, kGrey, false, nullptr, {{2, 0x81}, {3, 0x9C}, {4, 0x20}, {5, 5}}},
    {"xbm", IMG_FORMAT_XBM, 1, 1, 17, kGrey, true, nullptr, {}},
    {"xbm", IMG_FORMAT_XBM, 1, 13, 17, kGrey, true, nullptr, {}},
    {"xbm", IMG_FORMAT_XBM, 1, 64, 17, kGrey, true, nullptr, {}},
    {"xbm", IMG_FORMAT_XBM, 1, 203, 17, kGrey, true, nullptr, {}},
    {"xpm", IMG_FORMAT_XPM, 1, 29, 11, kGrey, true, nullptr, {}},
    {"xpm", IMG_FORMAT_XPM, 4, 29, 11, kColour, true, nullptr, {}},
    {"xpm", IMG_FORMAT_XPM, 8, 29, 11, kColour, true, nullptr, {}},
};

// What a peer must show of the handle: RGB (RGBA for 32 bits with alpha;
// C, M, Y, K as stored for CMYK), 16-bit samples as the grey of their high
// byte.
Raster expected(int32_t handle, const Written& w) {
    std::vector<Bytes> rows;
    for (int32_t y = 0; y < w.height; ++y) rows.push_back(get_row(handle, y));
    Raster r = dib_raster(header_of(handle).data(), rows, true);
    if (w.bits == 32 && w.palette != kAlpha)
        for (size_t i = 0; i < r.px.size(); i += 4) std::swap(r.px[i], r.px[i + 2]);
    return r;
}

// Samples that differ; for 15-bit Targa pixels the 5-bit fields (we widen
// them by shifting, a peer scales them to 0..255).
size_t differences(Raster got, Raster want, const Written& w) {
    if (w.code == IMG_FORMAT_TARGA_24 && got.px.size() == want.px.size()) {
        for (uint8_t& v : got.px) v = uint8_t((v * 31 + 127) / 255);
        for (uint8_t& v : want.px) v = uint8_t(v >> 3);
    }
    return count_differences(got, want, want.channels);
}

}  // namespace

TEST(RasterWrite, PeersReadBackEveryDepth) {
    if (!have_magick() || !have_pillow()) GTEST_SKIP() << "needs ImageMagick and Pillow";
    const TempDir dir("raster_writers");
    for (const Written& w : kWritten) {
        const std::string what = std::string(w.ext) + " " + std::to_string(w.bits) + " bits, width " +
                                 std::to_string(w.width) + ", palette " + std::to_string(w.palette);
        SCOPED_TRACE(what);
        void* dib = make_dib(w.width, w.height, w.bits);
        if (w.palette == kColour)
            for (uint32_t i = 0; i < palette_entries(uint32_t(w.bits)); ++i)
                dib_palette(dib)[i] = RgbQuad{uint8_t(i * 3), uint8_t(255 - i), uint8_t(i * 7), 0};
        if (w.palette == kAlpha) static_cast<DibHeader*>(dib)->biCompression = IMG_COMPRESSION_ALPHA;
        const Handle h = IMG_create_handle_keep(dib);
        const std::string path = dir / ("out." + std::string(w.ext));
        ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), w.code), 0);
        const Bytes file = read_file(path);
        for (const auto& [at, value] : w.header) EXPECT_EQ(file.at(at), value) << "byte " << at;
        if (w.code == IMG_FORMAT_XBM || w.code == IMG_FORMAT_XPM) {
            EXPECT_EQ(IMGLOW_get_filetype(path.c_str()), w.code);
        }
        const Raster want = expected(h, w);
        if (w.magick) {
            EXPECT_EQ(differences(magick(path, want.channels), want, w), 0u);
        }
        if (w.pillow) {
            EXPECT_EQ(differences(pillow(path, w.pillow), want, w), 0u) << w.pillow;
        }
        fs::remove(path);
    }
}

TEST(RasterWrite, RefusedDepths) {
    const std::pair<int32_t, std::vector<int>> refused[] = {
        {IMG_FORMAT_SUN_RASTER, {16, 32}},
        {IMG_FORMAT_TARGA, {1, 4, 32}},  // 32: four colour channels, no alpha
        {IMG_FORMAT_PSD, {4, 16}},
        {IMG_FORMAT_WBMP, {8}},
        {IMG_FORMAT_XBM, {8}},
        {IMG_FORMAT_XPM, {16, 24}},
    };
    for (const auto& [code, depths] : refused)
        for (int bits : depths) EXPECT_EQ(save_status(bits, code), IMG_ERR_DEPTH) << code << " " << bits;
    EXPECT_EQ(save_status(8, IMG_FORMAT_TARGA_24), IMG_ERR_UNSUPPORTED);
}
