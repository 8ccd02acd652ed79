// Reading the end of a PDF the writer is asked to append to: the end
// marker, the cross-reference table it points at, the trailer's catalogue,
// the catalogue's page tree and that tree's page count.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "core/stream.h"
#include "formats/pdf/pdf.h"

namespace tesslin::pdf {
namespace {

// Reads up to n bytes at an absolute offset; the count read (0 on failure).
uint32_t read_at(int32_t stream, uint32_t offset, uint8_t* out, uint32_t n) {
    if (offset > 0x7FFFFFFFu || stream::seek(stream, int32_t(offset), 0) != int32_t(offset))
        return 0;
    uint32_t done = 0;
    while (done < n) {
        const int32_t got = stream::read(stream, out + done, n - done);
        if (got <= 0) break;
        done += uint32_t(got);
    }
    return done;
}

bool is_digit(uint8_t c) { return c >= '0' && c <= '9'; }
bool is_space(uint8_t c) { return c == ' ' || c == '\r' || c == '\n' || c == '\t' || c == '\f'; }

// Decimal number starting at b[i] (i advanced past it); false when there is
// no digit there, the number does not end inside the buffer or exceeds 31 bits.
bool number_at(const uint8_t* b, uint32_t n, uint32_t& i, uint32_t* value) {
    if (i >= n || !is_digit(b[i])) return false;
    uint64_t v = 0;
    while (i < n && is_digit(b[i])) {
        v = v * 10 + (b[i++] - '0');
        if (v > 0x7FFFFFFF) return false;
    }
    if (i >= n) return false;
    *value = uint32_t(v);
    return true;
}

// "/keyword", not within the last 10 bytes of the buffer, then the next
// space, then the first digit: the number there.
bool keyword_number(const uint8_t* b, uint32_t n, const char* keyword, uint32_t* value) {
    const uint32_t k = uint32_t(std::strlen(keyword));
    if (n < 10 + k + 1) return false;
    for (uint32_t at = 0; at + 10 < n; ++at) {
        if (b[at] != '/' || std::memcmp(b + at + 1, keyword, k) != 0) continue;
        uint32_t i = at + 1 + k;
        while (i < n && b[i] != ' ') ++i;
        while (i < n && !is_digit(b[i])) ++i;
        return number_at(b, n, i, value);
    }
    return false;
}

// Offset of the last "%EOF" in [0, end), or -1. Blocks overlap by three
// bytes so that no marker is split between two of them.
int64_t find_end_marker(int32_t stream, uint32_t end) {
    constexpr uint32_t kBlock = 8192;
    uint8_t b[kBlock];
    uint32_t hi = end;
    while (hi >= 4) {
        const uint32_t lo = hi > kBlock ? hi - kBlock : 0;
        const uint32_t n = read_at(stream, lo, b, hi - lo);
        if (n != hi - lo) return -1;
        for (uint32_t i = n - 3; i-- > 0;)
            if (b[i] == '%' && b[i + 1] == 'E' && b[i + 2] == 'O' && b[i + 3] == 'F') return lo + i;
        if (lo == 0) break;
        hi = lo + 3;
    }
    return -1;
}

// The number on the line before the end marker at `marker` (startxref).
bool startxref_before(int32_t stream, uint32_t marker, uint32_t* value) {
    uint8_t b[64];
    const uint32_t lo = marker > sizeof b ? marker - uint32_t(sizeof b) : 0;
    const uint32_t n = read_at(stream, lo, b, marker - lo);
    if (n != marker - lo) return false;
    int64_t i = int64_t(n) - 1;
    while (i >= 0 && b[i] == '%') --i;
    while (i >= 0 && is_space(b[i])) --i;
    const int64_t last = i;
    while (i >= 0 && is_digit(b[i])) --i;
    if (last == i || last - i > 10) return false;
    uint64_t v = 0;
    for (int64_t j = i + 1; j <= last; ++j) v = v * 10 + uint64_t(b[j] - '0');
    if (v > 0x7FFFFFFF) return false;
    *value = uint32_t(v);
    return true;
}

}  // namespace

int32_t open_document(int32_t stream, uint32_t end, Document* doc) {
    *doc = Document{};
    if (end < 200) return 0;
    const int64_t marker = find_end_marker(stream, end);
    if (marker < 0) return 0;
    uint32_t xref_at = 0;
    if (!startxref_before(stream, uint32_t(marker), &xref_at) || xref_at >= end) return 0;

    // The table: "xref", the subsection "0 count", then 20-byte entries.
    uint8_t b[2000];
    uint32_t n = read_at(stream, xref_at, b, 1000);
    uint32_t i = 0;
    while (i + 4 <= n && std::memcmp(b + i, "xref", 4) != 0) ++i;
    if (i + 4 > n) return 0;
    i += 4;
    uint32_t first = 0, count = 0;
    while (i < n && is_space(b[i])) ++i;
    if (!number_at(b, n, i, &first)) return 0;
    while (i < n && (b[i] == ' ' || b[i] == '\t')) ++i;
    if (!number_at(b, n, i, &count)) return 0;
    while (i < n && is_space(b[i])) ++i;
    const uint32_t entries_at = xref_at + i;
    if (count < 1 || entries_at >= end || uint64_t(count) * 20 > end - entries_at) return 0;

    std::unique_ptr<uint8_t[]> table(new (std::nothrow) uint8_t[size_t(count) * 20]);
    std::vector<uint32_t> offsets;
    std::vector<bool> in_use;
    try {
        offsets.assign(count, 0);
        in_use.assign(count, false);
    } catch (const std::bad_alloc&) {
        return IMG_ERR_MEMORY;
    }
    if (!table) return IMG_ERR_MEMORY;
    if (read_at(stream, entries_at, table.get(), count * 20) != count * 20) return 0;
    for (uint32_t e = 0; e < count; ++e) {
        const uint8_t* entry = table.get() + size_t(e) * 20;
        uint32_t offset = 0;
        for (uint32_t d = 0; d < 10; ++d) {
            if (!is_digit(entry[d])) return 0;
            offset = offset * 10 + uint32_t(entry[d] - '0');
        }
        if (entry[17] != 'n' && entry[17] != 'f') return 0;
        offsets[e] = offset;
        in_use[e] = entry[17] == 'n';
    }
    auto usable = [&](uint32_t object) {
        return object >= 1 && object < count && in_use[object] && offsets[object] < end;
    };

    // Trailer -> catalogue -> page tree.
    uint32_t root = 0, tree = 0;
    n = read_at(stream, entries_at + count * 20, b, 2000);
    if (!keyword_number(b, n, "Root", &root) || !usable(root)) return 0;
    n = read_at(stream, offsets[root], b, 2000);
    if (!keyword_number(b, n, "Pages", &tree) || !usable(tree)) return 0;
    uint32_t pages = 0;
    for (uint32_t at = offsets[tree];; at += 980) {
        n = read_at(stream, at, b, 1000);
        if (n < 100) return IMG_ERR_MEMORY;
        if (keyword_number(b, n, "Count", &pages)) break;
    }

    // Appending relies on this writer's numbering: seven objects a page, the
    // page tree as object 3 and the newest catalogue as the root.
    if (first != 0 || pages < 1 || pages > (0x7FFFFFFFu - 8) / 7 || count != 7 * pages + 1 ||
        root != 7 * pages - 6 || tree != 3)
        return IMG_ERR_VARIANT;
    for (uint32_t object = 1; object < count; ++object)
        if (!in_use[object]) offsets[object] = 0;
    doc->exists = true;
    doc->pages = pages;
    doc->xref_at = xref_at;
    doc->offsets = std::move(offsets);
    return 0;
}

}  // namespace tesslin::pdf
