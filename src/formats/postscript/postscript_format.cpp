// The EPS registry descriptor: detection of EPS and PostScript files, and
// the PostScript format codes the library writes. No PostScript is read.
#include "formats/postscript/postscript.h"

namespace tesslin::postscript {
namespace {

// A DOS EPS binary header, or PostScript text.
bool signature(const Probe& p) {
    return p.bytes_are({0xC5, 0xD0, 0xD3, 0xC6}) || p.starts_with("%!PS");
}

constexpr RowSupply kPacked = RowSupply::kPacked;

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_EPS, "eps", "EPS with a TIFF preview", "eps", encode_eps, 0, kPacked, false,
     true},
    {IMG_FORMAT_EPS_SEPARATION, "eps-separation", "EPS four-plate colour separation", "eps",
     encode_separation, 0, kPacked, false, false, true},
    {IMG_FORMAT_EPS_LEVEL2_RLE, "eps-level2-rle", "EPS level 2, run-length or JPEG data", "eps",
     encode_level2, IMG_FORMAT_EPS_LEVEL2_RLE, kPacked, false, false, true},
    {IMG_FORMAT_EPS_LEVEL2_G4, "eps-level2-g4", "EPS level 2, Group 4 or JPEG data", "eps",
     encode_level2, IMG_FORMAT_EPS_LEVEL2_G4, RowSupply::kRunsWhenBilevel, false, false, true},
    {IMG_FORMAT_PS_FILTERED, "ps-filtered", "PostScript, filtered data", "ps", encode_page, 0,
     kPacked, false, false, true},
};

}  // namespace
}  // namespace tesslin::postscript

namespace tesslin::formats {

extern const FormatDescriptor kEps = {
    .tag = "eps", .detect_switch = IMG_FORMAT_EPS, .signature = postscript::signature,
    .codes = postscript::kCodes};

}  // namespace tesslin::formats
