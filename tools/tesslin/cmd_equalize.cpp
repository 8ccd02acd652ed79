// tesslin equalize: histogram equalisation of grey pages.
#include <string>
#include <vector>

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
    PageJob job;
    job.command = "equalize";
    job.action = "equalise";
    job.doing = "equalising";
    if (!job.parse(argc, argv)) return kUsageError;
    return run_pages(job, [](int32_t handle) { return IMG_histogram_equalize(handle); });
}

}  // namespace cli
