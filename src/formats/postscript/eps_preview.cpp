// EPS files with a TIFF preview: IMG_FORMAT_EPS (the image as hexadecimal
// rows behind the preview) and IMG_FORMAT_EPS_SEPARATION (a main part and
// four plate EPS sections, one per ink, with the preview behind them). Both
// start with the 32-byte DOS EPS header, written last.
#include <cstring>
#include <memory>
#include <new>

#include "core/pixels.h"
#include "formats/postscript/ps_internal.h"

namespace tesslin::postscript {
namespace {

// The rows of the image as the PostScript section carries them: RGB for
// 24 bits and for 32-bit alpha images (alpha dropped), one palette index a
// byte for 4 bits, everything else as stored.
class HexRows {
public:
    HexRows(const DibHeader* h, IMG_SUPPLY_CALLBACK supply, intptr_t user)
        : supply_(supply), user_(user), width_(uint32_t(h->biWidth)), bits_(h->biBitCount),
          alpha_(text_out::has_alpha(h)) {}

    // Bytes of one written row.
    uint32_t bytes() const {
        if (bits_ == 4) return width_;
        if (alpha_) return 3 * width_;
        return packed_bytes(width_, bits_);
    }
    bool ready() {
        in_.reset(new (std::nothrow) uint8_t[row_bytes(width_, bits_) + 8]);
        out_.reset(new (std::nothrow) uint8_t[size_t(bytes()) + 8]);
        return in_ && out_;
    }
    // Row y, converted; 0 or the supply's status.
    int32_t get(int32_t y, const uint8_t** row) {
        const int32_t r = supply_(user_, in_.get(), y, row_bytes(width_, bits_));
        if (r < 0) return r;
        const uint8_t* src = in_.get();
        uint8_t* dst = out_.get();
        if (bits_ == 4) {
            pixels::unpack_indices(src, 4, dst, width_);
        } else if (bits_ == 24) {
            pixels::swap_rgb24(src, dst, width_);
        } else if (alpha_) {
            for (uint32_t x = 0; x < width_; ++x, src += 4, dst += 3) {
                dst[0] = src[2];
                dst[1] = src[1];
                dst[2] = src[0];
            }
        } else {
            std::memcpy(dst, src, bytes());
        }
        *row = out_.get();
        return 0;
    }

private:
    IMG_SUPPLY_CALLBACK supply_;
    intptr_t user_;
    uint32_t width_, bits_;
    bool alpha_;
    std::unique_ptr<uint8_t[]> in_, out_;
};

// The PostScript section of IMG_FORMAT_EPS.
int32_t eps_body(LineWriter& w, const DibHeader* h, IMG_SUPPLY_CALLBACK supply, intptr_t user) {
    const int32_t width = h->biWidth, height = h->biHeight;
    const uint32_t bits = h->biBitCount;
    const bool indexed = bits == 4 || bits == 8;
    const bool cmyk = bits == 32 && !text_out::has_alpha(h);
    const PageSize size = page_size(h);
    HexRows rows(h, supply, user);
    if (!rows.ready()) return IMG_ERR_MEMORY;

    w.line(indexed ? "%%!PS-Adobe-3.0 EPSF-3.0" : "%%!PS-Adobe-2.0 EPSF-2.0");
    w.line("%%%%BoundingBox: %d %d %d %d", 0, 0, size.box_width, size.box_height);
    w.line("/picstr %u string def", rows.bytes());
    w.line("%d %d translate", 0, 0);
    w.line("%d %d scale", size.box_width, size.box_height);
    if (indexed) {
        // Palette entries as RRGGBB, sixteen a line; the procedure looks
        // every index up and hands colorimage three bytes a pixel. 4-bit
        // rows are written one index a byte, so both depths use 8 bits.
        const RgbQuad* p = dib_palette(h);
        w.line("/pal <");
        for (uint32_t i = 0; i < (1u << bits); ++i)
            w.text(i % 16 == 15 ? "%02X%02X%02X\r\n" : "%02X%02X%02X ", p[i].rgbRed, p[i].rgbGreen,
                   p[i].rgbBlue);
        w.line("> def");
        w.line("/rgbstr %u string def", 3 * rows.bytes());
        w.line("/read_raw {currentfile picstr readhexstring pop} def");
        w.line("/read8_24 {");
        w.line("  read_raw");
        w.line("  /rgb_ndx 0 def");
        w.line("  {");
        w.line("     3 mul pal exch 3 getinterval rgbstr exch rgb_ndx exch putinterval");
        w.line("     /rgb_ndx rgb_ndx 3 add def");
        w.line("  } forall rgbstr");
        w.line("} def");
        w.line("%d %d %d [%d 0 0 %d 0 %d] {read8_24} false 3 colorimage", width, height, 8, width,
               -height, height);
    } else if (bits == 24 || text_out::has_alpha(h)) {
        w.line("%d %d %d [%d 0 0 %d 0 %d] {currentfile picstr readhexstring pop} false 3 colorimage",
               width, height, 8, width, -height, height);
    } else if (cmyk) {
        w.line("%%%%DocumentProcessColors: Cyan Magenta Yellow Black");
        w.line("%d %d %d [%d 0 0 %d 0 %d] {currentfile picstr readhexstring pop} false 4 colorimage",
               width, height, 8, width, -height, height);
    } else {
        w.line("%d %d %d [%d 0 0 %d 0 %d] {currentfile picstr readhexstring pop} image", width,
               height, int(bits), width, -height, height);
    }
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t* row = nullptr;
        if (const int32_t r = rows.get(y, &row)) return r;
        if (!hex_line(w, row, rows.bytes())) return w.status();
    }
    w.line("showpage");
    w.line("%%%%EndDoc");
    return w.flush();
}

// The comment lines both parts of a separation start with.
void separation_comments(LineWriter& w) {
    w.line("%%!PS-Adobe-2.0 EPSF-1.2");
    w.line("%%%%Creator: Corvane Software");
    w.line("%%%%Title: Document1 (Page 1)");
    w.line("%%%%CreationDate: 06/02/1998");
}

constexpr const char* kInks[4] = {"Cyan", "Magenta", "Yellow", "Black"};

}  // namespace

int32_t encode_eps(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    const uint32_t bits = header->biBitCount;
    if (!dib_depth_valid(bits) || bits == 16) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    uint32_t base = 0;
    if (const int32_t r = start_of(stream, &base)) return r;

    LineWriter w(stream, 0);
    static const uint8_t kZeros[32] = {};
    w.bytes(kZeros, sizeof kZeros);
    uint32_t tiff_length = 0;
    if (const int32_t r = tiff_preview(w, header, supply, user, &tiff_length)) return r;
    w.line("%s", "");
    const uint32_t ps_at = w.offset();
    if (const int32_t r = eps_body(w, header, supply, user)) return r;
    const uint32_t end = w.offset();
    return binary_header(stream, base, end, ps_at, end - ps_at, 32, tiff_length);
}

int32_t encode_separation(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                          intptr_t user, int32_t) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    if (header->biBitCount != 32 || text_out::has_alpha(header)) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    const int32_t width = header->biWidth, height = header->biHeight;
    // The plate lines keep eight digits for offsets and lengths.
    const uint64_t plate_bytes = uint64_t(height) * (2 * uint64_t(width) + 2) + 1024;
    if (4 * plate_bytes + 2048 > 99999999) return IMG_ERR_BAD_IMAGE;
    const uint32_t row_in = row_bytes(uint32_t(width), 32);
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[row_in + 8]);
    std::unique_ptr<uint8_t[]> plane(new (std::nothrow) uint8_t[size_t(width) + 8]);
    if (!row || !plane) return IMG_ERR_MEMORY;
    uint32_t base = 0;
    if (const int32_t r = start_of(stream, &base)) return r;
    const PageSize size = page_size(header);

    // Main part. Its plate lines are rewritten in place at the end; their
    // fixed-width fields keep every offset where it is.
    LineWriter w(stream, 0);
    static const uint8_t kZeros[32] = {};
    w.bytes(kZeros, sizeof kZeros);
    w.line("%s", "");
    separation_comments(w);
    w.line("%%%%DocumentProcessColors: Cyan Magenta Yellow Black");
    w.line("%%%%DocumentFonts: Helvetica");
    w.line("%%%%DocumentData: Binary");
    w.line("%%%%LanguageLevel: 1");
    w.line("%%%%BoundingBox: %d %d %d %d", 0, 0, size.box_width, size.box_height);
    uint32_t plate_line[4];
    for (int p = 0; p < 4; ++p) {
        plate_line[p] = w.offset();
        w.line("%%%%PlateFile: (%s) EPS #%08d %08d", kInks[p], 0, 0);
    }
    w.line("%%%%EndComments");
    // Every part closes a dictionary with "end": each opens userdict first,
    // so that the file also runs on its own, outside an importing program.
    w.line("userdict begin");
    w.line("end");
    w.line("showpage");

    // One plate each: the ink's byte of every pixel, as 8-bit grey.
    uint32_t plate_at[4], plate_length[4];
    for (int p = 0; p < 4; ++p) {
        plate_at[p] = w.offset();
        separation_comments(w);
        w.line("%%%%DocumentProcSets: QuarkXpress_EPSF_3.2 1.0 0");
        w.line("%%%%DocumentSuppliedProcSets: QuarkXpress_EPSF_3.2 1.0 0");
        w.line("%%%%DocumentFonts: Helvetica");
        w.line("%%%%DocumentData: Binary");
        w.line("userdict begin");
        w.line("/picstr %d string def", width);
        w.line("%d %d translate", 0, 0);
        w.line("%d %d scale", size.box_width, size.box_height);
        w.line("%d %d %d [%d 0 0 %d 0 %d] {currentfile picstr readhexstring pop} image", width,
               height, 8, width, -height, height);
        for (int32_t y = 0; y < height; ++y) {
            if (const int32_t r = supply(user, row.get(), y, row_in); r < 0) return r;
            for (int32_t x = 0; x < width; ++x) plane[x] = row[size_t(x) * 4 + size_t(p)];
            if (!hex_line(w, plane.get(), uint32_t(width))) return w.status();
        }
        w.line("end");
        w.line("showpage");
        w.line("%%%%Trailer");
        plate_length[p] = w.offset() - plate_at[p];
    }

    const uint32_t ps_length = w.offset() - 32;
    const uint32_t tiff_at = w.offset();
    uint32_t tiff_length = 0;
    if (const int32_t r = tiff_preview(w, header, supply, user, &tiff_length)) return r;
    const uint32_t end = w.offset();
    if (const int32_t r = binary_header(stream, base, end, 32, ps_length, tiff_at, tiff_length))
        return r;
    for (int p = 0; p < 4; ++p) {
        char text[80];
        const int n = std::snprintf(text, sizeof text, "%%%%PlateFile: (%s) EPS #%08u %08u",
                                    kInks[p], plate_at[p], plate_length[p]);
        if (const int32_t r = patch(stream, base, plate_line[p], text, uint32_t(n), end)) return r;
    }
    return 0;
}

}  // namespace tesslin::postscript
