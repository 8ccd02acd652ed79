// Sun raster writer (format code 37).
#include <memory>
#include <new>

#include "core/io.h"
#include "core/pixels.h"
#include "formats/sunraster/sunraster.h"

namespace tesslin::sunraster {

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t) {
    const uint32_t bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    const uint32_t width = uint32_t(header->biWidth), height = uint32_t(header->biHeight);
    // 4-bit images are written one byte per pixel.
    const uint32_t depth = bits == 4 ? 8 : bits;
    const uint32_t file_row = uint32_t((uint64_t(width) * depth + 15) / 16 * 2);
    const uint64_t length = uint64_t(file_row) * height;
    if (length > 0xFFFFFFFFu) return IMG_ERR_BAD_IMAGE;
    const uint32_t map_length = bits == 1 || bits == 24 ? 0 : 768;

    // Type 3: samples in red, green, blue order. The length field holds the
    // bytes of the image data, which readers check against the file.
    // Bilevel images go without a colour map, 1 marking black: ImageMagick
    // complements 1-bit data even before looking it up in a map, and Pillow
    // refuses a map on 1-bit data.
    const uint32_t words[8] = {0x59A66A95, width, height, depth, uint32_t(length), 3,
                               map_length ? 1u : 0u, map_length};
    StreamWriter out(stream);
    for (uint32_t w : words) out.be32(w);
    if (map_length) {
        const RgbQuad* pal = dib_palette(header);
        const uint32_t entries = palette_entries(bits);
        uint8_t map[768] = {};
        for (uint32_t i = 0; i < entries; ++i) {
            map[i] = pal[i].rgbRed;
            map[256 + i] = pal[i].rgbGreen;
            map[512 + i] = pal[i].rgbBlue;
        }
        out.write(map, sizeof map);
    }
    if (!out.ok()) return out.status();

    const uint32_t rb = row_bytes(width, bits);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[rb]);
    std::unique_ptr<uint8_t[]> wide(new (std::nothrow) uint8_t[file_row + 1]());
    if (!row || !wide) return IMG_ERR_MEMORY;
    for (uint32_t r = 0; r < height; ++r) {
        if (int32_t s = supply(user, row.get(), int32_t(r), rb); s < 0) return s;
        const uint8_t* data = row.get();
        if (bits == 1) {
            for (uint32_t i = 0; i < file_row; ++i) wide[i] = uint8_t(~row[i]);
            data = wide.get();
        } else if (bits == 4) {
            pixels::unpack_indices(row.get(), 4, wide.get(), width);
            data = wide.get();
        } else if (bits == 24) {
            pixels::swap_rgb24(row.get(), wide.get(), width);
            data = wide.get();
        }
        if (!out.write(data, file_row)) return out.status();
    }
    out.flush();
    return out.status();
}

}  // namespace tesslin::sunraster
