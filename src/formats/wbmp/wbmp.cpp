// WBMP reader and writer.
#include <memory>
#include <new>

#include "core/io.h"
#include "core/limits.h"
#include "core/stream.h"
#include "formats/wbmp/wbmp.h"

namespace tesslin::wbmp {
namespace {

// A multi-byte integer: 7 bits per byte, most significant group first, bit
// 7 set on every byte but the last. At most 5 bytes (32 bits).
int32_t read_integer(StreamReader& in, uint32_t* value) {
    uint64_t v = 0;
    for (int i = 0; i < 5; ++i) {
        const int b = in.byte_or_eof();
        if (b < 0) return in.ok() ? IMG_ERR_READ : in.status();
        v = (v << 7) | uint32_t(b & 0x7F);
        if (!(b & 0x80)) {
            if (v > 0xFFFFFFFFu) return IMG_ERR_BAD_IMAGE;
            *value = uint32_t(v);
            return 0;
        }
    }
    return IMG_ERR_BAD_IMAGE;
}

bool write_integer(StreamWriter& out, uint32_t v) {
    uint8_t b[5];
    int n = 0;
    do {
        b[n++] = uint8_t(v & 0x7F);
        v >>= 7;
    } while (v);
    for (int i = n - 1; i >= 0; --i) out.put8(uint8_t(b[i] | (i ? 0x80 : 0)));
    return out.ok();
}

}  // namespace

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    uint32_t offset = 0;
    if (int32_t s = single_image_start(position, stream, &offset); s < 0) return s;
    StreamReader in(stream, 5000);
    if (!in.seek(offset)) return in.status();
    // The type byte, then header fields for as long as bit 7 says more follow.
    in.u8();
    for (int b = in.u8(); in.ok() && (b & 0x80);) b = in.u8();
    if (!in.ok()) return in.status();
    uint32_t width = 0, height = 0;
    if (int32_t s = read_integer(in, &width)) return s;
    if (int32_t s = read_integer(in, &height)) return s;
    if (int32_t s = limits::check_dimensions(width, height)) return s;
    const uint32_t stored = (width + 7) / 8;
    if (int32_t s = limits::check_declared_size(stream::capacity(stream), in.tell(),
                                                uint64_t(stored) * height, limits::kRaw,
                                                IMG_ERR_READ))
        return s;
    limits::ImageBytes size;
    if (int32_t s = limits::image_bytes(width, height, 1, &size)) return s;

    alignas(DibHeader) uint8_t block[kDibHeaderSize + 8] = {};
    auto* out = reinterpret_cast<DibHeader*>(block);
    *out = dib_header(int32_t(width), int32_t(height), 1);
    out->biSizeImage = uint32_t(size.total);
    dib_set_resolution(out, 72, 72);
    dib_palette(block)[1] = RgbQuad{255, 255, 255, 0};
    if (int32_t s = header(out, user); s < 0) return s;

    // The file's bits mean what the palette says (1 = white): rows go out
    // as stored, padded to the DIB row size.
    const uint32_t rb = uint32_t(size.row);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[rb]());
    if (!row) return IMG_ERR_MEMORY;
    for (uint32_t r = 0; r < height; ++r) {
        if (!in.read(row.get(), stored)) return in.status();
        if (int32_t s = raster(row.get(), user, int32_t(r), rb); s < 0) return s;
    }
    return 0;
}

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t) {
    if (header->biBitCount != 1) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    const uint32_t width = uint32_t(header->biWidth), height = uint32_t(header->biHeight);
    StreamWriter out(stream);
    out.put8(0);  // type 0
    out.put8(0);  // fixed header
    if (!write_integer(out, width) || !write_integer(out, height)) return out.status();
    const uint32_t rb = row_bytes(width, 1);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[rb]);
    if (!row) return IMG_ERR_MEMORY;
    for (uint32_t r = 0; r < height; ++r) {
        if (int32_t s = supply(user, row.get(), int32_t(r), rb); s < 0) return s;
        if (!out.write(row.get(), (width + 7) / 8)) return out.status();
    }
    out.flush();
    return out.status();
}

}  // namespace tesslin::wbmp
