// Size limits: the arithmetic at the edges, where a wrong product or sum
// would let a damaged header through.
#include <gtest/gtest.h>

#include <cstdint>

#include "core/limits.h"

using namespace tesslin;

TEST(Limits, ImageBytesPadsRowsAndRefusesOverflowAndTheCap) {
    limits::ImageBytes s;
    ASSERT_EQ(limits::image_bytes(3, 5, 1, &s), 0);
    EXPECT_EQ(s.row, 4u);
    EXPECT_EQ(s.total, 20u);
    ASSERT_EQ(limits::image_bytes(5, 2, 24, &s), 0);
    EXPECT_EQ(s.row, 16u);
    EXPECT_EQ(limits::image_bytes(UINT64_MAX / 8, 1, 32, &s), IMG_ERR_BAD_IMAGE);  // width x bits
    EXPECT_EQ(limits::image_bytes(UINT64_MAX - 30, 1, 1, &s, UINT64_MAX), IMG_ERR_BAD_IMAGE);  // rounding
    EXPECT_EQ(limits::image_bytes(1u << 24, 1ull << 40, 32, &s, UINT64_MAX), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(limits::image_bytes(1u << 16, 1u << 15, 8, &s), IMG_ERR_BAD_IMAGE);  // 2^31 > cap
    EXPECT_EQ(limits::image_bytes(1u << 16, 1u << 15, 8, &s, UINT32_MAX), 0);
    EXPECT_EQ(limits::check_dimensions(limits::kMaxDimension, 1), 0);
    EXPECT_EQ(limits::check_dimensions(1, limits::kMaxDimension + 1), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(limits::check_dimensions(uint64_t(int64_t(-1)), 1), IMG_ERR_BAD_IMAGE);
}

TEST(Limits, DeclaredSizesAreCheckedAgainstTheDataAfterTheirOffset) {
    const limits::Coding c{4, 10};
    const struct {
        int64_t capacity;
        uint64_t data_at, need;
        int32_t status;
    } cases[] = {
        {-1, 0, UINT64_MAX, 0},               // unknown size: nothing to check
        {100, 20, 330, 0},                    // 80 x 4 + 10
        {100, 20, 331, IMG_ERR_READ},
        {100, 200, 10, 0},                    // offset beyond the end: the allowance only
        {100, 200, 11, IMG_ERR_READ},
        {INT64_MAX, 0, UINT64_MAX, 0},        // the product saturates instead of wrapping
    };
    for (const auto& t : cases)
        EXPECT_EQ(limits::check_declared_size(t.capacity, t.data_at, t.need, c, IMG_ERR_READ), t.status)
            << t.capacity << " " << t.data_at << " " << t.need;
}
