#include "formats/tiff/lzw.h"

#include <algorithm>
#include <cstring>

#include "tesslin/tesslin.h"

namespace tesslin::tiff {
namespace {

constexpr uint32_t kClear = 256, kEnd = 257, kFirst = 258, kMaxCodes = 4096;
// The longest string a code can stand for, and the slack short copies use.
constexpr uint32_t kMaxString = kMaxCodes, kSlack = 16;

inline uint64_t load_be64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return __builtin_bswap64(v);
}
inline uint64_t load_le64(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

// Copies n bytes from an earlier part of the window; the source ends at or
// before the destination, and the window has slack behind the destination.
inline void copy_string(uint8_t* dst, const uint8_t* src, uint32_t n) {
    if (n <= 16) {
        uint64_t a, b;
        std::memcpy(&a, src, 8);
        std::memcpy(&b, src + 8, 8);
        std::memcpy(dst, &a, 8);
        std::memcpy(dst + 8, &b, 8);
    } else {
        std::memcpy(dst, src, n);
    }
}

}  // namespace

// The window starts with the 256 single bytes, the strings of the literal
// codes; the strip's output follows them.
constexpr uint32_t kBase = 256;

LzwDecoder::LzwDecoder() {
    for (uint32_t c = 0; c < 256; ++c) table_[c] = Entry{c, 1};
}

bool LzwDecoder::make_room(uint32_t& out, uint32_t& row_end, uint32_t row_bytes,
                           uint32_t& prev_pos, uint32_t next) {
    // Strings before the first entry since the last clear code (or before
    // the previous string) and before the row being filled are no longer
    // needed: move the rest down to the start of the output.
    const uint32_t row_start = row_end - row_bytes;
    const uint32_t keep = std::min(row_start, next > kFirst ? table_[kFirst].pos : prev_pos);
    if (keep > kBase) {
        const uint32_t shift = keep - kBase;
        std::memmove(window_.data() + kBase, window_.data() + keep, out - keep);
        out -= shift;
        row_end -= shift;
        prev_pos -= shift;
        for (uint32_t c = kFirst; c < next; ++c) table_[c].pos -= shift;
    }
    const size_t need = size_t(out) + kMaxString + 1 + kSlack;
    if (need > window_.size()) {
        const size_t grown = std::max(window_.size() * 2, need);
        if (grown > (size_t(1) << 31)) return false;
        window_.resize(grown);
    }
    return true;
}

uint32_t LzwDecoder::partial_row(uint8_t* out, uint32_t n) const {
    const uint32_t have = std::min(out_ - row_start_, n);
    if (have) std::memcpy(out, window_.data() + row_start_, have);
    return have;
}

int32_t LzwDecoder::decode_rows(const uint8_t* data, size_t size, uint32_t row_bytes,
                                uint32_t rows, RowFn emit, void* context) {
    out_ = row_start_ = kBase;
    if (rows == 0 || row_bytes == 0) return 0;
    const size_t initial =
        std::max<size_t>(size_t(kBase) + size_t(row_bytes) * 2 + 2 * kMaxString, 1u << 16);
    if (window_.size() < initial) {
        window_.resize(initial);
        for (uint32_t c = 0; c < 256; ++c) window_[c] = uint8_t(c);
    }
    if (size >= 2 && data[0] == 0 && (data[1] & 1))
        return run<true>(data, size, row_bytes, rows, emit, context);
    return run<false>(data, size, row_bytes, rows, emit, context);
}

template <bool kCompat>
int32_t LzwDecoder::run(const uint8_t* p, size_t size, uint32_t row_bytes, uint32_t rows,
                        RowFn emit, void* context) {
    const uint8_t* const end = p + size;
    uint64_t acc = 0;  // standard: next bit highest; compat: next bit lowest
    uint32_t nbits = 0;
    // The width grows when the next entry reaches 511 (standard, one code
    // early) or 512 (compat).
    constexpr uint32_t kEarly = kCompat ? 0 : 1;
    uint32_t width = 9, grow_at = 512 - kEarly;
    uint32_t next = kFirst;
    // The loop keeps its state in locals: stores into the window could
    // otherwise alias members and force reloads after every string.
    uint8_t* w = window_.data();
    uint32_t limit = uint32_t(window_.size() - kMaxString - 1 - kSlack);
    uint32_t out = kBase, row_end = kBase + row_bytes, done = 0;
    uint32_t prev_pos = 0, prev_len = 0;
    Entry* const table = table_;
    int32_t status = 0;

    // The next code in *code; false at the end of the data.
    auto get = [&](uint32_t* code) {
        if (nbits < width) {
            if (end - p >= 8) {
                if (kCompat) acc |= load_le64(p) << nbits;
                else acc |= load_be64(p) >> nbits;
                const uint32_t take = (63 - nbits) >> 3;
                p += take;
                nbits += take * 8;
            } else {
                while (nbits <= 56 && p < end) {
                    if (kCompat) acc |= uint64_t(*p++) << nbits;
                    else acc |= uint64_t(*p++) << (56 - nbits);
                    nbits += 8;
                }
                if (nbits < width) return false;
            }
        }
        if (kCompat) {
            *code = uint32_t(acc & ((1u << width) - 1));
            acc >>= width;
        } else {
            *code = uint32_t(acc >> (64 - width));
            acc <<= width;
        }
        nbits -= width;
        return true;
    };
    // Hands out the rows completed by the last string; true when the strip
    // is done or the callback failed (status set).
    auto rows_out = [&]() {
        while (out >= row_end) {
            const int32_t r = emit(context, w + row_end - row_bytes);
            if (r < 0) {
                status = r;
                return true;
            }
            row_end += row_bytes;
            if (++done == rows) return true;
        }
        return false;
    };
    auto room = [&]() {
        if (!make_room(out, row_end, row_bytes, prev_pos, next)) return false;
        w = window_.data();
        limit = uint32_t(window_.size() - kMaxString - 1 - kSlack);
        return true;
    };

    uint32_t code = 0;
    if (!get(&code)) goto finished;
    if (code != kClear && !kCompat) {
        status = IMG_ERR_BAD_IMAGE;  // a strip starts with a clear code
        goto finished;
    }
    for (;;) {
        // After a clear code: a literal starts the new table.
        while (code == kClear) {
            next = kFirst;
            width = 9;
            grow_at = 512 - kEarly;
            if (!get(&code)) goto finished;
        }
        if (code == kEnd) goto finished;
        if (code > kEnd) {
            status = IMG_ERR_BAD_IMAGE;
            goto finished;
        }
        prev_pos = out;
        prev_len = 1;
        w[out++] = uint8_t(code);
        if (rows_out()) goto finished;
        for (;;) {
            if (!get(&code)) goto finished;
            const uint32_t start = out;
            if (code < next) [[likely]] {
                if (code - kClear < 2) [[unlikely]]
                    break;
                const Entry e = table[code];
                copy_string(w + out, w + e.pos, e.len);
                out += e.len;
            } else if (code == next) {
                // The string of the previous code and its own first byte.
                copy_string(w + out, w + prev_pos, prev_len);
                w[out + prev_len] = w[prev_pos];
                out += prev_len + 1;
            } else {
                status = IMG_ERR_BAD_IMAGE;
                goto finished;
            }
            if (next < kMaxCodes) {
                // The previous string and this one's first byte stand
                // together in the window already.
                table[next] = Entry{prev_pos, prev_len + 1};
                if (++next >= grow_at && width < 12) grow_at = (1u << ++width) - kEarly;
            }
            prev_pos = start;
            prev_len = out - start;
            if (out >= row_end && rows_out()) goto finished;
            if (out > limit && !room()) {
                status = IMG_ERR_MEMORY;
                goto finished;
            }
        }
        if (code == kEnd) goto finished;
    }
finished:
    out_ = out;
    row_start_ = row_end - row_bytes;
    return status;
}

template int32_t LzwDecoder::run<true>(const uint8_t*, size_t, uint32_t, uint32_t, RowFn, void*);
template int32_t LzwDecoder::run<false>(const uint8_t*, size_t, uint32_t, uint32_t, RowFn, void*);

// ---- Encoder ---------------------------------------------------------------

namespace {
constexpr uint32_t kHashBits = 14, kHashSize = 1u << kHashBits;
// At 12 bits the table is restarted once this many entries are in use.
constexpr uint32_t kRestartAt = 4080;
}  // namespace

LzwEncoder::LzwEncoder() : slots_(kHashSize, 0) {}

void LzwEncoder::reset_table() {
    next_ = kFirst;
    width_ = 9;
    std::memset(slots_.data(), 0, kHashSize * sizeof(uint32_t));
}

uint8_t* LzwEncoder::reserve(size_t n) {
    if (out_.size() < used_ + n) out_.resize(std::max(used_ + n, out_.size() * 2));
    return out_.data() + used_;
}

void LzwEncoder::begin() {
    acc_ = 0;
    bits_ = 0;
    prefix_ = -1;
    reset_table();
    acc_ = kClear;
    bits_ = 9;
}

void LzwEncoder::add(const uint8_t* data, size_t n) {
    if (!n) return;
    // Each byte gives at most one code of 12 bits, plus the clear codes.
    uint8_t* o = reserve(n * 2 + 64);
    uint64_t acc = acc_;
    uint32_t bits = bits_, next = next_, width = width_;
    uint32_t* const slots = slots_.data();
    size_t i = 0;
    uint32_t prefix = prefix_ < 0 ? data[i++] : uint32_t(prefix_);
    auto put = [&](uint32_t code, uint32_t w) {
        acc = (acc << w) | code;
        bits += w;
        if (bits >= 32) {
            bits -= 32;
            const uint32_t v = uint32_t(acc >> bits);
            o[0] = uint8_t(v >> 24);
            o[1] = uint8_t(v >> 16);
            o[2] = uint8_t(v >> 8);
            o[3] = uint8_t(v);
            o += 4;
        }
    };
    for (; i < n; ++i) {
        const uint32_t c = data[i];
        const uint32_t key = ((prefix << 8) | c) + 1;
        uint32_t h = (key * 0x9E3779B1u) >> (32 - kHashBits);
        uint32_t slot;
        while ((slot = slots[h]) != 0 && (slot >> 12) != key) h = (h + 1) & (kHashSize - 1);
        if (slot) {
            prefix = slot & 0xFFF;
            continue;
        }
        put(prefix, width);
        slots[h] = (key << 12) | next;
        if (++next == (1u << width) && width < 12) ++width;
        if (width == 12 && next >= kRestartAt) {
            put(kClear, 12);
            next = kFirst;
            width = 9;
            std::memset(slots, 0, kHashSize * sizeof(uint32_t));
        }
        prefix = c;
    }
    used_ = size_t(o - out_.data());
    acc_ = acc;
    bits_ = bits;
    next_ = next;
    width_ = width;
    prefix_ = int32_t(prefix);
}

void LzwEncoder::finish() {
    uint8_t* o = reserve(16);
    auto put = [&](uint32_t code, uint32_t w) {
        acc_ = (acc_ << w) | code;
        bits_ += w;
        while (bits_ >= 8) {
            bits_ -= 8;
            *o++ = uint8_t(acc_ >> bits_);
        }
    };
    if (prefix_ >= 0) put(uint32_t(prefix_), width_);
    // The reader adds an entry for the last code before it reads the end
    // code, and may reach its next width with it.
    const uint32_t w = (prefix_ >= 0 && next_ + 1 == (1u << width_) && width_ < 12) ? width_ + 1
                                                                                  : width_;
    put(kEnd, w);
    if (bits_) *o++ = uint8_t(acc_ << (8 - bits_));
    used_ = size_t(o - out_.data());
    bits_ = 0;
    acc_ = 0;
    prefix_ = -1;
}

}  // namespace tesslin::tiff
