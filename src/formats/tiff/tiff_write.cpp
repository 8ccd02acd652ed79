// The TIFF writer: one page per call, little-endian, a fixed directory
// layout with the page's data behind it, appended to the TIFF the stream
// already holds.
#include "formats/tiff/tiff_write.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "core/pixels.h"
#include "core/settings.h"
#include "core/stream.h"
#include "formats/ccitt/ccitt.h"
#include "formats/jpeg/jpeg.h"
#include "formats/tiff/lzw.h"
#include "formats/tiff/tiff.h"
#include "formats/tiff/tiff_dir.h"

namespace tesslin::tiff {

std::vector<ExtraTag>& extra_tags() {
    static std::vector<ExtraTag> tags;
    return tags;
}

namespace {

// Largest page index a new file gets: page numbers are 16-bit.
constexpr uint32_t kMaxIndex = 65536;

struct Entry {
    uint16_t tag, type;
    uint32_t count, value;
};

void put_entry(std::vector<uint8_t>& b, const Entry& e) {
    uint8_t x[12];
    store_le16(x, e.tag);
    store_le16(x + 2, e.type);
    store_le32(x + 4, e.count);
    store_le32(x + 8, e.value);
    b.insert(b.end(), x, x + 12);
}

void put32(std::vector<uint8_t>& b, uint32_t v) {
    uint8_t x[4];
    store_le32(x, v);
    b.insert(b.end(), x, x + 4);
}

void put16(std::vector<uint8_t>& b, uint16_t v) {
    uint8_t x[2];
    store_le16(x, v);
    b.insert(b.end(), x, x + 2);
}

// Bytes of one written row.
uint32_t packed_row(uint32_t width, uint32_t bits) {
    return uint32_t((uint64_t(width) * bits + 7) / 8);
}

// Rows per strip for a row size and a strip budget (10 when fewer than 5).
uint32_t strip_rows(uint32_t budget, uint32_t row) {
    const uint32_t n = row ? budget / row : budget;
    return n < 5 ? 10 : n;
}

}  // namespace

bool grey_palette(const DibHeader* h) {
    const RgbQuad* p = dib_palette(h);
    if (h->biBitCount == 4) {
        for (uint32_t i = 0; i < 16; ++i)
            if (p[i].rgbRed != 17 * i || p[i].rgbGreen != 17 * i || p[i].rgbBlue != 17 * i) return false;
        return true;
    }
    if (h->biBitCount == 8) {
        for (uint32_t i = 0; i < 256; ++i)
            if (p[i].rgbRed != p[i].rgbGreen || p[i].rgbRed != p[i].rgbBlue || p[i].rgbRed > i + 128)
                return false;
        return true;
    }
    return true;
}

namespace {

// PackBits of one row: runs of 3 to 127 equal bytes as 257 - n and the
// byte, everything else (pairs, and the row's last three bytes) as
// literals of up to 127 bytes behind n - 1.
void packbits_row(const uint8_t* row, uint32_t n, std::vector<uint8_t>& out) {
    auto literal = [&](uint32_t from, uint32_t to) {
        while (from < to) {
            const uint32_t k = std::min<uint32_t>(to - from, 127);
            out.push_back(uint8_t(k - 1));
            out.insert(out.end(), row + from, row + from + k);
            from += k;
        }
    };
    const uint32_t limit = n >= 3 ? n - 3 : 0;
    uint32_t i = 0, start = 0;
    while (i < limit) {
        const uint8_t v = row[i];
        if (i + 2 < limit && row[i + 1] == v && row[i + 2] == v) {
            uint32_t j = i + 3;
            while (j < limit && row[j] == v && j - i < 127) ++j;
            literal(start, i);
            out.push_back(uint8_t(257 - (j - i)));
            out.push_back(v);
            i = start = j;
        } else {
            ++i;
        }
    }
    literal(start, n);
}

}  // namespace

// ---- Page layout -------------------------------------------------------------

PageWriter::PageWriter(int32_t stream) : stream_(stream), out_(stream) {}

int32_t PageWriter::patch(uint32_t at, uint32_t value) {
    uint8_t b[4];
    store_le32(b, value);
    if (stream::seek(stream_, int32_t(base_ + at), 0) < 0) return IMG_ERR_WRITE;
    const int32_t w = stream::write(stream_, b, 4);
    if (w < 0) return w;
    return w == 4 ? 0 : IMG_ERR_WRITE;
}

int32_t PageWriter::begin(bool indexing) {
    const int32_t here = stream::seek(stream_, 0, 1);
    if (here < 0) return IMG_ERR_WRITE;
    base_ = uint32_t(here);
    uint8_t head[20];
    const int32_t got = stream::read(stream_, head, sizeof head);
    if (got >= 2 && head[0] == 'I' && head[1] == 'I') return append(head, uint32_t(got));
    if (stream::seek(stream_, here, 0) < 0) return IMG_ERR_WRITE;
    const uint32_t index =
        indexing ? uint32_t(std::clamp<int32_t>(settings().tiff_indexing, 0, kMaxIndex)) : 0;
    std::vector<uint8_t> h;
    h.insert(h.end(), {'I', 'I', 42, 0});
    if (index == 0) {
        ifd_ = 8;
        put32(h, ifd_);
    } else {
        ifd_ = 20 + 4 * index;
        put32(h, ifd_);
        h.insert(h.end(), kIndexSignature, kIndexSignature + 8);
        put32(h, 1);
        put32(h, ifd_);
        h.resize(ifd_, 0);
    }
    out_.write(h.data(), uint32_t(h.size()));
    return out_.status();
}

// The append steps: find the directory whose next offset is 0 (starting
// at the last indexed page when the file has our index), link the new page
// behind it and record it in the index while there is room.
int32_t PageWriter::append(const uint8_t* head, uint32_t have) {
    if (have < 8) return IMG_ERR_BAD_IMAGE;
    const uint32_t first = load_le32(head + 4);
    uint32_t ifd = first, pages = 0, room = 0;
    const bool indexed = have >= 20 && std::memcmp(head + 8, kIndexSignature, 4) == 0;
    auto read_at = [&](uint32_t at, uint8_t* b, uint32_t n) {
        return uint64_t(base_) + at <= 0x7FFFFFFF &&
               stream::seek(stream_, int32_t(base_ + at), 0) >= 0 &&
               stream::read(stream_, b, n) == int32_t(n);
    };
    if (indexed) {
        pages = load_le32(head + 16);
        room = first >= 20 ? (first - 20) / 4 : 0;
        const uint32_t known = std::min(pages, room);
        uint8_t b[4];
        if (known > 0) {
            if (!read_at(20 + 4 * (known - 1), b, 4)) return IMG_ERR_BAD_IMAGE;
            ifd = load_le32(b);
        }
    }
    std::unordered_set<uint32_t> seen;
    uint32_t next_field = 0;
    for (;;) {
        if (!seen.insert(ifd).second) return IMG_ERR_BAD_IMAGE;
        uint8_t b[4];
        if (!read_at(ifd, b, 2)) return IMG_ERR_BAD_IMAGE;
        next_field = ifd + 2 + 12 * uint32_t(load_le16(b));
        if (!read_at(next_field, b, 4)) return IMG_ERR_BAD_IMAGE;
        const uint32_t next = load_le32(b);
        if (next == 0) break;
        ifd = next;
    }
    const int32_t end = stream::seek(stream_, 0, 2);
    if (end < 0 || uint32_t(end) < base_) return IMG_ERR_BAD_IMAGE;
    ifd_ = uint32_t(end) - base_;
    // Nothing of the existing file is touched until link(): the new page is
    // written behind its old end first.
    appending_ = true;
    old_end_ = uint32_t(end);
    next_field_ = next_field;
    indexed_ = indexed;
    pages_ = pages;
    room_ = room;
    return 0;
}

// Links the finished page into the file: the index entry (beyond the
// index's count, so unseen until the count changes), the count, and last
// the chain's next pointer, which is a single 4-byte write. A failure puts
// back what was changed as far as the stream allows.
int32_t PageWriter::link() {
    if (!appending_) return 0;
    const bool entry = indexed_ && pages_ < room_;  // later pages: along the chain only
    uint8_t old_entry[4] = {};
    if (entry && (stream::seek(stream_, int32_t(base_ + 20 + 4 * pages_), 0) < 0 ||
                  stream::read(stream_, old_entry, 4) != 4))
        return IMG_ERR_WRITE;
    int32_t r = entry ? patch(20 + 4 * pages_, ifd_) : 0;
    if (r == 0 && indexed_) r = patch(16, pages_ + 1);
    if (r == 0) r = patch(next_field_, ifd_);
    if (r == 0) {
        appending_ = false;  // committed: nothing to undo any more
        return 0;
    }
    if (indexed_) patch(16, pages_);
    if (entry) patch(20 + 4 * pages_, load_le32(old_entry));
    return r;
}

void PageWriter::abandon() {
    if (!appending_) return;
    // What the writer still buffers is dropped with it (it never flushes on
    // destruction).
    stream::truncate(stream_, old_end_);
    appending_ = false;
}

int32_t PageWriter::directory(const PageDesc& desc) {
    const DibHeader* h = desc.header;
    const uint32_t width = uint32_t(h->biWidth), height = uint32_t(h->biHeight);
    const uint32_t bits = desc.bits, comp = desc.compression;
    const uint32_t samples = bits == 24 ? 3 : bits == 32 ? 4 : 1;
    const std::vector<ExtraTag>& extras = extra_tags();
    uint32_t extra_bytes = 0;
    for (const ExtraTag& t : extras)
        if (t.count >= 5) extra_bytes += t.count;
    const uint32_t map_bytes = desc.palette_page ? 6u << bits : samples > 1 ? 2 * samples : 0;
    const uint32_t count = 18 + (desc.palette_page ? 1 : 0) + (comp == 3 || comp == 6 ? 1 : 0) +
                           uint32_t(extras.size());
    const uint32_t d = ifd_ + 6 + 12 * count + extra_bytes;
    const uint32_t res_x = d, res_y = d + 8, map_at = d + 16;
    const uint32_t date_at = d + 16 + map_bytes, name_at = d + 56 + map_bytes;
    const uint32_t data_at = d + 256 + map_bytes;

    uint32_t rps = desc.rows_per_strip && desc.rows_per_strip < height ? desc.rows_per_strip : height;
    strips_ = rps ? (height + rps - 1) / rps : 1;
    if (strips_ <= 1) {
        strips_ = 1;
        rps = height;
    }
    strip_offsets_.assign(strips_, 0);
    strip_counts_.assign(strips_, 0);
    const uint32_t first_strip = strips_ > 1 ? data_at + 8 * strips_ : data_at;
    counts_at_ = strips_ > 1 ? data_at : 0;
    offsets_at_ = strips_ > 1 ? data_at + 4 * strips_ : first_strip;

    uint32_t photometric = 1;
    if (bits == 24) photometric = 2;
    else if (bits == 32) photometric = desc.alpha ? 2 : 5;
    else if (desc.palette_page) photometric = 3;
    else if (comp == 2 || comp == 3 || comp == 4 || comp == kMmrNatural) photometric = 0;

    std::vector<uint8_t> b;
    b.reserve(size_t(data_at - ifd_) + 8 * strips_);
    put16(b, uint16_t(count));
    put_entry(b, {kNewSubfileType, kLong, 1, 0});
    put_entry(b, {kImageWidth, kLong, 1, width});
    put_entry(b, {kImageLength, kLong, 1, height});
    put_entry(b, {kBitsPerSample, kShort, samples, samples > 1 ? map_at : bits});
    put_entry(b, {kCompression, kShort, 1, comp == kMmrNatural ? 4 : comp});
    put_entry(b, {kPhotometric, kShort, 1, photometric});
    put_entry(b, {kFillOrder, kShort, 1, comp == 3 || comp == 4 ? 2u : 1u});
    put_entry(b, {kStripOffsets, kLong, strips_, strips_ > 1 ? offsets_at_ : first_strip});
    put_entry(b, {kOrientation, kShort, 1, uint32_t(settings().image_orientation)});
    put_entry(b, {kSamplesPerPixel, kShort, 1, samples});
    put_entry(b, {kRowsPerStrip, kLong, 1, rps});
    put_entry(b, {kStripByteCounts, kLong, strips_,
                  strips_ > 1 ? counts_at_ : packed_row(width, bits) * height});
    put_entry(b, {kXResolution, kRational, 1, res_x});
    put_entry(b, {kYResolution, kRational, 1, res_y});
    put_entry(b, {kPlanarConfig, kShort, 1, 1});
    if (comp == 3) put_entry(b, {kT4Options, kLong, 1, 4});
    put_entry(b, {kResolutionUnit, kShort, 1, 2});
    put_entry(b, {kDateTime, kAscii, 20, date_at});
    put_entry(b, {kArtist, kAscii, 200, name_at});
    if (comp == 6) put_entry(b, {kJpegInterchange, kLong, 1, first_strip});
    if (desc.palette_page) put_entry(b, {kColorMap, kShort, 3u << bits, map_at});
    uint32_t extra_at = ifd_ + 6 + 12 * count;
    for (const ExtraTag& t : extras) {
        if (t.count < 5) {
            put_entry(b, {t.tag, kLong, 1, t.value});
        } else {
            put_entry(b, {t.tag, kAscii, t.count, extra_at});
            extra_at += t.count;
        }
    }
    put32(b, 0);
    for (const ExtraTag& t : extras)
        if (t.count >= 5) b.insert(b.end(), t.data.begin(), t.data.end());

    uint32_t xdpi = uint32_t(h->biXPelsPerMeter), ydpi = uint32_t(h->biYPelsPerMeter);
    uint32_t xden = 1, yden = 1;
    if (h->biXPelsPerMeter <= 0 || h->biYPelsPerMeter <= 0) {
        if (desc.default_res_200) {
            xdpi = ydpi = 200;
        } else {
            xdpi = 640, xden = 9;
            ydpi = 480, yden = 7;
        }
    }
    put32(b, xdpi);
    put32(b, xden);
    put32(b, ydpi);
    put32(b, yden);
    if (desc.palette_page) {
        const RgbQuad* p = dib_palette(h);
        const uint32_t n = 1u << bits;
        for (uint32_t i = 0; i < n; ++i) put16(b, uint16_t(p[i].rgbRed << 8));
        for (uint32_t i = 0; i < n; ++i) put16(b, uint16_t(p[i].rgbGreen << 8));
        for (uint32_t i = 0; i < n; ++i) put16(b, uint16_t(p[i].rgbBlue << 8));
    } else {
        for (uint32_t i = 0; i < samples && samples > 1; ++i) put16(b, 8);
    }
    {
        const Settings& s = settings();
        std::lock_guard<std::mutex> hold(text_lock());
        b.insert(b.end(), s.date, s.date + 40);
        b.insert(b.end(), s.notice, s.notice + 200);
    }
    if (strips_ > 1) b.resize(b.size() + 8 * size_t(strips_), 0);
    out_.write(b.data(), uint32_t(b.size()));
    return out_.status();
}

uint32_t PageWriter::position() {
    out_.flush();
    const int32_t here = stream::seek(stream_, 0, 1);
    return here < 0 ? 0 : uint32_t(here) - base_;
}

void PageWriter::strip_done(uint32_t strip, uint32_t start, uint32_t end) {
    if (strip >= strips_) return;
    strip_offsets_[strip] = start;
    strip_counts_[strip] = end - start;
}

int32_t PageWriter::finish() {
    if (!out_.flush()) return out_.status();
    const int32_t end = stream::seek(stream_, 0, 1);
    if (end < 0) return IMG_ERR_WRITE;
    // Byte counts: the single value field, or both arrays.
    const uint32_t count_field = ifd_ + 2 + 12 * 11 + 8;
    int32_t r = 0;
    if (strips_ == 1) {
        r = patch(count_field, strip_counts_[0]);
    } else {
        std::vector<uint8_t> arrays;
        for (uint32_t c : strip_counts_) put32(arrays, c);
        for (uint32_t o : strip_offsets_) put32(arrays, o);
        if (stream::seek(stream_, int32_t(base_ + counts_at_), 0) < 0) return IMG_ERR_WRITE;
        const int32_t w = stream::write(stream_, arrays.data(), uint32_t(arrays.size()));
        r = w < 0 ? w : uint32_t(w) == arrays.size() ? 0 : IMG_ERR_WRITE;
    }
    if (r == 0) r = link();
    if (r < 0) return r;
    return stream::seek(stream_, end, 0) < 0 ? IMG_ERR_WRITE : 0;
}

// ---- Format codes ------------------------------------------------------------

namespace {

struct Rows {
    IMG_SUPPLY_CALLBACK supply;
    intptr_t user;
    uint32_t width, bits;
    bool alpha;
    std::vector<uint8_t> row;
    // Row y with its samples in file order (BGR to RGB, BGRA to RGBA for
    // alpha images; CMYK and narrower pixels as stored); its first
    // packed_row() bytes are written.
    int32_t get(int32_t y, uint8_t** out) {
        const int32_t r = supply(user, row.data(), y, row_bytes(width, bits));
        if (r < 0) return r;
        if (bits == 24) pixels::swap_rgb24(row.data(), row.data(), width);
        else if (bits == 32 && alpha) pixels::swap_rgb32(row.data(), row.data(), width);
        *out = row.data();
        return 0;
    }
};

int32_t write_raw(PageWriter& w, Rows& rows, uint32_t first, uint32_t count) {
    const uint32_t n = packed_row(rows.width, rows.bits);
    for (uint32_t y = first; y < first + count; ++y) {
        uint8_t* row = nullptr;
        const int32_t r = rows.get(int32_t(y), &row);
        if (r < 0) return r;
        if (!w.out().write(row, n)) return w.out().status();
    }
    return 0;
}

int32_t write_lzw(PageWriter& w, Rows& rows, uint32_t first, uint32_t count, LzwEncoder& lzw) {
    const uint32_t n = packed_row(rows.width, rows.bits);
    lzw.begin();
    for (uint32_t y = first; y < first + count; ++y) {
        uint8_t* row = nullptr;
        const int32_t r = rows.get(int32_t(y), &row);
        if (r < 0) return r;
        lzw.add(row, n);
        if (lzw.size() >= 65536) {
            if (!w.out().write(lzw.data(), uint32_t(lzw.size()))) return w.out().status();
            lzw.clear();
        }
    }
    lzw.finish();
    if (!w.out().write(lzw.data(), uint32_t(lzw.size()))) return w.out().status();
    lzw.clear();
    return 0;
}

int32_t write_packbits(PageWriter& w, Rows& rows, uint32_t first, uint32_t count) {
    const uint32_t n = packed_row(rows.width, rows.bits);
    std::vector<uint8_t> packed;
    for (uint32_t y = first; y < first + count; ++y) {
        uint8_t* row = nullptr;
        const int32_t r = rows.get(int32_t(y), &row);
        if (r < 0) return r;
        packbits_row(row, n, packed);
        if (packed.size() >= 16384) {
            if (!w.out().write(packed.data(), uint32_t(packed.size()))) return w.out().status();
            packed.clear();
        }
    }
    if (!packed.empty() && !w.out().write(packed.data(), uint32_t(packed.size())))
        return w.out().status();
    return 0;
}

int32_t encode_page(PageWriter& w, const PageDesc& desc, int32_t code, IMG_SUPPLY_CALLBACK supply,
                    intptr_t user);

}  // namespace

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply, intptr_t user,
               int32_t code) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    const uint32_t bits = header->biBitCount;
    const uint32_t width = uint32_t(header->biWidth);
    const bool strips_on = settings().tiff_save_strips != 0;
    if (code == IMG_FORMAT_TIFF_G4_FILL1 && strips_on) code = IMG_FORMAT_TIFF_G4_STRIPS;

    PageDesc desc;
    desc.header = header;
    desc.bits = bits;
    desc.alpha = bits == 32 && header->biCompression != 0;
    switch (code) {
        case IMG_FORMAT_TIFF: case IMG_FORMAT_TIFF_LZW: case IMG_FORMAT_TIFF_PACKBITS: {
            if (!dib_depth_valid(bits)) return IMG_ERR_DEPTH;
            desc.compression = code == IMG_FORMAT_TIFF ? 1 : code == IMG_FORMAT_TIFF_LZW ? 5 : 32773;
            desc.palette_page = (bits == 4 || bits == 8) && !grey_palette(header);
            if (strips_on)
                desc.rows_per_strip = strip_rows(code == IMG_FORMAT_TIFF_PACKBITS ? 800000 : 65536,
                                                 packed_row(width, bits));
            break;
        }
        case IMG_FORMAT_TIFF_MH: case IMG_FORMAT_TIFF_G3: case IMG_FORMAT_TIFF_JBIG:
            if (bits != 1) return IMG_ERR_DEPTH;
            desc.compression = code == IMG_FORMAT_TIFF_MH ? 2 : code == IMG_FORMAT_TIFF_G3 ? 3 : 34661;
            desc.default_res_200 = code == IMG_FORMAT_TIFF_G3;
            break;
        case IMG_FORMAT_TIFF_G4: case IMG_FORMAT_TIFF_G4_FILL1: case IMG_FORMAT_TIFF_G4_STRIPS:
            desc.bits = 1;
            desc.compression = code == IMG_FORMAT_TIFF_G4 ? 4 : kMmrNatural;
            if (code == IMG_FORMAT_TIFF_G4_STRIPS) desc.rows_per_strip = strip_rows(800000, packed_row(width, 1));
            break;
        case IMG_FORMAT_TIFF_JPEG: {
            if (!(bits == 1 || bits == 4 || bits == 8 || bits == 24 || bits == 32)) return IMG_ERR_DEPTH;
            // Described as the JPEG encoder writes it: one grey component
            // for grey palettes, four for 32 bits, three otherwise.
            bool grey = false;
            if (bits <= 8 && dib_palette(header)[0].rgbBlue <= 40) {
                grey = true;
                const RgbQuad* p = dib_palette(header);
                for (uint32_t i = 0; i < (1u << bits); ++i)
                    if (p[i].rgbBlue != p[i].rgbGreen || p[i].rgbBlue != p[i].rgbRed) grey = false;
            }
            desc.bits = grey ? 8 : bits == 32 ? 32 : 24;
            desc.compression = 6;
            break;
        }
        default:
            return IMG_ERR_UNSUPPORTED;
    }

    PageWriter w(stream);
    int32_t r = w.begin();
    if (r < 0) return r;
    r = encode_page(w, desc, code, supply, user);
    if (r < 0) w.abandon();
    return r;
}

namespace {

int32_t encode_page(PageWriter& w, const PageDesc& desc, int32_t code, IMG_SUPPLY_CALLBACK supply,
                    intptr_t user) {
    const DibHeader* header = desc.header;
    const int32_t stream = w.stream();
    const uint32_t bits = header->biBitCount;
    const uint32_t width = uint32_t(header->biWidth), height = uint32_t(header->biHeight);
    int32_t r = w.directory(desc);
    if (r < 0) return r;

    Rows rows{supply, user, width, bits, desc.alpha, {}};
    rows.row.assign(size_t(row_bytes(width, bits)) + 16, 0);
    LzwEncoder lzw;
    const uint32_t rps = desc.rows_per_strip && w.strips() > 1 ? desc.rows_per_strip : height;
    for (uint32_t s = 0; s < w.strips(); ++s) {
        const uint32_t first = s * rps, count = std::min(rps, height - first);
        const uint32_t start = w.position();
        switch (code) {
            case 0: r = write_raw(w, rows, first, count); break;
            case 9: r = write_lzw(w, rows, first, count, lzw); break;
            case 16: r = write_packbits(w, rows, first, count); break;
            case 66: r = encode_jbig(w.out(), header, supply, user); break;
            case 7: r = ccitt::fax_encode_1d(stream, header, supply, user, 0, ccitt::kFrameMhAligned); break;
            case 8: r = ccitt::fax_encode_1d(stream, header, supply, user, 1, ccitt::kFrameG3); break;
            case 10: r = ccitt::fax_encode_g4(stream, header, supply, user, 1, ccitt::kFrameG4); break;
            case 51: r = ccitt::fax_encode_g4(stream, header, supply, user, 0, ccitt::kFrameG4); break;
            case 67: {
                DibHeader band = *header;
                band.biHeight = int32_t(count);
                r = ccitt::fax_encode_g4_rows(stream, &band, supply, user, 0, ccitt::kFrameG4,
                                              int32_t(first));
                break;
            }
            case 40: r = jpeg::encode(stream, header, supply, user, 0); break;
        }
        if (r < 0) return r;
        w.strip_done(s, start, w.position());
    }
    return w.finish();
}

}  // namespace

}  // namespace tesslin::tiff
