// The PDF registry descriptor: detection, and reading through the plug-in
// modules; writing is the library's own (format code IMG_FORMAT_PDF).
#include "formats/pdf/pdf.h"

namespace tesslin::pdf {
namespace {

bool signature(const Probe& p) { return p.starts_with("%PDF"); }

// A file's PDF page count: a module that fails counts as no pages.
int32_t pages_or_none(int32_t stream) {
    const int32_t n = modules::pdf_pages(stream);
    return n < 0 ? 0 : n;
}

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_PDF, "pdf", "PDF", "pdf", encode, 0, RowSupply::kRunsWhenBilevel, true},
};

}  // namespace
}  // namespace tesslin::pdf

namespace tesslin::formats {

extern const FormatDescriptor kPdf = {
    .tag = "pdf", .detect_switch = IMG_FORMAT_PDF, .signature = pdf::signature,
    .decode = modules::decode_pdf, .decoded_by_module = true, .count_pages = pdf::pages_or_none,
    .count_pages_mem = modules::pdf_pages, .codes = pdf::kCodes};

}  // namespace tesslin::formats
