// PDF input: a 10-page scanned document (letter pages at 300 dpi, Group 4
// images wrapped by tiff2pdf) rendered at 300 dpi bilevel, every page into a
// bitmap handle through pdfmod, beside `pdftoppm -mono -r 300` on the same
// file in the same run. pdftoppm is a process, so both are timed in wall
// time (UseRealTime); it also writes a PBM file per page, which we skip.
// On a loaded machine wall time swings, so pdftoppm's own CPU time (user +
// system of the child processes) is reported too, as child_cpu_ms per
// iteration, to set beside our CPU column.
// Needs pdfmod.so (the build's module directory) and tiff2pdf/pdftoppm.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <sys/resource.h>
#include <unistd.h>

#include "bench_util.h"
#include "tesslin/tesslin.h"

namespace fs = std::filesystem;
using namespace tesslin;

namespace {

constexpr int kPages = 10;
std::string pdf;  // the document, made once per run

const std::string& document() {
    if (!pdf.empty()) return pdf;
    const fs::path dir = fs::temp_directory_path() / ("tesslin_bench_pdf_" + std::to_string(getpid()));
    fs::create_directories(dir);
    const std::string tif = (dir / "scan.tif").string();
    pdf = (dir / "scan.pdf").string();
    const bench::Page p = bench::letter_page();
    for (int page = 0; page < kPages; ++page) {
        // A 1-bit DIB of the page, its rows shifted a little per page so that
        // no two pages are the same.
        const uint32_t image = p.row_bytes * p.height;
        auto* dib = static_cast<uint8_t*>(tesslin_block_alloc(40 + 8 + image));
        std::memset(dib, 0, 48);
        auto* h = reinterpret_cast<IMG_BITMAPINFOHEADER*>(dib);
        h->biSize = 40;
        h->biWidth = int32_t(p.width);
        h->biHeight = int32_t(p.height);
        h->biPlanes = 1;
        h->biBitCount = 1;
        h->biSizeImage = image;
        h->biXPelsPerMeter = h->biYPelsPerMeter = 300;
        std::memset(dib + 44, 255, 3);  // 0 black, 1 white
        for (uint32_t y = 0; y < p.height; ++y) {
            const uint32_t from = (y + uint32_t(page) * 37) % p.height;
            std::memcpy(dib + 48 + size_t(p.height - 1 - y) * p.row_bytes,
                        p.rows.data() + size_t(from) * p.row_bytes, p.row_bytes);
        }
        const int32_t handle = IMG_create_handle_keep(dib);
        if (handle < 0 || IMG_save_bitmap(handle, tif.c_str(), IMG_FORMAT_TIFF_G4) != 0) std::exit(1);
        IMG_delete_bitmap(handle);
    }
    std::atexit([] { fs::remove_all(fs::path(pdf).parent_path()); });
    if (std::system(("tiff2pdf -o '" + pdf + "' '" + tif + "'").c_str()) != 0) {
        std::fprintf(stderr, "tiff2pdf failed\n");
        std::exit(1);
    }
    return pdf;
}

void BM_Tesslin_RenderPages_300dpi_Bilevel(benchmark::State& state) {
    const std::string& pdf = document();
#ifdef TESSLIN_MODULE_DIR
    tesslin_set_plugin_dir(TESSLIN_MODULE_DIR);
#endif
    if (IMGLOW_set_pdf_input(300, 1) != 0) {
        state.SkipWithError("pdfmod.so cannot be loaded");
        return;
    }
    int64_t pixels = 0;
    for (auto _ : state) {
        for (int page = 0; page < kPages; ++page) {
            const int32_t h = IMG_decompress_bitmap_page(pdf.c_str(), page);
            if (h < 0) {
                state.SkipWithError("decode failed");
                return;
            }
            int32_t w = 0, height = 0, bits = 0;
            IMG_bitmap_info(h, &w, &height, &bits);
            pixels = int64_t(w) * height;
            IMG_delete_bitmap(h);
        }
    }
    state.counters["page_pixels"] = double(pixels);
    state.SetItemsProcessed(int64_t(state.iterations()) * kPages);
}
BENCHMARK(BM_Tesslin_RenderPages_300dpi_Bilevel)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Pdftoppm_Mono_300dpi(benchmark::State& state) {
    const std::string& pdf = document();
    const std::string out = pdf + "_ppm";
    const std::string command = "pdftoppm -mono -r 300 '" + pdf + "' '" + out + "'";
    const auto child_cpu_ms = [] {
        rusage u{};
        getrusage(RUSAGE_CHILDREN, &u);
        return (double(u.ru_utime.tv_sec) + double(u.ru_stime.tv_sec)) * 1e3 +
               (double(u.ru_utime.tv_usec) + double(u.ru_stime.tv_usec)) / 1e3;
    };
    const double cpu_before = child_cpu_ms();
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) {
            state.SkipWithError("pdftoppm failed");
            return;
        }
    }
    state.counters["child_cpu_ms"] = (child_cpu_ms() - cpu_before) / double(state.iterations());
    state.SetItemsProcessed(int64_t(state.iterations()) * kPages);
    for (int page = 1; page <= kPages; ++page) {
        char name[16];
        std::snprintf(name, sizeof name, "-%02d.pbm", page);
        fs::remove(out + name);
    }
}
BENCHMARK(BM_Pdftoppm_Mono_300dpi)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
