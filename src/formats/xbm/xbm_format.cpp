// The X bitmap registry descriptor: detected and written, not read.
#include "core/stream.h"
#include "formats/xbm/xbm.h"

namespace tesslin::xbm {
namespace {

// "#define" and a line feed within the next 200 bytes.
bool signature(const Probe& p) {
    if (!p.starts_with("#define")) return false;
    uint8_t more[200];
    if (stream::seek(p.stream, static_cast<int32_t>(p.start + kProbeBytes), 0) < 0) return false;
    const int32_t got = stream::read(p.stream, more, sizeof more);
    for (int32_t i = 0; i < got; ++i)
        if (more[i] == '\n') return true;
    return false;
}

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_XBM, "xbm", "X bitmap", "xbm", encode, 0, RowSupply::kPacked, false, true},
};

}  // namespace
}  // namespace tesslin::xbm

namespace tesslin::formats {

extern const FormatDescriptor kXbm = {
    .tag = "xbm", .detect_switch = IMG_FORMAT_XBM, .signature = xbm::signature,
    .codes = xbm::kCodes};

}  // namespace tesslin::formats
