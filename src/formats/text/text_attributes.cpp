// The text attributes: one process-wide record, set and read field by field
// under a mask, and the page geometry derived from it.
//
//   IMGLOW_set_ascii_attributes  copies the fields whose mask bit is set (the
//                                four margins together); 0, IMG_ERR_BAD_IMAGE
//                                for NULL
//   IMGLOW_get_ascii_attributes  fills the fields whose mask bit is set; 0,
//                                IMG_ERR_BAD_IMAGE for NULL
#include <cstring>

#include "core/api.h"
#include "formats/text/text.h"

namespace tesslin::text {

IMG_ASCII_ATTRIBUTES& attributes() {
    static IMG_ASCII_ATTRIBUTES a = [] {
        IMG_ASCII_ATTRIBUTES d{};
        d.x_resolution = 200;
        d.y_resolution = 200;
        d.left_margin = 1000;
        d.top_margin = 750;
        d.right_margin = 1000;
        d.bottom_margin = 750;
        d.tab_size = 8;
        d.page_width = 8500;
        d.page_height = 11000;
        d.font_height = -1;
        d.chars_per_line = 80;
        d.lines_per_page = 60;
        std::strcpy(d.font_name, "Courier New");
        return d;
    }();
    return a;
}

PageGeometry page_geometry(const IMG_ASCII_ATTRIBUTES& a) {
    auto across = [&](int32_t v) { return int64_t(v) * a.x_resolution / 1000; };
    auto down = [&](int32_t v) { return int64_t(v) * a.y_resolution / 1000; };
    return PageGeometry{across(a.page_width), down(a.page_height), across(a.left_margin),
                        down(a.top_margin),   across(a.right_margin), down(a.bottom_margin)};
}

namespace {

// Copies the fields of `from` selected by `mask` into `to`.
void copy_fields(IMG_ASCII_ATTRIBUTES& to, const IMG_ASCII_ATTRIBUTES& from, uint32_t mask) {
    if (mask & IMG_ASCII_X_RESOLUTION) to.x_resolution = from.x_resolution;
    if (mask & IMG_ASCII_Y_RESOLUTION) to.y_resolution = from.y_resolution;
    if (mask & IMG_ASCII_MARGINS) {
        to.left_margin = from.left_margin;
        to.top_margin = from.top_margin;
        to.right_margin = from.right_margin;
        to.bottom_margin = from.bottom_margin;
    }
    if (mask & IMG_ASCII_TAB_SIZE) to.tab_size = from.tab_size;
    if (mask & IMG_ASCII_PAGE_WIDTH) to.page_width = from.page_width;
    if (mask & IMG_ASCII_PAGE_HEIGHT) to.page_height = from.page_height;
    if (mask & IMG_ASCII_FONT_HEIGHT) to.font_height = from.font_height;
    if (mask & IMG_ASCII_CHARS_PER_LINE) to.chars_per_line = from.chars_per_line;
    if (mask & IMG_ASCII_LINES_PER_PAGE) to.lines_per_page = from.lines_per_page;
    if (mask & IMG_ASCII_BOLD) to.bold = from.bold;
    if (mask & IMG_ASCII_ITALIC) to.italic = from.italic;
    if (mask & IMG_ASCII_FONT_NAME) {
        // At most 31 characters and the terminating zero.
        const size_t n = strnlen(from.font_name, sizeof from.font_name - 1);
        std::memcpy(to.font_name, from.font_name, n);
        std::memset(to.font_name + n, 0, sizeof to.font_name - n);
    }
}

}  // namespace
}  // namespace tesslin::text

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMGLOW_set_ascii_attributes(const IMG_ASCII_ATTRIBUTES* record) {
    if (!record) return IMG_ERR_BAD_IMAGE;
    text::copy_fields(text::attributes(), *record, record->mask);
    return 0;
}

TESSLIN_API int32_t IMGLOW_get_ascii_attributes(IMG_ASCII_ATTRIBUTES* record) {
    if (!record) return IMG_ERR_BAD_IMAGE;
    text::copy_fields(*record, text::attributes(), record->mask);
    return 0;
}

}  // extern "C"
