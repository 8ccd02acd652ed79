// Fax containers: small formats that put one block of Group 3 (one-
// dimensional, with EOL codes) or Group 4 data behind a fixed header. IMT
// (tag "imt", read and written as format code 42), BTR ("btr", code 29),
// KFX ("kfx", read only), LSD ("lsd", read only) and MAG ("mag", read only,
// several pages). All header fields are little-endian. docs/fax-formats.md
// gives the layouts.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::faxcontainers {

// Decoders (contract of pipeline/codec.h). IMT, BTR, KFX and LSD take the
// position as the byte offset of their header (bit 31 set: the header is at
// the stream's position; the page is not used). Each announces a 1-bit
// header and delivers the page's rows. Statuses: IMG_ERR_READ for a header cut short
// (or a page whose coded data is missing), IMG_ERR_BAD_IMAGE for a size out of range, the
// statuses of the fax decoders and callbacks, and:
//   IMT: IMG_ERR_UNSUPPORTED for a version other than 1; a compression other than 1 (Group 3)
//        and 3 (Group 4) announces the header and delivers no rows (0).
//   MAG: position bit 31 set: bits 0-15 are the page; otherwise the page is
//        0 and the position the offset of the header fields. IMG_ERR_NO_PAGE for a page
//        beyond the chain of page records, or a record or width below 1.
int32_t decode_imt(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);
int32_t decode_btr(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);
int32_t decode_kfx(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);
int32_t decode_lsd(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);
int32_t decode_mag(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);

// Page counter of the tag "mag": the number of page records along the chain
// (stream at offset 0). IMG_ERR_READ when the first record cannot be read.
int32_t count_mag_pages(int32_t stream);

// Encoders of format codes 42 (IMT: Group 4, bytes bit-reversed, width
// rounded down to a multiple of 8) and 29 (BTR: Group 3 one-dimensional
// with EOL codes). Bilevel images only (IMG_ERR_DEPTH); IMG_ERR_BAD_IMAGE for a size the header
// cannot hold; IMG_ERR_WRITE for a short header write. The variant is not used.
int32_t encode_imt(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t variant);
int32_t encode_btr(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t variant);

}  // namespace tesslin::faxcontainers
