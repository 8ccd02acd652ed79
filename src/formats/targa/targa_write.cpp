// Targa writers: format code 3 (uncompressed 8-, 24- and 32-bit files) and
// format code 32 (15-bit true colour from 24-bit images).
#include <cstring>
#include <memory>
#include <new>

#include "core/io.h"
#include "formats/targa/targa.h"

namespace tesslin::targa {
namespace {

// The 18-byte header of an image stored bottom row first at the origin.
void put_header(uint8_t* h, uint8_t map_type, uint8_t type, uint16_t map_length, uint8_t map_bits,
                const DibHeader* dib, uint8_t depth) {
    std::memset(h, 0, 18);
    h[1] = map_type;
    h[2] = type;
    store_le16(h + 5, map_length);
    h[7] = map_bits;
    store_le16(h + 12, uint16_t(dib->biWidth));
    store_le16(h + 14, uint16_t(dib->biHeight));
    h[16] = depth;
}

bool fits(const DibHeader* h) {
    return h->biWidth >= 1 && h->biHeight >= 1 && h->biWidth <= 0xFFFF && h->biHeight <= 0xFFFF;
}

}  // namespace

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t) {
    const uint32_t bits = header->biBitCount;
    if (bits < 5 || !dib_depth_valid(bits)) return IMG_ERR_DEPTH;
    if (bits == 32 && header->biCompression != IMG_COMPRESSION_ALPHA) return IMG_ERR_DEPTH;
    if (!fits(header)) return IMG_ERR_BAD_IMAGE;
    const uint32_t width = uint32_t(header->biWidth), height = uint32_t(header->biHeight);
    const RgbQuad* pal = dib_palette(header);

    // An 8-bit image whose palette is all grey is written as grey values;
    // 16-bit images are grey, written from their high bytes.
    bool grey = bits == 16;
    if (bits == 8) {
        grey = true;
        for (uint32_t i = 0; i < 256 && grey; ++i)
            grey = pal[i].rgbBlue == pal[i].rgbGreen && pal[i].rgbGreen == pal[i].rgbRed;
    }
    uint8_t h[18];
    if (grey)
        put_header(h, 0, 3, 0, 0, header, 8);
    else if (bits == 8)
        put_header(h, 1, 1, 256, 24, header, 8);
    else
        put_header(h, 0, 2, 0, 0, header, uint8_t(bits));

    StreamWriter out(stream);
    out.write(h, sizeof h);
    if (bits == 8 && !grey) {
        uint8_t map[256 * 3];
        for (uint32_t i = 0; i < 256; ++i) {
            map[3 * i] = pal[i].rgbBlue;
            map[3 * i + 1] = pal[i].rgbGreen;
            map[3 * i + 2] = pal[i].rgbRed;
        }
        out.write(map, sizeof map);
    }
    if (!out.ok()) return out.status();

    const uint32_t rb = row_bytes(width, bits);
    const uint32_t stored = grey ? width : width * (bits / 8);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[rb]);
    if (!row) return IMG_ERR_MEMORY;
    for (uint32_t i = height; i-- > 0;) {
        if (int32_t s = supply(user, row.get(), int32_t(i), rb); s < 0) return s;
        uint8_t* p = row.get();
        if (bits == 16) {
            for (uint32_t x = 0; x < width; ++x) p[x] = p[2 * x + 1];
        } else if (grey) {
            for (uint32_t x = 0; x < width; ++x) p[x] = pal[p[x]].rgbGreen;
        }
        if (!out.write(p, stored)) return out.status();
    }
    out.flush();
    return out.status();
}

int32_t encode15(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                 intptr_t user, int32_t) {
    if (header->biBitCount != 24) return IMG_ERR_UNSUPPORTED;
    if (!fits(header)) return IMG_ERR_BAD_IMAGE;
    const uint32_t width = uint32_t(header->biWidth), height = uint32_t(header->biHeight);
    uint8_t h[18];
    put_header(h, 0, 2, 0, 0, header, 15);
    StreamWriter out(stream);
    if (!out.write(h, sizeof h)) return out.status();
    const uint32_t rb = row_bytes(width, 24);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[rb]);
    std::unique_ptr<uint8_t[]> packed(new (std::nothrow) uint8_t[size_t(width) * 2]);
    if (!row || !packed) return IMG_ERR_MEMORY;
    for (uint32_t i = height; i-- > 0;) {
        if (int32_t s = supply(user, row.get(), int32_t(i), rb); s < 0) return s;
        for (uint32_t x = 0; x < width; ++x) {
            const uint8_t* p = row.get() + 3 * x;
            const uint16_t v = uint16_t(((p[2] & 0xF8) << 7) | ((p[1] & 0xF8) << 2) | (p[0] >> 3));
            store_le16(packed.get() + 2 * x, v);
        }
        if (!out.write(packed.get(), width * 2)) return out.status();
    }
    out.flush();
    return out.status();
}

}  // namespace tesslin::targa
