// Threads: decodes, saves and handle traffic on 8 threads at once give what
// one thread gives. Built on its own (tesslin_threads) so that it can run
// under ThreadSanitizer without the rest of the suite (-DTESSLIN_TSAN=ON).
// TESSLIN_THREAD_ROUNDS sets the rounds (default 3).
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tesslin/tesslin.h"

namespace fs = std::filesystem;

namespace {

constexpr int kThreads = 8;

int rounds() {
    const char* r = std::getenv("TESSLIN_THREAD_ROUNDS");
    return r && std::atoi(r) > 0 ? std::atoi(r) : 3;
}

uint64_t fnv(uint64_t h, const void* data, size_t n) {
    const auto* p = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

// Geometry and every row of a handle; 0 for no handle.
uint64_t digest(int32_t h) {
    int32_t w = 0, height = 0, bits = 0;
    if (h < 0 || IMG_bitmap_info(h, &w, &height, &bits) < 0) return 0;
    uint64_t d = fnv(14695981039346656037ull, &w, 4);
    d = fnv(d, &height, 4);
    d = fnv(d, &bits, 4);
    std::vector<uint8_t> row(size_t((int64_t(w) * bits + 31) / 32 * 4) + 4);
    for (int32_t y = 0; y < height; ++y) {
        if (IMGLOW_get_raster(h, row.data(), y, 0) < 0) return 1;
        d = fnv(d, row.data(), row.size());
    }
    return d;
}

// What one page gives: its decode, a BMP save's bytes, and the pixels of a
// TIFF (LZW) save read back.
struct Outcome {
    uint64_t decoded = 0, bmp = 0, tiff = 0;
    bool operator==(const Outcome&) const = default;
};

uint64_t save_digest(int32_t h, int32_t code, bool bytes) {
    int32_t w = 0, height = 0, bits = 0;
    IMG_bitmap_info(h, &w, &height, &bits);
    const uint32_t size = uint32_t((int64_t(w) * 32 + 31) / 32 * 4 * height * 2 + 65536);
    void* block = tesslin_block_alloc(size);
    if (!block) return 2;
    std::memset(block, 0, size);
    const int32_t n = IMG_save_bitmap_mem(h, block, code);
    uint64_t d = 3;
    if (n > 0 && bytes) {
        d = fnv(14695981039346656037ull, block, size_t(n));
    } else if (n > 0) {
        const int32_t back = IMG_decompress_bitmap_mem(block, 0);
        d = digest(back);
        if (back >= 0) IMG_delete_bitmap(back);
    }
    tesslin_block_free(block);
    return d;
}

Outcome run_one(const std::string& path) {
    Outcome o;
    const int32_t h = IMG_decompress_bitmap(path.c_str());
    if (h < 0) return o;
    o.decoded = digest(h);
    o.bmp = save_digest(h, IMG_FORMAT_BMP, true);
    o.tiff = save_digest(h, IMG_FORMAT_TIFF_LZW, false);
    IMG_delete_bitmap(h);
    return o;
}

// Up to three readable files of each corpus folder, none larger than 1 MB.
std::vector<std::string> sample_files() {
    std::map<std::string, std::vector<std::string>> by_folder;
    const fs::path root = fs::path(TESSLIN_TEST_DATA) / "corpus";
    if (!fs::exists(root)) return {};
    for (const auto& e : fs::recursive_directory_iterator(root)) {
        if (!e.is_regular_file() || e.file_size() > (1u << 20)) continue;
        const std::string ext = e.path().extension().string();
        if (ext == ".tsv" || ext == ".md") continue;
        by_folder[e.path().parent_path().string()].push_back(e.path().string());
    }
    std::vector<std::string> out;
    for (auto& [folder, files] : by_folder) {
        std::sort(files.begin(), files.end());
        int taken = 0;
        for (const std::string& f : files) {
            if (taken == 3) break;
            const int32_t h = IMG_decompress_bitmap(f.c_str());
            if (h < 0) continue;
            IMG_delete_bitmap(h);
            out.push_back(f);
            ++taken;
        }
    }
    return out;
}

}  // namespace

TEST(Threads, DecodesAndSavesMatchOneThread) {
    const std::vector<std::string> files = sample_files();
    if (files.empty()) GTEST_SKIP() << "no corpus";
    std::vector<Outcome> expected;
    for (const std::string& f : files) expected.push_back(run_one(f));
    std::atomic<int> mismatches{0}, runs{0};
    const int n_rounds = rounds();
    std::vector<std::thread> pool;
    for (int t = 0; t < kThreads; ++t)
        pool.emplace_back([&, t] {
            for (int r = 0; r < n_rounds; ++r)
                for (size_t i = 0; i < files.size(); ++i) {
                    // Each thread starts at a different file.
                    const size_t k = (i + size_t(t) * files.size() / kThreads) % files.size();
                    const Outcome o = run_one(files[k]);
                    if (!(o == expected[k])) {
                        ++mismatches;
                        ADD_FAILURE() << files[k] << ": decode " << (o.decoded == expected[k].decoded)
                                      << ", BMP " << (o.bmp == expected[k].bmp) << ", TIFF "
                                      << (o.tiff == expected[k].tiff);
                    }
                    ++runs;
                }
        });
    for (auto& th : pool) th.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_EQ(runs.load(), kThreads * n_rounds * int(files.size()));
    std::printf("%zu files, %d decodes and saves on %d threads\n", files.size(), runs.load(), kThreads);
}

// No handle number is live in two places at once: each thread marks the
// handles it holds and checks that nobody else holds them.
TEST(Threads, HandlesAreNeverShared) {
    std::vector<std::atomic<int>> owner(10000);
    std::atomic<int> clashes{0}, failures{0};
    const int n_rounds = rounds() * 200;
    std::vector<std::thread> pool;
    for (int t = 1; t <= kThreads; ++t)
        pool.emplace_back([&, t] {
            std::vector<int32_t> held;
            for (int r = 0; r < n_rounds; ++r) {
                void* dib = tesslin_block_alloc(40 + 8 + 4 * 4);
                auto* hdr = static_cast<IMG_BITMAPINFOHEADER*>(dib);
                *hdr = IMG_BITMAPINFOHEADER{};
                hdr->biSize = 40;
                hdr->biWidth = 4;
                hdr->biHeight = 4;
                hdr->biPlanes = 1;
                hdr->biBitCount = 1;
                const int32_t h = IMG_create_handle_keep(dib);
                if (h < 0 || h >= int32_t(owner.size())) {
                    ++failures;
                    tesslin_block_free(dib);
                    continue;
                }
                int expected = 0;
                if (!owner[size_t(h)].compare_exchange_strong(expected, t)) ++clashes;
                held.push_back(h);
                if (held.size() > 4 || r % 3 == 0) {
                    const int32_t g = held.front();
                    held.erase(held.begin());
                    owner[size_t(g)].store(0);
                    IMG_delete_bitmap(g);
                }
            }
            for (int32_t g : held) {
                owner[size_t(g)].store(0);
                IMG_delete_bitmap(g);
            }
        });
    for (auto& th : pool) th.join();
    EXPECT_EQ(clashes.load(), 0);
    EXPECT_EQ(failures.load(), 0);
}
