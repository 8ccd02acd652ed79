// GIF writer: one frame of a 4- or 8-bit palette image, plain or
// interlaced, with a global colour table and LZW data.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/io.h"
#include "formats/gif/gif.h"

namespace tesslin::gif {
namespace {

constexpr uint32_t kTableSize = 4096;
// At 12 bits the table restarts once this code has been assigned.
constexpr uint32_t kRestartCode = 4080;
// Pending bits that make a full data sub-block (253 bytes).
constexpr uint32_t kBlockBits = 2024;

// Codes packed least significant bit first into data sub-blocks of 253 or
// 254 bytes: whenever a whole block is pending before a code goes in, its
// whole bytes are written and the partial byte kept.
class CodePacker {
public:
    explicit CodePacker(StreamWriter& out) : out_(out) {}

    void put(uint32_t code, uint32_t width) {
        if (count_ * 8 + bits_ >= kBlockBits) flush();
        acc_ |= uint64_t(code) << bits_;
        bits_ += width;
        while (bits_ >= 8) {
            block_[count_++] = uint8_t(acc_);
            acc_ >>= 8;
            bits_ -= 8;
        }
    }

    // The last partial byte, the last sub-block and the zero-length block.
    void finish() {
        if (bits_) block_[count_++] = uint8_t(acc_);
        bits_ = 0;
        if (count_) flush();
        out_.put8(0);
    }

private:
    void flush() {
        out_.put8(uint8_t(count_));
        out_.write(block_, count_);
        count_ = 0;
    }

    StreamWriter& out_;
    uint8_t block_[256];
    uint32_t count_ = 0;
    uint64_t acc_ = 0;
    uint32_t bits_ = 0;
};

// The LZW string table of the writer, as an open-addressed hash of
// (prefix code, byte) -> code: a lookup costs one or two probes however many
// strings share a prefix, which a list of children per prefix does not give
// for 8-bit photographs. Which codes are sent depends only on which strings
// are in the table, so the output is the same either way.
class Encoder {
public:
    Encoder(uint32_t k, CodePacker& packer)
        : k_(k), clear_(1u << k), packer_(packer), keys_(kSlots), codes_(kSlots) {
        reset();
        packer_.put(clear_, width_);
    }

    void add(uint8_t index) {
        if (prefix_ < 0) {
            prefix_ = index;
            return;
        }
        // Keys are stored plus one so that zero marks an empty slot.
        const uint32_t key = (uint32_t(prefix_) << 8 | index) + 1;
        uint32_t slot = (key * 0x9E3779B1u) >> (32 - kSlotBits);
        for (uint32_t k; (k = keys_[slot]) != 0; slot = (slot + 1) & (kSlots - 1)) {
            if (k == key) {
                prefix_ = codes_[slot];
                return;
            }
        }
        packer_.put(uint32_t(prefix_), width_);
        if (next_ < kTableSize) {
            const uint32_t code = next_++;
            keys_[slot] = key;
            codes_[slot] = uint16_t(code);
            if (code == limit_) {
                if (width_ < 12) {
                    ++width_;
                    limit_ = 1u << width_;
                    if (limit_ == kTableSize) limit_ = kRestartCode;
                } else {
                    packer_.put(clear_, width_);
                    reset();
                }
            }
        }
        prefix_ = index;
    }

    void finish() {
        if (prefix_ >= 0) packer_.put(uint32_t(prefix_), width_);
        // A reader adds its last entry on reading that code and widens its
        // codes when the table reaches the next power of two: the end code
        // goes out at the width it then reads.
        const bool widens = next_ == (1u << width_) && width_ < 12;
        packer_.put(clear_ + 1, widens ? width_ + 1 : width_);
        packer_.finish();
    }

private:
    // Twice the table's 4,096 codes: the hash is never more than half full.
    static constexpr uint32_t kSlotBits = 13, kSlots = 1u << kSlotBits;

    void reset() {
        std::fill(keys_.begin(), keys_.end(), 0u);
        next_ = clear_ + 2;
        width_ = k_ + 1;
        limit_ = 1u << width_;
    }

    uint32_t k_, clear_;
    CodePacker& packer_;
    std::vector<uint32_t> keys_;
    std::vector<uint16_t> codes_;
    uint32_t next_ = 0, width_ = 0, limit_ = 0;
    int32_t prefix_ = -1;
};

}  // namespace

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant) {
    const uint32_t bits = header->biBitCount;
    if (bits != 4 && bits != 8) return IMG_ERR_DEPTH;
    const int32_t width = header->biWidth, height = header->biHeight;
    if (width < 1 || height < 1 || width > 0xFFFF || height > 0xFFFF) return IMG_ERR_BAD_IMAGE;
    const bool transparent = (header->biClrUsed & kTransparentFlag) != 0;
    const bool interlaced = variant == IMG_FORMAT_GIF_INTERLACED;

    StreamWriter out(stream);
    uint8_t screen[13] = {'G', 'I', 'F', '8', uint8_t(transparent ? '9' : '7'), 'a'};
    store_le16(screen + 6, uint16_t(width));
    store_le16(screen + 8, uint16_t(height));
    screen[10] = uint8_t((bits - 1) | 0x80);
    out.write(screen, sizeof screen);
    uint8_t colours[768];
    const RgbQuad* pal = dib_palette(header);
    const uint32_t entries = 1u << bits;
    for (uint32_t i = 0; i < entries; ++i) {
        colours[3 * i] = pal[i].rgbRed;
        colours[3 * i + 1] = pal[i].rgbGreen;
        colours[3 * i + 2] = pal[i].rgbBlue;
    }
    out.write(colours, 3 * entries);
    if (transparent) {
        const uint8_t control[8] = {0x21, 0xF9, 4, 1, 0, 0, uint8_t(header->biClrUsed), 0};
        out.write(control, sizeof control);
    }
    // The size bits are set without a local table so that the depth comes
    // back on reading.
    uint8_t descriptor[11] = {0x2C};
    store_le16(descriptor + 5, uint16_t(width));
    store_le16(descriptor + 7, uint16_t(height));
    descriptor[9] = uint8_t((bits - 1) | (interlaced ? 0x40 : 0));
    descriptor[10] = uint8_t(bits);  // LZW minimum code size
    out.write(descriptor, sizeof descriptor);
    if (!out.ok()) return out.status();

    CodePacker packer(out);
    Encoder lzw(bits, packer);
    const uint32_t rb = row_bytes(uint32_t(width), bits);
    std::vector<uint8_t> row(rb);
    static constexpr int32_t kStart[4] = {0, 4, 2, 1}, kStep[4] = {8, 8, 4, 2};
    const int32_t passes = interlaced ? 4 : 1;
    for (int32_t pass = 0; pass < passes; ++pass) {
        const int32_t first = interlaced ? kStart[pass] : 0, step = interlaced ? kStep[pass] : 1;
        for (int32_t r = first; r < height; r += step) {
            if (int32_t s = supply(user, row.data(), r, rb); s < 0) return s;
            if (bits == 8) {
                for (int32_t x = 0; x < width; ++x) lzw.add(row[size_t(x)]);
            } else {
                for (int32_t x = 0; x < width; ++x)
                    lzw.add(uint8_t((row[size_t(x) / 2] >> ((x & 1) ? 0 : 4)) & 15));
            }
            if (!out.ok()) return out.status();
        }
    }
    lzw.finish();
    out.put8(0x3B);
    out.flush();
    return out.status();
}

}  // namespace tesslin::gif
