// Depth promotion: palette, bilevel and grey images to 8, 24 or 32 bits,
// and 32-bit CMYK to 24-bit colour, in place on the handle.
//
//   IMG_promote_8    1, 4, 8, 16 bits -> 8 bits (1 bit: 0/255 with a grey
//                    ramp; 4 and 8 bits: indices and palette kept; 16 bits:
//                    high byte of each sample); IMG_ERR_UNSUPPORTED for 24
//                    and 32 bits
//   IMG_promote_24   1, 4, 8 bits through the palette, 16 bits as grey
//                    from the high byte, 32 bits through the 32-bit row
//                    conversion -> blue, green, red; IMG_ERR_UNSUPPORTED
//                    for 24 bits
//   IMG_promote_32   1, 4, 8 bits through the palette, 16 bits as grey, 24
//                    bits -> blue, green, red, 0 with the alpha marker;
//                    IMG_ERR_UNSUPPORTED for 32 bits
//   IMG_cmyk_to_rgb  32 bits -> as IMG_promote_24; IMG_ERR_DEPTH otherwise
//
// Every one: IMG_ERR_HANDLE for a bad handle, IMG_ERR_MEMORY when memory
// runs out, the progress callback's negative status; the bitmap keeps its
// image on every failure. Run-encoded pages are read with their records
// expanded and come out as plain rows.
#include <cstring>

#include "core/api.h"
#include "core/settings.h"
#include "process/colour/frame.h"
#include "process/colour/palette.h"
#include "process/colour/rows.h"

using namespace tesslin;

namespace {

int32_t promote(int32_t handle, int32_t target) {
    BitmapObject* obj = nullptr;
    if (int32_t s = colour::find(handle, &obj)) return s;
    colour::discard_window_level(obj);
    const uint32_t bits = obj->bits();
    if (target == 8 ? bits >= 24 : bits == uint32_t(target)) return IMG_ERR_UNSUPPORTED;

    process::NewImage image;
    if (int32_t s = colour::create(image, obj, target)) return s;
    image.header()->biCompression = target == 32 ? IMG_COMPRESSION_ALPHA : 0;
    if (bits == 1 && target == 8) build_standard_palette(image.header(), "tiff");

    colour::RowReader src(obj);
    const uint32_t width = src.width();
    const int32_t height = src.height();
    const RgbQuad* pal = src.palette();
    for (int32_t s = 0; s < height; ++s) {
        if (int32_t p = report_progress(height, height - 1 - s, obj->row_bytes); p < 0) return p;
        const uint8_t* row = src.stored(s);
        uint8_t* out = colour::stored_row(image, s);
        if (target == 8) {
            for (uint32_t x = 0; x < width; ++x) {
                switch (bits) {
                    case 1: out[x] = (row[x >> 3] >> (7 - (x & 7))) & 1 ? 255 : 0; break;
                    case 4: out[x] = (x & 1) ? row[x >> 1] & 15 : row[x >> 1] >> 4; break;
                    case 8: out[x] = row[x]; break;
                    default: out[x] = row[2 * x + 1]; break;
                }
            }
        } else if (bits == 16 || bits == 24 || (bits == 32 && target == 24)) {
            // Grey from the high byte (no palette), colour bytes, or CMYK.
            if (bits == 32) {
                colour::row32_to_bgr24(row, out, width, obj->header()->biCompression);
            } else {
                const uint32_t step = target / 8;
                for (uint32_t x = 0; x < width; ++x) {
                    uint8_t* o = out + x * step;
                    if (bits == 16) {
                        o[0] = o[1] = o[2] = row[2 * x + 1];
                    } else {
                        o[0] = row[3 * x], o[1] = row[3 * x + 1], o[2] = row[3 * x + 2];
                    }
                    if (step == 4) o[3] = 0;
                }
            }
        } else {
            const uint32_t step = target / 8;
            for (uint32_t x = 0; x < width; ++x) {
                uint32_t index;
                switch (bits) {
                    case 1: index = (row[x >> 3] >> (7 - (x & 7))) & 1; break;
                    case 4: index = (x & 1) ? row[x >> 1] & 15 : row[x >> 1] >> 4; break;
                    default: index = row[x]; break;
                }
                uint8_t* o = out + x * step;
                o[0] = pal[index].rgbBlue, o[1] = pal[index].rgbGreen, o[2] = pal[index].rgbRed;
                if (step == 4) o[3] = 0;
            }
        }
        // Padding bytes of the new row.
        const uint32_t used = width * uint32_t(target) / 8;
        if (used < image.row_bytes()) std::memset(out + used, 0, image.row_bytes() - used);
    }
    return colour::install(image, obj);
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_promote_8(int32_t handle) {
    return api_call([&] { return promote(handle, 8); });
}

TESSLIN_API int32_t IMG_promote_24(int32_t handle) {
    return api_call([&] { return promote(handle, 24); });
}

TESSLIN_API int32_t IMG_promote_32(int32_t handle) {
    return api_call([&] { return promote(handle, 32); });
}

TESSLIN_API int32_t IMG_cmyk_to_rgb(int32_t handle) {
    return api_call([&]() -> int32_t {
        BitmapObject* obj = bitmap_get(handle);
        if (!obj) return IMG_ERR_HANDLE;
        if (obj->dib && obj->bits() != 32) return IMG_ERR_DEPTH;
        return promote(handle, 24);
    });
}

}  // extern "C"
