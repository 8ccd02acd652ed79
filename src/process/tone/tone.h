// What the tone operations share: the tone table built from a bitmap's
// gamma, brightness and contrast fields, the window/level state kept in the
// bitmap object, and the checks of the depths the operations accept.
//
//   tone_table             256-entry map from gamma, brightness, contrast
//   bitmap_tone_table      the same from a bitmap's fields (false: identity)
//   window_level_state     the bitmap's window/level mapping, or null
//   discard_window_level   forget it (operations that replace the pixels)
//   is_grey8               8-bit image with a grey palette
#pragma once

#include <cstdint>

#include "core/bitmap.h"

namespace tesslin::tone {

// Order of the fields in BitmapObject::tone.
enum ToneField { kGamma = 0, kBrightness = 1, kContrast = 2 };

// Entry i = clamp(trunc((255 (i / 255)^e + brightness) m / 255) - contrast,
// 0, 255) with e = 100 / gamma (gamma 0 counts as 100) and m = 2 contrast +
// 256 taken in its low 24 bits as an unsigned number; all three 0 give the
// identity.
void tone_table(int32_t gamma, int32_t brightness, int32_t contrast, uint8_t table[256]);

// The table of a bitmap's tone fields. False (table untouched) when none
// of the fields is set.
bool bitmap_tone_table(const BitmapObject& obj, uint8_t table[256], bool ignore_gamma = false);

// The window/level mapping lives in one owned block of the bitmap object
// (freed with the object): the depth it was built for, then 256 bytes for
// 8-bit grey or 65,536 16-bit entries (values 0 ... 255) for 16-bit images.
constexpr int kWindowLevelSlot = 0;
struct WindowLevel {
    uint32_t bits;     // 8 or 16
    uint32_t entries;  // 256 or 65,536
    uint8_t* table8() { return reinterpret_cast<uint8_t*>(this + 1); }
    uint16_t* table16() { return reinterpret_cast<uint16_t*>(this + 1); }
};

// The bitmap's window/level mapping while it is enabled, else null.
WindowLevel* window_level_state(BitmapObject* obj);

// Frees the mapping and clears the state; nothing when there is none.
void discard_window_level(BitmapObject* obj);

// An 8-bit image whose 256 palette entries are all grey.
bool is_grey8(BitmapObject* obj);

// The live object of a handle with a DIB: 0, or IMG_ERR_HANDLE.
int32_t find(int32_t handle, BitmapObject** out);

}  // namespace tesslin::tone
