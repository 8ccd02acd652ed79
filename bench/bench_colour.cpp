// Colour reduction beside Leptonica in the same run: error diffusion of a
// 300-dpi grey page (2,550 x 3,300) to bilevel (pixDitherToBinary), and
// octree quantisation of a 12-megapixel photograph to 256 colours with
// error diffusion (pixOctreeColorQuant). Ours work in place, so each
// iteration gets a fresh handle made outside the timing. Before timing, the
// PSNR both quantisers reach on the photograph is printed.
#include <benchmark/benchmark.h>
#include <leptonica/allheaders.h>

#include <cmath>
#include <cstring>

#include "bench_util.h"
#include "formats/tiff/tiff.h"
#include "tesslin/tesslin.h"

using namespace tesslin;

namespace {

constexpr uint32_t kPhotoWidth = 4000, kPhotoHeight = 3000;
// pixOctreeColorQuant takes 128 to 240 colours: its largest beside our 256.
constexpr int kLeptonicaColours = 240;

// A DIB (header, palette, bottom-up rows) kept as a template for handles.
struct Dib {
    std::vector<uint8_t> bytes;
    int32_t handle() const {
        void* block = tesslin_block_alloc(uint32_t(bytes.size()));
        std::memcpy(block, bytes.data(), bytes.size());
        return IMG_create_handle_keep(block);
    }
};

Dib make_dib(uint32_t width, uint32_t height, uint16_t bits, const uint8_t* top_rows, uint32_t stride) {
    const uint32_t rb = row_bytes(width, bits), pal = palette_bytes(bits);
    Dib d;
    d.bytes.assign(kDibHeaderSize + pal + size_t(rb) * height, 0);
    *reinterpret_cast<DibHeader*>(d.bytes.data()) = dib_header(int32_t(width), int32_t(height), bits);
    for (uint32_t i = 0; i < pal / 4; ++i)
        dib_palette(d.bytes.data())[i] = RgbQuad{uint8_t(i), uint8_t(i), uint8_t(i), 0};
    uint8_t* px = d.bytes.data() + kDibHeaderSize + pal;
    for (uint32_t y = 0; y < height; ++y)
        std::memcpy(px + size_t(height - 1 - y) * rb, top_rows + size_t(y) * stride, std::min(rb, stride));
    return d;
}

// The letter page as a grey scan: ink softened by a 3 x 3 box, paper a
// little shaded, some noise.
struct GreyPage {
    uint32_t width = 0, height = 0;
    std::vector<uint8_t> grey;  // top row first, width bytes a row
    Dib dib;
    PIX* pix = nullptr;
};

const GreyPage& grey_page() {
    static GreyPage g = [] {
        const bench::Page p = bench::letter_page();
        GreyPage g;
        g.width = p.width, g.height = p.height;
        g.grey.assign(size_t(g.width) * g.height, 0);
        uint32_t noise = 777;
        auto white = [&](int64_t x, int64_t y) {
            if (x < 0 || y < 0 || x >= g.width || y >= g.height) return 1;
            return (p.rows[size_t(y) * p.row_bytes + size_t(x) / 8] >> (7 - x % 8)) & 1;
        };
        for (uint32_t y = 0; y < g.height; ++y)
            for (uint32_t x = 0; x < g.width; ++x) {
                int sum = 0;
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) sum += white(int64_t(x) + dx, int64_t(y) + dy);
                const double paper = 236 - 18.0 * x / g.width - 10.0 * y / g.height;
                noise = noise * 1103515245u + 12345u;
                const double v = 25 + (paper - 25) * sum / 9.0 + double((noise >> 16) % 9) - 4;
                g.grey[size_t(y) * g.width + x] = uint8_t(std::lround(std::clamp(v, 0.0, 255.0)));
            }
        g.dib = make_dib(g.width, g.height, 8, g.grey.data(), g.width);
        g.pix = pixCreate(int(g.width), int(g.height), 8);
        l_uint32* data = pixGetData(g.pix);
        const int wpl = pixGetWpl(g.pix);
        for (uint32_t y = 0; y < g.height; ++y)
            for (uint32_t x = 0; x < g.width; ++x) SET_DATA_BYTE(data + size_t(y) * wpl, int(x), g.grey[size_t(y) * g.width + x]);
        return g;
    }();
    return g;
}

struct Photo {
    std::vector<uint8_t> rgb;  // top row first
    Dib dib;
    PIX* pix = nullptr;
};

double psnr_rgb(const std::vector<uint8_t>& rgb, const std::vector<uint8_t>& other) {
    double se = 0;
    for (size_t i = 0; i < rgb.size(); ++i) se += (double(rgb[i]) - other[i]) * (double(rgb[i]) - other[i]);
    return 10 * std::log10(255.0 * 255.0 * double(rgb.size()) / se);
}

// The PSNR of both quantisers on the photograph, printed once (ours with
// 256 and with Leptonica's 240 colours).
double our_psnr(const Photo& ph, int32_t colours, int32_t* entries) {
    const int32_t h = ph.dib.handle();
    *entries = IMG_octree_color(h, 8, nullptr, colours);
    std::vector<uint8_t> ours(ph.rgb.size());
    std::vector<uint8_t> row(kPhotoWidth);
    IMG_RGBQUAD pal[256];
    IMGLOW_get_palette(h, pal);
    for (uint32_t y = 0; y < kPhotoHeight; ++y) {
        IMGLOW_get_raster(h, row.data(), int32_t(y), kPhotoWidth);
        for (uint32_t x = 0; x < kPhotoWidth; ++x) {
            uint8_t* o = &ours[(size_t(y) * kPhotoWidth + x) * 3];
            o[0] = pal[row[x]].rgbRed, o[1] = pal[row[x]].rgbGreen, o[2] = pal[row[x]].rgbBlue;
        }
    }
    IMG_delete_bitmap(h);
    return psnr_rgb(ph.rgb, ours);
}

void report_quality(const Photo& ph) {
    std::vector<uint8_t> theirs(ph.rgb.size());
    PIX* q = pixOctreeColorQuant(ph.pix, kLeptonicaColours, 1);
    PIXCMAP* cmap = pixGetColormap(q);
    for (uint32_t y = 0; y < kPhotoHeight; ++y)
        for (uint32_t x = 0; x < kPhotoWidth; ++x) {
            l_uint32 index = 0;
            pixGetPixel(q, int(x), int(y), &index);
            l_int32 r, g, b;
            pixcmapGetColor(cmap, int(index), &r, &g, &b);
            uint8_t* o = &theirs[(size_t(y) * kPhotoWidth + x) * 3];
            o[0] = uint8_t(r), o[1] = uint8_t(g), o[2] = uint8_t(b);
        }
    int32_t n256 = 0, n240 = 0;
    const double ours256 = our_psnr(ph, 256, &n256), ours240 = our_psnr(ph, 240, &n240);
    std::fprintf(stderr,
                 "octree on the %ux%u photograph: ours %d colours %.2f dB, ours %d colours %.2f dB, "
                 "Leptonica %d colours %.2f dB\n",
                 kPhotoWidth, kPhotoHeight, n256, ours256, n240, ours240, pixcmapGetCount(cmap),
                 psnr_rgb(ph.rgb, theirs));
    pixDestroy(&q);
}

const Photo& photo() {
    static Photo ph = [] {
        Photo ph;
        ph.rgb = bench::photo_page(tiff::decode, std::string(TESSLIN_TEST_DATA) + "/corpus/tone/rgb-none.tif",
                                   kPhotoWidth, kPhotoHeight);
        const std::vector<uint8_t> rows = bench::bgr_dib_rows(ph.rgb, kPhotoWidth, kPhotoHeight);
        ph.dib = make_dib(kPhotoWidth, kPhotoHeight, 24, rows.data(), row_bytes(kPhotoWidth, 24));
        ph.pix = pixCreate(int(kPhotoWidth), int(kPhotoHeight), 32);
        l_uint32* data = pixGetData(ph.pix);
        const int wpl = pixGetWpl(ph.pix);
        for (uint32_t y = 0; y < kPhotoHeight; ++y)
            for (uint32_t x = 0; x < kPhotoWidth; ++x) {
                const uint8_t* p = &ph.rgb[(size_t(y) * kPhotoWidth + x) * 3];
                composeRGBPixel(p[0], p[1], p[2], data + size_t(y) * wpl + x);
            }
        report_quality(ph);
        return ph;
    }();
    return ph;
}

void BM_DiffusionMono_Tesslin(benchmark::State& state) {
    const GreyPage& g = grey_page();
    for (auto _ : state) {
        state.PauseTiming();
        const int32_t h = g.dib.handle();
        state.ResumeTiming();
        if (IMG_diffusion_mono(h) != 0) state.SkipWithError("IMG_diffusion_mono failed");
        state.PauseTiming();
        IMG_delete_bitmap(h);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * g.width * g.height);
}
BENCHMARK(BM_DiffusionMono_Tesslin)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DiffusionMono_Leptonica(benchmark::State& state) {
    const GreyPage& g = grey_page();
    for (auto _ : state) {
        PIX* b = pixDitherToBinary(g.pix);
        benchmark::DoNotOptimize(b);
        pixDestroy(&b);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * g.width * g.height);
}
BENCHMARK(BM_DiffusionMono_Leptonica)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Octree256_Tesslin(benchmark::State& state) {
    const Photo& ph = photo();
    for (auto _ : state) {
        state.PauseTiming();
        const int32_t h = ph.dib.handle();
        state.ResumeTiming();
        if (IMG_octree_color(h, 8, nullptr, 256) < 0) state.SkipWithError("IMG_octree_color failed");
        state.PauseTiming();
        IMG_delete_bitmap(h);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kPhotoWidth * kPhotoHeight);
}
BENCHMARK(BM_Octree256_Tesslin)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Octree256_Leptonica(benchmark::State& state) {
    const Photo& ph = photo();
    for (auto _ : state) {
        PIX* q = pixOctreeColorQuant(ph.pix, kLeptonicaColours, 1);
        if (!q) state.SkipWithError("pixOctreeColorQuant failed");
        pixDestroy(&q);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kPhotoWidth * kPhotoHeight);
}
BENCHMARK(BM_Octree256_Leptonica)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
