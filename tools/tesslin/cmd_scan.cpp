// tesslin scan: pages from the scanner (the data source manager module,
// SANE by default) into a file or numbered files.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common.h"

namespace cli {

extern const char* const scan_help =
    "usage: tesslin scan OUT [--format N] [--bits 1|8|24] [--dpi N]\n"
    "                    [--frame left,top,right,bottom] [--feeder] [--fast] [--duplex]\n"
    "\n"
    "Scans with the library's scanning operations. The device is $TESSLIN_SANE_DEVICE,\n"
    "else the first one SANE lists; $TESSLIN_SANE_OPTIONS (\"name=value;...\") sets\n"
    "extra backend options; $TESSLIN_TWAIN_DSM names another manager module.\n"
    "Multi-page formats (TIFF codes 0, 7, 8, 10, 16, and DCX) get every page in OUT,\n"
    "written afresh; other formats get one file per page named OUT followed by the\n"
    "page number in eight digits and \".img\" (OUT00000000.img, OUT00000001.img ...).\n"
    "  --format N   format code or name (default: from OUT's extension, TIFF Group 4\n"
    "               for 1-bit scans and LZW for the others)\n"
    "  --bits B     1 black and white (default), 8 grey, 24 colour\n"
    "  --dpi N      resolution, dots per inch (default 300)\n"
    "  --frame L,T,R,B  scan area in inches (default 0,0,8.5,11)\n"
    "  --feeder     every page from the document feeder (else one page)\n"
    "  --fast       with --feeder: pages travel Group 4 compressed (1-bit scans)\n"
    "  --duplex     with --fast: both sides of each sheet\n";

namespace {

bool parse_frame(const std::string& text, IMG_SCAN_SETTINGS* s) {
    double v[4];
    char tail = 0;
    if (std::sscanf(text.c_str(), "%lf,%lf,%lf,%lf%c", &v[0], &v[1], &v[2], &v[3], &tail) != 4)
        return false;
    for (double x : v)
        if (!(x >= 0 && x <= 100)) return false;
    if (v[2] <= v[0] || v[3] <= v[1]) return false;
    s->left = v[0];
    s->top = v[1];
    s->right = v[2];
    s->bottom = v[3];
    return true;
}

bool is_multi_page(int32_t code) {
    return code == IMG_FORMAT_TIFF || code == IMG_FORMAT_TIFF_MH || code == IMG_FORMAT_TIFF_G3 ||
           code == IMG_FORMAT_TIFF_G4 || code == IMG_FORMAT_DCX ||
           code == IMG_FORMAT_TIFF_PACKBITS;
}

std::string page_name(const std::string& prefix, int n) {
    char number[16];
    std::snprintf(number, sizeof number, "%08d.img", n);
    return prefix + number;
}

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

}  // namespace

int run_scan(int argc, char** argv) {
    Args a("scan", argc, argv);
    std::vector<std::string> names;
    std::string format, frame;
    int32_t bits = 1, dpi = 300;
    bool feeder = false, fast = false, duplex = false;
    while (a.next()) {
        if (a.is("--format")) {
            if (!a.text(&format, "--format needs a format code or name")) return kUsageError;
        } else if (a.is("--bits")) {
            if (!a.number(&bits, 1, 24, "--bits needs 1, 8 or 24")) return kUsageError;
            if (bits != 1 && bits != 8 && bits != 24) return a.usage("--bits needs 1, 8 or 24");
        } else if (a.is("--dpi")) {
            if (!a.number(&dpi, 1, 65535, "--dpi needs a resolution from 1 to 65535"))
                return kUsageError;
        } else if (a.is("--frame")) {
            if (!a.text(&frame, "--frame needs left,top,right,bottom in inches"))
                return kUsageError;
        } else if (a.is("--feeder")) {
            feeder = true;
        } else if (a.is("--fast")) {
            fast = true;
        } else if (a.is("--duplex")) {
            duplex = true;
        } else if (!a.name(&names)) {
            return kUsageError;
        }
    }
    if (names.size() != 1) return a.usage("scan needs one output name");
    if ((fast || duplex) && !feeder) return a.usage("--fast and --duplex need --feeder");
    if (duplex && !fast) return a.usage("--duplex needs --fast");
    const std::string& out = names[0];

    IMG_SCAN_SETTINGS s = {bits, 0.0, 0.0, 8.5, 11.0, dpi, dpi};
    if (!frame.empty() && !parse_frame(frame, &s))
        return a.usage("--frame needs left,top,right,bottom in inches, right > left, bottom > top");
    const int32_t code = format.empty() ? code_from_extension(out, bits) : code_from_option(format);
    if (code < 0)
        return a.usage(format.empty() ? "cannot tell the format from " + out + "; give --format"
                                      : "unknown format " + format);
    IMG_scan_set_caps(&s);

    const bool multi = is_multi_page(code);
    int32_t status;
    if (feeder) {
        status = fast ? IMG_scan_pages_fast(0, out.c_str(), code, 0, duplex ? 1 : 0)
                      : IMG_scan_pages(0, out.c_str(), code, 0);
    } else {
        status = IMG_scan_acquire(0, 0);
        if (status >= 0) {
            const int32_t handle = status;
            const std::string file = multi ? out : page_name(out, 0);
            if (multi || exists(file)) std::remove(file.c_str());
            status = IMG_save_bitmap(handle, file.c_str(), code);
            IMG_delete_bitmap(handle);
        }
    }
    if (status < 0) return fail(out, "cannot scan", status);
    if (multi) {
        const int32_t pages = IMGLOW_get_pages(out.c_str());
        std::printf("scanned %d page%s into %s\n", pages, pages == 1 ? "" : "s", out.c_str());
    } else {
        int n = 0;
        while (exists(page_name(out, n))) ++n;
        std::printf("scanned %d page%s into %s ... %s\n", n, n == 1 ? "" : "s",
                    page_name(out, 0).c_str(), page_name(out, n > 0 ? n - 1 : 0).c_str());
    }
    return 0;
}

}  // namespace cli
