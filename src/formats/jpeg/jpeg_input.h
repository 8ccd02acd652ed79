// Input for the JPEG decoder: a bounded, seekable window over the stream
// that keeps a little history behind the read position, and the
// entropy-coded bit reader built on it.
//
// The bit reader takes bits most significant first; a 0x00 byte that
// follows a 0xFF data byte is skipped; markers are not recognised inside
// entropy-coded data (their bytes are data like any other). Past the end of
// the stream it supplies zero bytes, and reports that it has done so once
// any of those bits has been consumed. It keeps up to 64 bits ahead; the
// positions it reports (the byte holding the next unread bit, the first
// byte not consumed) are those of a reader that takes one bit at a time.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "core/stream.h"
#include "formats/jpeg/jpeg_internal.h"
#include "tesslin/tesslin.h"

namespace tesslin::jpeg {

class Source {
public:
    static constexpr uint32_t kChunk = 64 * 1024;
    static constexpr uint32_t kHistory = 64;

    explicit Source(int32_t stream) : stream_(stream) {}
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    bool init() {
        buf_.reset(new (std::nothrow) uint8_t[kChunk + kHistory]);
        return buf_ != nullptr;
    }

    // First stream fault seen (IMG_ERR_STREAM_FAULT), else 0.
    int32_t fault() const { return fault_; }

    uint64_t tell() const { return base_ + pos_; }

    void seek(uint64_t offset) {
        if (offset >= base_ && offset <= base_ + len_) {
            pos_ = static_cast<uint32_t>(offset - base_);
            return;
        }
        base_ = offset;
        pos_ = len_ = 0;
        eof_ = false;
    }

    // Makes up to n bytes (n <= kChunk) available at the position; returns
    // how many are.
    uint32_t ensure(uint32_t n) {
        if (len_ - pos_ < n && !eof_) refill(n);
        return len_ - pos_;
    }
    const uint8_t* data() const { return buf_.get() + pos_; }
    void advance(uint32_t n) { pos_ += n; }

    // -1 at the end of the data.
    int byte() {
        if (pos_ == len_ && ensure(1) == 0) return -1;
        return buf_[pos_++];
    }
    // Exactly n bytes, or false at the end of the data.
    bool read(uint8_t* out, uint32_t n) {
        while (n) {
            uint32_t have = ensure(n < kChunk ? n : kChunk);
            if (!have) return false;
            uint32_t take = have < n ? have : n;
            std::memcpy(out, data(), take);
            pos_ += take;
            out += take;
            n -= take;
        }
        return true;
    }
    // Big-endian 16-bit value, -1 at the end of the data.
    int32_t be16() {
        if (ensure(2) < 2) {
            pos_ = len_;
            return -1;
        }
        int32_t v = (buf_[pos_] << 8) | buf_[pos_ + 1];
        pos_ += 2;
        return v;
    }

private:
    void refill(uint32_t n) {
        // Keep kHistory bytes behind the position so that recent bytes can
        // be read again after a short step back.
        uint32_t keep_from = pos_ > kHistory ? pos_ - kHistory : 0;
        if (keep_from) {
            std::memmove(buf_.get(), buf_.get() + keep_from, len_ - keep_from);
            base_ += keep_from;
            pos_ -= keep_from;
            len_ -= keep_from;
        }
        while (len_ - pos_ < n && !eof_) {
            const uint64_t want_at = base_ + len_;
            if (want_at > 0x7FFFFFFF) {
                eof_ = true;
                break;
            }
            if (os_pos_ != want_at) {
                int32_t r = stream::seek(stream_, static_cast<int32_t>(want_at), 0);
                if (r < 0 || static_cast<uint64_t>(r) != want_at) {
                    if (r == IMG_ERR_STREAM_FAULT && !fault_) fault_ = r;
                    eof_ = true;
                    os_pos_ = UINT64_MAX;
                    break;
                }
                os_pos_ = want_at;
            }
            const uint32_t room = kChunk + kHistory - len_;
            int32_t got = stream::read(stream_, buf_.get() + len_, room);
            if (got <= 0) {
                if (got == IMG_ERR_STREAM_FAULT && !fault_) fault_ = got;
                eof_ = true;
                os_pos_ = UINT64_MAX;
                break;
            }
            len_ += static_cast<uint32_t>(got);
            os_pos_ += static_cast<uint32_t>(got);
        }
    }

    int32_t stream_;
    std::unique_ptr<uint8_t[]> buf_;
    uint64_t base_ = 0;  // stream offset of buf_[0]
    uint32_t pos_ = 0, len_ = 0;
    bool eof_ = false;
    uint64_t os_pos_ = UINT64_MAX;  // where the stream stands, when known
    int32_t fault_ = 0;
};

// The reader's bit window by value, for decoding loops that keep it in
// registers and hand it back before any slower step. The `nbits` bits held
// are the top of `acc`, the bits below them zero: the next n bits are one
// shift away, and consuming bits is one shift too.
struct BitWindow {
    uint64_t acc;
    const uint8_t* p;
    const uint8_t* lim;
    int nbits;
    uint32_t stuffed;

    uint32_t peek(int n) const { return static_cast<uint32_t>(acc >> (64 - n)); }
    // Consumes the count in the low six bits of `e` (a fast-table entry).
    void consume(uint32_t e) {
        acc <<= (e & 63);
        nbits -= static_cast<int>(e & 63);
    }
    // One step of BitReader::fill's usual case: true when at least 57 bits
    // are held afterwards.
    __attribute__((always_inline)) bool quick_fill() {
        if (lim - p < 8) return false;
        uint64_t w;
        std::memcpy(&w, p, 8);
        w = __builtin_bswap64(w);
        const uint64_t inv = ~w;  // a 0xFF byte becomes a zero byte
        if ((inv - 0x0101010101010101ull) & ~inv & 0x8080808080808080ull) return false;
        int n = (64 - nbits) >> 3;
        if (n > 7) n = 7;
        acc |= (w & ~(~0ull >> (8 * n))) >> nbits;
        nbits += 8 * n;
        p += n;
        stuffed <<= n;
        return nbits > 56;
    }
};

class BitReader {
public:
    BitWindow window() const { return BitWindow{acc_, p_, lim_, nbits_, stuffed_}; }
    void set_window(const BitWindow& w) {
        acc_ = w.acc;
        p_ = w.p;
        lim_ = w.lim;
        nbits_ = w.nbits;
        stuffed_ = w.stuffed;
    }

    explicit BitReader(Source& src) : src_(src) {}

    // Starts reading entropy-coded data at a stream offset.
    void start(uint64_t offset) {
        src_.seek(offset);
        reset_bits();
    }

    // True when no byte of data is left at the position (nothing to decode).
    bool at_end() { return src_.ensure(1) == 0; }

    // At least 57 bits are held afterwards. The usual case, eight bytes at
    // hand without a 0xFF among them, is one load.
    __attribute__((always_inline)) void fill() {
        if (nbits_ > 56) return;
        if (lim_ - p_ >= 8) {
            uint64_t w;
            std::memcpy(&w, p_, 8);
            w = __builtin_bswap64(w);
            const uint64_t inv = ~w;  // a 0xFF byte becomes a zero byte
            if (!((inv - 0x0101010101010101ull) & ~inv & 0x8080808080808080ull)) {
                int n = (64 - nbits_) >> 3;
                if (n > 7) n = 7;
                acc_ |= (w & ~(~0ull >> (8 * n))) >> nbits_;
                nbits_ += 8 * n;
                p_ += n;
                stuffed_ <<= n;
                if (nbits_ > 56) return;
            }
        }
        fill_slow();
    }

    int bits_held() const { return nbits_; }

    uint32_t peek(int n) const { return static_cast<uint32_t>(acc_ >> (64 - n)); }
    void skip(int n) {
        acc_ <<= n;
        nbits_ -= n;
    }

    uint32_t get(int n) {
        if (n == 0) return 0;
        if (nbits_ < n) fill();
        uint32_t v = peek(n);
        skip(n);
        return v;
    }

    // Symbol of the next Huffman code, or -1 when no code of up to 16 bits
    // matches (the 16 bits are consumed, as by a reader that takes one bit
    // at a time until it gives up).
    int decode(const HuffmanDecode& t) {
        if (nbits_ < 16) fill();
        const uint16_t e = t.look[peek(kLookBits)];
        if (e) {
            skip(e >> 8);
            return e & 0xFF;
        }
        return decode_long(t);
    }

    int decode_long(const HuffmanDecode& t) {
        if (nbits_ < 16) fill();
        for (int len = kLookBits + 1; len <= 16; ++len) {
            const int32_t code = static_cast<int32_t>(peek(len));
            if (code <= t.maxcode[len]) {
                skip(len);
                return t.symbols[(code + t.offset[len]) & 0xFF];
            }
        }
        skip(16);
        return -1;
    }

    // Drops the rest of a partly used byte.
    void align() { skip(nbits_ & 7); }

    // True once a bit beyond the end of the data has been consumed.
    bool starved() const { return virt_ * 8 > static_cast<uint32_t>(nbits_); }

    // Stream offset of the first byte not consumed (a partly used byte
    // counts as consumed; a skipped 0x00 after a used 0xFF too).
    uint64_t consumed_end() const {
        uint64_t end = position_after_held();
        const int whole = nbits_ >> 3;
        for (int i = 0; i < whole; ++i) end -= 1 + ((stuffed_ >> i) & 1);
        return end;
    }

    // Restart: looks for 0xFF followed by 0xD0..0xD7 at the byte holding
    // the next unread bit and the 49 bytes after it. When found, reading
    // continues after the marker with a fresh byte and true is returned;
    // otherwise nothing changes.
    bool restart() {
        const int whole = nbits_ >> 3;
        uint64_t at = consumed_end();
        if (nbits_ & 7) at -= 1 + ((stuffed_ >> whole) & 1);
        const uint64_t saved = position_in_source();
        src_.seek(at);
        uint8_t window[51];
        uint32_t have = 0;
        while (have < sizeof window) {
            int b = src_.byte();
            if (b < 0) break;
            window[have++] = static_cast<uint8_t>(b);
        }
        for (uint32_t i = 0; i + 1 < have; ++i) {
            if (window[i] == 0xFF && window[i + 1] >= 0xD0 && window[i + 1] <= 0xD7) {
                start(at + i + 2);
                return true;
            }
        }
        src_.seek(saved);
        reload();
        return false;
    }

    // Hands the read position back to the source (for the segment parser).
    void sync() { src_.advance(static_cast<uint32_t>(p_ - src_.data())); reload(); }

private:
    __attribute__((noinline)) void fill_slow() {
        while (nbits_ <= 56) {
            if (lim_ - p_ >= 8) {
                uint64_t w;
                std::memcpy(&w, p_, 8);
                w = __builtin_bswap64(w);
                const uint64_t inv = ~w;
                if (!((inv - 0x0101010101010101ull) & ~inv & 0x8080808080808080ull)) {
                    int n = (64 - nbits_) >> 3;
                    if (n > 7) n = 7;
                    acc_ |= (w & ~(~0ull >> (8 * n))) >> nbits_;
                    nbits_ += 8 * n;
                    p_ += n;
                    stuffed_ <<= n;
                    continue;
                }
            }
            fill_byte();
        }
    }

    void reset_bits() {
        acc_ = 0;
        nbits_ = 0;
        stuffed_ = 0;
        virt_ = 0;
        reload();
    }

    void reload() {
        p_ = src_.data();
        lim_ = p_ + src_.ensure(0);
    }

    uint64_t position_in_source() const {
        return src_.tell() + static_cast<uint64_t>(p_ - src_.data());
    }
    uint64_t position_after_held() const { return position_in_source() + virt_; }

    bool window_has(uint32_t n) {
        if (static_cast<uint32_t>(lim_ - p_) >= n) return true;
        src_.advance(static_cast<uint32_t>(p_ - src_.data()));
        uint32_t have = src_.ensure(Source::kChunk);
        p_ = src_.data();
        lim_ = p_ + have;
        return have >= n;
    }

    void fill_byte() {
        if (virt_ || !window_has(1)) {
            nbits_ += 8;  // zero bits
            stuffed_ <<= 1;
            ++virt_;
            return;
        }
        const uint8_t c = *p_++;
        uint32_t st = 0;
        if (c == 0xFF && window_has(1) && *p_ == 0) {
            ++p_;
            st = 1;
        }
        acc_ |= static_cast<uint64_t>(c) << (56 - nbits_);
        nbits_ += 8;
        stuffed_ = (stuffed_ << 1) | st;
    }

    Source& src_;
    const uint8_t* p_ = nullptr;
    const uint8_t* lim_ = nullptr;
    uint64_t acc_ = 0;  // nbits_ bits at the top, zeros below
    int nbits_ = 0;
    uint32_t stuffed_ = 0;  // bit i: the i-th newest byte held was followed by a skipped 0x00
    uint32_t virt_ = 0;     // zero bytes supplied past the end of the data
};

}  // namespace tesslin::jpeg
