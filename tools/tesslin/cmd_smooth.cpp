// tesslin smooth: smoothing pages with a 3 x 3 neighbourhood.
#include "common.h"

namespace cli {

extern const char* const smooth_help =
    "usage: tesslin smooth INPUT OUTPUT [--amount N] [--page N | --all-pages] [--format F]\n"
    "                     [--quiet]\n"
    "\n"
    "Smooths grey (4- and 8-bit grey palettes), 16-, 24- and 32-bit pages\n"
    "(IMG_sharpen_bitmap with amount -N). N from 0 to 128 (default 0): the\n"
    "higher, the stronger. Border rows and columns are kept. Bilevel and\n"
    "colour-palette pages fail with the library's status.\n"
    "--page, --all-pages, --format and --quiet as for 'tesslin convert'.\n";

int run_smooth(int argc, char** argv) {
    PageJob job("smooth", "smooth", "smoothing");
    int32_t amount = 0;
    const auto own = [&amount](Args& a) {
        return number_option(a, "--amount", &amount, 0, 128, "--amount needs a number from 0 to 128");
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    return run_pages(job, [amount](int32_t handle) { return IMG_sharpen_bitmap(handle, -amount); });
}

}  // namespace cli
