// PDF input on poppler, built twice:
//   pdfmod.so   reads the document from a library stream handle through the
//               read/seek callbacks handed to set_callbacks: decode_pdf,
//               pdf_get_pages, pdf_search_text, set_pdf_input;
//   apdfmod.so  (PDF_MODULE_BY_NAME) reads it by file name: decode_apdf,
//               apdf_get_pages, apdf_extract_text, set_pdf_input.
//
// Pages are rendered by poppler's Splash renderer on a parsed document kept
// between calls (DocumentCache); text goes through poppler's C++ interface.
// A page is rendered at the resolution and depth of set_pdf_input and handed
// to the library row by row through the decoder contract (header callback,
// then one packed row per raster call, top row first), straight from the
// renderer's bitmap, whose rows have the DIB's layout:
//   24 bits  BGR rows (anti-aliased);
//    8 bits  grey rows with a grey palette (anti-aliased);
//    1 bit   rendered without anti-aliasing, each pixel thresholded at half
//            grey as it is drawn (BilevelOutput), palette black/white, so a
//            scanned page comes back pixel for pixel.
// Statuses: IMG_ERR_READ (stream unreadable), IMG_ERR_BAD_IMAGE (not a PDF or
// damaged beyond repair, or a page size too large to render), IMG_ERR_VARIANT
// (the document needs a password), IMG_ERR_NO_PAGE, IMG_ERR_MEMORY,
// IMG_ERR_OPEN (apdfmod: file cannot be opened), IMG_ERR_TEXT_NOT_FOUND.
#include <poppler/cpp/poppler-document.h>
#include <poppler/cpp/poppler-global.h>
#include <poppler/cpp/poppler-page.h>

#include <ErrorCodes.h>
#include <GlobalParams.h>
#include <PDFDoc.h>
#include <SplashOutputDev.h>
#include <Stream.h>
#include <splash/Splash.h>
#include <splash/SplashBitmap.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "module_stream.h"
#include "tesslin/tesslin.h"

#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using tesslin::module::ReadFn;
using tesslin::module::SeekFn;
using tesslin::module::WriteFn;

constexpr int32_t kDefaultDpi = 200;
constexpr int32_t kDefaultBits = 24;
constexpr int32_t kMinDpi = 10, kMaxDpi = 2400;
// Largest rendered page: the library's own image size limit.
constexpr uint64_t kMaxImageBytes = 0x7FFFFFFF;
constexpr int kMaxSide = 1 << 16;

std::atomic<int32_t> g_dpi{kDefaultDpi};
std::atomic<int32_t> g_bits{kDefaultBits};

// poppler reports syntax errors of damaged files on stderr by default; the
// library writes no log. The initer keeps poppler's global settings alive
// while the module is loaded (the text functions' documents hold their own).
void quiet(const std::string&, void*) {}
void quiet_core(ErrorCategory, Goffset, const char*) {}
struct Quiet {
    Quiet() { poppler::set_debug_error_function(quiet, nullptr); }
} g_quiet;
GlobalParamsIniter g_params(quiet_core);

// A parsed document with the bytes it was parsed from (the bytes are both
// the stream poppler reads and the key of the cache below). The document is
// declared last so that it goes before the bytes it reads.
struct Loaded {
    std::vector<char> bytes;
    std::unique_ptr<PDFDoc> doc;
};
using Document = std::unique_ptr<Loaded>;

// The last documents parsed, so that a page count followed by one decode per
// page parses the file once. A call takes its document out of the cache and
// gives it back when done, so no two threads ever use one document (a second
// thread asking for the same bytes meanwhile parses its own copy). Entries
// are matched on their whole bytes; the cache is bounded in entries and in
// bytes and is freed when the module is unloaded.
class DocumentCache {
public:
    Document take(const std::vector<char>& bytes) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = entries_.begin(); it != entries_.end(); ++it) {
            if ((*it)->bytes == bytes) {
                Document found = std::move(*it);
                entries_.erase(it);
                return found;
            }
        }
        return nullptr;
    }
    void give(Document doc) {
        if (!doc || doc->bytes.size() > kMaxBytes) return;
        std::vector<Document> evicted;  // freed outside the lock
        std::lock_guard<std::mutex> lock(mutex_);
        try {
            entries_.push_back(std::move(doc));
        } catch (const std::bad_alloc&) {
            return;
        }
        size_t total = 0;
        for (const auto& e : entries_) total += e->bytes.size();
        while (entries_.size() > kMaxEntries || total > kMaxBytes) {
            total -= entries_.front()->bytes.size();
            evicted.push_back(std::move(entries_.front()));
            entries_.erase(entries_.begin());
        }
    }

private:
    static constexpr size_t kMaxEntries = 2;
    static constexpr size_t kMaxBytes = size_t(256) << 20;
    std::mutex mutex_;
    std::vector<Document> entries_;
};
DocumentCache g_cache;

// Gives the document back to the cache when the call is done with it.
struct Lease {
    Document doc;
    ~Lease() { g_cache.give(std::move(doc)); }
};

// A PDF file starts with its "%PDF-" version line; anything shorter than
// that line is not worth handing to poppler.
bool looks_like_pdf(const std::vector<char>& bytes) {
    return bytes.size() >= 8 && std::memcmp(bytes.data(), "%PDF", 4) == 0;
}

// The document of `bytes`, from the cache or parsed now: IMG_ERR_BAD_IMAGE
// when poppler cannot parse it (or it has no page), IMG_ERR_VARIANT when it
// needs a password. Only documents that opened are kept.
int32_t load_bytes(std::vector<char>& bytes, Lease& lease) {
    if (!looks_like_pdf(bytes)) return IMG_ERR_BAD_IMAGE;
    if ((lease.doc = g_cache.take(bytes))) return 0;
    auto loaded = std::make_unique<Loaded>();
    loaded->bytes = std::move(bytes);
    auto* stream = new MemStream(loaded->bytes.data(), 0, Goffset(loaded->bytes.size()), Object(objNull));
    loaded->doc = std::make_unique<PDFDoc>(stream);  // owns the stream
    PDFDoc& doc = *loaded->doc;
    if (!doc.isOk()) return doc.getErrorCode() == errEncrypted ? IMG_ERR_VARIANT : IMG_ERR_BAD_IMAGE;
    if (doc.getNumPages() < 1) return IMG_ERR_BAD_IMAGE;
    lease.doc = std::move(loaded);
    return 0;
}

// The whole file, IMG_ERR_OPEN when it cannot be opened.
[[maybe_unused]] int32_t read_file(const char* file, std::vector<char>& bytes) {
    if (!file) return IMG_ERR_OPEN;
    std::FILE* f = std::fopen(file, "rb");
    if (!f) return IMG_ERR_OPEN;
    char block[65536];
    size_t n;
    while ((n = std::fread(block, 1, sizeof block, f)) > 0) bytes.insert(bytes.end(), block, block + n);
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    return failed ? IMG_ERR_READ : 0;
}

// Text goes through poppler's C++ interface (its text extraction and search),
// on a document of its own parsed for the call.
using TextDocument = std::unique_ptr<poppler::document>;

[[maybe_unused]] int32_t load_text(std::vector<char>& bytes, TextDocument& doc) {
    if (!looks_like_pdf(bytes)) return IMG_ERR_BAD_IMAGE;
    doc.reset(poppler::document::load_from_data(&bytes));
    if (!doc) return IMG_ERR_BAD_IMAGE;
    if (doc->is_locked()) return IMG_ERR_VARIANT;
    if (doc->pages() < 1) return IMG_ERR_BAD_IMAGE;
    return 0;
}

[[maybe_unused]] int32_t load_file(const char* file, Lease& lease) {
    std::vector<char> bytes;
    if (const int32_t r = read_file(file, bytes); r < 0) return r;
    return load_bytes(bytes, lease);
}

// Bilevel rendering: poppler's 1-bit mode, whose pixels are decided by a
// halftone screen. Ours holds half grey in every cell, i.e. a plain threshold
// (a pixel of grey 128 or more is white) instead of a halftone, so scanned
// pages come back as they were.
//
// The renderer keeps the screen's parameters in a private member and builds
// the screen from them on the first pixel drawn; poppler exports no way to
// set them (nor the screen's constructor). The member is reached through a
// pointer to member taken in an explicit template instantiation (where access
// is not checked) and set when the page starts, before anything is drawn.
SplashScreenParams SplashOutputDev::* screen_params_member();
template <SplashScreenParams SplashOutputDev::* Member>
struct ScreenParamsAccess {
    friend SplashScreenParams SplashOutputDev::* screen_params_member() { return Member; }
};
template struct ScreenParamsAccess<&SplashOutputDev::screenParams>;

// Writes the first `count` bits of `src` into `dst` from bit `at` on (MSB
// first), leaving the other bits of `dst` as they were.
void put_bits(uint8_t* dst, int at, const uint8_t* src, int count) {
    int k = 0;
    if ((at & 7) == 0) {  // whole bytes at once, the usual case
        std::memcpy(dst + (at >> 3), src, size_t(count >> 3));
        k = count >> 3;
    }
    for (; k * 8 < count; ++k) {
        const int n = std::min(8, count - k * 8);
        const int p = at + k * 8, b = p >> 3, shift = p & 7;
        const unsigned keep = (0xFF00u >> n) & 0xFFu;
        const unsigned mask = keep << (8 - shift), value = (src[k] & keep) << (8 - shift);
        dst[b] = uint8_t((dst[b] & ~(mask >> 8)) | (value >> 8));
        if (mask & 0xFFu) dst[b + 1] = uint8_t((dst[b + 1] & ~mask) | (value & 0xFFu));
    }
}

class BilevelOutput : public SplashOutputDev {
public:
    explicit BilevelOutput(SplashColorPtr paper) : SplashOutputDev(splashModeMono1, 4, false, paper) {}
    void startPage(int page, GfxState* state, XRef* xref) override {
        SplashOutputDev::startPage(page, state, xref);
        SplashScreenParams& screen = this->*screen_params_member();
        screen.type = splashScreenDispersed;
        screen.size = 2;
        screen.dotRadius = 2;
        screen.gamma = 1.0;
        screen.blackThreshold = screen.whiteThreshold = 0.5;
        page_bitmap_ = getBitmap();
        page_splash_ = getSplash();
    }

    // A 1-bit image placed pixel for pixel on the page (the usual scanned
    // page) is copied into the page's bits; the renderer would scale it by
    // one (bilinear, sample by sample) and threshold every pixel, giving the
    // same bits much more slowly. Anything else is left to the renderer.
    void drawImage(GfxState* state, Object* ref, Stream* str, int width, int height,
                   GfxImageColorMap* map, bool interpolate, const int* mask_colors,
                   bool inline_image) override {
        if (!inline_image && !mask_colors && copy_image(state, str, width, height, map)) return;
        SplashOutputDev::drawImage(state, ref, str, width, height, map, interpolate, mask_colors,
                                   inline_image);
    }

private:
    bool copy_image(GfxState* state, Stream* str, int width, int height, GfxImageColorMap* map) {
        if (!map || !map->isOk() || map->getNumPixelComps() != 1 || map->getBits() != 1) return false;
        SplashBitmap* bitmap = getBitmap();
        Splash* splash = getSplash();
        // Drawing on the page itself (not in a group, a pattern or a glyph),
        // opaque, with the normal blend, no soft mask and no transfer.
        if (!bitmap || bitmap != page_bitmap_ || splash != page_splash_ || !bitmap->getDataPtr() ||
            bitmap->getMode() != splashModeMono1 || bitmap->getRowSize() <= 0)
            return false;
        if (splash->getSoftMask() || splash->getBlendFunc() || splash->getInNonIsolatedGroup() ||
            splash->getFillAlpha() != 1 || state->getFillOpacity() != 1 ||
            state->getBlendMode() != gfxBlendNormal)
            return false;
        for (int i = 0; i < 4; ++i)
            if (state->getTransfer()[i]) return false;
        // The image's unit square onto whole pixels, one pixel per sample,
        // upright: [width 0 0 -height x top+height].
        const double* m = state->getCTM();
        constexpr double kExact = 1e-6;
        const double x = std::round(m[4]), top = std::round(m[5] + m[3]);
        if (m[1] != 0 || m[2] != 0 || std::fabs(m[0] - width) > kExact || std::fabs(m[3] + height) > kExact ||
            std::fabs(m[4] - x) > kExact || std::fabs(m[5] + m[3] - top) > kExact)
            return false;
        SplashClip* clip = splash->getClip();
        if (!clip || clip->getNumPaths() != 0 || x < std::max(0, clip->getXMinI()) ||
            top < std::max(0, clip->getYMinI()) ||
            x + width - 1 > std::min(clip->getXMaxI(), bitmap->getWidth() - 1) ||
            top + height - 1 > std::min(clip->getYMaxI(), bitmap->getHeight() - 1))
            return false;
        // Which sample value comes out white: the renderer's grey of each
        // value against the threshold.
        bool white[2];
        for (unsigned char v = 0; v < 2; ++v) {
            GfxGray gray;
            map->getGray(&v, &gray);
            white[v] = colToByte(gray) >= 128;
        }
        const int row_in = (width + 7) / 8;
        std::vector<uint8_t> row(size_t(row_in), 0);
        const uint8_t flip = (white[0] && !white[1]) ? 0xFF : 0x00;
        uint8_t* out = bitmap->getDataPtr() + size_t(top) * size_t(bitmap->getRowSize());
        str->reset();
        for (int y = 0; y < height; ++y, out += bitmap->getRowSize()) {
            // Samples missing at the end of the data read as ones, as the
            // renderer reads them.
            const int got = str->doGetChars(row_in, row.data());
            if (got < row_in) std::memset(row.data() + std::max(got, 0), 0xFF, size_t(row_in - std::max(got, 0)));
            if (white[0] == white[1]) std::memset(row.data(), white[0] ? 0xFF : 0x00, size_t(row_in));
            else if (flip)
                for (auto& b : row) b ^= flip;
            put_bits(out, int(x), row.data(), width);
        }
        str->close();
        return true;
    }

    SplashBitmap* page_bitmap_ = nullptr;
    Splash* page_splash_ = nullptr;
};

// One page rendered and delivered through the decoder contract. poppler
// renders straight into rows of the DIB's layout (4-byte aligned), which are
// handed to the library without a copy.
int32_t render(PDFDoc& doc, int page_index, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header) {
    if (page_index < 0 || page_index >= doc.getNumPages()) return IMG_ERR_NO_PAGE;
    const int number = page_index + 1;
    if (!doc.getPage(number)) return IMG_ERR_BAD_IMAGE;
    const int32_t dpi = g_dpi.load(std::memory_order_relaxed);
    const int32_t bits = g_bits.load(std::memory_order_relaxed);

    // Refuse a page too large to hold before poppler allocates it.
    double w_pt = doc.getPageCropWidth(number), h_pt = doc.getPageCropHeight(number);
    if (!(w_pt > 0 && h_pt > 0)) return IMG_ERR_BAD_IMAGE;
    const int turn = doc.getPageRotate(number);
    if (turn == 90 || turn == 270) std::swap(w_pt, h_pt);
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

    SplashColor paper;
    std::memset(paper, 255, sizeof paper);
    std::unique_ptr<SplashOutputDev> out;
    if (bits == 1) {
        out = std::make_unique<BilevelOutput>(paper);
        out->setFontAntialias(false);
        out->setVectorAntialias(false);
    } else {
        out = std::make_unique<SplashOutputDev>(bits == 24 ? splashModeBGR8 : splashModeMono8, 4, false, paper);
        out->setFontAntialias(true);
        out->setVectorAntialias(true);
    }
    out->setFreeTypeHinting(false, false);
    out->startDoc(&doc);
    doc.displayPageSlice(out.get(), number, dpi, dpi, 0, false, true, false, 0, 0, width, height);
    SplashBitmap* bitmap = out->getBitmap();
    if (!bitmap || bitmap->getWidth() != width || bitmap->getHeight() != height ||
        bitmap->getRowSize() != int(row_bytes) || !bitmap->getDataPtr())
        return IMG_ERR_BAD_IMAGE;

    uint8_t* rows = bitmap->getDataPtr();
    // Bits past the width of a bilevel row are cleared, as in a DIB we build.
    const uint32_t used = uint32_t(width) / 8, spare = uint32_t(width) % 8;
    for (int y = 0; y < height; ++y) {
        uint8_t* row = rows + size_t(y) * row_bytes;
        if (bits == 1) {
            if (spare) row[used] &= uint8_t(0xFF00u >> spare);
            std::memset(row + used + (spare ? 1 : 0), 0, row_bytes - used - (spare ? 1 : 0));
        }
        if (const int32_t r = raster(row, user, y, row_bytes); r < 0) return r;
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

int32_t read_from(int32_t stream, uint32_t position, std::vector<char>& bytes) {
    return tesslin::module::read_whole(g_read, g_seek, stream, position, bytes, kMaxImageBytes);
}

int32_t load_stream(int32_t stream, uint32_t position, Lease& lease) {
    std::vector<char> bytes;
    if (const int32_t r = read_from(stream, position, bytes); r < 0) return r;
    return load_bytes(bytes, lease);
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
        Lease lease;
        if (const int32_t r = load_stream(stream, position, lease); r < 0) return r;
        return render(*lease.doc->doc, page_of(position), raster, user, header);
    } catch (...) {
        return IMG_ERR_MEMORY;
    }
}

// Page count of the document from the start of the stream.
MODULE_EXPORT int32_t pdf_get_pages(int32_t stream) {
    try {
        Lease lease;
        if (const int32_t r = load_stream(stream, 0, lease); r < 0) return r;
        return lease.doc->doc->getNumPages();
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
        std::vector<char> bytes;
        if (const int32_t r = read_from(stream, 0, bytes); r < 0) return r;
        TextDocument doc;
        if (const int32_t r = load_text(bytes, doc); r < 0) return r;
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
        Lease lease;
        if (const int32_t r = load_file(file, lease); r < 0) return r;
        return render(*lease.doc->doc, page, raster, user, header);
    } catch (...) {
        return IMG_ERR_MEMORY;
    }
}

MODULE_EXPORT int32_t apdf_get_pages(const char* file) {
    try {
        Lease lease;
        if (const int32_t r = load_file(file, lease); r < 0) return r;
        return lease.doc->doc->getNumPages();
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
        std::vector<char> bytes;
        if (const int32_t r = read_file(file, bytes); r < 0) return r;
        TextDocument doc;
        if (const int32_t r = load_text(bytes, doc); r < 0) return r;
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
