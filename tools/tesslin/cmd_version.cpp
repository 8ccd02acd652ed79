// tesslin version (and --version): library and interface versions.
#include <cstdio>

#include "common.h"

namespace cli {

extern const char* const version_help =
    "usage: tesslin version\n"
    "       tesslin --version\n"
    "\n"
    "Prints the version of tesslin and of the library's interface.\n";

// Arguments are ignored.
int run_version(int, char**) {
    int32_t major = 0, minor = 0;
    IMG_ifl_version(&major, &minor);
    std::printf("tesslin %s (interface %d.%d)\n", TESSLIN_VERSION, major, minor);
    return 0;
}

}  // namespace cli
