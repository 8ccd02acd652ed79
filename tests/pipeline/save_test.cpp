// The save driver and the BMP writers: round trips of every depth, the
// supply callbacks, crop rectangle, file naming and clean-up, and our files
// read back by an independent decoder.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "core/runs.h"
#include "core/stream.h"
#include "image_util.h"
#include "pipeline/save.h"

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

std::vector<uint8_t> save_mem(int32_t handle, int32_t code, int32_t* status = nullptr) {
    int32_t w, h, bits;
    IMG_bitmap_info(handle, &w, &h, &bits);
    const uint32_t capacity = row_bytes(uint32_t(w), uint32_t(bits)) * uint32_t(h) * 2 + 4096;
    void* block = tesslin_block_alloc(capacity);
    const int32_t n = IMG_save_bitmap_mem(handle, block, code);
    if (status) *status = n;
    std::vector<uint8_t> out;
    if (n > 0) out.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
    tesslin_block_free(block);
    return out;
}

int32_t decode(const std::vector<uint8_t>& bytes) {
    void* b = to_block(bytes);
    const int32_t h = IMG_decompress_bitmap_mem(b, 0);
    tesslin_block_free(b);
    return h;
}

int32_t bits_of(int32_t handle) {
    int32_t w, h, bits;
    IMG_bitmap_info(handle, &w, &h, &bits);
    return bits;
}

// Pillow's decode of a file as RGB, or an empty raster when Pillow is absent.
Raster pillow_rgb(const std::string& file) {
    const std::string out = file + ".ppm";
    const std::string cmd = "/usr/bin/python3 -c \"import sys; from PIL import Image; "
                            "Image.open(sys.argv[1]).convert('RGB').save(sys.argv[2])\" '" +
                            file + "' '" + out + "' 2>/dev/null";
    if (std::system(cmd.c_str()) != 0) return Raster{};
    Raster r = read_netpbm(out);
    std::filesystem::remove(out);
    return r;
}

}  // namespace

// Every depth through codes 1, 12 (4 and 8 bits only) and 48. A file holds
// 16-bit pixels as 5-5-5 and 32-bit pixels without alpha, so those come back
// 24-bit from code 1 (16-bit fields shifted left by 3); a bare DIB (48)
// keeps every depth.
TEST(Save, EveryDepthRoundTripsThroughTheBmpWriters) {
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        for (bool runs : {false, true}) {
            if (runs && bits != 1) continue;
            const int32_t h = make(37, 23, bits);
            if (runs) {
                ASSERT_EQ(IMG_dib_to_runs(h), 0);
            }
            const Raster original = handle_raster(h);
            for (int32_t code : {1, 12, 48}) {
                SCOPED_TRACE(testing::Message() << bits << " bits, runs " << runs << ", code " << code);
                int32_t n = 0;
                const std::vector<uint8_t> file = save_mem(h, code, &n);
                if (code == 12 && bits != 4 && bits != 8) {
                    EXPECT_EQ(n, IMG_ERR_DEPTH);
                    continue;
                }
                ASSERT_GT(n, 0);
                const int32_t back = decode(file);
                ASSERT_GE(back, 0);
                const Raster r = handle_raster(back);
                if (code == 1 && (bits == 16 || bits == 32)) {
                    EXPECT_EQ(bits_of(back), 24);
                    EXPECT_EQ(count_differences(r, original, 3), 0u);
                } else {
                    EXPECT_EQ(bits_of(back), bits);
                    EXPECT_EQ(count_differences(r, original, original.channels), 0u);
                }
                IMG_delete_bitmap(back);
            }
            IMG_delete_bitmap(h);
        }
    }
}

TEST(Save, MemoryAndFileSavesWriteTheSameBytes) {
    for (int bits : {1, 4, 8, 24}) {
        const int32_t h = make(50, 9, bits);
        for (int32_t code : {1, 12, 48}) {
            if (code == 12 && bits != 4 && bits != 8) continue;
            SCOPED_TRACE(testing::Message() << bits << " bits, code " << code);
            int32_t n = 0;
            const std::vector<uint8_t> mem = save_mem(h, code, &n);
            const std::string path = temp_path("same.bin");
            ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), code), 0);
            EXPECT_EQ(std::filesystem::file_size(path), uint64_t(n));
            EXPECT_EQ(read_file(path), mem);
            std::filesystem::remove(path);
        }
        IMG_delete_bitmap(h);
    }
}

TEST(Save, PillowReadsOurFilesAsWeWroteThem) {
    for (int bits : {1, 4, 8, 24}) {
        const int32_t h = make(61, 17, bits);
        const Raster original = handle_raster(h);
        for (int32_t code : {1, 12}) {
            if (code == 12 && bits == 1) continue;
            if (code == 12 && bits == 24) continue;
            SCOPED_TRACE(testing::Message() << bits << " bits, code " << code);
            const std::string path = temp_path("pillow.bmp");
            ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), code), 0);
            const Raster p = pillow_rgb(path);
            std::filesystem::remove(path);
            if (p.px.empty()) GTEST_SKIP() << "Pillow is not installed";
            EXPECT_EQ(count_differences(p, original, 3), 0u);
        }
        IMG_delete_bitmap(h);
    }
}

TEST(Save, CropRectangleIsWhatIsSaved) {
    for (int bits : {8, 24, 1}) {
        SCOPED_TRACE(bits);
        const int32_t h = make(64, 48, bits);
        if (bits == 1) IMG_dib_to_runs(h);
        IMG_set_croprect(h, 10, 10, 20, 20);
        const int32_t back = decode(save_mem(h, 1));
        ASSERT_GE(back, 0);
        const Raster all = handle_raster(h), part = handle_raster(back);
        ASSERT_EQ(part.width, 20);
        ASSERT_EQ(part.height, 20);
        size_t bad = 0;
        for (int32_t y = 0; y < 20; ++y)
            for (int32_t x = 0; x < 20; ++x)
                for (int c = 0; c < 3; ++c) bad += part.at(x, y)[c] != all.at(x + 10, y + 10)[c];
        EXPECT_EQ(bad, 0u);
        IMG_delete_bitmap(back);
        IMG_delete_bitmap(h);
    }
}

TEST(Save, FileNamesCodesAndCleanUp) {
    const int32_t h = make(16, 8, 8);
    // The ending is compared exactly: upper case is unknown.
    const std::string upper = temp_path("X.BMP");
    EXPECT_EQ(IMG_save_bitmap(h, upper.c_str(), -1), IMG_ERR_UNSUPPORTED);
    EXPECT_FALSE(std::filesystem::exists(upper));
    const std::string lower = temp_path("x.bmp");
    ASSERT_EQ(IMG_save_bitmap(h, lower.c_str(), -1), 0);
    EXPECT_EQ(IMGLOW_get_filetype(lower.c_str()), 1);
    // BMP is a single-page format: saving again replaces the file.
    const auto size = std::filesystem::file_size(lower);
    ASSERT_EQ(IMG_save_bitmap(h, lower.c_str(), 1), 0);
    EXPECT_EQ(std::filesystem::file_size(lower), size);
    std::filesystem::remove(lower);
    // Codes without a writer fail before the file is touched.
    const std::string pct = temp_path("x.pct");
    EXPECT_EQ(IMG_save_bitmap(h, pct.c_str(), -1), IMG_ERR_UNSUPPORTED);
    EXPECT_FALSE(std::filesystem::exists(pct));
    EXPECT_EQ(IMG_save_bitmap(h, "/nonexistent/dir/x.bmp", 1), IMG_ERR_CREATE);
    EXPECT_EQ(IMG_save_bitmap(-1, lower.c_str(), 1), IMG_ERR_HANDLE);
    EXPECT_EQ(IMG_save_bitmap_fd(10000, 0, 1), IMG_ERR_HANDLE);
    IMG_delete_bitmap(h);
}

namespace {
int32_t stop_at_row_5(intptr_t, int32_t, int32_t row, uint32_t) { return row == 5 ? -2 : 0; }
}  // namespace

TEST(Save, ProgressCanStopASaveAndTheCreatedFileIsDeleted) {
    const int32_t h = make(16, 8, 24);
    const std::string path = temp_path("stopped.bmp");
    IMG_set_statusbar(0, stop_at_row_5, 1);
    EXPECT_EQ(IMG_save_bitmap(h, path.c_str(), 1), -2);
    IMG_set_statusbar(0, nullptr, 0);
    EXPECT_FALSE(std::filesystem::exists(path));
    IMG_delete_bitmap(h);
}

TEST(Save, RunSupply) {
    uint8_t header[kHeaderBlockSize];
    std::vector<uint8_t> buffer((64 + 8) * 4);
    auto words = [&](int n) {
        std::vector<uint32_t> w(static_cast<size_t>(n));
        std::memcpy(w.data(), buffer.data(), size_t(n) * 4);
        return w;
    };
    // A 24-bit row comes as the run record of its dithered bilevel row.
    const int32_t rgb = make_handle(64, 4, 24, [](uint8_t* row, uint32_t n, int32_t) {
        for (uint32_t b = 0; b < n; ++b) row[b] = b < 96 ? 0 : 255;  // black then white
    });
    SaveContext c;
    ASSERT_EQ(prepare_save(rgb, 10, &c, header), 0);
    int32_t length = run_supply(intptr_t(&c), buffer.data(), 1, 8);
    ASSERT_GT(length, 0);
    auto rec = words(length / 4);
    EXPECT_EQ(rec[0], 0u);
    EXPECT_EQ(rec[1], 0u);   // black from column 0
    EXPECT_EQ(rec[2], 32u);  // to column 32
    IMG_delete_bitmap(rgb);

    // A plain bilevel row comes packed, with result 0.
    const int32_t plain = make_handle(64, 4, 1, [](uint8_t* row, uint32_t n, int32_t) {
        std::memset(row, 0x0F, n);
    });
    SaveContext p;
    ASSERT_EQ(prepare_save(plain, 10, &p, header), 0);
    EXPECT_EQ(run_supply(intptr_t(&p), buffer.data(), 0, 8), 0);
    EXPECT_EQ(buffer[0], 0x0F);
    IMG_delete_bitmap(plain);

    // A run-encoded row black across the crop's left edge starts with 0;
    // the record ends with the width three times and the width + 2 three times.
    const int32_t runs_h = make_handle(64, 4, 1, [](uint8_t* row, uint32_t n, int32_t) {
        std::memset(row, 0xFF, n);
        row[1] = 0x00;  // black 8..16
    });
    ASSERT_EQ(IMG_dib_to_runs(runs_h), 0);
    IMG_set_croprect(runs_h, 12, 0, 40, 4);
    SaveContext r;
    ASSERT_EQ(prepare_save(runs_h, 10, &r, header), 0);
    length = run_supply(intptr_t(&r), buffer.data(), 2, 8);
    rec = words(length / 4);
    EXPECT_EQ(rec, (std::vector<uint32_t>{0, 0, 4, 40, 40, 40, 42, 42, 42}));
    // Crop starting exactly where the black run ends: white at the edge.
    IMG_set_croprect(runs_h, 16, 0, 40, 4);
    ASSERT_EQ(prepare_save(runs_h, 10, &r, header), 0);
    length = run_supply(intptr_t(&r), buffer.data(), 2, 8);
    EXPECT_EQ(words(length / 4), (std::vector<uint32_t>{0, 40, 40, 40, 42, 42, 42}));
    IMG_delete_bitmap(runs_h);
}

TEST(Save, BmpWriterDetails) {
    // 4 bits as code 12: compression 2, the data ends with end of bitmap.
    const int32_t four = make(33, 5, 4);
    std::vector<uint8_t> f = save_mem(four, 12);
    ASSERT_GT(f.size(), 60u);
    EXPECT_EQ(load_le32(&f[30]), 2u);
    EXPECT_EQ(f[f.size() - 2], 0);
    EXPECT_EQ(f[f.size() - 1], 1);
    IMG_delete_bitmap(four);
    // 300 dpi is written as 11811 pixels per metre and read back as 300.
    const int32_t dpi = make(8, 8, 24);
    auto* hdr = reinterpret_cast<DibHeader*>(IMG_bitmap_info(dpi, nullptr, nullptr, nullptr));
    hdr->biXPelsPerMeter = hdr->biYPelsPerMeter = 300;
    f = save_mem(dpi, 1);
    EXPECT_EQ(load_le32(&f[38]), 11811u);
    EXPECT_EQ(load_le32(&f[42]), 11811u);
    const int32_t back = decode(f);
    auto* bh = reinterpret_cast<DibHeader*>(IMG_bitmap_info(back, nullptr, nullptr, nullptr));
    EXPECT_EQ(bh->biXPelsPerMeter, 300);
    IMG_delete_bitmap(back);
    IMG_delete_bitmap(dpi);
    // Four colour channels cannot be written to BMP.
    const int32_t cmyk = make_handle(8, 8, 32);
    int32_t n = 0;
    save_mem(cmyk, 1, &n);
    EXPECT_EQ(n, IMG_ERR_DEPTH);
    IMG_delete_bitmap(cmyk);
    // Codes without an encoder.
    const int32_t any = make(8, 8, 8);
    save_mem(any, 15, &n);  // PICT
    EXPECT_EQ(n, IMG_ERR_UNSUPPORTED);
    save_mem(any, 999, &n);
    EXPECT_EQ(n, IMG_ERR_UNSUPPORTED);
    IMG_delete_bitmap(any);
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
    const int32_t back = IMG_decompress_bitmap_mem(out, 0);
    ASSERT_GE(back, 0);
    EXPECT_EQ(get_row(back, 2)[5], 25);
    IMG_delete_bitmap(back);
    // A block too small for the file: a short write.
    void* tiny = tesslin_block_alloc(100);
    EXPECT_EQ(IMGLOW_save_bitmap_mem(tiny, h, 1, gradient_supply, intptr_t(&g)), IMG_ERR_WRITE);
    tesslin_block_free(tiny);
    tesslin_block_free(out);
}

namespace {
// A multi-page writer for the driver's file rules: appends "PAGE" and the
// first byte of every row at the end of the stream; the failing variant
// appends its page and then reports a short write.
int32_t page_encoder(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                     intptr_t user, int32_t fail) {
    stream::seek(stream, 0, 2);
    stream::write(stream, "PAGE", 4);
    std::vector<uint8_t> row(row_bytes(uint32_t(header->biWidth), header->biBitCount));
    for (int32_t r = 0; r < header->biHeight; ++r) {
        if (int32_t s = supply(user, row.data(), r, uint32_t(row.size())); s < 0) return s;
        stream::write(stream, row.data(), 1);
    }
    return fail ? IMG_ERR_WRITE : 0;
}

size_t pages_in(const std::string& path) {
    const std::vector<uint8_t> d = read_file(path);
    size_t n = 0;
    for (size_t i = 0; i + 4 <= d.size(); ++i) n += std::memcmp(&d[i], "PAGE", 4) == 0;
    return n;
}
}  // namespace

TEST(Save, MultiPageCodesAppendAndFailedSavesCleanUpOnlyWhatTheyCreated) {
    const int32_t h = make(8, 3, 8);
    const std::string path = temp_path("pages.bin");
    std::filesystem::remove(path);
    const dispatch::EncoderEntry tiff{0, page_encoder, 0}, bmp{1, page_encoder, 0};
    const dispatch::EncoderEntry tiff_failing{0, page_encoder, 1};
    // Code 0 (TIFF) twice into one name: two pages.
    ASSERT_EQ(save_named(h, path.c_str(), 0, &tiff), 0);
    ASSERT_EQ(save_named(h, path.c_str(), 0, &tiff), 0);
    EXPECT_EQ(pages_in(path), 2u);
    // A failed append leaves the file there.
    EXPECT_EQ(save_named(h, path.c_str(), 0, &tiff_failing), IMG_ERR_WRITE);
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(pages_in(path), 3u);
    // Code 1 (BMP) replaces the file.
    ASSERT_EQ(save_named(h, path.c_str(), 1, &bmp), 0);
    EXPECT_EQ(pages_in(path), 1u);
    std::filesystem::remove(path);
    // A failed save into a file it created leaves nothing.
    EXPECT_EQ(save_named(h, path.c_str(), 0, &tiff_failing), IMG_ERR_WRITE);
    EXPECT_FALSE(std::filesystem::exists(path));
    IMG_delete_bitmap(h);
}
