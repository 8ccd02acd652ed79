// Format detection: names the format of a stream by a three-letter type tag
// from its first bytes (the signature tests of the registry's descriptors,
// in registry order), and maps tags to format codes.
#pragma once

#include <cstdint>

#include "pipeline/codec.h"

namespace tesslin {

// A type tag: three lower-case letters and a zero byte; empty when no
// format was recognised.
struct TypeTag {
    char text[4] = {0, 0, 0, 0};
    const FormatDescriptor* format = nullptr;  // the descriptor that matched
    bool empty() const { return text[0] == 0; }
    bool is(const char* tag) const;
};

// Reads kProbeBytes bytes at the stream's position and runs the signature
// tests in registry order, each only when its format's detection switch is
// on. On a match, and when nothing matched, the stream is left at offset 0;
// when fewer bytes arrive the tag is empty and the stream is not
// repositioned.
TypeTag detect_format(int32_t stream);

// Format code of a tag, refined by the format's CodeRefiner (reading at the
// stream's current position) where it has one. IMG_ERR_UNSUPPORTED for an
// empty tag and, in the memory variant, for the tags it does not know.
int32_t format_code(const TypeTag& tag, int32_t stream, bool memory);

}  // namespace tesslin
