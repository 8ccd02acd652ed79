// tesslin despeckle: remove specks from bilevel pages (or thicken strokes).
#include "common.h"

namespace cli {

extern const char* const despeckle_help =
    "usage: tesslin despeckle INPUT OUTPUT [--level N] [page and output options]\n"
    "\n"
    "Removes isolated black specks from each bilevel page: a black pixel stays when\n"
    "a black pixel lies above or below it or it is inside a horizontal run of at\n"
    "least 6 pixels. Level 0 or below thickens strokes by one pixel instead.\n"
    "  --level N        -99 to 99 (default 10); 20 and above remove more\n"
    "  --page N, --all-pages, --format NAME, --quality Q, --quiet  as in convert\n";

int run_despeckle(int argc, char** argv) {
    PageJob job("despeckle", "despeckle", "despeckling");
    int32_t level = 10;
    const auto own = [&](Args& a) {
        return number_option(a, "--level", &level, -99, 99, "--level needs a whole number from -99 to 99");
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    return run_pages(job, [&](int32_t handle) { return IMG_despeckle_bitmap(handle, level); });
}

}  // namespace cli
