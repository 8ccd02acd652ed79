// Registry descriptor of the raw fax writers: code streams without a
// header, which detection never names.
#include "formats/rawfax/rawfax.h"

namespace tesslin::rawfax {
namespace {

constexpr RowSupply kRuns = RowSupply::kRuns;

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_RAW_G3_REVERSED, "raw-g3-v1", "raw CCITT Group 3, variant 1", "g3", encode,
     IMG_FORMAT_RAW_G3_REVERSED, kRuns, false, false, true},
    {IMG_FORMAT_RAW_G4_REVERSED, "raw-g4-v1", "raw CCITT Group 4, variant 1", "g4", encode,
     IMG_FORMAT_RAW_G4_REVERSED, kRuns, false, false, true},
    {IMG_FORMAT_RAW_G4, "raw-g4", "raw CCITT Group 4", "g4", encode, IMG_FORMAT_RAW_G4, kRuns,
     false, false, true},
    {IMG_FORMAT_RAW_G3, "raw-g3", "raw CCITT Group 3", "g3", encode, IMG_FORMAT_RAW_G3, kRuns,
     false, false, true},
};

}  // namespace
}  // namespace tesslin::rawfax

namespace tesslin::formats {

extern const FormatDescriptor kRawFax = {.tag = "", .codes = rawfax::kCodes};

}  // namespace tesslin::formats
