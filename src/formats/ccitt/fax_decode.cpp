// Modified Huffman, Group 3 (1-D and 2-D) and Group 4 decoding.
//
// Every decoder works on change lists: the columns where the colour changes
// along a row, starting from white. The lists stay strictly increasing (a
// zero-length run cancels the change before it), are closed by the width
// three times and width + 2 twice, and have one zero in front of their first
// entry, where the reference pointer may step back to and where an inverted
// run record starts.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "core/runs.h"
#include "formats/ccitt/fax_internal.h"

namespace tesslin::ccitt {

namespace {

constexpr int kEnd = -1;            // read_code: the data ended
constexpr int kNoEol = -2;          // hunt_eol: no EOL within the limit
constexpr int kEolHuntLimit = 2000; // code reads before a 2-D strip is refused
constexpr uint32_t kRunCap = 1u << 30;

// One run-length code of the colour. Bits that start no code are skipped one
// at a time; the end of the data gives kEnd.
template <bool Black>
inline int read_code(BitCursor& br, const DecodeTables& t) {
    for (;;) {
        br.refill();
        if (br.exhausted()) return kEnd;
        const uint32_t e = Black ? t.black[br.peek(13)] : t.white[br.peek(12)];
        if (e) {
            br.consume(e >> 12);
            return int(e & 0xFFF);
        }
        br.consume(1);
    }
}

// Codes of the colour summed up to and including a terminating code (an EOL
// among them counts as a make-up code of kRunEol). Stops at the end of the
// data with what it has.
template <bool Black>
inline uint32_t read_run(BitCursor& br, const DecodeTables& t) {
    uint32_t run = 0;
    for (;;) {
        const int c = read_code<Black>(br, t);
        if (c < 0) return run;
        run += uint32_t(c);
        if (c < 64) return run;
        if (run > kRunCap) run = kRunCap;
    }
}

// One Modified Huffman row. With count_eols, three EOL codes without a run
// between them end the page (page_end set, nothing returned); otherwise EOL
// codes are ignored. When the data ends the row's remainder stays white.
uint32_t decode_1d_row(BitReader& reader, const DecodeTables& t, uint32_t* cur, uint32_t width,
                       bool count_eols, int& eols, bool& page_end) {
    BitCursor br(reader);
    uint32_t pos = 0, n = 0;
    bool black = false;
    while (pos < width) {
        const int c = black ? read_code<true>(br, t) : read_code<false>(br, t);
        if (c < 0) {
            if (n & 1) --n;
            break;
        }
        if (uint32_t(c) == kRunEol) {
            if (count_eols && ++eols >= 3) {
                page_end = true;
                return 0;
            }
            continue;
        }
        uint32_t run = uint32_t(c);
        if (c >= 64) run += black ? read_run<true>(br, t) : read_run<false>(br, t);
        pos = run >= width - pos ? width : pos + run;
        push(cur, n, pos);
        eols = 0;
        black = !black;
    }
    return n;
}

// One two-dimensional row coded against the reference list.
//
// p indexes b1, the first change of the reference row beyond a0 whose colour
// is opposite to a0's; it moves with the codes instead of being searched for:
// one back after VL codes then forward in steps of two while the entry is
// not beyond a1 (at most twice), one forward after V0, one forward and then
// steps of two (once after VR1, at most twice after VR2 and VR3), steps of two
// while not beyond a2 after horizontal mode and two forward after pass mode.
// While a0 is below the width p never passes the first width entry by more
// than one, so b1 and b2 stay inside the closed list.
uint32_t decode_2d_row(BitReader& reader, const DecodeTables& t, const uint32_t* ref, uint32_t* cur,
                       uint32_t width) {
    BitCursor br(reader);
    uint32_t a0 = 0, n = 0;
    int32_t p = 0;
    bool black = false;
    for (;;) {
        br.refill();
        // A string of 1 bits is a string of V0 codes: a1 = b1 each time, with
        // no need to go back to the bits between them.
        if (const uint32_t ones = br.leading_ones()) {
            uint32_t used = 0;
            bool done = false;
            while (used < ones) {
                const uint32_t b1 = ref[p];
                ++used;
                if (b1 > a0) {
                    if (b1 >= width) {
                        cur[n++] = width;
                        done = true;
                        break;
                    }
                    cur[n++] = b1;
                    a0 = b1;
                } else {
                    push(cur, n, a0);
                }
                p += 1;
                black = !black;
            }
            br.consume(used);
            if (done) break;
            continue;
        }
        const ModeEntry m = t.mode[br.peek(7)];
        br.consume(m.length);
        if (m.kind <= kVL3) {
            // Vertical: a1 = b1 + offset, kept between a0 and the width. Only
            // an a1 at a0 can meet the last change and cancel it.
            const int32_t target = int32_t(ref[p]) + m.offset;
            uint32_t a1;
            if (target > int32_t(a0)) {
                a1 = uint32_t(target);
                if (a1 >= width) {
                    cur[n++] = width;
                    break;
                }
                cur[n++] = a1;
            } else {
                a1 = a0;
                push(cur, n, a1);
            }
            a0 = a1;
            black = !black;
            if (m.kind == kV0) {
                p += 1;
            } else if (m.kind == kVR1) {
                p += 1;
                if (ref[p] <= a1) p += 2;
            } else {
                p += m.offset > 0 ? 1 : -1;
                for (int k = 0; k < 2 && ref[p] <= a1; ++k) p += 2;
            }
        } else if (m.kind == kHorizontal) {
            uint32_t r1, r2;
            if (black) {
                r1 = read_run<true>(br, t);
                r2 = read_run<false>(br, t);
            } else {
                r1 = read_run<false>(br, t);
                r2 = read_run<true>(br, t);
            }
            const uint32_t a1 = r1 >= width - a0 ? width : a0 + r1;
            const uint32_t a2 = r2 >= width - a1 ? width : a1 + r2;
            push(cur, n, a1);
            push(cur, n, a2);
            a0 = a2;
            if (a0 >= width) break;
            while (ref[p] <= a0) p += 2;
        } else {  // pass
            const uint32_t b2 = ref[p + 1];
            if (b2 > a0) a0 = b2 >= width ? width : b2;
            if (a0 >= width) break;
            p += 2;
        }
    }
    return n;
}

// Reads white codes until an EOL; false when the data ends first.
bool skip_past_eol(BitReader& reader, const DecodeTables& t) {
    BitCursor br(reader);
    for (;;) {
        const int c = read_code<false>(br, t);
        if (c < 0) return false;
        if (uint32_t(c) == kRunEol) return true;
    }
}

// The EOL that must start a row: one white code, then one bit skipped before
// each further code, up to the limit. 0 when found, kEnd when the data ends,
// kNoEol when the limit is reached.
int hunt_eol(BitReader& reader, const DecodeTables& t) {
    BitCursor br(reader);
    for (int reads = 0; reads < kEolHuntLimit; ++reads) {
        if (reads) {
            br.refill();
            br.consume(1);
        }
        const int c = read_code<false>(br, t);
        if (c < 0) return kEnd;
        if (uint32_t(c) == kRunEol) return 0;
    }
    return kNoEol;
}

// With kFaxStopAtPageEnd, tested where a row would begin: true when nothing
// but zero bits is left of the data (padding), or, with eol_ends, when 11
// zero bits lie ahead: an EOL, with or without fill before it, which no row
// starts with (RTC after a 2-D row's tag bit, EOFB in Group 4).
bool page_ends_here(BitReader& reader, bool eol_ends) {
    BitCursor br(reader);
    br.refill();
    const uint32_t zeros = br.leading_zeros();
    if (br.end_loaded() && int64_t(zeros) >= br.real_bits()) return true;
    return eol_ends && zeros >= 11;
}

// State of one decoder call: the two change lists, the row or record buffer
// and the callback.
class Session {
public:
    Session(const FaxParams& params, IMG_RASTER_CALLBACK line, intptr_t user)
        : width_(params.width), row_bytes_(row_bytes(params.width, 1)),
          invert_(params.no_inversion == 0), line_(line), user_(user) {}

    int32_t init() {
        const size_t words = list_words(width_);
        lists_.reset(new (std::nothrow) uint32_t[2 * words]);
        out_.reset(new (std::nothrow) uint32_t[std::max<size_t>(words, row_bytes_ / 4 + 8)]);
        if (!lists_ || !out_) return IMG_ERR_MEMORY;
        cur_ = lists_.get() + 1;
        ref_ = lists_.get() + words + 1;
        cur_[-1] = ref_[-1] = 0;
        ref_n_ = close_list(ref_, 0, width_);
        return 0;
    }

    uint32_t* cur() { return cur_; }
    const uint32_t* ref() const { return ref_; }
    uint32_t width() const { return width_; }

    // Closes the current row's list and makes it the reference.
    void finish_row(uint32_t n) {
        ref_n_ = close_list(cur_, n, width_);
        std::swap(cur_, ref_);
    }

    // The reference row (the one just finished) as a packed row.
    int32_t deliver_packed(uint32_t index) {
        auto* row = reinterpret_cast<uint8_t*>(out_.get());
        runs::expand_changes(ref_, width_, row, row_bytes_);
        if (invert_)
            for (uint32_t i = 0; i < row_bytes_; ++i) row[i] = uint8_t(~row[i]);
        return line_(row, user_, int32_t(index), row_bytes_);
    }

    // White rows from index up to end (the end of the page).
    int32_t deliver_white(uint32_t index, uint32_t end) {
        auto* row = reinterpret_cast<uint8_t*>(out_.get());
        for (; index < end; ++index) {
            std::memset(row, invert_ ? 0x00 : 0xFF, row_bytes_);
            if (int32_t st = line_(row, user_, int32_t(index), row_bytes_); st < 0) return st;
        }
        return 0;
    }

    // Finishes a packed row and delivers it: 1 to go on, 0 when the data has
    // ended, or a negative status.
    int32_t next_packed(uint32_t n, uint32_t index, const BitReader& br) {
        finish_row(n);
        if (int32_t st = deliver_packed(index); st < 0) return st;
        if (br.exhausted()) return 0;
        if (int32_t st = br.status(); st < 0) return st;
        return 1;
    }

    // The reference row as a run record; inverted rows start with an extra 0.
    // The list is already what a record holds (increasing, below the width),
    // so it is copied as it is and closed at the width.
    int32_t deliver_record(uint32_t index) {
        uint32_t* rec = out_.get();
        const uint32_t width = width_;
        const uint32_t* from = invert_ ? ref_ - 1 : ref_;
        const uint32_t changes = invert_ ? ref_n_ + 1 : ref_n_;
        if (changes <= 8) {
            for (uint32_t i = 0; i < changes; ++i) rec[1 + i] = from[i];
        } else {
            std::memcpy(rec + 1, from, size_t(changes) * 4);
        }
        // The closing position, three end markers and the length rule's word.
        uint32_t* end = rec + 1 + changes;
        end[0] = end[1] = end[2] = end[3] = end[4] = width;
        const uint32_t length = runs::record_length(changes + 1, width);
        rec[0] = length;
        return line_(reinterpret_cast<uint8_t*>(rec), user_, int32_t(index), length);
    }

private:
    uint32_t width_;
    uint32_t row_bytes_;
    bool invert_;
    IMG_RASTER_CALLBACK line_;
    intptr_t user_;
    std::unique_ptr<uint32_t[]> lists_;
    std::unique_ptr<uint32_t[]> out_;
    uint32_t* cur_ = nullptr;
    uint32_t* ref_ = nullptr;
    uint32_t ref_n_ = 0;
};

// Rows [first, end) of this call that the image height allows.
uint32_t call_end(uint32_t row_count, uint32_t first_row, uint32_t height) {
    const uint64_t end = uint64_t(first_row) + row_count;
    return end < height ? uint32_t(end) : std::max(height, first_row);
}

// Sets up the session and the bit reader over memory or the stream, runs the
// body and leaves the stream after the data used.
template <typename Body>
int32_t run_decoder(const uint8_t* data, const FaxParams& params, int32_t stream, bool memory,
                    uint8_t fill, IMG_RASTER_CALLBACK line, intptr_t user, Body&& body) {
    if (params.width == 0 || params.width > kMaxFaxWidth) return IMG_ERR_BAD_IMAGE;
    if (!line) return IMG_ERR_BAD_IMAGE;
    Session session(params, line, user);
    if (int32_t s = session.init(); s < 0) return s;
    const bool lsb = params.fill_order == 2;
    if (memory) {
        BitReader br(data, data ? params.data_length : 0, lsb, fill);
        return body(session, br);
    }
    StreamReader in(stream);
    BitReader br(in, lsb, fill);
    int32_t status = body(session, br);
    if (status >= 0 && in.status() < 0 && in.status() != IMG_ERR_READ) status = in.status();
    br.sync_stream();
    return status;
}

}  // namespace

int32_t fax_decode_1d(const uint8_t* data, uint32_t row_count, uint32_t first_row,
                      const FaxParams& params, int32_t stream, IMG_RASTER_CALLBACK line,
                      intptr_t user) {
    const int32_t mode = params.mode;
    if (mode != kModeMhAligned && mode != kModeG3 && mode != kModeMhMemory)
        return IMG_ERR_UNSUPPORTED;
    const uint32_t end = call_end(row_count, first_row, params.height);
    return run_decoder(
        data, params, stream, mode == kModeMhMemory, 0x00, line, user,
        [&](Session& s, BitReader& br) -> int32_t {
            const DecodeTables& t = decode_tables();
            const bool to_page_end = (params.flags & kFaxStopAtPageEnd) != 0;
            uint32_t index = first_row;
            int eols = 0;
            while (index < end) {
                // Group 3: an EOL right after the previous row's EOL (no
                // row between them) starts the RTC.
                if (to_page_end && page_ends_here(br, mode == kModeG3 && index > first_row))
                    return 0;
                bool page_end = false;
                const uint32_t n =
                    decode_1d_row(br, t, s.cur(), s.width(), mode == kModeG3, eols, page_end);
                if (page_end) break;
                if (to_page_end && n == 0 && br.exhausted()) return 0;
                const int32_t go_on = s.next_packed(n, index++, br);
                if (go_on <= 0) {
                    if (go_on < 0) return go_on;
                    break;
                }
                if (index == end) break;
                if (mode == kModeMhAligned) {
                    BitCursor(br).skip_to_byte();
                } else if (mode == kModeG3) {
                    eols = 1;
                    if (!skip_past_eol(br, t)) break;
                }
            }
            // End of the page: the call's remaining rows are white.
            return to_page_end ? 0 : s.deliver_white(index, end);
        });
}

int32_t fax_decode_2d(const uint8_t* data, uint32_t row_count, uint32_t first_row,
                      const FaxParams& params, int32_t stream, IMG_RASTER_CALLBACK line,
                      intptr_t user) {
    const int32_t mode = params.mode;
    if (mode != kModeG3Mr && mode != kModeG3MrMemory && mode != kModeMrPlain)
        return IMG_ERR_UNSUPPORTED;
    const uint32_t end = call_end(row_count, first_row, params.height);
    return run_decoder(
        data, params, stream, mode != kModeG3Mr, 0x00, line, user,
        [&](Session& s, BitReader& br) -> int32_t {
            const DecodeTables& t = decode_tables();
            const bool to_page_end = (params.flags & kFaxStopAtPageEnd) != 0;
            uint32_t index = first_row;
            for (uint32_t nth = 0; index < end; ++nth) {
                bool one_d = false;
                if (mode != kModeMrPlain || nth < 2) {
                    const int h = hunt_eol(br, t);
                    if (h == kNoEol) return IMG_ERR_BAD_IMAGE;
                    if (h == kEnd) break;
                    uint32_t tag;
                    {
                        BitCursor c(br);
                        c.refill();
                        tag = c.peek(1);
                        c.consume(1);
                    }
                    if (br.exhausted()) break;
                    one_d = mode == kModeMrPlain ? nth == 0 : tag == 1;
                }
                if (to_page_end && page_ends_here(br, true)) return 0;
                uint32_t n;
                if (one_d) {
                    int eols = 0;
                    bool page_end = false;
                    n = decode_1d_row(br, t, s.cur(), s.width(), false, eols, page_end);
                    if (to_page_end && n == 0 && br.exhausted()) return 0;
                } else {
                    n = decode_2d_row(br, t, s.ref(), s.cur(), s.width());
                }
                const int32_t go_on = s.next_packed(n, index++, br);
                if (go_on <= 0) {
                    if (go_on < 0) return go_on;
                    break;
                }
            }
            return to_page_end ? 0 : s.deliver_white(index, end);
        });
}

int32_t fax_decode_g4(const uint8_t* data, uint32_t row_count, uint32_t first_row,
                      const FaxParams& params, int32_t stream, IMG_RASTER_CALLBACK line,
                      intptr_t user) {
    const int32_t mode = params.mode;
    if (mode != kModeG4 && mode != kModeG4Memory) return IMG_ERR_UNSUPPORTED;
    const uint32_t end = call_end(row_count, first_row, params.height);
    // Missing bytes read as 1 bits: V0 codes that repeat the reference row.
    return run_decoder(
        data, params, stream, mode == kModeG4Memory, 0xFF, line, user,
        [&](Session& s, BitReader& br) -> int32_t {
            const DecodeTables& t = decode_tables();
            const bool to_page_end = (params.flags & kFaxStopAtPageEnd) != 0;
            uint32_t index = first_row;
            while (index < end) {
                if (to_page_end && page_ends_here(br, true)) return 0;
                s.finish_row(decode_2d_row(br, t, s.ref(), s.cur(), s.width()));
                if (int32_t st = s.deliver_record(index++); st < 0) return st;
                if (br.exhausted()) break;
                if (int32_t st = br.status(); st < 0) return st;
            }
            // Rows after the data ended, and unless asked otherwise every row
            // after the call's last one up to the height, repeat the last row.
            if (index == first_row || to_page_end) return 0;
            const uint32_t stop = (params.flags & kFaxNoRepeatToHeight) ? end : params.height;
            for (; index < stop; ++index)
                if (int32_t st = s.deliver_record(index); st < 0) return st;
            return 0;
        });
}

int32_t fax_decode(const uint8_t* data, uint32_t row_count, uint32_t first_row,
                   const FaxParams& params, int32_t stream, IMG_RASTER_CALLBACK line,
                   intptr_t user) {
    switch (params.mode) {
    case kModeMhAligned:
    case kModeG3:
    case kModeMhMemory:
        return fax_decode_1d(data, row_count, first_row, params, stream, line, user);
    case kModeG3Mr:
    case kModeG3MrMemory:
    case kModeMrPlain:
        return fax_decode_2d(data, row_count, first_row, params, stream, line, user);
    case kModeG4:
    case kModeG4Memory:
        return fax_decode_g4(data, row_count, first_row, params, stream, line, user);
    default:
        return IMG_ERR_UNSUPPORTED;
    }
}

}  // namespace tesslin::ccitt
