// GIF decode (and encode) of a 2-megapixel 256-colour image beside giflib
// in the same run. The image is the corpus photograph enlarged to 1,732 x
// 1,155 with bilinear interpolation and a little noise, reduced to the
// 3-3-2 colour cube, so that it compresses like a scanned picture.
//
//   BM_Decode/ours, BM_Decode/giflib: the file giflib writes, decoded row
//     by row (giflib: DGifGetLine per row).
//   BM_DecodeOurFile/...: the file our writer makes.
//   BM_Encode/ours, BM_Encode/giflib: the image written by each library.
#include <benchmark/benchmark.h>
#include <gif_lib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_util.h"
#include "core/dib.h"
#include "formats/gif/gif.h"
#include "formats/png/png.h"

using namespace tesslin;

namespace {

constexpr uint32_t kWidth = 1732, kHeight = 1155;

struct Image {
    std::vector<uint8_t> indices;  // one byte a pixel, top row first
    uint8_t palette[256][3];
    std::vector<uint8_t> giflib_file, our_file;
};

int giflib_write(GifFileType* gif, const GifByteType* data, int n) {
    auto* out = static_cast<std::vector<uint8_t>*>(gif->UserData);
    out->insert(out->end(), data, data + n);
    return n;
}

std::vector<uint8_t> giflib_encode(const Image& im) {
    std::vector<uint8_t> out;
    int error = 0;
    GifFileType* gif = EGifOpen(&out, giflib_write, &error);
    ColorMapObject* map = GifMakeMapObject(256, nullptr);
    for (int i = 0; i < 256; ++i)
        map->Colors[i] = GifColorType{im.palette[i][0], im.palette[i][1], im.palette[i][2]};
    if (!gif || !map || EGifPutScreenDesc(gif, kWidth, kHeight, 8, 0, map) == GIF_ERROR ||
        EGifPutImageDesc(gif, 0, 0, kWidth, kHeight, false, nullptr) == GIF_ERROR)
        std::abort();
    for (uint32_t y = 0; y < kHeight; ++y)
        if (EGifPutLine(gif, const_cast<GifPixelType*>(im.indices.data() + size_t(y) * kWidth), kWidth) ==
            GIF_ERROR)
            std::abort();
    if (EGifCloseFile(gif, &error) == GIF_ERROR) std::abort();
    GifFreeMapObject(map);
    return out;
}

// The image as DIB rows for our writer: header with palette, rows.
struct Dib {
    std::vector<uint8_t> header;  // 40 bytes and 1024 of palette
    std::vector<uint8_t> rows;
    uint32_t stride = 0;
};

Dib dib_of(const Image& im) {
    Dib d;
    d.header.assign(kHeaderBlockSize, 0);
    *reinterpret_cast<DibHeader*>(d.header.data()) = dib_header(kWidth, kHeight, 8);
    for (int i = 0; i < 256; ++i)
        dib_palette(d.header.data())[i] = RgbQuad{im.palette[i][2], im.palette[i][1], im.palette[i][0], 0};
    d.stride = row_bytes(kWidth, 8);
    d.rows.assign(size_t(d.stride) * kHeight, 0);
    for (uint32_t y = 0; y < kHeight; ++y)
        std::memcpy(d.rows.data() + size_t(y) * d.stride, im.indices.data() + size_t(y) * kWidth, kWidth);
    return d;
}

int32_t our_encode(const Dib& d, std::vector<uint8_t>& buffer) {
    const bench::Rows rows{d.rows.data(), d.stride};
    const int32_t end = bench::encode_memory(gif::encode, buffer.data(), uint32_t(buffer.size()),
                                             *reinterpret_cast<const DibHeader*>(d.header.data()),
                                             bench::supply_rows, reinterpret_cast<intptr_t>(&rows),
                                             IMG_FORMAT_GIF);
    if (end < 0) std::abort();
    return end;
}

const Image& image() {
    static Image im = [] {
        Image m;
        const std::vector<uint8_t> rgb = bench::photo_page(
            png_decode, std::string(TESSLIN_TEST_DATA) + "/corpus/png/rgb.png", kWidth, kHeight);
        m.indices.resize(size_t(kWidth) * kHeight);
        for (size_t i = 0; i < m.indices.size(); ++i)
            m.indices[i] = uint8_t((rgb[3 * i] & 0xE0) | ((rgb[3 * i + 1] >> 3) & 0x1C) | (rgb[3 * i + 2] >> 6));
        for (int i = 0; i < 256; ++i) {
            m.palette[i][0] = uint8_t(((i >> 5) & 7) * 255 / 7);
            m.palette[i][1] = uint8_t(((i >> 2) & 7) * 255 / 7);
            m.palette[i][2] = uint8_t((i & 3) * 255 / 3);
        }
        m.giflib_file = giflib_encode(m);
        std::vector<uint8_t> buffer(m.indices.size() * 2);
        m.our_file.assign(buffer.begin(), buffer.begin() + our_encode(dib_of(m), buffer));
        return m;
    }();
    return im;
}

// --- decoding ---------------------------------------------------------------

void decode_ours(benchmark::State& state, const std::vector<uint8_t>& file) {
    bench::time_decode(state, gif::decode, file, row_bytes(kWidth, 8));
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

struct MemRead {
    const std::vector<uint8_t>* file;
    size_t pos;
};
int giflib_read(GifFileType* gif, GifByteType* out, int n) {
    auto* m = static_cast<MemRead*>(gif->UserData);
    const size_t take = std::min(size_t(n), m->file->size() - m->pos);
    std::memcpy(out, m->file->data() + m->pos, take);
    m->pos += take;
    return int(take);
}

void decode_giflib(benchmark::State& state, const std::vector<uint8_t>& file) {
    std::vector<GifPixelType> row(kWidth);
    uint64_t sum = 0;
    for (auto _ : state) {
        MemRead m{&file, 0};
        int error = 0;
        GifFileType* gif = DGifOpen(&m, giflib_read, &error);
        GifRecordType type;
        do {
            if (!gif || DGifGetRecordType(gif, &type) == GIF_ERROR) std::abort();
            if (type == EXTENSION_RECORD_TYPE) {
                int code = 0;
                GifByteType* ext = nullptr;
                DGifGetExtension(gif, &code, &ext);
                while (ext) DGifGetExtensionNext(gif, &ext);
            }
        } while (type != IMAGE_DESC_RECORD_TYPE);
        if (DGifGetImageDesc(gif) == GIF_ERROR) std::abort();
        for (uint32_t y = 0; y < kHeight; ++y) {
            if (DGifGetLine(gif, row.data(), kWidth) == GIF_ERROR) std::abort();
            sum += row[kWidth / 2];
        }
        DGifCloseFile(gif, &error);
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void BM_Decode_ours(benchmark::State& state) { decode_ours(state, image().giflib_file); }
void BM_Decode_giflib(benchmark::State& state) { decode_giflib(state, image().giflib_file); }
void BM_DecodeOurFile_ours(benchmark::State& state) { decode_ours(state, image().our_file); }
void BM_DecodeOurFile_giflib(benchmark::State& state) { decode_giflib(state, image().our_file); }

// --- encoding ---------------------------------------------------------------

void BM_Encode_ours(benchmark::State& state) {
    const Dib d = dib_of(image());
    std::vector<uint8_t> buffer(image().indices.size() * 2);
    int32_t size = 0;
    for (auto _ : state) size = our_encode(d, buffer);
    state.counters["bytes_out"] = double(size);
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void BM_Encode_giflib(benchmark::State& state) {
    size_t size = 0;
    for (auto _ : state) size = giflib_encode(image()).size();
    state.counters["bytes_out"] = double(size);
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

}  // namespace

BENCHMARK(BM_Decode_ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Decode_giflib)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodeOurFile_ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DecodeOurFile_giflib)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Encode_ours)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Encode_giflib)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
