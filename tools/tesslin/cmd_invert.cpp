// tesslin invert: complements every pixel value of pages.
#include "common.h"

namespace cli {

extern const char* const invert_help =
    "usage: tesslin invert INPUT OUTPUT [--page N | --all-pages]\n"
    "                      [--format F] [--quality Q] [--quiet]\n"
    "\n"
    "Complements every pixel value (IMG_invert_bitmap): bilevel pages exchange\n"
    "black and white (on their runs, without expanding them), colour pages\n"
    "become their negative, palette pages get complemented indices.\n"
    "  --page N       the page to invert, counting from 1 (default 1)\n"
    "  --all-pages    every page\n"
    "  --format F     output format code or name; default: from OUTPUT's extension\n"
    "  --quality Q    JPEG quality 1..100\n"
    "  --quiet        no summary line\n";

int run_invert(int argc, char** argv) {
    PageJob job("invert", "invert", "inverting");
    if (!job.parse(argc, argv)) return kUsageError;
    return run_pages(job, [](int32_t handle) { return IMG_invert_bitmap(handle); });
}

}  // namespace cli
