// The WBMP registry descriptor.
#include "formats/wbmp/wbmp.h"

namespace tesslin::wbmp {
namespace {

// Byte 0 is 0, then header fields while bit 7 is set, then the width as a
// multi-byte integer, all within the probed bytes; widths 3 to 320 (the
// format has no signature, so only small screen-sized images are taken for
// WBMP).
bool signature(const Probe& p) {
    const uint8_t* b = p.bytes;
    if (b[0] != 0) return false;
    uint32_t i = 1;
    while (i < kProbeBytes && (b[i] & 0x80)) ++i;
    ++i;
    uint32_t width = 0;
    bool more = true;
    while (more) {
        if (i >= kProbeBytes) return false;
        width = (width << 7) | (b[i] & 0x7F);
        more = (b[i] & 0x80) != 0;
        ++i;
        if (width > 320) return false;
    }
    return width >= 3;
}

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_WBMP, "wbmp", "Wireless bitmap (WBMP)", "wbmp", encode},
};

}  // namespace
}  // namespace tesslin::wbmp

namespace tesslin::formats {

extern const FormatDescriptor kWbm = {
    .tag = "wbm", .detect_switch = IMG_FORMAT_WBMP, .signature = wbmp::signature,
    .decode = wbmp::decode, .codes = wbmp::kCodes};

}  // namespace tesslin::formats
