// tesslin window: window/level of grey pages (medical images) to 8-bit grey.
#include "common.h"

namespace cli {

extern const char* const window_help =
    "usage: tesslin window INPUT OUTPUT [--center C --width W] [--page N | --all-pages]\n"
    "                      [--format F] [--quiet]\n"
    "\n"
    "Maps the values of 8-bit grey and 16-bit pages through a window: values\n"
    "from C - W/2 to C + W/2 spread over 0..255, below black, above white; the\n"
    "result is 8-bit grey. Values are as stored (DICOM: before rescaling).\n"
    "Without --center and --width the window spans the page's own values.\n"
    "Other pages fail with the library's status.\n"
    "--page, --all-pages, --format and --quiet as for 'tesslin convert'.\n";

int run_window(int argc, char** argv) {
    PageJob job("window", "window", "windowing");
    int32_t center = -1, width = -1;
    const auto own = [&](Args& a) {
        const Taken t = number_option(a, "--center", &center, 0, 65535, "--center needs a value from 0 to 65535");
        if (t != Taken::kNo) return t;
        return number_option(a, "--width", &width, 1, 131072, "--width needs a value from 1 to 131072");
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    if ((center < 0) != (width < 0)) return usage_error("--center and --width go together", job.command);
    const int32_t low = center < 0 ? 0 : center - width / 2;
    const int32_t high = center < 0 ? 0 : low + width;
    return run_pages(job, [=](int32_t handle) {
        if (int32_t s = IMG_window_level(handle, low, high, 1); s < 0) return s;
        return IMG_apply_window_level(handle);
    });
}

}  // namespace cli
