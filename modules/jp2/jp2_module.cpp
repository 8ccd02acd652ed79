// JPEG 2000 on OpenJPEG: jp2mod.so.
//
//   decode_jp2          JP2 files and raw codestreams (decoder contract)
//   encode_jp2          JP2 files (encoder contract, format code 70)
//   set_jp2_parameters  compression ratio of encode_jp2
//   set_callbacks       the library's stream read/write/seek
//
// Decoding delivers: one component as 8-bit grey (grey palette); grey with
// alpha, and colour with alpha, as 32-bit BGRA with the alpha marker (200);
// three components as 24-bit BGR (sYCC converted to RGB); four CMYK
// components as 32-bit CMYK. Samples deeper than 8 bits keep their high 8
// bits (as the library does for its other 16-bit inputs); shallower ones are
// scaled up to 0..255; signed ones are offset to unsigned. Components
// sampled more coarsely than the first are repeated (nearest neighbour).
// Statuses: IMG_ERR_READ (stream unreadable), IMG_ERR_BAD_IMAGE (damaged or
// truncated data, sizes out of range), IMG_ERR_NO_PAGE (a page after the
// first), IMG_ERR_MEMORY.
//
// Encoding writes a JP2 file of 1 (grey palette), 3 (colour) or 4 (colour
// with alpha) 8-bit components from 1-, 4-, 8-, 24- and 32-bit images with
// alpha; other depths give IMG_ERR_DEPTH. Ratio 1 is reversible (lossless)
// coding, ratio r > 1 irreversible coding at about 1/r of the raw size.
#include <openjpeg.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "module_stream.h"
#include "tesslin/tesslin.h"

#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

using tesslin::module::ReadFn;
using tesslin::module::SeekFn;
using tesslin::module::WriteFn;

ReadFn g_read = nullptr;
WriteFn g_write = nullptr;
SeekFn g_seek = nullptr;
std::atomic<int32_t> g_ratio{1};

constexpr uint64_t kMaxImageBytes = 0x7FFFFFFF;
constexpr uint32_t kMaxSide = 1u << 24;
constexpr uint64_t kMaxInput = 0x7FFFFFFF;

void quiet(const char*, void*) {}

// ---- Memory streams for OpenJPEG ---------------------------------------------

struct Buffer {
    std::vector<uint8_t> bytes;
    size_t at = 0;
};

OPJ_SIZE_T mem_read(void* out, OPJ_SIZE_T n, void* user) {
    auto* b = static_cast<Buffer*>(user);
    const size_t left = b->bytes.size() - b->at;
    if (left == 0) return OPJ_SIZE_T(-1);
    n = std::min<size_t>(n, left);
    std::memcpy(out, b->bytes.data() + b->at, n);
    b->at += n;
    return n;
}

OPJ_SIZE_T mem_write(void* in, OPJ_SIZE_T n, void* user) {
    auto* b = static_cast<Buffer*>(user);
    try {
        if (b->at + n > b->bytes.size()) b->bytes.resize(b->at + n);
    } catch (const std::bad_alloc&) {
        return OPJ_SIZE_T(-1);
    }
    std::memcpy(b->bytes.data() + b->at, in, n);
    b->at += n;
    return n;
}

OPJ_OFF_T mem_skip(OPJ_OFF_T n, void* user) {
    auto* b = static_cast<Buffer*>(user);
    const OPJ_OFF_T target = OPJ_OFF_T(b->at) + n;
    if (target < 0) return -1;
    b->at = size_t(target);  // past the end: reads then fail, writes extend
    return n;
}

OPJ_BOOL mem_seek(OPJ_OFF_T n, void* user) {
    auto* b = static_cast<Buffer*>(user);
    if (n < 0) return OPJ_FALSE;
    b->at = size_t(n);
    return OPJ_TRUE;
}

struct StreamDeleter {
    void operator()(opj_stream_t* s) const { opj_stream_destroy(s); }
};
struct CodecDeleter {
    void operator()(opj_codec_t* c) const { opj_destroy_codec(c); }
};
struct ImageDeleter {
    void operator()(opj_image_t* i) const { opj_image_destroy(i); }
};
using Stream = std::unique_ptr<opj_stream_t, StreamDeleter>;
using Codec = std::unique_ptr<opj_codec_t, CodecDeleter>;
using Image = std::unique_ptr<opj_image_t, ImageDeleter>;

Stream memory_stream(Buffer& b, bool input) {
    Stream s(opj_stream_create(1 << 16, input ? OPJ_TRUE : OPJ_FALSE));
    if (!s) return s;
    opj_stream_set_user_data(s.get(), &b, nullptr);
    if (input) {
        opj_stream_set_user_data_length(s.get(), b.bytes.size());
        opj_stream_set_read_function(s.get(), mem_read);
    } else {
        opj_stream_set_write_function(s.get(), mem_write);
    }
    opj_stream_set_skip_function(s.get(), mem_skip);
    opj_stream_set_seek_function(s.get(), mem_seek);
    return s;
}

void silence(opj_codec_t* c) {
    opj_set_info_handler(c, quiet, nullptr);
    opj_set_warning_handler(c, quiet, nullptr);
    opj_set_error_handler(c, quiet, nullptr);
}

// ---- Decoding ------------------------------------------------------------------

int32_t read_stream(int32_t stream, uint32_t position, std::vector<uint8_t>& bytes) {
    return tesslin::module::read_whole(g_read, g_seek, stream, position, bytes, kMaxInput);
}

// Sample of component c at output pixel (x, y), reduced to 8 bits.
struct Component {
    const opj_image_comp_t* comp;
    uint32_t step_x, step_y;  // output pixels per component sample
    int32_t offset;           // added to signed samples
    int shift;                // right shift of deep samples
    uint32_t scale_max;       // (1 << prec) - 1 for shallow samples, else 0

    uint8_t at(uint32_t x, uint32_t y) const {
        const uint32_t cx = std::min(x / step_x, comp->w - 1);
        const uint32_t cy = std::min(y / step_y, comp->h - 1);
        int64_t v = int64_t(comp->data[size_t(cy) * comp->w + cx]) + offset;
        if (shift > 0) v >>= shift;
        if (scale_max) v = v * 255 / scale_max;
        return uint8_t(std::clamp<int64_t>(v, 0, 255));
    }
};

uint8_t clamp8(int v) { return uint8_t(std::clamp(v, 0, 255)); }

// Announces the image from its header, then decodes it (`decode`) and
// delivers the rows: a caller that only wants the header stops before the
// decoding work.
template <typename Decode>
int32_t deliver(const opj_image_t& img, IMG_RASTER_CALLBACK raster, intptr_t user,
                IMG_HEADER_CALLBACK header, Decode&& decode) {
    const uint32_t n = img.numcomps;
    if (n < 1 || !img.comps) return IMG_ERR_BAD_IMAGE;
    const opj_image_comp_t& c0 = img.comps[0];
    const uint32_t width = c0.w, height = c0.h;
    if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide) return IMG_ERR_BAD_IMAGE;
    const uint32_t used = n >= 4 ? 4 : n;
    std::vector<Component> comps;
    for (uint32_t i = 0; i < used; ++i) {
        const opj_image_comp_t& c = img.comps[i];
        if (c.w < 1 || c.h < 1 || c.prec < 1 || c.prec > 31 || c.dx < 1 || c.dy < 1)
            return IMG_ERR_BAD_IMAGE;
        Component k{&c, 1, 1, 0, 0, 0};
        if (c.dx > c0.dx) k.step_x = c.dx / c0.dx;
        if (c.dy > c0.dy) k.step_y = c.dy / c0.dy;
        if (c.sgnd) k.offset = int32_t(1u << (c.prec - 1));
        if (c.prec > 8) k.shift = int(c.prec - 8);
        if (c.prec < 8) k.scale_max = (1u << c.prec) - 1;
        comps.push_back(k);
    }

    // Layout of the output.
    enum { kGrey, kGreyAlpha, kRgb, kRgba, kCmyk } layout;
    if (used == 1)
        layout = kGrey;
    else if (used == 2)
        layout = kGreyAlpha;
    else if (used == 3)
        layout = kRgb;
    else if (img.color_space == OPJ_CLRSPC_CMYK)
        layout = kCmyk;
    else
        layout = kRgba;
    const bool sycc = img.color_space == OPJ_CLRSPC_SYCC && used >= 3;
    const uint16_t bits = layout == kGrey ? 8 : layout == kRgb ? 24 : 32;
    const uint32_t row_bytes = ((width * bits + 31) / 32) * 4;
    if (uint64_t(row_bytes) * height > kMaxImageBytes) return IMG_ERR_BAD_IMAGE;

    struct {
        IMG_BITMAPINFOHEADER h;
        uint8_t palette[256 * 4];
    } dib;
    std::memset(&dib, 0, sizeof dib);
    dib.h.biSize = 40;
    dib.h.biWidth = int32_t(width);
    dib.h.biHeight = int32_t(height);
    dib.h.biPlanes = 1;
    dib.h.biBitCount = bits;
    dib.h.biCompression = (layout == kGreyAlpha || layout == kRgba) ? 200 : 0;
    dib.h.biSizeImage = row_bytes * height;
    if (bits == 8)
        for (int i = 0; i < 256; ++i)
            dib.palette[i * 4] = dib.palette[i * 4 + 1] = dib.palette[i * 4 + 2] = uint8_t(i);
    if (const int32_t r = header(&dib.h, user); r < 0) return r;

    if (const int32_t r = decode(); r < 0) return r;
    for (uint32_t i = 0; i < used; ++i) {
        const opj_image_comp_t& c = img.comps[i];
        if (!c.data || c.w < 1 || c.h < 1) return IMG_ERR_BAD_IMAGE;
    }
    std::vector<uint8_t> row(row_bytes, 0);
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* p = row.data();
        for (uint32_t x = 0; x < width; ++x) {
            switch (layout) {
                case kGrey:
                    *p++ = comps[0].at(x, y);
                    break;
                case kGreyAlpha: {
                    const uint8_t g = comps[0].at(x, y);
                    *p++ = g;
                    *p++ = g;
                    *p++ = g;
                    *p++ = comps[1].at(x, y);
                    break;
                }
                case kCmyk:
                    for (int i = 0; i < 4; ++i) *p++ = comps[i].at(x, y);
                    break;
                default: {
                    int r = comps[0].at(x, y), g = comps[1].at(x, y), b = comps[2].at(x, y);
                    if (sycc) {
                        const int yy = r, cb = g - 128, cr = b - 128;
                        r = yy + ((91881 * cr) >> 16);
                        g = yy - ((22554 * cb + 46802 * cr) >> 16);
                        b = yy + ((116130 * cb) >> 16);
                    }
                    *p++ = clamp8(b);
                    *p++ = clamp8(g);
                    *p++ = clamp8(r);
                    if (layout == kRgba) *p++ = comps[3].at(x, y);
                }
            }
        }
        if (const int32_t r = raster(row.data(), user, int32_t(y), row_bytes); r < 0) return r;
    }
    return 0;
}

int32_t decode(Buffer& input, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header) {
    const auto& b = input.bytes;
    if (b.size() < 12) return IMG_ERR_BAD_IMAGE;
    const bool raw = b[0] == 0xFF && b[1] == 0x4F;
    Codec codec(opj_create_decompress(raw ? OPJ_CODEC_J2K : OPJ_CODEC_JP2));
    if (!codec) return IMG_ERR_MEMORY;
    silence(codec.get());
    opj_dparameters_t params;
    opj_set_default_decoder_parameters(&params);
    if (!opj_setup_decoder(codec.get(), &params)) return IMG_ERR_BAD_IMAGE;
    opj_decoder_set_strict_mode(codec.get(), OPJ_TRUE);  // truncated data is an error
    Stream stream = memory_stream(input, true);
    if (!stream) return IMG_ERR_MEMORY;
    opj_image_t* raw_image = nullptr;
    if (!opj_read_header(stream.get(), codec.get(), &raw_image)) {
        opj_image_destroy(raw_image);
        return IMG_ERR_BAD_IMAGE;
    }
    Image image(raw_image);
    // Declared size against the limits before the decoder allocates it.
    const uint64_t w = uint64_t(image->x1) - image->x0, h = uint64_t(image->y1) - image->y0;
    if (image->x1 <= image->x0 || image->y1 <= image->y0 || w > kMaxSide || h > kMaxSide ||
        w * h * std::max<uint32_t>(image->numcomps, 1) * 4 > 4 * kMaxImageBytes)
        return IMG_ERR_BAD_IMAGE;
    // Even empty code-blocks cost some bits: refuse huge declared sizes in
    // tiny streams.
    if (w * h > uint64_t(b.size()) * 65536 + (1u << 24)) return IMG_ERR_BAD_IMAGE;
    return deliver(*image, raster, user, header, [&]() -> int32_t {
        if (!opj_decode(codec.get(), stream.get(), image.get()) ||
            !opj_end_decompress(codec.get(), stream.get()))
            return IMG_ERR_BAD_IMAGE;
        return 0;
    });
}

// ---- Encoding ------------------------------------------------------------------

int32_t encode(int32_t stream, const IMG_BITMAPINFOHEADER* h, IMG_SUPPLY_CALLBACK supply,
               intptr_t user) {
    if (!g_write) return IMG_ERR_WRITE;
    if (!h || h->biWidth < 1 || h->biHeight == 0) return IMG_ERR_BAD_IMAGE;
    const uint32_t width = uint32_t(h->biWidth);
    const uint32_t height = uint32_t(h->biHeight < 0 ? -int64_t(h->biHeight) : h->biHeight);
    const uint16_t bits = h->biBitCount;
    const bool alpha = bits == 32 && h->biCompression == 200;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24 && !alpha) return IMG_ERR_DEPTH;
    if (width > kMaxSide || height > kMaxSide) return IMG_ERR_BAD_IMAGE;
    const uint32_t row_bytes = ((width * bits + 31) / 32) * 4;
    if (uint64_t(row_bytes) * height > kMaxImageBytes) return IMG_ERR_BAD_IMAGE;

    // Palette images: grey when every entry is grey.
    const auto* palette = reinterpret_cast<const uint8_t*>(h) + 40;
    const uint32_t entries = bits <= 8 ? (1u << bits) : 0;
    bool grey = entries > 0;
    for (uint32_t i = 0; i < entries; ++i)
        if (palette[i * 4] != palette[i * 4 + 1] || palette[i * 4 + 1] != palette[i * 4 + 2])
            grey = false;
    const uint32_t ncomp = grey ? 1 : alpha ? 4 : 3;

    opj_image_cmptparm_t parms[4];
    std::memset(parms, 0, sizeof parms);
    for (uint32_t c = 0; c < ncomp; ++c) {
        parms[c].dx = parms[c].dy = 1;
        parms[c].w = width;
        parms[c].h = height;
        parms[c].prec = 8;
        parms[c].sgnd = 0;
    }
    Image image(opj_image_create(ncomp, parms, grey ? OPJ_CLRSPC_GRAY : OPJ_CLRSPC_SRGB));
    if (!image) return IMG_ERR_MEMORY;
    image->x0 = image->y0 = 0;
    image->x1 = width;
    image->y1 = height;
    if (alpha) image->comps[3].alpha = 1;

    std::vector<uint8_t> row(row_bytes + 4);
    for (uint32_t y = 0; y < height; ++y) {
        if (const int32_t r = supply(user, row.data(), int32_t(y), row_bytes); r < 0) return r;
        const size_t base = size_t(y) * width;
        for (uint32_t x = 0; x < width; ++x) {
            uint8_t bgr[4];
            if (bits <= 8) {
                const uint32_t per = 8 / bits;
                const uint32_t v = (row[x / per] >> ((per - 1 - x % per) * bits)) & ((1u << bits) - 1);
                std::memcpy(bgr, palette + v * 4, 3);
                bgr[3] = 255;
            } else {
                std::memcpy(bgr, row.data() + size_t(x) * (bits / 8), bits / 8);
            }
            if (grey) {
                image->comps[0].data[base + x] = bgr[0];
            } else {
                image->comps[0].data[base + x] = bgr[2];
                image->comps[1].data[base + x] = bgr[1];
                image->comps[2].data[base + x] = bgr[0];
                if (alpha) image->comps[3].data[base + x] = bgr[3];
            }
        }
    }

    opj_cparameters_t params;
    opj_set_default_encoder_parameters(&params);
    const int32_t ratio = g_ratio.load(std::memory_order_relaxed);
    params.tcp_numlayers = 1;
    params.cp_disto_alloc = 1;
    params.tcp_rates[0] = ratio > 1 ? float(ratio) : 0.0f;
    params.irreversible = ratio > 1 ? 1 : 0;
    params.tcp_mct = ncomp >= 3 ? 1 : 0;
    // Resolution levels: no more than the smaller side allows.
    int levels = 1;
    while (levels < 6 && (std::min(width, height) >> levels) >= 8) ++levels;
    params.numresolution = levels;

    Codec codec(opj_create_compress(OPJ_CODEC_JP2));
    if (!codec) return IMG_ERR_MEMORY;
    silence(codec.get());
    if (!opj_setup_encoder(codec.get(), &params, image.get())) return IMG_ERR_BAD_IMAGE;
    Buffer out;
    Stream s = memory_stream(out, false);
    if (!s) return IMG_ERR_MEMORY;
    if (!opj_start_compress(codec.get(), image.get(), s.get()) ||
        !opj_encode(codec.get(), s.get()) || !opj_end_compress(codec.get(), s.get()))
        return IMG_ERR_MEMORY;
    s.reset();  // flushes what OpenJPEG still buffers
    const size_t size = out.bytes.size();
    for (size_t at = 0; at < size;) {
        const uint32_t n = uint32_t(std::min<size_t>(size - at, 1u << 20));
        if (g_write(stream, out.bytes.data() + at, n) != int32_t(n)) return IMG_ERR_WRITE;
        at += n;
    }
    return 0;
}

}  // namespace

MODULE_EXPORT void set_callbacks(ReadFn read, WriteFn write, SeekFn seek, void*) {
    g_read = read;
    g_write = write;
    g_seek = seek;
}

// Compression ratio of encode_jp2: 1 (the default, also for 0) reversible
// lossless coding; 2 to 1000 irreversible coding at that ratio of the raw
// pixel size. Returns 0, or IMG_ERR_BAD_IMAGE (nothing changed) otherwise.
MODULE_EXPORT int32_t set_jp2_parameters(int32_t ratio) {
    if (ratio == 0) ratio = 1;
    if (ratio < 1 || ratio > 1000) return IMG_ERR_BAD_IMAGE;
    g_ratio = ratio;
    return 0;
}

MODULE_EXPORT int32_t decode_jp2(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                                 IMG_HEADER_CALLBACK header, int32_t stream) {
    // One image a file: page 0 only (the tile index above bit 15 and the
    // channel selector of negative pages do not apply).
    if ((position & 0xC0000000u) == 0x80000000u && (position & 0xFFFF) != 0) return IMG_ERR_NO_PAGE;
    try {
        Buffer input;
        if (const int32_t r = read_stream(stream, position, input.bytes); r < 0) return r;
        return decode(input, raster, user, header);
    } catch (const std::bad_alloc&) {
        return IMG_ERR_MEMORY;
    } catch (...) {
        return IMG_ERR_BAD_IMAGE;
    }
}

MODULE_EXPORT int32_t encode_jp2(int32_t stream, const IMG_BITMAPINFOHEADER* header,
                                 IMG_SUPPLY_CALLBACK supply, intptr_t user) {
    try {
        return encode(stream, header, supply, user);
    } catch (const std::bad_alloc&) {
        return IMG_ERR_MEMORY;
    } catch (...) {
        return IMG_ERR_MEMORY;
    }
}
