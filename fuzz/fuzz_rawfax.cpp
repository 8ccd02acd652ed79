// libFuzzer target of IMG_decompress_fax_mem. Byte 0: the mode (bits 0-2:
// 2, 3, 4, 2, 3, 4, 0 or 7) and fill order 2 (bit 3); bytes 1-2 the width
// (1 to 4096); byte 3 the height (0 in half the cases: up to the end of the
// page); the rest is the coded data in a library block. A decoded image is
// written as raw Group 4 and Group 3 and must read back the same with the
// height found at the end of the page.
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    static const int32_t kModes[8] = {2, 3, 4, 2, 3, 4, 0, 7};
    const int32_t mode = kModes[data[0] & 7];
    const int32_t fill = (data[0] & 8) ? 2 : 1;
    const int32_t width = 1 + ((data[1] | (data[2] << 8)) & 0xFFF);
    const int32_t height = (data[3] & 1) ? 0 : data[3] >> 1;
    int32_t h;
    {
        const fuzz::Block coded(data + 4, size - 4);
        if (!coded.data) return 0;
        h = IMG_decompress_fax_mem(coded.data, width, height, mode, fill);
    }
    if (h < 0) return 0;
    int32_t w = 0, rows = 0, bits = 0;
    IMG_bitmap_info(h, &w, &rows, &bits);
    fuzz::check(w == width && bits == 1 && rows > 0 && (height == 0 || rows == height));
    for (int32_t code : {52, 53}) {
        const uint32_t room = uint32_t(uint64_t(w) * uint64_t(rows) + 8192);
        void* out = tesslin_block_alloc(room);
        const int32_t n = IMG_save_bitmap_mem(h, out, code);
        if (n > 0) {
            int32_t back;
            {
                // A block of exactly the bytes written: nothing after them.
                const fuzz::Block coded(static_cast<const uint8_t*>(out), size_t(n));
                back = IMG_decompress_fax_mem(coded.data, w, 0, code == 52 ? 4 : 3, 1);
            }
            // Our own output decodes to the same rows, the page's end found.
            fuzz::check(back >= 0);
            int32_t bw = 0, bh = 0, bb = 0;
            IMG_bitmap_info(back, &bw, &bh, &bb);
            fuzz::check(bw == w && bh == rows);
            std::vector<uint8_t> a(tesslin::row_bytes(uint32_t(w), 1)), b(a.size());
            for (int32_t y = 0; y < rows; ++y) {
                IMGLOW_get_raster(h, a.data(), y, 0);
                IMGLOW_get_raster(back, b.data(), y, 0);
                for (int32_t x = 0; x < w; ++x)
                    fuzz::check(((a[size_t(x) / 8] ^ b[size_t(x) / 8]) & (0x80 >> (x % 8))) == 0);
            }
            IMG_delete_bitmap(back);
        }
        tesslin_block_free(out);
    }
    IMG_delete_bitmap(h);
    return 0;
}
