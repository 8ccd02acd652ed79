// Photoshop reader: the composite image (layers are skipped), one channel
// of it, and the image resources.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "core/io.h"
#include "core/limits.h"
#include "core/pixels.h"
#include "core/stream.h"
#include "formats/psd/psd.h"
#include "process/colour/palette.h"

namespace tesslin::psd {
namespace {

constexpr uint32_t kHeaderBytes = 30;
constexpr uint32_t kMaxChannels = 56;
constexpr uint16_t kResolutionInfo = 1005;
enum Mode : uint16_t {
    kBitmap = 0,
    kGrey = 1,
    kIndexed = 2,
    kRgb = 3,
    kCmyk = 4,
    kMultichannel = 7,
    kDuotone = 8,
    kLab = 9,
};
constexpr uint16_t kRaw = 0, kPackBits = 1;

struct FileHeader {
    uint16_t version, channels;
    uint32_t height, width;
    uint16_t depth, mode;
    uint32_t colour_length;
};

FileHeader parse(const uint8_t* h) {
    return FileHeader{load_be16(h + 4),  load_be16(h + 12), load_be32(h + 14), load_be32(h + 18),
                      load_be16(h + 22), load_be16(h + 24), load_be32(h + 26)};
}

// Finds the first image resource `id` in the section [from, end): each
// block is a signature (4 bytes), the id, a name (a length byte and the
// text, padded to an even size), the data size and the data (padded to an
// even size). True with the stream at the data and its size in *size.
bool find_resource(StreamReader& in, uint64_t from, uint64_t end, uint32_t id, uint32_t* size) {
    if (!in.seek(uint32_t(from))) return false;
    while (uint64_t(in.tell()) + 12 <= end) {
        uint8_t head[7];
        if (!in.read(head, sizeof head)) return false;
        const uint32_t name = head[6];
        if (!in.skip(name | 1)) return false;  // with the length byte: an even size
        const uint32_t data_size = in.be32();
        if (!in.ok()) return false;
        if (uint64_t(in.tell()) + data_size > end) return false;
        if (load_be16(head + 4) == id) {
            *size = data_size;
            return true;
        }
        if (!in.skip(data_size + (data_size & 1))) return false;
    }
    return false;
}

// PackBits: a control byte n below 128 copies n + 1 bytes, above 128
// repeats the next byte 257 - n times, 128 does nothing. A packet may run
// on into the next row.
class PackBits {
public:
    explicit PackBits(StreamReader& in) : in_(in) {}

    bool fill(uint8_t* out, uint32_t n) {
        for (uint32_t i = 0; i < n;) {
            if (left_) {
                const uint32_t take = std::min(left_, n - i);
                if (repeat_)
                    std::fill_n(out + i, take, value_);
                else if (!in_.read(out + i, take))
                    return false;
                left_ -= take;
                i += take;
                continue;
            }
            const int c = next();
            if (c < 0) return false;
            if (c < 128) {
                left_ = uint32_t(c) + 1;
                repeat_ = false;
            } else if (c > 128) {
                const int v = next();
                if (v < 0) return false;
                value_ = uint8_t(v);
                left_ = 257 - uint32_t(c);
                repeat_ = true;
            }
        }
        return true;
    }

private:
    int next() {
        const int b = in_.byte_or_eof();
        if (b < 0) in_.fail(IMG_ERR_READ);
        return b;
    }

    StreamReader& in_;
    uint32_t left_ = 0;
    bool repeat_ = false;
    uint8_t value_ = 0;
};

// What the decoder makes of a file's mode, channels and depth.
struct Layout {
    uint16_t bits = 0;        // DIB bit count of the composite
    uint32_t used = 1;        // channels read: 1, 3 or 4
    uint32_t compression = 0;
};

int32_t layout_of(const FileHeader& f, Layout* l) {
    if (f.channels < 1 || f.channels > kMaxChannels) return IMG_ERR_BAD_IMAGE;
    if (f.depth == 32) return IMG_ERR_DEPTH;
    if ((f.depth == 1) != (f.mode == kBitmap) || (f.depth != 1 && f.depth != 8 && f.depth != 16))
        return IMG_ERR_BAD_IMAGE;
    switch (f.mode) {
        case kBitmap: l->bits = 1; break;
        case kIndexed:
            if (f.depth != 8) return IMG_ERR_BAD_IMAGE;
            l->bits = 8;
            break;
        case kGrey: l->bits = 8; break;
        case kRgb:
        case kCmyk:
        case kLab:
            if (f.channels < 3) return IMG_ERR_BAD_IMAGE;
            l->used = f.channels >= 4 ? 4 : 3;
            l->bits = uint16_t(l->used * 8);
            if (l->used == 4 && f.mode != kCmyk) l->compression = IMG_COMPRESSION_ALPHA;
            break;
        default: l->bits = f.depth; break;  // duotone, multichannel: the first channel
    }
    return 0;
}

struct Reader {
    StreamReader& in;
    PackBits packbits;
    bool packed;
    uint32_t file_row;

    bool row(uint8_t* out) { return packed ? packbits.fill(out, file_row) : in.read(out, file_row); }
    int32_t status() const { return in.status() ? in.status() : IMG_ERR_READ; }
};

// One-channel images: each row straight out (1-bit rows inverted, 16-bit
// samples to their high byte or, for a 16-bit DIB, little-endian).
int32_t deliver_single(Reader& rd, const FileHeader& f, const Layout& l, uint32_t out_row,
                       IMG_RASTER_CALLBACK raster, intptr_t user) {
    std::unique_ptr<uint8_t[]> src(new (std::nothrow) uint8_t[rd.file_row]);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[out_row]());
    if (!src || !row) return IMG_ERR_MEMORY;
    for (uint32_t r = 0; r < f.height; ++r) {
        if (!rd.row(src.get())) return rd.status();
        uint8_t* o = row.get();
        if (f.depth == 1) {
            for (uint32_t i = 0; i < rd.file_row; ++i) o[i] = uint8_t(~src[i]);
        } else if (f.depth == 8) {
            std::memcpy(o, src.get(), rd.file_row);
        } else if (l.bits == 16) {
            pixels::swap16(src.get(), o, f.width);
        } else {
            pixels::high_bytes16(src.get(), 1, 1, pixels::Endian::kBig, o, f.width);
        }
        if (int32_t s = raster(o, user, int32_t(r), out_row); s < 0) return s;
    }
    return 0;
}

// Three- and four-channel images: the channels are stored one after the
// other, so the first `used` are gathered into planes (8 bits a sample)
// before any row can be put together.
int32_t deliver_planes(Reader& rd, const FileHeader& f, const Layout& l, int32_t channel,
                       uint32_t out_row, IMG_RASTER_CALLBACK raster, intptr_t user) {
    const size_t plane = size_t(f.width) * f.height;
    std::unique_ptr<uint8_t[]> planes(new (std::nothrow) uint8_t[plane * l.used]);
    std::unique_ptr<uint8_t[]> src(new (std::nothrow) uint8_t[rd.file_row]);
    std::unique_ptr<uint8_t[]> pixel(new (std::nothrow) uint8_t[size_t(f.width) * l.used]);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[out_row]());
    if (!planes || !src || !pixel || !row) return IMG_ERR_MEMORY;
    for (uint32_t c = 0; c < l.used; ++c) {
        for (uint32_t r = 0; r < f.height; ++r) {
            uint8_t* dst = planes.get() + c * plane + size_t(r) * f.width;
            if (f.depth == 8) {
                if (!rd.row(dst)) return rd.status();
            } else {
                if (!rd.row(src.get())) return rd.status();
                pixels::high_bytes16(src.get(), 1, 1, pixels::Endian::kBig, dst, f.width);
            }
        }
    }
    const uint32_t n = l.used, w = f.width;
    for (uint32_t r = 0; r < f.height; ++r) {
        const uint8_t* p[4];
        for (uint32_t c = 0; c < n; ++c) p[c] = planes.get() + c * plane + size_t(r) * w;
        uint8_t* o = channel ? pixel.get() : row.get();
        for (uint32_t x = 0; x < w; ++x) {
            uint8_t* d = o + size_t(x) * n;
            switch (f.mode) {
                case kRgb:
                    d[0] = p[2][x], d[1] = p[1][x], d[2] = p[0][x];
                    if (n == 4) d[3] = p[3][x];
                    break;
                case kCmyk:
                    for (uint32_t c = 0; c < n; ++c) d[c] = uint8_t(255 - p[c][x]);
                    break;
                default:  // Lab: a and b are stored with 128 added
                    d[0] = p[0][x], d[1] = uint8_t(p[1][x] - 128), d[2] = uint8_t(p[2][x] - 128);
                    if (n == 4) d[3] = p[3][x];
                    break;
            }
        }
        if (f.mode == kLab) pixels::lab_to_bgr(o, n, o, n, w);
        if (channel) {
            for (uint32_t x = 0; x < w; ++x) row[x] = pixel[size_t(x) * n + uint32_t(channel)];
        }
        if (int32_t s = raster(row.get(), user, int32_t(r), out_row); s < 0) return s;
    }
    return 0;
}

}  // namespace

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    uint32_t offset = 0;
    int32_t channel = 0;
    if (position_is_page(position) && (position & 0x40000000u)) {
        // A negative page request -c selects channel c of the file at 0.
        channel = -int32_t(position);
    } else if (int32_t s = single_image_start(position, stream, &offset); s < 0) {
        return s;
    }
    StreamReader in(stream);
    uint8_t raw[kHeaderBytes];
    if (!in.seek(offset) || !in.read(raw, kHeaderBytes)) return IMG_ERR_READ;
    const FileHeader f = parse(raw);
    if (f.version != 1) return IMG_ERR_VARIANT;
    if (int32_t s = limits::check_dimensions(f.width, f.height)) return s;
    Layout l;
    if (int32_t s = layout_of(f, &l)) return s;
    if (channel && (l.used == 1 || uint32_t(channel) >= l.bits / 8u)) return IMG_ERR_BAD_IMAGE;
    const uint16_t out_bits = channel ? 8 : l.bits;
    limits::ImageBytes size;
    if (int32_t s = limits::image_bytes(f.width, f.height, out_bits, &size)) return s;

    alignas(DibHeader) uint8_t block[kHeaderBlockSize] = {};
    auto* out = reinterpret_cast<DibHeader*>(block);
    *out = dib_header(int32_t(f.width), int32_t(f.height), out_bits);
    out->biSizeImage = uint32_t(size.total);
    out->biCompression = channel ? 0 : l.compression;
    if (f.mode == kIndexed && !channel) {
        uint8_t map[768];
        if (!in.read(map, sizeof map)) return IMG_ERR_READ;
        RgbQuad* pal = dib_palette(block);
        for (uint32_t i = 0; i < 256; ++i) pal[i] = RgbQuad{map[512 + i], map[256 + i], map[i], 0};
    } else if (out_bits < 24) {
        build_standard_palette(out, "tiff");
    }

    // Image resources: the resolution, when the file records it.
    const uint64_t resources_at = uint64_t(offset) + kHeaderBytes + f.colour_length;
    if (resources_at > 0x7FFFFFFF || !in.seek(uint32_t(resources_at))) return IMG_ERR_READ;
    const uint32_t resources = in.be32();
    if (!in.ok()) return in.status();
    const uint64_t layers_at = resources_at + 4 + resources;
    uint32_t found = 0;
    if (resources && find_resource(in, resources_at + 4, layers_at, kResolutionInfo, &found) &&
        found >= 16) {
        uint8_t info[16];
        if (in.read(info, sizeof info))
            dib_set_resolution(out, int32_t(load_be32(info) >> 16), int32_t(load_be32(info + 8) >> 16));
    }
    // The layer and mask section is skipped; the compression value follows.
    if (layers_at > 0x7FFFFFFF || !in.seek(uint32_t(layers_at))) return IMG_ERR_READ;
    const uint32_t layers = in.be32();
    if (!in.ok()) return in.status();
    const uint64_t compression_at = layers_at + 4 + layers;
    if (compression_at > 0x7FFFFFFF || !in.seek(uint32_t(compression_at))) return IMG_ERR_READ;
    const uint16_t compression = in.be16();
    if (!in.ok()) return in.status();

    // Refuse what the stream cannot hold before the image is allocated: raw
    // channels must all be there; PackBits rows follow a table of their
    // byte counts.
    const uint32_t file_row = uint32_t((uint64_t(f.depth) * f.width + 7) / 8);
    const uint64_t need = uint64_t(l.used) * f.height * file_row;
    uint64_t data_at = compression_at + 2;
    const int64_t capacity = stream::capacity(stream);
    if (compression == kRaw) {
        if (int32_t s = limits::check_declared_size(capacity, data_at, need, limits::kRaw,
                                                    IMG_ERR_READ))
            return s;
    } else if (compression == kPackBits) {
        const uint64_t table = uint64_t(f.channels) * f.height * 2;
        if (int32_t s = limits::check_declared_size(capacity, data_at, table, limits::kRaw,
                                                    IMG_ERR_READ))
            return s;
        data_at += table;
        if (int32_t s = limits::check_declared_size(capacity, data_at, need, limits::kPackBits,
                                                    IMG_ERR_BAD_IMAGE))
            return s;
    } else if (int32_t s = limits::check_declared_size(capacity, data_at, need, limits::kDeflate,
                                                       IMG_ERR_BAD_IMAGE)) {
        // Data we do not decode (ZIP) still bounds the image it can describe.
        return s;
    }

    if (int32_t s = header(out, user); s < 0) return s;
    if (compression != kRaw && compression != kPackBits) return 0;
    if (data_at > 0x7FFFFFFF || !in.seek(uint32_t(data_at))) return IMG_ERR_READ;
    Reader rd{in, PackBits(in), compression == kPackBits, file_row};
    const uint32_t out_row = uint32_t(size.row);
    const int32_t r = l.used == 1 ? deliver_single(rd, f, l, out_row, raster, user)
                                  : deliver_planes(rd, f, l, channel, out_row, raster, user);
    return r < 0 ? r : 0;
}

int32_t tag_query(int32_t stream, int32_t tag, int32_t size, int32_t*, void* buffer, int32_t) {
    StreamReader in(stream);
    uint8_t raw[kHeaderBytes];
    if (!in.seek(0) || !in.read(raw, kHeaderBytes)) return IMG_ERR_READ;
    const FileHeader f = parse(raw);
    if (tag < 0 || tag > 0xFFFF) return IMG_ERR_NOT_FOUND;
    const uint64_t resources_at = uint64_t(kHeaderBytes) + f.colour_length;
    if (resources_at > 0x7FFFFFFF || !in.seek(uint32_t(resources_at))) return IMG_ERR_NOT_FOUND;
    const uint32_t resources = in.be32();
    uint32_t found = 0;
    if (!in.ok() ||
        !find_resource(in, resources_at + 4, resources_at + 4 + resources, uint32_t(tag), &found))
        return IMG_ERR_NOT_FOUND;
    const uint32_t n = size > 0 && buffer ? std::min(found, uint32_t(size)) : 0;
    if (n && !in.read(buffer, n)) return IMG_ERR_READ;
    return 1;
}

}  // namespace tesslin::psd
