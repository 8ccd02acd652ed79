// Modified Huffman and Group 4 encoding from change lists.
#include <algorithm>
#include <climits>
#include <memory>
#include <new>

#include "core/runs.h"
#include "formats/ccitt/fax_internal.h"

namespace tesslin::ccitt {

namespace {

// Rows from the supply callback, as closed change lists.
class RowSource {
public:
    RowSource(const DibHeader& h, IMG_SUPPLY_CALLBACK supply, intptr_t user)
        : supply_(supply), user_(user), width_(uint32_t(h.biWidth)),
          row_bytes_(row_bytes(uint32_t(h.biWidth), 1)),
          packed_(h.biBitCount == 1 && h.biCompression != IMG_COMPRESSION_RUNS) {}

    int32_t init() {
        // Room for a packed row or a run record, whichever is larger.
        capacity_ = std::max<size_t>(size_t(width_) + 8, row_bytes_ / 4) + 16;
        buf_.reset(new (std::nothrow) uint32_t[capacity_]);
        return buf_ ? 0 : IMG_ERR_MEMORY;
    }

    // Fetches a row into list; returns its number of changes or the supply's
    // negative status.
    int64_t fetch(int32_t row, uint32_t* list) {
        const int32_t got = supply_(user_, reinterpret_cast<uint8_t*>(buf_.get()), row, row_bytes_);
        if (got < 0) return got;
        uint32_t n = 0;
        if (packed_ || got == 0) {
            n = runs::changes_from_packed(reinterpret_cast<const uint8_t*>(buf_.get()), width_,
                                          list);
        } else {
            // A run record: length word, then changes up to one at the width.
            // Values are clamped so that the list stays increasing.
            const size_t words = std::min<size_t>(size_t(got) / 4, capacity_);
            uint32_t last = 0;
            for (size_t i = 1; i < words; ++i) {
                uint32_t v = buf_[i];
                if (v >= width_) break;
                if (v < last) v = last;
                push(list, n, v);
                last = v;
            }
        }
        return close_list(list, n, width_);
    }

private:
    IMG_SUPPLY_CALLBACK supply_;
    intptr_t user_;
    uint32_t width_;
    uint32_t row_bytes_;
    bool packed_;
    size_t capacity_ = 0;
    std::unique_ptr<uint32_t[]> buf_;
};

// Runs alternately white and black from column 0.
void encode_1d_row(BitWriter& bw, const EncodeTables& t, const uint32_t* cur, uint32_t width) {
    uint32_t pos = 0;
    bool black = false;
    for (uint32_t i = 0; pos < width; ++i) {
        const uint32_t c = cur[i] < width ? cur[i] : width;
        bw.put_run(t, black, c - pos);
        pos = c;
        black = !black;
    }
}

// One row coded against the reference row. a0 starts just before the first
// pixel; b1 is the first change of the reference row beyond a0 whose colour
// is opposite to a0's (even entries begin black runs, odd ones white runs).
void encode_2d_row(BitWriter& bw, const EncodeTables& t, const uint32_t* ref, const uint32_t* cur,
                   uint32_t width) {
    static constexpr Code kVertical[7] = {
        {0b0000010, 7}, {0b000010, 6}, {0b010, 3}, {0b1, 1},
        {0b011, 3},     {0b000011, 6}, {0b0000011, 7},
    };
    int64_t a0 = -1;
    uint32_t ia = 0;  // a1 = cur[ia]
    int32_t p = 0;    // b1 = ref[p]
    bool black = false;
    for (;;) {
        const uint32_t a1 = cur[ia];
        const uint32_t b2 = ref[p + 1];
        if (b2 < a1) {
            bw.put(0b0001, 4);
            a0 = b2;
            p += 2;
            continue;
        }
        const int64_t d = int64_t(a1) - int64_t(ref[p]);
        if (d >= -3 && d <= 3) {
            const Code& c = kVertical[d + 3];
            bw.put(c.bits, c.length);
            a0 = a1;
            black = !black;
            ia += 1;
            if (a1 >= width) return;
            p -= 1;
        } else {
            const uint32_t a2 = cur[ia + 1];
            bw.put(0b001, 3);
            bw.put_run(t, black, a1 - uint32_t(a0 < 0 ? 0 : a0));
            bw.put_run(t, !black, a2 - a1);
            a0 = a2;
            ia += 2;
            if (a2 >= width) return;
        }
        while (int64_t(ref[p]) <= a0) p += 2;
    }
}

enum class Coding { kOneD, kG4 };

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply, intptr_t user,
               int32_t bit_order, int32_t framing, int32_t first_row, Coding coding) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    if (header->biWidth < 1 || uint32_t(header->biWidth) > kMaxFaxWidth || header->biHeight < 0 ||
        first_row < 0 || int64_t(first_row) + header->biHeight > INT32_MAX)
        return IMG_ERR_BAD_IMAGE;
    if (coding == Coding::kOneD ? framing != kFrameMhAligned && framing != kFrameG3
                                : framing != kFrameG4 && framing != kFrameG4Ioca)
        return IMG_ERR_UNSUPPORTED;
    const uint32_t width = uint32_t(header->biWidth);
    const int32_t height = header->biHeight;
    if (coding == Coding::kOneD && height == 0) return 0;

    RowSource rows(*header, supply, user);
    if (int32_t s = rows.init(); s < 0) return s;
    const size_t words = list_words(width);
    std::unique_ptr<uint32_t[]> lists(new (std::nothrow) uint32_t[2 * words]);
    if (!lists) return IMG_ERR_MEMORY;
    uint32_t* cur = lists.get() + 1;
    uint32_t* ref = lists.get() + words + 1;
    cur[-1] = ref[-1] = 0;
    close_list(ref, 0, width);

    StreamWriter out(stream);
    // Mode 2 output keeps the natural bit order whatever the flag says.
    const bool reverse = bit_order != 0 && framing != kFrameMhAligned;
    std::unique_ptr<BitWriter> bw(new (std::nothrow) BitWriter(out, reverse, framing == kFrameG4Ioca));
    if (!bw) return IMG_ERR_MEMORY;
    const EncodeTables& t = encode_tables();

    if (framing == kFrameG3) {
        bw->put(0x0000, 16);  // fill and EOL, so that the first row starts on a word
        bw->put(0x0001, 16);
    }
    for (int32_t r = 0; r < height; ++r) {
        const int64_t got = rows.fetch(first_row + r, cur);
        if (got < 0) return int32_t(got);
        switch (framing) {
        case kFrameMhAligned:
            encode_1d_row(*bw, t, cur, width);
            bw->align(8);
            break;
        case kFrameG3:
            encode_1d_row(*bw, t, cur, width);
            bw->align(16);
            bw->put(0x0001, 16);  // EOL ending on a word boundary
            break;
        default:
            encode_2d_row(*bw, t, ref, cur, width);
            std::swap(cur, ref);
            if (bw->words() >= 1000) bw->write_words();
            break;
        }
        if (!bw->ok()) return out.status();
    }
    if (framing == kFrameG3) {
        bw->put(0x0000, 16);  // a second EOL ends the data
        bw->put(0x0001, 16);
    } else if (coding == Coding::kG4) {
        bw->put(0b000000000001, 12);  // EOFB
        bw->put(0b000000000001, 12);
    }
    if (!bw->finish(coding == Coding::kOneD)) return out.status() < 0 ? out.status() : IMG_ERR_WRITE;
    return 0;
}

}  // namespace

int32_t fax_encode_1d(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                      intptr_t user, int32_t bit_order, int32_t framing) {
    return encode(stream, header, supply, user, bit_order, framing, 0, Coding::kOneD);
}

int32_t fax_encode_g4(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                      intptr_t user, int32_t bit_order, int32_t framing) {
    return encode(stream, header, supply, user, bit_order, framing, 0, Coding::kG4);
}

int32_t fax_encode_g4_rows(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                           intptr_t user, int32_t bit_order, int32_t framing, int32_t first_row) {
    return encode(stream, header, supply, user, bit_order, framing, first_row, Coding::kG4);
}

}  // namespace tesslin::ccitt
