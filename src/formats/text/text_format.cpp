// Plain text files as pages: the registry descriptor, the decoder, the page
// counter and the two exported text operations.
//
//   decode                       one page as a 1-bit image (black, white
//                                palette), rows delivered top first
//   count_pages                  pages of the text; IMG_ERR_BAD_IMAGE for a
//                                file that is not text
//   IMG_import_ascii             a page into a new handle through the decode
//                                entry point
//   IMGLOW_get_ascii_page_width  the page width that holds the widest line
//
// Statuses besides the ones named: IMG_ERR_BAD_IMAGE for a page smaller
// than one pixel or larger than an image can be, IMG_ERR_UNSUPPORTED when
// no font can be had, IMG_ERR_NO_PAGE for a page beyond the last,
// IMG_ERR_MEMORY when memory runs out, and the stream's and callbacks' own
// failures.
#include <algorithm>
#include <vector>

#include "core/api.h"
#include "core/entry.h"
#include "core/limits.h"
#include "core/stream.h"
#include "formats/text/text.h"

namespace tesslin::text {
namespace {

constexpr uint32_t kReadBlock = 30000;
constexpr size_t kLineBytes = 128 * 1024;

// Feeds each byte from the stream's position to its end to `take(byte)`,
// which returns 0 to go on, 1 to stop, or a negative status.
template <typename Take>
int32_t scan(int32_t stream, Take&& take) {
    std::vector<uint8_t> block(kReadBlock);
    for (;;) {
        const int32_t got = stream::read(stream, block.data(), kReadBlock);
        if (got < 0) return got;
        for (int32_t i = 0; i < got; ++i)
            if (const int32_t r = take(block[size_t(i)])) return r < 0 ? r : 0;
        if (uint32_t(got) < kReadBlock) return 0;
    }
}

int32_t clamp32(int64_t v) { return int32_t(std::clamp<int64_t>(v, INT32_MIN / 2, INT32_MAX / 2)); }

// The attributes in effect, the page they make and the font: what every
// text operation starts from.
struct Setup {
    IMG_ASCII_ATTRIBUTES a = attributes();
    PageGeometry g = page_geometry(a);
    Font font;
    Pagination p;

    int32_t open() {
        if (const int32_t r = font.open(a, g)) return r;
        p = pagination(g, font.line_height());
        return 0;
    }
};

bool is_txt(const Probe& p) {
    for (uint32_t i = 0; i < kProbeBytes; ++i) {
        const uint8_t c = p.bytes[i];
        if (!((c >= 32 && c <= 126) || (c >= 9 && c <= 13) || c == 26)) return false;
    }
    return true;
}

constexpr CodeRow kTxtCodes[] = {
    {IMG_FORMAT_TEXT, "text", "plain text rendered as an image", "txt"}};

}  // namespace

Pagination pagination(const PageGeometry& g, int32_t line_height) {
    Pagination p;
    p.top = g.top;
    p.line_height = std::max(1, line_height);
    p.limit = g.height - p.line_height - g.bottom;
    return p;
}

int32_t count_pages(int32_t stream) {
    Setup s;
    if (const int32_t r = s.open()) return r;
    int64_t y = s.p.top, pages = 1;
    const int32_t r = scan(stream, [&](uint8_t c) -> int32_t {
        if (!is_text_byte(c)) return IMG_ERR_BAD_IMAGE;
        if (c == 10 && (y += s.p.line_height) >= s.p.limit) ++pages, y = s.p.top;
        return 0;
    });
    return r < 0 ? r : int32_t(std::min<int64_t>(pages, INT32_MAX));
}

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    // Page p counted from 0, from the start of the stream; or the first
    // page of text found at a byte offset.
    const uint32_t want = position_is_page(position) ? position_page(position) : 0;
    const uint32_t start = position_is_page(position) ? 0 : position;
    if (start > 0x7FFFFFFFu) return IMG_ERR_BAD_IMAGE;
    Setup s;
    if (limits::check_dimensions(uint64_t(std::max<int64_t>(s.g.width, 0)),
                                 uint64_t(std::max<int64_t>(s.g.height, 0))))
        return IMG_ERR_BAD_IMAGE;
    limits::ImageBytes size;
    if (limits::image_bytes(uint64_t(s.g.width), uint64_t(s.g.height), 1, &size))
        return IMG_ERR_BAD_IMAGE;
    if (const int32_t r = s.open()) return r;

    // Where the page starts.
    if (int32_t r = stream::seek(stream, int32_t(start), 0); r < 0) return r;
    uint64_t page_start = start, at = start;
    if (want > 0) {
        uint32_t found = 0;
        int64_t y = s.p.top;
        const int32_t r = scan(stream, [&](uint8_t c) -> int32_t {
            ++at;
            if (c == 10 && (y += s.p.line_height) >= s.p.limit) {
                y = s.p.top;
                if (++found == want) return page_start = at, 1;
            }
            return 0;
        });
        if (r < 0) return r;
        if (found < want) return IMG_ERR_NO_PAGE;
    }

    const int32_t width = int32_t(s.g.width), height = int32_t(s.g.height);
    uint8_t head[kDibHeaderSize + 8] = {};
    auto* h = reinterpret_cast<DibHeader*>(head);
    *h = dib_header(width, height, 1);
    dib_set_resolution(h, s.a.x_resolution, s.a.y_resolution);
    dib_palette(head)[1] = RgbQuad{255, 255, 255, 0};  // entry 0 black, 1 white
    if (const int32_t r = header(h, user); r < 0) return r;

    Page page;
    page.width = width;
    page.height = height;
    page.stride = uint32_t(size.row);
    std::vector<uint8_t> pixels(size.total, 0xFF);
    page.rows = pixels.data();
    if (int32_t r = stream::seek(stream, int32_t(page_start), 0); r < 0) return r;
    const int32_t left = clamp32(s.g.left), right = clamp32(s.g.width - s.g.right);
    std::vector<uint8_t> line;
    line.reserve(kLineBytes);
    int64_t y = s.p.top;
    const int32_t r = scan(stream, [&](uint8_t c) -> int32_t {
        if (c >= 32 || c == 9) {
            if (line.size() < kLineBytes) line.push_back(c);
        } else if (c == 10) {
            if (!line.empty()) s.font.draw(line.data(), line.size(), left, clamp32(y), right, page);
            line.clear();
            if ((y += s.p.line_height) >= s.p.limit) return 1;
        }
        return 0;
    });
    if (r < 0) return r;
    for (int32_t row = 0; row < height; ++row)
        if (const int32_t cb = raster(page.rows + size_t(row) * page.stride, user, row, page.stride); cb < 0)
            return cb;
    return 0;
}

namespace {

int32_t page_width(int32_t stream) {
    // First pass: every byte text, the longest line in characters.
    int64_t chars = 0, longest = 0;
    int32_t r = scan(stream, [&](uint8_t c) -> int32_t {
        if (!is_text_byte(c)) return IMG_ERR_BAD_IMAGE;
        if (c == 10) longest = std::max(longest, chars), chars = 0;
        else if (c >= 32 || c == 9) ++chars;
        return 0;
    });
    if (r < 0) return r;
    Setup s;
    if (s.a.x_resolution < 1) return IMG_ERR_BAD_IMAGE;
    if ((r = s.open())) return r;
    // Second pass: the widest line in pixels.
    if ((r = stream::seek(stream, 0, 0)) < 0) return r;
    std::vector<uint8_t> line;
    int64_t widest = 0;
    r = scan(stream, [&](uint8_t c) -> int32_t {
        if (c >= 32 || c == 9) {
            if (line.size() < kLineBytes) line.push_back(c);
        } else if (c == 10) {
            if (!line.empty()) widest = std::max(widest, s.font.measure(line.data(), line.size()));
            line.clear();
        }
        return 0;
    });
    if (r < 0) return r;
    attributes().chars_per_line = int32_t(std::min<int64_t>(longest, INT32_MAX));
    const int64_t width = widest * 1000 / s.a.x_resolution + s.a.right_margin + s.a.left_margin;
    return int32_t(std::clamp<int64_t>(width, INT32_MIN, INT32_MAX));
}

}  // namespace
}  // namespace tesslin::text

namespace tesslin::formats {

extern const FormatDescriptor kTxt = {
    .tag = "txt", .detect_switch = IMG_FORMAT_TEXT, .signature = text::is_txt,
    .decode = text::decode, .count_pages = text::count_pages,
    .count_pages_mem = text::count_pages, .codes = text::kTxtCodes};

}  // namespace tesslin::formats

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMGLOW_get_ascii_page_width(const char* file_name) {
    return api_call([&] {
        if (!file_name) return int32_t(IMG_ERR_OPEN);
        return with_file(file_name, [](int32_t fd) { return text::page_width(fd); });
    });
}

TESSLIN_API int32_t IMG_import_ascii(const char* file_name, int32_t page) {
    return api_call([&] {
        if (!file_name) return int32_t(IMG_ERR_OPEN);
        return with_file(file_name, [&](int32_t fd) { return IMG_decompress_bitmap_fd(fd, 0, page); });
    });
}

}  // extern "C"
