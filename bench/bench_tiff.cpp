// TIFF decoding and LZW writing beside libtiff in the same run, on pages of
// the size users scan:
//
//   BM_DecodeLzwRgb/ours, /libtiff: a 2,550 x 3,300 RGB photograph (the
//     corpus picture enlarged with a little noise) written by libtiff with
//     LZW in its default strips of 8 KB, decoded strip by strip (libtiff:
//     TIFFReadEncodedStrip into one buffer; ours: every row converted to
//     BGR and handed to a callback). .../predictor: the same with
//     horizontal differencing.
//   BM_DecodePackBits/ours, /libtiff: the 2,550 x 3,300 bilevel letter page
//     written by libtiff with PackBits. .../Rgb: the RGB photograph with
//     PackBits (mostly literals).
//   BM_EncodeLzw/ours, /libtiff: the RGB page written with LZW into memory
//     (ours: format code 9 from BGR rows, one strip; libtiff:
//     TIFFWriteEncodedStrip from RGB rows in its default strips).
#include <benchmark/benchmark.h>
#include <tiffio.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/dib.h"
#include "core/stream.h"
#include "formats/tiff/tiff.h"
#include "bench_util.h"
#include "libtiff_memory.h"

using namespace tesslin;
using bench::MemFile;
using bench::mem_open;

namespace {

constexpr uint32_t kWidth = 2550, kHeight = 3300;

// Writes a page with libtiff in its default strips.
std::vector<uint8_t> libtiff_write(const uint8_t* rows, uint32_t width, uint32_t height,
                                   uint32_t samples, uint32_t bits, uint16_t compression,
                                   uint16_t predictor) {
    MemFile m;
    TIFF* t = mem_open(m, "w");
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, bits);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, samples == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, compression);
    if (predictor > 1) TIFFSetField(t, TIFFTAG_PREDICTOR, predictor);
    const uint32_t rps = TIFFDefaultStripSize(t, 0);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, rps);
    const tsize_t row = TIFFScanlineSize(t);
    for (uint32_t y = 0, s = 0; y < height; y += rps, ++s) {
        const uint32_t n = std::min(rps, height - y);
        if (TIFFWriteEncodedStrip(t, s, const_cast<uint8_t*>(rows + size_t(y) * size_t(row)),
                                  tsize_t(n) * row) < 0)
            std::abort();
    }
    TIFFClose(t);
    return m.data;
}

// ---- Pages --------------------------------------------------------------

// Rows our reader delivers, each cut to `bytes`.
struct Collect {
    uint32_t bytes = 0;
    std::vector<uint8_t> data;
};
int32_t collect_header(const IMG_BITMAPINFOHEADER*, intptr_t) { return 1; }
int32_t collect_row(uint8_t* row, intptr_t user, int32_t y, uint32_t) {
    auto* c = reinterpret_cast<Collect*>(user);
    std::memcpy(c->data.data() + size_t(y) * c->bytes, row, c->bytes);
    return 0;
}
std::vector<uint8_t> our_rows(const std::vector<uint8_t>& file, uint32_t bytes, uint32_t height) {
    Collect c;
    c.bytes = bytes;
    c.data.assign(size_t(bytes) * height, 0);
    if (bench::decode_memory(tesslin::tiff::decode, file, collect_row, reinterpret_cast<intptr_t>(&c), collect_header) != 0)
        std::abort();
    return c.data;
}

struct Pages {
    std::vector<uint8_t> rgb;       // RGB page, top row first
    std::vector<uint8_t> bgr_rows;  // the same as DIB rows
    uint32_t dib_row = 0;
    std::vector<uint8_t> lzw, lzw_predictor, packbits, packbits_rgb;
};

void verify(const Pages& pg, const std::vector<uint8_t>& packed);

const Pages& pages() {
    static Pages p = [] {
        Pages pg;
        pg.rgb = bench::photo_page(tesslin::tiff::decode, std::string(TESSLIN_TEST_DATA) + "/corpus/tone/rgb-none.tif",
                                   kWidth, kHeight);
        pg.dib_row = row_bytes(kWidth, 24);
        pg.bgr_rows = bench::bgr_dib_rows(pg.rgb, kWidth, kHeight);
        pg.lzw = libtiff_write(pg.rgb.data(), kWidth, kHeight, 3, 8, COMPRESSION_LZW, 1);
        pg.lzw_predictor = libtiff_write(pg.rgb.data(), kWidth, kHeight, 3, 8, COMPRESSION_LZW, 2);
        pg.packbits_rgb = libtiff_write(pg.rgb.data(), kWidth, kHeight, 3, 8, COMPRESSION_PACKBITS, 1);
        // The letter page with 0 = white as TIFF's min-is-black wants 1 =
        // white: our rows already hold 1 = white.
        const bench::Page letter = bench::letter_page();
        const uint32_t rb = (letter.width + 7) / 8;
        std::vector<uint8_t> packed(size_t(rb) * letter.height);
        for (uint32_t y = 0; y < letter.height; ++y)
            std::memcpy(packed.data() + size_t(y) * rb, letter.rows.data() + size_t(y) * letter.row_bytes, rb);
        pg.packbits = libtiff_write(packed.data(), letter.width, letter.height, 1, 1, COMPRESSION_PACKBITS, 1);
        verify(pg, packed);
        return pg;
    }();
    return p;
}

// Before timing anything: both readers agree on every file, and libtiff
// reads our LZW file back to the page.
std::vector<uint8_t> our_lzw_file(const Pages& p);
std::vector<uint8_t> libtiff_rows(const std::vector<uint8_t>& file) {
    MemFile m;
    m.data = file;
    TIFF* t = mem_open(m, "r");
    std::vector<uint8_t> out;
    std::vector<uint8_t> strip(size_t(TIFFStripSize(t)));
    for (uint32_t s = 0; s < TIFFNumberOfStrips(t); ++s) {
        const tsize_t n = TIFFReadEncodedStrip(t, s, strip.data(), tsize_t(strip.size()));
        if (n < 0) std::abort();
        out.insert(out.end(), strip.begin(), strip.begin() + n);
    }
    TIFFClose(t);
    return out;
}

void verify(const Pages& pg, const std::vector<uint8_t>& packed) {
    std::vector<uint8_t> bgr(pg.rgb.size());
    for (size_t i = 0; i < pg.rgb.size(); i += 3) {
        bgr[i] = pg.rgb[i + 2];
        bgr[i + 1] = pg.rgb[i + 1];
        bgr[i + 2] = pg.rgb[i];
    }
    if (our_rows(pg.lzw, kWidth * 3, kHeight) != bgr || our_rows(pg.lzw_predictor, kWidth * 3, kHeight) != bgr ||
        our_rows(pg.packbits_rgb, kWidth * 3, kHeight) != bgr ||
        our_rows(pg.packbits, (kWidth + 7) / 8, kHeight) != packed ||
        libtiff_rows(our_lzw_file(pg)) != pg.rgb) {
        std::fprintf(stderr, "decoders disagree\n");
        std::abort();
    }
}

// ---- Decoding --------------------------------------------------------------

void decode_ours(benchmark::State& state, const std::vector<uint8_t>& file, uint64_t pixels) {
    bench::time_decode(state, tesslin::tiff::decode, file, 0);
    state.SetItemsProcessed(int64_t(state.iterations() * pixels));
}

void decode_libtiff(benchmark::State& state, const std::vector<uint8_t>& file, uint64_t pixels) {
    MemFile m;
    m.data = file;
    uint64_t sum = 0;
    std::vector<uint8_t> strip;
    for (auto _ : state) {
        TIFF* t = mem_open(m, "r");
        strip.resize(size_t(TIFFStripSize(t)));
        const uint32_t strips = TIFFNumberOfStrips(t);
        for (uint32_t s = 0; s < strips; ++s) {
            const tsize_t n = TIFFReadEncodedStrip(t, s, strip.data(), tsize_t(strip.size()));
            if (n < 0) std::abort();
            sum += strip[size_t(n) / 2];
        }
        TIFFClose(t);
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations() * pixels));
}

constexpr uint64_t kPixels = uint64_t(kWidth) * kHeight;

void BM_DecodeLzwRgb_ours(benchmark::State& s) { decode_ours(s, pages().lzw, kPixels); }
void BM_DecodeLzwRgb_libtiff(benchmark::State& s) { decode_libtiff(s, pages().lzw, kPixels); }
void BM_DecodeLzwRgbPredictor_ours(benchmark::State& s) { decode_ours(s, pages().lzw_predictor, kPixels); }
void BM_DecodeLzwRgbPredictor_libtiff(benchmark::State& s) {
    decode_libtiff(s, pages().lzw_predictor, kPixels);
}
void BM_DecodePackBits_ours(benchmark::State& s) { decode_ours(s, pages().packbits, kPixels); }
void BM_DecodePackBits_libtiff(benchmark::State& s) { decode_libtiff(s, pages().packbits, kPixels); }
void BM_DecodePackBitsRgb_ours(benchmark::State& s) { decode_ours(s, pages().packbits_rgb, kPixels); }
void BM_DecodePackBitsRgb_libtiff(benchmark::State& s) { decode_libtiff(s, pages().packbits_rgb, kPixels); }

// ---- Encoding --------------------------------------------------------------

int32_t encode_ours(const Pages& p, std::vector<uint8_t>& buffer) {
    DibHeader h = dib_header(kWidth, kHeight, 24);
    h.biXPelsPerMeter = h.biYPelsPerMeter = 300;
    const bench::Rows rows{p.bgr_rows.data(), p.dib_row};
    buffer[0] = 0;  // no TIFF there yet: a new file, not a page appended
    const int32_t size = bench::encode_memory(tesslin::tiff::encode, buffer.data(), uint32_t(buffer.size()), h,
                                              bench::supply_rows, reinterpret_cast<intptr_t>(&rows), 9);
    if (size < 0) std::abort();
    return size;
}

std::vector<uint8_t> our_lzw_file(const Pages& p) {
    std::vector<uint8_t> buffer(p.rgb.size() * 2);
    buffer.resize(size_t(encode_ours(p, buffer)));
    return buffer;
}

void BM_EncodeLzw_ours(benchmark::State& state) {
    const Pages& p = pages();
    std::vector<uint8_t> buffer(p.rgb.size() * 2);
    int32_t size = 0;
    for (auto _ : state) size = encode_ours(p, buffer);
    state.counters["bytes_out"] = double(size);
    state.SetItemsProcessed(int64_t(state.iterations() * kPixels));
}

void BM_EncodeLzw_libtiff(benchmark::State& state) {
    const Pages& p = pages();
    size_t size = 0;
    for (auto _ : state)
        size = libtiff_write(p.rgb.data(), kWidth, kHeight, 3, 8, COMPRESSION_LZW, 1).size();
    state.counters["bytes_out"] = double(size);
    state.SetItemsProcessed(int64_t(state.iterations() * kPixels));
}

}  // namespace

BENCHMARK(BM_DecodeLzwRgb_ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodeLzwRgb_libtiff)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodeLzwRgbPredictor_ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodeLzwRgbPredictor_libtiff)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodePackBits_ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodePackBits_libtiff)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodePackBitsRgb_ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodePackBitsRgb_libtiff)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_EncodeLzw_ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_EncodeLzw_libtiff)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
