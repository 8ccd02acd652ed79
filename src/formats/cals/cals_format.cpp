// The CALS registry descriptor.
#include "core/stream.h"
#include "formats/cals/cals.h"

namespace tesslin::cals {
namespace {

// A CALS header opens with its "srcdocid:" record or with its version record
// ("specversion:"): the first three bytes of the one or four of the other.
bool signature(const Probe& p) { return p.starts_with("src") || p.bytes_are({'s', 'p', 'e', 'c'}); }

// The three digits of the orientation record at offset 905 (blanks
// skipped): 90 and 270 swap, other values are returned as they are.
int32_t orientation(int32_t stream, int32_t) {
    uint8_t digits[3];
    if (stream::seek(stream, 905, 0) != 905 || stream::read(stream, digits, 3) != 3)
        return IMG_ERR_READ;
    int32_t value = 0;
    for (uint8_t c : digits) {
        if (c == ' ') continue;
        if (c < '0' || c > '9') break;
        value = value * 10 + (c - '0');
    }
    return value == 90 ? 270 : value == 270 ? 90 : value;
}

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_CALS, "cals", "CALS raster", "cal", encode, 0, RowSupply::kRuns, false, true},
};

}  // namespace
}  // namespace tesslin::cals

namespace tesslin::formats {

extern const FormatDescriptor kCal = {
    .tag = "cal", .detect_switch = IMG_FORMAT_CALS, .signature = cals::signature,
    .decode = cals::decode, .orientation = cals::orientation, .tiles = cals::tile_query,
    .tiles_at = cals::kTiffOffset, .is_tiled = cals::is_tiled, .codes = cals::kCodes};

}  // namespace tesslin::formats
