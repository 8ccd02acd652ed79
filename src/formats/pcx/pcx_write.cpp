// PCX writer and DCX page appender.
#include <cstring>
#include <vector>

#include "core/io.h"
#include "core/stream.h"
#include "formats/pcx/pcx.h"

namespace tesslin::pcx {
namespace {

constexpr uint32_t kHeaderBytes = 128;
constexpr uint32_t kLongestRun = 63;

// Appends the run-length form of one plane line: runs of equal bytes (at
// most 63, never past the line's end) as (0xC0 | length, value) when longer
// than one byte or when the byte itself looks like a count; other bytes as
// they are.
void encode_line(const uint8_t* line, uint32_t n, std::vector<uint8_t>& out) {
    uint32_t i = 0;
    while (i < n) {
        const uint8_t v = line[i];
        uint32_t run = 1;
        while (run < kLongestRun && i + run < n && line[i + run] == v) ++run;
        if (run > 1 || v >= 0xC0) out.push_back(uint8_t(0xC0 | run));
        out.push_back(v);
        i += run;
    }
}

// Writes one PCX image at the writer's position.
int32_t write_pcx(StreamWriter& out, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                  intptr_t user) {
    const uint32_t bits = header->biBitCount;
    const int32_t width = header->biWidth, height = header->biHeight;
    if (width < 1 || height < 1 || width > 0x10000 || height > 0x10000) return IMG_ERR_BAD_IMAGE;
    const uint32_t w = uint32_t(width);
    uint32_t version, plane_bits, planes, bpl, palette_info;
    switch (bits) {
        case 1: version = 2, plane_bits = 1, planes = 1, bpl = (w + 7) / 8, palette_info = 1; break;
        case 4: version = 2, plane_bits = 1, planes = 4, bpl = (w + 7) / 8, palette_info = 1; break;
        case 8: version = 5, plane_bits = 8, planes = 1, bpl = w, palette_info = 1; break;
        case 24: version = 5, plane_bits = 8, planes = 3, bpl = w, palette_info = 0; break;
        default: return IMG_ERR_DEPTH;
    }
    if (bpl > 0xFFFF) return IMG_ERR_BAD_IMAGE;

    uint8_t h[kHeaderBytes] = {10, uint8_t(version), 1, uint8_t(plane_bits)};
    store_le16(h + 8, uint16_t(w - 1));
    store_le16(h + 10, uint16_t(height - 1));
    store_le16(h + 12, uint16_t(header->biXPelsPerMeter));
    store_le16(h + 14, uint16_t(header->biYPelsPerMeter));
    const RgbQuad* pal = dib_palette(header);
    if (bits == 1 || bits == 4) {
        for (uint32_t i = 0; i < (1u << bits); ++i) {
            h[16 + 3 * i] = pal[i].rgbRed;
            h[17 + 3 * i] = pal[i].rgbGreen;
            h[18 + 3 * i] = pal[i].rgbBlue;
        }
    }
    h[65] = uint8_t(planes);
    store_le16(h + 66, uint16_t(bpl));
    store_le16(h + 68, uint16_t(palette_info));
    if (!out.write(h, kHeaderBytes)) return out.status();

    const uint32_t rb = row_bytes(w, bits);
    std::vector<uint8_t> row(rb), plane(bpl), coded;
    coded.reserve(size_t(planes) * bpl * 2 + 16);
    for (int32_t r = 0; r < height; ++r) {
        if (int32_t s = supply(user, row.data(), r, rb); s < 0) return s;
        coded.clear();
        if (bits == 1 || bits == 8) {
            encode_line(row.data(), bpl, coded);
        } else if (bits == 4) {
            // Plane k holds bit k of every pixel.
            for (uint32_t k = 0; k < 4; ++k) {
                std::memset(plane.data(), 0, bpl);
                for (uint32_t x = 0; x < w; ++x) {
                    const uint32_t v = (row[x / 2] >> ((x & 1) ? 0 : 4)) & 15;
                    if ((v >> k) & 1) plane[x / 8] = uint8_t(plane[x / 8] | (0x80 >> (x & 7)));
                }
                encode_line(plane.data(), bpl, coded);
            }
        } else {
            // Red, green, blue planes of the blue, green, red pixels.
            for (uint32_t c = 0; c < 3; ++c) {
                for (uint32_t x = 0; x < w; ++x) plane[x] = row[3 * x + 2 - c];
                encode_line(plane.data(), bpl, coded);
            }
        }
        if (!out.write(coded.data(), uint32_t(coded.size()))) return out.status();
    }
    if (bits == 8) {
        uint8_t tail[1 + 768];
        tail[0] = 0x0C;
        for (uint32_t i = 0; i < 256; ++i) {
            tail[1 + 3 * i] = pal[i].rgbRed;
            tail[2 + 3 * i] = pal[i].rgbGreen;
            tail[3 + 3 * i] = pal[i].rgbBlue;
        }
        out.write(tail, sizeof tail);
    }
    out.flush();
    return out.status();
}

bool depth_written(uint32_t bits) { return bits == 1 || bits == 4 || bits == 8 || bits == 24; }

// Reads up to n bytes at the stream's position; the count read.
uint32_t read_up_to(int32_t stream, uint8_t* out, uint32_t n) {
    uint32_t got = 0;
    while (got < n) {
        const int32_t r = stream::read(stream, out + got, n - got);
        if (r <= 0) break;
        got += uint32_t(r);
    }
    return got;
}

// A new DCX at `p`: the table with the first entry, then the page. The
// stream is cut to what was written (an older, longer file is not left
// behind it), or back to `p` when writing fails.
int32_t write_new_dcx(int32_t stream, uint32_t p, const DibHeader* header,
                      IMG_SUPPLY_CALLBACK supply, intptr_t user) {
    if (uint64_t(p) + kDcxTableBytes > 0x7FFFFFFF) return IMG_ERR_WRITE;
    if (stream::seek(stream, int32_t(p), 0) < 0) return IMG_ERR_WRITE;
    uint8_t table[kDcxTableBytes] = {};
    store_le32(table, kDcxMagic);
    store_le32(table + 4, p + kDcxTableBytes);
    StreamWriter out(stream);
    out.write(table, sizeof table);
    int32_t s = out.ok() ? write_pcx(out, header, supply, user) : out.status();
    if (s < 0) {
        stream::truncate(stream, p);
        return s;
    }
    const uint64_t end = uint64_t(p) + out.total();
    if (end <= 0x7FFFFFFF && stream::length(stream) > int32_t(end)) stream::truncate(stream, uint32_t(end));
    return 0;
}

}  // namespace

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t) {
    if (!depth_written(header->biBitCount)) return IMG_ERR_DEPTH;
    StreamWriter out(stream);
    return write_pcx(out, header, supply, user);
}

int32_t encode_dcx(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t) {
    if (!depth_written(header->biBitCount)) return IMG_ERR_DEPTH;
    const int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here;
    const uint32_t p = uint32_t(here);
    uint8_t table[kDcxTableBytes] = {};
    const uint32_t got = read_up_to(stream, table, kDcxTableBytes);
    if (got < 4 || load_le32(table) != kDcxMagic) return write_new_dcx(stream, p, header, supply, user);

    // Append: the first free entry, with room behind it for the zero entry
    // that ends the table before the first page.
    const int32_t end = stream::seek(stream, 0, 2);
    if (end < 0) return end;
    uint32_t free_entry = kDcxEntries, first_page = uint32_t(end);
    for (uint32_t i = 0; i < kDcxEntries; ++i) {
        const uint32_t at = load_le32(table + 4 + 4 * i);
        if (at == 0) {
            free_entry = i;
            break;
        }
        if (at > p && at < first_page) first_page = at;
    }
    const uint64_t entry_at = uint64_t(p) + 4 + 4 * uint64_t(free_entry);
    if (free_entry + 1 >= kDcxEntries || entry_at + 8 > first_page) return IMG_ERR_UNSUPPORTED;

    // The page first, at the end of the file; then its table entry. A
    // failure cuts the file back to its old end.
    StreamWriter out(stream);
    int32_t s = write_pcx(out, header, supply, user);
    if (s == 0) {
        uint8_t link[8] = {};
        store_le32(link, uint32_t(end));
        const bool terminated = load_le32(table + 8 + 4 * free_entry) == 0;
        const uint32_t n = terminated ? 4 : 8;
        if (stream::seek(stream, int32_t(entry_at), 0) < 0 ||
            stream::write(stream, link, n) != int32_t(n))
            s = IMG_ERR_WRITE;
    }
    if (s < 0) {
        stream::truncate(stream, uint32_t(end));
        return s;
    }
    return stream::seek(stream, 0, 2) < 0 ? IMG_ERR_WRITE : 0;
}

}  // namespace tesslin::pcx
