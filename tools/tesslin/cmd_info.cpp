// tesslin info: format, page count, size, depth and resolution of files.
#include <cstdio>

#include "common.h"

namespace cli {

extern const char* const info_help =
    "usage: tesslin info FILE... [--page N] [--json]\n"
    "\n"
    "Prints the format code and name, the page count and, for page N (default 1),\n"
    "width, height, bits per pixel and resolution of every FILE.\n"
    "  --page N   the page to describe, counting from 1\n"
    "  --json     one JSON object per file and line, with the keys file, format_code,\n"
    "             format, pages, page, width, height, bits, xdpi, ydpi (and\n"
    "             ends_early: true for a multi-page file cut short)\n"
    "\n"
    "A multi-page file that ends early (a page lies past its end) is reported with\n"
    "the number of pages that can be read, and a warning on stderr.\n";

namespace {

int info_one(const std::string& file, int32_t page, bool json) {
    const int32_t code = IMGLOW_get_filetype(file.c_str());
    if (code == IMG_ERR_OPEN) return fail(file, "cannot open", code);
    if (code < 0 && code != IMG_ERR_UNSUPPORTED) return fail(file, "cannot identify", code);
    const int32_t pages = IMGLOW_get_pages(file.c_str());
    // A file cut short: the pages counted are those before the cut.
    const bool cut = pages > 0 && ends_early(file);
    IMG_BITMAPINFOHEADER h{};
    // Single-page readers ignore the page number: refuse pages beyond the count here.
    const int32_t s = page > pages ? IMG_ERR_NO_PAGE : page_header(file, page - 1, &h);
    if (json) {
        std::printf("{\"file\": %s, \"format_code\": %d, \"format\": %s, \"pages\": %d, "
                    "\"page\": %d",
                    json_string(file).c_str(), code,
                    code < 0 ? "null" : json_string(format_name(code)).c_str(), pages, page);
        if (cut) std::printf(", \"ends_early\": true");
        if (s == 0)
            std::printf(", \"width\": %d, \"height\": %d, \"bits\": %d, \"xdpi\": %d, \"ydpi\": %d",
                        h.biWidth, h.biHeight, h.biBitCount, h.biXPelsPerMeter,
                        h.biYPelsPerMeter);
        std::printf("}\n");
    } else {
        IMG_FORMAT_INFO f{};
        std::printf("%s\n", file.c_str());
        if (code >= 0 && format_info(code, &f))
            std::printf("  format:      %d %s (%s)\n", code, f.name, f.description);
        else
            std::printf("  format:      not recognised\n");
        std::printf("  pages:       %d%s\n", pages,
                    cut ? " readable (the file ends early: a further page lies past its end)" : "");
        if (s == 0) {
            std::printf("  page %d:     %s%d x %d pixels, %d bit%s, %d x %d dpi\n", page,
                        page < 10 ? " " : "", h.biWidth, h.biHeight, h.biBitCount,
                        h.biBitCount == 1 ? "" : "s", h.biXPelsPerMeter, h.biYPelsPerMeter);
            const int32_t degrees = IMGLOW_get_image_orientation_page(file.c_str(), page - 1);
            if (degrees > 0) std::printf("  orientation: %d degrees\n", degrees);
        }
    }
    std::fflush(stdout);
    if (cut)
        std::fprintf(stderr, "tesslin: %s: warning: the file ends early; %d page%s readable\n",
                     file.c_str(), pages, pages == 1 ? " is" : "s are");
    if (s != 0) return fail(file, "cannot read page " + std::to_string(page), s);
    return 0;
}

}  // namespace

int run_info(int argc, char** argv) {
    std::vector<std::string> files;
    PageChoice page;
    bool json = false;
    Args a("info", argc, argv);
    while (a.next()) {
        if (a.is("--json")) {
            json = true;
        } else if (a.is("--page")) {
            if (page.accept(a) == Taken::kBad) return kUsageError;
        } else if (!a.name(&files)) {
            return kUsageError;
        }
    }
    if (files.empty()) return a.usage("info needs a file");
    int status = 0;
    for (const auto& f : files)
        if (info_one(f, page.page, json) != 0) status = 1;
    return status;
}

}  // namespace cli
