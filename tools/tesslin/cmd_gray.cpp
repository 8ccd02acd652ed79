// tesslin gray: pages to 8-bit grey.
#include "common.h"

namespace cli {

extern const char* const gray_help =
    "usage: tesslin gray INPUT OUTPUT [--page N | --all-pages] [--format F] [--quiet]\n"
    "\n"
    "Makes pages 8-bit grey: (75 green + 14 blue + 38 red) / 128 of each pixel's\n"
    "colour (palette pages through their palette); bilevel pages become 0 and 255.\n"
    "--page, --all-pages, --format and --quiet as for 'tesslin convert'.\n";

int run_gray(int argc, char** argv) {
    PageJob job("gray", "convert to grey", "converting to grey");
    if (!job.parse(argc, argv)) return kUsageError;
    return run_pages(job, [](int32_t handle) -> int32_t {
        int32_t w = 0, h = 0, bits = 0;
        IMG_bitmap_info(handle, &w, &h, &bits);
        if (bits == 1) return IMG_promote_8(handle);
        // IMG_color_gray lowers the grey of 8- and 16-bit palette pages by 40
        // (a display convention); through their colours they get the same
        // weighting as colour pages.
        if (bits < 24)
            if (int32_t s = IMG_promote_24(handle); s < 0) return s;
        return IMG_color_gray(handle);
    });
}

}  // namespace cli
