// The font text pages are typeset in: the face named by the attributes,
// found through fontconfig (so that "Courier New" resolves to a
// metric-compatible face such as Liberation Mono), rasterised by FreeType as
// 1-bit glyphs, hinted for monochrome output.
//
// Sizing follows the logical font of the page: a positive height is the
// cell height (ascent + descent, from the face's OS/2 Windows metrics), a
// negative one the em height, 0 a 12-point font at the page's vertical
// resolution; a non-zero width is the average character width (OS/2
// xAvgCharWidth), 0 keeps the face's own proportions. The line height is
// the rounded ascent plus the rounded descent. Tab stops are every
// tab-size average character widths from the start of the line.
//
// Bold and italic select the face's own styles; a face without them is
// emboldened or slanted by FreeType.
#include <fontconfig/fontconfig.h>
#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_OUTLINE_H
#include FT_TRUETYPE_TABLES_H

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "formats/text/text.h"

namespace tesslin::text {
namespace {

// Bytes 0x80 to 0x9F of Windows code page 1252 as Unicode (0: unassigned);
// 0xA0 to 0xFF are Latin-1.
constexpr uint16_t kCp1252High[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

uint32_t unicode_of(uint8_t c) { return c >= 0x80 && c < 0xA0 ? kCp1252High[c - 0x80] : c; }

// Faces that stand in for the usual Windows ones, after the name itself.
const char* const* stand_ins(const char* name) {
    static const char* const mono[] = {"Liberation Mono", "Cousine", "DejaVu Sans Mono",
                                       "monospace", nullptr};
    static const char* const sans[] = {"Liberation Sans", "Arimo", "sans-serif", nullptr};
    static const char* const serif[] = {"Liberation Serif", "Tinos", "serif", nullptr};
    if (strcasecmp(name, "Arial") == 0 || strcasecmp(name, "Helvetica") == 0) return sans;
    if (strcasecmp(name, "Times New Roman") == 0 || strcasecmp(name, "Times") == 0) return serif;
    return mono;
}

struct FaceFile {
    std::string path;
    int index = 0;
    bool embolden = false;  // bold asked for, the face found is not
    bool slant = false;     // italic asked for, the face found is upright
};

bool find_face(const char* name, bool bold, bool italic, FaceFile* out) {
    static std::once_flag init;
    static bool ready = false;
    std::call_once(init, [] { ready = FcInit() == FcTrue; });
    if (!ready) return false;
    FcPattern* want = FcPatternCreate();
    if (!want) return false;
    if (*name) FcPatternAddString(want, FC_FAMILY, reinterpret_cast<const FcChar8*>(name));
    for (const char* const* s = stand_ins(name); *s; ++s)
        FcPatternAddString(want, FC_FAMILY, reinterpret_cast<const FcChar8*>(*s));
    FcPatternAddInteger(want, FC_WEIGHT, bold ? FC_WEIGHT_BOLD : FC_WEIGHT_REGULAR);
    FcPatternAddInteger(want, FC_SLANT, italic ? FC_SLANT_ITALIC : FC_SLANT_ROMAN);
    FcPatternAddBool(want, FC_SCALABLE, FcTrue);
    FcConfigSubstitute(nullptr, want, FcMatchPattern);
    FcDefaultSubstitute(want);
    FcResult result = FcResultNoMatch;
    FcPattern* found = FcFontMatch(nullptr, want, &result);
    FcPatternDestroy(want);
    if (!found) return false;
    FcChar8* file = nullptr;
    bool ok = FcPatternGetString(found, FC_FILE, 0, &file) == FcResultMatch && file;
    if (ok) {
        out->path = reinterpret_cast<const char*>(file);
        if (FcPatternGetInteger(found, FC_INDEX, 0, &out->index) != FcResultMatch) out->index = 0;
        int weight = FC_WEIGHT_REGULAR, slant = FC_SLANT_ROMAN;
        FcBool embolden = FcFalse;
        FcPatternGetInteger(found, FC_WEIGHT, 0, &weight);
        FcPatternGetInteger(found, FC_SLANT, 0, &slant);
        FcPatternGetBool(found, FC_EMBOLDEN, 0, &embolden);
        out->embolden = bold && (embolden || weight < FC_WEIGHT_DEMIBOLD);
        out->slant = italic && slant == FC_SLANT_ROMAN;
    }
    FcPatternDestroy(found);
    return ok;
}

struct Glyph {
    bool loaded = false;
    int32_t left = 0, top = 0, width = 0, rows = 0;
    uint32_t pitch = 0;
    std::vector<uint8_t> bits;  // 1 = ink, most significant bit first
    FT_Pos advance = 0;         // 26.6
};

}  // namespace

struct Font::Impl {
    FT_Library library = nullptr;
    FT_Face face = nullptr;
    bool embolden = false, slant = false;
    FT_Pos strength = 0;
    int32_t ascent = 0, descent = 0;
    int32_t average = 1;  // average character width, pixels
    FT_Pos tab = 64 * 8;  // tab stop spacing, 26.6
    Glyph glyphs[256];

    ~Impl() {
        if (face) FT_Done_Face(face);
        if (library) FT_Done_FreeType(library);
    }

    const Glyph& glyph(uint8_t c) {
        Glyph& g = glyphs[c];
        if (g.loaded) return g;
        g.loaded = true;
        g.advance = FT_Pos(average) * 64;
        const FT_UInt index = FT_Get_Char_Index(face, unicode_of(c));
        if (index == 0 || FT_Load_Glyph(face, index, FT_LOAD_NO_BITMAP | FT_LOAD_TARGET_MONO))
            return g;  // nothing to draw: an empty cell
        FT_GlyphSlot slot = face->glyph;
        if (slot->format == FT_GLYPH_FORMAT_OUTLINE) {
            if (slant) {
                FT_Matrix shear{0x10000, 0x0366A, 0, 0x10000};  // tan 12 degrees
                FT_Outline_Transform(&slot->outline, &shear);
            }
            if (embolden) FT_Outline_EmboldenXY(&slot->outline, strength, 0);
        }
        g.advance = slot->advance.x + (embolden ? strength : 0);
        if (FT_Render_Glyph(slot, FT_RENDER_MODE_MONO)) return g;
        const FT_Bitmap& b = slot->bitmap;
        if (b.pixel_mode != FT_PIXEL_MODE_MONO) return g;
        g.left = slot->bitmap_left;
        g.top = slot->bitmap_top;
        g.width = int32_t(b.width);
        g.rows = int32_t(b.rows);
        g.pitch = uint32_t(std::abs(b.pitch));
        g.bits.resize(size_t(g.pitch) * b.rows);
        for (uint32_t r = 0; r < b.rows; ++r) {
            const uint8_t* src =
                b.pitch >= 0 ? b.buffer + size_t(r) * g.pitch : b.buffer + size_t(b.rows - 1 - r) * g.pitch;
            std::memcpy(g.bits.data() + size_t(r) * g.pitch, src, g.pitch);
        }
        return g;
    }
};

Font::Font() = default;
Font::~Font() = default;

int32_t Font::open(const IMG_ASCII_ATTRIBUTES& a, const PageGeometry& g) {
    impl_ = std::make_unique<Impl>();
    Impl& f = *impl_;
    char name[32];
    std::memcpy(name, a.font_name, sizeof name);
    name[31] = 0;
    FaceFile file;
    if (!find_face(name, a.bold != 0, (a.italic & 0xFF) != 0, &file)) return IMG_ERR_UNSUPPORTED;
    if (FT_Init_FreeType(&f.library)) return IMG_ERR_MEMORY;
    if (FT_New_Face(f.library, file.path.c_str(), file.index, &f.face) || !FT_IS_SCALABLE(f.face))
        return IMG_ERR_UNSUPPORTED;
    f.embolden = file.embolden;
    f.slant = file.slant;

    const FT_Face face = f.face;
    const int64_t em = face->units_per_EM ? face->units_per_EM : 2048;
    const auto* os2 = static_cast<const TT_OS2*>(FT_Get_Sfnt_Table(face, FT_SFNT_OS2));
    const bool windows = os2 && os2->version != 0xFFFF && os2->usWinAscent + os2->usWinDescent > 0;
    const int64_t ascent = windows ? os2->usWinAscent : face->ascender;
    const int64_t descent = windows ? os2->usWinDescent : -face->descender;
    const int64_t average = os2 && os2->version != 0xFFFF && os2->xAvgCharWidth > 0
                                ? os2->xAvgCharWidth
                                : std::max<int64_t>(1, face->max_advance_width);
    if (ascent + descent <= 0) return IMG_ERR_UNSUPPORTED;

    // The logical font's height and width.
    int64_t height, width;
    if (a.font_height >= 0) {
        height = a.font_height;
        width = 0;
    } else {
        height = a.lines_per_page ? (g.height - g.top - g.bottom) / a.lines_per_page : 0;
        width = a.chars_per_line ? (g.width - g.left - g.right) / a.chars_per_line : 0;
    }
    // Em sizes in 26.6 pixels.
    int64_t em_y;
    if (height > 0) em_y = height * em * 64 / (ascent + descent);
    else if (height < 0) em_y = -height * 64;
    else em_y = int64_t(std::max(1, a.y_resolution)) * 12 * 64 / 72;
    const int64_t em_x = width != 0 ? std::abs(width) * em * 64 / average : em_y;
    constexpr int64_t kLargest = int64_t(16384) * 64;  // FreeType's sizes stay below 2^16 pixels
    if (em_x < 64 || em_y < 64 || em_x > kLargest || em_y > kLargest) return IMG_ERR_UNSUPPORTED;
    if (FT_Set_Char_Size(face, FT_F26Dot6(em_x), FT_F26Dot6(em_y), 72, 72)) return IMG_ERR_UNSUPPORTED;

    const auto scaled = [&](int64_t units, int64_t size) {
        return int32_t((units * size / em + 32) / 64);
    };
    f.ascent = scaled(ascent, em_y);
    f.descent = scaled(descent, em_y);
    f.average = width != 0 ? int32_t(std::abs(width)) : std::max(1, scaled(average, em_x));
    const int32_t tab_chars = a.tab_size > 0 ? std::min(a.tab_size, 4096) : 8;
    f.tab = FT_Pos(tab_chars) * f.average * 64;
    f.strength = FT_Pos(std::max<int64_t>(32, em_y / 24));
    return 0;
}

int32_t Font::line_height() const { return std::max(1, impl_->ascent + impl_->descent); }

int64_t Font::measure(const uint8_t* text, size_t n) {
    Impl& f = *impl_;
    int64_t pen = 0;
    for (size_t i = 0; i < n; ++i) {
        if (text[i] == 9) pen = (pen / f.tab + 1) * f.tab;
        else if (text[i] >= 32) pen += f.glyph(text[i]).advance;
    }
    return (pen + 32) / 64;
}

void Font::draw(const uint8_t* text, size_t n, int32_t x, int32_t y, int32_t right, Page& page) {
    Impl& f = *impl_;
    const int32_t clip_left = std::max(x, 0), clip_right = std::min(right, page.width);
    const int32_t clip_top = std::max(y, 0);
    const int32_t clip_bottom = int32_t(std::min<int64_t>(int64_t(y) + line_height(), page.height));
    if (clip_left >= clip_right || clip_top >= clip_bottom) return;
    int64_t pen = 0;
    for (size_t i = 0; i < n; ++i) {
        const uint8_t c = text[i];
        if (c == 9) {
            pen = (pen / f.tab + 1) * f.tab;
            continue;
        }
        if (c < 32) continue;
        const Glyph& g = f.glyph(c);
        const int64_t gx = x + (pen + 32) / 64 + g.left;
        const int64_t gy = int64_t(y) + f.ascent - g.top;
        pen += g.advance;
        // Glyphs wholly right of the clip end the line; a slanted one may
        // still reach back into it, hence the margin of an average width.
        if (gx >= clip_right + int64_t(f.average)) break;
        const int64_t r0 = std::max<int64_t>(gy, clip_top), r1 = std::min<int64_t>(gy + g.rows, clip_bottom);
        const int64_t c0 = std::max<int64_t>(gx, clip_left), c1 = std::min<int64_t>(gx + g.width, clip_right);
        for (int64_t r = r0; r < r1; ++r) {
            const uint8_t* src = g.bits.data() + size_t(r - gy) * g.pitch;
            uint8_t* dst = page.rows + size_t(r) * page.stride;
            for (int64_t col = c0; col < c1; ++col) {
                const int64_t sx = col - gx;
                if (src[sx >> 3] & (0x80 >> (sx & 7))) dst[col >> 3] &= uint8_t(~(0x80 >> (col & 7)));
            }
        }
    }
}

}  // namespace tesslin::text
