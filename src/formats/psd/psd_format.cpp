// The Photoshop registry descriptor.
#include "formats/psd/psd.h"

namespace tesslin::psd {
namespace {

bool signature(const Probe& p) { return p.starts_with("8BPS"); }

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_PSD, "psd", "Photoshop", "psd", encode, 0, RowSupply::kPacked, false, true},
};

}  // namespace
}  // namespace tesslin::psd

namespace tesslin::formats {

// Image resources answer IMGLOW_get_tiff_tag by file name (not on a stream).
extern const FormatDescriptor kPsd = {
    .tag = "psd", .detect_switch = IMG_FORMAT_PSD, .signature = psd::signature,
    .decode = psd::decode, .tags = psd::tag_query, .codes = psd::kCodes};

}  // namespace tesslin::formats
