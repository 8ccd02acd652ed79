// tesslin contrast: contrast and brightness of pages.
#include "common.h"

namespace cli {

extern const char* const contrast_help =
    "usage: tesslin contrast INPUT OUTPUT [--contrast C] [--brightness B]\n"
    "                        [--page N | --all-pages] [--format F] [--quiet]\n"
    "\n"
    "Maps every sample v to (v + B) (2 C + 256) / 255 - C, clamped to 0..255:\n"
    "C from -127 to 255 (0: unchanged, positive: more contrast around the\n"
    "middle grey), B from -255 to 255. The mapping is the one saving applies\n"
    "to a bitmap's contrast and brightness (IMG_set_lut). Palette pages change\n"
    "their palette; 16-bit pages are saved unchanged.\n"
    "--page, --all-pages, --format and --quiet as for 'tesslin convert'.\n";

int run_contrast(int argc, char** argv) {
    PageJob job("contrast", "adjust", "adjusting");
    int32_t contrast = 0, brightness = 0;
    const auto own = [&](Args& a) {
        const Taken t = number_option(a, "--contrast", &contrast, -127, 255, "--contrast needs a number from -127 to 255");
        if (t != Taken::kNo) return t;
        return number_option(a, "--brightness", &brightness, -255, 255, "--brightness needs a number from -255 to 255");
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    // Saving applies the fields.
    return run_pages(job, [=](int32_t handle) { return IMG_set_lut(handle, contrast, brightness); });
}

}  // namespace cli
