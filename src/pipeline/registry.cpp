// The one list of formats.
//
// Each row names the descriptor a format family exports (namespace
// tesslin::formats, named after the type tag). Adding a format is its folder
// under src/formats/ plus its row here; a format without a codec yet has its
// descriptor in src/formats/pending/ until its folder lands, and keeps its
// row.
//
// ORDER MATTERS for detection only: signature tests run in the order of
// this list and the first enabled test that matches names the format (TIFF
// before everything, plain text late, the weak Targa, CUT and WBMP tests
// last). Lookups by tag or format code do not depend on the order.
// Descriptors without a signature test (tags detection never gives, save-
// only codes) come after the tested ones.
#include "pipeline/registry.h"

#include <cstring>

namespace tesslin {
namespace formats {
extern const FormatDescriptor kTif, kGif, kBmp, kEps, kPdf, kDcx, kJpg, kWpg, kCal, kPng, kNcr,
    kKfx, kIff, kFpx, kLsd, kPcx, kMca, kJp2, kJbg, kJb2, kIco, kPcd, kPsd, kClp, kImg, kBtr,
    kXbm, kXpm, kXwd, kRas, kJed, kFxs, kPcl, kMag, kDcm, kSct, kCod, kTxt, kImt, kPct, kCim,
    kCif, kMsp, kTga, kWmf, kGx2, kMac, kCut, kWbm, kIca, kRawFax;
}  // namespace formats

namespace registry {
namespace {

using namespace formats;

constexpr const FormatDescriptor* kRegistry[] = {
    &kTif, &kGif, &kBmp, &kEps, &kPdf, &kDcx, &kJpg, &kWpg, &kCal, &kPng,
    &kNcr, &kKfx, &kIff, &kFpx, &kLsd, &kPcx, &kMca, &kJp2, &kJbg, &kJb2,
    &kIco, &kPcd, &kPsd, &kClp, &kImg, &kBtr, &kXbm, &kXpm, &kXwd, &kRas,
    &kJed, &kFxs, &kPcl, &kMag, &kDcm, &kSct, &kCod, &kTxt, &kImt, &kPct,
    &kCim, &kCif, &kMsp, &kTga, &kWmf, &kGx2, &kMac, &kCut, &kWbm,
    // No signature test.
    &kIca, &kRawFax,
};

}  // namespace

std::span<const FormatDescriptor* const> formats() { return kRegistry; }

const FormatDescriptor* find_tag(const char* tag) {
    if (!tag || !tag[0]) return nullptr;
    for (const FormatDescriptor* f : kRegistry)
        if (std::strcmp(f->tag, tag) == 0) return f;
    return nullptr;
}

CodeEntry find_code(int32_t code) {
    for (const FormatDescriptor* f : kRegistry)
        for (const CodeRow& row : f->codes)
            if (row.code == code) return CodeEntry{f, &row};
    return {};
}

}  // namespace registry
}  // namespace tesslin
