// JPEG decoding and encoding of a 12-megapixel photograph, beside
// libjpeg-turbo in the same run.
//
// The photograph is made here, not stored: the corpus photo (227 x 149)
// doubled in size and mirrored across a 4000 x 3000 canvas, which keeps the
// detail of a real photo at every scale. libjpeg-turbo encodes it at
// quality 90 three ways (argument of the decode benchmarks):
//   0  baseline, 2 x 2 chroma sampling (4:2:0)
//   1  baseline, no chroma sampling (4:4:4)
//   2  progressive (libjpeg's default scan script), 4:2:0
// Both decoders read the same files. Times are CPU times (the machine is
// shared; compare medians of repetitions).
//
//   Decode_Tesslin/k          IMGLOW_decompress_bitmap_mem with the caller's
//                             callbacks storing the rows into a reused DIB
//   Decode_Turbo/k            libjpeg-turbo into a reused buffer, default
//                             settings (fancy upsampling)
//   Decode_Turbo_Replicate/k  the same with chroma replicated, like ours
//   DecodeBatch_Tesslin       a batch of images as applications decode them:
//                             IMG_decompress_bitmap_mem into a new handle,
//                             IMG_delete_bitmap (a fresh DIB every image)
//   DecodeBatch_Turbo         libjpeg-turbo into a fresh buffer every image
//   Encode_Tesslin            IMG_save_bitmap_mem of the decoded 4:2:0
//                             photo, quality 90, 2 x 2 sampling
//   Encode_Turbo              libjpeg-turbo, the same pixels, quality 90,
//                             2 x 2 sampling
// The batch benchmarks report real time as well: first-touch page faults
// on a fresh 36 MB image are kernel time that CPU time of the process
// partly hides.
#include <benchmark/benchmark.h>

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <jpeglib.h>

#include "core/dib.h"
#include "bench_util.h"
#include "tesslin/tesslin.h"

using namespace tesslin;

namespace {

constexpr int kWidth = 4000, kHeight = 3000, kQuality = 90;

enum Kind { k420 = 0, k444 = 1, kProgressive = 2 };

struct Photo {
    std::vector<uint8_t> bgr;      // top row first, kWidth * 3 per row
    std::vector<uint8_t> jpeg[3];  // libjpeg-turbo's encodings, by Kind
};

std::vector<uint8_t> read_ppm(const std::string& path, int* w, int* h) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f || std::fscanf(f, "P6 %d %d 255", w, h) != 2) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        std::exit(1);
    }
    std::fgetc(f);
    std::vector<uint8_t> rgb(size_t(*w) * *h * 3);
    if (std::fread(rgb.data(), 1, rgb.size(), f) != rgb.size()) std::exit(1);
    std::fclose(f);
    return rgb;
}

std::vector<uint8_t> turbo_encode(const uint8_t* bgr, int w, int h, int quality, int sampling,
                                  bool progressive) {
    jpeg_compress_struct c;
    jpeg_error_mgr err;
    c.err = jpeg_std_error(&err);
    jpeg_create_compress(&c);
    unsigned char* out = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&c, &out, &size);
    c.image_width = JDIMENSION(w);
    c.image_height = JDIMENSION(h);
    c.input_components = 3;
    c.in_color_space = JCS_EXT_BGR;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, quality, TRUE);
    c.comp_info[0].h_samp_factor = sampling;
    c.comp_info[0].v_samp_factor = sampling;
    if (progressive) jpeg_simple_progression(&c);
    jpeg_start_compress(&c, TRUE);
    while (c.next_scanline < c.image_height) {
        JSAMPROW row = const_cast<uint8_t*>(bgr) + size_t(c.next_scanline) * w * 3;
        jpeg_write_scanlines(&c, &row, 1);
    }
    jpeg_finish_compress(&c);
    jpeg_destroy_compress(&c);
    std::vector<uint8_t> v(out, out + size);
    std::free(out);
    return v;
}

const Photo& photo() {
    static const Photo p = [] {
        int w = 0, h = 0;
        const auto src =
            read_ppm(std::string(TESSLIN_TEST_DATA) + "/corpus/refs/b8d8b9b4501bf26d.ppm", &w, &h);
        // Doubled with bilinear interpolation, then mirrored tiles.
        const int tw = 2 * w, th = 2 * h;
        std::vector<uint8_t> tile(size_t(tw) * th * 3);
        for (int y = 0; y < th; ++y)
            for (int x = 0; x < tw; ++x) {
                const double sx = (x + 0.5) / 2 - 0.5, sy = (y + 0.5) / 2 - 0.5;
                const int x0 = sx < 0 ? 0 : int(sx), y0 = sy < 0 ? 0 : int(sy);
                const int x1 = x0 + 1 < w ? x0 + 1 : x0, y1 = y0 + 1 < h ? y0 + 1 : y0;
                const double fx = sx < 0 ? 0 : sx - x0, fy = sy < 0 ? 0 : sy - y0;
                for (int c = 0; c < 3; ++c) {
                    auto at = [&](int xx, int yy) { return double(src[(size_t(yy) * w + xx) * 3 + c]); };
                    const double v = (at(x0, y0) * (1 - fx) + at(x1, y0) * fx) * (1 - fy) +
                                     (at(x0, y1) * (1 - fx) + at(x1, y1) * fx) * fy;
                    tile[(size_t(y) * tw + x) * 3 + (2 - c)] = uint8_t(v + 0.5);  // BGR
                }
            }
        Photo p;
        p.bgr.resize(size_t(kWidth) * kHeight * 3);
        for (int y = 0; y < kHeight; ++y) {
            const int ty = (y / th) % 2 ? th - 1 - y % th : y % th;
            for (int x = 0; x < kWidth; ++x) {
                const int tx = (x / tw) % 2 ? tw - 1 - x % tw : x % tw;
                std::memcpy(&p.bgr[(size_t(y) * kWidth + x) * 3], &tile[(size_t(ty) * tw + tx) * 3], 3);
            }
        }
        p.jpeg[k420] = turbo_encode(p.bgr.data(), kWidth, kHeight, kQuality, 2, false);
        p.jpeg[k444] = turbo_encode(p.bgr.data(), kWidth, kHeight, kQuality, 1, false);
        p.jpeg[kProgressive] = turbo_encode(p.bgr.data(), kWidth, kHeight, kQuality, 2, true);
        std::fprintf(stderr, "photo %d x %d, quality %d: 4:2:0 %zu bytes, 4:4:4 %zu, progressive %zu\n",
                     kWidth, kHeight, kQuality, p.jpeg[0].size(), p.jpeg[1].size(), p.jpeg[2].size());
        return p;
    }();
    return p;
}

// The photo's file in a library block (IMG_decompress_bitmap_mem reads up
// to the block's end).
struct Block {
    void* data = nullptr;
    explicit Block(const std::vector<uint8_t>& bytes) {
        data = tesslin_block_alloc(uint32_t(bytes.size()));
        std::memcpy(data, bytes.data(), bytes.size());
    }
    ~Block() { tesslin_block_free(data); }
};

// ---- Tesslin ----

// A DIB the caller keeps: header, then rows bottom-up.
struct Dib {
    std::vector<uint8_t> bytes;
    uint32_t row_bytes = 0;
    int32_t height = 0;
};

int32_t dib_header(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    auto* d = reinterpret_cast<Dib*>(user);
    d->row_bytes = row_bytes(uint32_t(h->biWidth), h->biBitCount);
    d->height = h->biHeight;
    const size_t size = 40 + palette_bytes(h->biBitCount) + size_t(d->row_bytes) * uint32_t(h->biHeight);
    if (d->bytes.size() != size) d->bytes.resize(size);
    std::memcpy(d->bytes.data(), h, 40);
    return 0;
}

int32_t dib_row(uint8_t* row, intptr_t user, int32_t n, uint32_t bytes) {
    auto* d = reinterpret_cast<Dib*>(user);
    std::memcpy(d->bytes.data() + d->bytes.size() - size_t(n + 1) * d->row_bytes, row, bytes);
    return 0;
}

void Decode_Tesslin(benchmark::State& state) {
    const auto& file = photo().jpeg[state.range(0)];
    Block block(file);
    Dib dib;
    for (auto _ : state) {
        if (IMGLOW_decompress_bitmap_mem(block.data, 0, dib_row, reinterpret_cast<intptr_t>(&dib),
                                         dib_header) != 0)
            state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(dib.bytes.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void DecodeBatch_Tesslin(benchmark::State& state) {
    Block block(photo().jpeg[k420]);
    for (auto _ : state) {
        const int32_t handle = IMG_decompress_bitmap_mem(block.data, 0);
        if (handle < 0) state.SkipWithError("decode failed");
        IMG_delete_bitmap(handle);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void Encode_Tesslin(benchmark::State& state) {
    const Photo& p = photo();
    Block file(p.jpeg[k420]);
    const int32_t handle = IMG_decompress_bitmap_mem(file.data, 0);
    if (handle < 0) {
        state.SkipWithError("decode failed");
        return;
    }
    IMGLOW_set_comp_quality(kQuality);
    IMGLOW_set_jpg_interleave(2, 2);
    const uint32_t cap = 24u << 20;
    void* out = tesslin_block_alloc(cap);
    int32_t written = 0;
    for (auto _ : state) {
        written = IMG_save_bitmap_mem(handle, out, IMG_FORMAT_JPEG);
        if (written < 0) state.SkipWithError("encode failed");
    }
    tesslin_block_free(out);
    IMG_delete_bitmap(handle);
    state.counters["bytes"] = written;
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

// ---- libjpeg-turbo ----

// Decodes into `pixels` (resized when its size differs), bottom-up like a DIB.
void turbo_decode(const std::vector<uint8_t>& file, bool fancy, uint8_t* pixels) {
    jpeg_decompress_struct d;
    jpeg_error_mgr err;
    d.err = jpeg_std_error(&err);
    jpeg_create_decompress(&d);
    jpeg_mem_src(&d, file.data(), file.size());
    jpeg_read_header(&d, TRUE);
    d.out_color_space = JCS_EXT_BGR;
    d.do_fancy_upsampling = fancy ? TRUE : FALSE;
    jpeg_start_decompress(&d);
    const uint32_t rb = row_bytes(d.output_width, 24);
    while (d.output_scanline < d.output_height) {
        JSAMPROW row = pixels + size_t(d.output_height - 1 - d.output_scanline) * rb;
        jpeg_read_scanlines(&d, &row, 1);
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
}

constexpr size_t kImageBytes = size_t(kWidth) * 3 * kHeight;  // 4000 * 3 is a multiple of 4

void decode_turbo(benchmark::State& state, bool fancy) {
    const auto& file = photo().jpeg[state.range(0)];
    std::vector<uint8_t> pixels(kImageBytes);
    for (auto _ : state) {
        turbo_decode(file, fancy, pixels.data());
        benchmark::DoNotOptimize(pixels.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void Decode_Turbo(benchmark::State& state) { decode_turbo(state, true); }
void Decode_Turbo_Replicate(benchmark::State& state) { decode_turbo(state, false); }

void DecodeBatch_Turbo(benchmark::State& state) {
    const auto& file = photo().jpeg[k420];
    for (auto _ : state) {
        auto* pixels = static_cast<uint8_t*>(std::malloc(kImageBytes));
        turbo_decode(file, true, pixels);
        benchmark::DoNotOptimize(pixels);
        std::free(pixels);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void Encode_Turbo(benchmark::State& state) {
    const Photo& p = photo();
    size_t written = 0;
    for (auto _ : state) {
        const auto out = turbo_encode(p.bgr.data(), kWidth, kHeight, kQuality, 2, false);
        written = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = double(written);
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

}  // namespace

BENCHMARK(Decode_Tesslin)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(Decode_Turbo)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(Decode_Turbo_Replicate)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(DecodeBatch_Tesslin)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(DecodeBatch_Turbo)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK(Encode_Tesslin)->Unit(benchmark::kMillisecond);
BENCHMARK(Encode_Turbo)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
