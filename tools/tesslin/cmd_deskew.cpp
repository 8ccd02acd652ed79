// tesslin deskew: measure the skew of bilevel pages and level them.
#include <cstdio>
#include <cstdlib>

#include "common.h"

namespace cli {

extern const char* const deskew_help =
    "usage: tesslin deskew INPUT OUTPUT [--range LO,HI] [page and output options]\n"
    "\n"
    "Measures the skew of each bilevel page (whole degrees, searched from LO up to\n"
    "HI - 1) and turns the page by the correction about its middle; the page keeps\n"
    "its size. Pages without lines to measure are left as they are.\n"
    "  --range LO,HI    search range in degrees, LO < HI, each -45 to 45 (default -10,10)\n"
    "  --page N, --all-pages, --format NAME, --quality Q, --quiet  as in convert\n";

int run_deskew(int argc, char** argv) {
    PageJob job("deskew", "deskew", "deskewing");
    int32_t lo = -10, hi = 10;
    const auto own = [&](Args& a) {
        if (!a.is("--range")) return Taken::kNo;
        std::string text;
        if (!a.text(&text, "--range needs LO,HI")) return Taken::kBad;
        const size_t comma = text.find(',');
        if (comma == std::string::npos || !parse_int(text.substr(0, comma).c_str(), &lo) ||
            !parse_int(text.substr(comma + 1).c_str(), &hi) || lo < -45 || hi > 45 || lo >= hi) {
            a.usage("--range needs LO,HI: whole degrees from -45 to 45 with LO < HI");
            return Taken::kBad;
        }
        return Taken::kYes;
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    return run_pages(job, [&](int32_t handle) -> int32_t {
        int32_t angle = 0;
        if (int32_t s = IMG_get_deskew_angle(handle, &angle, lo, hi); s < 0) return s;
        // A page with nothing to measure answers -lo whatever the range: a
        // range one degree wider tells it from a real skew of lo degrees.
        if (angle == -lo) {
            int32_t wider = 0;
            if (int32_t s = IMG_get_deskew_angle(handle, &wider, lo - 1, hi); s < 0) return s;
            if (wider == -(lo - 1)) return 0;
        }
        return IMG_deskew_bitmap(handle, angle);
    });
}

}  // namespace cli
