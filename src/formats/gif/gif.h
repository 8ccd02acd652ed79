// GIF reader (type tag "gif") and writer (format codes IMG_FORMAT_GIF and
// IMG_FORMAT_GIF_INTERLACED).
//
// The reader decodes one image (frame) of a GIF87a or GIF89a stream at its
// own size into 4-bit (colour tables of 4 to 16 entries) or 8-bit palette
// rows; frame offsets, disposal and the logical screen are not used. The
// transparent index of the graphic control extension in force travels in
// the header's colour-count field (index | kTransparentFlag). The writer
// takes 4- and 8-bit palette images and writes one frame with a global
// colour table, a graphic control extension when the header carries a
// transparent index, and LZW data packed in 253/254-byte sub-blocks.
// docs/gif.md describes the choices on damaged data.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::gif {

// Status of a frame beyond the last one (the code the scanner operations use
// for an empty feeder; the header names no GIF-specific one).
constexpr int32_t kNoFrame = -28;

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant);

// Number of image descriptors from the stream's position on, or a negative
// status when the screen descriptor cannot be read.
int32_t count_frames(int32_t stream);

// IMG_FORMAT_GIF_INTERLACED when the first image is interlaced, else
// IMG_FORMAT_GIF; reads from the stream's position.
int32_t refine_code(int32_t stream);

// Delay (hundredths of a second) of the last graphic control extension
// before the first image of the GIF at the stream's position;
// IMG_ERR_GIF_BLOCK when none precedes it (or the first block after the
// header is not an extension), IMG_ERR_UNSUPPORTED when the data does not
// start with "GIF", IMG_ERR_READ for a short header or a cut extension.
int32_t animation_delay(int32_t stream);

}  // namespace tesslin::gif
