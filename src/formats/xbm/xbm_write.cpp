// X bitmap writer.
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "core/io.h"
#include "formats/xbm/xbm.h"

namespace tesslin::xbm {
namespace {

constexpr uint32_t kItemsPerLine = 12;

// Hexadecimal digit of the four bits of 15 - n in reverse order: the
// complement of a DIB nibble with its leftmost pixel moved to the low bit.
constexpr char kDigits[] = "f7b3d591e6a2c480";

bool put(StreamWriter& out, const char* text, int n) {
    return n > 0 && out.write(text, uint32_t(n));
}

}  // namespace

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t) {
    if (header->biBitCount != 1) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    const uint32_t width = uint32_t(header->biWidth), height = uint32_t(header->biHeight);
    StreamWriter out(stream);
    char text[64];
    if (!put(out, text, std::snprintf(text, sizeof text, "#define untitled_width %u\n", width)) ||
        !put(out, text, std::snprintf(text, sizeof text, "#define untitled_height %u\n", height)) ||
        !put(out, text, std::snprintf(text, sizeof text, "static char untitled_bits[] = {\n")))
        return out.status() ? out.status() : IMG_ERR_WRITE;

    const uint32_t rb = row_bytes(width, 1), stored = (width + 7) / 8;
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[rb]);
    if (!row) return IMG_ERR_MEMORY;
    const uint64_t total = uint64_t(stored) * height;
    uint64_t item = 0;
    // Lines of twelve items: four spaces, items separated by ", "; a full
    // line ends with ",\n"; the last item of the image is followed by "};\n".
    char line[4 + kItemsPerLine * 6 + 4];
    uint32_t len = 0, on_line = 0;
    for (uint32_t r = 0; r < height; ++r) {
        if (int32_t s = supply(user, row.get(), int32_t(r), rb); s < 0) return s;
        for (uint32_t i = 0; i < stored; ++i) {
            const uint8_t b = row[i];
            if (on_line == 0) {
                std::memcpy(line, "    ", 4);
                len = 4;
            }
            line[len++] = '0';
            line[len++] = 'x';
            line[len++] = kDigits[b & 15];
            line[len++] = kDigits[b >> 4];
            ++on_line;
            if (++item == total) {
                std::memcpy(line + len, "};\n", 3);
                len += 3;
            } else if (on_line == kItemsPerLine) {
                std::memcpy(line + len, ",\n", 2);
                len += 2;
            } else {
                std::memcpy(line + len, ", ", 2);
                len += 2;
                continue;
            }
            if (!out.write(line, len)) return out.status();
            on_line = 0;
        }
    }
    out.flush();
    return out.status();
}

}  // namespace tesslin::xbm
