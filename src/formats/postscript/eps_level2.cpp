// Level 2 PostScript: the EPS files of IMG_FORMAT_EPS_LEVEL2_RLE and
// IMG_FORMAT_EPS_LEVEL2_G4 (an image dictionary over data read through
// filters: hexadecimal run-length, Group 4 or JPEG), and the one-page
// document of IMG_FORMAT_PS_FILTERED (ASCII85 run-length samples).
#include <cstring>
#include <memory>
#include <new>

#include "core/pixels.h"
#include "formats/ccitt/ccitt.h"
#include "formats/jpeg/jpeg.h"
#include "formats/postscript/ps_internal.h"

namespace tesslin::postscript {
namespace {

// How the samples are described: one bit of grey, or 8-bit components.
enum class Colour { kBilevel, kGrey, kRgb, kCmyk };

Colour colour_of(const DibHeader* h) {
    if (h->biBitCount == 1) return Colour::kBilevel;
    if (text_out::jpeg_grey(h)) return Colour::kGrey;
    if (h->biBitCount == 32 && !text_out::has_alpha(h)) return Colour::kCmyk;
    return Colour::kRgb;
}

const char* colour_space(Colour c) {
    switch (c) {
        case Colour::kCmyk: return "/DeviceCMYK setcolorspace";
        case Colour::kRgb: return "/DeviceRGB setcolorspace";
        default: return "/DeviceGray setcolorspace";
    }
}

int32_t check(const DibHeader* header, IMG_SUPPLY_CALLBACK supply) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    const uint32_t bits = header->biBitCount;
    if (!dib_depth_valid(bits) || bits == 16) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;
    return 0;
}

// Bilevel rows as hexadecimal run-length packets, one row a line, ending
// with the end-of-data packet and the end of the hexadecimal data.
int32_t hex_run_length(LineWriter& w, const DibHeader* h, IMG_SUPPLY_CALLBACK supply,
                       intptr_t user) {
    const uint32_t width = uint32_t(h->biWidth), n = (width + 7) / 8;
    std::unique_ptr<uint8_t[]> row(new (std::nothrow) uint8_t[row_bytes(width, 1) + 8]);
    if (!row) return IMG_ERR_MEMORY;
    std::vector<uint8_t> packets;
    for (int32_t y = 0; y < h->biHeight; ++y) {
        if (const int32_t r = supply(user, row.get(), y, row_bytes(width, 1)); r < 0) return r;
        packets.clear();
        run_length(row.get(), n, packets);
        if (!hex_line(w, packets.data(), uint32_t(packets.size()))) return w.status();
    }
    w.line("80>");
    return w.status();
}

// JPEG data of the image; 32-bit alpha images as RGB.
int32_t jpeg_data(int32_t stream, const DibHeader* h, IMG_SUPPLY_CALLBACK supply, intptr_t user) {
    if (text_out::has_alpha(h)) {
        text_out::AlphaDropped rgb(h, supply, user);
        if (!rgb.ready()) return IMG_ERR_MEMORY;
        return jpeg::encode(stream, rgb.header(), text_out::AlphaDropped::supply, rgb.user(), 0);
    }
    return jpeg::encode(stream, h, supply, user, 0);
}

// ASCII85 text of a byte sequence, in lines of at most 75 characters, none
// starting with "%" (DSC readers take such lines for comments).
class Ascii85 {
public:
    explicit Ascii85(LineWriter& w) : w_(w) {}
    void add(const uint8_t* data, size_t n) {
        for (size_t i = 0; i < n; ++i) {
            group_ = (group_ << 8) | data[i];
            if (++held_ == 4) {
                emit(group_, 4);
                group_ = 0;
                held_ = 0;
            }
        }
    }
    bool finish() {
        if (held_) emit(group_ << (8 * (4 - held_)), held_);
        put('~');
        put('>');
        line_[used_++] = '\r';
        line_[used_++] = '\n';
        return w_.bytes(line_, used_);
    }

private:
    void emit(uint32_t v, uint32_t bytes) {
        if (bytes == 4 && v == 0) {
            put('z');
            return;
        }
        char c[5];
        for (int i = 4; i >= 0; --i, v /= 85) c[i] = char('!' + v % 85);
        for (uint32_t i = 0; i < bytes + 1; ++i) put(c[i]);
    }
    void put(char c) {
        if (used_ == 0 && c == '%') line_[used_++] = ' ';
        line_[used_++] = c;
        if (used_ >= 75) {
            line_[used_++] = '\r';
            line_[used_++] = '\n';
            w_.bytes(line_, used_);
            used_ = 0;
        }
    }

    LineWriter& w_;
    uint32_t group_ = 0, held_ = 0, used_ = 0;
    char line_[96];
};

// The samples IMG_FORMAT_PS_FILTERED writes for a row: packed bits for
// bilevel images, grey levels or RGB through the palette for 4 and 8 bits,
// RGB for 24 bits and 32-bit alpha images, CMYK as stored.
class PageRows {
public:
    PageRows(const DibHeader* h, IMG_SUPPLY_CALLBACK supply, intptr_t user, bool grey)
        : h_(h), supply_(supply), user_(user), width_(uint32_t(h->biWidth)), bits_(h->biBitCount),
          grey_(grey) {}
    uint32_t bytes() const {
        if (bits_ == 1) return (width_ + 7) / 8;
        if (bits_ <= 8) return grey_ ? width_ : 3 * width_;
        return bits_ == 32 && !text_out::has_alpha(h_) ? 4 * width_ : 3 * width_;
    }
    bool ready() {
        in_.reset(new (std::nothrow) uint8_t[row_bytes(width_, bits_) + 8]);
        out_.reset(new (std::nothrow) uint8_t[size_t(bytes()) + 3 * size_t(width_) + 8]);
        return in_ && out_;
    }
    int32_t get(int32_t y, const uint8_t** row) {
        const int32_t r = supply_(user_, in_.get(), y, row_bytes(width_, bits_));
        if (r < 0) return r;
        const uint8_t* src = in_.get();
        uint8_t* dst = out_.get();
        const RgbQuad* pal = dib_palette(h_);
        if (bits_ == 1 || (bits_ == 32 && !text_out::has_alpha(h_))) {
            std::memcpy(dst, src, bytes());
        } else if (bits_ <= 8 && grey_) {
            pixels::unpack_indices(src, bits_, dst, width_);
            for (uint32_t x = 0; x < width_; ++x) dst[x] = pal[dst[x]].rgbRed;
        } else if (bits_ <= 8) {
            pixels::palette_to_bgr24(src, bits_, pal, dst, width_);
            pixels::swap_rgb24(dst, dst, width_);
        } else {
            const uint32_t step = bits_ / 8;
            for (uint32_t x = 0; x < width_; ++x, src += step, dst += 3) {
                const uint8_t b = src[0], g = src[1], r = src[2];
                dst[0] = r;
                dst[1] = g;
                dst[2] = b;
            }
        }
        *row = out_.get();
        return 0;
    }

private:
    const DibHeader* h_;
    IMG_SUPPLY_CALLBACK supply_;
    intptr_t user_;
    uint32_t width_, bits_;
    bool grey_;
    std::unique_ptr<uint8_t[]> in_, out_;
};

// Every palette entry grey (4 and 8 bits).
bool grey_palette(const DibHeader* h) {
    const RgbQuad* p = dib_palette(h);
    for (uint32_t i = 0; i < (1u << h->biBitCount); ++i)
        if (p[i].rgbRed != p[i].rgbGreen || p[i].rgbRed != p[i].rgbBlue) return false;
    return true;
}

// Brightness of a palette entry, for telling which bilevel value is white.
uint32_t brightness(const RgbQuad& q) { return 30u * q.rgbRed + 59u * q.rgbGreen + 11u * q.rgbBlue; }

}  // namespace

int32_t encode_level2(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                      intptr_t user, int32_t variant) {
    if (const int32_t r = check(header, supply)) return r;
    const bool g4 = variant == IMG_FORMAT_EPS_LEVEL2_G4;
    const int32_t width = header->biWidth, height = header->biHeight;
    const Colour colour = colour_of(header);
    const bool bilevel = colour == Colour::kBilevel;
    const PageSize size = page_size(header);
    uint32_t base = 0;
    if (const int32_t r = start_of(stream, &base)) return r;

    LineWriter w(stream, 0);
    w.line("%%!PS-Adobe-3.0 EPSF-3.0");
    for (int i = 0; i < 6; ++i) w.line("%%%%%98s", "");
    w.line("%%%%BoundingBox: %d %d %d %d", 0, 0, size.box_width, size.box_height);
    w.line("%%%%EndComments");
    w.line("/rows %d def", height);
    w.line("/cols %d def", width);
    w.line("%f %f scale", size.width, size.height);
    w.line("%s", colour_space(colour));
    w.line("<<");
    w.line("/ImageType 1");
    w.line("/Width cols");
    w.line("/Height rows");
    w.line("/ImageMatrix [%d 0 0 -%d 0 %d]", width, height, height);
    // Images other than bilevel ones are JPEG coded: 8-bit components, one
    // of grey for grey palettes, else RGB or CMYK.
    w.line("/BitsPerComponent %d", bilevel ? 1 : 8);
    switch (colour) {
        case Colour::kRgb: w.line("/Decode [0 1 0 1 0 1]"); break;
        case Colour::kCmyk: w.line("/Decode [1 0 1 0 1 0 1 0]"); break;
        default: w.line("/Decode [0 1]"); break;
    }
    if (bilevel && g4) {
        w.line("/DataSource currentfile << /K -1 /Columns %d /Rows %d /EndOfBlock true >>", width,
               0);
        w.line("/CCITTFaxDecode filter");
    } else if (bilevel) {
        w.line("/DataSource currentfile");
        w.line("/ASCIIHexDecode filter /RunLengthDecode filter");
    } else {
        w.line("/DataSource currentfile");
        w.line("/DCTDecode filter");
    }
    // Placeholders for the data's byte count, overwritten once it is known.
    const uint32_t length_at = w.offset();
    w.line("/Length%17s", "");
    w.line(">>");
    const uint32_t binary_at = w.offset();
    if (g4) w.line("%%%%BeginBinary:%12s", "");
    w.line("image");
    if (w.status()) return w.status();

    const uint32_t data_at = w.offset();
    int32_t r = 0;
    if (bilevel && !g4)
        r = hex_run_length(w, header, supply, user);
    else
        r = w.direct([&](int32_t s) -> int32_t {
            if (bilevel) return ccitt::fax_encode_g4(s, header, supply, user, 0, ccitt::kFrameG4);
            return jpeg_data(s, header, supply, user);
        });
    if (r < 0) return r;
    const uint32_t data_bytes = w.offset() - data_at;
    w.line("%%%%");
    if (g4) w.line("%%%%EndBinary");
    w.line("showpage");
    w.line("%%%%EndDoc");
    if (const int32_t f = w.flush()) return f;
    const uint32_t end = w.offset();

    char text[40];
    int n = std::snprintf(text, sizeof text, g4 ? "/Length %u" : "/Length %u ", data_bytes);
    if (const int32_t p = patch(stream, base, length_at, text, uint32_t(n), end)) return p;
    if (g4) {
        n = std::snprintf(text, sizeof text, "%%%%BeginBinary: %u", data_bytes);
        if (const int32_t p = patch(stream, base, binary_at, text, uint32_t(n), end)) return p;
    }
    return 0;
}

int32_t encode_page(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                    intptr_t user, int32_t) {
    if (const int32_t r = check(header, supply)) return r;
    const uint32_t bits = header->biBitCount;
    const int32_t width = header->biWidth, height = header->biHeight;
    const bool grey = bits == 1 || (bits <= 8 && grey_palette(header));
    const Colour colour = bits == 1 ? Colour::kBilevel
                          : grey    ? Colour::kGrey
                          : bits == 32 && !text_out::has_alpha(header) ? Colour::kCmyk
                                                                       : Colour::kRgb;
    PageRows rows(header, supply, user, grey);
    if (!rows.ready()) return IMG_ERR_MEMORY;
    const PageSize size = page_size(header);

    LineWriter w(stream, 0);
    w.line("%%!PS-Adobe-3.0");
    w.line("%%%%Creator: Tesslin");
    w.line("%%%%BoundingBox: %d %d %d %d", 0, 0, size.box_width, size.box_height);
    w.line("%%%%LanguageLevel: 2");
    w.line("%%%%Pages: 1");
    w.line("%%%%EndComments");
    w.line("%%%%Page: 1 1");
    w.line("save");
    w.line("%f %f scale", size.width, size.height);
    w.line("%s", colour_space(colour));
    w.line("<<");
    w.line("/ImageType 1");
    w.line("/Width %d", width);
    w.line("/Height %d", height);
    w.line("/ImageMatrix [%d 0 0 -%d 0 %d]", width, height, height);
    w.line("/BitsPerComponent %d", bits == 1 ? 1 : 8);
    switch (colour) {
        case Colour::kBilevel: {
            // Bit value 1 is white unless the palette says otherwise.
            const RgbQuad* p = dib_palette(header);
            w.line(brightness(p[1]) >= brightness(p[0]) ? "/Decode [0 1]" : "/Decode [1 0]");
            break;
        }
        case Colour::kGrey: w.line("/Decode [0 1]"); break;
        case Colour::kRgb: w.line("/Decode [0 1 0 1 0 1]"); break;
        case Colour::kCmyk: w.line("/Decode [0 1 0 1 0 1 0 1]"); break;
    }
    w.line("/DataSource currentfile /ASCII85Decode filter /RunLengthDecode filter");
    w.line(">>");
    w.line("image");

    Ascii85 text(w);
    std::vector<uint8_t> packets;
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t* row = nullptr;
        if (const int32_t r = rows.get(y, &row)) return r;
        packets.clear();
        run_length(row, rows.bytes(), packets);
        text.add(packets.data(), packets.size());
        if (w.status()) return w.status();
    }
    static const uint8_t kEnd = 128;
    text.add(&kEnd, 1);
    text.finish();
    w.line("restore");
    w.line("showpage");
    w.line("%%%%Trailer");
    w.line("%%%%EOF");
    return w.flush();
}

}  // namespace tesslin::postscript
