// JPEG-compressed pages. Compression 7 (and 6 without Huffman tables in
// the directory) goes to the JPEG decoder: one stream for the whole page,
// or, as libtiff writes them, one abbreviated stream per strip or tile that
// takes its tables from the JPEGTables field. Old-style compression 6
// keeps its tables in the directory; each strip's entropy-coded data is
// wrapped in the markers those tables describe and decoded the same way.
#include <algorithm>
#include <cstring>

#include "core/stream.h"
#include "formats/jpeg/jpeg.h"
#include "formats/tiff/tiff_read.h"

namespace tesslin::tiff {
namespace {

// Callback adapters: each strip's stream announces its own header and
// numbers its rows from 0; the page is announced once, with its full
// height, and the rows are moved to their place.
struct StripAdapter {
    PageReader* page = nullptr;
    uint32_t height = 0;      // rows of the page (or tile)
    uint32_t first_row = 0;   // page row of the current stream's row 0
    uint32_t rows = 0;        // rows the current stream contributes
    uint32_t x_res = 0, y_res = 0;
    bool announced = false;
    int32_t width = 0;
    uint16_t bits = 0;
    std::vector<uint8_t> block;
};

int32_t adapter_header(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    auto* a = reinterpret_cast<StripAdapter*>(user);
    if (a->announced)
        return h->biWidth == a->width && h->biBitCount == a->bits ? 1 : IMG_ERR_BAD_IMAGE;
    a->block.assign(kHeaderBlockSize, 0);
    std::memcpy(a->block.data(), h, kDibHeaderSize + palette_bytes(h->biBitCount));
    auto* page = reinterpret_cast<DibHeader*>(a->block.data());
    page->biHeight = int32_t(a->height);
    page->biSizeImage = row_bytes(uint32_t(page->biWidth), page->biBitCount) * a->height;
    if (a->x_res && a->y_res) dib_set_resolution(page, int32_t(a->x_res), int32_t(a->y_res));
    a->width = h->biWidth;
    a->bits = h->biBitCount;
    a->announced = true;
    const int32_t r = a->page->header_(page, a->page->user_);
    return r < 0 ? r : 1;
}

int32_t adapter_raster(uint8_t* row, intptr_t user, int32_t number, uint32_t count) {
    auto* a = reinterpret_cast<StripAdapter*>(user);
    if (number < 0 || uint32_t(number) >= a->rows) return 0;
    const uint32_t at = a->first_row + uint32_t(number);
    if (at >= a->height) return 0;
    return a->page->raster_(row, a->page->user_, int32_t(at), count);
}

bool starts_with_soi(TiffFile& f, uint32_t offset) {
    uint8_t b[2];
    return f.seek(offset) && f.in().read_some(b, 2) == 2 && b[0] == 0xFF && b[1] == 0xD8;
}

void put16(std::vector<uint8_t>& v, uint32_t x) {
    v.push_back(uint8_t(x >> 8));
    v.push_back(uint8_t(x));
}

}  // namespace

int32_t PageReader::decode_jpeg() {
    const Directory& d = dir_;
    jpeg::Tables tables;
    jpeg::DecodeOptions options;
    // libtiff writes compression 7 RGB pages without colour conversion and
    // without a marker saying so (old-style pages hold JFIF streams, YCbCr
    // whatever the photometric value says).
    options.rgb = d.compression == 7 && d.photometric == 2 && d.photometric_present;
    if (d.jpeg_tables.present()) {
        std::vector<uint8_t> bytes;
        if (!file_.bytes(d.jpeg_tables, 1u << 20, &bytes)) return IMG_ERR_READ;
        if (jpeg::read_tables(bytes.data(), uint32_t(bytes.size()), &tables) < 0)
            return IMG_ERR_BAD_IMAGE;
        options.tables = &tables;
    }
    StripAdapter a;
    a.page = this;
    a.height = height_;
    a.rows = height_;
    a.x_res = d.x_res;
    a.y_res = d.y_res;
    const auto user = reinterpret_cast<intptr_t>(&a);
    const uint64_t base = file_.base();
    auto run_stream = [&](uint64_t at) -> int32_t {
        if (at > 0x7FFFFFFF) return IMG_ERR_READ;
        const int32_t r = jpeg::decode(options, uint32_t(at), adapter_raster, user, adapter_header,
                                       file_.stream());
        if (r >= 0 && !a.announced) return IMG_ERR_BAD_IMAGE;
        return r;
    };

    planes_ = 1;
    int32_t r = 0;
    if (d.jpeg_interchange) {
        // One stream for the page, found at the interchange offset or at
        // the first strip.
        uint32_t at = d.jpeg_interchange;
        if (!starts_with_soi(file_, at) && load_strip_table() == 0 && starts_with_soi(file_, offsets_[0]))
            at = offsets_[0];
        if (rows_per_strip_ < height_) options.strip_rows = rows_per_strip_;
        return run_stream(base + at);
    }
    r = load_strip_table();
    if (r < 0) return r;
    const uint32_t strips = d.tiled ? 1 : strips_per_plane_;
    if (strips > 1 && !(starts_with_soi(file_, offsets_[0]) && starts_with_soi(file_, offsets_[1]))) {
        // One stream running through every strip.
        options.strip_rows = rows_per_strip_;
        return run_stream(base + offsets_[0]);
    }
    for (uint32_t s = 0; s < strips; ++s) {
        const uint32_t index = strip_index(0, s);
        a.first_row = s * rows_per_strip_;
        a.rows = std::min(rows_per_strip_, height_ - a.first_row);
        r = run_stream(base + offsets_[index]);
        if (r < 0) return r;
    }
    return 0;
}

// Old-style JPEG: the quantisation and Huffman tables are in the directory
// (three offsets each, one per component); each strip holds bare
// entropy-coded data, possibly behind a start-of-scan segment.
int32_t PageReader::decode_old_jpeg() {
    const Directory& d = dir_;
    const uint32_t n = samples_;
    if (n != 1 && n != 3) return IMG_ERR_VARIANT;
    std::vector<uint32_t> q, dc, ac;
    if (!file_.values(d.jpeg_q, n, &q) || !file_.values(d.jpeg_dc, n, &dc) ||
        !file_.values(d.jpeg_ac, n, &ac) || q.size() < n || dc.size() < n || ac.size() < n)
        return IMG_ERR_BAD_IMAGE;

    // The tables part of the stream, shared by every strip.
    std::vector<uint8_t> tables;
    for (uint32_t i = 0; i < n; ++i) {
        uint8_t table[64];
        if (!file_.seek(q[i]) || !file_.in().read(table, 64)) return IMG_ERR_READ;
        tables.insert(tables.end(), {0xFF, 0xDB, 0x00, 67, uint8_t(i)});
        tables.insert(tables.end(), table, table + 64);
    }
    for (int cls = 0; cls < 2; ++cls) {
        const std::vector<uint32_t>& at = cls ? ac : dc;
        for (uint32_t i = 0; i < n; ++i) {
            uint8_t counts[16];
            if (!file_.seek(at[i]) || !file_.in().read(counts, 16)) return IMG_ERR_READ;
            uint32_t total = 0;
            for (uint8_t c : counts) total += c;
            total = std::min<uint32_t>(total, 256);
            uint8_t symbols[256];
            if (!file_.in().read(symbols, total)) return IMG_ERR_READ;
            tables.insert(tables.end(), {0xFF, 0xC4});
            put16(tables, 19 + total);
            tables.push_back(uint8_t((cls << 4) | i));
            tables.insert(tables.end(), counts, counts + 16);
            tables.insert(tables.end(), symbols, symbols + total);
        }
    }
    if (d.jpeg_restart) {
        tables.insert(tables.end(), {0xFF, 0xDD, 0x00, 0x04});
        put16(tables, d.jpeg_restart & 0xFFFF);
    }
    const uint32_t h = d.ycbcr_h ? d.ycbcr_h : 1, v = d.ycbcr_v ? d.ycbcr_v : 1;
    if (h > 4 || v > 4) return IMG_ERR_VARIANT;

    int32_t r = load_strip_table();
    if (r < 0) return r;
    StripAdapter a;
    a.page = this;
    a.height = height_;
    a.x_res = d.x_res;
    a.y_res = d.y_res;
    const auto user = reinterpret_cast<intptr_t>(&a);
    std::vector<uint8_t> stream;
    const uint32_t strips = d.tiled ? 1 : strips_per_plane_;
    for (uint32_t s = 0; s < strips; ++s) {
        a.first_row = s * rows_per_strip_;
        a.rows = std::min(rows_per_strip_, height_ - a.first_row);
        r = read_strip(strip_index(0, s), &strip_);
        if (r < 0) return r;
        size_t skip = 0;
        if (strip_.size() >= 4 && strip_[0] == 0xFF && strip_[1] == 0xDA)
            skip = std::min(strip_.size(), size_t(2) + load_be16(strip_.data() + 2));
        stream.assign({0xFF, 0xD8});
        stream.insert(stream.end(), tables.begin(), tables.end());
        stream.insert(stream.end(), {0xFF, 0xC0});
        put16(stream, 8 + 3 * n);
        stream.push_back(8);
        put16(stream, a.rows);
        put16(stream, width_);
        stream.push_back(uint8_t(n));
        for (uint32_t i = 0; i < n; ++i) {
            stream.push_back(uint8_t(i + 1));
            stream.push_back(i == 0 ? uint8_t((h << 4) | v) : 0x11);
            stream.push_back(uint8_t(i));
        }
        stream.insert(stream.end(), {0xFF, 0xDA});
        put16(stream, 6 + 2 * n);
        stream.push_back(uint8_t(n));
        for (uint32_t i = 0; i < n; ++i) {
            stream.push_back(uint8_t(i + 1));
            stream.push_back(uint8_t((i << 4) | i));
        }
        stream.insert(stream.end(), {0x00, 0x3F, 0x00});
        stream.insert(stream.end(), strip_.begin() + long(skip), strip_.end());
        stream.insert(stream.end(), {0xFF, 0xD9});
        const int32_t mem = stream::mem_create_sized(stream.data(), uint32_t(stream.size()));
        if (!mem) return IMG_ERR_MEMORY;
        r = jpeg::decode(0, adapter_raster, user, adapter_header, mem);
        stream::mem_release(mem);
        if (r >= 0 && !a.announced) r = IMG_ERR_BAD_IMAGE;
        if (r < 0) return r;
    }
    return 0;
}

}  // namespace tesslin::tiff
