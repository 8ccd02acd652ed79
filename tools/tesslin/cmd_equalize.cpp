// tesslin equalize: histogram equalisation of grey pages.
#include "common.h"

namespace cli {

extern const char* const equalize_help =
    "usage: tesslin equalize INPUT OUTPUT [--page N | --all-pages] [--format F] [--quiet]\n"
    "\n"
    "Spreads the values of 8-bit grey and 16-bit pages over the whole range by\n"
    "their cumulative histogram (the order of values is kept). Other pages\n"
    "fail with the library's status.\n"
    "--page, --all-pages, --format and --quiet as for 'tesslin convert'.\n";

int run_equalize(int argc, char** argv) {
    PageJob job("equalize", "equalise", "equalising");
    if (!job.parse(argc, argv)) return kUsageError;
    return run_pages(job, [](int32_t handle) { return IMG_histogram_equalize(handle); });
}

}  // namespace cli
