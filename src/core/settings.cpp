#include "core/settings.h"

#include <cstring>

#include "core/api.h"

namespace tesslin {

const uint8_t kJpegLumaBase[64] = {
    16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
    14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
    18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
    49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};

const uint8_t kJpegChromaBase[64] = {
    18, 17, 24, 47, 66, 99, 99, 99, 17, 21, 36, 66, 99, 99, 99, 99,
    24, 36, 66, 99, 99, 99, 99, 99, 47, 66, 99, 99, 99, 99, 99, 99,
    66, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};

const uint8_t kJpegChromaDefault[64] = {
    17, 18, 24, 46, 66, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99,
    24, 26, 56, 99, 99, 99, 99, 99, 47, 66, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};

Settings::Settings() {
    std::memset(auto_detect, 1, sizeof auto_detect);
    auto_detect[IMG_FORMAT_TEXT] = 0;  // plain text only when asked for
    auto_detect[78] = 0;                // no format; kept off
    std::memcpy(jpeg_luma, kJpegLumaBase, 64);
    std::memcpy(jpeg_chroma, kJpegChromaDefault, 64);
    std::memset(notice, 0, sizeof notice);
    std::memset(date, 0, sizeof date);
    std::strcpy(notice, "Tesslin imaging library");
    std::strcpy(date, "01-01-2026");
}

Settings& settings() {
    static Settings s;
    return s;
}

std::mutex& text_lock() {
    static std::mutex m;
    return m;
}

int32_t auto_detect_index(int32_t code) {
    switch (code) {
        case IMG_FORMAT_TIFF_MH: case IMG_FORMAT_TIFF_G3: case IMG_FORMAT_TIFF_LZW:
        case IMG_FORMAT_TIFF_G4: case IMG_FORMAT_TIFF_PACKBITS: case IMG_FORMAT_TIFF_G3_2D:
        case IMG_FORMAT_TIFF_JPEG:
            return IMG_FORMAT_TIFF;
        case IMG_FORMAT_BMP_RLE:
            return IMG_FORMAT_BMP;
        default:
            return code >= 0 && code < kFormatCodes ? code : -1;
    }
}

namespace {

void scale_table(uint8_t* out, const uint8_t* base, int32_t quality) {
    const int32_t s = 2 * (100 - quality);
    for (int i = 0; i < 64; ++i) {
        int32_t v = (base[i] * s + 50) / 100;
        out[i] = static_cast<uint8_t>(v < 1 ? 1 : v > 255 ? 255 : v);
    }
}

// Copies at most max characters of a string and terminates it.
void copy_text(char* out, const char* in, size_t max) {
    size_t n = 0;
    while (n < max && in[n]) {
        out[n] = in[n];
        ++n;
    }
    out[n] = 0;
}

}  // namespace
}  // namespace tesslin

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMGLOW_set_decomp_reduction(int32_t depth) {
    settings().decomp_reduction = depth;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_decompsize(int32_t width, int32_t height) {
    settings().decomp_width = width;
    settings().decomp_height = height;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_decomp_rect(int32_t x, int32_t y, int32_t width, int32_t height) {
    int32_t* r = settings().decomp_rect;
    r[0] = x < 0 ? 0 : x;
    r[1] = y < 0 ? 0 : y;
    r[2] = width;
    r[3] = height;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_auto_detect(int32_t format_code) {
    int32_t i = auto_detect_index(format_code);
    if (i < 0) return IMG_ERR_UNSUPPORTED;
    int32_t previous = settings().auto_detect[i];
    settings().auto_detect[i] = 1;
    return previous;
}

TESSLIN_API int32_t IMGLOW_unset_auto_detect(int32_t format_code) {
    int32_t i = auto_detect_index(format_code);
    if (i < 0) return IMG_ERR_UNSUPPORTED;
    int32_t previous = settings().auto_detect[i];
    settings().auto_detect[i] = 0;
    return previous;
}

TESSLIN_API int32_t IMGLOW_get_auto_detect(int32_t format_code) {
    int32_t i = auto_detect_index(format_code);
    if (i < 0) return IMG_ERR_UNSUPPORTED;
    return settings().auto_detect[i];
}

TESSLIN_API int32_t IMGLOW_set_dithermode(int32_t mode) {
    settings().dithermode = mode;
    return 0;
}

TESSLIN_API int32_t IMGLOW_autocolor(int32_t flag) {
    settings().autocolor = flag;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_alias(int32_t mode) {
    if (static_cast<uint32_t>(mode) <= 4) settings().alias = mode;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_alias_quality(int32_t quality) {
    settings().alias_quality = quality < 0 ? 1 : quality > 100 ? 100 : quality;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_wipedelay(int32_t delay) {
    settings().wipedelay = delay;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_dispfunc(IMG_DISPLAY_CALLBACK callback, intptr_t user) {
    settings().dispfunc = callback;
    settings().dispfunc_user = user;
    return 0;
}

TESSLIN_API int32_t IMG_set_statusbar(intptr_t user, IMG_STATUS_CALLBACK callback,
                                      int32_t enable) {
    Settings& s = settings();
    if (enable) {
        s.statusbar_user = user;
        s.statusbar = callback;
        s.statusbar_on = 1;
    } else {
        s.statusbar_on = 0;
    }
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_comp_quality(int32_t quality) {
    quality = quality < 1 ? 1 : quality > 100 ? 100 : quality;
    scale_table(settings().jpeg_luma, kJpegLumaBase, quality);
    scale_table(settings().jpeg_chroma, kJpegChromaBase, quality);
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_jpg_interleave(int32_t horizontal, int32_t vertical) {
    settings().jpeg_h = horizontal;
    settings().jpeg_v = vertical;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_tiff_save_strips(int32_t flag) {
    settings().tiff_save_strips = flag;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_tiff_indexing(int32_t count) {
    settings().tiff_indexing = count;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_image_orientation(int32_t orientation) {
    if (static_cast<uint32_t>(orientation) <= 8) settings().image_orientation = orientation;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_pdf_output(int32_t width, int32_t height) {
    settings().pdf_width = width;
    settings().pdf_height = height;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_bitmap_name(const char* notice, const char* date) {
    std::lock_guard<std::mutex> hold(text_lock());
    if (notice) copy_text(settings().notice, notice, 199);
    if (date) {
        std::memset(settings().date, 0, sizeof settings().date);
        copy_text(settings().date, date, 10);
    }
    return 0;
}

TESSLIN_API int32_t IMGLOW_get_bitmap_name(char* notice, char* date) {
    std::lock_guard<std::mutex> hold(text_lock());
    if (notice) copy_text(notice, settings().notice, 199);
    if (date) copy_text(date, settings().date, 10);
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_jpeg_decompression(int32_t flag) {
    settings().jpeg_decompression = flag;
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_overlay_path(const char* path) {
    if (path) copy_text(settings().overlay_path, path, sizeof settings().overlay_path - 1);
    return 0;
}

TESSLIN_API int32_t IMG_ifl_version(int32_t* major, int32_t* minor) {
    if (major) *major = 13;
    if (minor) *minor = 0;
    return 0;
}

TESSLIN_API int32_t IMG_set_profile(intptr_t, intptr_t) { return 0; }

}  // extern "C"
