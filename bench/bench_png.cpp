// PNG decode and encode of a large RGB page beside libpng (with zlib) in the
// same run. The page is the corpus photograph enlarged to 2,550 x 3,300 with
// bilinear interpolation and a little deterministic noise, so that it
// compresses like a scan rather than like a flat drawing.
//
//   BM_Decode/ours, BM_Decode/libpng: the file libpng writes with its
//     default settings (adaptive filters), decoded row by row.
//   BM_DecodeUnfiltered/...: the file our writer makes (filter None).
//   BM_Encode/ours, BM_Encode/libpng: the page encoded with each library's
//     defaults; BM_Encode/libpng_none also uses filter None, as ours does.
#include <benchmark/benchmark.h>
#include <png.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/dib.h"
#include "core/stream.h"
#include "formats/png/png.h"
#include "bench_util.h"

using namespace tesslin;

namespace {

constexpr uint32_t kWidth = 2550, kHeight = 3300;

struct Page {
    std::vector<uint8_t> rgb;          // top row first, red green blue
    std::vector<uint8_t> bgr_rows;     // DIB rows (blue green red, padded)
    uint32_t dib_row = 0;
    std::vector<uint8_t> libpng_file;  // written by libpng, default settings
    std::vector<uint8_t> our_file;     // written by our encoder
};

void libpng_write_data(png_structp png, png_bytep data, png_size_t n) {
    auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + n);
}
void libpng_flush(png_structp) {}

std::vector<uint8_t> libpng_encode(const std::vector<uint8_t>& rgb, bool filter_none) {
    std::vector<uint8_t> out;
    out.reserve(rgb.size());
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) std::abort();
    png_set_write_fn(png, &out, libpng_write_data, libpng_flush);
    png_set_IHDR(png, info, kWidth, kHeight, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    if (filter_none) {
        png_set_filter(png, 0, PNG_FILTER_NONE);
        png_set_compression_strategy(png, 1);  // filtered, as our writer
    }
    png_write_info(png, info);
    for (uint32_t y = 0; y < kHeight; ++y)
        png_write_row(png, const_cast<png_bytep>(rgb.data() + size_t(y) * kWidth * 3));
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return out;
}

std::vector<uint8_t> our_encode(const Page& p, std::vector<uint8_t>& buffer) {
    DibHeader h = dib_header(kWidth, kHeight, 24);
    const bench::Rows rows{p.bgr_rows.data(), p.dib_row};
    const int32_t end = bench::encode_memory(png_encode, buffer.data(), uint32_t(buffer.size()), h,
                                             bench::supply_rows, reinterpret_cast<intptr_t>(&rows), 0);
    if (end < 0) std::abort();
    return std::vector<uint8_t>(buffer.begin(), buffer.begin() + end);
}

const Page& page() {
    static Page p = [] {
        Page pg;
        // The corpus photograph through our own reader.
        pg.rgb = bench::photo_page(png_decode, std::string(TESSLIN_TEST_DATA) + "/corpus/png/rgb.png",
                                   kWidth, kHeight);
        pg.dib_row = row_bytes(kWidth, 24);
        pg.bgr_rows = bench::bgr_dib_rows(pg.rgb, kWidth, kHeight);
        pg.libpng_file = libpng_encode(pg.rgb, false);
        std::vector<uint8_t> buffer(pg.rgb.size() * 2);
        pg.our_file = our_encode(pg, buffer);
        return pg;
    }();
    return p;
}

// --- decoding ---------------------------------------------------------------

void decode_ours(benchmark::State& state, const std::vector<uint8_t>& file) {
    bench::time_decode(state, png_decode, file, row_bytes(kWidth, 24));
    state.SetBytesProcessed(int64_t(state.iterations()) * kWidth * kHeight * 3);
}

struct MemRead {
    const std::vector<uint8_t>* file;
    size_t pos;
};
void libpng_read_data(png_structp png, png_bytep out, png_size_t n) {
    auto* m = static_cast<MemRead*>(png_get_io_ptr(png));
    if (m->pos + n > m->file->size()) png_error(png, "short");
    std::memcpy(out, m->file->data() + m->pos, n);
    m->pos += n;
}

void decode_libpng(benchmark::State& state, const std::vector<uint8_t>& file) {
    std::vector<uint8_t> row(size_t(kWidth) * 3);
    uint64_t sum = 0;
    for (auto _ : state) {
        MemRead m{&file, 0};
        png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
        png_infop info = png_create_info_struct(png);
        if (setjmp(png_jmpbuf(png))) std::abort();
        png_set_read_fn(png, &m, libpng_read_data);
        png_read_info(png, info);
        png_set_bgr(png);  // the same byte order as our rows
        for (uint32_t y = 0; y < png_get_image_height(png, info); ++y) {
            png_read_row(png, row.data(), nullptr);
            sum += row[row.size() / 2];
        }
        png_read_end(png, nullptr);
        png_destroy_read_struct(&png, &info, nullptr);
    }
    benchmark::DoNotOptimize(sum);
    state.SetBytesProcessed(int64_t(state.iterations()) * kWidth * kHeight * 3);
}

void BM_Decode_ours(benchmark::State& state) { decode_ours(state, page().libpng_file); }
void BM_Decode_libpng(benchmark::State& state) { decode_libpng(state, page().libpng_file); }
void BM_DecodeUnfiltered_ours(benchmark::State& state) { decode_ours(state, page().our_file); }
void BM_DecodeUnfiltered_libpng(benchmark::State& state) { decode_libpng(state, page().our_file); }

// --- encoding ---------------------------------------------------------------

void BM_Encode_ours(benchmark::State& state) {
    const Page& p = page();
    std::vector<uint8_t> buffer(p.rgb.size() * 2);
    size_t size = 0;
    for (auto _ : state) size = our_encode(p, buffer).size();
    state.counters["bytes_out"] = double(size);
    state.SetBytesProcessed(int64_t(state.iterations()) * kWidth * kHeight * 3);
}

void encode_libpng(benchmark::State& state, bool filter_none) {
    const Page& p = page();
    size_t size = 0;
    for (auto _ : state) size = libpng_encode(p.rgb, filter_none).size();
    state.counters["bytes_out"] = double(size);
    state.SetBytesProcessed(int64_t(state.iterations()) * kWidth * kHeight * 3);
}

void BM_Encode_libpng(benchmark::State& state) { encode_libpng(state, false); }
void BM_Encode_libpng_none(benchmark::State& state) { encode_libpng(state, true); }

}  // namespace

BENCHMARK(BM_Decode_ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Decode_libpng)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodeUnfiltered_ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodeUnfiltered_libpng)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Encode_ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Encode_libpng)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Encode_libpng_none)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
