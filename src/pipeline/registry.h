// The registry: every format the library knows, as the descriptors its
// format families export (src/pipeline/codec.h), on one ordered list in
// registry.cpp. The pipeline finds decoders, encoders, page counters and
// queries here and nowhere else.
#pragma once

#include <cstdint>
#include <span>

#include "pipeline/codec.h"

namespace tesslin::registry {

// Every descriptor, in the order detection tries their signature tests.
std::span<const FormatDescriptor* const> formats();

// The descriptor of a type tag ("tif"), or null for "" and unknown tags.
const FormatDescriptor* find_tag(const char* tag);

// A format code's row and the descriptor that holds it.
struct CodeEntry {
    const FormatDescriptor* format = nullptr;
    const CodeRow* row = nullptr;
    explicit operator bool() const { return row != nullptr; }
};

// The entry of a format code; empty for codes that name no format.
CodeEntry find_code(int32_t code);

}  // namespace tesslin::registry
