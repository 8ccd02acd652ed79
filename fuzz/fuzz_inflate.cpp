// libFuzzer target for inflate: the first byte picks the wrapper and the
// size of the output pieces, the rest is the compressed stream. Output is
// pulled piece by piece up to 4 MB.
#include <cstdint>
#include <vector>

#include "formats/png/inflate.h"

namespace {

// Hands out the input in pieces of varying size.
class Pieces final : public tesslin::InflateSource {
public:
    Pieces(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    int32_t next(const uint8_t** p) override {
        if (pos_ >= size_) return 0;
        size_t n = 1 + (k_++ * 7919) % 1500;
        if (n > size_ - pos_) n = size_ - pos_;
        *p = data_ + pos_;
        pos_ += n;
        return int32_t(n);
    }

private:
    const uint8_t* data_;
    size_t size_, pos_ = 0, k_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint8_t mode = data[0];
    std::vector<uint8_t> input(data + 1, data + size);  // exact size
    tesslin::Inflater::Options opt;
    opt.header = (mode & 3) == 0 ? tesslin::Inflater::Header::kZlib
                 : (mode & 3) == 1 ? tesslin::Inflater::Header::kSkip2
                                   : tesslin::Inflater::Header::kRaw;
    opt.reserved_block_ends = (mode & 4) != 0;
    tesslin::Inflater inf(opt);
    Pieces pieces(input.data(), input.size());
    if (mode & 8)
        inf.set_source(&pieces);
    else
        inf.set_input(input.data(), input.size());
    const uint32_t piece = 1u + (uint32_t(mode >> 4) * 4099u);
    std::vector<uint8_t> out(piece);
    for (uint32_t total = 0; total < (4u << 20); total += piece) {
        const int32_t got = inf.read(out.data(), piece);
        if (got < 0 || uint32_t(got) < piece) break;
    }
    return 0;
}
