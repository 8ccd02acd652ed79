// The PNG registry descriptor.
#include "formats/png/png.h"

namespace tesslin {
namespace {

bool png_signature(const Probe& p) { return p.starts_with("PNG", 1); }

constexpr CodeRow kPngCodes[] = {
    {IMG_FORMAT_PNG, "png", "PNG", "png", png_encode, 0, RowSupply::kPacked, false, true},
};

}  // namespace

namespace formats {

extern const FormatDescriptor kPng = {
    .tag = "png", .detect_switch = IMG_FORMAT_PNG, .signature = png_signature,
    .decode = png_decode, .codes = kPngCodes};

}  // namespace formats
}  // namespace tesslin
