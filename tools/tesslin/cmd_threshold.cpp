// tesslin threshold: pages to bilevel by a fixed or an automatic threshold.
#include <string>

#include "common.h"

namespace cli {

extern const char* const threshold_help =
    "usage: tesslin threshold INPUT OUTPUT [--level N|auto] [--page N | --all-pages]\n"
    "                         [--format F] [--quiet]\n"
    "\n"
    "Makes pages bilevel: a pixel becomes white where its grey value\n"
    "(59 green + 30 red + 11 blue) / 100 exceeds the level, else black.\n"
    "  --level N      0..255 (default 128)\n"
    "  --level auto   grey values mapped through the page's cumulative histogram\n"
    "                 (0..255), white above 40: roughly the darkest sixth of the\n"
    "                 page turns black\n"
    "Bilevel pages are kept as they are. A .tif OUTPUT gets Group 4.\n"
    "--page, --all-pages, --format and --quiet as for 'tesslin convert'.\n";

int run_threshold(int argc, char** argv) {
    PageJob job("threshold", "threshold", "thresholding");
    int32_t level = 128;
    const auto own = [&](Args& a) {
        if (!a.is("--level")) return Taken::kNo;
        std::string text;
        if (!a.text(&text, "--level needs a number from 0 to 255 or 'auto'")) return Taken::kBad;
        if (text == "auto") {
            level = -1;
        } else if (!parse_int(text.c_str(), &level) || level < 0 || level > 255) {
            a.usage("--level needs a number from 0 to 255 or 'auto', not '" + text + "'");
            return Taken::kBad;
        }
        return Taken::kYes;
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    return run_pages(job, [level](int32_t handle) {
        int32_t w = 0, h = 0, bits = 0;
        IMG_bitmap_info(handle, &w, &h, &bits);
        return bits == 1 ? 0 : IMG_thresh_mono(handle, level);
    });
}

}  // namespace cli
