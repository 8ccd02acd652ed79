// Plain text typeset as bilevel pages: the attribute record, the page
// geometry, pagination and the font that measures and draws the lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "pipeline/codec.h"
#include "tesslin/tesslin.h"

namespace tesslin::text {

// The process-wide attributes (IMGLOW_set_ascii_attributes). Readers take
// a copy when an operation starts.
IMG_ASCII_ATTRIBUTES& attributes();

// Lengths of the page in pixels: thousandths of an inch x resolution / 1000,
// x resolution across, y resolution down.
struct PageGeometry {
    int64_t width, height;
    int64_t left, top, right, bottom;  // margins
};
PageGeometry page_geometry(const IMG_ASCII_ATTRIBUTES& a);

// Bytes of text: 32 and above, the tab (9) and the line feed (10); 11, 12,
// 13 and 26 are accepted and ignored; any other byte below 32 makes a file
// not text.
inline bool is_text_byte(uint8_t c) { return c >= 32 || (c >= 9 && c <= 13) || c == 26; }

// A 1-bit page image, rows top first, bit 1 white.
struct Page {
    int32_t width = 0, height = 0;
    uint32_t stride = 0;
    uint8_t* rows = nullptr;
};

// The font of one operation, realised from the attributes through
// fontconfig and FreeType (docs/text.md). Not shared between threads.
class Font {
public:
    Font();
    ~Font();
    Font(const Font&) = delete;
    Font& operator=(const Font&) = delete;

    // 0, IMG_ERR_UNSUPPORTED when no font can be found or loaded at that
    // size, IMG_ERR_MEMORY.
    int32_t open(const IMG_ASCII_ATTRIBUTES& a, const PageGeometry& g);

    // Height of a line: the font's ascent plus descent, at least 1.
    int32_t line_height() const;

    // Width in pixels of a line of bytes, tabs expanded.
    int64_t measure(const uint8_t* text, size_t n);

    // Draws a line of bytes with its left edge at x and its top at y, tabs
    // expanded, clipped to [x, right) x [y, y + line height) and the page.
    void draw(const uint8_t* text, size_t n, int32_t x, int32_t y, int32_t right, Page& page);

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

// Pagination: where each page starts, given the line height. The line
// position starts at the top margin; each line feed adds the line height;
// when it reaches page height - line height - bottom margin a new page
// starts after that line feed.
struct Pagination {
    int64_t top = 0, limit = 0, line_height = 1;
};
Pagination pagination(const PageGeometry& g, int32_t line_height);

// The registry's descriptor pieces (text_format.cpp).
int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream);
int32_t count_pages(int32_t stream);

}  // namespace tesslin::text
