// Inflate: table-driven Huffman decoding with a 64-bit bit buffer.
//
// Codes are decoded through one lookup per symbol: a primary table indexed
// by the next 10 (literal/length) or 8 (distance) bits, whose entries either
// give the symbol and its code length or point to a second-level table for
// the longer codes. The fast loop runs while at least 16 input bytes and 258
// bytes of output room remain: it refills the bit buffer with one unaligned
// 8-byte load per symbol (enough bits for a length, a distance and their
// extra bits) and copies matches 8 or 16 bytes at a time. Near the end of an
// input piece or of the window a careful byte-at-a-time path takes over.
#include "formats/png/inflate.h"

#include <cstring>
#include <new>

#include "core/io.h"
#include "tesslin/tesslin.h"

namespace tesslin {

namespace {

constexpr unsigned kLitPrimary = 10;
constexpr unsigned kDistPrimary = 8;
constexpr unsigned kLenPrimary = 7;
// Primary table plus the most second-level entries any code can need
// (one table of at most 2^(15 - primary) entries per code longer than the
// primary bits).
constexpr uint32_t kLitTableSize = (1u << kLitPrimary) + 288 * (1u << (15 - kLitPrimary));
constexpr uint32_t kDistTableSize = (1u << kDistPrimary) + 32 * (1u << (15 - kDistPrimary));
constexpr uint32_t kLenTableSize = 1u << kLenPrimary;

constexpr uint32_t kWindow = 1u << 18;  // output window
constexpr uint32_t kHistory = 32768;    // deflate's largest distance
constexpr uint32_t kSlack = 32;         // match copies may write this far past a match
constexpr uint32_t kMaxMatch = 258;

// Table entry: bits 0-7 code length to drop, 8-12 extra bits (or the
// second-level index bits), 13 end of block, 14 second-level pointer,
// 15 invalid code, 16-30 value (literal, base, or second-level offset),
// 31 literal.
constexpr uint32_t kLiteral = 0x80000000u;
constexpr uint32_t kEndBlock = 0x2000u;
constexpr uint32_t kSubtable = 0x4000u;
constexpr uint32_t kInvalid = 0x8000u;

inline uint32_t entry_bits(uint32_t e) { return e & 0xFF; }
inline uint32_t entry_extra(uint32_t e) { return (e >> 8) & 0x1F; }
inline uint32_t entry_value(uint32_t e) { return (e >> 16) & 0x7FFF; }
inline uint64_t low_mask(unsigned n) { return (uint64_t(1) << n) - 1; }

constexpr uint16_t kLengthBase[29] = {3,  4,  5,  6,  7,  8,  9,  10, 11,  13,  15,  17,  19,  23, 27,
                                      31, 35, 43, 51, 59, 67, 83, 99, 115, 131, 163, 195, 227, 258};
constexpr uint8_t kLengthExtra[29] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                      2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr uint16_t kDistBase[30] = {1,    2,    3,    4,    5,    7,     9,     13,    17,  25,
                                    33,   49,   65,   97,   129,  193,   257,   385,   513, 769,
                                    1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
constexpr uint8_t kDistExtra[30] = {0, 0, 0, 0, 1, 1, 2, 2,  3,  3,  4,  4,  5,  5,  6,
                                    6, 7, 7, 8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13};
constexpr uint8_t kCodeLengthOrder[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};

enum class Kind { kLitLen, kDist, kCodeLen };

uint32_t symbol_entry(Kind kind, uint32_t sym) {
    switch (kind) {
    case Kind::kLitLen:
        if (sym < 256) return kLiteral | (sym << 16);
        if (sym == 256) return kEndBlock;
        if (sym < 286) return (uint32_t(kLengthBase[sym - 257]) << 16) | (uint32_t(kLengthExtra[sym - 257]) << 8);
        return kInvalid;
    case Kind::kDist:
        if (sym < 30) return (uint32_t(kDistBase[sym]) << 16) | (uint32_t(kDistExtra[sym]) << 8);
        return kInvalid;
    case Kind::kCodeLen:
        return sym << 16;
    }
    return kInvalid;
}

uint32_t reverse_bits(uint32_t code, unsigned n) {
    uint32_t r = 0;
    for (unsigned i = 0; i < n; ++i) {
        r = (r << 1) | (code & 1);
        code >>= 1;
    }
    return r;
}

// Builds the lookup table of a canonical code from its code lengths.
// Over-subscribed codes are refused; slots of an incomplete code stay
// invalid and fail only when the data uses them.
bool build_table(const uint8_t* lengths, uint32_t n, Kind kind, unsigned primary, uint32_t* table,
                 uint32_t capacity) {
    uint16_t count[16] = {};
    for (uint32_t s = 0; s < n; ++s) count[lengths[s]]++;
    count[0] = 0;
    int32_t left = 1;
    for (unsigned l = 1; l <= 15; ++l) {
        left = (left << 1) - count[l];
        if (left < 0) return false;
    }
    uint16_t offset[16];
    offset[1] = 0;
    for (unsigned l = 1; l < 15; ++l) offset[l + 1] = uint16_t(offset[l] + count[l]);
    uint16_t sorted[288];
    for (uint32_t s = 0; s < n; ++s)
        if (lengths[s]) sorted[offset[lengths[s]]++] = uint16_t(s);

    const uint32_t size = 1u << primary;
    for (uint32_t i = 0; i < size; ++i) table[i] = kInvalid;
    uint16_t remaining[16];
    std::memcpy(remaining, count, sizeof remaining);
    uint32_t next_free = size;
    uint32_t code = 0, idx = 0;
    uint32_t current_prefix = ~0u, sub = 0, sub_bits = 0;
    for (unsigned l = 1; l <= 15; ++l, code <<= 1) {
        for (uint32_t k = 0; k < count[l]; ++k, ++code) {
            const uint32_t e = symbol_entry(kind, sorted[idx++]);
            if (l <= primary) {
                for (uint32_t j = reverse_bits(code, l); j < size; j += 1u << l) table[j] = e | l;
            } else {
                const unsigned rest = l - primary;
                const uint32_t prefix = code >> rest;
                if (prefix != current_prefix) {
                    // A new second-level table, large enough for the codes
                    // that share this prefix.
                    current_prefix = prefix;
                    sub_bits = rest;
                    int32_t room = 1 << sub_bits;
                    while (sub_bits + primary < 15) {
                        room -= remaining[sub_bits + primary];
                        if (room <= 0) break;
                        ++sub_bits;
                        room <<= 1;
                    }
                    if (next_free + (1u << sub_bits) > capacity) return false;
                    sub = next_free;
                    next_free += 1u << sub_bits;
                    for (uint32_t j = 0; j < (1u << sub_bits); ++j) table[sub + j] = kInvalid;
                    table[reverse_bits(prefix, primary)] = (sub << 16) | (sub_bits << 8) | kSubtable | primary;
                }
                const uint32_t low = reverse_bits(code & ((1u << rest) - 1), rest);
                for (uint32_t j = low; j < (1u << sub_bits); j += 1u << rest) table[sub + j] = e | rest;
            }
            remaining[l]--;
        }
    }
    return true;
}

struct FixedTables {
    uint32_t lit[kLitTableSize];
    uint32_t dist[kDistTableSize];
    FixedTables() {
        uint8_t len[288];
        for (int i = 0; i < 288; ++i) len[i] = i < 144 ? 8 : i < 256 ? 9 : i < 280 ? 7 : 8;
        build_table(len, 288, Kind::kLitLen, kLitPrimary, lit, kLitTableSize);
        for (int i = 0; i < 32; ++i) len[i] = 5;
        build_table(len, 32, Kind::kDist, kDistPrimary, dist, kDistTableSize);
    }
};

const FixedTables& fixed_tables() {
    static const FixedTables tables;
    return tables;
}

inline uint64_t load64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    return v;
}

}  // namespace

struct Inflater::Work {
    uint8_t window[kWindow + kSlack];
    uint32_t lit[kLitTableSize];
    uint32_t dist[kDistTableSize];
};

int32_t ReaderSource::next(const uint8_t** data) {
    if (left_ == 0) return 0;
    uint32_t want = left_ < kIoBlock ? left_ : kIoBlock;
    uint32_t got = reader_.ensure(want);
    if (got == 0) return reader_.status() < 0 ? reader_.status() : 0;
    if (got > left_) got = left_;
    *data = reader_.data();
    reader_.advance(got);
    left_ -= got;
    return int32_t(got);
}

Inflater::Inflater(Options options) : options_(options) {
    state_ = options_.header == Header::kRaw ? State::kBlockHeader : State::kWrapper;
}

Inflater::~Inflater() { delete work_; }

void Inflater::set_input(const uint8_t* data, size_t size) {
    in_ = data;
    in_end_ = data + size;
    source_ = nullptr;
}

void Inflater::set_source(InflateSource* source) {
    source_ = source;
    in_ = in_end_ = nullptr;
}

bool Inflater::ended() const { return state_ == State::kDone; }

int32_t Inflater::fail(int32_t status) {
    if (status_ == 0) status_ = status;
    return status_;
}

bool Inflater::next_input() {
    if (!source_ || input_ended_) {
        input_ended_ = true;
        return false;
    }
    for (;;) {
        const uint8_t* p = nullptr;
        int32_t got = source_->next(&p);
        if (got < 0) {
            fail(got);
            input_ended_ = true;
            return false;
        }
        if (got == 0) {
            input_ended_ = true;
            return false;
        }
        in_ = p;
        in_end_ = p + got;
        return true;
    }
}

// Adds whole bytes until n bits are held. False when the input ends first.
bool Inflater::need(unsigned n) {
    while (bc_ < n) {
        if (in_ == in_end_ && !next_input()) return false;
        bb_ |= uint64_t(*in_++) << bc_;
        bc_ += 8;
    }
    return true;
}

uint32_t Inflater::take(unsigned n) {
    uint32_t v = uint32_t(bb_ & low_mask(n));
    bb_ >>= n;
    bc_ -= n;
    return v;
}

// One code through the tables, bit by careful bit (end of input possible).
bool Inflater::decode_symbol(const uint32_t* table, unsigned primary, uint32_t* entry) {
    need(15);
    if (status_ < 0) return false;
    uint32_t e = table[bb_ & low_mask(primary)];
    if (e & kSubtable) {
        if (bc_ < primary) return fail(IMG_ERR_READ), false;
        const uint64_t rest = bb_ >> primary;
        e = table[entry_value(e) + (rest & low_mask(entry_extra(e)))];
        if (!(e & kInvalid)) {
            if (primary + entry_bits(e) > bc_) return fail(IMG_ERR_READ), false;
            take(primary);
        }
    }
    if (e & kInvalid) return fail(bc_ < 15 && input_ended_ ? IMG_ERR_READ : IMG_ERR_BAD_IMAGE), false;
    if (entry_bits(e) > bc_) return fail(IMG_ERR_READ), false;
    take(entry_bits(e));
    *entry = e;
    return true;
}

bool Inflater::block_header() {
    if (!need(3)) return fail(IMG_ERR_READ), false;
    final_block_ = take(1) != 0;
    switch (take(2)) {
    case 0: {
        take(bc_ & 7);
        if (!need(32)) return fail(IMG_ERR_READ), false;
        stored_left_ = take(16);
        take(16);  // the length's complement, not needed
        state_ = State::kStored;
        return true;
    }
    case 1:
        lit_ = fixed_tables().lit;
        dist_ = fixed_tables().dist;
        state_ = State::kHuffman;
        return true;
    case 2:
        if (!dynamic_tables()) return false;
        lit_ = work_->lit;
        dist_ = work_->dist;
        state_ = State::kHuffman;
        return true;
    default:
        if (options_.reserved_block_ends) {
            reserved_seen_ = true;
            state_ = State::kDone;
            return true;
        }
        return fail(IMG_ERR_BAD_IMAGE), false;
    }
}

bool Inflater::dynamic_tables() {
    if (!need(14)) return fail(IMG_ERR_READ), false;
    const uint32_t nlit = take(5) + 257;
    const uint32_t ndist = take(5) + 1;
    const uint32_t ncode = take(4) + 4;
    if (nlit > 286 || ndist > 30) return fail(IMG_ERR_BAD_IMAGE), false;
    uint8_t code_lengths[19] = {};
    for (uint32_t i = 0; i < ncode; ++i) {
        if (!need(3)) return fail(IMG_ERR_READ), false;
        code_lengths[kCodeLengthOrder[i]] = uint8_t(take(3));
    }
    uint32_t len_table[kLenTableSize];
    if (!build_table(code_lengths, 19, Kind::kCodeLen, kLenPrimary, len_table, kLenTableSize))
        return fail(IMG_ERR_BAD_IMAGE), false;

    uint8_t lengths[286 + 30];
    const uint32_t total = nlit + ndist;
    uint32_t i = 0;
    while (i < total) {
        uint32_t e;
        if (!decode_symbol(len_table, kLenPrimary, &e)) return false;
        const uint32_t sym = entry_value(e);
        if (sym < 16) {
            lengths[i++] = uint8_t(sym);
            continue;
        }
        uint32_t repeat;
        uint8_t value = 0;
        if (sym == 16) {
            if (i == 0) return fail(IMG_ERR_BAD_IMAGE), false;
            value = lengths[i - 1];
            if (!need(2)) return fail(IMG_ERR_READ), false;
            repeat = 3 + take(2);
        } else if (sym == 17) {
            if (!need(3)) return fail(IMG_ERR_READ), false;
            repeat = 3 + take(3);
        } else {
            if (!need(7)) return fail(IMG_ERR_READ), false;
            repeat = 11 + take(7);
        }
        if (repeat > total - i) return fail(IMG_ERR_BAD_IMAGE), false;
        std::memset(lengths + i, value, repeat);
        i += repeat;
    }
    if (lengths[256] == 0) return fail(IMG_ERR_BAD_IMAGE), false;  // no end-of-block code
    if (!build_table(lengths, nlit, Kind::kLitLen, kLitPrimary, work_->lit, kLitTableSize) ||
        !build_table(lengths + nlit, ndist, Kind::kDist, kDistPrimary, work_->dist, kDistTableSize))
        return fail(IMG_ERR_BAD_IMAGE), false;
    return true;
}

bool Inflater::copy_stored() {
    uint8_t* win = work_->window;
    while (stored_left_ && wpos_ < kWindow) {
        if (bc_ >= 8) {
            win[wpos_++] = uint8_t(take(8));
            --stored_left_;
            continue;
        }
        if (in_ == in_end_ && !next_input()) return fail(IMG_ERR_READ), false;
        uint32_t n = stored_left_;
        if (n > kWindow - wpos_) n = kWindow - wpos_;
        if (n > size_t(in_end_ - in_)) n = uint32_t(in_end_ - in_);
        std::memcpy(win + wpos_, in_, n);
        in_ += n;
        wpos_ += n;
        stored_left_ -= n;
    }
    if (stored_left_ == 0) state_ = final_block_ ? State::kDone : State::kBlockHeader;
    return true;
}

// Symbols while the input has 16 bytes and the window 258 bytes of room.
// Returns false on corrupt data; leaves the state at the next block header
// when the block ends.
bool Inflater::huffman_fast() {
    if (in_end_ - in_ < 16 || wpos_ + kMaxMatch > kWindow) return true;
    uint8_t* const win = work_->window;
    uint8_t* out = win + wpos_;
    uint8_t* const out_limit = win + kWindow - kMaxMatch;
    const uint8_t* in = in_;
    const uint8_t* const in_limit = in_end_ - 16;
    uint64_t bb = bb_;
    unsigned bc = bc_;
    const uint32_t* const lit = lit_;
    const uint32_t* const dist = dist_;
    constexpr uint64_t lit_mask = (1u << kLitPrimary) - 1;
    constexpr uint64_t dist_mask = (1u << kDistPrimary) - 1;
    bool ok = true;

    while (in <= in_limit && out <= out_limit) {
        bb |= load64(in) << bc;
        in += (63 - bc) >> 3;
        bc |= 56;

        uint32_t e = lit[bb & lit_mask];
        if (e & kSubtable) {
            bb >>= kLitPrimary;
            bc -= kLitPrimary;
            e = lit[entry_value(e) + (bb & low_mask(entry_extra(e)))];
        }
        bb >>= entry_bits(e);
        bc -= entry_bits(e);
        if (int32_t(e) < 0) {
            *out++ = uint8_t(e >> 16);
            // At least 41 bits remain: room for two more short literals
            // without a refill.
            e = lit[bb & lit_mask];
            if (int32_t(e) < 0) {
                bb >>= entry_bits(e);
                bc -= entry_bits(e);
                *out++ = uint8_t(e >> 16);
                e = lit[bb & lit_mask];
                if (int32_t(e) < 0) {
                    bb >>= entry_bits(e);
                    bc -= entry_bits(e);
                    *out++ = uint8_t(e >> 16);
                }
            }
            continue;
        }
        if (e & (kEndBlock | kInvalid)) {
            if (e & kInvalid) {
                ok = false;
                break;
            }
            state_ = final_block_ ? State::kDone : State::kBlockHeader;
            break;
        }
        uint32_t extra = entry_extra(e);
        const uint32_t length = entry_value(e) + uint32_t(bb & low_mask(extra));
        bb >>= extra;
        bc -= extra;

        e = dist[bb & dist_mask];
        if (e & kSubtable) {
            bb >>= kDistPrimary;
            bc -= kDistPrimary;
            e = dist[entry_value(e) + (bb & low_mask(entry_extra(e)))];
        }
        bb >>= entry_bits(e);
        bc -= entry_bits(e);
        if (e & kInvalid) {
            ok = false;
            break;
        }
        extra = entry_extra(e);
        const uint32_t distance = entry_value(e) + uint32_t(bb & low_mask(extra));
        bb >>= extra;
        bc -= extra;
        if (distance > uint32_t(out - win)) {
            ok = false;
            break;
        }

        const uint8_t* src = out - distance;
        uint8_t* const end = out + length;
        if (distance >= 16) {
            do {
                std::memcpy(out, src, 16);
                out += 16;
                src += 16;
            } while (out < end);
        } else if (distance >= 8) {
            do {
                std::memcpy(out, src, 8);
                out += 8;
                src += 8;
            } while (out < end);
        } else if (distance == 1) {
            const uint64_t v = uint64_t(*src) * 0x0101010101010101ull;
            do {
                std::memcpy(out, &v, 8);
                out += 8;
            } while (out < end);
        } else {
            do {
                *out++ = *src++;
            } while (out < end);
        }
        out = end;
    }
    // Hand back the bytes loaded beyond the bits held.
    bb &= low_mask(bc);
    bb_ = bb;
    bc_ = bc;
    in_ = in;
    wpos_ = uint32_t(out - win);
    if (!ok) fail(IMG_ERR_BAD_IMAGE);
    return ok;
}

// One symbol at a time, for the ends of the input pieces and of the window.
bool Inflater::huffman_slow() {
    uint8_t* const win = work_->window;
    while (wpos_ + kMaxMatch <= kWindow && state_ == State::kHuffman) {
        if (in_end_ - in_ >= 16) return true;  // back to the fast loop
        uint32_t e;
        if (!decode_symbol(lit_, kLitPrimary, &e)) return false;
        if (int32_t(e) < 0) {
            win[wpos_++] = uint8_t(e >> 16);
            continue;
        }
        if (e & kEndBlock) {
            state_ = final_block_ ? State::kDone : State::kBlockHeader;
            return true;
        }
        uint32_t extra = entry_extra(e);
        if (!need(extra)) return fail(IMG_ERR_READ), false;
        const uint32_t length = entry_value(e) + take(extra);
        if (!decode_symbol(dist_, kDistPrimary, &e)) return false;
        extra = entry_extra(e);
        if (!need(extra)) return fail(IMG_ERR_READ), false;
        const uint32_t distance = entry_value(e) + take(extra);
        if (distance > wpos_) return fail(IMG_ERR_BAD_IMAGE), false;
        for (uint32_t i = 0; i < length; ++i, ++wpos_) win[wpos_] = win[wpos_ - distance];
    }
    return true;
}

// Decodes until the window has no room for another match, the stream ends,
// or the data fails.
void Inflater::decode() {
    for (;;) {
        switch (state_) {
        case State::kWrapper: {
            if (!need(16)) {
                fail(IMG_ERR_READ);
                return;
            }
            const uint32_t cmf = take(8), flg = take(8);
            if (options_.header == Header::kZlib &&
                ((cmf & 15) != 8 || (cmf >> 4) > 7 || (flg & 0x20) || (cmf * 256 + flg) % 31 != 0)) {
                fail(IMG_ERR_BAD_IMAGE);
                return;
            }
            state_ = State::kBlockHeader;
            break;
        }
        case State::kBlockHeader:
            if (wpos_ + kMaxMatch > kWindow) return;
            if (!block_header()) return;
            break;
        case State::kStored:
            if (wpos_ >= kWindow) return;
            if (!copy_stored()) return;
            break;
        case State::kHuffman:
            if (wpos_ + kMaxMatch > kWindow) return;
            if (!huffman_fast()) return;
            if (state_ != State::kHuffman) break;
            if (!huffman_slow()) return;
            break;
        case State::kDone:
            return;
        }
    }
}

int32_t Inflater::read(uint8_t* out, uint32_t n) {
    if (!work_) {
        work_ = new (std::nothrow) Work;
        if (!work_) return fail(IMG_ERR_MEMORY);
    }
    if (n > 0x7FFFFFFFu) n = 0x7FFFFFFFu;
    uint32_t done = 0;
    while (done < n) {
        const uint32_t avail = wpos_ - rpos_;
        if (avail) {
            const uint32_t k = avail < n - done ? avail : n - done;
            std::memcpy(out + done, work_->window + rpos_, k);
            rpos_ += k;
            done += k;
            continue;
        }
        if (status_ < 0) return status_;
        if (state_ == State::kDone) break;
        if (kWindow - wpos_ < kHistory && wpos_ > kHistory) {
            // Keep the last 32K as history and reuse the rest.
            std::memmove(work_->window, work_->window + wpos_ - kHistory, kHistory);
            wpos_ = rpos_ = kHistory;
        }
        const uint32_t before = wpos_;
        decode();
        if (wpos_ == before && status_ == 0 && state_ != State::kDone && wpos_ + kMaxMatch > kWindow) {
            // Cannot happen: the window always has room after a slide.
            return fail(IMG_ERR_BAD_IMAGE);
        }
    }
    return int32_t(done);
}

int32_t inflate_buffer(const uint8_t* in, size_t in_size, uint8_t* out, uint32_t out_size,
                       Inflater::Header header) {
    Inflater::Options opt;
    opt.header = header;
    Inflater inf(opt);
    inf.set_input(in, in_size);
    return inf.read(out, out_size);
}

}  // namespace tesslin
