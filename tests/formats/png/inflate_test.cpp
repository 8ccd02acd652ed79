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

// The first n bytes of a photo, the corpus manifest's text, a fax page and
// an image with alpha: literals, short and long repeats, long runs.
std::vector<uint8_t> sample(size_t n) {
    std::vector<uint8_t> v;
    for (const char* f : {"refs/b8d8b9b4501bf26d.ppm", "MANIFEST.tsv", "refs/540397096c9b25d0.pbm",
                          "refs/b61d38652ab863e7.pam"}) {
        const auto b = test::read_file(test::corpus(f));
        v.insert(v.end(), b.begin(), b.end());
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

// zlib's deflate at every strategy and level, and with a 512-byte window,
// inflates exactly with the input handed out in small pieces and the output
// pulled in sizes from 1 byte to more than the whole; an empty stream too.
TEST(Inflate, MatchesZlibInAnyPieces) {
    const auto raw = sample(700000);
    std::vector<std::vector<uint8_t>> streams = {deflate_with(raw, 9, Z_DEFAULT_STRATEGY, 9)};
    for (int strategy : {Z_DEFAULT_STRATEGY, Z_FILTERED, Z_HUFFMAN_ONLY, Z_RLE, Z_FIXED})
        for (int level : {0, 1, 6, 9}) streams.push_back(deflate_with(raw, level, strategy));
    const size_t pieces[] = {1, 7, 7651, 300000, size_t(3) << 20};
    for (size_t i = 0; i < streams.size(); ++i) {
        const size_t piece = pieces[i % 5];
        Inflater inf;
        Pieces src(streams[i], {1, 2, 3, 17, 4096, 5, 30000});
        inf.set_source(&src);
        std::vector<uint8_t> out(raw.size() + 100);
        size_t at = 0;
        int32_t got = 0;
        do {
            got = inf.read(out.data() + at, uint32_t(std::min(piece, out.size() - at)));
            at += size_t(std::max(got, 0));
        } while (got == int32_t(piece) && at < out.size());
        ASSERT_GE(got, 0) << i;
        out.resize(at);
        EXPECT_EQ(out, raw) << i;
        EXPECT_TRUE(inf.ended());
    }
    const auto empty = deflate_with({}, 6, Z_DEFAULT_STRATEGY);
    uint8_t out[10];
    EXPECT_EQ(inflate_buffer(empty.data(), empty.size(), out, 10), 0);
}

TEST(Inflate, DamagedStreamsFailWithAStatus) {
    const auto raw = sample(300000);
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
