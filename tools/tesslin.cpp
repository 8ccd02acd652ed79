// tesslin: command-line front end of the library.
#include <cstdio>
#include <cstring>

#include "tesslin/tesslin.h"

namespace {

int usage(FILE* out) {
    std::fprintf(out,
                 "usage: tesslin [--version] [--help] <command> [arguments]\n"
                 "\n"
                 "commands:\n"
                 "  version    print the library and interface versions\n");
    return out == stdout ? 0 : 2;
}

int version() {
    int32_t major = 0, minor = 0;
    IMG_ifl_version(&major, &minor);
    std::printf("tesslin %s (interface %d.%d)\n", TESSLIN_VERSION, major, minor);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage(stderr);
    const char* cmd = argv[1];
    if (!std::strcmp(cmd, "--help") || !std::strcmp(cmd, "-h") || !std::strcmp(cmd, "help"))
        return usage(stdout);
    if (!std::strcmp(cmd, "--version") || !std::strcmp(cmd, "version")) return version();
    std::fprintf(stderr, "tesslin: unknown command '%s'\n", cmd);
    return usage(stderr);
}
