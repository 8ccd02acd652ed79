// PDF input on poppler's C++ interface, built twice:
//   pdfmod.so   reads the document from a library stream handle through the
//               read/seek callbacks handed to set_callbacks: decode_pdf,
//               pdf_get_pages, pdf_search_text, set_pdf_input;
//   apdfmod.so  (PDF_MODULE_BY_NAME) reads it by file name: decode_apdf,
//               apdf_get_pages, apdf_extract_text, set_pdf_input.
//
// A page is rendered at the resolution and depth of set_pdf_input and handed
// to the library row by row through the decoder contract (header callback,
// then one packed row per raster call, top row first):
//   24 bits  BGR rows straight from poppler's renderer (anti-aliased);
//    8 bits  grey rows with a grey palette (anti-aliased);
//    1 bit   grey rendered without anti-aliasing, thresholded at half grey,
//            palette black/white, so a scanned page comes back pixel for pixel.
// Statuses: IMG_ERR_READ (stream unreadable), IMG_ERR_BAD_IMAGE (not a PDF or
// damaged beyond repair, or a page size too large to render), IMG_ERR_VARIANT
// (the document needs a password), IMG_ERR_NO_PAGE, IMG_ERR_MEMORY,
// IMG_ERR_OPEN (apdfmod: file cannot be opened), IMG_ERR_TEXT_NOT_FOUND.
#include <poppler/cpp/poppler-document.h>
#include <poppler/cpp/poppler-global.h>
#include <poppler/cpp/poppler-image.h>
#include <poppler/cpp/poppler-page-renderer.h>
#include <poppler/cpp/poppler-page.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "tesslin/tesslin.h"

#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using ReadFn = int32_t (*)(int32_t, void*, uint32_t);
using WriteFn = int32_t (*)(int32_t, const void*, uint32_t);
using SeekFn = int32_t (*)(int32_t, int32_t, int);

constexpr int32_t kDefaultDpi = 200;
constexpr int32_t kDefaultBits = 24;
constexpr int32_t kMinDpi = 10, kMaxDpi = 2400;
// Largest rendered page: the library's own image size limit.
constexpr uint64_t kMaxImageBytes = 0x7FFFFFFF;
constexpr int kMaxSide = 1 << 16;

std::atomic<int32_t> g_dpi{kDefaultDpi};
std::atomic<int32_t> g_bits{kDefaultBits};

// poppler reports syntax errors of damaged files on stderr by default; the
// library writes no log.
void quiet(const std::string&, void*) {}
struct Quiet {
    Quiet() { poppler::set_debug_error_function(quiet, nullptr); }
} g_quiet;

using Document = std::unique_ptr<poppler::document>;

// Opens the document: IMG_ERR_BAD_IMAGE when poppler cannot parse it (or it
// has no page), IMG_ERR_VARIANT when it needs a password.
int32_t open_document(Document& doc) {
    if (!doc) return IMG_ERR_BAD_IMAGE;
    if (doc->is_locked()) return IMG_ERR_VARIANT;
    if (doc->pages() < 1) return IMG_ERR_BAD_IMAGE;
    return 0;
}

int32_t load_bytes(std::vector<char>& bytes, Document& doc) {
    if (bytes.size() < 8 || std::memcmp(bytes.data(), "%PDF", 4) != 0) return IMG_ERR_BAD_IMAGE;
    doc.reset(poppler::document::load_from_data(&bytes));
    return open_document(doc);
}

[[maybe_unused]] int32_t load_file(const char* file, Document& doc) {
    if (!file) return IMG_ERR_OPEN;
    std::FILE* f = std::fopen(file, "rb");
    if (!f) return IMG_ERR_OPEN;
    std::vector<char> bytes;
    char block[65536];
    size_t n;
    while ((n = std::fread(block, 1, sizeof block, f)) > 0) bytes.insert(bytes.end(), block, block + n);
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed) return IMG_ERR_READ;
    return load_bytes(bytes, doc);
}

// One page rendered and delivered through the decoder contract.
int32_t render(const poppler::document& doc, int page_index, IMG_RASTER_CALLBACK raster,
               intptr_t user, IMG_HEADER_CALLBACK header) {
    if (page_index < 0 || page_index >= doc.pages()) return IMG_ERR_NO_PAGE;
    std::unique_ptr<poppler::page> page(doc.create_page(page_index));
    if (!page) return IMG_ERR_BAD_IMAGE;
    const int32_t dpi = g_dpi.load(std::memory_order_relaxed);
    const int32_t bits = g_bits.load(std::memory_order_relaxed);

    // Refuse a page too large to hold before poppler allocates it.
    const poppler::rectf box = page->page_rect();
    double w_pt = box.width(), h_pt = box.height();
    if (!(w_pt > 0 && h_pt > 0)) return IMG_ERR_BAD_IMAGE;
    const auto turn = page->orientation();
    if (turn == poppler::page::landscape || turn == poppler::page::seascape) std::swap(w_pt, h_pt);
    // The page covers whole pixels: a part-pixel at the right and bottom
    // edges counts as one (as pdftoppm sizes its pages).
    const double w_px = std::ceil(w_pt * dpi / 72.0), h_px = std::ceil(h_pt * dpi / 72.0);
    if (w_px > kMaxSide || h_px > kMaxSide || w_px * h_px * (bits == 24 ? 3 : 1) > double(kMaxImageBytes))
        return IMG_ERR_BAD_IMAGE;
    const int width = int(w_px), height = int(h_px);

    // The header first: a caller that only wants it (file information)
    // stops there, before the page is rendered.
    struct {
        IMG_BITMAPINFOHEADER h;
        uint8_t palette[256 * 4];
    } dib;
    std::memset(&dib, 0, sizeof dib);
    dib.h.biSize = 40;
    dib.h.biWidth = width;
    dib.h.biHeight = height;
    dib.h.biPlanes = 1;
    dib.h.biBitCount = uint16_t(bits);
    const uint32_t row_bytes = ((uint32_t(width) * uint32_t(bits) + 31) / 32) * 4;
    dib.h.biSizeImage = row_bytes * uint32_t(height);
    dib.h.biXPelsPerMeter = dib.h.biYPelsPerMeter = dpi;
    if (bits == 8)
        for (int i = 0; i < 256; ++i)
            dib.palette[i * 4] = dib.palette[i * 4 + 1] = dib.palette[i * 4 + 2] = uint8_t(i);
    if (bits == 1) std::memset(dib.palette + 4, 255, 3);  // 0 black, 1 white
    if (const int32_t r = header(&dib.h, user); r < 0) return r;

    poppler::page_renderer renderer;
    if (bits == 1) {
        renderer.set_render_hints(0);
    } else {
        renderer.set_render_hints(poppler::page_renderer::antialiasing |
                                  poppler::page_renderer::text_antialiasing);
    }
    renderer.set_image_format(bits == 24 ? poppler::image::format_bgr24
                                         : poppler::image::format_gray8);
    poppler::image img = renderer.render_page(page.get(), dpi, dpi, 0, 0, int(w_px), int(h_px));
    if (!img.is_valid() || img.width() != width || img.height() != height) return IMG_ERR_BAD_IMAGE;
    const int stride = img.bytes_per_row();
    const char* pixels = img.const_data();

    std::vector<uint8_t> row;
    try {
        row.assign(row_bytes, 0);
    } catch (const std::bad_alloc&) {
        return IMG_ERR_MEMORY;
    }
    for (int y = 0; y < height; ++y) {
        const auto* src = reinterpret_cast<const uint8_t*>(pixels) + size_t(y) * size_t(stride);
        if (bits == 1) {
            std::memset(row.data(), 0, row_bytes);
            for (int x = 0; x < width; ++x)
                if (src[x] >= 128) row[size_t(x) >> 3] |= uint8_t(0x80u >> (x & 7));
        } else {
            std::memcpy(row.data(), src, size_t(width) * (bits == 24 ? 3 : 1));
        }
        if (const int32_t r = raster(row.data(), user, y, row_bytes); r < 0) return r;
    }
    return 0;
}

[[maybe_unused]] int32_t page_of(uint32_t position) {
    return (position & 0x80000000u) ? int32_t(position & 0xFFFF) : 0;
}

[[maybe_unused]] std::string utf8(const poppler::ustring& s) {
    const poppler::byte_array b = s.to_utf8();
    return std::string(b.begin(), b.end());
}

}  // namespace

// Resolution in dots per inch (10 to 2400; 0 restores the default 200) and
// output depth (1, 8 or 24 bits; 0 restores the default 24). Returns 0, or
// IMG_ERR_BAD_IMAGE for a value out of range (nothing is changed then).
MODULE_EXPORT int32_t set_pdf_input(int32_t dpi, int32_t bits) {
    if (dpi == 0) dpi = kDefaultDpi;
    if (bits == 0) bits = kDefaultBits;
    if (dpi < kMinDpi || dpi > kMaxDpi) return IMG_ERR_BAD_IMAGE;
    if (bits != 1 && bits != 8 && bits != 24) return IMG_ERR_BAD_IMAGE;
    g_dpi = dpi;
    g_bits = bits;
    return 0;
}

#if !defined(PDF_MODULE_BY_NAME)

namespace {

ReadFn g_read = nullptr;
SeekFn g_seek = nullptr;

// The stream from the current position to its end.
int32_t read_stream(int32_t stream, std::vector<char>& bytes) {
    if (!g_read) return IMG_ERR_READ;
    try {
        constexpr uint32_t kBlock = 1u << 20;
        for (;;) {
            const size_t at = bytes.size();
            bytes.resize(at + kBlock);
            const int32_t n = g_read(stream, bytes.data() + at, kBlock);
            if (n < 0) return n;
            bytes.resize(at + uint32_t(n));
            if (n == 0) break;
            if (bytes.size() > kMaxImageBytes) return IMG_ERR_BAD_IMAGE;
        }
    } catch (const std::bad_alloc&) {
        return IMG_ERR_MEMORY;
    }
    return 0;
}

int32_t load_stream(int32_t stream, uint32_t position, Document& doc) {
    if (!g_seek) return IMG_ERR_READ;
    if (!(position & 0x80000000u) && g_seek(stream, int32_t(position), 0) < 0) return IMG_ERR_READ;
    std::vector<char> bytes;
    if (const int32_t r = read_stream(stream, bytes); r < 0) return r;
    return load_bytes(bytes, doc);
}

}  // namespace

// The loader's argument list: stream read, write, seek, 0,
// IMG_decompress_bitmap_mem, fax decoding, display, IMG_delete_bitmap,
// rotation (the module uses read and seek only).
MODULE_EXPORT void set_callbacks(ReadFn read, WriteFn, SeekFn seek, intptr_t,
                                 int32_t (*)(const void*, int32_t), void*, void*,
                                 int32_t (*)(int32_t), void*) {
    g_read = read;
    g_seek = seek;
}

MODULE_EXPORT int32_t decode_pdf(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                                 IMG_HEADER_CALLBACK header, int32_t stream) {
    try {
        Document doc;
        if (const int32_t r = load_stream(stream, position, doc); r < 0) return r;
        return render(*doc, page_of(position), raster, user, header);
    } catch (...) {
        return IMG_ERR_MEMORY;
    }
}

// Page count of the document from the start of the stream.
MODULE_EXPORT int32_t pdf_get_pages(int32_t stream) {
    try {
        Document doc;
        if (const int32_t r = load_stream(stream, 0, doc); r < 0) return r;
        return doc->pages();
    } catch (...) {
        return IMG_ERR_MEMORY;
    }
}

// Occurrences of `text` (UTF-8) on page `page` (0 = first) of the document
// in the stream; flag bit 0: ignore case. Returns the count, or
// IMG_ERR_TEXT_NOT_FOUND when there is none, or a status of loading.
MODULE_EXPORT int32_t pdf_search_text(int32_t stream, int32_t page, const char* text,
                                      int32_t flag) {
    try {
        if (!text || !*text) return IMG_ERR_BAD_IMAGE;
        Document doc;
        if (const int32_t r = load_stream(stream, 0, doc); r < 0) return r;
        if (page < 0 || page >= doc->pages()) return IMG_ERR_NO_PAGE;
        std::unique_ptr<poppler::page> p(doc->create_page(page));
        if (!p) return IMG_ERR_BAD_IMAGE;
        const poppler::ustring needle = poppler::ustring::from_utf8(text);
        const auto cs = (flag & 1) ? poppler::case_insensitive : poppler::case_sensitive;
        poppler::rectf r;
        int32_t hits = 0;
        auto direction = poppler::page::search_from_top;
        while (hits < 0x7FFFFFFF && p->search(needle, r, direction, cs)) {
            ++hits;
            direction = poppler::page::search_next_result;
        }
        return hits ? hits : IMG_ERR_TEXT_NOT_FOUND;
    } catch (...) {
        return IMG_ERR_MEMORY;
    }
}

#else  // PDF_MODULE_BY_NAME

MODULE_EXPORT int32_t decode_apdf(const char* file, IMG_RASTER_CALLBACK raster, intptr_t user,
                                  IMG_HEADER_CALLBACK header, int32_t page) {
    try {
        Document doc;
        if (const int32_t r = load_file(file, doc); r < 0) return r;
        return render(*doc, page, raster, user, header);
    } catch (...) {
        return IMG_ERR_MEMORY;
    }
}

MODULE_EXPORT int32_t apdf_get_pages(const char* file) {
    try {
        Document doc;
        if (const int32_t r = load_file(file, doc); r < 0) return r;
        return doc->pages();
    } catch (...) {
        return IMG_ERR_MEMORY;
    }
}

// The document's text in UTF-8, each page followed by a form feed, in
// reading order (flag bit 0 clear) or keeping the physical layout (set).
// *text receives a malloc'd, zero-terminated buffer the caller frees with
// free(); returns its length, IMG_ERR_TEXT_NOT_FOUND when the document holds
// no text, or a status of loading.
MODULE_EXPORT int32_t apdf_extract_text(const char* file, char** text, int32_t flag) {
    if (!text) return IMG_ERR_BAD_IMAGE;
    *text = nullptr;
    try {
        Document doc;
        if (const int32_t r = load_file(file, doc); r < 0) return r;
        const auto layout = (flag & 1) ? poppler::page::physical_layout
                                       : poppler::page::non_raw_non_physical_layout;
        std::string all;
        bool any = false;
        for (int i = 0; i < doc->pages(); ++i) {
            std::unique_ptr<poppler::page> p(doc->create_page(i));
            if (p) {
                const std::string t = utf8(p->text(poppler::rectf(), layout));
                any = any || t.find_first_not_of(" \t\r\n\f") != std::string::npos;
                all += t;
            }
            // Each page ends with a form feed (poppler's page text may
            // already carry it).
            if (all.empty() || all.back() != '\f') {
                if (!all.empty() && all.back() != '\n') all += '\n';
                all += '\f';
            }
        }
        if (!any) return IMG_ERR_TEXT_NOT_FOUND;
        if (all.size() >= 0x7FFFFFFF) return IMG_ERR_MEMORY;
        char* out = static_cast<char*>(std::malloc(all.size() + 1));
        if (!out) return IMG_ERR_MEMORY;
        std::memcpy(out, all.c_str(), all.size() + 1);
        *text = out;
        return int32_t(all.size());
    } catch (...) {
        return IMG_ERR_MEMORY;
    }
}

#endif
