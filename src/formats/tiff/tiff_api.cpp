// The TIFF reader's entry point and the directory queries: page count,
// orientation, tiles, tags, ABIC parameters; the exported tag-setting and
// stream-writing functions.
#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "core/api.h"
#include "core/settings.h"
#include "core/stream.h"
#include "formats/tiff/tiff.h"
#include "formats/tiff/tiff_read.h"
#include "formats/tiff/tiff_write.h"
#include "platform/platform.h"

namespace tesslin::tiff {
namespace {

// Entry-count bounds of the queries' walks (the decoder's are tighter).
constexpr uint32_t kQueryMinEntries = 3, kQueryMaxEntries = 1000;

// Reads the directory of a page for a query.
int32_t query_directory(TiffFile& f, int32_t page, std::vector<Field>* fields) {
    if (page < 0) page = 0;
    int32_t r = f.read_header();
    if (r < 0) return r;
    uint32_t ifd = 0, next = 0;
    r = f.find_page(uint32_t(page), &ifd, kQueryMinEntries, kQueryMaxEntries, kQueryMinEntries,
                    kQueryMaxEntries, true);
    if (r < 0) return r;
    return f.read_directory(ifd, fields, &next);
}

// The library's date and name strings take the DateTime and Artist of the
// page read, so that a page written afterwards carries them on.
void keep_date_and_artist(TiffFile& f, const Directory& d) {
    std::vector<uint8_t> date, artist;
    Settings& s = settings();
    // Read from the file first, then copied in under the lock.
    const bool has_date = d.date.present() && f.bytes(d.date, sizeof s.date, &date) && !date.empty();
    const bool has_artist =
        d.artist.present() && f.bytes(d.artist, sizeof s.notice - 1, &artist) && !artist.empty();
    if (!has_date && !has_artist) return;
    std::lock_guard<std::mutex> hold(text_lock());
    if (has_date) {
        std::memset(s.date, 0, sizeof s.date);
        std::memcpy(s.date, date.data(), date.size());
    }
    if (has_artist) {
        std::memset(s.notice, 0, sizeof s.notice);
        std::memcpy(s.notice, artist.data(), artist.size());
    }
}

// Reads the header and the directory of the page the decoder opens.
int32_t open_page(TiffFile& f, uint32_t page, Directory* d) {
    int32_t r = f.read_header();
    if (r < 0) return r;
    uint32_t ifd = 0, next = 0;
    r = f.find_page(page, &ifd, kFirstMinEntries, kFirstMaxEntries, kChainMinEntries,
                    kChainMaxEntries);
    if (r < 0) return r;
    std::vector<Field> fields;
    r = f.read_directory(ifd, &fields, &next);
    if (r < 0) return r;
    parse_directory(f, fields, d);
    return 0;
}

}  // namespace

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    if (!raster || !header) return IMG_ERR_BAD_IMAGE;
    uint32_t base = position, page = 0, tile = 0;
    int32_t channel = 0;
    if (position_is_page(position)) {
        const int32_t here = stream::seek(stream, 0, 1);
        if (here < 0) return here;
        base = uint32_t(here);
        if (position & 0x40000000u) {
            channel = -int32_t(position);
        } else {
            page = position_page(position);
            tile = (position >> 16) & 0x3FFF;
        }
    }
    TiffFile f(stream, base);
    Directory d;
    int32_t r = open_page(f, page, &d);
    if (r < 0) return r;
    keep_date_and_artist(f, d);
    PageReader reader(f, d, raster, user, header, tile, channel);
    r = reader.run();
    return r < 0 ? r : 0;
}

int32_t count_pages(int32_t stream) {
    TiffFile f(stream, 0);
    if (f.read_header() < 0) return 0;
    std::unordered_set<uint32_t> seen;
    uint32_t offset = f.first_ifd();
    int32_t pages = 0;
    while (offset != 0 && seen.insert(offset).second) {
        uint8_t b[4];
        if (!f.seek(offset) || f.in().read_some(b, 2) < 2) break;
        const uint32_t n = f.load16(b);
        if (n < kChainMinEntries || n > kChainMaxEntries) break;
        ++pages;
        if (!f.seek(offset + 2 + 12 * n) || f.in().read_some(b, 4) < 4) break;
        offset = f.load32(b);
    }
    return pages;
}

int32_t orientation(int32_t stream, int32_t page) {
    TiffFile f(stream, 0);
    std::vector<Field> fields;
    const int32_t r = query_directory(f, page, &fields);
    if (r < 0) return r;
    const Field* o = find_field(fields, kOrientation);
    const uint32_t v = o ? f.value(*o) : 0;
    switch (v) {
        case 1: return 0;
        case 6: return 90;
        case 3: return 180;
        case 8: return 270;
        default: return int32_t(v);
    }
}

int32_t tile_info(int32_t stream, uint32_t base, int32_t page, TileInfo* out) {
    TiffFile f(stream, base);
    std::vector<Field> fields;
    const int32_t r = query_directory(f, page, &fields);
    if (r < 0) return r;
    const Field* tw = find_field(fields, kTileWidth);
    const Field* tl = find_field(fields, kTileLength);
    if (!tw) return page ? IMG_ERR_NO_PAGE : IMG_ERR_NOT_TILED;
    if (!tl) return IMG_ERR_NOT_TILED;
    const Field* iw = find_field(fields, kImageWidth);
    const Field* il = find_field(fields, kImageLength);
    TileInfo t{};
    t.image_width = int32_t(iw ? f.value(*iw) : 0);
    t.image_height = int32_t(il ? f.value(*il) : 0);
    t.tile_width = int32_t(f.value(*tw));
    t.tile_height = int32_t(f.value(*tl));
    // Without a tile size no tile count can be formed.
    if (t.tile_width <= 0 || t.tile_height <= 0 || t.image_width < 0 || t.image_height < 0)
        return IMG_ERR_BAD_IMAGE;
    const int64_t across = (int64_t(t.image_width) + t.tile_width - 1) / t.tile_width;
    const int64_t down = (int64_t(t.image_height) + t.tile_height - 1) / t.tile_height;
    if (across * down > 0x7FFFFFFF) return IMG_ERR_BAD_IMAGE;
    t.tiles_across = int32_t(across);
    t.tiles_total = int32_t(across * down);
    *out = t;
    return 0;
}

int32_t tile_query(int32_t stream, int32_t page, TileInfo* out) {
    return tile_info(stream, 0, page, out);
}

int32_t is_tiled(int32_t stream, uint32_t base) {
    TiffFile f(stream, base);
    std::vector<Field> fields;
    if (query_directory(f, 0, &fields) < 0) return 0;
    const Field* tw = find_field(fields, kTileWidth);
    return tw && f.value(*tw) != 0 && !find_field(fields, kJpegQTables) ? 1 : 0;
}

int32_t tag_query(int32_t stream, int32_t tag, int32_t size, int32_t* value, void* buffer,
                  int32_t page) {
    TiffFile f(stream, 0);
    std::vector<Field> fields;
    const int32_t r = query_directory(f, page, &fields);
    if (r < 0) return r;
    const Field* e = find_field(fields, uint16_t(tag));
    if (!e || tag < 0 || tag > 0xFFFF) return IMG_ERR_NOT_FOUND;
    if (e->type == kAscii || e->count > 4) {
        std::vector<uint8_t> bytes;
        const uint32_t max = size > 0 ? uint32_t(size) : 0;
        if (!f.bytes(*e, max, &bytes)) return IMG_ERR_READ;
        if (buffer && !bytes.empty()) std::memcpy(buffer, bytes.data(), bytes.size());
        return int32_t(bytes.size());
    }
    uint32_t v = 0;
    if (e->type == kShort && e->count == 2) v = f.load32(e->raw);  // both values
    else v = e->type == kRational ? f.rational(*e) : f.value(*e);
    if (value) *value = int32_t(v);
    return 0;
}

int32_t list_directory(int32_t stream, int32_t page, IMG_TIFF_FIELD* out, int32_t max) {
    TiffFile f(stream, 0);
    std::vector<Field> fields;
    const int32_t r = query_directory(f, page, &fields);
    if (r < 0) return r;
    const size_t n = std::min(fields.size(), size_t(out ? std::max(max, 0) : 0));
    for (size_t i = 0; i < n; ++i) {
        const Field& e = fields[i];
        IMG_TIFF_FIELD& o = out[i];
        o = IMG_TIFF_FIELD{};
        o.tag = e.tag;
        o.type = e.type;
        o.count = e.count;
        const uint32_t size = type_size(e.type);
        if (size && uint64_t(e.count) * size > 4) o.offset = f.offset_of(e);
        if (!size || e.type == kAscii) continue;
        // The first 16 bytes of the values, decoded by their size and sign.
        std::vector<uint8_t> b;
        if (!f.bytes(e, 16, &b)) continue;
        const uint8_t* p = b.data();
        const size_t have = b.size();
        if (size == 1) {
            for (size_t k = 0; k < 4 && k < have; ++k)
                o.value[k] = e.type == 6 ? uint32_t(int32_t(int8_t(p[k]))) : p[k];
        } else if (size == 2) {
            for (size_t k = 0; k < 4 && 2 * k + 2 <= have; ++k) {
                const uint16_t v = f.load16(p + 2 * k);
                o.value[k] = e.type == 8 ? uint32_t(int32_t(int16_t(v))) : v;
            }
        } else if (e.type == 12) {
            // A DOUBLE's words in file order are high then low for Motorola.
            if (have >= 8) {
                const uint32_t w0 = f.load32(p), w1 = f.load32(p + 4);
                o.value[0] = f.big_endian() ? w1 : w0;
                o.value[1] = f.big_endian() ? w0 : w1;
            }
        } else {
            for (size_t k = 0; k < 4 && 4 * k + 4 <= have; ++k) o.value[k] = f.load32(p + 4 * k);
        }
    }
    return int32_t(fields.size());
}

int32_t abic_params(int32_t stream, int32_t page, AbicParams* out) {
    const int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here;
    TiffFile f(stream, uint32_t(here));
    Directory d;
    const int32_t r = open_page(f, uint32_t(std::max(page, 0)), &d);
    if (r < 0) return r;
    if (!d.strip_offsets.present() || !d.width || !d.length) return kAbicParamsAbsent;
    out->width = int32_t(d.width);
    out->height = int32_t(d.length);
    out->bits = int32_t(d.bits * std::max<uint32_t>(d.samples, 1));
    out->x_dpi = int32_t(d.x_res);
    out->y_dpi = int32_t(d.y_res);
    const uint32_t strip = f.value(d.strip_offsets);
    const uint64_t at = uint64_t(here) + strip;
    if (at > 0x7FFFFFFF || stream::seek(stream, int32_t(at), 0) < 0) return IMG_ERR_READ;
    return 0;
}

}  // namespace tesslin::tiff

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMGLOW_set_tiff_tag(int32_t tag, int32_t count, int32_t value,
                                        const void* data) {
    return api_call([&]() -> int32_t {
        std::vector<tiff::ExtraTag>& tags = tiff::extra_tags();
        if (tag < 0) {
            tags.clear();
            tags.shrink_to_fit();
            return 0;
        }
        if (tag > 0xFFFF) return IMG_ERR_BAD_IMAGE;
        tiff::ExtraTag t{uint16_t(tag), uint32_t(count < 0 ? 0 : count), uint32_t(value), {}};
        if (count >= 5) {
            if (!data) return IMG_ERR_BAD_IMAGE;
            const auto* p = static_cast<const uint8_t*>(data);
            t.data.assign(p, p + count);
        }
        tags.push_back(std::move(t));
        return 0;
    });
}

TESSLIN_API int32_t IMGLOW_write_tiff_stream(const IMG_BITMAPINFOHEADER* header, const void* data,
                                             uint32_t length, int32_t compression,
                                             const char* file) {
    return api_call([&]() -> int32_t {
        if (!header || (!data && length) || header->biWidth < 1 || header->biHeight < 1)
            return IMG_ERR_BAD_IMAGE;
        if (!dib_depth_valid(header->biBitCount)) return IMG_ERR_DEPTH;
        int32_t fd = platform::file_open(file, 1);
        if (fd < 0) fd = platform::file_open(file, 2);
        if (fd < 0) return IMG_ERR_CREATE;
        tiff::PageDesc desc;
        desc.header = header;
        desc.bits = header->biBitCount;
        desc.compression = uint32_t(compression);
        desc.alpha = header->biBitCount == 32 && header->biCompression != 0;
        const uint32_t c = uint32_t(compression);
        if (c == 2 || c == 3 || c == 4 || c == tiff::kMmrNatural || c == 34661) desc.bits = 1;
        desc.palette_page = (desc.bits == 4 || desc.bits == 8) && !tiff::grey_palette(header);
        desc.default_res_200 = c == 3;
        tiff::PageWriter w(fd);
        int32_t r = w.begin(false);
        if (r == 0) r = w.directory(desc);
        if (r == 0) {
            const uint32_t start = w.position();
            if (length && !w.out().write(data, length)) r = w.out().status();
            if (r == 0) {
                w.strip_done(0, start, w.position());
                r = w.finish();
            }
        }
        if (r < 0) w.abandon();
        platform::file_close(fd);
        return r;
    });
}

}  // extern "C"
