// libFuzzer target of the JPEG decoder: whole streams from memory with pixel
// and coefficient output, strip restarts and shared tables, and the ICC
// profile walk. Every delivered row is read in full.
#include <cstdint>

#include "formats/jpeg/jpeg.h"
#include "fuzz_util.h"

namespace {

struct Sink {
    uint32_t row_bytes = 0;
    int32_t height = 0;
    int32_t next = 0;
    uint32_t sum = 0;
};

int32_t on_header(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    auto* s = reinterpret_cast<Sink*>(user);
    fuzz::check(h->biWidth >= 1 && h->biHeight >= 1 && h->biSize == 40);
    s->row_bytes = tesslin::row_bytes(uint32_t(h->biWidth), h->biBitCount);
    s->height = h->biHeight;
    if (h->biBitCount == 8) {
        const auto* pal = tesslin::dib_palette(h);
        s->sum += pal[255].rgbRed;
    }
    return 0;
}

int32_t on_row(uint8_t* row, intptr_t user, int32_t n, uint32_t bytes) {
    auto* s = reinterpret_cast<Sink*>(user);
    fuzz::check(bytes == s->row_bytes && n == s->next && n < s->height);
    ++s->next;
    for (uint32_t i = 0; i < bytes; i += 7) s->sum += row[i];
    s->sum += row[bytes - 1];
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 20)) return 0;
    const fuzz::BlockInput in(data, size);
    if (!in.block.data) return 0;
    const int32_t s = in.stream;

    tesslin::jpeg::DecodeOptions options;
    options.coefficients = 0;
    Sink sink;
    int32_t r = tesslin::jpeg::decode(options, 0, on_row, reinterpret_cast<intptr_t>(&sink), on_header, s);
    fuzz::check(r != 0 || sink.next == sink.height);

    // Variants chosen by the length, so that the input stays a plain stream.
    tesslin::jpeg::Tables tables;
    if (size % 3 == 0) options.coefficients = 1;
    if (size % 5 == 0) options.strip_rows = 8 * (1 + size % 4);
    if (size % 7 == 0 && tesslin::jpeg::read_tables(data, uint32_t(size), &tables) == 0)
        options.tables = &tables;
    if (options.coefficients || options.strip_rows || options.tables) {
        Sink again;
        r = tesslin::jpeg::decode(options, 0, on_row, reinterpret_cast<intptr_t>(&again), on_header, s);
        fuzz::check(r != 0 || again.next == again.height);
    }

    uint32_t profile_size = 0;
    if (void* p = tesslin::jpeg::read_profile(s, 0, &profile_size)) {
        volatile uint8_t last = static_cast<uint8_t*>(p)[profile_size - 1];
        (void)last;
        tesslin_block_free(p);
    }
    return 0;
}
