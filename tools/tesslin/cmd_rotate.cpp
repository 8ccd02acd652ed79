// tesslin rotate: turns pages by an angle in degrees (IMG_rotate_bitmap).
#include <cstdlib>

#include "common.h"

namespace cli {

extern const char* const rotate_help =
    "usage: tesslin rotate INPUT OUTPUT --angle DEG [--page N | --all-pages]\n"
    "                      [--format F] [--quality Q] [--quiet]\n"
    "\n"
    "Turns pages clockwise by DEG degrees (negative: counter-clockwise), with up\n"
    "to two decimals (12.25). Quarter and half turns are exact and swap width and\n"
    "height as needed; other angles enlarge the page to hold the whole turned\n"
    "picture, with white (bilevel pages) or black corners. Bilevel pages stay\n"
    "bilevel and are saved as Group 4 into .tif outputs.\n"
    "  --angle DEG    -360 to 360 degrees\n"
    "  --page N       the page to turn, counting from 1 (default 1)\n"
    "  --all-pages    every page (multi-page outputs hold them all, others get\n"
    "                 OUTPUT-1.ext, OUTPUT-2.ext ...)\n"
    "  --format F     output format code or name ('tesslin formats'); default:\n"
    "                 from OUTPUT's extension\n"
    "  --quality Q    JPEG quality 1..100\n"
    "  --quiet        no summary line\n";

namespace {

// "90", "-12.5", "0.25": hundredths of a degree from -36000 to 36000.
bool parse_degrees(const std::string& text, int32_t* out) {
    size_t i = 0;
    const bool has_sign = !text.empty() && (text[0] == '-' || text[0] == '+');
    if (has_sign) i = 1;
    int64_t whole = 0, hundredths = 0;
    size_t digits = 0, decimals = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9' && digits < 4; ++i, ++digits)
        whole = whole * 10 + (text[i] - '0');
    if (i < text.size() && text[i] == '.') {
        for (++i; i < text.size() && text[i] >= '0' && text[i] <= '9' && decimals < 2; ++i, ++decimals)
            hundredths = hundredths * 10 + (text[i] - '0');
        if (decimals == 1) hundredths *= 10;
        if (decimals == 0) return false;
    }
    if (i != text.size() || digits == 0) return false;
    int64_t v = whole * 100 + hundredths;
    if (text[0] == '-') v = -v;
    if (v < -36000 || v > 36000) return false;
    *out = int32_t(v);
    return true;
}

}  // namespace

int run_rotate(int argc, char** argv) {
    PageJob job("rotate", "rotate", "rotating");
    int32_t angle = 0;
    bool have_angle = false;
    const auto own = [&](Args& a) {
        if (!a.is("--angle")) return Taken::kNo;
        std::string text;
        const char* need = "--angle needs degrees from -360 to 360, at most two decimals";
        if (!a.text(&text, need)) return Taken::kBad;
        if (!parse_degrees(text, &angle)) {
            a.usage(need + std::string(", not '") + text + "'");
            return Taken::kBad;
        }
        have_angle = true;
        return Taken::kYes;
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    if (!have_angle) return usage_error("rotate needs --angle", job.command);
    return run_pages(job, [angle](int32_t handle) { return IMG_rotate_bitmap(handle, angle); });
}

}  // namespace cli
