// A failed append to a multi-page file leaves the file byte for byte as it
// was, wherever the failure happens: a progress callback that cancels at
// each row, and a file that cannot grow past its old length plus N bytes
// (a full disk or a quota), for every N up to the page's size.
#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>

#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

int32_t g_stop_row = -1;
int32_t stop_at(intptr_t, int32_t, int32_t row, uint32_t) { return row == g_stop_row ? -99 : 0; }

void fill(uint8_t* row, uint32_t n, int32_t r) {
    for (uint32_t b = 0; b < n; ++b) row[b] = uint8_t((r * 13 + b * 7 + (b >> 3) * r) ^ (b % 5 ? 0 : 0xFF));
}

// Limits how far files may grow; writes past it fail with EFBIG instead of
// raising SIGXFSZ.
struct GrowthLimit {
    rlimit old{};
    explicit GrowthLimit(uint64_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &old);
        rlimit lim = old;
        lim.rlim_cur = bytes;
        setrlimit(RLIMIT_FSIZE, &lim);
    }
    ~GrowthLimit() { setrlimit(RLIMIT_FSIZE, &old); }
};

struct Case {
    const char* name;
    int32_t code;
    int bits;
};

const Case kCases[] = {
    {"tif", IMG_FORMAT_TIFF, 8},          {"tif", IMG_FORMAT_TIFF_LZW, 8},
    {"tif", IMG_FORMAT_TIFF_PACKBITS, 24}, {"tif", IMG_FORMAT_TIFF_G4, 1},
    {"tif", IMG_FORMAT_TIFF_G3, 1},       {"tif", IMG_FORMAT_TIFF_MH, 1},
    {"tif", IMG_FORMAT_TIFF_G4_STRIPS, 1}, {"tif", IMG_FORMAT_TIFF_JBIG, 1},
    {"tif", IMG_FORMAT_TIFF_JPEG, 24},    {"dcx", IMG_FORMAT_DCX, 8},
    {"pdf", IMG_FORMAT_PDF, 8},
};

}  // namespace

TEST(AppendFailure, EveryFailurePointLeavesTheFileAsItWas) {
    constexpr int32_t kHeight = 40;
    for (const Case& c : kCases) {
        SCOPED_TRACE(std::string(c.name) + " code " + std::to_string(c.code));
        const Scratch path(std::string("append_fail.") + c.name);
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(IMG_save_bitmap(Handle(make_handle(48 + 8 * i, kHeight, c.bits, fill)), path.c_str(), c.code), 0);
        const int32_t counted = IMGLOW_get_pages(path.c_str());
        if (c.code != IMG_FORMAT_PDF) {
            EXPECT_EQ(counted, 3);
        }
        const Bytes before = read_file(path);
        const Handle extra = make_handle(64, kHeight, c.bits, fill);

        // A successful append, to learn how far the file grows.
        ASSERT_EQ(IMG_save_bitmap(extra, path.c_str(), c.code), 0);
        const uint64_t growth = read_file(path).size() - before.size();
        if (c.code != IMG_FORMAT_PDF) {
            EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 4);
        }

        int failures = 0;
        for (g_stop_row = 0; g_stop_row < kHeight; ++g_stop_row) {
            write_file(path, before);
            IMG_set_statusbar(0, stop_at, 1);
            const int32_t r = IMG_save_bitmap(extra, path.c_str(), c.code);
            IMG_set_statusbar(0, nullptr, 0);
            EXPECT_LT(r, 0) << "row " << g_stop_row;
            if (read_file(path) != before) ++failures;
        }
        EXPECT_EQ(failures, 0) << "cancelled appends that changed the file";

        const uint64_t step = growth / 150 + 1;
        for (uint64_t n = 0; n < growth; n += n + 8 >= growth ? 1 : step) {
            write_file(path, before);
            int32_t r;
            {
                GrowthLimit limit(before.size() + n);
                r = IMG_save_bitmap(extra, path.c_str(), c.code);
            }
            EXPECT_LT(r, 0) << "limit " << n << " of " << growth;
            if (read_file(path) != before) {
                if (++failures < 4) ADD_FAILURE() << "file changed with room for " << n << " of " << growth;
            }
        }
        EXPECT_EQ(failures, 0);
        if (counted >= 0) {
            EXPECT_EQ(IMGLOW_get_pages(path.c_str()), counted);
        }
    }
}
