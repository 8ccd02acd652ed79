// The Targa registry descriptor.
#include "formats/targa/targa.h"

namespace tesslin::targa {
namespace {

// Targa has no signature: the colour-map type and image type of the header
// must agree (colour-mapped types 1 and 9 with a map, true-colour and grey
// types 2, 3, 10, 11 without), or the image type is 156 (JPEG) with an ID
// field of 24 to 69 bytes.
bool signature(const Probe& p) {
    const uint8_t map = p.bytes[1], type = p.bytes[2];
    return ((type == 1 || type == 9) && map == 1) ||
           ((type == 2 || type == 10 || type == 3 || type == 11) && map == 0) ||
           (p.bytes[0] >= 24 && p.bytes[0] <= 69 && type == 156);
}

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_TARGA, "tga", "Targa", "tga", encode, 0, RowSupply::kPacked, false, true},
    {IMG_FORMAT_TARGA_24, "tga-24", "Targa, 24-bit only", "tga", encode15, 0, RowSupply::kPacked,
     false, false, true},
};

}  // namespace
}  // namespace tesslin::targa

namespace tesslin::formats {

extern const FormatDescriptor kTga = {
    .tag = "tga", .detect_switch = IMG_FORMAT_TARGA, .signature = targa::signature,
    .decode = targa::decode, .codes = targa::kCodes};

}  // namespace tesslin::formats
