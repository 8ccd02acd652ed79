// tesslin formats: every format code and what the library does with it.
#include <cstdio>

#include "common.h"

namespace cli {

extern const char* const formats_help =
    "usage: tesslin formats\n"
    "\n"
    "Lists every format code with its name, whether the library reads it (plug-in:\n"
    "through a separately installed module), writes it, and handles several pages.\n";

int run_formats(int argc, char**) {
    if (argc) return usage_error("formats takes no arguments", "formats");
    std::printf("%4s  %-16s %-7s %-5s %-6s %s\n", "code", "name", "read", "write", "pages",
                "description");
    for (int32_t c = 0; c <= kLastFormatCode; ++c) {
        IMG_FORMAT_INFO f;
        if (!format_info(c, &f)) continue;
        const char* reads = f.reads == 2 ? "plug-in" : f.reads ? "yes" : "-";
        std::printf("%4d  %-16s %-7s %-5s %-6s %s\n", c, f.name, reads, f.writes ? "yes" : "-",
                    f.multipage ? "yes" : "-", f.description);
    }
    return 0;
}

}  // namespace cli
