// PostScript output: Encapsulated PostScript with a TIFF preview
// (IMG_FORMAT_EPS), the four-plate CMYK separation (IMG_FORMAT_EPS_SEPARATION),
// level 2 EPS with run-length, Group 4 or JPEG data (IMG_FORMAT_EPS_LEVEL2_RLE,
// IMG_FORMAT_EPS_LEVEL2_G4), and a one-page PostScript document with
// ASCII85 run-length data (IMG_FORMAT_PS_FILTERED). docs/postscript.md
// describes what each writes. No PostScript is read.
//
// Every encoder follows the encoder contract of pipeline/codec.h and writes
// at the stream's position (offsets in the files count from there). Lines
// end with CR LF. Statuses: 0; IMG_ERR_DEPTH for 16-bit images and depths no
// DIB has (IMG_FORMAT_EPS_SEPARATION: for every image that is not 32-bit
// CMYK); IMG_ERR_BAD_IMAGE for a width or height below 1; IMG_ERR_WRITE for
// a short write (-38 for a fault); IMG_ERR_MEMORY; the status of the TIFF,
// Group 4 or JPEG writer and of the supply, unchanged.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::postscript {

// IMG_FORMAT_EPS: a DOS EPS binary header, the image as an uncompressed
// TIFF preview, and the PostScript section with the rows as hexadecimal.
int32_t encode_eps(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t variant);

// IMG_FORMAT_EPS_SEPARATION: a main part and one plate EPS for each of
// cyan, magenta, yellow and black, the TIFF preview behind them. Also
// IMG_ERR_BAD_IMAGE for images whose plates would not fit the eight-digit
// offsets of the plate lines.
int32_t encode_separation(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                          intptr_t user, int32_t variant);

// IMG_FORMAT_EPS_LEVEL2_RLE (variant 63) and IMG_FORMAT_EPS_LEVEL2_G4
// (variant 64): a level 2 image dictionary over filtered data; bilevel
// images as hexadecimal run-length data (63) or Group 4 (64), everything
// else as JPEG.
int32_t encode_level2(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                      intptr_t user, int32_t variant);

// IMG_FORMAT_PS_FILTERED: a one-page PostScript document whose samples are
// run-length coded and ASCII85 armoured (7-bit text, lossless).
int32_t encode_page(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                    intptr_t user, int32_t variant);

}  // namespace tesslin::postscript
