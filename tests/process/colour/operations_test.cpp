// What every colour operation shares: the depths it takes and the statuses
// for the others, a bad handle, a cancelling progress callback and a failed
// allocation leaving the bitmap as it was, the crop rectangle kept.
#include <gtest/gtest.h>

#include "colour_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

struct Operation {
    const char* name;
    int32_t (*run)(int32_t handle);
    int32_t result_bits;  // 0: makes a new handle instead
    // Status for source depths 1, 4, 8, 16, 24, 32 (32 as CMYK); 0: accepted.
    int32_t status[6];
};

constexpr int32_t U = IMG_ERR_UNSUPPORTED, D = IMG_ERR_DEPTH;

const Operation kOperations[] = {
    {"bayer_mono", IMG_bayer_mono, 1, {U, 0, 0, 0, 0, 0}},
    {"halftone_mono", IMG_halftone_mono, 1, {U, 0, 0, 0, 0, 0}},
    {"diffusion_mono", IMG_diffusion_mono, 1, {U, 0, 0, 0, 0, 0}},
    {"thresh_mono", [](int32_t h) { return IMG_thresh_mono(h, 100); }, 1, {U, 0, 0, 0, 0, 0}},
    {"thresh_mono auto", [](int32_t h) { return IMG_thresh_mono(h, -1); }, 1, {U, 0, 0, 0, 0, 0}},
    {"bayer_color", IMG_bayer_color, 4, {U, 0, 0, 0, 0, 0}},
    {"diffusion_color", IMG_diffusion_color, 4, {U, 0, 0, 0, 0, 0}},
    {"mediancut_color", IMG_mediancut_color, 8, {D, 0, 0, 0, 0, 0}},
    {"popularity_color", IMG_popularity_color, 8, {U, U, U, U, 0, 0}},
    {"octree_color 8", [](int32_t h) { return IMG_octree_color(h, 8, nullptr, 256); }, 8, {D, D, 0, D, 0, 0}},
    {"octree_color 4", [](int32_t h) { return IMG_octree_color(h, 4, nullptr, 16); }, 4, {D, D, 0, D, 0, 0}},
    {"promote_8", IMG_promote_8, 8, {0, 0, 0, 0, U, U}},
    {"promote_24", IMG_promote_24, 24, {0, 0, 0, 0, U, 0}},
    {"promote_32", IMG_promote_32, 32, {0, 0, 0, 0, 0, U}},
    {"cmyk_to_rgb", IMG_cmyk_to_rgb, 24, {D, D, D, D, D, 0}},
    {"rgb_to_cmyk", IMG_rgb_to_cmyk, 32, {D, 0, 0, 0, 0, D}},
    {"color_gray", IMG_color_gray, 8, {U, 0, 0, 0, 0, 0}},
    {"color_separate", [](int32_t h) { return IMG_color_separate(h, 0); }, 0, {D, D, D, D, 0, 0}},
};

constexpr int kDepths[6] = {1, 4, 8, 16, 24, 32};

int32_t source(int bits) { return make_handle(13, 9, bits); }

struct Snapshot {
    Bytes header;
    std::vector<Bytes> rows;
    int32_t crop[4];
    bool operator==(const Snapshot&) const = default;
};

Snapshot snapshot(int32_t h) {
    Snapshot s{header_of(h), {}, {}};
    for (int32_t y = 0; y < 9; ++y) s.rows.push_back(get_row(h, y));
    IMG_get_croprect(h, &s.crop[0], &s.crop[1], &s.crop[2], &s.crop[3]);
    return s;
}

int32_t g_calls = 0;
int32_t cancel_on_fourth(intptr_t, int32_t, int32_t, uint32_t) { return ++g_calls == 4 ? -5 : 0; }

}  // namespace

TEST(ColourOperations, DepthsStatusesAndTheImageLeftOnFailure) {
    for (const Operation& op : kOperations) {
        EXPECT_EQ(op.run(-1), IMG_ERR_HANDLE) << op.name;
        EXPECT_EQ(op.run(9999), IMG_ERR_HANDLE) << op.name;
        for (int i = 0; i < 6; ++i) {
            SCOPED_TRACE(testing::Message() << op.name << " on " << kDepths[i] << " bits");
            const Handle h = source(kDepths[i]);
            ASSERT_EQ(IMG_set_croprect(h, 2, 1, 7, 5), 0);
            const Snapshot before = snapshot(h);
            const int32_t r = op.run(h);
            if (op.status[i] != 0) {
                EXPECT_EQ(r, op.status[i]);
                EXPECT_TRUE(snapshot(h) == before);
            } else if (op.result_bits == 0) {
                EXPECT_GE(r, 0);
                EXPECT_TRUE(snapshot(h) == before);
                EXPECT_EQ(info_of(r).biBitCount, 8);
                IMG_delete_bitmap(r);
            } else {
                EXPECT_GE(r, 0);
                EXPECT_EQ(info_of(h).biBitCount, op.result_bits);
                int32_t x, y, w, hh;
                IMG_get_croprect(h, &x, &y, &w, &hh);
                EXPECT_EQ(x * 1000 + y * 100 + w * 10 + hh, 2175);
                // Cancelled on the fourth progress call: status returned,
                // image untouched.
                const Handle again = source(kDepths[i]);
                const Snapshot kept = snapshot(again);
                g_calls = 0;
                IMG_set_statusbar(0, cancel_on_fourth, 1);
                EXPECT_EQ(op.run(again), -5);
                IMG_set_statusbar(0, nullptr, 0);
                EXPECT_EQ(g_calls, 4);
                EXPECT_TRUE(snapshot(again) == kept);
            }
        }
    }
}

// A page of 65,536 x 33,000 white pixels is held in a few hundred kilobytes
// of run records, but none of its deeper forms fits the library's image size
// limit: the promotions fail with IMG_ERR_MEMORY and the page stays as it
// was, still run-encoded.
TEST(ColourOperations, ImageTooLargeForMemoryLeavesThePage) {
    const int32_t width = 65536, height = 33000;
    // Group 4 white rows: one vertical-0 code (a single 1 bit) per row;
    // zero bytes after them, never read, so that the decoder's check of the
    // page size against the data size lets the page through.
    Bytes g4(size_t(height + 7) / 8 + 200000, 0);
    std::fill(g4.begin(), g4.begin() + (height + 7) / 8, 0xFF);
    void* block = to_block(g4);
    const Handle h = IMG_decompress_fax_mem(block, width, height, 4, 1);
    tesslin_block_free(block);
    ASSERT_GE(h, 0);
    const Bytes header = header_of(h);
    const Bytes last = get_row(h, height - 1);
    for (auto op : {IMG_promote_8, IMG_promote_24, IMG_promote_32}) {
        EXPECT_EQ(op(h), IMG_ERR_MEMORY);
        EXPECT_EQ(header_of(h), header);
        EXPECT_EQ(get_row(h, height - 1), last);
    }
    EXPECT_EQ(IMG_dib_to_runs(h), IMG_ERR_UNSUPPORTED);  // still run records
}
