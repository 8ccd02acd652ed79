// tesslin convert: decodes pages (or headerless fax data) and saves them in
// another format through the page pipeline.
#include <fcntl.h>
#include <unistd.h>

#include <climits>

#include "common.h"

namespace cli {

extern const char* const convert_help =
    "usage: tesslin convert INPUT OUTPUT [--page N | --all-pages] [--format F] [--quality Q]\n"
    "                       [--overwrite]\n"
    "       tesslin convert --raw-fax MODE --width W [--height H] [--fill-order 1|2]\n"
    "                       INPUT OUTPUT [--format F]\n"
    "\n"
    "Decodes a page of INPUT (page 1 by default) and saves it as OUTPUT.\n"
    "  --page N       the page to convert, counting from 1\n"
    "  --all-pages    every page: appended to OUTPUT when the output format holds\n"
    "                 several pages (TIFF, PDF, DCX ...), else written as OUTPUT with\n"
    "                 -1, -2 ... before the extension\n"
    "  --format F     output format code or name as 'tesslin formats' lists them\n"
    "                 (tiff-g4, tiff-lzw, bmp, jpeg, png, pdf ...); without it the\n"
    "                 format follows the output's extension, and .tif/.tiff gives\n"
    "                 Group 4 for bilevel pages and LZW for others\n"
    "  --quality Q    JPEG quality 1..100 (default: the library's tables)\n"
    "  --overwrite    replace OUTPUT (or OUTPUT-N) when it exists; without it an\n"
    "                 existing output is refused and left as it was\n"
    "\n"
    "Raw fax data (no header) is decoded with the geometry given:\n"
    "  --raw-fax MODE    2: Group 3 two-dimensional, 3: Group 3 one-dimensional with\n"
    "                    EOL codes, 4: Group 4, 5/6: ABIC (through the ABIC module),\n"
    "                    other values: Modified Huffman without EOL codes\n"
    "  --width W         pixels per row\n"
    "  --height H        rows; 0 or absent: up to the end of the page\n"
    "  --fill-order 1|2  1 (default): first pixel in the high bit of each byte,\n"
    "                    2: in the low bit\n"
    "\n"
    "The output is written to a temporary file beside it and renamed when complete:\n"
    "a failed conversion leaves no output behind and an existing OUTPUT untouched.\n";

namespace {

struct RawFax {
    bool given = false;
    int32_t mode = 0, width = 0, height = 0, fill_order = 1;
};

int32_t decode_raw_fax(const std::string& input, const RawFax& raw) {
    const int fd = open(input.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return IMG_ERR_OPEN;
    const int32_t h = IMG_decompress_fax(fd, raw.width, raw.height, raw.mode, raw.fill_order);
    close(fd);
    return h;
}

}  // namespace

int run_convert(int argc, char** argv) {
    PageJob job;
    job.command = "convert";
    // Convert prints nothing when it succeeds, and keeps its progress labels.
    job.summary = false;
    job.page_totals = false;
    RawFax raw;
    bool raw_options = false;
    std::vector<std::string> names;
    Args a("convert", argc, argv);
    while (a.next()) {
        if (const Taken t = job.accept(a); t != Taken::kNo) {
            if (t == Taken::kBad) return kUsageError;
        } else if (a.is("--raw-fax")) {
            if (!a.number(&raw.mode, INT32_MIN, INT32_MAX, "--raw-fax needs a mode number"))
                return kUsageError;
            raw.given = true;
        } else if (a.is("--width")) {
            if (!a.number(&raw.width, 1, INT32_MAX, "--width needs a number of pixels from 1"))
                return kUsageError;
            raw_options = true;
        } else if (a.is("--height")) {
            if (!a.number(&raw.height, 0, INT32_MAX, "--height needs a number of rows from 0"))
                return kUsageError;
            raw_options = true;
        } else if (a.is("--fill-order")) {
            if (!a.number(&raw.fill_order, 1, 2, "--fill-order needs 1 or 2")) return kUsageError;
            raw_options = true;
        } else if (!a.name(&names)) {
            return kUsageError;
        }
    }
    if (!job.take_names(a, names)) return kUsageError;
    if (raw_options && !raw.given)
        return a.usage("--width, --height and --fill-order go with --raw-fax");
    if (raw.given && raw.width < 1) return a.usage("--raw-fax needs --width");
    if (raw.given && (job.pages.page_given || job.pages.all))
        return a.usage("raw fax data has one page: no --page or --all-pages");
    if (raw.given) {
        job.raw_decode = [&] { return decode_raw_fax(job.input, raw); };
        // ABIC mode 6 gives 4-bit grey pages; every other mode bilevel.
        job.raw_bits = raw.mode == 6 ? 4 : 1;
    }
    return run_pages(job);
}

}  // namespace cli
