// tesslin autocrop: crop the white borders of bilevel pages.
#include "common.h"

namespace cli {

extern const char* const autocrop_help =
    "usage: tesslin autocrop INPUT OUTPUT [--margin N] [page and output options]\n"
    "\n"
    "Crops each bilevel page to the box of its black pixels widened by a margin\n"
    "(kept inside the page). White pages are left as they are.\n"
    "  --margin N       pixels kept around the black pixels, 0 or more (default 0)\n"
    "  --page N, --all-pages, --format NAME, --quality Q, --quiet  as in convert\n";

int run_autocrop(int argc, char** argv) {
    PageJob job("autocrop", "crop", "cropping");
    int32_t margin = 0;
    const auto own = [&](Args& a) {
        return number_option(a, "--margin", &margin, 0, INT32_MAX, "--margin needs a number of pixels from 0");
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    return run_pages(job, [&](int32_t handle) { return IMG_autocrop_bitmap(handle, margin); });
}

}  // namespace cli
