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

bool LzwDecoder::make_room(uint32_t need) {
    if (out_ + need + kSlack <= window_.size()) return true;
    // Everything before the last clear code and the row being filled is no
    // longer referenced: move the rest to the front.
    const uint32_t keep = std::min(clear_at_, row_start_);
    if (keep > 0) {
        std::memmove(window_.data(), window_.data() + keep, out_ - keep);
        out_ -= keep;
        row_start_ -= keep;
        clear_at_ -= keep;
        prev_pos_ -= keep;
        for (uint32_t c = kFirst; c < next_; ++c) pos_[c] -= keep;
    }
    if (out_ + need + kSlack > window_.size()) {
        const size_t grown = std::max(window_.size() * 2, size_t(out_) + need + kSlack);
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
    out_ = row_start_ = clear_at_ = prev_pos_ = prev_len_ = 0;
    next_ = kFirst;
    if (rows == 0 || row_bytes == 0) return 0;
    const size_t initial = std::max<size_t>(size_t(row_bytes) * 2 + 2 * kMaxString, 1u << 16);
    if (window_.size() < initial) window_.resize(initial);
    if (size >= 2 && data[0] == 0 && (data[1] & 1))
        return run<true>(data, size, row_bytes, rows, emit, context);
    return run<false>(data, size, row_bytes, rows, emit, context);
}

template <bool kCompat>
int32_t LzwDecoder::run(const uint8_t* p, size_t size, uint32_t row_bytes, uint32_t rows,
                        RowFn emit, void* context) {
    const uint8_t* const end = p + size;
    uint64_t acc = 0;     // standard: next bit highest; compat: next bit lowest
    uint32_t nbits = 0;
    uint32_t width = 9;
    uint32_t done = 0;
    bool have_prev = false, first = true;
    // The width grows when the next entry reaches 511 (standard, one code
    // early) or 512 (compat).
    constexpr uint32_t kEarly = kCompat ? 0 : 1;
    uint8_t* w = window_.data();

    for (;;) {
        if (nbits < width) {
            if (end - p >= 8) {
                if (kCompat) {
                    acc |= load_le64(p) << nbits;
                } else {
                    acc |= load_be64(p) >> nbits;
                }
                const uint32_t take = (63 - nbits) >> 3;
                p += take;
                nbits += take * 8;
            } else {
                while (nbits <= 56 && p < end) {
                    if (kCompat) acc |= uint64_t(*p++) << nbits;
                    else acc |= uint64_t(*p++) << (56 - nbits);
                    nbits += 8;
                }
                if (nbits < width) return 0;  // the data ends without an end code
            }
        }
        uint32_t code;
        if (kCompat) {
            code = uint32_t(acc & ((1u << width) - 1));
            acc >>= width;
        } else {
            code = uint32_t(acc >> (64 - width));
            acc <<= width;
        }
        nbits -= width;

        if (first) {
            if (code != kClear && !kCompat) return IMG_ERR_BAD_IMAGE;
            first = false;
        }
        if (code == kClear) {
            next_ = kFirst;
            width = 9;
            have_prev = false;
            clear_at_ = out_;
            continue;
        }
        if (code == kEnd) return 0;
        if (!make_room(kMaxString + 1)) return IMG_ERR_MEMORY;
        w = window_.data();
        const uint32_t start = out_;
        if (code < 256) {
            w[out_++] = uint8_t(code);
        } else if (code < next_ && have_prev) {
            copy_string(w + out_, w + pos_[code], len_[code]);
            out_ += len_[code];
        } else if (code == next_ && have_prev) {
            // The string of the previous code and its own first byte.
            copy_string(w + out_, w + prev_pos_, prev_len_);
            w[out_ + prev_len_] = w[prev_pos_];
            out_ += prev_len_ + 1;
        } else {
            return IMG_ERR_BAD_IMAGE;
        }
        if (have_prev && next_ < kMaxCodes) {
            // The previous string and this one's first byte stand together
            // in the window already.
            pos_[next_] = prev_pos_;
            len_[next_] = uint16_t(std::min<uint32_t>(prev_len_ + 1, kMaxString));
            ++next_;
            if (next_ + kEarly >= (1u << width) && width < 12) ++width;
        }
        have_prev = true;
        prev_pos_ = start;
        prev_len_ = out_ - start;
        while (out_ - row_start_ >= row_bytes) {
            const int32_t r = emit(context, w + row_start_);
            if (r < 0) return r;
            row_start_ += row_bytes;
            if (++done == rows) return 0;
        }
    }
}

template int32_t LzwDecoder::run<true>(const uint8_t*, size_t, uint32_t, uint32_t, RowFn, void*);
template int32_t LzwDecoder::run<false>(const uint8_t*, size_t, uint32_t, uint32_t, RowFn, void*);

// ---- Encoder ---------------------------------------------------------------

namespace {
constexpr uint32_t kHashBits = 14, kHashSize = 1u << kHashBits;
// At 12 bits the table is restarted once this many entries are in use.
constexpr uint32_t kRestartAt = 4080;
}  // namespace

LzwEncoder::LzwEncoder() : keys_(kHashSize, 0), codes_(kHashSize, 0) {}

void LzwEncoder::reset_table() {
    next_ = kFirst;
    width_ = 9;
    if (++generation_ == 4096) {
        std::fill(keys_.begin(), keys_.end(), 0);
        generation_ = 1;
    }
}

void LzwEncoder::put(uint32_t code, uint32_t width) {
    acc_ = (acc_ << width) | code;
    bits_ += width;
    if (bits_ >= 32) {
        bits_ -= 32;
        const uint32_t v = uint32_t(acc_ >> bits_);
        const size_t at = out_.size();
        out_.resize(at + 4);
        out_[at] = uint8_t(v >> 24);
        out_[at + 1] = uint8_t(v >> 16);
        out_[at + 2] = uint8_t(v >> 8);
        out_[at + 3] = uint8_t(v);
    }
}

void LzwEncoder::begin() {
    acc_ = 0;
    bits_ = 0;
    prefix_ = -1;
    reset_table();
    put(kClear, 9);
}

void LzwEncoder::add(const uint8_t* data, size_t n) {
    out_.reserve(out_.size() + n * 2 + 64);
    size_t i = 0;
    if (prefix_ < 0 && n) prefix_ = data[i++];
    uint32_t prefix = uint32_t(prefix_);
    const uint32_t gen = generation_ << 20;
    uint32_t* const keys = keys_.data();
    uint16_t* const codes = codes_.data();
    uint32_t g = gen;
    for (; i < n; ++i) {
        const uint32_t c = data[i];
        const uint32_t key = (prefix << 8) | c;
        uint32_t h = ((c << 6) ^ prefix) & (kHashSize - 1);
        for (;;) {
            const uint32_t k = keys[h];
            if (k == (g | key)) break;
            if ((k >> 20) != (g >> 20)) break;
            h = (h + 1) & (kHashSize - 1);
        }
        if (keys[h] == (g | key)) {
            prefix = codes[h];
            continue;
        }
        put(prefix, width_);
        keys[h] = g | key;
        codes[h] = uint16_t(next_);
        ++next_;
        if (next_ == (1u << width_) && width_ < 12) ++width_;
        if (width_ == 12 && next_ >= kRestartAt) {
            put(kClear, 12);
            reset_table();
            g = generation_ << 20;
        }
        prefix = c;
    }
    prefix_ = int32_t(prefix);
}

void LzwEncoder::finish() {
    if (prefix_ >= 0) put(uint32_t(prefix_), width_);
    // The reader adds an entry for the last code before it reads the end
    // code, and may reach its next width with it.
    const uint32_t w = (prefix_ >= 0 && next_ + 1 == (1u << width_) && width_ < 12) ? width_ + 1
                                                                                  : width_;
    put(kEnd, w);
    while (bits_ >= 8) {
        bits_ -= 8;
        out_.push_back(uint8_t(acc_ >> bits_));
    }
    if (bits_) out_.push_back(uint8_t(acc_ << (8 - bits_)));
    bits_ = 0;
    acc_ = 0;
    prefix_ = -1;
}

}  // namespace tesslin::tiff
