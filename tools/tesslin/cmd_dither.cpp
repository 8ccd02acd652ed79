// tesslin dither: pages to bilevel by ordered dither or error diffusion.
#include <string>

#include "common.h"

namespace cli {

extern const char* const dither_help =
    "usage: tesslin dither INPUT OUTPUT [--method bayer|halftone|diffusion]\n"
    "                      [--page N | --all-pages] [--format F] [--quiet]\n"
    "\n"
    "Makes pages bilevel, keeping their local brightness:\n"
    "  --method bayer      ordered dither with the 8 x 8 Bayer matrix\n"
    "  --method halftone   ordered dither with an 8 x 8 clustered-dot screen\n"
    "  --method diffusion  Stucki error diffusion (default)\n"
    "Bilevel pages are kept as they are. A .tif OUTPUT gets Group 4.\n"
    "--page, --all-pages, --format and --quiet as for 'tesslin convert'.\n";

int run_dither(int argc, char** argv) {
    PageJob job("dither", "dither", "dithering");
    int32_t (*method)(int32_t) = IMG_diffusion_mono;
    const auto own = [&](Args& a) {
        if (!a.is("--method")) return Taken::kNo;
        std::string m;
        if (!a.text(&m, "--method needs bayer, halftone or diffusion")) return Taken::kBad;
        if (m == "bayer")
            method = IMG_bayer_mono;
        else if (m == "halftone")
            method = IMG_halftone_mono;
        else if (m == "diffusion")
            method = IMG_diffusion_mono;
        else {
            a.usage("--method needs bayer, halftone or diffusion, not '" + m + "'");
            return Taken::kBad;
        }
        return Taken::kYes;
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    return run_pages(job, [method](int32_t handle) {
        int32_t w = 0, h = 0, bits = 0;
        IMG_bitmap_info(handle, &w, &h, &bits);
        return bits == 1 ? 0 : method(handle);
    });
}

}  // namespace cli
