// Run records of a 300-dpi letter page: encoding packed rows, expanding them
// back, and building a handle's whole run store. Reports the store's size
// beside the packed size; a text page must stay under an eighth of it.
#include <benchmark/benchmark.h>

#include <cstring>

#include "core/bitmap.h"
#include "core/runs.h"
#include "bench_util.h"
#include "tesslin/tesslin.h"

using namespace tesslin;

namespace {

const bench::Page& page() {
    static bench::Page p = bench::letter_page();
    return p;
}

void BM_EncodeRows(benchmark::State& state) {
    const auto& p = page();
    std::vector<uint32_t> rec(runs::max_record_bytes(p.width) / 4);
    uint64_t bytes = 0;
    for (auto _ : state) {
        bytes = 0;
        for (uint32_t y = 0; y < p.height; ++y)
            bytes += runs::encode(p.rows.data() + size_t(y) * p.row_bytes, p.width, rec.data());
        benchmark::DoNotOptimize(rec.data());
    }
    const double packed = double(p.row_bytes) * p.height;
    state.counters["store_bytes"] = double(bytes);
    state.counters["packed_bytes"] = packed;
    state.counters["store_per_packed"] = double(bytes) / packed;
    state.SetItemsProcessed(int64_t(state.iterations()) * p.height);
}
BENCHMARK(BM_EncodeRows)->Unit(benchmark::kMillisecond);

void BM_ExpandRows(benchmark::State& state) {
    const auto& p = page();
    const std::vector<std::vector<uint32_t>> records = bench::run_records(p);
    std::vector<uint8_t> row(p.row_bytes);
    for (auto _ : state) {
        for (uint32_t y = 0; y < p.height; ++y) {
            runs::expand(records[y].data(), p.width, row.data(), p.row_bytes);
            benchmark::DoNotOptimize(row.data());
        }
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * p.height);
}
BENCHMARK(BM_ExpandRows)->Unit(benchmark::kMillisecond);

// IMG_dib_to_runs on a plain handle: encoding plus the store's growth.
void BM_DibToRuns(benchmark::State& state) {
    const auto& p = page();
    const uint32_t size = 40 + 8 + p.row_bytes * p.height;
    uint64_t store = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto* dib = static_cast<uint8_t*>(tesslin_block_alloc(size));
        auto* h = reinterpret_cast<DibHeader*>(dib);
        *h = DibHeader{40, int32_t(p.width), int32_t(p.height), 1, 1, 0, 0, 300, 300, 0, 0};
        std::memset(dib + 40, 0, 4);
        std::memset(dib + 44, 0xFF, 4);
        for (uint32_t y = 0; y < p.height; ++y)
            std::memcpy(dib + 48 + size_t(p.height - 1 - y) * p.row_bytes,
                        p.rows.data() + size_t(y) * p.row_bytes, p.row_bytes);
        int32_t handle = IMG_create_handle_keep(dib);
        state.ResumeTiming();
        if (IMG_dib_to_runs(handle) != 0) state.SkipWithError("dib_to_runs failed");
        state.PauseTiming();
        store = bitmap_get(handle)->line_offsets[p.height];
        IMG_delete_bitmap(handle);
        state.ResumeTiming();
    }
    state.counters["store_bytes"] = double(store);
    state.counters["store_per_packed"] = double(store) / (double(p.row_bytes) * p.height);
}
BENCHMARK(BM_DibToRuns)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
