// JPEG decoding and encoding of a 12-megapixel 4:2:0 photograph, beside
// libjpeg-turbo in the same run.
//
// The photograph is made here, not stored: the corpus photo (227 x 149)
// doubled in size and mirrored across a 4000 x 3000 canvas, which keeps the
// detail of a real photo at every scale. libjpeg-turbo encodes it at
// quality 75 with 2 x 2 chroma sampling; both decoders read that file.
// Times are CPU times (the machine is shared; compare medians of runs).
//   Decode_Tesslin          our decoder, rows copied into an image buffer
//   Decode_Turbo            libjpeg-turbo, default settings (fancy upsampling)
//   Decode_Turbo_Replicate  libjpeg-turbo with chroma replicated, like ours
//   Encode_Tesslin          our encoder, quality 75, 2 x 2 sampling
//   Encode_Turbo            libjpeg-turbo, quality 75, 2 x 2 sampling
#include <benchmark/benchmark.h>

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <jpeglib.h>

#include "core/dib.h"
#include "core/settings.h"
#include "core/stream.h"
#include "formats/jpeg/jpeg.h"
#include "bench_util.h"
#include "tesslin/tesslin.h"

using namespace tesslin;

namespace {

constexpr int kWidth = 4000, kHeight = 3000;

struct Photo {
    std::vector<uint8_t> bgr;   // top row first, kWidth * 3 per row
    std::vector<uint8_t> jpeg;  // libjpeg-turbo's encoding
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

std::vector<uint8_t> turbo_encode(const uint8_t* bgr, int w, int h, int quality) {
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
    c.comp_info[0].h_samp_factor = 2;
    c.comp_info[0].v_samp_factor = 2;
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
        p.jpeg = turbo_encode(p.bgr.data(), kWidth, kHeight, 75);
        std::fprintf(stderr, "photo %d x %d, JPEG %zu bytes\n", kWidth, kHeight, p.jpeg.size());
        return p;
    }();
    return p;
}

// ---- Tesslin ----

struct Image {
    std::vector<uint8_t> pixels;
    uint32_t row_bytes = 0;
};

int32_t image_header(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    auto* img = reinterpret_cast<Image*>(user);
    img->row_bytes = row_bytes(uint32_t(h->biWidth), h->biBitCount);
    img->pixels.resize(size_t(img->row_bytes) * uint32_t(h->biHeight));
    return 0;
}

int32_t image_row(uint8_t* row, intptr_t user, int32_t n, uint32_t bytes) {
    auto* img = reinterpret_cast<Image*>(user);
    std::memcpy(img->pixels.data() + size_t(n) * img->row_bytes, row, bytes);
    return 0;
}

void Decode_Tesslin(benchmark::State& state) {
    const Photo& p = photo();
    void* block = tesslin_block_alloc(uint32_t(p.jpeg.size()));
    std::memcpy(block, p.jpeg.data(), p.jpeg.size());
    Image img;
    for (auto _ : state) {
        const int32_t s = stream::mem_create_sized(block, uint32_t(p.jpeg.size()));
        if (jpeg::decode(0, image_row, reinterpret_cast<intptr_t>(&img), image_header, s) != 0)
            state.SkipWithError("decode failed");
        stream::mem_release(s);
        benchmark::DoNotOptimize(img.pixels.data());
    }
    tesslin_block_free(block);
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void Encode_Tesslin(benchmark::State& state) {
    const Photo& p = photo();
    DibHeader h = dib_header(kWidth, kHeight, 24);
    IMGLOW_set_comp_quality(75);
    IMGLOW_set_jpg_interleave(2, 2);
    const uint32_t cap = 16u << 20;
    void* out = tesslin_block_alloc(cap);
    const bench::Rows src{p.bgr.data(), kWidth * 3};
    int32_t written = 0;
    for (auto _ : state) {
        written = bench::encode_memory(jpeg::encode, out, cap, h, bench::supply_rows,
                                       reinterpret_cast<intptr_t>(&src), 0);
        if (written < 0) state.SkipWithError("encode failed");
    }
    tesslin_block_free(out);
    state.counters["bytes"] = written;
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

// ---- libjpeg-turbo ----

void turbo_decode(const Photo& p, bool fancy, Image& img) {
    jpeg_decompress_struct d;
    jpeg_error_mgr err;
    d.err = jpeg_std_error(&err);
    jpeg_create_decompress(&d);
    jpeg_mem_src(&d, p.jpeg.data(), p.jpeg.size());
    jpeg_read_header(&d, TRUE);
    d.out_color_space = JCS_EXT_BGR;
    d.do_fancy_upsampling = fancy ? TRUE : FALSE;
    jpeg_start_decompress(&d);
    img.row_bytes = row_bytes(d.output_width, 24);
    img.pixels.resize(size_t(img.row_bytes) * d.output_height);
    while (d.output_scanline < d.output_height) {
        JSAMPROW row = img.pixels.data() + size_t(d.output_scanline) * img.row_bytes;
        jpeg_read_scanlines(&d, &row, 1);
    }
    jpeg_finish_decompress(&d);
    jpeg_destroy_decompress(&d);
}

void decode_turbo(benchmark::State& state, bool fancy) {
    const Photo& p = photo();
    Image img;
    for (auto _ : state) {
        turbo_decode(p, fancy, img);
        benchmark::DoNotOptimize(img.pixels.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void Decode_Turbo(benchmark::State& state) { decode_turbo(state, true); }
void Decode_Turbo_Replicate(benchmark::State& state) { decode_turbo(state, false); }

void Encode_Turbo(benchmark::State& state) {
    const Photo& p = photo();
    size_t written = 0;
    for (auto _ : state) {
        const auto out = turbo_encode(p.bgr.data(), kWidth, kHeight, 75);
        written = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = double(written);
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

}  // namespace

BENCHMARK(Decode_Tesslin)->Unit(benchmark::kMillisecond);
BENCHMARK(Decode_Turbo)->Unit(benchmark::kMillisecond);
BENCHMARK(Decode_Turbo_Replicate)->Unit(benchmark::kMillisecond);
BENCHMARK(Encode_Tesslin)->Unit(benchmark::kMillisecond);
BENCHMARK(Encode_Turbo)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
