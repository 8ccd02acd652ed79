// IMG_decompress_fax and IMG_decompress_fax_mem: headerless fax data whose
// width (and perhaps height) the caller knows, into a new bitmap handle.
#include <algorithm>
#include <vector>

#include "core/api.h"
#include "core/io.h"
#include "core/runs.h"
#include "core/stream.h"
#include "formats/ccitt/fax_page.h"
#include "formats/rawfax/rawfax.h"
#include "pipeline/codec.h"
#include "core/entry.h"

namespace tesslin::rawfax {

namespace {

constexpr int32_t kAbicBilevel = 5;
constexpr int32_t kAbicGrey = 6;
constexpr int32_t kAbicDpi = 100;

// The decoder mode a caller's mode stands for: 2 is two-dimensional Group 3
// (an EOL and a tag bit before every row), 3 one-dimensional Group 3 with
// EOL codes, 4 Group 4; every other value Modified Huffman with no EOL
// handling and no row alignment, which the decoder reads from memory.
int32_t decoder_mode(int32_t mode) {
    switch (mode) {
        case 2: return ccitt::kModeG3Mr;
        case 3: return ccitt::kModeG3;
        case 4: return ccitt::kModeG4;
        default: return ccitt::kModeMhMemory;
    }
}

// Reads the rest of the stream, at most `limit` bytes, for the memory mode.
int32_t load_rest(int32_t stream, uint64_t limit, std::vector<uint8_t>& out) {
    StreamReader in(stream);
    limit = std::min<uint64_t>(limit, 0x7FFFFFFF);
    while (out.size() < limit) {
        const size_t old = out.size();
        const size_t want = size_t(std::min<uint64_t>(kIoBlock, limit - old));
        out.resize(old + want);
        const uint32_t got = in.read_some(out.data() + old, uint32_t(want));
        out.resize(old + got);
        if (got < want) break;
    }
    if (in.status() < 0 && in.status() != IMG_ERR_READ) return in.status();
    return 0;
}

// Rows of a page of unknown length, kept as run records until the length is
// known.
struct PageRows {
    uint32_t width = 0;
    uint32_t packed_bytes = 0;
    std::vector<uint32_t> words;   // the records one after the other
    std::vector<size_t> starts;    // where each row's record begins
    std::vector<uint32_t> scratch; // a packed row encoded as a record

    static int32_t take(uint8_t* row, intptr_t user, int32_t index, uint32_t count) {
        auto* p = reinterpret_cast<PageRows*>(user);
        if (index < 0 || size_t(index) != p->starts.size()) return IMG_ERR_BAD_IMAGE;
        p->starts.push_back(p->words.size());
        if (count == p->packed_bytes) {
            const uint32_t length = runs::encode(row, p->width, p->scratch.data());
            p->words.insert(p->words.end(), p->scratch.begin(), p->scratch.begin() + length / 4);
        } else {
            const auto* record = reinterpret_cast<const uint32_t*>(row);
            p->words.insert(p->words.end(), record, record + count / 4);
        }
        return 0;
    }
};

// What one decode needs: the page's parameters and where its data is.
struct FaxJob {
    ccitt::FaxParams params;
    const uint8_t* data;
    int32_t stream;
    int64_t data_bytes;
};

// Decodes a job through the callbacks given. With a height the decoder
// delivers that many rows, white (Group 4: repeated) after the end of the
// page; without one it stops at the end of the page and the bitmap gets the
// rows found.
int32_t decode_job(void* context, IMG_RASTER_CALLBACK library_raster, intptr_t user,
                   IMG_HEADER_CALLBACK library_header) {
    FaxJob& job = *static_cast<FaxJob*>(context);
    ccitt::FaxParams params = job.params;
    const uint8_t* data = job.data;
    const int32_t stream = job.stream;
    const int64_t data_bytes = job.data_bytes;
    if (params.height > 0)
        return ccitt::decode_page(params, 0, 0, data, stream, library_raster, user,
                                  library_header);

    if (int32_t s = ccitt::check_page(params.width, 1, data_bytes); s < 0) return s;
    PageRows rows;
    rows.width = params.width;
    rows.packed_bytes = row_bytes(params.width, 1);
    rows.scratch.resize(runs::max_record_bytes(params.width) / 4 + 1);
    // Every row costs the data at least one bit.
    params.height = data_bytes < 0 ? INT32_MAX
                                   : uint32_t(std::min<int64_t>(data_bytes * 8, INT32_MAX));
    params.flags |= ccitt::kFaxStopAtPageEnd;
    const int32_t r = ccitt::fax_decode(data, params.height, 0, params, stream, PageRows::take,
                                        reinterpret_cast<intptr_t>(&rows));
    if (r < 0) return r;
    if (rows.starts.empty()) return IMG_ERR_READ;
    const uint32_t height = uint32_t(rows.starts.size());
    if (int32_t s = ccitt::announce_page(params.width, height, 0, 0, data_bytes, library_header,
                                         user))
        return s;
    for (uint32_t y = 0; y < height; ++y) {
        uint32_t* record = rows.words.data() + rows.starts[y];
        if (int32_t s = library_raster(reinterpret_cast<uint8_t*>(record), user, int32_t(y),
                                       record[0]);
            s < 0)
            return s;
    }
    return 0;
}

}  // namespace

int32_t decompress(int32_t stream, int32_t width, int32_t height, int32_t mode,
                   int32_t fill_order) {
    if (mode == kAbicBilevel || mode == kAbicGrey) {
        const AbicParams p{width, height, mode == kAbicBilevel ? 1 : 4, kAbicDpi, kAbicDpi};
        return abic_decode_image(stream, p);
    }
    if (width < 1 || uint32_t(width) > ccitt::kMaxFaxWidth || height < 0)
        return IMG_ERR_BAD_IMAGE;
    ccitt::FaxParams params = ccitt::page_params(uint32_t(width), uint32_t(height),
                                                 decoder_mode(mode), fill_order == 2 ? 2 : 1);

    const int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here;
    int64_t data_bytes = ccitt::bytes_from(stream, uint32_t(here));
    std::vector<uint8_t> data;
    if (params.mode == ccitt::kModeMhMemory) {
        // A Modified Huffman row never needs more than 26 bits a pixel;
        // without a height (or a known size) the data runs to the end of
        // the stream.
        uint64_t limit = data_bytes < 0 ? UINT64_MAX : uint64_t(data_bytes);
        if (height > 0)
            limit = std::min<uint64_t>(limit, (uint64_t(width) + 2) * 26 / 8 * uint64_t(height) + 64);
        if (int32_t s = load_rest(stream, limit, data); s < 0) return s;
        data_bytes = int64_t(data.size());
        params.data_length = uint32_t(data.size());
    }

    FaxJob job{params, data.empty() ? nullptr : data.data(), stream, data_bytes};
    return decode_into_handle(decode_job, &job);
}

}  // namespace tesslin::rawfax

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMG_decompress_fax(int32_t stream, int32_t width, int32_t height,
                                       int32_t mode, int32_t fill_order) {
    return api_call([&] { return rawfax::decompress(stream, width, height, mode, fill_order); });
}

TESSLIN_API int32_t IMG_decompress_fax_mem(const void* block, int32_t width, int32_t height,
                                           int32_t mode, int32_t fill_order) {
    return api_call([&]() -> int32_t {
        return with_memory(block, [&](int32_t s) {
            return rawfax::decompress(s, width, height, mode, fill_order);
        });
    });
}

}  // extern "C"
