// Dispatch tables of the decode and save pipelines: which decoder reads a
// type tag, which encoder writes a format code, and the per-format page
// counters, orientation readers and tile-information queries.
//
// The tables themselves live in dispatch.cpp, one line per format. To
// register a codec, declare its entry points in the format's own header
// (src/formats/<family>/<family>.h), include that header in dispatch.cpp and
// replace the nullptr on the format's line by the entry point.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin::dispatch {

// Type tags are three lower-case letters and a zero byte; "" is no format.
// Every lookup takes the bare tag ("tif").

// The decoder of a tag, or null (unknown tag, or a decoder not built yet).
Decoder decoder_for(const char* tag);

// The page counter of a tag, or null when the tag has none yet or is not in
// the list of the memory variant (`memory`). A tag without a counter has 1
// page. *listed tells whether the tag is in the counter list at all.
PageCounter page_counter_for(const char* tag, bool memory, bool* listed = nullptr);

// The orientation reader of a tag, or null (-7: the format records none).
OrientationReader orientation_for(const char* tag);

// The tile-information query of a tag, or null (-32: not tiled).
TileQuery tile_query_for(const char* tag);

// The tag query of a tag ("tif", and the formats whose tagged values the
// same call reads), or null (-7).
TagQuery tag_query_for(const char* tag);

struct EncoderEntry {
    int32_t code;
    Encoder encoder;  // null while the format's writer is not built
    int32_t variant;
};

// The encoder entry of a format code, or null for a code the save driver
// does not know. An entry whose encoder is null is a known code without a
// writer yet; both give -7.
const EncoderEntry* encoder_for(int32_t code);

// ABIC parameter readers of the fallback: TIFF directories, then MO:DCA
// structured fields. Null while those readers are not built.
AbicParamReader abic_tiff_params();
AbicParamReader abic_modca_params();

}  // namespace tesslin::dispatch
