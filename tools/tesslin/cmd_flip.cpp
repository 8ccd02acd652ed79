// tesslin flip: mirrors pages left to right (-x) or top to bottom (-y).
#include "common.h"

namespace cli {

extern const char* const flip_help =
    "usage: tesslin flip INPUT OUTPUT -x|-y [--page N | --all-pages]\n"
    "                    [--format F] [--quality Q] [--quiet]\n"
    "\n"
    "Mirrors pages: -x left to right (IMG_flip_bitmapx), -y top to bottom\n"
    "(IMG_flip_bitmapy); both together turn them by half a turn. Bilevel pages\n"
    "are mirrored on their runs without expanding them.\n"
    "  -x             mirror left to right\n"
    "  -y             mirror top to bottom\n"
    "  --page N       the page to mirror, counting from 1 (default 1)\n"
    "  --all-pages    every page\n"
    "  --format F     output format code or name; default: from OUTPUT's extension\n"
    "  --quality Q    JPEG quality 1..100\n"
    "  --quiet        no summary line\n";

int run_flip(int argc, char** argv) {
    PageJob job("flip", "flip", "flipping");
    bool x = false, y = false;
    const auto own = [&](Args& a) {
        if (a.is("-x"))
            x = true;
        else if (a.is("-y"))
            y = true;
        else
            return Taken::kNo;
        return Taken::kYes;
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    if (!x && !y) return usage_error("flip needs -x or -y", job.command);
    return run_pages(job, [x, y](int32_t handle) {
        int32_t s = x ? IMG_flip_bitmapx(handle) : 0;
        if (s >= 0 && y) s = IMG_flip_bitmapy(handle);
        return s;
    });
}

}  // namespace cli
