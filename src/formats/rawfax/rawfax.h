// Raw fax data: Group 3 and Group 4 code streams with no header. The writers
// of format codes 33, 34, 52 and 53 and the decode behind IMG_decompress_fax
// and IMG_decompress_fax_mem, whose caller supplies the geometry.
// docs/fax-formats.md describes both.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::rawfax {

// Encoder of format codes 33 (Group 3 one-dimensional with EOL codes, bytes
// bit-reversed), 53 (the same in natural bit order; any depth, the supply
// providing change lists for deeper images), 34 (Group 4, bit-reversed) and
// 52 (Group 4, natural order). The variant is the format code. IMG_ERR_DEPTH for a
// non-bilevel image given to 33, 34 or 52.
int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant);

// The decode of IMG_decompress_fax: the data at the stream's position into a
// new handle (see the public header for the modes and the height of 0).
int32_t decompress(int32_t stream, int32_t width, int32_t height, int32_t mode,
                   int32_t fill_order);

}  // namespace tesslin::rawfax
