// libFuzzer target for the TIFF reader: decodes page 0, page 1 and tile 1
// of the input from a memory stream with callbacks that check every
// delivered row's size and number, and runs the directory queries.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "core/dib.h"
#include "core/stream.h"
#include "formats/tiff/tiff.h"

namespace {

struct State {
    uint32_t row_size = 0;
    int32_t width = 0, height = 0, bits = 0;
    uint32_t checksum = 0;
};

int32_t on_header(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    auto* s = reinterpret_cast<State*>(user);
    if (h->biWidth < 1 || h->biHeight < 1 || !tesslin::dib_depth_valid(h->biBitCount)) std::abort();
    // Keep the fuzzer away from images whose rows alone take seconds.
    if (uint64_t(h->biWidth) * uint64_t(h->biHeight) > (uint64_t(1) << 22)) return -18;
    s->row_size = tesslin::row_bytes(uint32_t(h->biWidth), h->biBitCount);
    s->width = h->biWidth;
    s->height = h->biHeight;
    s->bits = h->biBitCount;
    return 1;
}

int32_t on_row(uint8_t* row, intptr_t user, int32_t number, uint32_t bytes) {
    auto* s = reinterpret_cast<State*>(user);
    if (s->row_size == 0 || number < 0 || number >= s->height) std::abort();
    if (bytes != s->row_size) {
        // A run record of a bilevel row: its length word first.
        if (s->bits != 1 || bytes < 8 || bytes % 4) std::abort();
        uint32_t length;
        __builtin_memcpy(&length, row, 4);
    }
    for (uint32_t i = 0; i < bytes; ++i) s->checksum += row[i];  // touches every byte
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 22)) return 0;
    std::vector<uint8_t> copy(data, data + size);  // exact-size block: reads past it are caught
    const int32_t stream = tesslin::stream::mem_create_sized(copy.data(), uint32_t(copy.size()));
    if (!stream) return 0;
    for (uint32_t position : {0u, 0x80000001u, 0x80010000u, 0xFFFFFFFFu}) {
        State state;
        tesslin::stream::seek(stream, 0, 0);
        tesslin::tiff::decode(position, on_row, reinterpret_cast<intptr_t>(&state), on_header,
                              stream);
    }
    tesslin::tiff::count_pages(stream);
    tesslin::tiff::orientation(stream, 1);
    tesslin::TileInfo info;
    tesslin::tiff::tile_query(stream, 0, &info);
    int32_t value = 0;
    uint8_t buffer[64];
    tesslin::tiff::tag_query(stream, 270, sizeof buffer, &value, buffer, 0);
    tesslin::tiff::tag_query(stream, 282, sizeof buffer, &value, buffer, 0);
    // The directory listing: never more entries written than asked for.
    IMG_TIFF_FIELD fields[9];
    fields[8].tag = 0xABCD;
    const int32_t n = tesslin::tiff::list_directory(stream, 0, fields, 8);
    if (fields[8].tag != 0xABCD || n > 1000) std::abort();
    tesslin::stream::mem_release(stream);
    return 0;
}
