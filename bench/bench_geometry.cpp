// Geometry beside Leptonica in the same run:
//
//   QuarterTurn    a 300-dpi letter page (2,550 x 3,300) turned by 90
//                  degrees: ours on its run records (as a decoded Group 4
//                  page is held) and on packed rows, Leptonica's
//                  pixRotate90 on its packed 1-bpp image.
//   ScaleToGrey4   the same page to 8-bit grey at a quarter of its size:
//                  IMG_resize_to_gray on the run records, pixScaleToGray4.
//   AnyAngle       a 12-megapixel photograph (4,000 x 3,000) turned by 17.5
//                  degrees with nearest-neighbour sampling into an image
//                  large enough for the whole picture: IMG_rotate_bitmap on
//                  24-bit rows, pixRotate (L_ROTATE_SAMPLING) on 32 bpp.
//   CliRotate      end to end: read the page as Group 4 TIFF, turn it, write
//                  Group 4 TIFF: `tesslin rotate` against lept_rotate_page
//                  (the same with Leptonica), both run as processes.
//
// The ratios (ours / Leptonica) are the times of the matching pairs.
#include <benchmark/benchmark.h>
#include <leptonica/allheaders.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numbers>
#include <string>
#include <vector>

#include "bench_util.h"
#include "core/dib.h"
#include "pipeline/codec.h"
#include "tesslin/tesslin.h"

using namespace tesslin;

namespace {

const bench::Page& page() {
    static bench::Page p = bench::letter_page();
    return p;
}

// A packed DIB of the page in a library block (rows bottom-up).
void* page_dib() {
    const auto& p = page();
    const uint32_t size = 40 + 8 + p.row_bytes * p.height;
    auto* dib = static_cast<uint8_t*>(tesslin_block_alloc(size));
    DibHeader h = dib_header(int32_t(p.width), int32_t(p.height), 1);
    dib_set_resolution(&h, 300, 300);
    std::memcpy(dib, &h, 40);
    const RgbQuad pal[2] = {{0, 0, 0, 0}, {255, 255, 255, 0}};
    std::memcpy(dib + 40, pal, 8);
    for (uint32_t y = 0; y < p.height; ++y)
        std::memcpy(dib + 48 + size_t(p.height - 1 - y) * p.row_bytes, p.rows.data() + size_t(y) * p.row_bytes,
                    p.row_bytes);
    return dib;
}

// A handle of the page, run-encoded like a decoded Group 4 page or packed.
int32_t page_handle(bool runs) {
    const int32_t h = IMG_create_handle_keep(page_dib());
    if (runs) IMG_dib_to_runs(h);
    return h;
}

// Leptonica's 1-bpp image of the page (1 = black), through a PBM in memory.
PIX* page_pix() {
    const auto& p = page();
    std::string pbm = "P4\n" + std::to_string(p.width) + " " + std::to_string(p.height) + "\n";
    const uint32_t rb = (p.width + 7) / 8;
    for (uint32_t y = 0; y < p.height; ++y)
        for (uint32_t i = 0; i < rb; ++i) pbm += char(~p.rows[size_t(y) * p.row_bytes + i]);
    return pixReadMem(reinterpret_cast<const l_uint8*>(pbm.data()), pbm.size());
}

void BM_QuarterTurn_Tesslin(benchmark::State& state) {
    const int32_t h = page_handle(state.range(0) != 0);
    for (auto _ : state) benchmark::DoNotOptimize(IMG_rotate_bitmap(h, 9000));
    IMG_delete_bitmap(h);
}
BENCHMARK(BM_QuarterTurn_Tesslin)->Arg(1)->Arg(0)->ArgName("runs")->Unit(benchmark::kMillisecond);

void BM_QuarterTurn_Leptonica(benchmark::State& state) {
    PIX* pix = page_pix();
    for (auto _ : state) {
        PIX* r = pixRotate90(pix, 1);
        benchmark::DoNotOptimize(r);
        pixDestroy(&r);
    }
    pixDestroy(&pix);
}
BENCHMARK(BM_QuarterTurn_Leptonica)->Unit(benchmark::kMillisecond);

void BM_ScaleToGrey4_Tesslin(benchmark::State& state) {
    const auto& p = page();
    for (auto _ : state) {
        state.PauseTiming();
        const int32_t h = page_handle(true);
        state.ResumeTiming();
        benchmark::DoNotOptimize(IMG_resize_to_gray(h, int32_t(p.width / 4), int32_t(p.height / 4)));
        state.PauseTiming();
        IMG_delete_bitmap(h);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_ScaleToGrey4_Tesslin)->Unit(benchmark::kMillisecond);

void BM_ScaleToGrey4_Leptonica(benchmark::State& state) {
    PIX* pix = page_pix();
    for (auto _ : state) {
        PIX* g = pixScaleToGray4(pix);
        benchmark::DoNotOptimize(g);
        pixDestroy(&g);
    }
    pixDestroy(&pix);
}
BENCHMARK(BM_ScaleToGrey4_Leptonica)->Unit(benchmark::kMillisecond);

constexpr uint32_t kPhotoWidth = 4000, kPhotoHeight = 3000;
constexpr double kDegrees = 17.5;

const std::vector<uint8_t>& photo_rgb() {
    static std::vector<uint8_t> rgb =
        bench::photo_page(decoder_for_tag("png"), std::string(TESSLIN_TEST_DATA) + "/corpus/png/rgb.png",
                          kPhotoWidth, kPhotoHeight);
    return rgb;
}

void BM_AnyAngle_Tesslin(benchmark::State& state) {
    const std::vector<uint8_t> rows = bench::bgr_dib_rows(photo_rgb(), kPhotoWidth, kPhotoHeight);
    const uint32_t rb = row_bytes(kPhotoWidth, 24);
    for (auto _ : state) {
        state.PauseTiming();
        auto* dib = static_cast<uint8_t*>(tesslin_block_alloc(40 + uint32_t(rows.size())));
        const DibHeader h = dib_header(int32_t(kPhotoWidth), int32_t(kPhotoHeight), 24);
        std::memcpy(dib, &h, 40);
        for (uint32_t y = 0; y < kPhotoHeight; ++y)
            std::memcpy(dib + 40 + size_t(kPhotoHeight - 1 - y) * rb, rows.data() + size_t(y) * rb, rb);
        const int32_t handle = IMG_create_handle_keep(dib);
        state.ResumeTiming();
        benchmark::DoNotOptimize(IMG_rotate_bitmap(handle, int32_t(kDegrees * 100)));
        state.PauseTiming();
        IMG_delete_bitmap(handle);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_AnyAngle_Tesslin)->Unit(benchmark::kMillisecond);

void BM_AnyAngle_Leptonica(benchmark::State& state) {
    const std::vector<uint8_t>& rgb = photo_rgb();
    PIX* pix = pixCreate(kPhotoWidth, kPhotoHeight, 32);
    for (uint32_t y = 0; y < kPhotoHeight; ++y) {
        l_uint32* line = pixGetData(pix) + size_t(y) * pixGetWpl(pix);
        for (uint32_t x = 0; x < kPhotoWidth; ++x) {
            const uint8_t* s = &rgb[(size_t(y) * kPhotoWidth + x) * 3];
            composeRGBPixel(s[0], s[1], s[2], &line[x]);
        }
    }
    const float radians = float(kDegrees * std::numbers::pi / 180);
    for (auto _ : state) {
        PIX* r = pixRotate(pix, radians, L_ROTATE_SAMPLING, L_BRING_IN_BLACK, kPhotoWidth, kPhotoHeight);
        benchmark::DoNotOptimize(r);
        pixDestroy(&r);
    }
    pixDestroy(&pix);
}
BENCHMARK(BM_AnyAngle_Leptonica)->Unit(benchmark::kMillisecond);

// The page as a Group 4 TIFF file, written once by our writer.
const std::string& page_tiff() {
    static std::string path = [] {
        std::string p = "/tmp/bench_geometry_page_" + std::to_string(getpid()) + ".tif";
        const int32_t h = page_handle(true);
        if (IMG_save_bitmap(h, p.c_str(), IMG_FORMAT_TIFF_G4) != 0) std::exit(1);
        IMG_delete_bitmap(h);
        return p;
    }();
    return path;
}

void run_or_fail(benchmark::State& state, const std::string& command) {
    if (std::system(command.c_str()) != 0) state.SkipWithError(("failed: " + command).c_str());
}

void BM_CliRotate_Tesslin(benchmark::State& state) {
    const std::string out = page_tiff() + ".tesslin.tif";
    const std::string command = std::string("'") + TESSLIN_CLI + "' rotate --angle 90 --quiet --overwrite '" + page_tiff() +
                                "' '" + out + "'";
    for (auto _ : state) {
        std::remove(out.c_str());
        run_or_fail(state, command);
    }
    std::remove(out.c_str());
}
BENCHMARK(BM_CliRotate_Tesslin)->Unit(benchmark::kMillisecond);

void BM_CliRotate_Leptonica(benchmark::State& state) {
    const std::string out = page_tiff() + ".lept.tif";
    const std::string command = std::string("'") + LEPT_ROTATE_PAGE + "' '" + page_tiff() + "' '" + out + "'";
    for (auto _ : state) {
        std::remove(out.c_str());
        run_or_fail(state, command);
    }
    std::remove(out.c_str());
}
BENCHMARK(BM_CliRotate_Leptonica)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::remove(page_tiff().c_str());
    return 0;
}
