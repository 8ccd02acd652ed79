#include "core/runs.h"

#include <cstring>

#include "core/dib.h"

namespace tesslin::runs {

uint32_t find_change(const uint8_t* row, uint32_t width, uint32_t from, bool white) {
    if (from >= width) return width;
    const uint32_t nbytes = (width + 7) / 8;
    // After the exclusive or, bits of the colour we are in are 0 and the first
    // 1 bit is the change we look for.
    const uint8_t flip = white ? 0xFF : 0x00;
    uint32_t i = from >> 3;
    uint32_t b = static_cast<uint8_t>((row[i] ^ flip) & (0xFFu >> (from & 7)));
    if (b) {
        uint32_t pos = i * 8 + static_cast<uint32_t>(__builtin_clz(b) - 24);
        return pos < width ? pos : width;
    }
    ++i;
    // Uniform stretches go eight bytes at a time.
    const uint64_t flip64 = white ? ~uint64_t(0) : 0;
    while (i + 8 <= nbytes) {
        uint64_t w;
        std::memcpy(&w, row + i, 8);
        w = __builtin_bswap64(w) ^ flip64;
        if (w) {
            uint32_t pos = i * 8 + static_cast<uint32_t>(__builtin_clzll(w));
            return pos < width ? pos : width;
        }
        i += 8;
    }
    for (; i < nbytes; ++i) {
        b = static_cast<uint8_t>(row[i] ^ flip);
        if (b) {
            uint32_t pos = i * 8 + static_cast<uint32_t>(__builtin_clz(b) - 24);
            return pos < width ? pos : width;
        }
    }
    return width;
}

uint32_t changes_from_packed(const uint8_t* row, uint32_t width, uint32_t* positions) {
    uint32_t count = 0;
    uint32_t pos = 0;
    bool white = true;
    do {
        pos = find_change(row, width, pos, white);
        positions[count++] = pos;
        white = !white;
    } while (pos < width);
    return count;
}

uint32_t record_length(uint32_t positions, uint32_t width) {
    uint32_t length = (positions + 4) * 4;
    if (length == row_bytes(width, 1)) length += 4;
    return length;
}

namespace {

// Appends the end markers after `count` positions at out[1..] and sets the
// length word; returns the length.
uint32_t close_record(uint32_t* out, uint32_t count, uint32_t width) {
    uint32_t* end = out + 1 + count;
    end[0] = end[1] = end[2] = width;
    uint32_t length = record_length(count, width);
    if (length != (count + 4) * 4) end[3] = width;  // the extra word of the length rule
    out[0] = length;
    return length;
}

}  // namespace

uint32_t encode(const uint8_t* row, uint32_t width, uint32_t* out) {
    uint32_t count = changes_from_packed(row, width, out + 1);
    return close_record(out, count, width);
}

uint32_t record_from_changes(const uint32_t* positions, uint32_t count, uint32_t width,
                             uint32_t* out) {
    uint32_t n = 0;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t p = positions[i] < width ? positions[i] : width;
        out[1 + n++] = p;
        if (p == width) break;
    }
    if (n == 0 || out[n] != width) out[1 + n++] = width;
    return close_record(out, n, width);
}

void fill_bits(uint8_t* row, uint32_t from, uint32_t to, bool ones) {
    if (from >= to) return;
    uint32_t first = from >> 3;
    uint32_t last = (to - 1) >> 3;
    uint8_t head = static_cast<uint8_t>(0xFFu >> (from & 7));
    uint8_t tail = static_cast<uint8_t>(0xFFu << (7 - ((to - 1) & 7)));
    if (first == last) {
        uint8_t mask = head & tail;
        row[first] = ones ? (row[first] | mask) : (row[first] & ~mask);
        return;
    }
    row[first] = ones ? (row[first] | head) : (row[first] & ~head);
    if (last > first + 1) std::memset(row + first + 1, ones ? 0xFF : 0x00, last - first - 1);
    row[last] = ones ? (row[last] | tail) : (row[last] & ~tail);
}

void expand_changes(const uint32_t* positions, uint32_t width, uint8_t* row, uint32_t row_bytes) {
    std::memset(row, 0xFF, row_bytes);
    const uint32_t limit = width < row_bytes * 8 ? width : row_bytes * 8;
    for (uint32_t i = 0;; i += 2) {
        uint32_t start = positions[i];
        if (start >= width) break;
        uint32_t end = positions[i + 1];
        fill_bits(row, start, end < limit ? end : limit, false);
        if (end >= width) break;
    }
}

void append_change(std::vector<uint32_t>& list, uint32_t p) {
    if (!list.empty() && list.back() == p)
        list.pop_back();
    else
        list.push_back(p);
}

uint32_t cut_record(const uint32_t* record, uint32_t src_width, uint32_t x, uint32_t width,
                    uint32_t* out) {
    std::vector<uint32_t> list;
    uint32_t dropped = 0;
    for (uint32_t i = 1; i <= src_width + 1; ++i) {
        const uint32_t p = record[i];
        if (p >= src_width) break;
        if (p < x) {
            ++dropped;
            continue;
        }
        if (dropped & 1) {
            // The row is black at x: the cut record starts with a black run.
            append_change(list, 0);
            dropped = 0;
        }
        const uint32_t q = p - x;
        append_change(list, q < width ? q : width);
        if (q >= width) break;
    }
    if (dropped & 1) append_change(list, 0);
    return record_from_changes(list.data(), static_cast<uint32_t>(list.size()), width, out);
}

uint32_t rebuild_record(const uint8_t* bytes, uint32_t count, uint32_t width, uint32_t* scratch,
                        uint32_t* out) {
    if (count < 8 || count % 4) return 0;
    const uint32_t words = count / 4 - 1 < width + 1 ? count / 4 - 1 : width + 1;
    std::memcpy(scratch, bytes + 4, size_t(words) * 4);
    return record_from_changes(scratch, words, width, out);
}

}  // namespace tesslin::runs
