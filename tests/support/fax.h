// Helpers of the fax tests (CCITT codecs, raw fax, CALS and the fax
// containers): bilevel pages and the corpus fax page, a line callback that
// collects decoded rows, supply callbacks for the encoders, encoding into
// memory, and libtiff (through Pillow) and netpbm as independent readers.
#pragma once

#include <fcntl.h>

#include <algorithm>
#include <map>

#include "core/runs.h"
#include "formats/ccitt/ccitt.h"
#include "test_util.h"
#include "tiff_builder.h"

namespace tesslin::test {

inline Bytes bit_reversed(Bytes v) {
    for (auto& b : v) {
        uint8_t r = 0;
        for (int i = 0; i < 8; ++i)
            if (b & (1 << i)) r |= uint8_t(0x80 >> i);
        b = r;
    }
    return v;
}
// A bit string ("0110...") as bytes, the last byte padded with `pad`.
inline Bytes bits_to_bytes(std::string bits, char pad = '0') {
    while (bits.size() % 8) bits += pad;
    Bytes data;
    for (size_t i = 0; i < bits.size(); i += 8) data.push_back(uint8_t(std::stoi(bits.substr(i, 8), nullptr, 2)));
    return data;
}

// A bilevel page as the library holds rows: packed, 1 = white, rows of
// row_bytes(width, 1) bytes, bits past the width set.
struct Page {
    uint32_t width = 0, height = 0, stride = 0;
    Bytes bits;
    uint8_t* row(uint32_t y) { return bits.data() + size_t(y) * stride; }
    const uint8_t* row(uint32_t y) const { return bits.data() + size_t(y) * stride; }
    bool white(uint32_t x, uint32_t y) const { return row(y)[x >> 3] & (0x80 >> (x & 7)); }
    void set_black(uint32_t x0, uint32_t x1, uint32_t y) { runs::fill_bits(row(y), x0, x1, false); }
};

inline Page blank_page(uint32_t width, uint32_t height) {
    Page p;
    p.width = width;
    p.height = height;
    p.stride = row_bytes(width, 1);
    p.bits.assign(size_t(p.stride) * height, 0xFF);
    return p;
}
// A raster (dark samples black) as a page.
inline Page raster_page(const Raster& r) {
    Page p = blank_page(uint32_t(r.width), uint32_t(r.height));
    for (int32_t y = 0; y < r.height; ++y)
        for (int32_t x = 0; x < r.width; ++x)
            if (*r.at(x, y) < 128) p.set_black(uint32_t(x), uint32_t(x) + 1, uint32_t(y));
    return p;
}
inline Page load_pbm(const std::string& path) { return raster_page(read_netpbm(path)); }

// The reference raster of the corpus fax page that doc/page.g3, page.g32d
// and page.g4 hold (1728 x 2200, most significant bit first).
constexpr uint32_t kCorpusWidth = 1728, kCorpusHeight = 2200;
inline const Page& corpus_page() {
    static const Page page = load_pbm(corpus("refs/540397096c9b25d0.pbm"));
    return page;
}
inline const Bytes& corpus_fax(const std::string& name) {  // "g3", "g32d" or "g4"
    static std::map<std::string, Bytes> cache;
    auto [it, fresh] = cache.emplace(name, Bytes{});
    if (fresh) it->second = read_file(corpus("doc/page." + name));
    return it->second;
}

// First row (and column) where two pages differ, or "" when they agree.
inline std::string page_difference(const Page& a, const Page& b) {
    if (a.width != b.width || a.height != b.height)
        return "size " + std::to_string(a.width) + "x" + std::to_string(a.height) + " vs " +
               std::to_string(b.width) + "x" + std::to_string(b.height);
    for (uint32_t y = 0; y < a.height; ++y)
        for (uint32_t x = 0; x < a.width; ++x)
            if (a.white(x, y) != b.white(x, y)) return "row " + std::to_string(y) + " column " + std::to_string(x);
    return "";
}

// A test page: the corpus page's top left corner cut to width x height
// (repeated downwards when taller), with a black frame so that every edge
// column and row carries changes.
inline Page test_page(uint32_t width, uint32_t height) {
    const Page& src = corpus_page();
    Page p = blank_page(width, height);
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x) {
            const bool edge = x == 0 || y == 0 || x + 1 == width || y + 1 == height;
            if (edge || x >= src.width || !src.white(x, y % src.height)) p.set_black(x, x + 1, y);
        }
    return p;
}

// ---- pages through the public interface ------------------------------------

// A handle's rows as a page (1 = white, as a bilevel handle's palette is
// black, white); an empty page for other depths.
inline Page handle_page(int32_t handle) {
    int32_t w = 0, h = 0, bits = 0;
    IMG_bitmap_info(handle, &w, &h, &bits);
    Page p = blank_page(uint32_t(w), uint32_t(h));
    if (bits != 1) return Page{};
    for (int32_t y = 0; y < h; ++y) std::memcpy(p.row(uint32_t(y)), get_row(handle, y).data(), p.stride);
    return p;
}
// A bilevel handle holding the page, with the given resolution.
inline int32_t page_handle(const Page& page, int32_t dpi_x = 0, int32_t dpi_y = 0) {
    void* dib = make_dib(int32_t(page.width), int32_t(page.height), 1, [&](uint8_t* row, uint32_t n, int32_t r) {
        std::memcpy(row, page.row(uint32_t(r)), n);
    });
    dib_set_resolution(static_cast<DibHeader*>(dib), dpi_x, dpi_y);
    return IMG_create_handle_keep(dib);
}
// Difference between a handle and a page ("" when equal), the handle deleted.
inline std::string take_difference(int32_t handle, const Page& want) {
    if (handle < 0) return "status " + std::to_string(handle);
    const std::string d = page_difference(handle_page(handle), want);
    IMG_delete_bitmap(handle);
    return d;
}
// A file in memory is identified as `code`, decodes with the resolution
// given, and holds exactly the page.
inline void expect_file_decodes(const Bytes& file, int32_t code, int32_t dpi, const Page& want) {
    EXPECT_EQ(filetype_mem(file), code);
    const int32_t h = decode_mem(file);
    ASSERT_GE(h, 0);
    EXPECT_EQ(info_of(h).biXPelsPerMeter, dpi);
    EXPECT_EQ(take_difference(h, want), "");
}
inline int32_t fax_from_bytes(const Bytes& data, int32_t width, int32_t height, int32_t mode, int32_t fill_order) {
    void* block = to_block(data);
    const int32_t h = IMG_decompress_fax_mem(block, width, height, mode, fill_order);
    tesslin_block_free(block);
    return h;
}
inline int32_t fax_from_file(const std::string& path, int32_t width, int32_t height, int32_t mode,
                             int32_t fill_order) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return IMG_ERR_OPEN;
    const int32_t h = IMG_decompress_fax(fd, width, height, mode, fill_order);
    ::close(fd);
    return h;
}

// ---- the codecs directly -----------------------------------------------------

// Collects decoded rows into a page; run records are expanded after their
// form is checked.
struct Collector {
    Page page;
    bool invert = false;          // rows arrive inverted: store them the right way round
    std::vector<int> deliveries;  // per row
    int records = 0, packed = 0;
    std::string error;
    int32_t fail_at = -1;  // row index at which to return -99

    Collector(uint32_t width, uint32_t height) : page(blank_page(width, height)) { deliveries.assign(height, 0); }

    static int32_t line(uint8_t* row, intptr_t user, int32_t index, uint32_t count) {
        return reinterpret_cast<Collector*>(user)->take(row, index, count);
    }
    int32_t take(uint8_t* row, int32_t index, uint32_t count) {
        if (index == fail_at) return -99;
        if (index < 0 || uint32_t(index) >= page.height) {
            error = "row index " + std::to_string(index) + " out of range";
            return 0;
        }
        ++deliveries[size_t(index)];
        uint8_t* dst = page.row(uint32_t(index));
        if (count == page.stride) {
            ++packed;
            std::memcpy(dst, row, count);
        } else {
            ++records;
            const auto* rec = reinterpret_cast<const uint32_t*>(row);
            if (rec[0] != count) error = "record length word differs from the count";
            if (count % 4 || count < 20) error = "record length " + std::to_string(count);
            const uint32_t words = count / 4;
            for (uint32_t i = 2; i < words; ++i)
                if (rec[i] < rec[i - 1]) error = "record positions decrease";
            if (rec[words - 1] != page.width) error = "record does not end with the width";
            runs::expand(rec, page.width, dst, page.stride);
        }
        if (invert)
            for (uint32_t i = 0; i < page.stride; ++i) dst[i] = uint8_t(~dst[i]);
        if (page.width & 7) dst[page.width / 8] |= uint8_t(0xFF >> (page.width & 7));
        return 0;
    }
    bool each_row_once() const {
        return std::all_of(deliveries.begin(), deliveries.end(), [](int d) { return d == 1; });
    }
};

inline ccitt::FaxParams fax_params(uint32_t width, uint32_t height, int32_t mode, uint32_t fill_order = 1) {
    ccitt::FaxParams p;
    p.width = width;
    p.height = height;
    p.mode = mode;
    p.fill_order = fill_order;
    return p;
}

// Decodes coded data held in memory, through a memory stream for the stream
// modes.
inline int32_t decode_bytes(const Bytes& data, ccitt::FaxParams params, Collector& out, uint32_t rows,
                            uint32_t first_row = 0) {
    params.data_length = uint32_t(data.size());
    if (params.mode == ccitt::kModeMhMemory || params.mode == ccitt::kModeG3MrMemory ||
        params.mode == ccitt::kModeG4Memory || params.mode == ccitt::kModeMrPlain)
        return ccitt::fax_decode(data.data(), rows, first_row, params, 0, Collector::line, intptr_t(&out));
    void* block = to_block(data);
    const int32_t s = stream::mem_create_sized(block, uint32_t(data.size()));
    const int32_t status = ccitt::fax_decode(nullptr, rows, first_row, params, s, Collector::line, intptr_t(&out));
    stream::mem_release(s);
    tesslin_block_free(block);
    return status;
}

// Supplies a page's rows, packed or as run records.
struct Supplier {
    const Page* page;
    bool records;
    int32_t fail_at = -1;

    static int32_t supply(intptr_t user, uint8_t* buffer, int32_t row, uint32_t count) {
        auto* s = reinterpret_cast<Supplier*>(user);
        if (row == s->fail_at) return -77;
        if (row < 0 || uint32_t(row) >= s->page->height || count != s->page->stride) return -3;
        const uint8_t* src = s->page->row(uint32_t(row));
        if (!s->records) {
            std::memcpy(buffer, src, count);
            return 0;
        }
        const uint32_t len = runs::encode(src, s->page->width, reinterpret_cast<uint32_t*>(buffer));
        reinterpret_cast<uint32_t*>(buffer)[0] = 0;  // the supply's records start with 0
        return int32_t(len);
    }
};

// Runs an encoder into a memory stream; returns its status and the bytes.
template <typename Encode>
int32_t encode_to_bytes(Bytes& out, uint32_t capacity, Encode&& encode) {
    void* block = tesslin_block_alloc(capacity);
    const int32_t s = stream::mem_create_sized(block, capacity);
    const int32_t status = encode(s);
    const int32_t length = stream::length(s);
    out.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + (length > 0 ? length : 0));
    stream::mem_release(s);
    tesslin_block_free(block);
    return status;
}

// Encodes rows [first, first + rows) of a page (rows < 0: all) with the
// one-dimensional encoder or, for g4, the Group 4 one.
inline int32_t encode_page(Bytes& out, const Page& page, bool records, int32_t bit_order, int32_t framing,
                           bool g4, int32_t first_row = 0, int32_t rows = -1) {
    Supplier sup{&page, records};
    DibHeader h = dib_header(int32_t(page.width), rows < 0 ? int32_t(page.height) : rows, 1);
    h.biCompression = records ? IMG_COMPRESSION_RUNS : 0;
    return encode_to_bytes(out, 8u << 20, [&](int32_t s) {
        if (!g4) return ccitt::fax_encode_1d(s, &h, Supplier::supply, intptr_t(&sup), bit_order, framing);
        if (first_row || rows >= 0)
            return ccitt::fax_encode_g4_rows(s, &h, Supplier::supply, intptr_t(&sup), bit_order, framing, first_row);
        return ccitt::fax_encode_g4(s, &h, Supplier::supply, intptr_t(&sup), bit_order, framing);
    });
}

// Bits as a string of '0' and '1'.
inline std::string as_bits(const Bytes& bytes) {
    std::string s;
    for (uint8_t b : bytes)
        for (int i = 7; i >= 0; --i) s += (b >> i) & 1 ? '1' : '0';
    return s;
}
// Plain two-dimensional (IBM MMR) data of a page whose first row is white:
// an EOL, a 1 and the first row in one dimension, an EOL, a 0 and the other
// rows as a Group 4 band (which starts from a white reference row).
inline Bytes plain_mmr(const Page& page) {
    Bytes mh, g4;
    encode_page(mh, page, false, 0, ccitt::kFrameMhAligned, false, 0, 1);
    encode_page(g4, page, false, 0, ccitt::kFrameG4, true, 1, int32_t(page.height - 1));
    return bits_to_bytes("000000000001" "1" + as_bits(mh) + "000000000001" "0" + as_bits(g4));
}

// ---- independent readers ------------------------------------------------------

// Pillow (libtiff underneath) reading coded strips wrapped in a min-is-white
// bilevel TIFF of `compression` (2, 3 with byte-aligned EOLs, 4) and fill
// order; an empty page when Pillow fails.
inline Page libtiff_decode(uint32_t width, uint32_t height, uint32_t compression, uint32_t fill_order,
                           uint32_t rows_per_strip, const std::vector<Bytes>& strips) {
    std::vector<std::pair<uint16_t, std::vector<uint32_t>>> extra = {{266, {fill_order}}};
    if (compression == 3) extra.push_back({292, {4}});
    const std::string path = temp_path("fax-libtiff.tif");
    write_file(path, tiff_page(width, height, {1}, 0, strips, compression, rows_per_strip, extra));
    const Raster r = pillow(path, "L");
    fs::remove(path);
    return r.px.empty() ? Page{} : raster_page(r);
}
// netpbm's g3topbm reading a Group 3 stream; an empty page when it fails.
inline Page g3topbm(const Bytes& g3, const std::string& options = "") {
    const std::string in = temp_path("fax.g3"), out = temp_path("fax.pbm");
    write_file(in, g3);
    const Page p = run("g3topbm " + options + " '" + in + "' > '" + out + "'") ? load_pbm(out) : Page{};
    fs::remove(in);
    fs::remove(out);
    return p;
}
// Rows of a page as they stand in a P4 file (1 = black).
inline Bytes pbm_bytes(const Page& p) {
    const std::string head = "P4\n" + std::to_string(p.width) + " " + std::to_string(p.height) + "\n";
    Bytes out(head.begin(), head.end());
    for (uint32_t y = 0; y < p.height; ++y)
        for (uint32_t b = 0; b < (p.width + 7) / 8; ++b) out.push_back(uint8_t(~p.row(y)[b]));
    return out;
}

}  // namespace tesslin::test
