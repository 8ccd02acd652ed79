// tesslin sharpen: sharpening pages with a 3 x 3 neighbourhood.
#include "common.h"

namespace cli {

extern const char* const sharpen_help =
    "usage: tesslin sharpen INPUT OUTPUT [--amount N] [--page N | --all-pages] [--format F]\n"
    "                     [--quiet]\n"
    "\n"
    "Sharpens grey (4- and 8-bit grey palettes), 16-, 24- and 32-bit pages\n"
    "(IMG_sharpen_bitmap with amount N). N from 0 to 128 (default 64): the\n"
    "higher, the stronger. Border rows and columns are kept. Bilevel and\n"
    "colour-palette pages fail with the library's status.\n"
    "--page, --all-pages, --format and --quiet as for 'tesslin convert'.\n";

int run_sharpen(int argc, char** argv) {
    PageJob job("sharpen", "sharpen", "sharpening");
    int32_t amount = 64;
    const auto own = [&amount](Args& a) {
        return number_option(a, "--amount", &amount, 0, 128, "--amount needs a number from 0 to 128");
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    return run_pages(job, [amount](int32_t handle) { return IMG_sharpen_bitmap(handle, amount); });
}

}  // namespace cli
