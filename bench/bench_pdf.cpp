// A ten-page Group 4 TIFF at 300 dpi converted to one PDF, end to end,
// beside libtiff's tiff2pdf in the same run:
//
//   BM_TiffToPdf/ours: every page decoded from the file
//     (IMG_decompress_bitmap_page) and saved with IMG_save_bitmap, format
//     code IMG_FORMAT_PDF, each save appending a page: the Group 4 data is
//     decoded and coded again.
//   BM_TiffToPdf/ours_cli: the same through the command-line tool, run as a
//     process (tesslin convert in.tif out.pdf --all-pages), for a like with
//     like comparison with the other process.
//   BM_TiffToPdf/tiff2pdf: the tiff2pdf program run as a process on the
//     same file; it copies each page's Group 4 strip into the PDF unchanged.
//
// The pages are the 2,550 x 3,300 letter page, moved down by a different
// number of rows on each page, written by libtiff as one Group 4 strip a
// page. After the runs the program prints the time ratios and the sizes of
// both PDFs side by side.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <tiffio.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "bench_util.h"
#include "tesslin/tesslin.h"

using namespace tesslin;

namespace {

constexpr int kPages = 10;

std::string scratch(const char* name) {
    const char* dir = std::getenv("TMPDIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/bench_pdf_" + std::to_string(getpid()) + "_" + name;
}

const std::string& source_tiff() {
    static const std::string path = [] {
        const bench::Page page = bench::letter_page();
        const std::string p = scratch("in.tif");
        TIFF* t = TIFFOpen(p.c_str(), "w");
        if (!t) std::exit(1);
        const uint32_t packed = (page.width + 7) / 8;
        std::vector<uint8_t> row(packed);
        for (int n = 0; n < kPages; ++n) {
            TIFFSetField(t, TIFFTAG_IMAGEWIDTH, page.width);
            TIFFSetField(t, TIFFTAG_IMAGELENGTH, page.height);
            TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1);
            TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
            TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4);
            TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
            TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, page.height);
            TIFFSetField(t, TIFFTAG_XRESOLUTION, 300.0);
            TIFFSetField(t, TIFFTAG_YRESOLUTION, 300.0);
            TIFFSetField(t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
            TIFFSetField(t, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
            TIFFSetField(t, TIFFTAG_PAGENUMBER, n, kPages);
            for (uint32_t y = 0; y < page.height; ++y) {
                // Library rows hold 1 = white; MinIsWhite wants 0 = white.
                const uint32_t from = (y + page.height - uint32_t(n) * 37) % page.height;
                const uint8_t* src = page.rows.data() + size_t(from) * page.row_bytes;
                for (uint32_t i = 0; i < packed; ++i) row[i] = uint8_t(~src[i]);
                TIFFWriteScanline(t, row.data(), y, 0);
            }
            TIFFWriteDirectory(t);
        }
        TIFFClose(t);
        return p;
    }();
    return path;
}

std::map<std::string, double> g_seconds;  // mean time a conversion, by peer
std::map<std::string, long> g_bytes;      // PDF size, by peer

long file_size(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return -1;
    std::fseek(f, 0, SEEK_END);
    const long n = std::ftell(f);
    std::fclose(f);
    return n;
}

bool run_process(const std::vector<std::string>& args) {
    const pid_t pid = fork();
    if (pid == 0) {
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        if (!std::freopen("/dev/null", "w", stdout)) _exit(127);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void finish(benchmark::State& state, const std::string& name, const std::string& out) {
    g_bytes[name] = file_size(out);
    state.counters["pdf_bytes"] = double(g_bytes[name]);
    state.SetItemsProcessed(int64_t(state.iterations()) * kPages);
}

void BM_TiffToPdf_ours(benchmark::State& state) {
    const std::string in = source_tiff(), out = scratch("ours.pdf");
    for (auto _ : state) {
        std::remove(out.c_str());
        for (int page = 0; page < kPages; ++page) {
            const int32_t h = IMG_decompress_bitmap_page(in.c_str(), page);
            if (h < 0 || IMG_save_bitmap(h, out.c_str(), IMG_FORMAT_PDF) != 0) {
                state.SkipWithError("conversion failed");
                return;
            }
            IMG_delete_bitmap(h);
        }
    }
    finish(state, "ours", out);
}

void BM_TiffToPdf_ours_cli(benchmark::State& state) {
    const std::string in = source_tiff(), out = scratch("cli.pdf");
    for (auto _ : state) {
        std::remove(out.c_str());
        if (!run_process({TESSLIN_CLI, "convert", in, out, "--all-pages"})) {
            state.SkipWithError("tesslin convert failed");
            return;
        }
    }
    finish(state, "ours_cli", out);
}

void BM_TiffToPdf_tiff2pdf(benchmark::State& state) {
    const std::string in = source_tiff(), out = scratch("tiff2pdf.pdf");
    for (auto _ : state) {
        std::remove(out.c_str());
        if (!run_process({"tiff2pdf", "-o", out, in})) {
            state.SkipWithError("tiff2pdf failed (is libtiff-tools installed?)");
            return;
        }
    }
    finish(state, "tiff2pdf", out);
}

BENCHMARK(BM_TiffToPdf_ours)->Name("BM_TiffToPdf/ours")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_TiffToPdf_ours_cli)->Name("BM_TiffToPdf/ours_cli")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_TiffToPdf_tiff2pdf)->Name("BM_TiffToPdf/tiff2pdf")->Unit(benchmark::kMillisecond)->UseRealTime();

// Keeps each run's mean real time for the summary.
class Reporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            const std::string name = r.benchmark_name();
            // "BM_TiffToPdf/ours/real_time" -> "ours"
            const size_t from = name.find('/') + 1;
            const std::string peer = name.substr(from, name.find('/', from) - from);
            if (r.iterations > 0) g_seconds[peer] = r.GetAdjustedRealTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    const double peer = g_seconds.count("tiff2pdf") ? g_seconds["tiff2pdf"] : 0;
    if (peer > 0)
        for (const char* ours : {"ours", "ours_cli"})
            if (g_seconds.count(ours))
                std::printf("%s / tiff2pdf time: %.2f\n", ours, g_seconds[ours] / peer);
    if (g_bytes.count("ours") && g_bytes.count("tiff2pdf") && g_bytes["tiff2pdf"] > 0)
        std::printf("PDF bytes: ours %ld, tiff2pdf %ld (%+.1f%%)\n", g_bytes["ours"],
                    g_bytes["tiff2pdf"], 100.0 * (double(g_bytes["ours"]) / double(g_bytes["tiff2pdf"]) - 1));
    std::remove(source_tiff().c_str());
    for (const char* f : {"ours.pdf", "cli.pdf", "tiff2pdf.pdf"}) std::remove(scratch(f).c_str());
    return 0;
}
