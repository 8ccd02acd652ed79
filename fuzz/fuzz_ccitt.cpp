// libFuzzer target for every fax decoder.
//
// Input: byte 0 picks the mode (bits 0-2), fill order 2 (bit 3), inverted
// rows (bit 4), no repeat to the height (bit 5) and a later first row
// (bit 6); bytes 1-2 the width (1 to 4096), byte 3 the height (1 to 96); the
// rest is the coded data, read from memory or through a memory stream.
// Delivered rows are checked (index in range, run records well formed) and a
// decoded image must survive encoding and decoding again unchanged.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/runs.h"
#include "core/stream.h"
#include "formats/ccitt/ccitt.h"
#include "fuzz_util.h"
#include "tesslin/tesslin.h"

using namespace tesslin;
using fuzz::check;

namespace {

struct Image {
    uint32_t width, height, stride;
    bool inverted;
    std::vector<uint8_t> bits;
    std::vector<uint8_t> seen;
};

int32_t take_row(uint8_t* row, intptr_t user, int32_t index, uint32_t count) {
    auto* im = reinterpret_cast<Image*>(user);
    check(index >= 0 && uint32_t(index) < im->height);
    uint8_t* dst = im->bits.data() + size_t(index) * im->stride;
    im->seen[size_t(index)] = 1;
    if (count == im->stride) {
        std::memcpy(dst, row, count);
    } else {
        const auto* rec = reinterpret_cast<const uint32_t*>(row);
        check(count % 4 == 0 && count >= 20 && rec[0] == count);
        const uint32_t words = count / 4;
        for (uint32_t i = 1; i < words; ++i) check(rec[i] <= im->width && (i == 1 || rec[i] >= rec[i - 1]));
        check(rec[words - 1] == im->width);
        runs::expand(rec, im->width, dst, im->stride);
    }
    if (im->inverted)
        for (uint32_t i = 0; i < im->stride; ++i) dst[i] = uint8_t(~dst[i]);
    return 0;
}

bool is_memory_mode(int32_t mode) { return mode == 1 || mode >= 128; }

int32_t decode(const uint8_t* data, uint32_t size, const ccitt::FaxParams& p, uint32_t rows, uint32_t first,
               Image& out) {
    if (is_memory_mode(p.mode)) return ccitt::fax_decode(data, rows, first, p, 0, take_row, intptr_t(&out));
    const fuzz::BlockInput in(data, size);
    return ccitt::fax_decode(nullptr, rows, first, p, in.stream, take_row, intptr_t(&out));
}

int32_t supply_packed(intptr_t user, uint8_t* buffer, int32_t row, uint32_t count) {
    const auto* im = reinterpret_cast<const Image*>(user);
    std::memcpy(buffer, im->bits.data() + size_t(row) * im->stride, count);
    return 0;
}

// Encodes the image with the encoder of its family and decodes it again.
void round_trip(const Image& im, bool g4) {
    static uint8_t* block = static_cast<uint8_t*>(tesslin_block_alloc(8u << 20));
    IMG_BITMAPINFOHEADER h{40, int32_t(im.width), int32_t(im.height), 1, 1, 0, 0, 0, 0, 0, 0};
    const int32_t s = stream::mem_create_sized(block, 8u << 20);
    const int32_t status = g4 ? ccitt::fax_encode_g4(s, &h, supply_packed, intptr_t(&im), 0, ccitt::kFrameG4)
                              : ccitt::fax_encode_1d(s, &h, supply_packed, intptr_t(&im), 0, ccitt::kFrameG3);
    const int32_t length = stream::length(s);
    stream::mem_release(s);
    check(status == 0 && length >= 0);
    Image again{im.width, im.height, im.stride, false, std::vector<uint8_t>(im.bits.size(), 0),
                std::vector<uint8_t>(im.height, 0)};
    ccitt::FaxParams p;
    p.width = im.width;
    p.height = im.height;
    p.mode = g4 ? ccitt::kModeG4Memory : ccitt::kModeMhMemory;
    p.data_length = uint32_t(length);
    check(ccitt::fax_decode(block, im.height, 0, p, 0, take_row, intptr_t(&again)) == 0);
    for (uint32_t y = 0; y < im.height; ++y)
        for (uint32_t x = 0; x < im.width; ++x) {
            const size_t at = size_t(y) * im.stride + x / 8;
            const uint8_t bit = uint8_t(0x80 >> (x & 7));
            check((im.bits[at] & bit) == (again.bits[at] & bit));
        }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    static const int32_t kModes[8] = {1, 2, 3, 4, 45, 128, 129, 130};
    const uint8_t sel = data[0];
    ccitt::FaxParams p;
    p.mode = kModes[sel & 7];
    p.fill_order = (sel & 8) ? 2 : 1;
    p.no_inversion = (sel & 16) ? 0 : 1;
    p.flags = (sel & 32) ? ccitt::kFaxNoRepeatToHeight : 0;
    p.width = 1 + ((uint32_t(data[1]) | uint32_t(data[2]) << 8) & 4095);
    p.height = 1 + data[3] % 96;
    const uint32_t first = (sel & 64) ? p.height / 3 : 0;
    const uint8_t* coded = data + 4;
    const uint32_t coded_size = uint32_t(size - 4);
    p.data_length = coded_size;

    Image im{p.width, p.height, row_bytes(p.width, 1), p.no_inversion == 0,
             std::vector<uint8_t>(size_t(row_bytes(p.width, 1)) * p.height, 0xFF),
             std::vector<uint8_t>(p.height, 0)};
    const int32_t status = decode(coded, coded_size, p, p.height - first, first, im);
    check(status == 0 || status == IMG_ERR_BAD_IMAGE);
    if (status != 0) return 0;
    // Every row of the call arrived; the image then codes and decodes alike.
    for (uint32_t y = first; y < p.height; ++y) check(im.seen[y]);
    for (uint32_t y = 0; y < p.height; ++y)
        if (p.width & 7) im.bits[size_t(y) * im.stride + p.width / 8] |= uint8_t(0xFF >> (p.width & 7));
    round_trip(im, p.mode == ccitt::kModeG4 || p.mode == ccitt::kModeG4Memory);
    return 0;
}
