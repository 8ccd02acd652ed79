// Sun raster reader.
#include <algorithm>
#include <memory>
#include <new>

#include "core/io.h"
#include "core/limits.h"
#include "core/pixels.h"
#include "core/stream.h"
#include "formats/sunraster/sunraster.h"
#include "process/colour/palette.h"

namespace tesslin::sunraster {
namespace {

constexpr uint32_t kMagic = 0x59A66A95;
constexpr uint32_t kByteEncoded = 2, kRgbOrder = 3;
constexpr uint32_t kRgbMap = 1, kRawMap = 2;  // colour map types (0: none)
constexpr uint8_t kEscape = 0x80;

// Byte-encoded data: 0x80 0x00 is one 0x80, 0x80 n v is n + 1 copies of v,
// any other byte stands for itself. A run may continue into the next row.
class ByteDecoder {
public:
    explicit ByteDecoder(StreamReader& in) : in_(in) {}

    bool fill(uint8_t* out, uint32_t n) {
        for (uint32_t i = 0; i < n;) {
            if (left_) {
                const uint32_t take = std::min(left_, n - i);
                std::fill_n(out + i, take, value_);
                left_ -= take;
                i += take;
                continue;
            }
            const int b = next();
            if (b < 0) return false;
            if (b != kEscape) {
                out[i++] = uint8_t(b);
                continue;
            }
            const int count = next();
            if (count < 0) return false;
            if (count == 0) {
                out[i++] = kEscape;
                continue;
            }
            const int v = next();
            if (v < 0) return false;
            value_ = uint8_t(v);
            left_ = uint32_t(count) + 1;
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
    uint8_t value_ = 0;
};

}  // namespace

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    uint32_t offset = 0;
    if (int32_t s = single_image_start(position, stream, &offset); s < 0) return s;
    StreamReader in(stream);
    uint8_t raw[32];
    if (!in.seek(offset) || !in.read(raw, sizeof raw)) return IMG_ERR_READ;
    uint32_t f[8];
    for (int i = 0; i < 8; ++i) f[i] = load_be32(raw + 4 * i);
    const uint32_t width = f[1], height = f[2], depth = f[3], type = f[5], map_type = f[6],
                   map_length = f[7];
    if (f[0] != kMagic) return IMG_ERR_BAD_IMAGE;
    if (int32_t s = limits::check_dimensions(width, height)) return s;
    if ((depth != 1 && depth != 8 && depth != 24 && depth != 32) || map_type > kRawMap)
        return IMG_ERR_BAD_IMAGE;
    const uint16_t bits = depth == 32 ? 24 : uint16_t(depth);
    limits::ImageBytes size;
    if (int32_t s = limits::image_bytes(width, height, bits, &size)) return s;
    const uint32_t file_row = uint32_t((uint64_t(width) * depth + 15) / 16 * 2);

    // The map, then the rows: refuse what the stream cannot hold before
    // anything is allocated for it.
    const int64_t capacity = stream::capacity(stream);
    const uint64_t map_at = uint64_t(offset) + 32, data_at = map_at + map_length;
    if (int32_t s = limits::check_declared_size(capacity, map_at, map_length, limits::kRaw,
                                                IMG_ERR_READ))
        return s;
    const bool encoded = type == kByteEncoded;
    const uint64_t data = uint64_t(file_row) * height;
    if (int32_t s = encoded ? limits::check_declared_size(capacity, data_at, data,
                                                          limits::kRunLength, IMG_ERR_BAD_IMAGE)
                            : limits::check_declared_size(capacity, data_at, data, limits::kRaw,
                                                          IMG_ERR_READ))
        return s;

    alignas(DibHeader) uint8_t block[kHeaderBlockSize] = {};
    auto* out = reinterpret_cast<DibHeader*>(block);
    *out = dib_header(int32_t(width), int32_t(height), bits);
    out->biSizeImage = uint32_t(size.total);
    RgbQuad* pal = dib_palette(block);
    // Map type 1 holds all red values, then all green, then all blue: the
    // first entries of each plane are read, as many as the palette holds. A
    // raw map (type 2) has no layout we can rely on: it is skipped and the
    // image read as if it had none.
    if (data_at > 0xFFFFFFFFu) return IMG_ERR_READ;
    const uint32_t entries = map_type == kRgbMap ? map_length / 3 : 0;
    const uint32_t used = std::min(entries, palette_entries(bits));
    for (uint32_t plane = 0; plane < 3 && used; ++plane) {
        uint8_t v[256];
        if (!in.seek(uint32_t(map_at + uint64_t(plane) * entries)) || !in.read(v, used))
            return in.ok() ? IMG_ERR_READ : in.status();
        for (uint32_t i = 0; i < used; ++i)
            (plane == 0 ? pal[i].rgbRed : plane == 1 ? pal[i].rgbGreen : pal[i].rgbBlue) = v[i];
    }
    if (!in.seek(uint32_t(data_at))) return IMG_ERR_READ;
    const bool complement = depth == 1 && entries == 0;
    if (entries == 0 && bits <= 8) build_standard_palette(out, "tiff");
    if (int32_t s = header(out, user); s < 0) return s;

    const uint32_t rb = uint32_t(size.row);
    std::unique_ptr<uint8_t[]> src(new (std::nothrow) uint8_t[file_row]);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[rb]());
    if (!src || !row) return IMG_ERR_MEMORY;
    ByteDecoder decoder(in);
    const bool rgb = type == kRgbOrder;
    for (uint32_t r = 0; r < height; ++r) {
        if (!(encoded ? decoder.fill(src.get(), file_row) : in.read(src.get(), file_row)))
            return in.status() ? in.status() : IMG_ERR_READ;
        uint8_t* o = row.get();
        if (depth == 32) {
            // X B G R, or X R G B in a type 3 file.
            if (rgb)
                pixels::rgb_to_bgr24(src.get() + 1, 4, o, width);
            else
                pixels::first_samples(src.get() + 1, 4, 3, o, width);
        } else if (depth == 24 && rgb) {
            pixels::swap_rgb24(src.get(), o, width);
        } else {
            const uint32_t n = std::min(file_row, rb);
            for (uint32_t i = 0; i < n; ++i) o[i] = complement ? uint8_t(~src[i]) : src[i];
        }
        if (int32_t s = raster(o, user, int32_t(r), rb); s < 0) return s;
    }
    return 0;
}

}  // namespace tesslin::sunraster
