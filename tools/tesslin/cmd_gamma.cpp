// tesslin gamma: pages through a gamma curve.
#include "common.h"

namespace cli {

extern const char* const gamma_help =
    "usage: tesslin gamma INPUT OUTPUT --value G [--page N | --all-pages] [--format F] [--quiet]\n"
    "\n"
    "Maps every sample through a gamma curve: 255 (v / 255)^(100 / G), G in\n"
    "hundredths (100 leaves the page as it is, 200 lightens, 50 darkens),\n"
    "1 to 1000. Palette pages change their palette; 16-bit pages are refused.\n"
    "--page, --all-pages, --format and --quiet as for 'tesslin convert'.\n";

int run_gamma(int argc, char** argv) {
    PageJob job("gamma", "apply gamma to", "applying gamma to");
    int32_t value = -1;
    const auto own = [&](Args& a) {
        return number_option(a, "--value", &value, 1, 1000, "--value needs a gamma in hundredths from 1 to 1000");
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    if (value < 0) return usage_error("--value is required", job.command);
    return run_pages(job, [value](int32_t handle) {
        if (int32_t s = IMG_set_gamma(handle, value); s < 0) return s;
        return IMG_apply_tone(handle);
    });
}

}  // namespace cli
