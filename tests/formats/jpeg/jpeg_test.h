// Helpers of the JPEG tests: the decoder and encoder run on bytes in
// memory, a decode's samples as netpbm holds them, DIBs from references.
#pragma once

#include "formats/jpeg/jpeg.h"
#include "formats/jpeg/jpeg_internal.h"
#include "test_util.h"

namespace tesslin::test {

// Runs `body` once for every instruction set of the codec's kernels that
// the processor has, from the best down to the portable code, with the
// codec limited to it; the limit is lifted afterwards.
template <typename F>
void for_each_isa(F&& body) {
    static const char* const names[] = {"portable", "SSE2", "SSE4.1", "AVX2"};
    for (int i = int(jpeg::best_isa()); i >= 0; --i) {
        SCOPED_TRACE(std::string("kernels ") + names[i]);
        jpeg::limit_kernels(jpeg::Isa(i));
        body(jpeg::kernels());
    }
    jpeg::limit_kernels(jpeg::Isa::kAvx2);
}

inline int32_t jpeg_decode_bytes(const Bytes& bytes, Decoded* out, const jpeg::DecodeOptions& options = {},
                                 uint32_t position = 0) {
    *out = decode_with(
        [&](uint32_t p, IMG_RASTER_CALLBACK r, intptr_t u, IMG_HEADER_CALLBACK h, int32_t s) {
            return jpeg::decode(options, p, r, u, h, s);
        },
        bytes, position, *out);
    return out->status;
}
inline int32_t jpeg_decode_file(const std::string& path, Decoded* out, const jpeg::DecodeOptions& options = {}) {
    if (!fs::exists(path)) return IMG_ERR_OPEN;
    return jpeg_decode_bytes(read_file(path), out, options);
}

// Offset of the first marker `m` (0xFF m) after SOI.
inline size_t find_marker(const Bytes& f, uint8_t m) {
    for (size_t i = 2; i + 1 < f.size(); ++i)
        if (f[i] == 0xFF && f[i + 1] == m) return i;
    return std::string::npos;
}

// The file with `values` written from byte `at` of the first `marker`
// segment (counted from its 0xFF).
inline Bytes patched(Bytes f, uint8_t marker, size_t at, const Bytes& values) {
    std::copy(values.begin(), values.end(), f.begin() + long(find_marker(f, marker) + at));
    return f;
}

// A decode's samples as netpbm holds them: grey for 8 bits, RGB for 24,
// the four stored bytes for 32.
inline Bytes samples(const Decoded& d) {
    Bytes out;
    const size_t n = size_t(d.bits()) / 8;
    for (const Bytes& r : d.rows)
        for (size_t x = 0; x < size_t(d.width()); ++x)
            if (n == 3) out.insert(out.end(), {r[3 * x + 2], r[3 * x + 1], r[3 * x]});
            else out.insert(out.end(), r.begin() + long(n * x), r.begin() + long(n * x + n));
    return out;
}

// A DIB in a library block from netpbm samples: grey 8-bit with the grey
// ramp, RGB as 24-bit BGR, four channels as 32-bit.
inline void* dib_from_pnm(const Raster& p) {
    const int bits = p.channels == 1 ? 8 : p.channels == 3 ? 24 : 32;
    return make_dib(p.width, p.height, bits, [&](uint8_t* row, uint32_t, int32_t r) {
        const uint8_t* s = p.px.data() + size_t(r) * size_t(p.width) * size_t(p.channels);
        for (size_t x = 0; x < size_t(p.width); ++x)
            for (size_t c = 0; c < size_t(p.channels); ++c)
                row[x * size_t(p.channels) + c] = s[x * size_t(p.channels) + (p.channels == 3 ? 2 - c : c)];
    });
}

// Encodes a DIB through the JPEG encoder into bytes; *status gets the
// result. The supply fails with -7 at row fail_at.
inline Bytes jpeg_encode_dib(const void* dib, int32_t* status = nullptr, int fail_at = -1, uint32_t capacity = 0) {
    struct Source {
        const uint8_t* dib;
        int fail_at;
        static int32_t supply(intptr_t user, uint8_t* buffer, int32_t row, uint32_t bytes) {
            auto* s = reinterpret_cast<Source*>(user);
            const auto* h = reinterpret_cast<const DibHeader*>(s->dib);
            const uint32_t rb = row_bytes(uint32_t(h->biWidth), h->biBitCount);
            if (row == s->fail_at) return -7;
            if (bytes != rb) return -98;
            std::memcpy(buffer, s->dib + 40 + palette_bytes(h->biBitCount) + size_t(h->biHeight - 1 - row) * rb, bytes);
            return 0;
        }
    };
    const auto* h = static_cast<const DibHeader*>(dib);
    if (!capacity) capacity = 4096 + row_bytes(uint32_t(h->biWidth), 32) * uint32_t(h->biHeight) * 2;
    void* block = tesslin_block_alloc(capacity);
    const int32_t s = stream::mem_create_sized(block, capacity);
    Source src{static_cast<const uint8_t*>(dib), fail_at};
    const int32_t r = jpeg::encode(s, h, Source::supply, reinterpret_cast<intptr_t>(&src), 0);
    const int32_t n = stream::seek(s, 0, 1);
    Bytes out;
    if (r == 0 && n > 0) out.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
    stream::mem_release(s);
    tesslin_block_free(block);
    if (status) *status = r;
    return out;
}

}  // namespace tesslin::test
