// Shared by the fuzz targets of the fax document formats (CALS, raw fax, the
// fax containers): callbacks that check the decoder contract, and a run of a
// decoder both with them and into a handle through the library's callbacks,
// whose image is then saved and decoded again.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "core/dib.h"
#include "core/stream.h"
#include "pipeline/codec.h"
#include "pipeline/decode.h"
#include "tesslin/tesslin.h"

namespace fax_fuzz {

inline void check(bool ok) {
    if (!ok) __builtin_trap();
}

struct Seen {
    int32_t width = 0, height = 0, bits = 0;
    uint32_t packed = 0, sum = 0;
};

// Fax pages are bilevel; a CALS file carrying a TIFF at 1431 delivers
// whatever that TIFF holds, so any DIB depth is a valid header.
inline int32_t on_header(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    auto* s = reinterpret_cast<Seen*>(user);
    check(h->biWidth > 0 && h->biHeight > 0 && tesslin::dib_depth_valid(h->biBitCount));
    s->width = h->biWidth;
    s->height = h->biHeight;
    s->bits = h->biBitCount;
    s->packed = tesslin::row_bytes(uint32_t(h->biWidth), h->biBitCount);
    return 1;
}

// Rows in range; packed rows of the header's size, or (bilevel only) run
// records closed at the width with increasing changes.
inline int32_t on_row(uint8_t* row, intptr_t user, int32_t r, uint32_t count) {
    auto* s = reinterpret_cast<Seen*>(user);
    check(s->width > 0 && r >= 0 && r < s->height);
    if (count != s->packed) {
        check(s->bits == 1);
        const auto* rec = reinterpret_cast<const uint32_t*>(row);
        check(count % 4 == 0 && count >= 8 && rec[0] == count);
        for (uint32_t i = 2; i < count / 4; ++i) check(rec[i] >= rec[i - 1]);
        check(rec[count / 4 - 1] == uint32_t(s->width));
    }
    for (uint32_t i = 0; i < count; ++i) s->sum += row[i];
    return 0;
}

// A memory stream over a copy of the input in a library block (so that the
// stream knows its size). Released with the block.
struct Input {
    void* block = nullptr;
    int32_t stream = 0;
    Input(const uint8_t* data, size_t size) {
        block = tesslin_block_alloc(uint32_t(size ? size : 1));
        if (size) std::memcpy(block, data, size);
        stream = tesslin::stream::mem_create_sized(block, uint32_t(size));
    }
    ~Input() {
        tesslin::stream::mem_release(stream);
        tesslin_block_free(block);
    }
};

// Saves the handle in `code` when the image is small enough, and decodes the
// result again.
inline void save_and_reload(int32_t handle, int32_t code) {
    int32_t w = 0, h = 0, bits = 0;
    IMG_bitmap_info(handle, &w, &h, &bits);
    if (uint64_t(w) * uint64_t(h) > (uint64_t(1) << 22)) return;
    const uint32_t size = uint32_t(uint64_t(w) * uint64_t(h) / 2 + 8192);
    void* out = tesslin_block_alloc(size);
    if (!out) return;
    if (IMG_save_bitmap_mem(handle, out, code) > 0) {
        const int32_t back = IMG_decompress_bitmap_mem(out, 0);
        if (back >= 0) IMG_delete_bitmap(back);
    }
    tesslin_block_free(out);
}

// The decoder with the checking callbacks, then into a handle.
inline void run_decoder(tesslin::Decoder decoder, uint32_t position, const uint8_t* data,
                        size_t size, int32_t save_code) {
    {
        Input in(data, size);
        Seen seen;
        decoder(position, on_row, reinterpret_cast<intptr_t>(&seen), on_header, in.stream);
    }
    Input in(data, size);
    tesslin::DecodeContext ctx;
    if (tesslin::begin_decode(ctx) != 0) return;
    const int32_t r = decoder(position, tesslin::library_raster, reinterpret_cast<intptr_t>(&ctx),
                              tesslin::library_header, in.stream);
    const int32_t handle = tesslin::finish_decode(ctx, r < 0 ? r : 0);
    if (handle < 0) return;
    if (save_code >= 0) save_and_reload(handle, save_code);
    IMG_delete_bitmap(handle);
}

}  // namespace fax_fuzz
