#include "formats/tiff/tiff_dir.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>

#include "core/stream.h"

namespace tesslin::tiff {
namespace {

// Most bytes of one field read from a stream whose size is unknown.
constexpr uint64_t kMaxUnboundedRead = uint64_t(1) << 26;

}  // namespace

uint32_t type_size(uint16_t type) {
    switch (type) {
        case 1: case 2: case 6: case 7: return 1;
        case 3: case 8: return 2;
        case 4: case 9: case 11: case 13: return 4;
        case 5: case 10: case 12: return 8;
        default: return 0;
    }
}

TiffFile::TiffFile(int32_t stream, uint32_t base)
    : stream_(stream), base_(base), in_(stream, 8192), capacity_(stream::capacity(stream)) {}

bool TiffFile::seek(uint32_t offset) {
    const uint64_t at = uint64_t(base_) + offset;
    if (at > 0x7FFFFFFF || (capacity_ >= 0 && at > uint64_t(capacity_))) {
        in_.fail(IMG_ERR_READ);
        return false;
    }
    return in_.seek(uint32_t(at));
}

bool TiffFile::read_direct(uint32_t offset, uint8_t* out, uint32_t n) {
    const uint64_t at = uint64_t(base_) + offset;
    if (at + n > 0x7FFFFFFF) return false;
    // The stream stands where the reader's buffer ends; it is put back there.
    const uint32_t resume = in_.tell() + in_.buffered();
    bool ok = stream::seek(stream_, int32_t(at), 0) == int32_t(at) &&
              stream::read(stream_, out, n) == int32_t(n);
    ok = stream::seek(stream_, int32_t(resume), 0) == int32_t(resume) && ok;
    return ok;
}

int32_t TiffFile::read_header() {
    if (!seek(0)) return IMG_ERR_BAD_IMAGE;
    uint8_t h[8];
    if (in_.read_some(h, 8) < 8) return IMG_ERR_BAD_IMAGE;
    if (h[0] != h[1] || (h[0] != 'I' && h[0] != 'M')) return IMG_ERR_UNSUPPORTED;
    big_ = h[0] == 'M';
    first_ifd_ = load32(h + 4);
    return 0;
}

int32_t TiffFile::find_page(uint32_t page, uint32_t* ifd, uint32_t min_first, uint32_t max_first,
                            uint32_t min_next, uint32_t max_next, bool strict) {
    uint32_t offset = first_ifd_, at = 0;
    // Our writer's page index: the IFD offset of page p at 20 + 4p, for the
    // pages that fit in the room reserved before the first IFD. Later pages
    // are found along the chain from the last indexed one.
    uint8_t sig[4];
    if (seek(8) && in_.read_some(sig, 4) == 4 && std::memcmp(sig, kIndexSignature, 4) == 0 &&
        first_ifd_ >= 24) {
        const uint32_t room = (first_ifd_ - 20) / 4;
        if (!seek(16)) return in_.status();
        const uint32_t indexed = std::min(u32(), room);
        if (!in_.ok()) return in_.status();
        if (indexed > 0) {
            at = std::min(page, indexed - 1);
            if (!seek(20 + 4 * at)) return in_.status();
            offset = u32();
            if (!in_.ok()) return in_.status();
        }
    }
    if (!seek(offset)) return IMG_ERR_BAD_IMAGE;
    uint32_t count = u16();
    if (!in_.ok()) return in_.status();
    if (count < min_first || count > max_first) return IMG_ERR_BAD_IMAGE;
    std::unordered_set<uint32_t> seen{offset};
    while (at < page) {
        if (!seek(offset + 2 + 12 * count)) return IMG_ERR_NO_PAGE;
        uint8_t b[4];
        if (in_.read_some(b, 4) < 4) return IMG_ERR_NO_PAGE;
        const uint32_t next = load32(b);
        if (next == 0 || !seen.insert(next).second) return IMG_ERR_NO_PAGE;
        uint8_t c[2];
        if (!seek(next) || in_.read_some(c, 2) < 2) return IMG_ERR_NO_PAGE;
        count = load16(c);
        if (count < min_next || count > max_next) return strict ? IMG_ERR_BAD_IMAGE : IMG_ERR_NO_PAGE;
        offset = next;
        ++at;
    }
    *ifd = offset;
    return 0;
}

int32_t TiffFile::read_directory(uint32_t ifd, std::vector<Field>* fields, uint32_t* next) {
    if (!seek(ifd)) return IMG_ERR_READ;
    const uint32_t count = u16();
    if (!in_.ok()) return in_.status();
    std::vector<uint8_t> raw(size_t(count) * 12);
    if (count && !in_.read(raw.data(), uint32_t(raw.size()))) return in_.status();
    fields->clear();
    fields->reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* e = raw.data() + size_t(i) * 12;
        Field f;
        f.tag = load16(e);
        f.type = load16(e + 2);
        f.count = load32(e + 4);
        std::memcpy(f.raw, e + 8, 4);
        if (f.tag == 0 && f.count == 0) break;  // an empty entry ends the list
        fields->push_back(f);
    }
    uint8_t b[4];
    *next = in_.read_some(b, 4) == 4 ? load32(b) : 0;
    return 0;
}

bool TiffFile::value_at(const Field& f, uint32_t i, uint32_t* out) {
    const uint32_t size = type_size(f.type);
    if (!size || i >= f.count) return false;
    const uint8_t* p;
    uint8_t b[4];
    if (uint64_t(f.count) * size <= 4) {
        p = f.raw + i * size;
    } else {
        if (!seek(offset_of(f) + i * size) || in_.read_some(b, std::min<uint32_t>(size, 4)) <
                                                   std::min<uint32_t>(size, 4))
            return false;
        p = b;
    }
    switch (size) {
        case 1: *out = p[0]; break;
        case 2: *out = load16(p); break;
        default: *out = load32(p); break;
    }
    return true;
}

uint32_t TiffFile::value(const Field& f) {
    uint32_t v = 0;
    return value_at(f, 0, &v) ? v : 0;
}

uint32_t TiffFile::rational(const Field& f) {
    if (f.type != kRational && f.type != 10) return value(f);
    uint8_t b[8];
    if (!seek(offset_of(f)) || in_.read_some(b, 8) < 8) return 0;
    const uint32_t num = load32(b), den = load32(b + 4);
    return den ? num / den : num;
}

bool TiffFile::values(const Field& f, uint32_t max, std::vector<uint32_t>* out) {
    const uint32_t size = type_size(f.type);
    const uint32_t n = std::min(f.count, max);
    out->clear();
    if (!size || size > 4 || !n) return n == 0;
    const uint64_t total = uint64_t(n) * size;
    std::vector<uint8_t> buf;
    const uint8_t* p = f.raw;
    if (uint64_t(f.count) * size > 4) {
        // Nothing is allocated for values the stream cannot hold.
        if (capacity_ >= 0 ? uint64_t(base_) + offset_of(f) + total > uint64_t(capacity_)
                           : total > kMaxUnboundedRead)
            return false;
        buf.resize(size_t(total));
        if (!seek(offset_of(f)) || in_.read_some(buf.data(), uint32_t(total)) < total) return false;
        p = buf.data();
    }
    out->assign(n, 0);
    for (uint32_t i = 0; i < n; ++i)
        (*out)[i] = size == 1 ? p[i] : size == 2 ? load16(p + 2 * i) : load32(p + 4 * i);
    return true;
}

bool TiffFile::bytes(const Field& f, uint32_t max, std::vector<uint8_t>* out) {
    const uint32_t size = type_size(f.type) ? type_size(f.type) : 1;
    const uint64_t total = std::min<uint64_t>(uint64_t(f.count) * size, max);
    out->clear();
    if (!total) return true;
    if (uint64_t(f.count) * size <= 4) {
        out->assign(f.raw, f.raw + total);
        return true;
    }
    if (capacity_ >= 0 ? uint64_t(base_) + offset_of(f) + total > uint64_t(capacity_)
                       : total > kMaxUnboundedRead)
        return false;
    out->assign(size_t(total), 0);
    return seek(offset_of(f)) && in_.read_some(out->data(), uint32_t(total)) == total;
}

const Field* find_field(const std::vector<Field>& fields, uint16_t tag) {
    for (const Field& f : fields)
        if (f.tag == tag) return &f;
    return nullptr;
}

void parse_directory(TiffFile& f, const std::vector<Field>& fields, Directory* d) {
    *d = Directory{};
    for (const Field& e : fields) {
        switch (e.tag) {
            case kImageWidth: d->width = d->image_width = f.value(e); break;
            case kImageLength: d->length = d->image_length = f.value(e); break;
            case kTileWidth:
                d->tile_width = f.value(e);
                if (d->tile_width != d->width) d->tiled = true;
                d->width = d->tile_width;
                break;
            case kTileLength: d->length = d->tile_length = f.value(e); break;
            case kRowsPerStrip: d->rows_per_strip = f.value(e); break;
            case kTileOffsets: d->tiled = true; [[fallthrough]];
            case kStripOffsets: d->strip_offsets = e; break;
            case kTileByteCounts:
            case kStripByteCounts: d->strip_counts = e; break;
            case kSamplesPerPixel: d->samples = f.value(e); break;
            case kBitsPerSample: d->bits = f.value(e) & 0xFFFF; break;
            case kCompression: d->compression = f.value(e); break;
            case kPhotometric:
                d->photometric = f.value(e);
                d->photometric_present = true;
                break;
            case kColorMap: d->color_map = e; break;
            case kXResolution: d->x_res = f.rational(e); break;
            case kYResolution: d->y_res = f.rational(e); break;
            case kFillOrder: d->fill_order = f.value(e); break;
            case kPlanarConfig:
                // Separate planes only mean something with several samples.
                if (d->samples >= 2 && d->samples <= 4) d->planar = f.value(e);
                break;
            case kPredictor: d->predictor = f.value(e); break;
            case kGrayResponseCurve: d->gray_curve = e; break;
            case kGrayResponseUnit: d->gray_unit = f.value(e); break;
            case kJpegInterchange: d->jpeg_interchange = f.value(e); break;
            case kJpegInterchangeLength: d->jpeg_interchange_length = f.value(e); break;
            case kJpegRestartInterval: d->jpeg_restart = f.value(e); break;
            case kJpegQTables: d->jpeg_q = e; break;
            case kJpegDcTables: d->jpeg_dc = e; break;
            case kJpegAcTables: d->jpeg_ac = e; break;
            case kJpegTables: d->jpeg_tables = e; break;
            case kYCbCrSubsampling:
                if (!f.value_at(e, 0, &d->ycbcr_h)) d->ycbcr_h = 0;
                if (!f.value_at(e, 1, &d->ycbcr_v)) d->ycbcr_v = d->ycbcr_h;
                break;
            case kOrientation: d->orientation = f.value(e); break;
            case kResolutionUnit: d->resolution_unit = f.value(e); break;
            case kT4Options: d->t4_options = f.value(e); break;
            case kExtraSamples: d->extra_samples = e.count; break;
            case kDateTime: d->date = e; break;
            case kArtist: d->artist = e; break;
            case 34750:
            case 33431: d->jbig_reserve = true; break;
            default: break;
        }
    }
    if (d->resolution_unit == 3) {
        d->x_res = uint32_t(uint64_t(d->x_res) * 254 / 100);
        d->y_res = uint32_t(uint64_t(d->y_res) * 254 / 100);
    }
    if (d->compression == 3 && (d->t4_options & 1)) d->compression = 45;
    const uint32_t c = d->compression;
    if (c == 2 || c == 3 || c == 4 || c == 45) {
        // The CCITT decoders deliver white as 1 bits unless told to invert:
        // WhiteIsZero data needs no inversion, BlackIsZero data does.
        if (d->photometric == 0) d->photometric = 1;
        else if (d->photometric == 1) d->photometric = 0;
    }
    if (d->strip_offsets.count == 1 && d->rows_per_strip < d->length)
        d->rows_per_strip = d->length;
    if (c == 4 && d->bits >= 2) d->compression = 1;
}

}  // namespace tesslin::tiff
