// TIFF LZW (compression 5): codes of 9 to 12 bits, 256 clears the table,
// 257 ends the strip, new entries from 258.
//
// Decoding keeps the strip's output in one window and describes every table
// entry by where its string already stands in that window and how long it
// is, so a code is one copy. Two code layouts are read: the standard one
// (most significant bit first, the width growing one code early, at 511,
// 1023, 2047) and the one of early TIFF writers (least significant bit
// first, growing at 512, 1024, 2048), recognised by its first two bytes as
// libtiff does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace tesslin::tiff {

class LzwDecoder {
public:
    using RowFn = int32_t (*)(void* context, const uint8_t* row);

    LzwDecoder();

    // Decodes `size` bytes of one strip, handing each complete row of
    // `row_bytes` to emit(row) until `rows` rows are done. Returns 0 when
    // the rows are done or the strip ends (end code, or no more data);
    // IMG_ERR_BAD_IMAGE when the first code is not a clear code or a code is beyond the
    // table; emit's negative status; IMG_ERR_MEMORY without memory.
    template <typename F>
    int32_t decode(const uint8_t* data, size_t size, uint32_t row_bytes, uint32_t rows, F&& emit) {
        using Fn = std::remove_reference_t<F>;
        return decode_rows(
            data, size, row_bytes, rows,
            [](void* c, const uint8_t* row) -> int32_t { return (*static_cast<Fn*>(c))(row); },
            &emit);
    }
    int32_t decode_rows(const uint8_t* data, size_t size, uint32_t row_bytes, uint32_t rows,
                        RowFn emit, void* context);

    // The bytes of the row left incomplete when decoding stopped, copied
    // to `out` (at most `n`); returns how many.
    uint32_t partial_row(uint8_t* out, uint32_t n) const;

private:
    // A code's string: where it stands in the window, and its length.
    struct Entry {
        uint32_t pos, len;
    };
    template <bool kCompat>
    int32_t run(const uint8_t* data, size_t size, uint32_t row_bytes, uint32_t rows, RowFn emit,
                void* context);
    // Makes room for the longest string behind `out`, moving the window's
    // live part to the front or growing it. False without memory.
    bool make_room(uint32_t& out, uint32_t& row_end, uint32_t row_bytes, uint32_t& prev_pos,
                   uint32_t next);

    std::vector<uint8_t> window_;  // bytes 0-255 hold themselves: the literal codes' strings
    uint32_t out_ = 0;             // decoded up to here
    uint32_t row_start_ = 0;       // start of the row being filled
    Entry table_[4096];
};

// Encodes strips: begin(), add() the strip's bytes in any pieces, finish().
// The codes collect in data() / size(), which the caller may take and
// clear() between calls.
class LzwEncoder {
public:
    LzwEncoder();
    void begin();
    void add(const uint8_t* data, size_t n);
    void finish();
    const uint8_t* data() const { return out_.data(); }
    size_t size() const { return used_; }
    void clear() { used_ = 0; }

private:
    void reset_table();
    uint8_t* reserve(size_t n);

    std::vector<uint8_t> out_;
    size_t used_ = 0;
    uint64_t acc_ = 0;  // pending bits, the oldest highest
    uint32_t bits_ = 0;
    int32_t prefix_ = -1;
    uint32_t next_ = 258;
    uint32_t width_ = 9;
    // Open-addressed table of (prefix, byte) -> code: (key + 1) << 12 | code,
    // 0 for a free slot.
    std::vector<uint32_t> slots_;
};

}  // namespace tesslin::tiff
