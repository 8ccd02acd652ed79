#include "pipeline/detect.h"

#include <cstring>

#include "core/settings.h"
#include "core/stream.h"
#include "pipeline/registry.h"

namespace tesslin {

bool TypeTag::is(const char* tag) const { return std::strcmp(text, tag) == 0; }

bool Probe::read_at(uint32_t offset, void* out, uint32_t n) const {
    if (offset > 0x7FFFFFFFu) return false;
    if (stream::seek(stream, static_cast<int32_t>(offset), 0) != static_cast<int32_t>(offset))
        return false;
    return stream::read(stream, out, n) == static_cast<int32_t>(n);
}

bool Probe::starts_with(const char* text, uint32_t at) const {
    const size_t n = std::strlen(text);
    return at + n <= kProbeBytes && std::memcmp(bytes + at, text, n) == 0;
}

bool Probe::bytes_are(std::initializer_list<uint8_t> values, uint32_t at) const {
    if (at + values.size() > kProbeBytes) return false;
    for (uint8_t v : values)
        if (bytes[at++] != v) return false;
    return true;
}

TypeTag detect_format(int32_t stream) {
    TypeTag tag;
    const int32_t start = stream::seek(stream, 0, 1);
    uint8_t b[kProbeBytes];
    if (start < 0 || stream::read(stream, b, kProbeBytes) != static_cast<int32_t>(kProbeBytes))
        return tag;
    const Probe probe{b, stream, static_cast<uint32_t>(start)};
    const uint8_t* enabled = settings().auto_detect;
    for (const FormatDescriptor* f : registry::formats()) {
        if (!f->signature || !enabled[f->detect_switch] || !f->signature(probe)) continue;
        std::memcpy(tag.text, f->tag, 4);
        tag.format = f;
        break;
    }
    stream::seek(stream, 0, 0);
    return tag;
}

int32_t format_code(const TypeTag& tag, int32_t stream, bool memory) {
    const FormatDescriptor* f = tag.format ? tag.format : registry::find_tag(tag.text);
    if (!f || f->codes.empty()) return IMG_ERR_UNSUPPORTED;
    if (memory && !f->known_in_memory) return IMG_ERR_UNSUPPORTED;
    return f->refine ? f->refine(stream) : f->codes.front().code;
}

}  // namespace tesslin
