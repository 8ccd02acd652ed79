// tesslin: command-line front end of the library.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tesslin/tesslin.h"

namespace {

int usage(FILE* out) {
    std::fprintf(out,
                 "usage: tesslin [--version] [--help] <command> [arguments]\n"
                 "\n"
                 "commands:\n"
                 "  version                 print the library and interface versions\n"
                 "  info <file>             format code, pages, size and depth of a file\n"
                 "  convert <in> <out> [code] [page]\n"
                 "                          decode a page and save it (code -1, the default,\n"
                 "                          takes the format from the output name)\n");
    return out == stdout ? 0 : 2;
}

int version() {
    int32_t major = 0, minor = 0;
    IMG_ifl_version(&major, &minor);
    std::printf("tesslin %s (interface %d.%d)\n", TESSLIN_VERSION, major, minor);
    return 0;
}

int fail(const char* what, int32_t status) {
    std::fprintf(stderr, "tesslin: %s: %s (%s)\n", what, IMG_status_message(status),
                 IMG_status_name(status));
    return 1;
}

int info(const char* file) {
    const int32_t code = IMGLOW_get_filetype(file);
    if (code == IMG_ERR_OPEN) return fail(file, code);
    IMG_BITMAPINFOHEADER h{};
    const int32_t s = IMGLOW_get_fileinfo(file, &h);
    std::printf("%s: format code %d, %d page(s)", file, code, IMGLOW_get_pages(file));
    if (s == 0 && h.biWidth > 0)
        std::printf(", %d x %d, %d bits, %d x %d dpi", h.biWidth, h.biHeight, h.biBitCount,
                    h.biXPelsPerMeter, h.biYPelsPerMeter);
    const int32_t degrees = IMGLOW_get_image_orientation(file);
    if (degrees >= 0) std::printf(", orientation %d", degrees);
    std::printf("\n");
    return s == 0 ? 0 : fail(file, s);
}

int convert(const char* in, const char* out, int32_t code, int32_t page) {
    const int32_t h = page ? IMG_decompress_bitmap_page(in, page) : IMG_decompress_bitmap(in);
    if (h < 0) return fail(in, h);
    const int32_t s = IMG_save_bitmap(h, out, code);
    IMG_delete_bitmap(h);
    return s < 0 ? fail(out, s) : 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return usage(stderr);
    const char* cmd = argv[1];
    if (!std::strcmp(cmd, "--help") || !std::strcmp(cmd, "-h") || !std::strcmp(cmd, "help"))
        return usage(stdout);
    if (!std::strcmp(cmd, "--version") || !std::strcmp(cmd, "version")) return version();
    if (!std::strcmp(cmd, "info") && argc == 3) return info(argv[2]);
    if (!std::strcmp(cmd, "convert") && argc >= 4 && argc <= 6)
        return convert(argv[2], argv[3], argc > 4 ? std::atoi(argv[4]) : -1,
                       argc > 5 ? std::atoi(argv[5]) : 0);
    std::fprintf(stderr, "tesslin: unknown command '%s'\n", cmd);
    return usage(stderr);
}
