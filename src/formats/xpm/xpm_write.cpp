// X pixmap writer.
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "core/io.h"
#include "formats/xpm/xpm.h"

namespace tesslin::xpm {
namespace {

constexpr char kHex[] = "0123456789ABCDEF";
constexpr char kFirst = 94;  // '^': the character of index 0

bool put(StreamWriter& out, const char* text) { return out.write(text, uint32_t(std::strlen(text))); }

}  // namespace

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t) {
    const uint32_t bits = header->biBitCount;
    if (bits != 1 && bits != 4 && bits != 8) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    const uint32_t width = uint32_t(header->biWidth), height = uint32_t(header->biHeight);
    const uint32_t colours = 1u << bits, per_pixel = colours > 32 ? 2 : 1;

    StreamWriter out(stream);
    put(out, "/* XPM */\n");
    put(out, "static char *untitled[] = {\n");
    put(out, "/* width height ncolors cpp [x_hot] [y_hot] */\n");
    char text[96];
    std::snprintf(text, sizeof text, "\"%u %u %u %u -1 -1\",\n", width, height, colours, per_pixel);
    put(out, text);
    put(out, "/* colors */\n");
    const RgbQuad* pal = dib_palette(header);
    for (uint32_t i = 0; i < colours; ++i) {
        const RgbQuad& c = pal[i];
        char code[3] = {char(kFirst + i), 0, 0};
        if (per_pixel == 2) code[0] = char(kFirst + (i >> 5)), code[1] = char(kFirst + (i & 31));
        std::snprintf(text, sizeof text, "\"%s\tc #%c%c%c%c%c%c\",\n", code, kHex[c.rgbRed >> 4],
                      kHex[c.rgbRed & 15], kHex[c.rgbGreen >> 4], kHex[c.rgbGreen & 15],
                      kHex[c.rgbBlue >> 4], kHex[c.rgbBlue & 15]);
        put(out, text);
    }
    put(out, "/* pixels */\n");
    if (!out.ok()) return out.status();

    const uint32_t rb = row_bytes(width, bits);
    const size_t line_size = size_t(width) * per_pixel + 8;
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[rb]);
    std::unique_ptr<char[]> line(new (std::nothrow) char[line_size]);
    if (!row || !line) return IMG_ERR_MEMORY;
    for (uint32_t r = 0; r < height; ++r) {
        if (int32_t s = supply(user, row.get(), int32_t(r), rb); s < 0) return s;
        char* o = line.get();
        *o++ = '"';
        for (uint32_t x = 0; x < width; ++x) {
            if (bits == 1) {
                *o++ = (row[x >> 3] >> (7 - (x & 7))) & 1 ? '_' : '^';
            } else if (bits == 4) {
                *o++ = char(kFirst + ((row[x >> 1] >> ((x & 1) ? 0 : 4)) & 15));
            } else {
                *o++ = char(kFirst + (row[x] >> 5));
                *o++ = char(kFirst + (row[x] & 31));
            }
        }
        const char* end = r + 1 == height ? "\"};\n" : "\",\n";
        const size_t n = std::strlen(end);
        std::memcpy(o, end, n);
        o += n;
        if (!out.write(line.get(), uint32_t(o - line.get()))) return out.status();
    }
    out.flush();
    return out.status();
}

}  // namespace tesslin::xpm
