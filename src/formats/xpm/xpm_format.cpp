// The X pixmap registry descriptor: detected and written, not read.
#include "formats/xpm/xpm.h"

namespace tesslin::xpm {
namespace {

bool signature(const Probe& p) { return p.starts_with("/* XPM */"); }

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_XPM, "xpm", "X pixmap", "xpm", encode, 0, RowSupply::kPacked, false, true},
};

}  // namespace
}  // namespace tesslin::xpm

namespace tesslin::formats {

extern const FormatDescriptor kXpm = {
    .tag = "xpm", .detect_switch = IMG_FORMAT_XPM, .signature = xpm::signature,
    .codes = xpm::kCodes};

}  // namespace tesslin::formats
