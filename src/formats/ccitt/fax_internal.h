// Private pieces of the fax codec: code tables, the bit reader the decoders
// share and the bit writer the encoders share.
#pragma once

#include <cstdint>
#include <cstring>

#include "core/io.h"
#include "formats/ccitt/ccitt.h"

namespace tesslin::ccitt {

// ---- Code tables -------------------------------------------------------

// Run value that stands for the EOL code (000000000001). Where a run is being
// summed from make-up codes an EOL counts as a make-up code of this value.
constexpr uint32_t kRunEol = 4095;

// Two-dimensional mode codes.
enum ModeKind : uint8_t { kV0, kVR1, kVR2, kVR3, kVL1, kVL2, kVL3, kHorizontal, kPass };

struct ModeEntry {
    uint8_t kind;
    uint8_t length;
    int8_t offset;  // vertical modes: a1 - b1
};

struct DecodeTables {
    // Indexed by the next 12 (white) or 13 (black) bits: code length << 12 |
    // run (kRunEol for EOL); 0 where no code begins with those bits.
    uint16_t white[1u << 12];
    uint16_t black[1u << 13];
    // Indexed by the next 7 bits. Bits starting with six zeros (EOL, the
    // extension codes, fill) read as V0 of length 1.
    ModeEntry mode[1u << 7];
};

struct Code {
    uint16_t bits;
    uint16_t length;
};

struct EncodeTables {
    Code terminating[2][64];  // [black][run]
    Code makeup[2][41];       // [black][run / 64], runs 64 .. 2560
};

// Built once per process on first use (thread-safe).
const DecodeTables& decode_tables();
const EncodeTables& encode_tables();

// Bit reversal of every byte of a 64-bit word.
inline uint64_t reverse_bits_in_bytes(uint64_t v) {
    v = ((v >> 1) & 0x5555555555555555ull) | ((v & 0x5555555555555555ull) << 1);
    v = ((v >> 2) & 0x3333333333333333ull) | ((v & 0x3333333333333333ull) << 2);
    return ((v >> 4) & 0x0F0F0F0F0F0F0F0Full) | ((v & 0x0F0F0F0F0F0F0F0Full) << 4);
}
inline uint8_t reverse_bits(uint8_t b) { return uint8_t(reverse_bits_in_bytes(b)); }

// ---- Change lists ----------------------------------------------------

// Change lists hold the columns where the colour changes along a row,
// starting from white, strictly increasing, closed by the width three times
// and width + 2 twice, with one zero in front of the first entry.

// Appends a change; a change at the position of the previous one (a run of
// length zero) removes both instead, which leaves the pixels as they are.
inline void push(uint32_t* list, uint32_t& n, uint32_t position) {
    if (n && list[n - 1] == position)
        --n;
    else
        list[n++] = position;
}

// Drops a last change at the width and closes the list; returns the count.
inline uint32_t close_list(uint32_t* list, uint32_t n, uint32_t width) {
    if (n && list[n - 1] >= width) --n;
    list[n] = list[n + 1] = list[n + 2] = width;
    list[n + 3] = list[n + 4] = width + 2;
    return n;
}

// Words a change list of the width needs, the zero in front included.
inline size_t list_words(uint32_t width) { return size_t(width) + 16; }

// ---- Bit reader --------------------------------------------------------

// Position in the coded data: unread bits most significant first in acc, the
// next bytes at p. Counters are 64-bit so that stores through the decoders'
// uint32_t lists cannot alias them.
struct BitState {
    uint64_t acc = 0;
    int64_t nbits = 0;      // valid bits in acc
    int64_t fill_bits = 0;  // how many of them (at the end) are fill
    const uint8_t* p = nullptr;
    const uint8_t* end = nullptr;
};

// Reads coded bits from a block of memory or through a StreamReader,
// translating the fill order on the way. Past the end of the data it delivers
// fill bytes (0xFF for Group 4, where missing bytes read as 1 bits, 0x00
// otherwise) and counts them, so that consuming one shows as exhaustion and
// every decoding loop can stop there. Decoding goes through a BitCursor.
class BitReader {
public:
    BitReader(const uint8_t* data, uint32_t size, bool lsb_first, uint8_t fill)
        : lsb_(lsb_first), fill_(fill) {
        if (data) {
            state_.p = start_ = data;
            state_.end = data + size;
        }
    }
    BitReader(StreamReader& in, bool lsb_first, uint8_t fill)
        : in_(&in), lsb_(lsb_first), fill_(fill) {
        origin_ = in.tell();
        open_window(state_);
    }

    // True once a bit past the end of the data has been consumed.
    bool exhausted() const { return state_.nbits < state_.fill_bits; }
    // Failure of the underlying stream (0 when none).
    int32_t status() const { return in_ ? in_->status() : 0; }
    // Leaves the stream just after the last byte that decoding used.
    void sync_stream();

private:
    friend class BitCursor;
    void refill_slow(BitState& s);
    bool next_window(BitState& s);
    void open_window(BitState& s);

    BitState state_;
    const uint8_t* start_ = nullptr;  // start of the current window
    StreamReader* in_ = nullptr;
    uint64_t before_ = 0;             // source bytes before the current window
    uint32_t origin_ = 0;             // stream offset where decoding started
    bool lsb_;
    uint8_t fill_;
};

// A decoding loop's working copy of the reader's position, kept in registers
// and written back when the cursor goes out of scope.
class BitCursor {
public:
    explicit BitCursor(BitReader& r) : r_(r), s_(r.state_), lsb_(r.lsb_) {}
    ~BitCursor() { r_.state_ = s_; }
    BitCursor(const BitCursor&) = delete;
    BitCursor& operator=(const BitCursor&) = delete;

    // Ensures at least 56 bits are available to peek at.
    void refill() {
        if (s_.nbits > 56) return;
        if (s_.end - s_.p >= 8) {
            uint64_t v;
            std::memcpy(&v, s_.p, 8);
            v = __builtin_bswap64(v);
            if (lsb_) v = reverse_bits_in_bytes(v);
            s_.acc |= v >> s_.nbits;
            s_.p += (63 - s_.nbits) >> 3;
            s_.nbits |= 56;
        } else {
            BitState t = s_;
            r_.refill_slow(t);
            s_ = t;
        }
    }
    // The next n bits (1 to 32; refill first).
    uint32_t peek(unsigned n) const { return uint32_t(s_.acc >> (64 - n)); }
    void consume(unsigned n) {
        s_.acc <<= n;
        s_.nbits -= n;
    }
    // True once a bit past the end of the data has been consumed.
    bool exhausted() const { return s_.nbits < s_.fill_bits; }
    // Moves to the next byte boundary of the coded data.
    void skip_to_byte() { consume(unsigned(s_.nbits & 7)); }
    // Bits of real data ahead in the window (fill excluded). When the end
    // of the data has not been loaded yet there are at least 56 after a
    // refill.
    int64_t real_bits() const { return s_.nbits > s_.fill_bits ? s_.nbits - s_.fill_bits : 0; }
    // True once the window reaches the end of the data.
    bool end_loaded() const { return s_.fill_bits != 0; }
    // How many of the bits ahead are 0 bits in a row (up to 64).
    uint32_t leading_zeros() const { return s_.acc ? uint32_t(__builtin_clzll(s_.acc)) : 64; }
    // How many of the available bits ahead are 1 bits in a row.
    uint32_t leading_ones() const {
        const uint64_t zeros = ~s_.acc;
        const int64_t ones = zeros ? __builtin_clzll(zeros) : 63;  // a shift stays below 64
        return uint32_t(ones < s_.nbits ? ones : s_.nbits);
    }

private:
    BitReader& r_;
    BitState s_;
    bool lsb_;
};

// ---- Bit writer --------------------------------------------------------

// Collects codes most significant bit first and writes them in blocks of
// whole 16-bit words (high byte first), translating the bit order and adding
// the IOCA block header when asked. The buffer never overflows: a row that
// outgrows it is written out in the middle.
class BitWriter {
public:
    static constexpr uint32_t kCapacity = 30000;  // 15,000 words

    BitWriter(StreamWriter& out, bool reverse, bool ioca_blocks)
        : out_(out), reverse_(reverse), ioca_(ioca_blocks) {}

    bool ok() const { return out_.ok(); }

    // Appends the low `length` bits of `bits` (length 1 to 16).
    void put(uint32_t bits, unsigned length) {
        acc_ |= uint64_t(bits) << (64 - nacc_ - length);
        nacc_ += length;
        if (nacc_ >= 32) {
            if (len_ + 4 > kCapacity) write_block();
            uint32_t w = uint32_t(acc_ >> 32);
            buf_[len_] = uint8_t(w >> 24);
            buf_[len_ + 1] = uint8_t(w >> 16);
            buf_[len_ + 2] = uint8_t(w >> 8);
            buf_[len_ + 3] = uint8_t(w);
            len_ += 4;
            acc_ <<= 32;
            nacc_ -= 32;
        }
    }
    // A run of one colour: make-up codes while 64 or more remain, then the
    // terminating code.
    void put_run(const EncodeTables& t, bool black, uint32_t run) {
        while (run >= 64) {
            uint32_t m = run >= 2560 ? 2560 : run & ~63u;
            const Code& c = t.makeup[black][m >> 6];
            put(c.bits, c.length);
            run -= m;
        }
        const Code& c = t.terminating[black][run];
        put(c.bits, c.length);
    }
    // Zero bits up to the next multiple of `unit` bits (8 or 16).
    void align(unsigned unit) {
        unsigned r = nacc_ % unit;
        if (r) put(0, unit - r);
    }
    // Complete 16-bit words held so far.
    uint32_t words() const { return (len_ * 8 + nacc_) / 16; }
    // Writes every complete word as one block; a partial word stays.
    bool write_words();
    // Writes everything and flushes the stream. exact_bytes: the last bits
    // in as few bytes as hold them. Otherwise the last partial word goes out
    // as two bytes when 8 or more of its bits are used, one byte when fewer,
    // none when empty; with IOCA blocks always as two bytes.
    bool finish(bool exact_bytes);

private:
    void move_words();
    bool write_block();

    StreamWriter& out_;
    bool reverse_;
    bool ioca_;
    uint64_t acc_ = 0;
    unsigned nacc_ = 0;  // pending bits in acc_ (below 32 between calls)
    uint32_t len_ = 0;
    uint8_t buf_[kCapacity + 8];
};

}  // namespace tesslin::ccitt
