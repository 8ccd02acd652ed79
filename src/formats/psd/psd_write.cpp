// Photoshop writer (format code 41): one uncompressed composite image.
#include <algorithm>
#include <memory>
#include <new>

#include "core/io.h"
#include "core/stream.h"
#include "formats/psd/psd.h"

namespace tesslin::psd {
namespace {

// Rows gathered before their channel rows are written out: about 1 MB.
constexpr uint64_t kBandBytes = 1u << 20;

// 24- and 32-bit images: the channels are stored one after the other, each
// row of channel c at data_start + (c * height + row) * width. Rows are
// fetched in bands and every channel's part of a band written in one piece.
int32_t write_planar(int32_t stream, uint32_t data_start, const DibHeader* header,
                     IMG_SUPPLY_CALLBACK supply, intptr_t user) {
    const uint32_t width = uint32_t(header->biWidth), height = uint32_t(header->biHeight);
    const uint32_t n = header->biBitCount / 8;
    const bool alpha = n == 4 && header->biCompression == IMG_COMPRESSION_ALPHA;
    if (uint64_t(data_start) + uint64_t(n) * width * height > 0x7FFFFFFF) return IMG_ERR_BAD_IMAGE;
    const uint32_t band = uint32_t(std::clamp<uint64_t>(kBandBytes / (uint64_t(width) * n), 1, height));
    const uint32_t rb = row_bytes(width, n * 8);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[rb]);
    std::unique_ptr<uint8_t[]> planes(new (std::nothrow) uint8_t[size_t(band) * width * n]);
    if (!row || !planes) return IMG_ERR_MEMORY;
    // Channel c of a DIB pixel: red, green, blue (and alpha) from bytes 2, 1,
    // 0 (and 3); CMYK from bytes 0 to 3, each inverted.
    static constexpr uint32_t kRgbOrder[4] = {2, 1, 0, 3};
    for (uint32_t first = 0; first < height; first += band) {
        const uint32_t rows = std::min(band, height - first);
        for (uint32_t i = 0; i < rows; ++i) {
            if (int32_t s = supply(user, row.get(), int32_t(first + i), rb); s < 0) return s;
            for (uint32_t c = 0; c < n; ++c) {
                uint8_t* dst = planes.get() + (size_t(c) * band + i) * width;
                const uint8_t* src = row.get() + (n == 3 || alpha ? kRgbOrder[c] : c);
                if (n == 3 || alpha)
                    for (uint32_t x = 0; x < width; ++x) dst[x] = src[size_t(x) * n];
                else
                    for (uint32_t x = 0; x < width; ++x) dst[x] = uint8_t(255 - src[size_t(x) * n]);
            }
        }
        for (uint32_t c = 0; c < n; ++c) {
            const uint64_t at = data_start + (uint64_t(c) * height + first) * width;
            const uint32_t bytes = rows * width;
            if (stream::seek(stream, int32_t(at), 0) != int32_t(at)) return IMG_ERR_WRITE;
            const int32_t w = stream::write(stream, planes.get() + size_t(c) * band * width, bytes);
            if (w < 0) return w;
            if (uint32_t(w) != bytes) return IMG_ERR_WRITE;
        }
    }
    return 0;
}

}  // namespace

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t) {
    const uint32_t bits = header->biBitCount;
    if (bits != 1 && bits != 8 && bits != 24 && bits != 32) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    const uint32_t width = uint32_t(header->biWidth), height = uint32_t(header->biHeight);
    const bool alpha = bits == 32 && header->biCompression == IMG_COMPRESSION_ALPHA;
    const uint16_t channels = bits == 24 ? 3 : bits == 32 ? 4 : 1;
    const uint16_t mode = bits == 24 || alpha ? 3 : bits == 32 ? 4 : bits == 8 ? 2 : 0;
    const int32_t start = stream::seek(stream, 0, 1);
    if (start < 0) return IMG_ERR_WRITE;

    StreamWriter out(stream);
    out.write("8BPS", 4);
    out.be16(1);
    const uint8_t reserved[6] = {};
    out.write(reserved, sizeof reserved);
    out.be16(channels);
    out.be32(height);
    out.be32(width);
    out.be16(bits == 1 ? 1 : 8);
    out.be16(mode);
    out.be32(bits == 8 ? 768 : 0);
    if (bits == 8) {
        uint8_t map[768];
        const RgbQuad* pal = dib_palette(header);
        for (uint32_t i = 0; i < 256; ++i) {
            map[i] = pal[i].rgbRed;
            map[256 + i] = pal[i].rgbGreen;
            map[512 + i] = pal[i].rgbBlue;
        }
        out.write(map, sizeof map);
    }
    out.be32(0);  // image resources
    out.be32(0);  // layer and mask information
    out.be16(0);  // raw data
    if (!out.flush()) return out.status();
    if (channels > 1) {
        const uint32_t data_start = uint32_t(start) + 26 + 4 + 4 + 4 + 2;
        return write_planar(stream, data_start, header, supply, user);
    }

    const uint32_t rb = row_bytes(width, bits), stored = uint32_t((uint64_t(bits) * width + 7) / 8);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[rb]);
    if (!row) return IMG_ERR_MEMORY;
    for (uint32_t r = 0; r < height; ++r) {
        if (int32_t s = supply(user, row.get(), int32_t(r), rb); s < 0) return s;
        if (bits == 1)
            for (uint32_t i = 0; i < stored; ++i) row[i] = uint8_t(~row[i]);
        if (!out.write(row.get(), stored)) return out.status();
    }
    out.flush();
    return out.status();
}

}  // namespace tesslin::psd
