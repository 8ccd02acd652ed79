// Different files and handles decoded and saved on several threads at once
// give the same results as one at a time.
#include <thread>

#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// Decodes a file, saves it as codes 1, 12 (where it can) and 48, decodes
// each back; returns a digest of every raster and byte written.
uint64_t work(const Bytes& file) {
    uint64_t digest = 1469598103934665603ull;
    auto mix = [&](const Bytes& b) {
        for (uint8_t v : b) digest = (digest ^ v) * 1099511628211ull;
    };
    const int32_t h = decode_mem(file);
    if (h < 0) return uint64_t(h);
    mix(handle_raster(h).px);
    for (int32_t code : {1, 12, 48}) {
        const Bytes saved = save_mem(h, code);
        mix(saved);
        if (const int32_t back = saved.empty() ? -1 : decode_mem(saved); back >= 0) {
            mix(handle_raster(back).px);
            IMG_delete_bitmap(back);
        }
    }
    IMG_delete_bitmap(h);
    return digest;
}

}  // namespace

TEST(Threads, ParallelDecodesAndSavesMatchSerialOnes) {
    std::vector<Bytes> files;
    for (const char* dir : {"bmp", "suites/bmpsuite/g"})
        for (const auto& e : fs::directory_iterator(corpus(dir))) files.push_back(read_file(e.path().string()));
    ASSERT_GE(files.size(), 30u);
    std::vector<uint64_t> serial;
    for (const auto& f : files) serial.push_back(work(f));
    constexpr int kThreads = 6, kRounds = 4;
    std::vector<std::vector<uint64_t>> parallel(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            // Each thread walks the files from its own starting point.
            for (int round = 0; round < kRounds; ++round)
                for (size_t i = 0; i < files.size(); ++i) {
                    const size_t k = (i + size_t(t) * 7) % files.size();
                    parallel[size_t(t)].push_back(work(files[k]) ^ serial[k]);
                }
        });
    for (auto& th : threads) th.join();
    for (const auto& results : parallel)
        for (uint64_t r : results) EXPECT_EQ(r, 0u);
}
