// BMP writers: format codes 1 (uncompressed file), 12 (run-length file) and
// 48 (bare DIB: info header, palette, rows).
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/io.h"
#include "formats/bmp/bmp.h"

namespace tesslin::bmp {
namespace {

// Pixels per metre for a resolution in dots per inch.
int32_t to_ppm(int32_t dpi) {
    if (dpi <= 0) return 0;
    return static_cast<int32_t>((int64_t(dpi) * 10000 + 127) / 254);
}

// Appends the run-length form of one row of `n` bytes to `out`: runs of
// equal bytes as (count, value), other stretches as absolute runs (0,
// count, bytes, padded to an even length). 8-bit rows count bytes (runs up
// to 255, absolute runs of 3 and more); 4-bit rows work on whole bytes (runs
// up to 127 bytes, absolute runs of 2 bytes and more) and count pixels, two
// per byte except for the padding pixel of an odd width (a count reaching
// past the row would spill into the next one in some readers). That last
// byte always goes in a run of its own kind, since some readers (Pillow 9)
// take an absolute run of an odd number of pixels one pixel short.
void encode_row(const uint8_t* row, uint32_t width, bool nibbles, std::vector<uint8_t>& out) {
    const uint32_t longest = nibbles ? 127 : 255, shortest = nibbles ? 2 : 3;
    const uint32_t n = nibbles ? (width + 1) / 2 : width;
    auto pixels = [&](uint32_t from, uint32_t bytes) {
        return static_cast<uint8_t>(nibbles ? std::min(2 * bytes, width - 2 * from) : bytes);
    };
    uint32_t i = 0;
    while (i < n) {
        if ((i + 1 < n && row[i] == row[i + 1]) || i + 3 >= n) {
            uint32_t c = 1;
            while (i + c < n && c < longest && row[i + c] == row[i]) ++c;
            out.push_back(pixels(i, c));
            out.push_back(row[i]);
            i += c;
            continue;
        }
        // Absolute run: up to the first byte that equals the next one.
        const uint32_t end = nibbles && (width & 1) ? n - 1 : n;
        uint32_t c = 0;
        while (c < longest && i + c < end && !(i + c + 1 < n && row[i + c] == row[i + c + 1])) ++c;
        if (c < shortest) c = shortest;
        out.push_back(0);
        out.push_back(pixels(i, c));
        out.insert(out.end(), row + i, row + i + c);
        if (c & 1) out.push_back(0);
        i += c;
    }
}

}  // namespace

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant) {
    const uint32_t bits = header->biBitCount;
    const int32_t width = header->biWidth, height = header->biHeight;
    if (width < 1 || height < 1) return IMG_ERR_BAD_IMAGE;
    if (!dib_depth_valid(bits)) return IMG_ERR_DEPTH;
    const bool rle = variant == IMG_FORMAT_BMP_RLE;
    // Run lengths are written for 4- and 8-bit rows only. A 32-bit image
    // without the alpha marker holds four colour channels, which BMP cannot.
    if (rle && bits != 4 && bits != 8) return IMG_ERR_DEPTH;
    if (bits == 32 && header->biCompression != IMG_COMPRESSION_ALPHA) return IMG_ERR_DEPTH;

    const uint32_t rb = row_bytes(uint32_t(width), bits);
    const uint32_t pal = palette_bytes(bits);
    const uint64_t image = uint64_t(rb) * uint64_t(height);
    if (image + pal + 54 > 0xFFFFFFFFu) return IMG_ERR_BAD_IMAGE;
    StreamWriter out(stream);
    if (variant != IMG_FORMAT_DIB) {
        uint8_t fh[14] = {'B', 'M'};
        store_le32(fh + 2, static_cast<uint32_t>(image + pal + 54));
        store_le32(fh + 10, pal + 54);
        out.write(fh, sizeof fh);
    }
    uint8_t ih[40] = {};
    store_le32(ih, 40);
    store_le32(ih + 4, static_cast<uint32_t>(width));
    store_le32(ih + 8, static_cast<uint32_t>(height));
    store_le16(ih + 12, 1);
    store_le16(ih + 14, static_cast<uint16_t>(bits));
    store_le32(ih + 16, rle ? (bits == 4 ? 2 : 1) : 0);
    store_le32(ih + 20, static_cast<uint32_t>(image));
    if (header->biXPelsPerMeter && header->biYPelsPerMeter) {
        store_le32(ih + 24, static_cast<uint32_t>(to_ppm(header->biXPelsPerMeter)));
        store_le32(ih + 28, static_cast<uint32_t>(to_ppm(header->biYPelsPerMeter)));
    }
    out.write(ih, sizeof ih);
    out.write(dib_palette(header), pal);
    if (!out.ok()) return out.status();

    // Rows from the bottom.
    std::vector<uint8_t> row(rb), packed;
    for (int32_t r = height - 1; r >= 0; --r) {
        if (int32_t s = supply(user, row.data(), r, rb); s < 0) return s;
        if (!rle) {
            out.write(row.data(), rb);
        } else {
            packed.clear();
            encode_row(row.data(), uint32_t(width), bits == 4, packed);
            packed.push_back(0);
            packed.push_back(0);  // end of row
            out.write(packed.data(), static_cast<uint32_t>(packed.size()));
        }
        if (!out.ok()) return out.status();
    }
    if (rle) {
        const uint8_t end[2] = {0, 1};  // end of bitmap
        out.write(end, 2);
    }
    out.flush();
    return out.status();
}

}  // namespace tesslin::bmp
