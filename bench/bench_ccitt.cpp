// Group 4 on a 300-dpi letter page (2,550 x 3,300), beside libtiff in the
// same run: decoding to run records (ours) against libtiff decoding the same
// page to a packed raster, and encoding from run records (ours) against
// libtiff encoding the packed raster. Both sides work in memory.
#include <benchmark/benchmark.h>
#include <tiffio.h>

#include <cstring>
#include <vector>

#include "core/runs.h"
#include "core/stream.h"
#include "formats/ccitt/ccitt.h"
#include "bench_util.h"
#include "libtiff_memory.h"
#include "tesslin/tesslin.h"

using namespace tesslin;
using bench::MemFile;
using bench::mem_open;

namespace {

constexpr uint32_t kOutBytes = 8u << 20;

// ---- The page, as records, packed rows and coded data -------------------

struct Fixture {
    bench::Page page;
    std::vector<std::vector<uint32_t>> records;
    std::vector<uint8_t> fax_raster;  // packed, 0 = white, (width + 7) / 8 per row
    std::vector<uint8_t> g4;          // our Group 4 stream
    std::vector<uint8_t> tiff;        // libtiff's Group 4 TIFF of the page
};

int32_t supply_record(intptr_t user, uint8_t* buffer, int32_t row, uint32_t) {
    const auto& rec = reinterpret_cast<const Fixture*>(user)->records[size_t(row)];
    std::memcpy(buffer, rec.data(), rec.size() * 4);
    return int32_t(rec.size() * 4);
}

// libtiff encoding the packed raster as one Group 4 strip.
void libtiff_encode(const Fixture& fx, MemFile& out) {
    out.data.clear();
    TIFF* t = mem_open(out, "w");
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, fx.page.width);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, fx.page.height);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, fx.page.height);
    TIFFWriteEncodedStrip(t, 0, const_cast<uint8_t*>(fx.fax_raster.data()), tmsize_t(fx.fax_raster.size()));
    TIFFClose(t);
}

const Fixture& fixture() {
    static const Fixture fx = [] {
        Fixture f;
        f.page = bench::letter_page();
        const auto& p = f.page;
        f.records = bench::run_records(p);
        const uint32_t packed = (p.width + 7) / 8;
        f.fax_raster.resize(size_t(packed) * p.height);
        for (uint32_t y = 0; y < p.height; ++y) {
            const uint8_t* row = p.rows.data() + size_t(y) * p.row_bytes;
            for (uint32_t i = 0; i < packed; ++i) f.fax_raster[size_t(y) * packed + i] = uint8_t(~row[i]);
        }
        IMG_BITMAPINFOHEADER h{40, int32_t(p.width), int32_t(p.height), 1, 1, IMG_COMPRESSION_RUNS,
                               0, 300, 300, 0, 0};
        auto* out = static_cast<uint8_t*>(tesslin_block_alloc(kOutBytes));
        int32_t s = stream::mem_create_sized(out, kOutBytes);
        if (ccitt::fax_encode_g4(s, &h, supply_record, intptr_t(&f), 0, ccitt::kFrameG4) != 0) std::abort();
        f.g4.assign(out, out + stream::length(s));
        stream::mem_release(s);
        tesslin_block_free(out);
        MemFile tiff;
        libtiff_encode(f, tiff);
        f.tiff = std::move(tiff.data);
        return f;
    }();
    return fx;
}

int32_t count_record(uint8_t*, intptr_t user, int32_t, uint32_t count) {
    *reinterpret_cast<uint64_t*>(user) += count;
    return 0;
}

// ---- Decoding -----------------------------------------------------------

void BM_Decode_Tesslin_G4_ToRuns(benchmark::State& state) {
    const Fixture& fx = fixture();
    ccitt::FaxParams p;
    p.width = fx.page.width;
    p.height = fx.page.height;
    p.mode = ccitt::kModeG4Memory;
    p.data_length = uint32_t(fx.g4.size());
    uint64_t bytes = 0;
    for (auto _ : state) {
        bytes = 0;
        if (ccitt::fax_decode_g4(fx.g4.data(), p.height, 0, p, 0, count_record, intptr_t(&bytes)) != 0)
            state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["coded_bytes"] = double(fx.g4.size());
    state.counters["record_bytes"] = double(bytes);
    state.SetItemsProcessed(int64_t(state.iterations()) * p.height);
}
BENCHMARK(BM_Decode_Tesslin_G4_ToRuns)->Unit(benchmark::kMillisecond);

void BM_Decode_Libtiff_G4_ToRaster(benchmark::State& state) {
    const Fixture& fx = fixture();
    MemFile f{fx.tiff, 0};
    TIFF* t = mem_open(f, "r");
    std::vector<uint8_t> raster(size_t(TIFFStripSize(t)));
    for (auto _ : state) {
        if (TIFFReadEncodedStrip(t, 0, raster.data(), tmsize_t(raster.size())) < 0)
            state.SkipWithError("libtiff decode failed");
        benchmark::DoNotOptimize(raster.data());
    }
    if (raster != fx.fax_raster) state.SkipWithError("libtiff decoded another page");
    TIFFClose(t);
    state.counters["coded_bytes"] = double(fx.tiff.size());
    state.SetItemsProcessed(int64_t(state.iterations()) * fx.page.height);
}
BENCHMARK(BM_Decode_Libtiff_G4_ToRaster)->Unit(benchmark::kMillisecond);

// ---- Encoding -----------------------------------------------------------

void BM_Encode_Tesslin_G4_FromRuns(benchmark::State& state) {
    const Fixture& fx = fixture();
    IMG_BITMAPINFOHEADER h{40, int32_t(fx.page.width), int32_t(fx.page.height), 1, 1, IMG_COMPRESSION_RUNS,
                           0, 300, 300, 0, 0};
    auto* out = static_cast<uint8_t*>(tesslin_block_alloc(kOutBytes));
    int32_t length = 0;
    for (auto _ : state) {
        int32_t s = stream::mem_create_sized(out, kOutBytes);
        if (ccitt::fax_encode_g4(s, &h, supply_record, intptr_t(&fx), 0, ccitt::kFrameG4) != 0)
            state.SkipWithError("encode failed");
        length = stream::length(s);
        stream::mem_release(s);
        benchmark::DoNotOptimize(out);
    }
    if (size_t(length) != fx.g4.size() || std::memcmp(out, fx.g4.data(), fx.g4.size()) != 0)
        state.SkipWithError("output changed");
    tesslin_block_free(out);
    state.counters["coded_bytes"] = double(length);
    state.SetItemsProcessed(int64_t(state.iterations()) * fx.page.height);
}
BENCHMARK(BM_Encode_Tesslin_G4_FromRuns)->Unit(benchmark::kMillisecond);

void BM_Encode_Libtiff_G4_FromRaster(benchmark::State& state) {
    const Fixture& fx = fixture();
    MemFile f;
    f.data.reserve(8u << 20);
    for (auto _ : state) {
        libtiff_encode(fx, f);
        benchmark::DoNotOptimize(f.data.data());
    }
    state.counters["file_bytes"] = double(f.data.size());
    state.SetItemsProcessed(int64_t(state.iterations()) * fx.page.height);
}
BENCHMARK(BM_Encode_Libtiff_G4_FromRaster)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
