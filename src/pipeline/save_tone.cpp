// Tone mapping of saved rows. A bitmap whose tone fields are set (by the
// look-up-table and tone operations) is saved through the colour map that
// display applies to it, computed with the gamma field cleared: it becomes
// the supply's byte table for 24- and 32-bit bitmaps and grey palettes, and
// is applied once to the encoder header's palette for colour palettes.
#include "pipeline/save.h"
#include "process/tone/tone.h"

namespace tesslin {

const uint8_t* save_tone_map(const BitmapObject& obj, DibHeader* header, uint8_t* table) {
    if (!tone::bitmap_tone_table(obj, table, /*ignore_gamma=*/true)) return nullptr;
    const uint32_t bits = header->biBitCount;
    if (bits >= 24) return table;
    // Palette images: a grey palette maps the supplied bytes (their values
    // are the grey levels); a colour palette is mapped itself.
    // 16-bit images are 5-5-5 colour in the library's general convention:
    // byte tables do not apply to their samples, so they are saved as they are.
    if (bits == 16) return nullptr;
    RgbQuad* pal = dib_palette(header);
    const uint32_t n = palette_entries(bits);
    bool colour = false;
    for (uint32_t i = 0; i < n; ++i)
        colour |= pal[i].rgbRed != pal[i].rgbGreen || pal[i].rgbGreen != pal[i].rgbBlue;
    if (colour || bits < 8) {
        for (uint32_t i = 0; i < n; ++i) {
            pal[i].rgbRed = table[pal[i].rgbRed];
            pal[i].rgbGreen = table[pal[i].rgbGreen];
            pal[i].rgbBlue = table[pal[i].rgbBlue];
        }
        return nullptr;
    }
    return table;
}

}  // namespace tesslin
