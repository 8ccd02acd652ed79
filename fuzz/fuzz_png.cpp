// libFuzzer target for the PNG reader: decodes the input from a memory
// stream with callbacks that check every delivered row's size and number.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "core/dib.h"
#include "core/stream.h"
#include "formats/png/png.h"

namespace {

struct State {
    uint32_t row_size = 0;
    int32_t height = 0;
    uint32_t checksum = 0;
};

int32_t on_header(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    auto* s = reinterpret_cast<State*>(user);
    if (h->biWidth < 1 || h->biHeight < 1 || !tesslin::dib_depth_valid(h->biBitCount)) std::abort();
    // Keep the fuzzer away from images whose rows alone take seconds.
    if (uint64_t(h->biWidth) * uint64_t(h->biHeight) > (uint64_t(1) << 24)) return -18;
    s->row_size = tesslin::row_bytes(uint32_t(h->biWidth), h->biBitCount);
    s->height = h->biHeight;
    return 1;
}

int32_t on_row(uint8_t* row, intptr_t user, int32_t number, uint32_t bytes) {
    auto* s = reinterpret_cast<State*>(user);
    if (bytes != s->row_size || number < 0 || number >= s->height) std::abort();
    for (uint32_t i = 0; i < bytes; ++i) s->checksum += row[i];  // touches every byte
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 24)) return 0;
    std::vector<uint8_t> copy(data, data + size);  // exact-size block: reads past it are caught
    const int32_t stream = tesslin::stream::mem_create_sized(copy.data(), uint32_t(copy.size()));
    if (!stream) return 0;
    State state;
    tesslin::png_decode(0, on_row, reinterpret_cast<intptr_t>(&state), on_header, stream);
    tesslin::stream::mem_release(stream);
    return 0;
}
