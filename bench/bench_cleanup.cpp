// Clean-up of a 300-dpi letter page beside Leptonica, in the same run:
//  - skew measurement plus deskew of a page turned by 3 degrees
//    (ours: IMG_get_deskew_angle over -10 .. 10 + IMG_deskew_bitmap;
//    Leptonica: pixFindSkew + pixDeskew, which measures and turns);
//  - speck removal of the same page with 3,000 lone dots
//    (ours: IMG_despeckle_bitmap level 10; Leptonica: pixSelectBySize keeping
//    8-connected components larger than 1 x 1);
//  - end to end on a G4 TIFF file: `tesslin deskew` as a process beside a
//    forked process that reads the file with Leptonica, deskews it and writes
//    a G4 TIFF.
// Our pages start run-encoded, as decoders leave bilevel pages.
#include <benchmark/benchmark.h>
#include <leptonica/allheaders.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "bench_util.h"
#include "tesslin/tesslin.h"

using namespace tesslin;

namespace {

// Leptonica image of a packed page (ours: 1 = white; Leptonica: 1 = black).
PIX* to_pix(const bench::Page& p) {
    PIX* pix = pixCreate(int(p.width), int(p.height), 1);
    l_uint32* data = pixGetData(pix);
    const int wpl = pixGetWpl(pix);
    for (uint32_t y = 0; y < p.height; ++y) {
        l_uint32* line = data + size_t(y) * size_t(wpl);
        const uint8_t* row = p.rows.data() + size_t(y) * p.row_bytes;
        for (uint32_t b = 0; b < p.row_bytes; ++b) SET_DATA_BYTE(line, b, uint8_t(~row[b]));
    }
    return pix;
}

bench::Page from_pix(PIX* pix) {
    bench::Page p;
    p.width = uint32_t(pixGetWidth(pix));
    p.height = uint32_t(pixGetHeight(pix));
    p.row_bytes = row_bytes(p.width, 1);
    p.rows.assign(size_t(p.row_bytes) * p.height, 0xFF);
    l_uint32* data = pixGetData(pix);
    const int wpl = pixGetWpl(pix);
    for (uint32_t y = 0; y < p.height; ++y)
        for (uint32_t b = 0; b < (p.width + 7) / 8; ++b)
            p.rows[size_t(y) * p.row_bytes + b] = uint8_t(~GET_DATA_BYTE(data + size_t(y) * size_t(wpl), b));
    return p;
}

// The letter page turned 3 degrees clockwise (Leptonica's shear rotation,
// white brought in).
const bench::Page& skewed() {
    static bench::Page p = [] {
        PIX* pix = to_pix(bench::letter_page());
        PIX* turned = pixRotate(pix, 3.0f * 3.14159265f / 180.0f, L_ROTATE_AREA_MAP, L_BRING_IN_WHITE,
                                0, 0);
        PIX* bits = pixConvertTo1(turned, 128);
        bench::Page out = from_pix(bits);
        pixDestroy(&pix);
        pixDestroy(&turned);
        pixDestroy(&bits);
        return out;
    }();
    return p;
}

// The letter page with 3,000 lone black dots in white space.
const bench::Page& specked() {
    static bench::Page p = [] {
        bench::Page out = bench::letter_page();
        auto white = [&](int32_t x, int32_t y) {
            return out.rows[size_t(y) * out.row_bytes + size_t(x >> 3)] & (0x80 >> (x & 7));
        };
        std::mt19937 rng(5);
        for (int n = 0; n < 3000;) {
            const int32_t x = 2 + int32_t(rng() % (out.width - 4)), y = 2 + int32_t(rng() % (out.height - 4));
            bool clear = true;
            for (int dy = -2; dy <= 2 && clear; ++dy)
                for (int dx = -2; dx <= 2 && clear; ++dx) clear = white(x + dx, y + dy);
            if (!clear) continue;
            out.rows[size_t(y) * out.row_bytes + size_t(x >> 3)] &= uint8_t(~(0x80 >> (x & 7)));
            ++n;
        }
        return out;
    }();
    return p;
}

int32_t to_handle(const bench::Page& p) {
    const uint32_t rb = row_bytes(p.width, 1);
    auto* dib = static_cast<uint8_t*>(tesslin_block_alloc(40 + 8 + rb * p.height));
    *reinterpret_cast<DibHeader*>(dib) = dib_header(int32_t(p.width), int32_t(p.height), 1);
    RgbQuad* pal = dib_palette(dib);
    pal[0] = RgbQuad{0, 0, 0, 0};
    pal[1] = RgbQuad{255, 255, 255, 0};
    for (uint32_t y = 0; y < p.height; ++y)
        std::memcpy(dib + 48 + size_t(p.height - 1 - y) * rb, p.rows.data() + size_t(y) * p.row_bytes, rb);
    const int32_t h = IMG_create_handle_keep(dib);
    IMG_dib_to_runs(h);
    return h;
}

void BM_Deskew_ours(benchmark::State& state) {
    int32_t angle = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const int32_t h = to_handle(skewed());
        state.ResumeTiming();
        IMG_get_deskew_angle(h, &angle, -10, 10);
        IMG_deskew_bitmap(h, angle);
        state.PauseTiming();
        IMG_delete_bitmap(h);
        state.ResumeTiming();
    }
    state.counters["angle"] = angle;
}
BENCHMARK(BM_Deskew_ours)->Unit(benchmark::kMillisecond);

void BM_Deskew_leptonica(benchmark::State& state) {
    PIX* pix = to_pix(skewed());
    l_float32 angle = 0, conf = 0;
    for (auto _ : state) {
        pixFindSkew(pix, &angle, &conf);
        PIX* d = pixDeskew(pix, 0);
        benchmark::DoNotOptimize(d);
        pixDestroy(&d);
    }
    state.counters["angle"] = angle;
    pixDestroy(&pix);
}
BENCHMARK(BM_Deskew_leptonica)->Unit(benchmark::kMillisecond);

void BM_Despeckle_ours(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        const int32_t h = to_handle(specked());
        state.ResumeTiming();
        IMG_despeckle_bitmap(h, 10);
        state.PauseTiming();
        IMG_delete_bitmap(h);
        state.ResumeTiming();
    }
}
BENCHMARK(BM_Despeckle_ours)->Unit(benchmark::kMillisecond);

void BM_Despeckle_leptonica(benchmark::State& state) {
    PIX* pix = to_pix(specked());
    for (auto _ : state) {
        PIX* d = pixSelectBySize(pix, 1, 1, 8, L_SELECT_IF_EITHER, L_SELECT_IF_GT, nullptr);
        benchmark::DoNotOptimize(d);
        pixDestroy(&d);
    }
    pixDestroy(&pix);
}
BENCHMARK(BM_Despeckle_leptonica)->Unit(benchmark::kMillisecond);

// ---- End to end on files ----

std::string skewed_file() {
    static std::string path = [] {
        const std::string p = "/tmp/tesslin_bench_cleanup_" + std::to_string(getpid()) + ".tif";
        PIX* pix = to_pix(skewed());
        pixSetResolution(pix, 300, 300);
        pixWrite(p.c_str(), pix, IFF_TIFF_G4);
        pixDestroy(&pix);
        return p;
    }();
    return path;
}

template <typename F>
bool in_child(F&& f) {
    const pid_t pid = fork();
    if (pid == 0) {
        if (!std::freopen("/dev/null", "w", stdout)) _exit(127);
        _exit(f() ? 0 : 1);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_DeskewFile_ours_cli(benchmark::State& state) {
    const std::string in = skewed_file(), out = in + ".ours.tif";
    for (auto _ : state) {
        const bool ok = in_child([&] {
            execl(TESSLIN_CLI, TESSLIN_CLI, "deskew", in.c_str(), out.c_str(), "--quiet", "--overwrite", (char*)nullptr);
            return false;
        });
        if (!ok) {
            state.SkipWithError("tesslin deskew failed");
            return;
        }
    }
    std::remove(out.c_str());
}
BENCHMARK(BM_DeskewFile_ours_cli)->Unit(benchmark::kMillisecond);

void BM_DeskewFile_leptonica(benchmark::State& state) {
    const std::string in = skewed_file(), out = in + ".lept.tif";
    for (auto _ : state) {
        const bool ok = in_child([&] {
            PIX* pix = pixRead(in.c_str());
            if (!pix) return false;
            PIX* d = pixDeskew(pix, 0);
            const bool written = d && pixWrite(out.c_str(), d, IFF_TIFF_G4) == 0;
            pixDestroy(&d);
            pixDestroy(&pix);
            return written;
        });
        if (!ok) {
            state.SkipWithError("leptonica deskew failed");
            return;
        }
    }
    std::remove(out.c_str());
}
BENCHMARK(BM_DeskewFile_leptonica)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    setMsgSeverity(L_SEVERITY_NONE);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::remove(skewed_file().c_str());
    return 0;
}
