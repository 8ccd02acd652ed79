// The save driver and the BMP writers: round trips of every depth, the
// supply callbacks, crop rectangle, file naming and clean-up, and our files
// read back by an independent decoder.
#include <gtest/gtest.h>

#include "fax.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// Rows with long uniform stretches and busy ones, so that run-length
// writers use both kinds of runs.
void mixed_fill(uint8_t* row, uint32_t n, int32_t r) {
    for (uint32_t b = 0; b < n; ++b)
        row[b] = (r % 3 == 0 || b < n / 3) ? uint8_t(r * 17) : uint8_t(r * 31 + b * 7 + (b >> 2));
}

int32_t make(int32_t width, int32_t height, int bits) {
    void* dib = make_dib(width, height, bits, mixed_fill);
    if (bits == 32) reinterpret_cast<DibHeader*>(dib)->biCompression = IMG_COMPRESSION_ALPHA;
    return IMG_create_handle_keep(dib);
}

int32_t stop_at_row_5(intptr_t, int32_t, int32_t row, uint32_t) { return row == 5 ? -2 : 0; }

}  // namespace

// Every depth through codes 1, 12 (4 and 8 bits only) and 48. A file holds
// 16-bit pixels as 5-5-5 and 32-bit pixels without alpha, so those come back
// 24-bit from code 1 (16-bit fields shifted left by 3); a bare DIB (48)
// keeps every depth. Memory and file saves write the same bytes, and Pillow
// reads our BMP files as we wrote them.
TEST(Save, EveryDepthRoundTripsThroughTheBmpWriters) {
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        for (bool runs : {false, true}) {
            if (runs && bits != 1) continue;
            const Handle h = make(37, 23, bits);
            if (runs) {
                ASSERT_EQ(IMG_dib_to_runs(h), 0);
            }
            const Raster original = handle_raster(h);
            for (int32_t code : {1, 12, 48}) {
                SCOPED_TRACE(testing::Message() << bits << " bits, runs " << runs << ", code " << code);
                int32_t n = 0;
                const Bytes file = save_mem(h, code, &n);
                if (code == 12 && bits != 4 && bits != 8) {
                    EXPECT_EQ(n, IMG_ERR_DEPTH);
                    continue;
                }
                ASSERT_GT(n, 0);
                const Scratch path("same.bmp");
                ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), code), 0);
                EXPECT_EQ(read_file(path), file);
                const Handle back = decode_mem(file);
                ASSERT_GE(back, 0);
                const Raster r = handle_raster(back);
                const bool widened = code == 1 && (bits == 16 || bits == 32);
                EXPECT_EQ(info_of(back).biBitCount, widened ? 24 : bits);
                EXPECT_EQ(count_differences(r, original, widened ? 3 : original.channels), 0u);
                if (code != 48 && bits != 16 && bits != 32 && have_pillow()) {
                    EXPECT_EQ(count_differences(pillow(path, "RGB"), original, 3), 0u);
                }
            }
        }
    }
}

TEST(Save, CropRectangleIsWhatIsSaved) {
    // Bilevel as run records and as packed rows, 4 bits from an odd column.
    for (int bits : {8, 24, 1, 4, -1}) {
        SCOPED_TRACE(bits);
        const Handle h = make(64, 48, bits < 0 ? 1 : bits);
        if (bits == 1) IMG_dib_to_runs(h);
        if (bits == -1) IMG_runs_to_dib(h);
        const int32_t x0 = bits == 8 || bits == 24 ? 10 : 11;
        IMG_set_croprect(h, x0, 10, 20, 20);
        const Handle back = decode_mem(save_mem(h, 1));
        ASSERT_GE(back, 0);
        const Raster all = handle_raster(h), part = handle_raster(back);
        ASSERT_EQ(part.width, 20);
        ASSERT_EQ(part.height, 20);
        size_t bad = 0;
        for (int32_t y = 0; y < 20; ++y)
            for (int32_t x = 0; x < 20; ++x)
                for (int c = 0; c < 3; ++c) bad += part.at(x, y)[c] != all.at(x + x0, y + 10)[c];
        EXPECT_EQ(bad, 0u);
    }
}

TEST(Save, FileNamesCodesAndCleanUp) {
    const Handle h = make(16, 8, 8);
    // The ending is compared exactly: upper case is unknown.
    const Scratch upper("X.BMP"), lower("x.bmp"), pct("x.pct");
    EXPECT_EQ(IMG_save_bitmap(h, upper.c_str(), -1), IMG_ERR_UNSUPPORTED);
    EXPECT_FALSE(fs::exists(upper.path));
    ASSERT_EQ(IMG_save_bitmap(h, lower.c_str(), -1), 0);
    EXPECT_EQ(IMGLOW_get_filetype(lower.c_str()), 1);
    // BMP is a single-page format: saving again replaces the file.
    const auto size = fs::file_size(lower.path);
    ASSERT_EQ(IMG_save_bitmap(h, lower.c_str(), 1), 0);
    EXPECT_EQ(fs::file_size(lower.path), size);
    fs::remove(lower.path);
    // Codes without a writer fail before the file is touched.
    EXPECT_EQ(IMG_save_bitmap(h, pct.c_str(), -1), IMG_ERR_UNSUPPORTED);
    EXPECT_FALSE(fs::exists(pct.path));
    EXPECT_EQ(IMG_save_bitmap(h, "/nonexistent/dir/x.bmp", 1), IMG_ERR_CREATE);
    EXPECT_EQ(IMG_save_bitmap(-1, lower.c_str(), 1), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_save_bitmap_fd(10000, 0, 1), IMG_ERR_HANDLE);
}

// A save the progress callback stops removes the file it created (a failed
// append to an existing file is the append failure tests' part).
TEST(Save, ProgressCanStopASaveAndTheCreatedFileIsDeleted) {
    const Handle h = make(16, 12, 24);
    for (auto [name, code] : {std::pair{"stopped.bmp", 1}, {"stopped.tif", 0}}) {
        const Scratch path(name);
        IMG_set_statusbar(0, stop_at_row_5, 1);
        EXPECT_EQ(IMG_save_bitmap(h, path.c_str(), code), -2) << name;
        IMG_set_statusbar(0, nullptr, 0);
        EXPECT_FALSE(fs::exists(path.path)) << name;
    }
}

// Bilevel encoders take rows from the save's run supply: a run-encoded
// image's crop rectangle cut across its runs, a plain bilevel image's rows
// (cropped inside a byte too), and deeper images dithered to one bit (black
// and white areas stay so).
TEST(Save, RunSupplyThroughTheFaxWriters) {
    Page page = blank_page(64, 4);
    for (uint32_t y = 0; y < 4; ++y) page.set_black(8, 16 + 4 * y, y);
    for (bool runs : {true, false}) {
        for (auto [x, w] : {std::pair{0, 64}, {12, 40}, {16, 40}, {20, 44}}) {
            SCOPED_TRACE(testing::Message() << "runs " << runs << " crop " << x << "+" << w);
            const Handle h = page_handle(page);
            if (runs) {
                ASSERT_EQ(IMG_dib_to_runs(h), 0);
            }
            IMG_set_croprect(h, x, 0, w, 4);
            Page want = blank_page(uint32_t(w), 4);
            for (uint32_t y = 0; y < 4; ++y)
                for (uint32_t c = 0; c < uint32_t(w); ++c)
                    if (!page.white(uint32_t(x) + c, y)) want.set_black(c, c + 1, y);
            for (int32_t code : {52, 53})
                EXPECT_EQ(take_difference(fax_from_bytes(save_mem(h, code), w, 4, code == 52 ? 4 : 3, 1), want), "")
                    << code;
        }
    }
    const Handle rgb = make_handle(64, 4, 24, [](uint8_t* row, uint32_t n, int32_t) {
        for (uint32_t b = 0; b < n; ++b) row[b] = b < 96 ? 0 : 255;  // black then white
    });
    Page half = blank_page(64, 4);
    for (uint32_t y = 0; y < 4; ++y) half.set_black(0, 32, y);
    EXPECT_EQ(take_difference(fax_from_bytes(save_mem(rgb, 53), 64, 4, 3, 1), half), "");
}

TEST(Save, BmpWriterDetails) {
    // 4 bits as code 12: compression 2, the data ends with end of bitmap.
    Bytes f = save_mem(Handle(make(33, 5, 4)), 12);
    ASSERT_GT(f.size(), 60u);
    EXPECT_EQ(load_le32(&f[30]), 2u);
    EXPECT_EQ(f[f.size() - 2], 0);
    EXPECT_EQ(f[f.size() - 1], 1);
    // 300 dpi is written as 11811 pixels per metre and read back as 300.
    const Handle dpi = make(8, 8, 24);
    auto* hdr = reinterpret_cast<DibHeader*>(IMG_bitmap_info(dpi, nullptr, nullptr, nullptr));
    hdr->biXPelsPerMeter = hdr->biYPelsPerMeter = 300;
    f = save_mem(dpi, 1);
    EXPECT_EQ(load_le32(&f[38]), 11811u);
    EXPECT_EQ(load_le32(&f[42]), 11811u);
    EXPECT_EQ(info_of(Handle(decode_mem(f))).biXPelsPerMeter, 300);
    // Four colour channels cannot be written to BMP; codes without an encoder.
    EXPECT_EQ(save_status(32, 1), IMG_ERR_DEPTH);
    EXPECT_EQ(save_status(8, 15), IMG_ERR_UNSUPPORTED);  // PICT
    EXPECT_EQ(save_status(8, 999), IMG_ERR_UNSUPPORTED);
}

namespace {
struct Gradient {
    int32_t calls = 0;
};
int32_t gradient_supply(intptr_t user, uint8_t* buffer, int32_t row, uint32_t count) {
    ++reinterpret_cast<Gradient*>(user)->calls;
    for (uint32_t i = 0; i < count; ++i) buffer[i] = uint8_t(row * 10 + i);
    return 0;
}
}  // namespace

TEST(Save, LowLevelSaveWithTheCallersSupply) {
    uint8_t block[kHeaderBlockSize] = {};
    auto* h = reinterpret_cast<DibHeader*>(block);
    *h = DibHeader{40, 12, 6, 1, 8, 0, 0, 0, 0, 0, 0};
    for (int i = 0; i < 256; ++i) dib_palette(block)[i] = RgbQuad{uint8_t(i), uint8_t(i), uint8_t(i), 0};
    Gradient g;
    void* out = tesslin_block_alloc(4096);
    const int32_t n = IMGLOW_save_bitmap_mem(out, h, 1, gradient_supply, intptr_t(&g));
    EXPECT_EQ(n, 54 + 1024 + 12 * 6);
    EXPECT_EQ(g.calls, 6);
    const Handle back = IMG_decompress_bitmap_mem(out, 0);
    ASSERT_GE(back, 0);
    EXPECT_EQ(get_row(back, 2)[5], 25);
    // A block too small for the file: a short write.
    void* tiny = tesslin_block_alloc(100);
    EXPECT_EQ(IMGLOW_save_bitmap_mem(tiny, h, 1, gradient_supply, intptr_t(&g)), IMG_ERR_WRITE);
    tesslin_block_free(tiny);
    tesslin_block_free(out);
}
