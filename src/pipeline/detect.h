// Format detection: names the format of a stream by a three-letter type tag
// from its first bytes, and maps tags to format codes.
#pragma once

#include <cstdint>

namespace tesslin {

// A type tag: three lower-case letters and a zero byte; empty when no
// format was recognised.
struct TypeTag {
    char text[4] = {0, 0, 0, 0};
    bool empty() const { return text[0] == 0; }
    bool is(const char* tag) const;
};

// Reads 10 bytes at the stream's position and runs the signature tests in
// their fixed order, each only when its format's detection switch is on.
// On a match, and when nothing matched, the stream is left at offset 0;
// when fewer than 10 bytes arrive the tag is empty and the stream is not
// repositioned.
TypeTag detect_format(int32_t stream);

// Format code of a tag with the refinements that read the file at the
// stream's current position ("tif": compression of the first directory;
// "bmp": compressed or not; "gif": interlaced or not). -7 for an empty or
// unknown tag, and, in the memory variant, for the tags it does not know.
int32_t format_code(const TypeTag& tag, int32_t stream, bool memory);

}  // namespace tesslin
