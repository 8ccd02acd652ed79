// The PDF writer: one page per call, seven objects a page, a complete
// cross-reference table and trailer after every page.
//
// Page k (0 = first) numbers its objects N + 1 .. N + 7 with N = 7k:
// catalogue N+1, procedure set N+2, page N+4, image N+5, the image's length
// N+6, content stream N+7; object 3 is the page tree, rewritten for every
// page, and N+3 is unused after the first page (a free entry). They are
// written image first and page tree last, then the table and the trailer,
// starting where the old table began.
#include <algorithm>
#include <memory>
#include <new>

#include "core/settings.h"
#include "core/stream.h"
#include "formats/ccitt/ccitt.h"
#include "formats/jpeg/jpeg.h"
#include "formats/pdf/pdf.h"
#include "formats/pdf/text_out.h"

namespace tesslin::pdf {
namespace {

using text_out::LineWriter;

enum class Kind { kBilevel, kGrey, kCmyk, kRgb };

// The content stream's "cm" operands: the image's size on the page and its
// lower-left corner. One pixel a unit, centred, when the image is smaller
// than the page both ways; otherwise fitted to the page width, or to its
// height when the fitted height would not fit.
struct Placement {
    int64_t width, height, x, y;
};

Placement place(int64_t w, int64_t h, int64_t page_w, int64_t page_h) {
    if (w < page_w && h < page_h) return {w, h, (page_w - w) / 2, (page_h - h) / 2};
    const int64_t fitted = h * page_w / w;
    if (fitted <= page_h) return {page_w, fitted, 0, (page_h - fitted) / 2};
    const int64_t across = w * page_h / h;
    return {across, page_h, (page_w - across) / 2, 0};
}

// The bytes a save may overwrite, kept so that a failed save can put the
// stream back as it was: written back at `from`, and the file cut to its
// old length.
class Undo {
public:
    // Keeps [from, end) of the stream. 0, IMG_ERR_MEMORY, or the status of
    // a failed read (then nothing can be put back and the save goes ahead).
    int32_t capture(int32_t stream, uint32_t from, uint32_t end, uint32_t old_length) {
        stream_ = stream;
        from_ = from;
        old_length_ = old_length;
        armed_ = true;
        if (end <= from) return 0;
        saved_.reset(new (std::nothrow) uint8_t[end - from]);
        if (!saved_) return IMG_ERR_MEMORY;
        if (stream::seek(stream, int32_t(from), 0) != int32_t(from)) return fail();
        uint32_t done = 0;
        while (done < end - from) {
            const int32_t got = stream::read(stream, saved_.get() + done, end - from - done);
            if (got <= 0) return fail();
            done += uint32_t(got);
        }
        size_ = done;
        return 0;
    }
    void restore() const {
        if (!armed_) return;
        if (size_ && stream::seek(stream_, int32_t(from_), 0) == int32_t(from_))
            stream::write(stream_, saved_.get(), size_);
        stream::truncate(stream_, old_length_);
    }

private:
    int32_t fail() {
        armed_ = false;
        saved_.reset();
        return IMG_ERR_READ;
    }

    int32_t stream_ = 0;
    uint32_t from_ = 0, size_ = 0, old_length_ = 0;
    bool armed_ = false;
    std::unique_ptr<uint8_t[]> saved_;
};

// Writes the page's objects, the page tree, the table and the trailer.
// `offsets` holds the offsets of objects 0 .. 7k and is extended.
int32_t write_page(LineWriter& w, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, Kind kind, uint32_t k, std::vector<uint32_t>& offsets) {
    const uint32_t n = 7 * k;
    const int32_t width = header->biWidth, height = header->biHeight;
    offsets.resize(n + 8, 0);

    // Image XObject and its length.
    offsets[n + 5] = w.offset();
    w.line("%u 0 obj", n + 5);
    w.line("<<");
    w.line("/Type /XObject");
    w.line("/Subtype /Image");
    w.line("/Name /Quor%u", k);
    w.line("/Width %d", width);
    w.line("/Height %d", height);
    w.line("/BitsPerComponent %d", kind == Kind::kBilevel ? 1 : 8);
    switch (kind) {
        case Kind::kBilevel:
            w.line("/ColorSpace /DeviceGray");
            w.line("/Filter /CCITTFaxDecode");
            w.line("/DecodeParms <<");
            w.line("/K -1");
            w.line("/Columns %d /Rows %d", width, height);
            w.line("/EndOfBlock false");
            w.line("/EndOfLine false");
            w.line("/EncodedByteAlign false");
            w.line(">>");
            break;
        case Kind::kGrey:
            w.line("/ColorSpace /DeviceGray");
            w.line("/Filter /DCTDecode");
            break;
        case Kind::kCmyk:
            w.line("/ColorSpace /DeviceCMYK");
            w.line("/Decode [1 0 1 0 1 0 1 0]");
            w.line("/Filter /DCTDecode");
            break;
        case Kind::kRgb:
            w.line("/ColorSpace /DeviceRGB");
            w.line("/Filter /DCTDecode");
            break;
    }
    w.line("/Length %u 0 R", n + 6);
    w.line(">>");
    w.line("stream");
    if (w.status()) return w.status();
    const uint32_t data_at = w.offset();
    int32_t r = w.direct([&](int32_t stream) -> int32_t {
        if (kind == Kind::kBilevel)
            return ccitt::fax_encode_g4(stream, header, supply, user, 0, ccitt::kFrameG4);
        if (text_out::has_alpha(header)) {
            text_out::AlphaDropped rgb(header, supply, user);
            if (!rgb.ready()) return IMG_ERR_MEMORY;
            return jpeg::encode(stream, rgb.header(), text_out::AlphaDropped::supply, rgb.user(), 0);
        }
        return jpeg::encode(stream, header, supply, user, 0);
    });
    if (r < 0) return r;
    const uint32_t data_bytes = w.offset() - data_at;
    w.line("%s", "");
    w.line("endstream");
    w.line("endobj");
    offsets[n + 6] = w.offset();
    w.line("%u 0 obj", n + 6);
    w.line("%u", data_bytes);
    w.line("endobj");

    // Catalogue and procedure set.
    offsets[n + 1] = w.offset();
    w.line("%u 0 obj", n + 1);
    w.line("<<");
    w.line("/Type /Catalog");
    w.line("/Pages %d 0 R", 3);
    w.line(">>");
    w.line("endobj");
    offsets[n + 2] = w.offset();
    w.line("%u 0 obj", n + 2);
    w.line("[ /PDF /ImageB  ]");
    w.line("endobj");

    // Content stream: its length counts both lines and the line end between.
    const Settings& s = settings();
    const Placement at = place(width, height, s.pdf_width, s.pdf_height);
    char cm[128], draw[32];
    std::snprintf(cm, sizeof cm, "%06lld 0 0 %06lld %6lld %6lld cm", (long long)at.width,
                  (long long)at.height, (long long)at.x, (long long)at.y);
    std::snprintf(draw, sizeof draw, "/Quor%u Do", k);
    offsets[n + 7] = w.offset();
    w.line("%u 0 obj", n + 7);
    w.line("<< /Length %u >>", uint32_t(std::strlen(cm) + 2 + std::strlen(draw)));
    w.line("stream");
    w.line("%s", cm);
    w.line("%s", draw);
    w.line("endstream");
    w.line("endobj");

    // Page.
    offsets[n + 4] = w.offset();
    w.line("%u 0 obj", n + 4);
    w.line("<<");
    w.line("/Type /Page");
    w.line("/Parent %d 0 R", 3);
    w.line("/Resources <<");
    w.line("/XObject <<");
    w.line("/Quor%u %u 0 R", k, n + 5);
    w.line(">>");
    w.line("/ProcSet %u 0 R", n + 2);
    w.line(">>");
    w.line("/MediaBox [ 0 0 %d %d ]", s.pdf_width, s.pdf_height);
    w.line("/Contents %u 0 R", n + 7);
    w.line(">>");
    w.line("endobj");

    // Page tree, with every page so far.
    offsets[3] = w.offset();
    w.line("%d 0 obj", 3);
    w.line("<<");
    w.line("/Type /Pages");
    w.text("/Kids [");
    for (uint32_t j = 0; j <= k; ++j) w.text("%u 0 R ", 7 * j + 4);
    w.line("%s", "");
    w.line("]");
    w.line("/Count %u", k + 1);
    w.line(">>");
    w.line("endobj");

    // Cross-reference table and trailer. Object N+3 of every page after the
    // first is never written: a free entry.
    const uint32_t xref_at = w.offset();
    w.line("xref");
    w.line("0 %u", n + 8);
    w.line("0000000000 65535 f");
    for (uint32_t object = 1; object <= n + 7; ++object) {
        if (object != 3 && object % 7 == 3)
            w.line("0000000000 65535 f");
        else
            w.line("%010u 00000 n", offsets[object]);
    }
    w.line("trailer");
    w.line("<<");
    w.line("/Size %u", n + 8);
    w.line("/Root %u 0 R", n + 1);
    w.line(">>");
    w.line("startxref");
    w.line("%u", xref_at);
    w.line("%%%%EOF");
    return w.flush();
}

}  // namespace

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply, intptr_t user,
               int32_t) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    const uint32_t bits = header->biBitCount;
    if (!dib_depth_valid(bits) || bits == 16) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    if (settings().pdf_width < 1 || settings().pdf_height < 1) return IMG_ERR_BAD_IMAGE;
    const Kind kind = bits == 1                     ? Kind::kBilevel
                      : text_out::jpeg_grey(header) ? Kind::kGrey
                      : bits == 32 && !text_out::has_alpha(header) ? Kind::kCmyk
                                                                   : Kind::kRgb;

    // The document is the stream from offset 0 to its length: a file's
    // length; for a memory stream its position, so that a memory block
    // always receives a new document (whatever it held before).
    const int32_t length = stream::length(stream);
    const uint32_t end = length > 0 ? uint32_t(length) : 0;
    Document doc;
    if (int32_t r = open_document(stream, end, &doc)) return r;
    if (doc.pages >= (0x7FFFFFFFu - 8) / 7 - 1) return IMG_ERR_WRITE;

    // What the page overwrites: the old table and trailer of a document, or
    // everything of a file written anew.
    const uint32_t from = doc.exists ? doc.xref_at : 0;
    Undo undo;
    if (const int32_t r = undo.capture(stream, from, end, end); r == IMG_ERR_MEMORY) return r;
    if (stream::seek(stream, int32_t(from), 0) != int32_t(from)) return IMG_ERR_WRITE;

    LineWriter w(stream, from);
    if (!doc.exists) w.line("%%PDF-1.2");
    int32_t r = write_page(w, header, supply, user, kind, doc.pages, doc.offsets);
    if (r == 0) r = w.status();
    if (r < 0) {
        undo.restore();
        return r;
    }
    // Bytes of the old file beyond the new end go (files written anew over
    // longer ones); nothing can be cut through application hooks.
    stream::truncate(stream, w.offset());
    return 0;
}

}  // namespace tesslin::pdf
