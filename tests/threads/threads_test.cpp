// Threads: decodes, saves and handle traffic on 8 threads at once give what
// one thread gives. Built on its own (tesslin_threads) so that it can run
// under ThreadSanitizer without the rest of the suite (-DTESSLIN_TSAN=ON).
// TESSLIN_THREAD_ROUNDS sets the rounds (default 3).
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>

#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

constexpr int kThreads = 8;

int rounds() {
    const char* r = std::getenv("TESSLIN_THREAD_ROUNDS");
    return r && std::atoi(r) > 0 ? std::atoi(r) : 3;
}

uint64_t fnv(uint64_t h, const Bytes& b) {
    for (uint8_t v : b) h = (h ^ v) * 1099511628211ull;
    return h;
}

// Header, palette and every row of a handle; 0 for no handle.
uint64_t digest(int32_t h) {
    if (h < 0) return 0;
    uint64_t d = fnv(14695981039346656037ull, header_of(h));
    for (int32_t y = 0; y < info_of(h).biHeight; ++y) d = fnv(d, get_row(h, y));
    return d;
}

// The bytes of a save into a block sized for the image (not the 8 MB default).
Bytes saved(int32_t h, int32_t code) {
    const DibHeader i = info_of(h);
    return save_mem(h, code, nullptr, row_bytes(uint32_t(i.biWidth), 32) * uint32_t(i.biHeight) * 2 + 65536);
}

// What one page gives: its decode, the bytes of the BMP writers and of the
// CALS writer (Group 4, bilevel pages only), and the pixels of a TIFF (LZW)
// save read back.
struct Outcome {
    uint64_t decoded = 0, bmp = 0, rle = 0, tiff = 0, cals = 0;
    bool operator==(const Outcome&) const = default;
};

Outcome run_one(const std::string& path) {
    const Handle h = IMG_decompress_bitmap(path.c_str());
    if (h < 0) return {};
    const Handle tiff = decode_mem(saved(h, IMG_FORMAT_TIFF_LZW));
    return {digest(h), fnv(1, saved(h, IMG_FORMAT_BMP)), fnv(1, saved(h, IMG_FORMAT_BMP_RLE)), digest(tiff),
            fnv(1, saved(h, IMG_FORMAT_CALS))};
}

// Files whose decoders keep the most state of their own, beyond the folder sample below:
// progressive and YCCK JPEG, JPEG, JBIG, deflate and G4 TIFF pages, interlaced 16-bit PNG.
const char* const kAlso[] = {"jpeg/progressive.jpg", "jpeg/ycck.jpg", "corpus/tone/rgb-jpeg.tif",
                             "corpus/doc/jbig.tif", "corpus/tone/rgb-deflate.tif", "corpus/doc/g4-strips.tif",
                             "corpus/tone/rgb-lzw.tif", "corpus/tone/palette8.tif",
                             "corpus/suites/pngsuite/basi2c16.png", "corpus/suites/pngsuite/basi6a16.png",
                             "corpus/suites/pngsuite/basi3p08.png", "corpus/suites/pngsuite/basi4a16.png"};

// Up to three readable files of each corpus folder, none larger than 1 MB, and the files above.
std::vector<std::string> sample_files() {
    std::map<std::string, std::vector<std::string>> by_folder;
    const fs::path root = fs::path(TESSLIN_TEST_DATA) / "corpus";
    if (!fs::exists(root)) return {};
    for (const auto& e : fs::recursive_directory_iterator(root)) {
        const std::string ext = e.path().extension().string();
        if (e.is_regular_file() && e.file_size() <= (1u << 20) && ext != ".tsv" && ext != ".md")
            by_folder[e.path().parent_path().string()].push_back(e.path().string());
    }
    std::vector<std::string> out;
    for (const char* f : kAlso) {
        out.push_back((fs::path(TESSLIN_TEST_DATA) / f).string());
        EXPECT_GE(Handle(IMG_decompress_bitmap(out.back().c_str())), 0) << f;
    }
    for (auto& [folder, files] : by_folder) {
        std::sort(files.begin(), files.end());
        int taken = 0;
        for (size_t i = 0; i < files.size() && taken < 3; ++i)
            if (Handle(IMG_decompress_bitmap(files[i].c_str())) >= 0) {
                out.push_back(files[i]);
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
                                      << ", BMP " << (o.bmp == expected[k].bmp) << ", RLE "
                                      << (o.rle == expected[k].rle) << ", TIFF " << (o.tiff == expected[k].tiff)
                                      << ", CALS " << (o.cals == expected[k].cals);
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
                const int32_t h = make_handle(4, 4, 1);
                if (h < 0 || h >= int32_t(owner.size())) {
                    ++failures;
                    continue;
                }
                int expected = 0;
                if (!owner[size_t(h)].compare_exchange_strong(expected, t)) ++clashes;
                held.push_back(h);
                if (held.size() > 4 || r % 3 == 0) {
                    owner[size_t(held.front())].store(0);
                    IMG_delete_bitmap(held.front());
                    held.erase(held.begin());
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
    EXPECT_EQ(make_handle(1, 1, 8), 100) << "every handle was returned";
    IMG_delete_bitmap(100);
}
