// What the benchmarks share: their pages, DIB rows, and codecs run on memory.
//
// letter_page(): a 2,550 x 3,300 text page (letter at 300 dpi) for the
// bilevel benchmarks: the 200-dpi test page scaled by 1.5 with nearest
// neighbour, packed with 1 = white as the library stores bilevel rows.
//
// photo_page(): a corpus photograph, decoded by one of our decoders,
// enlarged with bilinear interpolation and a little deterministic noise so
// that it compresses like a scan rather than like a flat drawing.
//
// bgr_dib_rows(), supply_rows(): RGB pixels as 24-bit DIB rows, and the
// supply callback that hands rows to an encoder.
//
// decode_memory(), encode_memory(): a codec of the library run on a memory
// stream, the way the benchmarks time them; time_decode(): the timing loop
// of a decoder, whose rows are copied out as an application would.
//
// run_records(): every row of a bilevel page as a run record.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/dib.h"
#include "core/runs.h"
#include "core/stream.h"
#include "pipeline/codec.h"

namespace tesslin::bench {

struct Page {
    uint32_t width = 0, height = 0, row_bytes = 0;
    std::vector<uint8_t> rows;  // top row first
};

// A file the benchmark needs, opened for reading; it stops when the file is
// missing.
inline FILE* open_or_exit(const std::string& path) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        std::fprintf(stderr, "missing %s\n", path.c_str());
        std::exit(1);
    }
    return f;
}

// Runs `decode` on a memory stream over `file`; returns its status.
inline int32_t decode_memory(Decoder decode, const std::vector<uint8_t>& file,
                             IMG_RASTER_CALLBACK raster, intptr_t user, IMG_HEADER_CALLBACK header) {
    const int32_t s = stream::mem_create_sized(const_cast<uint8_t*>(file.data()), uint32_t(file.size()));
    const int32_t status = decode(0, raster, user, header, s);
    stream::mem_release(s);
    return status;
}

// Times `decode` on `file` for every iteration of `state`: each row is
// copied out of the decoder's buffer (up to `row_bytes`; 0: not copied) and
// one sample of it summed, so that no work can be optimised away. Aborts
// when the decoder fails.
inline void time_decode(benchmark::State& state, Decoder decode, const std::vector<uint8_t>& file,
                        uint32_t row_bytes) {
    struct Sink {
        std::vector<uint8_t> row;
        uint64_t sum = 0;
    } sink{std::vector<uint8_t>(row_bytes), 0};
    const auto header = [](const IMG_BITMAPINFOHEADER*, intptr_t) -> int32_t { return 1; };
    const auto raster = [](uint8_t* row, intptr_t user, int32_t, uint32_t bytes) -> int32_t {
        auto* s = reinterpret_cast<Sink*>(user);
        if (s->row.empty()) {
            s->sum += row[bytes / 2];
            return 0;
        }
        std::memcpy(s->row.data(), row, std::min<size_t>(bytes, s->row.size()));
        s->sum += s->row[s->row.size() / 2];
        return 0;
    };
    for (auto _ : state)
        if (decode_memory(decode, file, raster, reinterpret_cast<intptr_t>(&sink), header) != 0) std::abort();
    benchmark::DoNotOptimize(sink.sum);
}

// Runs `encode` on a memory stream over `capacity` bytes at `out`; returns
// the bytes written, or the encoder's negative status.
inline int32_t encode_memory(Encoder encode, void* out, uint32_t capacity, const DibHeader& header,
                             IMG_SUPPLY_CALLBACK supply, intptr_t user, int32_t variant) {
    const int32_t s = stream::mem_create_sized(out, capacity);
    const int32_t status = encode(s, &header, supply, user, variant);
    const int32_t end = stream::seek(s, 0, 1);
    stream::mem_release(s);
    return status != 0 ? status : end;
}

// Rows in memory, top row first, `stride` bytes apart; the user value of
// supply_rows.
struct Rows {
    const uint8_t* data = nullptr;
    uint32_t stride = 0;
};

inline int32_t supply_rows(intptr_t user, uint8_t* buffer, int32_t row, uint32_t bytes) {
    const auto* r = reinterpret_cast<const Rows*>(user);
    std::memcpy(buffer, r->data + size_t(row) * r->stride, bytes);
    return 0;
}

// RGB pixels (red, green, blue, top row first) as 24-bit DIB rows: blue,
// green, red, each row padded to row_bytes(width, 24).
inline std::vector<uint8_t> bgr_dib_rows(const std::vector<uint8_t>& rgb, uint32_t width,
                                         uint32_t height) {
    const uint32_t stride = row_bytes(width, 24);
    std::vector<uint8_t> rows(size_t(stride) * height, 0);
    for (uint32_t y = 0; y < height; ++y)
        for (uint32_t x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c)
                rows[size_t(y) * stride + x * 3 + c] = rgb[(size_t(y) * width + x) * 3 + 2 - c];
    return rows;
}

// Every row of a bilevel page as a run record, in whole words.
inline std::vector<std::vector<uint32_t>> run_records(const Page& p) {
    std::vector<std::vector<uint32_t>> records(p.height);
    std::vector<uint32_t> rec(runs::max_record_bytes(p.width) / 4);
    for (uint32_t y = 0; y < p.height; ++y) {
        const uint32_t len = runs::encode(p.rows.data() + size_t(y) * p.row_bytes, p.width, rec.data());
        records[y].assign(rec.begin(), rec.begin() + len / 4);
    }
    return records;
}

inline Page letter_page() {
    std::string path = std::string(TESSLIN_TEST_DATA) + "/corpus/refs/3d67d77b51bcb234.pbm";
    FILE* f = open_or_exit(path);
    unsigned w = 0, h = 0;
    if (std::fscanf(f, "P4 %u %u", &w, &h) != 2) std::exit(1);
    std::fgetc(f);
    const uint32_t src_rb = (w + 7) / 8;
    std::vector<uint8_t> src(size_t(src_rb) * h);
    if (std::fread(src.data(), 1, src.size(), f) != src.size()) std::exit(1);
    std::fclose(f);

    Page p;
    p.width = w * 3 / 2;
    p.height = h * 3 / 2;
    p.row_bytes = ((p.width + 31) / 32) * 4;
    p.rows.assign(size_t(p.row_bytes) * p.height, 0xFF);
    for (uint32_t y = 0; y < p.height; ++y) {
        const uint8_t* s = src.data() + size_t(y * 2 / 3) * src_rb;
        uint8_t* d = p.rows.data() + size_t(y) * p.row_bytes;
        for (uint32_t x = 0; x < p.width; ++x) {
            uint32_t sx = x * 2 / 3;
            if (s[sx >> 3] & (0x80 >> (sx & 7))) d[x >> 3] &= uint8_t(~(0x80 >> (x & 7)));
        }
    }
    return p;
}

// The whole of a file.
inline std::vector<uint8_t> read_all(const std::string& path) {
    FILE* f = open_or_exit(path);
    std::vector<uint8_t> v;
    uint8_t buf[65536];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) v.insert(v.end(), buf, buf + n);
    std::fclose(f);
    return v;
}

// RGB pixels (red, green, blue, top row first) of a 24-bit picture that
// `decode` reads from `path`, enlarged to width x height.
inline std::vector<uint8_t> photo_page(Decoder decode, const std::string& path, uint32_t width,
                                       uint32_t height) {
    struct Source {
        std::vector<uint8_t> rgb;
        uint32_t w = 0, h = 0;
    } src;
    auto keep_header = [](const IMG_BITMAPINFOHEADER* h, intptr_t user) -> int32_t {
        auto* s = reinterpret_cast<Source*>(user);
        s->w = uint32_t(h->biWidth);
        s->h = uint32_t(h->biHeight);
        s->rgb.assign(size_t(s->w) * s->h * 3, 0);
        return 1;
    };
    auto keep_row = [](uint8_t* row, intptr_t user, int32_t y, uint32_t) -> int32_t {
        auto* s = reinterpret_cast<Source*>(user);
        uint8_t* d = s->rgb.data() + size_t(y) * s->w * 3;
        for (uint32_t x = 0; x < s->w; ++x) {
            d[3 * x] = row[3 * x + 2];
            d[3 * x + 1] = row[3 * x + 1];
            d[3 * x + 2] = row[3 * x];
        }
        return 0;
    };
    if (decode_memory(decode, read_all(path), keep_row, reinterpret_cast<intptr_t>(&src), keep_header) != 0)
        std::exit(1);
    std::vector<uint8_t> rgb(size_t(width) * height * 3);
    uint32_t noise = 12345;
    for (uint32_t y = 0; y < height; ++y) {
        const double fy = double(y) * (src.h - 1) / (height - 1);
        const uint32_t y0 = uint32_t(fy), y1 = y0 + 1 < src.h ? y0 + 1 : y0;
        const double wy = fy - y0;
        for (uint32_t x = 0; x < width; ++x) {
            const double fx = double(x) * (src.w - 1) / (width - 1);
            const uint32_t x0 = uint32_t(fx), x1 = x0 + 1 < src.w ? x0 + 1 : x0;
            const double wx = fx - x0;
            for (int c = 0; c < 3; ++c) {
                auto at = [&](uint32_t xx, uint32_t yy) { return double(src.rgb[(size_t(yy) * src.w + xx) * 3 + c]); };
                const double v = (at(x0, y0) * (1 - wx) + at(x1, y0) * wx) * (1 - wy) +
                                 (at(x0, y1) * (1 - wx) + at(x1, y1) * wx) * wy;
                noise = noise * 1103515245u + 12345u;
                const int n = int(v + 0.5) + int((noise >> 16) % 5) - 2;
                rgb[(size_t(y) * width + x) * 3 + c] = uint8_t(n < 0 ? 0 : n > 255 ? 255 : n);
            }
        }
    }
    return rgb;
}

}  // namespace tesslin::bench
