// Buffered input and output over a stream handle: the one way codecs read
// and write bytes. The reader knows how many bytes it holds and reports a
// short read as a status instead of handing out bytes it does not have.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "core/dib.h"
#include "core/stream.h"
#include "tesslin/tesslin.h"

namespace tesslin {

class StreamReader {
public:
    // Starts at the stream's current position.
    explicit StreamReader(int32_t stream, uint32_t block = kIoBlock)
        : stream_(stream), block_(block ? block : kIoBlock) {
        int32_t here = stream::seek(stream, 0, 1);
        base_ = here > 0 ? static_cast<uint32_t>(here) : 0;
    }

    StreamReader(const StreamReader&) = delete;
    StreamReader& operator=(const StreamReader&) = delete;

    int32_t stream() const { return stream_; }

    // First failure seen (IMG_ERR_READ for a short read, IMG_ERR_STREAM_FAULT for a fault,
    // IMG_ERR_MEMORY for no memory), or 0.
    int32_t status() const { return status_; }
    bool ok() const { return status_ == 0; }
    void fail(int32_t status) {
        if (status_ == 0) status_ = status;
    }

    // Logical position in the stream (what has been consumed).
    uint32_t tell() const { return base_ + pos_; }

    // Moves to an absolute offset. Keeps the buffer when the target is in it.
    bool seek(uint32_t offset) {
        if (offset >= base_ && offset <= base_ + len_) {
            pos_ = offset - base_;
            return true;
        }
        int32_t r = stream::seek(stream_, static_cast<int32_t>(offset), 0);
        if (r < 0) {
            fail(r == IMG_ERR_STREAM_FAULT ? r : IMG_ERR_READ);
            return false;
        }
        base_ = offset;
        pos_ = len_ = 0;
        eof_ = false;
        return true;
    }

    // Puts the underlying stream at the logical position, for handing the
    // stream to another reader.
    bool sync() {
        int32_t r = stream::seek(stream_, static_cast<int32_t>(tell()), 0);
        return r >= 0;
    }

    // Bytes already buffered beyond the position.
    uint32_t buffered() const { return len_ - pos_; }

    // Ensures at least n bytes are buffered (n at most the block size);
    // fewer are available only at the end of the data.
    uint32_t ensure(uint32_t n) {
        if (len_ - pos_ >= n || eof_) return len_ - pos_;
        refill(n);
        return len_ - pos_;
    }

    // Direct view of the buffered bytes at the position.
    const uint8_t* data() const { return buf_.get() + pos_; }
    void advance(uint32_t n) { pos_ += n <= len_ - pos_ ? n : len_ - pos_; }

    // Reads exactly n bytes; false and status IMG_ERR_READ when the data ends first.
    bool read(void* out, uint32_t n) {
        auto* dst = static_cast<uint8_t*>(out);
        while (n) {
            if (pos_ == len_) {
                if (n >= block_) {
                    // Large reads bypass the buffer.
                    base_ += len_;
                    pos_ = len_ = 0;
                    int32_t got = stream::read(stream_, dst, n);
                    if (got < 0) {
                        fail(got);
                        return false;
                    }
                    base_ += static_cast<uint32_t>(got);
                    if (static_cast<uint32_t>(got) < n) {
                        eof_ = true;
                        fail(IMG_ERR_READ);
                        return false;
                    }
                    return true;
                }
                if (!refill(1)) {
                    fail(IMG_ERR_READ);
                    return false;
                }
            }
            uint32_t take = len_ - pos_ < n ? len_ - pos_ : n;
            std::memcpy(dst, buf_.get() + pos_, take);
            pos_ += take;
            dst += take;
            n -= take;
        }
        return true;
    }

    // Reads up to n bytes; returns how many arrived (no status on a short read).
    uint32_t read_some(void* out, uint32_t n) {
        auto* dst = static_cast<uint8_t*>(out);
        uint32_t done = 0;
        while (done < n) {
            if (pos_ == len_ && !refill(1)) break;
            uint32_t take = len_ - pos_ < n - done ? len_ - pos_ : n - done;
            std::memcpy(dst + done, buf_.get() + pos_, take);
            pos_ += take;
            done += take;
        }
        return done;
    }

    bool skip(uint32_t n) {
        if (n <= len_ - pos_) {
            pos_ += n;
            return true;
        }
        return seek(tell() + n);
    }

    // Single values; on a short read they return 0 and set the status.
    uint8_t u8() {
        if (pos_ == len_ && !refill(1)) {
            fail(IMG_ERR_READ);
            return 0;
        }
        return buf_[pos_++];
    }
    // -1 at the end of the data, without setting the status.
    int byte_or_eof() {
        if (pos_ == len_ && !refill(1)) return -1;
        return buf_[pos_++];
    }
    uint16_t le16() { return fixed<2>(load_le16); }
    uint32_t le32() { return fixed<4>(load_le32); }
    uint16_t be16() { return fixed<2>(load_be16); }
    uint32_t be32() { return fixed<4>(load_be32); }

    bool at_end() {
        return pos_ == len_ && !refill(1);
    }

private:
    template <uint32_t N, typename F>
    auto fixed(F load) -> decltype(load(nullptr)) {
        if (ensure(N) < N) {
            pos_ = len_;
            fail(IMG_ERR_READ);
            return 0;
        }
        auto v = load(buf_.get() + pos_);
        pos_ += N;
        return v;
    }

    // Moves the unread tail to the front and reads more behind it.
    bool refill(uint32_t want) {
        if (!buf_) {
            buf_.reset(new (std::nothrow) uint8_t[block_]);
            if (!buf_) {
                fail(IMG_ERR_MEMORY);
                return false;
            }
        }
        uint32_t keep = len_ - pos_;
        if (keep && pos_) std::memmove(buf_.get(), buf_.get() + pos_, keep);
        base_ += pos_;
        pos_ = 0;
        len_ = keep;
        while (len_ < want && !eof_) {
            int32_t got = stream::read(stream_, buf_.get() + len_, block_ - len_);
            if (got < 0) {
                fail(got);
                eof_ = true;
                break;
            }
            if (got == 0) {
                eof_ = true;
                break;
            }
            len_ += static_cast<uint32_t>(got);
        }
        return len_ >= want;
    }

    int32_t stream_;
    uint32_t block_;
    std::unique_ptr<uint8_t[]> buf_;
    uint32_t base_ = 0;  // stream offset of buf_[0]
    uint32_t pos_ = 0;
    uint32_t len_ = 0;
    bool eof_ = false;
    int32_t status_ = 0;
};

// Buffered writer: collects output and writes it in blocks. A short write
// becomes status IMG_ERR_WRITE (a fault IMG_ERR_STREAM_FAULT); later writes are then ignored.
class StreamWriter {
public:
    explicit StreamWriter(int32_t stream, uint32_t block = kIoBlock)
        : stream_(stream), block_(block ? block : kIoBlock) {}
    ~StreamWriter() = default;
    StreamWriter(const StreamWriter&) = delete;
    StreamWriter& operator=(const StreamWriter&) = delete;

    int32_t status() const { return status_; }
    bool ok() const { return status_ == 0; }
    int32_t stream() const { return stream_; }

    bool write(const void* data, uint32_t n) {
        if (status_) return false;
        const auto* src = static_cast<const uint8_t*>(data);
        if (!buf_) {
            buf_.reset(new (std::nothrow) uint8_t[block_]);
            if (!buf_) {
                status_ = IMG_ERR_MEMORY;
                return false;
            }
        }
        while (n) {
            if (len_ == block_ && !flush()) return false;
            if (len_ == 0 && n >= block_) return direct(src, n);
            uint32_t take = block_ - len_ < n ? block_ - len_ : n;
            std::memcpy(buf_.get() + len_, src, take);
            len_ += take;
            src += take;
            n -= take;
        }
        return true;
    }
    bool put8(uint8_t v) { return write(&v, 1); }
    bool le16(uint16_t v) {
        uint8_t b[2];
        store_le16(b, v);
        return write(b, 2);
    }
    bool le32(uint32_t v) {
        uint8_t b[4];
        store_le32(b, v);
        return write(b, 4);
    }
    bool be16(uint16_t v) {
        uint8_t b[2];
        store_be16(b, v);
        return write(b, 2);
    }
    bool be32(uint32_t v) {
        uint8_t b[4];
        store_be32(b, v);
        return write(b, 4);
    }

    // Writes what is buffered; returns false (status set) on a short write.
    bool flush() {
        if (status_) return false;
        if (!len_) return true;
        uint32_t n = len_;
        len_ = 0;
        return direct(buf_.get(), n);
    }

    // Bytes handed to write() so far.
    uint64_t total() const { return written_ + len_; }

private:
    bool direct(const uint8_t* src, uint32_t n) {
        int32_t w = stream::write(stream_, src, n);
        if (w < 0) {
            status_ = w;
            return false;
        }
        written_ += static_cast<uint32_t>(w);
        if (static_cast<uint32_t>(w) != n) {
            status_ = IMG_ERR_WRITE;
            return false;
        }
        return true;
    }

    int32_t stream_;
    uint32_t block_;
    std::unique_ptr<uint8_t[]> buf_;
    uint32_t len_ = 0;
    uint64_t written_ = 0;
    int32_t status_ = 0;
};

}  // namespace tesslin
