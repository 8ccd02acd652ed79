// Pieces the PDF and PostScript writers share: a buffered writer of
// template lines (each followed by CR LF) that knows the absolute offset of
// everything it writes, including the data other encoders write straight
// to the stream, and the description of an image as the JPEG encoder codes
// it.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "core/io.h"
#include "core/stream.h"
#include "pipeline/codec.h"

namespace tesslin::text_out {

class LineWriter {
public:
    // Writes at the stream's position, which is `at` from its start.
    LineWriter(int32_t stream, uint32_t at) : stream_(stream), out_(stream), at_(at) {}

    // printf-formatted text, then CR LF. False once a write has failed.
    __attribute__((format(printf, 2, 3))) bool line(const char* format, ...) {
        va_list args;
        va_start(args, format);
        const bool ok = vput(format, args);
        va_end(args);
        return ok && bytes("\r\n", 2);
    }
    // The same without the line end.
    __attribute__((format(printf, 2, 3))) bool text(const char* format, ...) {
        va_list args;
        va_start(args, format);
        const bool ok = vput(format, args);
        va_end(args);
        return ok;
    }
    bool bytes(const void* data, uint32_t n) { return out_.write(data, n); }

    // Offset from the stream's start of the next byte written.
    uint32_t offset() const { return at_ + uint32_t(out_.total()) + direct_; }
    // 0, or the first failure (IMG_ERR_WRITE for a short write, -38, -1).
    int32_t status() const { return out_.status(); }
    int32_t flush() { return out_.flush() ? 0 : out_.status(); }
    int32_t stream() const { return stream_; }

    // Runs body(stream) for data another writer puts straight on the stream
    // at offset(); returns its status and counts its bytes.
    template <typename Body>
    int32_t direct(Body&& body) {
        if (!out_.flush()) return out_.status();
        const int32_t before = stream::seek(stream_, 0, 1);
        if (before < 0) return before;
        const int32_t r = body(stream_);
        if (r < 0) return r;
        const int32_t after = stream::seek(stream_, 0, 1);
        if (after < 0) return after;
        if (after < before) return IMG_ERR_WRITE;
        direct_ += uint32_t(after - before);
        return 0;
    }

private:
    bool vput(const char* format, va_list args) {
        char buffer[512];
        const int n = std::vsnprintf(buffer, sizeof buffer, format, args);
        if (n < 0 || size_t(n) >= sizeof buffer) return false;
        return out_.write(buffer, uint32_t(n));
    }

    int32_t stream_;
    StreamWriter out_;
    uint32_t at_;
    uint32_t direct_ = 0;
};

// True when the JPEG encoder writes the image as one grey component: at
// most 8 bits, every palette entry grey, entry 0 with a blue value of at
// most 40 (a ramp from black).
inline bool jpeg_grey(const DibHeader* header) {
    const uint32_t bits = header->biBitCount;
    if (bits > 8) return false;
    const RgbQuad* p = dib_palette(header);
    if (p[0].rgbBlue > 40) return false;
    for (uint32_t i = 0; i < (1u << bits); ++i)
        if (p[i].rgbBlue != p[i].rgbGreen || p[i].rgbBlue != p[i].rgbRed) return false;
    return true;
}

// 32-bit images whose fourth byte is alpha (compression 200); other 32-bit
// images hold cyan, magenta, yellow and black.
inline bool has_alpha(const DibHeader* header) {
    return header->biBitCount == 32 && header->biCompression == 200;
}

// A supply that hands an encoder 24-bit rows of a 32-bit alpha image (the
// alpha dropped), so that it is written as RGB rather than as CMYK.
class AlphaDropped {
public:
    AlphaDropped(const DibHeader* header, IMG_SUPPLY_CALLBACK supply, intptr_t user)
        : supply_(supply), user_(user), width_(uint32_t(header->biWidth)) {
        header_ = *header;
        header_.biBitCount = 24;
        header_.biCompression = 0;
        header_.biClrUsed = 0;
        header_.biSizeImage = row_bytes(width_, 24) * uint32_t(header->biHeight);
    }
    // False without memory.
    bool ready() {
        try {
            row_.assign(size_t(row_bytes(width_, 32)) + 8, 0);
        } catch (...) {
            return false;
        }
        return true;
    }
    const DibHeader* header() const { return &header_; }
    intptr_t user() { return reinterpret_cast<intptr_t>(this); }
    static int32_t supply(intptr_t self, uint8_t* buffer, int32_t row, uint32_t) {
        auto* a = reinterpret_cast<AlphaDropped*>(self);
        const int32_t r = a->supply_(a->user_, a->row_.data(), row, row_bytes(a->width_, 32));
        if (r < 0) return r;
        const uint8_t* src = a->row_.data();
        for (uint32_t x = 0; x < a->width_; ++x, src += 4, buffer += 3) {
            buffer[0] = src[0];
            buffer[1] = src[1];
            buffer[2] = src[2];
        }
        return 0;
    }

private:
    DibHeader header_;
    IMG_SUPPLY_CALLBACK supply_;
    intptr_t user_;
    uint32_t width_;
    std::vector<uint8_t> row_;
};

}  // namespace tesslin::text_out
