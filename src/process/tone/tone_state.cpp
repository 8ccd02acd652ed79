// Tone settings of a bitmap: gamma, contrast and brightness fields and the
// window/level mapping of grey images.
//
//   IMG_set_gamma     all depths; stores the gamma field (hundredths)
//   IMG_set_lut       all depths; stores the contrast and brightness fields
//   IMG_window_level  8-bit grey and 16 bits; IMG_ERR_DEPTH otherwise
//
// All: IMG_ERR_HANDLE for a bad handle; IMG_window_level IMG_ERR_MEMORY
// when its table cannot be had (the state is then cleared).
//
//   IMG_apply_tone          all depths but 16 (IMG_ERR_DEPTH): the tone
//                           table, gamma included, applied to 24- and 32-bit
//                           samples and to palettes; the fields cleared
//   IMG_apply_window_level  an image with a window/level mapping
//                           (IMG_ERR_UNSUPPORTED without): replaced by the
//                           8-bit grey image of its mapped values
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "core/api.h"
#include "core/settings.h"
#include "platform/platform.h"
#include "process/colour/palette.h"
#include "process/new_image.h"
#include "process/tone/tone.h"

namespace tesslin::tone {

void tone_table(int32_t gamma, int32_t brightness, int32_t contrast, uint8_t table[256]) {
    const double g = gamma == 0 ? 100.0 : double(gamma);
    const double e = 1.0 / (g / 100.0);
    const double m = double((uint32_t(2) * uint32_t(contrast) + 256u) & 0xFFFFFFu);
    for (int i = 0; i < 256; ++i) {
        const double base = 255.0 * std::pow(i / 255.0, e) + double(brightness);
        double v = std::trunc(base * m / 255.0) - double(contrast);
        if (!(v >= 0)) v = 0;  // also NaN from a negative gamma
        table[i] = uint8_t(std::min(v, 255.0));
    }
}

bool bitmap_tone_table(const BitmapObject& obj, uint8_t table[256], bool ignore_gamma) {
    const int32_t gamma = ignore_gamma ? 0 : obj.tone[kGamma];
    if (!obj.tone[kGamma] && !obj.tone[kBrightness] && !obj.tone[kContrast]) return false;
    tone_table(gamma, obj.tone[kBrightness], obj.tone[kContrast], table);
    return true;
}

WindowLevel* window_level_state(BitmapObject* obj) {
    return static_cast<WindowLevel*>(obj->owned[kWindowLevelSlot]);
}

void discard_window_level(BitmapObject* obj) {
    platform::block_free(obj->owned[kWindowLevelSlot]);
    obj->owned[kWindowLevelSlot] = nullptr;
}

bool is_grey8(BitmapObject* obj) { return obj->bits() == 8 && !bitmap_is_color(obj); }

int32_t find(int32_t handle, BitmapObject** out) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj || !obj->dib) return IMG_ERR_HANDLE;
    *out = obj;
    return 0;
}

}  // namespace tesslin::tone

using namespace tesslin;

namespace {

int32_t window_level(int32_t handle, int32_t low, int32_t high, int32_t enable) {
    BitmapObject* obj = nullptr;
    if (int32_t s = tone::find(handle, &obj)) return s;
    const uint32_t bits = obj->bits();
    if (!(bits == 16 || tone::is_grey8(obj))) return IMG_ERR_DEPTH;
    tone::discard_window_level(obj);
    if (!enable) return 0;

    if (low == 0 && high == 0) {
        // The window spans the image's own values.
        uint32_t lo = std::numeric_limits<uint32_t>::max(), hi = 0;
        for (int32_t r = 0; r < obj->height; ++r) {
            const uint8_t* row = obj->plain_row(r);
            for (int32_t x = 0; x < obj->width; ++x) {
                const uint32_t v = bits == 8 ? row[x] : load_le16(row + 2 * x);
                lo = std::min(lo, v), hi = std::max(hi, v);
            }
        }
        low = int32_t(lo), high = int32_t(hi);
    }
    const uint32_t entries = bits == 8 ? 256 : 65536;
    const uint32_t size = sizeof(tone::WindowLevel) + entries * (bits / 8);
    auto* state = static_cast<tone::WindowLevel*>(platform::block_alloc(size));
    if (!state) return IMG_ERR_MEMORY;
    state->bits = bits, state->entries = entries;
    // Entry v = clamp(256 (v - low) / range, 0, 255) in integer division; an
    // empty window is a step at low.
    const int64_t range = int64_t(high) - int64_t(low);
    for (uint32_t v = 0; v < entries; ++v) {
        const int64_t d = int64_t(v) - low;
        int64_t e = range != 0 ? 256 * d / range : (d >= 0 ? 255 : 0);
        e = std::clamp<int64_t>(e, 0, 255);
        if (bits == 8)
            state->table8()[v] = uint8_t(e);
        else
            state->table16()[v] = uint16_t(e);
    }
    obj->owned[tone::kWindowLevelSlot] = state;
    return 0;
}

int32_t set_field(int32_t handle, int field, int32_t value) {
    BitmapObject* obj = nullptr;
    if (int32_t s = tone::find(handle, &obj)) return s;
    obj->tone[field] = value;
    return 0;
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_set_gamma(int32_t handle, int32_t gamma) {
    return api_call([&] { return set_field(handle, tone::kGamma, gamma); });
}

TESSLIN_API int32_t IMG_set_lut(int32_t handle, int32_t contrast, int32_t brightness) {
    return api_call([&] {
        if (int32_t s = set_field(handle, tone::kContrast, contrast)) return s;
        return set_field(handle, tone::kBrightness, brightness);
    });
}

TESSLIN_API int32_t IMG_window_level(int32_t handle, int32_t low, int32_t high, int32_t enable) {
    return api_call([&] { return window_level(handle, low, high, enable); });
}

}  // extern "C"

// ---- Baking the settings into the pixels -----------------------------------

namespace {

int32_t apply_tone(int32_t handle) {
    BitmapObject* obj = nullptr;
    if (int32_t s = tone::find(handle, &obj)) return s;
    const uint32_t bits = obj->bits();
    if (bits == 16) return IMG_ERR_DEPTH;
    uint8_t table[256];
    if (!tone::bitmap_tone_table(*obj, table)) return 0;
    if (bits >= 24) {
        // Every byte of a row is a sample (the fourth byte of 32-bit pixels
        // too, as saving maps it).
        const size_t n = size_t(obj->width) * (bits / 8);
        for (int32_t r = 0; r < obj->height; ++r) {
            uint8_t* row = obj->plain_row(r);
            for (size_t i = 0; i < n; ++i) row[i] = table[row[i]];
        }
    } else {
        RgbQuad* pal = dib_palette(obj->dib);
        for (uint32_t i = 0; i < palette_entries(bits); ++i) {
            pal[i].rgbRed = table[pal[i].rgbRed];
            pal[i].rgbGreen = table[pal[i].rgbGreen];
            pal[i].rgbBlue = table[pal[i].rgbBlue];
        }
    }
    obj->tone[tone::kGamma] = obj->tone[tone::kBrightness] = obj->tone[tone::kContrast] = 0;
    return 0;
}

int32_t apply_window_level(int32_t handle) {
    BitmapObject* obj = nullptr;
    if (int32_t s = tone::find(handle, &obj)) return s;
    tone::WindowLevel* wl = tone::window_level_state(obj);
    if (!wl || wl->bits != obj->bits()) return IMG_ERR_UNSUPPORTED;
    process::NewImage image;
    if (int32_t s = image.create(obj->header(), obj->width, obj->height, 8)) return s;
    image.header()->biCompression = 0;
    build_standard_palette(image.header(), "tiff");
    for (int32_t r = 0; r < obj->height; ++r) {
        const uint8_t* src = obj->plain_row(r);
        uint8_t* out = image.row(r);
        std::memset(out, 0, image.row_bytes());
        for (int32_t x = 0; x < obj->width; ++x)
            out[x] = wl->bits == 8 ? wl->table8()[src[x]] : uint8_t(wl->table16()[load_le16(src + 2 * x)]);
        if (int32_t s = report_progress(obj->height, r, image.row_bytes()); s < 0) return s;
    }
    if (int32_t s = image.install(obj)) return s;
    tone::discard_window_level(obj);
    return 0;
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_apply_tone(int32_t handle) {
    return api_call([&] { return apply_tone(handle); });
}

TESSLIN_API int32_t IMG_apply_window_level(int32_t handle) {
    return api_call([&] { return apply_window_level(handle); });
}

}  // extern "C"
