// The PCX and DCX registry descriptors.
#include "formats/pcx/pcx.h"

namespace tesslin {
namespace {

bool is_pcx(const Probe& p) { return p.bytes[0] == 10 && p.bytes[2] == 1; }
bool is_dcx(const Probe& p) { return p.bytes_are({0xB1, 0x68, 0xDE, 0x3A}); }

constexpr CodeRow kPcxCodes[] = {
    {IMG_FORMAT_PCX, "pcx", "PCX", "pcx", pcx::encode, 0, RowSupply::kPacked, false, true}};
constexpr CodeRow kDcxCodes[] = {
    {IMG_FORMAT_DCX, "dcx", "DCX (multi-page PCX)", "dcx", pcx::encode_dcx, 0, RowSupply::kPacked,
     true, true},
};

}  // namespace

namespace formats {

extern const FormatDescriptor kPcx = {
    .tag = "pcx", .detect_switch = IMG_FORMAT_PCX, .signature = is_pcx, .decode = pcx::decode,
    .codes = kPcxCodes};
extern const FormatDescriptor kDcx = {
    .tag = "dcx", .detect_switch = IMG_FORMAT_DCX, .signature = is_dcx,
    .decode = pcx::decode_dcx, .count_pages = pcx::count_dcx_pages,
    .count_pages_mem = pcx::count_dcx_pages, .codes = kDcxCodes};

}  // namespace formats
}  // namespace tesslin
