// PNG reader: PngSuite against Pillow's decodes, the corrupt PngSuite files,
// and the reader's rules on files built for the purpose. (The corpus' PNG
// pages are held against their references by the conformance suite.)
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>

#include "format_checks.h"
#include "png_test.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

const std::string kSuite = corpus("suites/pngsuite");

// Compares a decode with Pillow's pixels after the reader's fixed
// conversions: grey samples stay sample values (Pillow scales 1-, 2- and
// 4-bit grey to 0-255; the DIB keeps the value under the grey ramp of its
// bit count), 16-bit samples keep their high byte, palette images compare
// by colour (1-bit rows inverted when palette entry 0 is light), grey with
// alpha keeps the grey, colour with alpha is blue, green, red, alpha.
std::string compare_with_pillow(const Bytes& file, const Decoded& d, const Raster& ref) {
    const int depth = file[24], colour = file[25];
    if (d.width() != ref.width || d.height() != ref.height) return "size differs";
    const bool inverted = d.bits() == 1 && d.palette()[0].rgbBlue && d.palette()[0].rgbGreen && d.palette()[0].rgbRed;
    const size_t channels = colour == 6 ? 4 : colour == 0 || colour == 4 ? 1 : 3;
    for (int y = 0; y < ref.height; ++y)
        for (int x = 0; x < ref.width; ++x) {
            uint8_t want[4];
            if (colour == 0 || colour == 4) {
                want[0] = uint8_t(sample(d, y, x) * (colour == 0 && depth < 8 ? 255 / ((1u << depth) - 1) : 1));
            } else {
                const RgbQuad q = colour == 3 && inverted ? d.palette()[sample(d, y, x) ^ 1] : pixel_colour(d, y, x);
                const uint8_t rgba[4] = {q.rgbRed, q.rgbGreen, q.rgbBlue, q.rgbReserved};
                std::memcpy(want, rgba, 4);
            }
            if (std::memcmp(want, ref.at(x, y), channels) != 0)
                return "pixel (" + std::to_string(x) + ", " + std::to_string(y) + ") differs";
        }
    return "";
}

// The DIB layout each PNG pixel type becomes.
void expect_layout(const std::string& name, const Bytes& file, const Decoded& d) {
    const int depth = file[24], colour = file[25];
    const int bits = colour == 2 ? 24 : colour == 6 ? 32 : colour == 4 ? 8 : depth == 2 ? 8 : depth;
    EXPECT_EQ(d.bits(), bits) << name;
    EXPECT_EQ(d.h().biCompression, colour == 6 ? 200u : 0u) << name;
    EXPECT_EQ(d.h().biSizeImage, row_bytes(uint32_t(d.width()), uint32_t(bits)) * uint32_t(d.height())) << name;
    if (colour == 0 || colour == 4) {
        // The grey ramp of the bit count: 2^bits levels (i * 256 / levels),
        // 256 for 16 bits; black and white for 1 bit.
        const uint32_t entries = bits == 16 ? 256 : 1u << bits, step = 256 / entries;
        for (uint32_t i = 0; i < entries; ++i)
            ASSERT_EQ(d.palette()[i].rgbRed, bits == 1 ? i * 255 : i * step) << name << " palette entry " << i;
    }
}

std::vector<std::string> suite_files(bool corrupt) {
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(kSuite)) {
        const std::string n = e.path().filename().string();
        if (e.path().extension() == ".png" && (n[0] == 'x') == corrupt) names.push_back(n);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string ref_path(const std::string& png) {
    const std::string base = data_path("png/pngsuite/") + png.substr(0, png.size() - 4);
    for (const char* ext : {".pgm", ".ppm", ".pam"})
        if (fs::exists(base + ext)) return base + ext;
    return "";
}

}  // namespace

TEST(PngSuite, EveryValidFileDecodesToPillowsPixels) {
    const auto names = suite_files(false);
    ASSERT_GE(names.size(), 150u);
    int compared = 0;
    for (const auto& name : names) {
        const auto file = read_file(kSuite + "/" + name);
        const std::string ref = ref_path(name);
        ASSERT_FALSE(ref.empty()) << name << ": no reference (run tests/data/png/make_refs.py)";
        const Raster pnm = read_netpbm(ref);
        ASSERT_GT(pnm.width, 0) << ref;
        const Decoded d = png_read(file);
        ASSERT_EQ(d.status, 0) << name;
        expect_layout(name, file, d);
        EXPECT_EQ(compare_with_pillow(file, d, pnm), "") << name;
        ++compared;
    }
    EXPECT_EQ(compared, int(names.size()));
}

// The deliberately corrupt files: those whose damage the reader does not
// look at (signature, CRCs) decode as their intact twins; the others fail
// with a negative status.
TEST(PngSuite, CorruptFilesFailOrDecodeAsTheReaderDefines) {
    const std::map<std::string, std::string> decodes = {
        {"xs1n0g01.png", "basn0g01.png"}, {"xs2n0g01.png", "basn0g01.png"}, {"xs4n0g01.png", "basn0g01.png"},
        {"xs7n0g01.png", "basn0g01.png"}, {"xcsn0g01.png", "basn0g01.png"}, {"xhdn0g08.png", "basn0g08.png"},
        {"xcrn0g04.png", "basn0g04.png"},
    };
    const auto names = suite_files(true);
    ASSERT_EQ(names.size(), 14u);
    for (const auto& name : names) {
        const auto file = read_file(kSuite + "/" + name);
        const Decoded d = png_read(file);
        auto twin = decodes.find(name);
        if (twin == decodes.end()) {
            EXPECT_LT(d.status, 0) << name;
            continue;
        }
        ASSERT_EQ(d.status, 0) << name;
        const Raster pnm = read_netpbm(ref_path(twin->second));
        EXPECT_EQ(compare_with_pillow(read_file(kSuite + "/" + twin->second), d, pnm), "") << name;
    }
    // Specific statuses: an impossible bit depth or colour type, a missing IDAT.
    EXPECT_EQ(png_read(read_file(kSuite + "/xd3n2c08.png")).status, IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(png_read(read_file(kSuite + "/xc9n2c08.png")).status, IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(png_read(read_file(kSuite + "/xdtn0g01.png")).status, IMG_ERR_READ);
}

// --- the reader's rules, on files built here -------------------------------

namespace {

// A PNG of the given rows, each already prefixed with its filter byte.
Bytes png_of(uint32_t w, uint32_t h, uint8_t depth, uint8_t colour, const Bytes& filtered,
                            std::vector<std::pair<std::string, Bytes>> extra = {}, uint8_t interlace = 0,
                            size_t split = 1 << 20) {
    return build_png(ihdr(w, h, depth, colour, interlace), extra, zlib_compress(filtered), split);
}

}  // namespace

// Files built here and the row each must deliver: a 1-bit palette whose
// entry 0 is white has its bits inverted and the palette as read, interlaced
// or not (other palettes and depths: PngSuite); a filter type beyond 4 is
// taken as None (the five filters: PngSuite's f0* files); a reserved deflate
// block type ends the decode keeping the rows delivered before it.
TEST(PngReader, BuiltFilesDeliverTheirRows) {
    const Bytes white_black = {255, 255, 255, 0, 0, 0};
    // A stored block with rows 0 and 1, then a final block of type 3.
    const Bytes reserved = {0x78, 0x01, 0x00, 6, 0, 0xF9, 0xFF, 0, 1, 2, 0, 3, 4, 0x07};
    struct Case {
        const char* what;
        Bytes file;
        size_t delivered, row;
        Bytes start;
    };
    const Case cases[] = {
        // Pixels 0, 2 and 5 set; interlaced 8 x 1: passes 1 (x 0), 2 (x 4), 4 (x 2, 6), 6 (x 1, 3, 5, 7).
        {"white/black palette", png_of(8, 1, 1, 3, {0, 0xA4}, {{"PLTE", white_black}}), 1, 0, {0x5B}},
        {"white/black palette, interlaced",
         png_of(8, 1, 1, 3, {0, 0x80, 0, 0x00, 0, 0x80, 0, 0x20}, {{"PLTE", white_black}}, 1), 1, 0, {0x5B}},
        {"filter type 9", png_of(2, 1, 8, 2, {9, 7, 7, 7, 8, 8, 8}), 1, 0, {7, 7, 7, 8, 8, 8, 0, 0}},
        {"reserved block type", build_png(ihdr(2, 4, 8, 0), {}, reserved), 2, 1, {3, 4, 0, 0}},
    };
    for (const Case& c : cases) {
        const Decoded d = png_read(c.file);
        ASSERT_EQ(d.status, 0) << c.what;
        EXPECT_EQ(d.order.size(), c.delivered) << c.what;
        EXPECT_EQ(Bytes(d.rows[c.row].begin(), d.rows[c.row].begin() + long(c.start.size())), c.start) << c.what;
        if (c.start[0] == 0x5B) { EXPECT_EQ(d.palette()[0].rgbRed, 255) << c.what; }
    }
}

TEST(PngReader, StatusesAndCallbacks) {
    Bytes raw;
    for (int y = 0; y < 8; ++y) raw.insert(raw.end(), {0, uint8_t(y), uint8_t(y + 1)});
    const auto file = png_of(2, 8, 8, 0, raw);

    Decoded stop;
    stop.stop_header = IMG_ERR_STOP;
    stop = png_read(file, stop);
    EXPECT_EQ(stop.status, IMG_ERR_STOP);
    EXPECT_EQ(stop.order.size(), 0u);

    Decoded at3;
    at3.stop_row = 3;
    at3.stop_status = -5;
    at3 = png_read(file, at3);
    EXPECT_EQ(at3.status, -5);
    EXPECT_EQ(at3.order.size(), 4u);

    // Image data cut short (IEND and the IDAT's tail dropped), a short signature, no IHDR.
    Bytes no_ihdr(file.begin(), file.begin() + 8);
    no_ihdr.insert(no_ihdr.end(), file.begin() + 33, file.end());
    expect_statuses(png_decode, {{"cut short", Bytes(file.begin(), file.end() - 24), IMG_ERR_READ},
                                 {"short signature", Bytes(file.begin(), file.begin() + 5), IMG_ERR_READ},
                                 {"no IHDR", no_ihdr, IMG_ERR_BAD_IMAGE}});

    // Offset and page positions.
    Bytes shifted(100, 0x55);
    shifted.insert(shifted.end(), file.begin(), file.end());
    EXPECT_EQ(png_read(shifted, {}, 100).status, 0);
    EXPECT_EQ(png_read(file, {}, 0x80000000u).status, 0);
    EXPECT_EQ(png_read(file, {}, 0x80000001u).status, IMG_ERR_NO_PAGE);

    // 30000 x 30000 RGB in a file of a few dozen bytes: refused before the header.
    const auto huge = png_read(png_of(30000, 30000, 8, 2, {0, 0, 0, 0}));
    EXPECT_EQ(huge.status, IMG_ERR_READ);
    EXPECT_TRUE(huge.header.empty());
}
