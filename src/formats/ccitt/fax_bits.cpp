// Bit reader and bit writer of the fax codec.
#include "formats/ccitt/fax_internal.h"

namespace tesslin::ccitt {

// ---- BitReader ---------------------------------------------------------

void BitReader::open_window(BitState& s) {
    in_->ensure(kIoBlock);
    start_ = s.p = in_->data();
    s.end = s.p + in_->buffered();
}

bool BitReader::next_window(BitState& s) {
    if (!in_ || in_->status() < 0) return false;
    const uint32_t used = uint32_t(s.end - start_);
    before_ += used;
    in_->advance(used);
    open_window(s);
    return s.p != s.end;
}

void BitReader::refill_slow(BitState& s) {
    while (s.nbits <= 56) {
        if (s.p == s.end && !next_window(s)) {
            // Past the end: fill bytes, counted so that consuming one shows.
            s.acc |= uint64_t(fill_) << (56 - s.nbits);
            s.nbits += 8;
            if (s.fill_bits < 4096) s.fill_bits += 8;
            continue;
        }
        uint8_t b = *s.p++;
        if (lsb_) b = reverse_bits(b);
        s.acc |= uint64_t(b) << (56 - s.nbits);
        s.nbits += 8;
    }
}

void BitReader::sync_stream() {
    if (!in_) return;
    const uint64_t loaded = before_ + uint64_t(state_.p - start_);
    const int64_t unread = state_.nbits > state_.fill_bits ? state_.nbits - state_.fill_bits : 0;
    const uint64_t used_bits = loaded * 8 - uint64_t(unread);
    const uint64_t used = (used_bits + 7) / 8;
    // The window's bytes up to p are in the reader's buffer: moving back
    // within it is a buffer operation; the stream follows with sync().
    in_->seek(uint32_t(origin_ + used));
    in_->sync();
}

// ---- BitWriter ---------------------------------------------------------

void BitWriter::move_words() {
    while (nacc_ >= 16) {
        buf_[len_] = uint8_t(acc_ >> 56);
        buf_[len_ + 1] = uint8_t(acc_ >> 48);
        len_ += 2;
        acc_ <<= 16;
        nacc_ -= 16;
    }
}

bool BitWriter::write_block() {
    if (len_ == 0) return out_.ok();
    if (reverse_)
        for (uint32_t i = 0; i < len_; ++i) buf_[i] = reverse_bits(buf_[i]);
    if (ioca_) {
        const uint8_t head[4] = {0xFE, 0x92, uint8_t(len_ >> 8), uint8_t(len_)};
        out_.write(head, 4);
    }
    out_.write(buf_, len_);
    len_ = 0;
    return out_.ok();
}

bool BitWriter::write_words() {
    move_words();
    return write_block();
}

bool BitWriter::finish(bool exact_bytes) {
    move_words();
    if (exact_bytes) {
        if (nacc_ > 0) buf_[len_++] = uint8_t(acc_ >> 56);
        if (nacc_ > 8) buf_[len_++] = uint8_t(acc_ >> 48);
    } else if (ioca_ || nacc_ >= 8) {
        buf_[len_] = uint8_t(acc_ >> 56);
        buf_[len_ + 1] = uint8_t(acc_ >> 48);
        len_ += 2;
    } else if (nacc_ > 0) {
        buf_[len_++] = uint8_t(acc_ >> 56);
    }
    acc_ = 0;
    nacc_ = 0;
    return write_block() && out_.flush();
}

}  // namespace tesslin::ccitt
