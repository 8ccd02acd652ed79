// Process-wide settings: stored by the IMGLOW_set_* functions and read by
// decoders, encoders and processing at the moment they need them. They are
// plain values without a lock; callers set them before the work starts.
#pragma once

#include <cstdint>
#include <mutex>

#include "tesslin/tesslin.h"

namespace tesslin {

constexpr int kFormatCodes = IMG_FORMAT_CODES;

struct Settings {
    // Decoding
    int32_t decomp_reduction = 0;
    int32_t decomp_width = 0, decomp_height = 0;
    int32_t decomp_rect[4] = {0, 0, 0, 0};  // x, y, width, height
    uint8_t auto_detect[kFormatCodes];
    int32_t jpeg_decompression = 0;
    char overlay_path[260] = {};

    // Display and colour
    int32_t dithermode = 1;
    int32_t autocolor = 0;
    int32_t alias = 2;
    int32_t alias_quality = 100;
    int32_t wipedelay = 0;
    IMG_DISPLAY_CALLBACK dispfunc = nullptr;
    intptr_t dispfunc_user = 0;
    IMG_STATUS_CALLBACK statusbar = nullptr;
    intptr_t statusbar_user = 0;
    int32_t statusbar_on = 0;

    // Encoding
    uint8_t jpeg_luma[64];    // quantisation tables, natural order
    uint8_t jpeg_chroma[64];
    int32_t jpeg_h = 2, jpeg_v = 1;
    int32_t tiff_save_strips = 0;
    int32_t tiff_indexing = 0;
    int32_t image_orientation = 1;
    int32_t pdf_width = 612, pdf_height = 792;
    char notice[200];  // copyright notice written by the TIFF writer (Artist)
    char date[40];     // date string written by the TIFF writer (DateTime)

    Settings();
};

Settings& settings();

// Guards Settings::date and Settings::notice: TIFF decodes on any thread
// refresh them and saves read them, so every access holds this lock and no
// one sees a half-written string.
std::mutex& text_lock();

// Maps a format code to the detection switch it acts on: TIFF variants to 0,
// compressed BMP to 1. -1 for a code outside 0..78.
int32_t auto_detect_index(int32_t format_code);

// Calls the progress callback when reporting is on; returns its result, or 0.
inline int32_t report_progress(int32_t total_rows, int32_t row, uint32_t row_bytes) {
    Settings& s = settings();
    if (!s.statusbar_on || !s.statusbar) return 0;
    return s.statusbar(s.statusbar_user, total_rows, row, row_bytes);
}

// The base tables of JPEG quality scaling (natural order).
extern const uint8_t kJpegLumaBase[64];
extern const uint8_t kJpegChromaBase[64];
// Default tables before the quality is first set.
extern const uint8_t kJpegChromaDefault[64];

}  // namespace tesslin
