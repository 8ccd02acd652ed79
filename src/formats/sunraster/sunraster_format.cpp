// The Sun raster registry descriptor.
#include "formats/sunraster/sunraster.h"

namespace tesslin::sunraster {
namespace {

bool signature(const Probe& p) { return p.bytes_are({0x59, 0xA6, 0x6A, 0x95}); }

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_SUN_RASTER, "sun-raster", "Sun raster", "ras", encode, 0, RowSupply::kPacked,
     false, true},
};

}  // namespace
}  // namespace tesslin::sunraster

namespace tesslin::formats {

extern const FormatDescriptor kRas = {
    .tag = "ras", .detect_switch = IMG_FORMAT_SUN_RASTER, .signature = sunraster::signature,
    .decode = sunraster::decode, .codes = sunraster::kCodes};

}  // namespace tesslin::formats
