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

// Decoders of the dispatch list (tags "pdf", "fpx", "pcl", "jp2").
int32_t decode_pdf(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);  // -36
int32_t decode_doc(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);  // -43
int32_t decode_pcl(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);  // -36
int32_t decode_jp2(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);  // -41

// Encoder of format code 70.
int32_t encode_jp2(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t variant);  // -41

// Page counters on a stream.
int32_t pdf_pages(int32_t stream);  // -36
int32_t pcl_pages(int32_t stream);  // -40
int32_t doc_pages(int32_t stream);  // -43

// The file-name PDF module: page count and decode of one page (page number
// without bit 31).
int32_t apdf_pages(const char* file);  // -36
int32_t apdf_decode(const char* file, IMG_RASTER_CALLBACK raster, intptr_t user,
                    IMG_HEADER_CALLBACK header, int32_t page);  // -36

// ABIC decoding of `rows` packed 1-bit rows of `width` pixels into `out`.
int32_t abic_decode(int32_t stream, int32_t width, int32_t rows, uint8_t* out);  // -37

}  // namespace tesslin::plugins
