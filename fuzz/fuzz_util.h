// What the fuzz targets share: the input copied where a decoder reads it
// (a library block, or a vector of exactly its size) with a memory stream
// over it, header and row callbacks that check the decoder contract, and a
// save of a decoded handle that is then decoded again.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "core/dib.h"
#include "core/stream.h"
#include "tesslin/tesslin.h"

namespace fuzz {

// A broken contract stops the run where libFuzzer sees it.
inline void check(bool ok) {
    if (!ok) __builtin_trap();
}

// The input copied into a library block (at least one byte), freed with the
// object; `data` is null when the block cannot be had.
struct Block {
    void* data = nullptr;
    Block(const uint8_t* bytes, size_t size) {
        data = tesslin_block_alloc(uint32_t(size ? size : 1));
        if (data && size) std::memcpy(data, bytes, size);
    }
    ~Block() { tesslin_block_free(data); }
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
};

// A memory stream over a copy of the input in a library block, so that the
// stream knows where the data ends. Released with the block.
struct BlockInput {
    Block block;
    int32_t stream = 0;
    BlockInput(const uint8_t* data, size_t size) : block(data, size) {
        if (block.data) stream = tesslin::stream::mem_create_sized(block.data, uint32_t(size));
    }
    ~BlockInput() { tesslin::stream::mem_release(stream); }
};

// A memory stream over a copy of the input in a vector of exactly its size,
// so that AddressSanitizer catches a read one byte past the end.
struct VectorInput {
    std::vector<uint8_t> copy;
    int32_t stream = 0;
    VectorInput(const uint8_t* data, size_t size) : copy(data, data + size) {
        stream = tesslin::stream::mem_create_sized(copy.data(), uint32_t(copy.size()));
    }
    ~VectorInput() { tesslin::stream::mem_release(stream); }
};

// What a decoder may deliver for a bilevel row besides its packed bytes.
enum class RunRecords {
    kRefused,  // packed rows only
    kSized,    // run records: at least 8 bytes, whole words
    kChecked,  // and well formed: length word, increasing changes, closed at the width
};

// The user value of check_header and check_row: the limits to hold the
// decoder to, and what the header announced.
struct RowCheck {
    uint64_t max_pixels = 0;  // larger images are refused with -18 (0: any size)
    RunRecords runs = RunRecords::kRefused;

    int32_t width = 0, height = 0, bits = 0;
    uint32_t row_size = 0;
    uint32_t sum = 0;  // of every delivered byte, so that each one is read
};

// A header with a size and a depth a DIB can have.
inline int32_t check_header(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    auto* c = reinterpret_cast<RowCheck*>(user);
    check(h->biWidth > 0 && h->biHeight > 0 && tesslin::dib_depth_valid(h->biBitCount));
    // Keeps the fuzzer away from images whose rows alone take seconds.
    if (c->max_pixels && uint64_t(h->biWidth) * uint64_t(h->biHeight) > c->max_pixels) return -18;
    c->width = h->biWidth;
    c->height = h->biHeight;
    c->bits = h->biBitCount;
    c->row_size = tesslin::row_bytes(uint32_t(h->biWidth), h->biBitCount);
    return 1;
}

// Rows after the header, numbered within the image, of the header's size or
// (bilevel, when allowed) run records.
inline int32_t check_row(uint8_t* row, intptr_t user, int32_t number, uint32_t count) {
    auto* c = reinterpret_cast<RowCheck*>(user);
    check(c->row_size != 0 && number >= 0 && number < c->height);
    if (count != c->row_size) {
        check(c->runs != RunRecords::kRefused && c->bits == 1 && count >= 8 && count % 4 == 0);
        if (c->runs == RunRecords::kChecked) {
            const auto* rec = reinterpret_cast<const uint32_t*>(row);
            check(rec[0] == count);
            for (uint32_t i = 2; i < count / 4; ++i) check(rec[i] >= rec[i - 1]);
            check(rec[count / 4 - 1] == uint32_t(c->width));
        }
    }
    for (uint32_t i = 0; i < count; ++i) c->sum += row[i];
    return 0;
}

// Saves the handle in `code` into a block of `room` bytes and, when that
// works, decodes the result again.
inline void save_and_reload(int32_t handle, int32_t code, uint64_t room) {
    void* out = tesslin_block_alloc(uint32_t(room));
    if (!out) return;
    if (IMG_save_bitmap_mem(handle, out, code) > 0) {
        const int32_t back = IMG_decompress_bitmap_mem(out, 0);
        if (back >= 0) IMG_delete_bitmap(back);
    }
    tesslin_block_free(out);
}

}  // namespace fuzz
