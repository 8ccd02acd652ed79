// Strip decoders that produce raw rows: uncompressed, PackBits, LZW and
// deflate. Each decodes one strip (or tile) and hands every complete raw
// row to row_out() as soon as it is there.
#include <algorithm>
#include <cstring>

#include "formats/png/inflate.h"
#include "formats/tiff/lzw.h"
#include "formats/tiff/tiff_read.h"

namespace tesslin::tiff {

int32_t PageReader::strip_uncompressed(uint32_t index, uint32_t plane, uint32_t unit0,
                                       uint32_t units) {
    uint32_t offset = 0, count = 0;
    if (!strip_bounds(index, &offset, &count)) return IMG_ERR_BAD_IMAGE;
    if (!file_.seek(offset)) return IMG_ERR_READ;
    StreamReader& in = file_.in();
    for (uint32_t u = 0; u < units; ++u) {
        if (!in.read(fix_.data(), raw_row_)) return in.status();
        const int32_t r = row_out(plane, unit0 + u, fix_.data(), true);
        if (r < 0) return r;
    }
    return 0;
}

// PackBits: a control byte n below 128 copies n + 1 literal bytes, above
// 128 repeats the next byte 257 - n times, 128 is nothing. Runs may cross
// row ends; the bytes beyond a row start the next one.
int32_t PageReader::strip_packbits(uint32_t index, uint32_t plane, uint32_t unit0,
                                   uint32_t units) {
    int32_t r = read_strip(index, &strip_);
    if (r < 0) return r;
    const uint8_t* p = strip_.data();
    const uint8_t* const end = p + strip_.size();
    const uint32_t size = raw_row_;
    std::vector<uint8_t>& row = fix_;
    // Room for a run of 128 started just before the row's end, and for the
    // 32-byte steps of the copies.
    const size_t room = size_t(std::max(size, out_row_)) + 128 + 32;
    if (row.size() < room) row.resize(room);
    uint8_t* const out = row.data();
    uint8_t spill[128];
    uint32_t have = 0;
    for (uint32_t u = 0; u < units; ++u) {
        while (have < size) {
            if (p >= end) return IMG_ERR_READ;
            const uint8_t c = *p++;
            if (c < 128) {
                const uint32_t n = uint32_t(c) + 1;
                if (uint32_t(end - p) < n) return IMG_ERR_READ;
                // The strip buffer has slack behind its data, the row too.
                for (uint32_t i = 0; i < n; i += 32) std::memcpy(out + have + i, p + i, 32);
                p += n;
                have += n;
            } else if (c > 128) {
                if (p >= end) return IMG_ERR_READ;
                const uint32_t n = 257u - c;
                uint8_t run[32];
                std::memset(run, *p++, 32);
                for (uint32_t i = 0; i < n; i += 32) std::memcpy(out + have + i, run, 32);
                have += n;
            }
        }
        // A run that went past the row's end starts the next row.
        have -= size;
        if (have) std::memcpy(spill, out + size, have);
        r = row_out(plane, unit0 + u, out, true);
        if (r < 0) return r;
        if (have) std::memcpy(out, spill, have);
    }
    return 0;
}

int32_t PageReader::strip_lzw(uint32_t index, uint32_t plane, uint32_t unit0, uint32_t units) {
    int32_t r = read_strip(index, &strip_);
    if (r < 0) return r;
    if (!lzw_) lzw_.reset(new LzwDecoder);
    LzwDecoder& lzw = *lzw_;
    uint32_t done = 0;
    int32_t callback = 0;
    r = lzw.decode(strip_.data(), strip_.size(), raw_row_, units, [&](const uint8_t* row) {
        callback = row_out(plane, unit0 + done, const_cast<uint8_t*>(row), false);
        ++done;
        return callback;
    });
    if (callback < 0) return callback;
    // A strip that ends early or holds a bad code: the rows it did not
    // complete are delivered as far as they were decoded, the rest zero.
    if (done < units) {
        std::vector<uint8_t> rest(size_t(raw_row_) + 16, 0);
        lzw.partial_row(rest.data(), raw_row_);
        for (; done < units; ++done) {
            const int32_t s = row_out(plane, unit0 + done, rest.data(), false);
            if (s < 0) return s;
            std::fill(rest.begin(), rest.end(), 0);
        }
    }
    // A full-height strip's failure is passed over; the last, shorter
    // strip's ends the decode.
    if (r < 0 && units * unit_rows_ >= rows_per_strip_) return 0;
    return r;
}

int32_t PageReader::strip_deflate(uint32_t index, uint32_t plane, uint32_t unit0,
                                  uint32_t units) {
    int32_t r = read_strip(index, &strip_);
    if (r < 0) return r;
    Inflater inflater;
    inflater.set_input(strip_.data(), strip_.size());
    for (uint32_t u = 0; u < units; ++u) {
        const int32_t got = inflater.read(fix_.data(), raw_row_);
        if (got < 0) return got;
        if (uint32_t(got) < raw_row_) return IMG_ERR_READ;
        r = row_out(plane, unit0 + u, fix_.data(), true);
        if (r < 0) return r;
    }
    return 0;
}

}  // namespace tesslin::tiff
