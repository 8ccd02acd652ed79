// PNG writer: rows pulled through the supply callback, filter None,
// compressed by zlib's deflate into IDAT chunks of up to 8 KB.
#include <zlib.h>

#include <cstring>
#include <memory>
#include <new>

#include "core/io.h"
#include "core/pixels.h"
#include "formats/png/png.h"

namespace tesslin {

namespace {

constexpr uint32_t kIdatBuffer = 8192;

// Eight tables: t[0] is the byte-wise table, t[k][i] the CRC of byte i
// followed by k zero bytes, so that eight bytes are folded per step.
struct CrcTable {
    uint32_t t[8][256];
    CrcTable() {
        for (uint32_t n = 0; n < 256; ++n) {
            uint32_t c = n;
            for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[0][n] = c;
        }
        for (uint32_t n = 0; n < 256; ++n)
            for (int k = 1; k < 8; ++k) t[k][n] = t[0][t[k - 1][n] & 0xFF] ^ (t[k - 1][n] >> 8);
    }
};

const CrcTable& crc_table() {
    static const CrcTable table;
    return table;
}

class ChunkWriter {
public:
    explicit ChunkWriter(int32_t stream) : w_(stream) {}

    bool chunk(const char* type, const uint8_t* data, uint32_t size) {
        uint8_t head[8];
        store_be32(head, size);
        std::memcpy(head + 4, type, 4);
        uint32_t crc = png_crc(head + 4, 4);
        crc = png_crc(data, size, crc);
        w_.write(head, 8);
        if (size) w_.write(data, size);
        return w_.be32(crc);
    }
    bool raw(const uint8_t* data, uint32_t size) { return w_.write(data, size); }
    int32_t finish() {
        w_.flush();
        return w_.status();
    }
    int32_t status() const { return w_.status(); }

private:
    StreamWriter w_;
};

// Owns the zlib stream so that every exit path ends it.
struct Deflater {
    z_stream z{};
    bool open = false;
    ~Deflater() {
        if (open) deflateEnd(&z);
    }
};

}  // namespace

uint32_t png_crc(const uint8_t* data, size_t size, uint32_t crc) {
    const auto& t = crc_table().t;
    crc = ~crc;
    for (; size >= 8; size -= 8, data += 8) {
        const uint32_t lo = load_le32(data) ^ crc, hi = load_le32(data + 4);
        crc = t[7][lo & 0xFF] ^ t[6][(lo >> 8) & 0xFF] ^ t[5][(lo >> 16) & 0xFF] ^ t[4][lo >> 24] ^
              t[3][hi & 0xFF] ^ t[2][(hi >> 8) & 0xFF] ^ t[1][(hi >> 16) & 0xFF] ^ t[0][hi >> 24];
    }
    for (; size; --size) crc = t[0][(crc ^ *data++) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

int32_t png_encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply, intptr_t user,
                   int32_t /*variant*/) {
    const uint32_t bits = header->biBitCount;
    if (bits == 32 && header->biCompression != 200) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    uint8_t colour, depth;
    switch (bits) {
    case 1: colour = 0, depth = 1; break;
    case 4: colour = 3, depth = 4; break;
    case 8: colour = 3, depth = 8; break;
    case 16: colour = 0, depth = 16; break;  // 16-bit grey samples
    case 24: colour = 2, depth = 8; break;
    case 32: colour = 6, depth = 8; break;
    default: return IMG_ERR_DEPTH;
    }
    const uint32_t width = uint32_t(header->biWidth), height = uint32_t(header->biHeight);
    const uint64_t dib_row64 = row_bytes64(width, bits);
    if (dib_row64 > 0x7FFFFFF0u) return IMG_ERR_MEMORY;
    const uint32_t dib_row = uint32_t(dib_row64);
    const uint32_t png_row = uint32_t((uint64_t(width) * bits + 7) / 8);

    // Filter byte, then the row as the supply gives it (the DIB row may be
    // padded beyond the PNG row).
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[size_t(dib_row) + 1]);
    std::unique_ptr<uint8_t[]> idat(new (std::nothrow) uint8_t[kIdatBuffer]);
    if (!row || !idat) return IMG_ERR_MEMORY;

    ChunkWriter out(stream);
    static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    out.raw(kSignature, 8);
    uint8_t ihdr[13];
    store_be32(ihdr, width);
    store_be32(ihdr + 4, height);
    ihdr[8] = depth;
    ihdr[9] = colour;
    ihdr[10] = ihdr[11] = ihdr[12] = 0;
    out.chunk("IHDR", ihdr, 13);
    uint8_t phys[9];
    store_be32(phys, uint32_t(header->biXPelsPerMeter / 0.0254 + 0.5));
    store_be32(phys + 4, uint32_t(header->biYPelsPerMeter / 0.0254 + 0.5));
    phys[8] = 1;
    out.chunk("pHYs", phys, 9);
    if (colour == 3) {
        const uint32_t entries = 1u << bits;
        uint8_t plte[256 * 3];
        const RgbQuad* q = dib_palette(header);
        for (uint32_t i = 0; i < entries; ++i) {
            plte[3 * i] = q[i].rgbRed;
            plte[3 * i + 1] = q[i].rgbGreen;
            plte[3 * i + 2] = q[i].rgbBlue;
        }
        out.chunk("PLTE", plte, entries * 3);
    }
    if (out.status()) return out.status();

    Deflater d;
    const int strategy = (colour == 3 || depth < 8) ? Z_DEFAULT_STRATEGY : Z_FILTERED;
    if (deflateInit2_(&d.z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15, 8, strategy, ZLIB_VERSION,
                      int(sizeof(z_stream))) != Z_OK)
        return IMG_ERR_MEMORY;
    d.open = true;
    d.z.next_out = idat.get();
    d.z.avail_out = kIdatBuffer;

    // Runs deflate over what it has been given; full buffers become chunks.
    auto pump = [&](int flush) -> int32_t {
        for (;;) {
            const int z = deflate(&d.z, flush);
            if (z == Z_STREAM_ERROR) return IMG_ERR_MEMORY;
            if (d.z.avail_out == 0) {
                if (!out.chunk("IDAT", idat.get(), kIdatBuffer)) return out.status();
                d.z.next_out = idat.get();
                d.z.avail_out = kIdatBuffer;
            }
            if (flush == Z_FINISH ? z == Z_STREAM_END : d.z.avail_in == 0) return 0;
            if (z == Z_BUF_ERROR && d.z.avail_out != 0) return IMG_ERR_MEMORY;  // no progress possible
        }
    };

    uint8_t* const row_pixels = row.get() + 1;
    for (uint32_t y = 0; y < height; ++y) {
        const int32_t s = supply(user, row_pixels, int32_t(y), dib_row);
        if (s < 0) return s;
        row[0] = 0;  // filter None
        if (bits == 24) pixels::swap_rgb24(row_pixels, row_pixels, width);
        else if (bits == 32) pixels::swap_rgb32(row_pixels, row_pixels, width);
        else if (bits == 16) pixels::swap16(row_pixels, row_pixels, width);
        d.z.next_in = row.get();
        d.z.avail_in = png_row + 1;
        const int32_t p = pump(Z_NO_FLUSH);
        if (p < 0) return p;
    }
    const int32_t p = pump(Z_FINISH);
    if (p < 0) return p;
    const uint32_t rest = kIdatBuffer - d.z.avail_out;
    if (rest) out.chunk("IDAT", idat.get(), rest);
    out.chunk("IEND", nullptr, 0);
    return out.finish();
}

}  // namespace tesslin
