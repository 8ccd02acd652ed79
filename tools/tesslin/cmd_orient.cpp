// tesslin orient: tell whether the text lines of bilevel pages run across or down.
#include <cstdio>

#include "common.h"

namespace cli {

extern const char* const orient_help =
    "usage: tesslin orient FILE [--page N | --all-pages]\n"
    "\n"
    "Prints, for each chosen bilevel page, \"page N: 0\" when its text lines run\n"
    "across the page and \"page N: 90\" when they run down it (a page upside down\n"
    "also reads 0).\n"
    "  --page N         the page, counting from 1 (default 1)\n"
    "  --all-pages      every page\n";

int run_orient(int argc, char** argv) {
    PageChoice pages;
    std::vector<std::string> names;
    Args a("orient", argc, argv);
    while (a.next()) {
        if (const Taken t = pages.accept(a); t != Taken::kNo) {
            if (t == Taken::kBad) return kUsageError;
        } else if (!a.name(&names)) {
            return kUsageError;
        }
    }
    if (names.size() != 1) return a.usage("orient needs one file");
    if (!pages.check(a)) return kUsageError;
    const std::string& file = names[0];
    const int32_t count = IMGLOW_get_pages(file.c_str());
    if (count < 0) return fail(file, "cannot read", count);
    const int32_t first = pages.all ? 1 : pages.page;
    const int32_t last = pages.all ? count : pages.page;
    if (first > count) return fail(file, "cannot read page " + std::to_string(first), IMG_ERR_NO_PAGE);
    for (int32_t p = first; p <= last; ++p) {
        const int32_t handle = IMG_decompress_bitmap_page(file.c_str(), p - 1);
        if (handle < 0) return fail(file, "cannot read page " + std::to_string(p), handle);
        int32_t degrees = 0;
        const int32_t s = IMG_auto_orient(handle, &degrees);
        IMG_delete_bitmap(handle);
        if (s < 0) return fail(file, "cannot measure page " + std::to_string(p), s);
        std::printf("page %d: %d\n", p, degrees);
    }
    return 0;
}

}  // namespace cli
