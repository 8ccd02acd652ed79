// Plug-in modules: PDF, word-processor and PCL input, JPEG 2000 and ABIC
// decoding live in separately delivered shared objects that the library
// loads by base name on first use (docs/platform.md, "Plug-in modules").
//
// The functions below load the module a call needs and forward to its
// entry point, or return the module's failure code when it cannot be loaded
// (or lacks the entry point).
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::plugins {

// The stream-module forwarders (decode_pdf, pdf_pages ...) are part of the
// codec contract: tesslin::modules in pipeline/codec.h.

// The file-name PDF module: page count and decode of one page (page number
// without bit 31).
int32_t apdf_pages(const char* file);  // IMG_ERR_PLUGIN
int32_t apdf_decode(const char* file, IMG_RASTER_CALLBACK raster, intptr_t user,
                    IMG_HEADER_CALLBACK header, int32_t page);  // IMG_ERR_PLUGIN

// ABIC decoding of `rows` packed 1-bit rows of `width` pixels into `out`.
// IMG_ERR_ABIC_PLUGIN without the module.
int32_t abic_decode(int32_t stream, int32_t width, int32_t rows, uint8_t* out);

}  // namespace tesslin::plugins
