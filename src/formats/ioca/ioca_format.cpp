// The registry descriptors of IOCA ("ica", code 24) and MO:DCA ("mca",
// codes 49 and 74): both read by the IOCA decoder, with the MO:DCA page
// count; MO:DCA also answers orientation and the ABIC parameters.
#include "formats/ioca/ioca.h"

namespace tesslin::ioca {

bool signature(const Probe& p) {
    const uint8_t* b = p.bytes;
    return (b[2] == 0xD3 && ((b[3] == 0xA6 && b[4] == 0xFB) || b[3] == 0xA8)) ||
           (b[0] == 'Z' && b[3] == 0xD3 && (b[4] == 0xA8 || b[4] == 0xEE)) || b[0] == 'p';
}

namespace {

constexpr RowSupply kRuns = RowSupply::kRuns;

constexpr CodeRow kMcaCodes[] = {
    {IMG_FORMAT_MODCA, "modca", "MO:DCA", "mca", nullptr, 0, kRuns, true, true},
    {IMG_FORMAT_MODCA_RI, "modca-ri", "MO:DCA with record introducers", "afp", nullptr, 1, kRuns,
     true, true, true},
};
constexpr CodeRow kIcaCodes[] = {
    {IMG_FORMAT_IOCA, "ioca", "IOCA", "ica", nullptr, 0, kRuns, false, true}};

}  // namespace
}  // namespace tesslin::ioca

namespace tesslin::formats {

// MO:DCA documents and bare IOCA segments; the detection switch is the one
// of IOCA (24).
extern const FormatDescriptor kMca = {
    .tag = "mca", .detect_switch = IMG_FORMAT_IOCA, .signature = ioca::signature,
    .decode = ioca::decode, .count_pages = ioca::count_pages,
    .count_pages_mem = ioca::count_pages, .orientation = ioca::orientation,
    .orientation_per_page = true, .abic_params = ioca::abic_params, .codes = ioca::kMcaCodes};
// IOCA image content: no signature of its own (MO:DCA detection covers it).
extern const FormatDescriptor kIca = {
    .tag = "ica", .decode = ioca::decode, .count_pages = ioca::count_pages,
    .count_pages_mem = ioca::count_pages, .codes = ioca::kIcaCodes};

}  // namespace tesslin::formats
