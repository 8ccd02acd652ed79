// Different files and handles decoded and saved on several threads at once
// give the same results as one at a time.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <thread>

#include "image_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// Decodes a file, saves it as codes 1, 12 (where it can) and 48, decodes
// each back; returns a digest of every raster and byte written.
uint64_t work(const std::vector<uint8_t>& file) {
    uint64_t digest = 1469598103934665603ull;
    auto mix = [&](const uint8_t* p, size_t n) {
        for (size_t i = 0; i < n; ++i) digest = (digest ^ p[i]) * 1099511628211ull;
    };
    void* in = to_block(file);
    const int32_t h = IMG_decompress_bitmap_mem(in, 0);
    tesslin_block_free(in);
    if (h < 0) return uint64_t(h);
    const Raster r = handle_raster(h);
    mix(r.px.data(), r.px.size());
    int32_t w, ht, bits;
    IMG_bitmap_info(h, &w, &ht, &bits);
    const uint32_t size = row_bytes(uint32_t(w), 32) * uint32_t(ht) + 4096;
    for (int32_t code : {1, 12, 48}) {
        void* out = tesslin_block_alloc(size);
        const int32_t n = IMG_save_bitmap_mem(h, out, code);
        if (n > 0) {
            mix(static_cast<uint8_t*>(out), size_t(n));
            const int32_t back = IMG_decompress_bitmap_mem(out, 0);
            if (back >= 0) {
                const Raster b = handle_raster(back);
                mix(b.px.data(), b.px.size());
                IMG_delete_bitmap(back);
            }
        }
        tesslin_block_free(out);
    }
    IMG_delete_bitmap(h);
    return digest;
}

}  // namespace

TEST(Threads, ParallelDecodesAndSavesMatchSerialOnes) {
    std::vector<std::vector<uint8_t>> files;
    for (const char* dir : {"corpus/bmp", "corpus/suites/bmpsuite/g"})
        for (const auto& e : std::filesystem::directory_iterator(data_path(dir)))
            files.push_back(read_file(e.path().string()));
    ASSERT_GE(files.size(), 30u);
    std::vector<uint64_t> serial;
    for (const auto& f : files) serial.push_back(work(f));

    constexpr int kThreads = 6;
    constexpr int kRounds = 4;
    std::vector<std::vector<uint64_t>> parallel(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            // Each thread walks the files from its own starting point.
            for (int round = 0; round < kRounds; ++round)
                for (size_t i = 0; i < files.size(); ++i) {
                    const size_t k = (i + size_t(t) * 7) % files.size();
                    parallel[size_t(t)].push_back(work(files[k]) ^ serial[k]);
                }
        });
    }
    for (auto& th : threads) th.join();
    for (const auto& results : parallel)
        for (uint64_t r : results) EXPECT_EQ(r, 0u);
}
