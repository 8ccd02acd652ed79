// Inflate against zlib's deflate as the independent encoder: every strategy
// and level, output pulled in odd sizes, input handed out in small pieces,
// and damaged streams.
#include <gtest/gtest.h>

#include <random>

#include "formats/png/inflate.h"
#include "png_test.h"

using namespace tesslin;

namespace {

std::vector<uint8_t> deflate_with(const std::vector<uint8_t>& raw, int level, int strategy, int window = 15) {
    z_stream z{};
    deflateInit2(&z, level, Z_DEFLATED, window, 8, strategy);
    std::vector<uint8_t> out(deflateBound(&z, uLong(raw.size())) + 64);
    z.next_in = const_cast<uint8_t*>(raw.data());
    z.avail_in = uInt(raw.size());
    z.next_out = out.data();
    z.avail_out = uInt(out.size());
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

// Text-like data with long and short repeats, runs, and noise.
std::vector<uint8_t> sample(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> v;
    v.reserve(n);
    while (v.size() < n) {
        switch (rng() % 4) {
        case 0:
            for (int i = 0, k = int(rng() % 40); i < k; ++i) v.push_back(uint8_t('a' + rng() % 26));
            break;
        case 1:
            if (v.size() > 10) {
                const size_t d = 1 + rng() % std::min<size_t>(v.size(), 40000), len = 3 + rng() % 300;
                for (size_t i = 0; i < len; ++i) v.push_back(v[v.size() - d]);
            }
            break;
        case 2:
            v.insert(v.end(), rng() % 600, uint8_t(rng()));
            break;
        default:
            for (int i = 0, k = int(rng() % 200); i < k; ++i) v.push_back(uint8_t(rng()));
        }
    }
    v.resize(n);
    return v;
}

// Hands out the input in pieces of the given sizes, cycling.
class Pieces final : public InflateSource {
public:
    Pieces(const std::vector<uint8_t>& data, std::vector<size_t> sizes) : data_(data), sizes_(std::move(sizes)) {}
    int32_t next(const uint8_t** p) override {
        if (pos_ >= data_.size()) return 0;
        const size_t n = std::min(sizes_[k_++ % sizes_.size()], data_.size() - pos_);
        *p = data_.data() + pos_;
        pos_ += n;
        return int32_t(n);
    }

private:
    const std::vector<uint8_t>& data_;
    std::vector<size_t> sizes_;
    size_t pos_ = 0, k_ = 0;
};

}  // namespace

TEST(Inflate, MatchesZlibForEveryLevelAndStrategy) {
    const auto raw = sample(700000, 1);
    for (int strategy : {Z_DEFAULT_STRATEGY, Z_FILTERED, Z_HUFFMAN_ONLY, Z_RLE, Z_FIXED}) {
        for (int level : {0, 1, 6, 9}) {
            const auto z = deflate_with(raw, level, strategy);
            std::vector<uint8_t> out(raw.size() + 10);
            const int32_t got = inflate_buffer(z.data(), z.size(), out.data(), uint32_t(out.size()));
            ASSERT_EQ(got, int32_t(raw.size())) << strategy << "/" << level;
            out.resize(size_t(got));
            EXPECT_EQ(out, raw) << strategy << "/" << level;
        }
    }
    // Small windows and empty input.
    const auto z = deflate_with(raw, 9, Z_DEFAULT_STRATEGY, 9);
    std::vector<uint8_t> out(raw.size());
    EXPECT_EQ(inflate_buffer(z.data(), z.size(), out.data(), uint32_t(out.size())), int32_t(raw.size()));
    EXPECT_EQ(out, raw);
    const auto empty = deflate_with({}, 6, Z_DEFAULT_STRATEGY);
    EXPECT_EQ(inflate_buffer(empty.data(), empty.size(), out.data(), 10), 0);
}

TEST(Inflate, OutputInAnySizeAndInputInAnyPieces) {
    const auto raw = sample(1 << 20, 2);
    const auto z = deflate_with(raw, 6, Z_DEFAULT_STRATEGY);
    for (size_t piece : {size_t(1), size_t(7), size_t(7651), size_t(300000), size_t(3) << 20}) {
        Inflater inf;
        Pieces src(z, {1, 2, 3, 17, 4096, 5, 30000});
        inf.set_source(&src);
        std::vector<uint8_t> out(raw.size() + 100);
        size_t at = 0;
        int32_t got = 0;
        do {
            got = inf.read(out.data() + at, uint32_t(std::min(piece, out.size() - at)));
            at += size_t(std::max(got, 0));
        } while (got == int32_t(piece) && at < out.size());
        ASSERT_GE(got, 0) << piece;
        out.resize(at);
        EXPECT_EQ(out, raw) << piece;
        EXPECT_TRUE(inf.ended());
    }
}

TEST(Inflate, DamagedStreamsFailWithAStatus) {
    const auto raw = sample(300000, 4);
    const auto z = deflate_with(raw, 6, Z_DEFAULT_STRATEGY);
    std::vector<uint8_t> out(raw.size());

    // Cut short: the bytes up to the cut come out, then -12.
    EXPECT_EQ(inflate_buffer(z.data(), z.size() / 2, out.data(), uint32_t(out.size())), IMG_ERR_READ);

    // A wrapper that is not zlib's.
    auto bad = z;
    bad[0] = 0x79;
    EXPECT_EQ(inflate_buffer(bad.data(), bad.size(), out.data(), uint32_t(out.size())), IMG_ERR_BAD_IMAGE);
    EXPECT_GT(inflate_buffer(bad.data(), bad.size(), out.data(), uint32_t(out.size()), Inflater::Header::kSkip2), 0);

    // The reserved block type: an error, or the end where asked.
    const std::vector<uint8_t> reserved = {0x78, 0x01, 0x07};
    EXPECT_EQ(inflate_buffer(reserved.data(), reserved.size(), out.data(), 10), IMG_ERR_BAD_IMAGE);
    Inflater::Options opt;
    opt.reserved_block_ends = true;
    Inflater inf(opt);
    inf.set_input(reserved.data(), reserved.size());
    EXPECT_EQ(inf.read(out.data(), 10), 0);
    EXPECT_TRUE(inf.ended_on_reserved_block());

    // A fixed-code match of length 3 at distance 1 before any output: BFINAL
    // 1, BTYPE 01, length code 257 (0000001), distance code 0 (00000), end.
    const std::vector<uint8_t> early = {0x78, 0x01, 0x03, 0x02, 0x00, 0x00};
    EXPECT_EQ(inflate_buffer(early.data(), early.size(), out.data(), 16), IMG_ERR_BAD_IMAGE);

    // Random damage anywhere never reads or writes out of bounds.
    std::mt19937 rng(5);
    int failures = 0;
    for (int i = 0; i < 300; ++i) {
        auto d = z;
        for (int k = 0; k < 1 + int(rng() % 4); ++k) d[2 + rng() % (d.size() - 2)] ^= uint8_t(1 + rng() % 255);
        const int32_t got = inflate_buffer(d.data(), d.size(), out.data(), uint32_t(out.size()));
        failures += got < 0;
        EXPECT_LE(got, int32_t(out.size()));
    }
    EXPECT_GT(failures, 0);
}
