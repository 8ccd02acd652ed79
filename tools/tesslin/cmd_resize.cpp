// tesslin resize: scales pages to a new width and height.
#include <algorithm>

#include "common.h"

namespace cli {

extern const char* const resize_help =
    "usage: tesslin resize INPUT OUTPUT --width W --height H\n"
    "                      [--method nearest|interp|area|grey]\n"
    "                      [--page N | --all-pages] [--format F] [--quality Q] [--quiet]\n"
    "\n"
    "Scales pages to W x H pixels. With only one of --width and --height the\n"
    "other follows the page's aspect ratio.\n"
    "  --width W      new width in pixels, 1 or more\n"
    "  --height H     new height in pixels, 1 or more\n"
    "  --method M     nearest (default, IMG_resize_bitmap): every depth, bilevel\n"
    "                 pages stay bilevel;\n"
    "                 interp (IMG_resize_bitmap_interp): linear interpolation when\n"
    "                 enlarging grey and colour pages, bilevel pages shrink keeping\n"
    "                 every black pixel; not for 4-bit or 8-bit colour-palette pages;\n"
    "                 area (IMG_resize_bitmap_bicubic): area averaging of grey and\n"
    "                 colour pages of 8 bits (grey) or more;\n"
    "                 grey (IMG_resize_to_gray): bilevel pages shrink to 8-bit grey\n"
    "  --page N       the page to resize, counting from 1 (default 1)\n"
    "  --all-pages    every page\n"
    "  --format F     output format code or name; default: from OUTPUT's extension\n"
    "  --quality Q    JPEG quality 1..100\n"
    "  --quiet        no summary line\n";

namespace {

using Resize = int32_t (*)(int32_t, int32_t, int32_t);

Resize method_named(const std::string& name) {
    if (name == "nearest") return IMG_resize_bitmap;
    if (name == "interp") return IMG_resize_bitmap_interp;
    if (name == "area") return IMG_resize_bitmap_bicubic;
    if (name == "grey" || name == "gray") return IMG_resize_to_gray;
    return nullptr;
}

}  // namespace

int run_resize(int argc, char** argv) {
    PageJob job("resize", "resize", "resizing");
    int32_t width = 0, height = 0;
    Resize resize = IMG_resize_bitmap;
    const auto own = [&](Args& a) {
        Taken t = number_option(a, "--width", &width, 1, 1 << 24, "--width needs a number of pixels from 1");
        if (t == Taken::kNo)
            t = number_option(a, "--height", &height, 1, 1 << 24, "--height needs a number of pixels from 1");
        if (t != Taken::kNo || !a.is("--method")) return t;
        std::string name;
        const char* need = "--method needs nearest, interp, area or grey";
        if (!a.text(&name, need)) return Taken::kBad;
        if (!(resize = method_named(name))) {
            a.usage(need + std::string(", not '") + name + "'");
            return Taken::kBad;
        }
        return Taken::kYes;
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    if (!width && !height) return usage_error("resize needs --width, --height or both", job.command);
    return run_pages(job, [=](int32_t handle) {
        int32_t w = width, h = height, old_w = 0, old_h = 0, bits = 0;
        IMG_bitmap_info(handle, &old_w, &old_h, &bits);
        // The missing side keeps the aspect ratio (rounded, at least 1).
        if (!w) w = int32_t(std::max<int64_t>(1, (int64_t(old_w) * h + old_h / 2) / old_h));
        if (!h) h = int32_t(std::max<int64_t>(1, (int64_t(old_h) * w + old_w / 2) / old_w));
        return resize(handle, w, h);
    });
}

}  // namespace cli
