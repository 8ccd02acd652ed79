// tesslin promote: pages to 8, 24 or 32 bits a pixel.
#include "common.h"

namespace cli {

extern const char* const promote_help =
    "usage: tesslin promote INPUT OUTPUT --bits 8|24|32 [--page N | --all-pages]\n"
    "                       [--format F] [--quiet]\n"
    "\n"
    "Raises the depth of pages without changing a colour:\n"
    "  --bits 8    bilevel, 4-bit and 16-bit pages to 8 bits (bilevel: grey 0/255)\n"
    "  --bits 24   any page to blue, green, red (CMYK pages converted)\n"
    "  --bits 32   any page but 32-bit ones to blue, green, red and a fourth byte\n"
    "Pages already at that depth are kept; deeper pages are an error.\n"
    "--page, --all-pages, --format and --quiet as for 'tesslin convert'.\n";

int run_promote(int argc, char** argv) {
    PageJob job("promote", "promote", "promoting");
    int32_t target = 0;
    const auto own = [&](Args& a) {
        return choice_option(a, "--bits", &target, {8, 24, 32}, "--bits needs 8, 24 or 32");
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    if (target == 0) return usage_error("promote needs --bits 8, 24 or 32", job.command);
    return run_pages(job, [target](int32_t handle) -> int32_t {
        int32_t w = 0, h = 0, bits = 0;
        IMG_bitmap_info(handle, &w, &h, &bits);
        if (bits == target) return 0;
        return target == 8 ? IMG_promote_8(handle) : target == 24 ? IMG_promote_24(handle) : IMG_promote_32(handle);
    });
}

}  // namespace cli
