// TIFF files built entry by entry for the tests: values that do not fit in
// 4 bytes go behind the directory; data blocks (strips) are placed first,
// each at the offset add_data() returns.
#pragma once

#include <algorithm>
#include <vector>

#include "core/dib.h"

namespace tesslin::test {

struct TiffBuilder {
    bool big = false;
    std::vector<uint8_t> bytes;
    struct Entry {
        uint16_t tag, type;
        uint32_t count;
        std::vector<uint8_t> data;  // the value bytes in file order
    };
    std::vector<Entry> entries;

    explicit TiffBuilder(bool big_endian = false) : big(big_endian) {
        bytes = {uint8_t(big ? 'M' : 'I'), uint8_t(big ? 'M' : 'I'), uint8_t(big ? 0 : 42), uint8_t(big ? 42 : 0),
                 0, 0, 0, 0};
    }
    void put16(uint8_t* at, uint32_t v) const { big ? store_be16(at, uint16_t(v)) : store_le16(at, uint16_t(v)); }
    void put32(uint8_t* at, uint32_t v) const { big ? store_be32(at, v) : store_le32(at, v); }
    uint32_t add_data(const std::vector<uint8_t>& data) {
        const uint32_t at = uint32_t(bytes.size());
        bytes.insert(bytes.end(), data.begin(), data.end());
        if (bytes.size() & 1) bytes.push_back(0);
        return at;
    }
    // BYTE (1), SHORT (3), LONG (4) or RATIONAL (5: values in pairs).
    void add(uint16_t tag, uint16_t type, const std::vector<uint32_t>& values) {
        Entry e{tag, type, uint32_t(type == 5 ? values.size() / 2 : values.size()), {}};
        for (uint32_t v : values) {
            uint8_t b[4];
            const size_t n = type == 1 ? 1 : type == 3 ? 2 : 4;
            n == 1 ? void(b[0] = uint8_t(v)) : n == 2 ? put16(b, v) : put32(b, v);
            e.data.insert(e.data.end(), b, b + n);
        }
        entries.push_back(e);
    }
    void add_short(uint16_t tag, uint32_t v) { add(tag, 3, {v}); }
    void add_long(uint16_t tag, uint32_t v) { add(tag, 4, {v}); }
    // Appends the directory (long values first) and returns its offset.
    uint32_t finish_directory(uint32_t next = 0) {
        std::vector<uint32_t> where(entries.size(), 0);
        for (size_t i = 0; i < entries.size(); ++i)
            if (entries[i].data.size() > 4) where[i] = add_data(entries[i].data);
        const uint32_t ifd = uint32_t(bytes.size());
        bytes.resize(bytes.size() + 2 + 12 * entries.size() + 4, 0);
        uint8_t* p = &bytes[ifd];
        put16(p, uint32_t(entries.size()));
        for (size_t i = 0; i < entries.size(); ++i) {
            uint8_t* e = p + 2 + 12 * i;
            put16(e, entries[i].tag);
            put16(e + 2, entries[i].type);
            put32(e + 4, entries[i].count);
            if (entries[i].data.size() > 4) put32(e + 8, where[i]);
            else std::copy(entries[i].data.begin(), entries[i].data.end(), e + 8);
        }
        put32(p + 2 + 12 * entries.size(), next);
        entries.clear();
        return ifd;
    }
    // Points the header at a directory.
    void set_first(uint32_t ifd) { put32(&bytes[4], ifd); }
    std::vector<uint8_t> finish() {
        set_first(finish_directory());
        return bytes;
    }
};

// A page of uncompressed (or, with `compression`, already coded) strips.
// `strips` holds each strip's bytes; tags as given, plus the strip layout;
// `extra` tags are SHORTs, LONGs when a value needs them, and the two
// resolutions RATIONALs (numerator, denominator).
inline std::vector<uint8_t> tiff_page(uint32_t width, uint32_t height, std::vector<uint32_t> bits,
                                      uint32_t photometric, const std::vector<std::vector<uint8_t>>& strips,
                                      uint32_t compression = 1, uint32_t rows_per_strip = 0,
                                      const std::vector<std::pair<uint16_t, std::vector<uint32_t>>>& extra = {},
                                      bool big = false) {
    TiffBuilder b(big);
    std::vector<uint32_t> offsets, counts;
    for (const auto& s : strips) {
        offsets.push_back(b.add_data(s));
        counts.push_back(uint32_t(s.size()));
    }
    b.add_long(256, width);
    b.add_long(257, height);
    b.add(258, 3, bits);
    b.add_short(259, compression);
    b.add_short(262, photometric);
    b.add(273, 4, offsets);
    b.add_short(277, uint32_t(bits.size()));
    b.add_long(278, rows_per_strip ? rows_per_strip : height);
    b.add(279, 4, counts);
    for (const auto& [tag, values] : extra)
        b.add(tag, tag == 282 || tag == 283 ? 5 : *std::max_element(values.begin(), values.end()) > 0xFFFF ? 4 : 3,
              values);
    std::sort(b.entries.begin(), b.entries.end(), [](const auto& x, const auto& y) { return x.tag < y.tag; });
    return b.finish();
}

// Offset of the value field of `tag` in the first directory of a
// little-endian file (0 when absent).
inline size_t tiff_field(const std::vector<uint8_t>& f, uint16_t tag) {
    const uint32_t ifd = load_le32(&f[4]);
    const uint32_t n = load_le16(&f[ifd]);
    for (uint32_t i = 0; i < n; ++i)
        if (load_le16(&f[ifd + 2 + 12 * size_t(i)]) == tag) return ifd + 2 + 12 * size_t(i) + 8;
    return 0;
}

}  // namespace tesslin::test
