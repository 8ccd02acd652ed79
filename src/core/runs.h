// Run records: the in-memory form of one bilevel row.
//
// A record is a sequence of 32-bit words: its length in bytes (this word
// included), the columns where the colour changes along the row starting from
// white (first value: where the first black run begins), and three words equal
// to the width. The change list always ends with one value equal to the width.
// When the record's length would equal the packed row's byte count it is made
// one word longer, so that the two can be told apart by length alone.
//
// Bit value 1 is white (palette index 1), 0 is black.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tesslin::runs {

// Largest record a row of the given width can need, in bytes.
constexpr uint32_t max_record_bytes(uint32_t width) { return (width + 1 + 4) * 4 + 4; }

// First column at or after `from` whose bit differs from `white` (1 = white),
// or `width` when the rest of the row is uniform.
uint32_t find_change(const uint8_t* row, uint32_t width, uint32_t from, bool white);

// Writes the change positions of a packed row into `positions` (room for
// width + 1 values) and returns how many there are; the last one is width.
uint32_t changes_from_packed(const uint8_t* row, uint32_t width, uint32_t* positions);

// Encodes a packed row as a complete record into `out` (room for
// max_record_bytes(width)) and returns the record's length in bytes.
uint32_t encode(const uint8_t* row, uint32_t width, uint32_t* out);

// Builds a complete record from a change list (values clamped to the width,
// the list closed at the width) and returns its length in bytes.
uint32_t record_from_changes(const uint32_t* positions, uint32_t count, uint32_t width,
                             uint32_t* out);

// Record length for a given number of change positions, with the rule that
// keeps it from equalling the packed row's byte count.
uint32_t record_length(uint32_t positions, uint32_t width);

// Expands a change list into a packed row of row_bytes bytes: 1 bits
// everywhere, 0 from each start value to the following end value, stopping
// at the first value not below the width.
void expand_changes(const uint32_t* positions, uint32_t width, uint8_t* row, uint32_t row_bytes);

// Expands a complete record (length word first).
inline void expand(const uint32_t* record, uint32_t width, uint8_t* row, uint32_t row_bytes) {
    expand_changes(record + 1, width, row, row_bytes);
}

// Sets or clears bits [from, to) of a packed row (most significant bit first).
void fill_bits(uint8_t* row, uint32_t from, uint32_t to, bool ones);

// ---- Editing records ----

// Appends change position p to a list being built, dropping zero-length
// runs: a position equal to the last one cancels it, which keeps the
// colours of the runs around them.
void append_change(std::vector<uint32_t>& list, uint32_t p);

// Cuts a record of a row `src_width` wide to columns [x, x + width):
// positions before x are dropped (the starting colour flips when an odd
// number were), the rest shifted by -x and cut at `width`. Writes a complete
// record at `out` (room for max_record_bytes(width)) and returns its length.
uint32_t cut_record(const uint32_t* record, uint32_t src_width, uint32_t x, uint32_t width,
                    uint32_t* out);

// Rebuilds a record that a decoder delivered as `count` bytes at `bytes`
// (length word first, any alignment) from its change list, so that what the
// library keeps is always well formed: positions clamped to the width and
// the record closed. `scratch` holds width + 1 words, `out` a record of
// max_record_bytes(width). Returns the new length, or 0 when `count` cannot
// be a record (below 8 or not a multiple of 4).
uint32_t rebuild_record(const uint8_t* bytes, uint32_t count, uint32_t width, uint32_t* scratch,
                        uint32_t* out);

}  // namespace tesslin::runs
