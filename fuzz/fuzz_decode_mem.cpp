// Arbitrary bytes from memory through the whole pipeline: format queries,
// the low-level decode with the caller's callbacks, the decode into a
// handle under varying decode settings, and a save and decode back of what
// was decoded.
#include <cstdint>

#include "fuzz_util.h"

namespace {

struct Seen {
    int32_t width = 0, height = 0;
    uint32_t bytes = 0;
};

int32_t on_header(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    auto* s = reinterpret_cast<Seen*>(user);
    s->width = h->biWidth;
    s->height = h->biHeight;
    return 1;
}

int32_t on_row(uint8_t* row, intptr_t user, int32_t r, uint32_t count) {
    auto* s = reinterpret_cast<Seen*>(user);
    fuzz::check(r >= 0 && r < s->height);  // a decoder broke the contract otherwise
    for (uint32_t i = 0; i < count; ++i) s->bytes += row[i];  // every byte readable
    return 0;
}

// The decode settings a run uses, chosen by the input's last byte.
void choose_settings(uint8_t k) {
    static const int32_t kReduction[4] = {0, 1, 4, 8};
    IMGLOW_set_decomp_reduction(kReduction[k & 3]);
    if (k & 4)
        IMGLOW_set_decompsize(3 + (k >> 5), 2 + (k >> 6));
    else
        IMGLOW_set_decompsize(0, 0);
    if (k & 8)
        IMGLOW_set_decomp_rect(k >> 6, (k >> 4) & 3, 1 + (k >> 5), 2);
    else
        IMGLOW_set_decomp_rect(0, 0, 0, 0);
}

// BMP, PCX or PNG by the input's last byte, of the crop rectangle's upper
// left quarter when the byte asks for it.
void save_and_reload(int32_t handle, uint8_t k) {
    int32_t w = 0, h = 0, bits = 0;
    IMG_bitmap_info(handle, &w, &h, &bits);
    const uint64_t size = uint64_t(tesslin::row_bytes(uint32_t(w), 32)) * uint64_t(h) + 4096;
    if (size > (64u << 20)) return;
    if (k & 16) IMG_set_croprect(handle, 1, 1, w / 2, h / 2);
    static const int32_t kCodes[3] = {1, 12, 48};
    fuzz::save_and_reload(handle, kCodes[k % 3], size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool once = [] {
        tesslin_set_plugin_dir("/nonexistent");  // plug-in modules stay absent
        return true;
    }();
    (void)once;
    if (size == 0 || size > (16u << 20)) return 0;
    // A block of exactly the input's size, so the memory stream knows where
    // the data ends.
    const fuzz::Block in(data, size);
    if (!in.data) return 0;
    void* block = in.data;

    IMGLOW_get_filetype_mem(block);
    IMGLOW_get_pages_mem(block);
    Seen seen;
    IMGLOW_decompress_bitmap_mem(block, 0, on_row, reinterpret_cast<intptr_t>(&seen), on_header);

    const uint8_t k = data[size - 1];
    choose_settings(k);
    const int32_t handle = IMG_decompress_bitmap_mem(block, (k & 32) ? 1 : 0);
    choose_settings(0);
    if (handle >= 0) {
        save_and_reload(handle, k);
        IMG_delete_bitmap(handle);
    }
    return 0;
}
