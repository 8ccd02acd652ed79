// GIF reader: the walk over the blocks to the chosen frame, the frame count,
// the animation delay, and the LZW decoder that delivers the frame's rows.
#include <cstring>
#include <memory>
#include <vector>

#include "core/io.h"
#include "core/limits.h"
#include "core/stream.h"
#include "formats/gif/gif.h"

namespace tesslin::gif {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the code reader loads little-endian words");

constexpr int kExtension = 0x21, kImage = 0x2C, kControlLabel = 0xF9;
constexpr uint32_t kTableSize = 4096;
constexpr uint32_t kLongestCode = 12;
// Sub-blocks gathered at a time when the code reader runs dry.
constexpr uint32_t kGather = 30;
// to_separator: the data ended while looking for an image separator.
constexpr int32_t kLost = 1;

// A stream fault or memory failure seen by the reader, else `otherwise`.
int32_t fault(const StreamReader& in, int32_t otherwise) {
    const int32_t s = in.status();
    return s == IMG_ERR_STREAM_FAULT || s == IMG_ERR_MEMORY ? s : otherwise;
}

// What the blocks before an image leave in force: the colour table and the
// last graphic control extension.
struct Blocks {
    explicit Blocks(StreamReader& reader) : in(reader) {}
    StreamReader& in;
    uint8_t colours[768] = {};
    bool control_seen = false;
    bool transparent = false;
    uint8_t transparent_index = 0;
    uint16_t delay = 0;
};

// The 13-byte screen descriptor and the global colour table.
int32_t read_screen(Blocks& b, uint8_t* screen) {
    if (!b.in.read(screen, 13)) return fault(b.in, IMG_ERR_READ);
    if ((screen[10] & 0x80) && !b.in.read(b.colours, 3u << ((screen[10] & 7) + 1)))
        return fault(b.in, IMG_ERR_READ);
    return 0;
}

// Data sub-blocks up to and including the zero-length terminator; false
// when the data ends first.
bool skip_sub_blocks(StreamReader& in) {
    for (;;) {
        const int n = in.byte_or_eof();
        if (n < 0) return false;
        if (n == 0) return true;
        if (!in.skip(uint32_t(n))) return false;
    }
}

// The rest of an extension whose introducer has been read: its label and
// sub-blocks. A graphic control extension is kept. False when the data
// ends inside it.
bool read_extension(Blocks& b) {
    StreamReader& in = b.in;
    const int label = in.byte_or_eof();
    if (label < 0) return false;
    if (label != kControlLabel) return skip_sub_blocks(in);
    const int n = in.byte_or_eof();
    if (n < 0) return false;
    if (n == 0) return true;  // an empty extension: that was its terminator
    uint8_t data[255];
    if (!in.read(data, uint32_t(n))) return false;
    if (n >= 4) {
        b.control_seen = true;
        b.transparent = (data[0] & 1) != 0;
        b.delay = load_le16(data + 1);
        b.transparent_index = data[3];
    }
    return skip_sub_blocks(in);
}

// Reads blocks from byte `c` on until an image separator has been read:
// extensions are passed over (the graphic control extension kept), and any
// other byte starts a scan for the next separator. 0 at a separator; `cut`
// when an extension ends early; `lost` when the data ends without one.
int32_t to_separator(Blocks& b, int c, int32_t cut, int32_t lost) {
    StreamReader& in = b.in;
    for (;;) {
        if (c == kImage) return 0;
        if (c == kExtension) {
            if (!read_extension(b)) return fault(in, cut);
            c = in.byte_or_eof();
            continue;
        }
        do c = in.byte_or_eof();
        while (c >= 0 && c != kImage);
        if (c < 0) return fault(in, lost);
    }
}

// Passes over the image whose separator has been read and the blocks up to
// the next separator. A frame whose data is cut short ends the walk there,
// so that the next descriptor read fails.
int32_t skip_frame(Blocks& b) {
    StreamReader& in = b.in;
    uint8_t d[9];
    if (!in.read(d, 9)) return fault(in, kNoFrame);
    if ((d[8] & 0x80) && !in.skip(3u << ((d[8] & 7) + 1))) return fault(in, kNoFrame);
    if (in.byte_or_eof() < 0 || !skip_sub_blocks(in)) return fault(in, 0);
    const int32_t s = to_separator(b, in.byte_or_eof(), IMG_ERR_NO_PAGE, kLost);
    return s == kLost ? 0 : s;
}

// Codes read least significant bit first from the concatenated sub-blocks.
class CodeReader {
public:
    explicit CodeReader(StreamReader& in) : in_(in), data_(kGather * 255 + 8) {}

    // The next code of `width` bits; false when the data runs out first.
    bool next(uint32_t width, uint32_t* code) {
        if (bits_ < width) {
            if (end_ - p_ >= 8) {
                // Whole bytes into the accumulator at once. Bytes beyond
                // those counted land where the next load puts them again.
                uint64_t v;
                std::memcpy(&v, p_, 8);
                acc_ |= v << bits_;
                p_ += (63 - bits_) >> 3;
                bits_ |= 56;
            } else {
                while (bits_ < width) {
                    if (p_ == end_ && !gather()) return false;
                    acc_ |= uint64_t(*p_++) << bits_;
                    bits_ += 8;
                }
            }
        }
        *code = uint32_t(acc_) & ((1u << width) - 1);
        acc_ >>= width;
        bits_ -= width;
        return true;
    }

    int32_t status() const { return in_.status(); }

private:
    // Up to kGather further sub-blocks; false when none arrived. The
    // terminator or the end of the data ends the supply for good.
    bool gather() {
        if (done_) return false;
        uint32_t n = 0;
        for (uint32_t i = 0; i < kGather; ++i) {
            const int size = in_.byte_or_eof();
            if (size <= 0) {
                done_ = true;
                break;
            }
            const uint32_t got = in_.read_some(data_.data() + n, uint32_t(size));
            n += got;
            if (got < uint32_t(size)) {
                done_ = true;
                break;
            }
        }
        p_ = data_.data();
        end_ = p_ + n;
        return n > 0;
    }

    StreamReader& in_;
    std::vector<uint8_t> data_;
    const uint8_t* p_ = nullptr;
    const uint8_t* end_ = nullptr;
    uint64_t acc_ = 0;
    uint32_t bits_ = 0;
    bool done_ = false;
};

// Where decoded indices go: whole rows to the raster callback, in the
// row order of the frame (sequential, or the four interlace passes).
class RowSink {
public:
    RowSink(uint32_t width, uint32_t height, uint32_t bits, bool interlaced,
            IMG_RASTER_CALLBACK raster, intptr_t user)
        : width_(width), height_(height), bits_(bits), interlaced_(interlaced),
          raster_(raster), user_(user), row_(row_bytes(width, bits), 0) {}

    bool finished() const { return done_; }

    // Delivers one row of `width` indices; a negative callback status.
    int32_t deliver(const uint8_t* indices) {
        uint8_t* out = row_.data();
        if (bits_ == 8) {
            std::memcpy(out, indices, width_);
        } else {
            const uint32_t pairs = width_ / 2;
            for (uint32_t i = 0; i < pairs; ++i)
                out[i] = uint8_t((indices[2 * i] << 4) | (indices[2 * i + 1] & 15));
            if (width_ & 1) out[pairs] = uint8_t(indices[width_ - 1] << 4);
        }
        const int32_t s = raster_(out, user_, int32_t(row_index_), uint32_t(row_.size()));
        if (s < 0) return s;
        advance();
        return 0;
    }

private:
    void advance() {
        static constexpr uint32_t kStart[4] = {0, 4, 2, 1}, kStep[4] = {8, 8, 4, 2};
        if (!interlaced_) {
            done_ = ++row_index_ >= height_;
            return;
        }
        row_index_ += kStep[pass_];
        while (row_index_ >= height_) {
            if (++pass_ == 4) {
                done_ = true;
                return;
            }
            row_index_ = kStart[pass_];
        }
    }

    uint32_t width_, height_, bits_;
    bool interlaced_;
    IMG_RASTER_CALLBACK raster_;
    intptr_t user_;
    std::vector<uint8_t> row_;
    uint32_t row_index_ = 0, pass_ = 0;
    bool done_ = false;
};

// LZW data of code size k (1 to 8) into rows. 0 when the data ends (end
// code, a code beyond the table, or no more data) or the last row is out;
// IMG_ERR_BAD_IMAGE when the first code is not the clear code; a negative
// callback status.
int32_t decode_lzw(StreamReader& in, uint32_t k, uint32_t width, RowSink& sink) {
    const uint32_t clear = 1u << k, end = clear + 1;
    struct Entry {
        uint16_t prefix;
        uint16_t length;
        uint8_t last;
        uint8_t first;
    };
    std::unique_ptr<Entry[]> table(new Entry[kTableSize]);
    for (uint32_t c = 0; c < clear; ++c) table[c] = Entry{0, 1, uint8_t(c), uint8_t(c)};
    // Indices of up to one row plus the longest string.
    std::vector<uint8_t> buffer(size_t(width) + kTableSize + 8);
    uint8_t* const out = buffer.data();
    size_t pos = 0;

    CodeReader codes(in);
    uint32_t code = 0;
    if (!codes.next(k + 1, &code) || code != clear) return fault(in, IMG_ERR_BAD_IMAGE);
    uint32_t next = clear + 2, code_width = k + 1;
    uint32_t prev = clear;  // clear: no previous string
    for (;;) {
        if (!codes.next(code_width, &code)) return fault(in, 0);
        size_t length;
        if (code < clear) {
            out[pos] = uint8_t(code);
            length = 1;
        } else if (code == clear) {
            next = clear + 2;
            code_width = k + 1;
            prev = clear;
            continue;
        } else if (code == end || prev == clear) {
            return 0;  // the end code, or a string code with nothing before it
        } else if (code < next) {
            length = table[code].length;
            uint8_t* o = out + pos + length - 1;
            uint32_t c = code;
            while (c >= clear) {
                *o-- = table[c].last;
                c = table[c].prefix;
            }
            *o = uint8_t(c);
        } else if (code == next) {
            // The string being defined: the previous one and its first byte.
            length = size_t(table[prev].length) + 1;
            uint8_t* o = out + pos + length - 1;
            *o-- = table[prev].first;
            uint32_t c = prev;
            while (c >= clear) {
                *o-- = table[c].last;
                c = table[c].prefix;
            }
            *o = uint8_t(c);
        } else {
            return 0;  // beyond the table: the data ends here
        }
        if (prev != clear && next < kTableSize) {
            table[next] = Entry{uint16_t(prev), uint16_t(table[prev].length + 1), out[pos],
                                table[prev].first};
            if (++next >= (1u << code_width) && code_width < kLongestCode) ++code_width;
        }
        prev = code;
        pos += length;
        if (pos >= width) {
            size_t taken = 0;
            while (pos - taken >= width) {
                if (int32_t s = sink.deliver(out + taken)) return s;
                taken += width;
                if (sink.finished()) return 0;
            }
            std::memmove(out, out + taken, pos - taken);
            pos -= taken;
        }
    }
}

}  // namespace

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    const bool paged = position_is_page(position);
    uint32_t base = position, frame = 0;
    if (paged) {
        const int32_t here = stream::seek(stream, 0, 1);
        if (here < 0) return here;
        base = uint32_t(here);
        frame = position_page(position);
    }
    StreamReader in(stream);
    if (!in.seek(base)) return fault(in, IMG_ERR_READ);
    Blocks b(in);
    uint8_t screen[13];
    if (int32_t s = read_screen(b, screen)) return s;
    if (int32_t s = to_separator(b, in.byte_or_eof(), IMG_ERR_BAD_IMAGE, IMG_ERR_BAD_IMAGE))
        return s;
    for (uint32_t i = 0; i < frame; ++i)
        if (int32_t s = skip_frame(b)) return s;

    uint8_t d[9];
    if (!in.read(d, 9)) return fault(in, paged ? kNoFrame : IMG_ERR_READ);
    const uint32_t width = load_le16(d + 4), height = load_le16(d + 6);
    if (int32_t s = limits::check_dimensions(width, height)) return s;
    const uint32_t size_bits = d[8] & 7, colours = 2u << size_bits;
    const uint32_t bits = colours >= 4 && colours <= 16 ? 4 : 8;
    limits::ImageBytes size;
    if (int32_t s = limits::image_bytes(width, height, bits, &size)) return s;
    if ((d[8] & 0x80) && !in.read(b.colours, 3 * colours)) return fault(in, IMG_ERR_READ);
    const int min_code = in.byte_or_eof();
    if (min_code < 0) return fault(in, IMG_ERR_READ);
    if (int32_t s = limits::check_declared_size(stream::capacity(stream), in.tell(),
                                                uint64_t(width) * height, limits::kLzw,
                                                IMG_ERR_BAD_IMAGE))
        return s;

    alignas(DibHeader) uint8_t block[kHeaderBlockSize] = {};
    auto* h = reinterpret_cast<DibHeader*>(block);
    *h = dib_header(int32_t(width), int32_t(height), uint16_t(bits));
    h->biClrUsed = b.transparent ? kTransparentFlag | b.transparent_index : 0;
    RgbQuad* pal = dib_palette(block);
    for (uint32_t i = 0; i < (1u << bits); ++i)
        pal[i] = RgbQuad{b.colours[3 * i + 2], b.colours[3 * i + 1], b.colours[3 * i], 0};
    if (int32_t s = header(h, user); s < 0) return s;

    const uint32_t k = min_code >= 1 && min_code <= 8 ? uint32_t(min_code) : size_bits + 1;
    RowSink sink(width, height, bits, (d[8] & 0x40) != 0, raster, user);
    return decode_lzw(in, k, width, sink);
}

int32_t count_frames(int32_t stream) {
    StreamReader in(stream, 4096);
    Blocks b(in);
    uint8_t screen[13];
    if (int32_t s = read_screen(b, screen)) return s;
    int32_t frames = 0;
    if (to_separator(b, in.byte_or_eof(), IMG_ERR_BAD_IMAGE, kLost) != 0) return frames;
    for (;;) {
        uint8_t d[9];
        if (!in.read(d, 9)) return frames;
        ++frames;
        if ((d[8] & 0x80) && !in.skip(3u << ((d[8] & 7) + 1))) return frames;
        if (in.byte_or_eof() < 0 || !skip_sub_blocks(in)) return frames;
        if (to_separator(b, in.byte_or_eof(), IMG_ERR_BAD_IMAGE, kLost) != 0) return frames;
    }
}

int32_t refine_code(int32_t stream) {
    StreamReader in(stream, 4096);
    uint8_t screen[13];
    if (!in.read(screen, 13)) return in.status();
    if (screen[10] & 0x80) in.skip(3u << ((screen[10] & 7) + 1));
    for (;;) {
        const int c = in.byte_or_eof();
        if (c < 0) return in.ok() ? IMG_ERR_BAD_IMAGE : in.status();
        if (c == kExtension) {
            in.u8();  // label
            if (!skip_sub_blocks(in)) return fault(in, IMG_ERR_BAD_IMAGE);
        } else if (c == kImage) {
            uint8_t d[9];
            if (!in.read(d, 9)) return in.status();
            in.sync();
            return (d[8] & 0x40) ? IMG_FORMAT_GIF_INTERLACED : IMG_FORMAT_GIF;
        } else {
            return IMG_ERR_BAD_IMAGE;
        }
    }
}

int32_t animation_delay(int32_t stream) {
    StreamReader in(stream, 4096);
    Blocks b(in);
    uint8_t screen[13];
    const uint32_t got = in.read_some(screen, 13);
    if (!in.ok()) return in.status();
    if (got < 3 || std::memcmp(screen, "GIF", 3) != 0) return IMG_ERR_UNSUPPORTED;
    if (got < 13) return IMG_ERR_READ;
    if ((screen[10] & 0x80) && !in.skip(3u << ((screen[10] & 7) + 1))) return fault(in, IMG_ERR_READ);
    int c = in.byte_or_eof();
    if (c != kExtension) return fault(in, IMG_ERR_GIF_BLOCK);
    while (c == kExtension) {
        if (!read_extension(b)) return fault(in, IMG_ERR_READ);
        c = in.byte_or_eof();
    }
    return b.control_seen ? int32_t(b.delay) : IMG_ERR_GIF_BLOCK;
}

}  // namespace tesslin::gif
