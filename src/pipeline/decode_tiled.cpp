// Tiled decode: each tile is decoded on its own; a band of one tile row is
// assembled and handed to the library's callbacks row by row.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/runs.h"
#include "core/stream.h"
#include "pipeline/decode.h"
#include "pipeline/detect.h"
#include "core/entry.h"

namespace tesslin {
namespace {

struct TileContext {
    DecodeContext* lib = nullptr;
    TileInfo info{};
    int32_t index = 0;  // tile being decoded
    bool announced = false;
    uint32_t bits = 0;
    uint32_t band_row_bytes = 0;
    std::vector<uint8_t> band;  // one row of tiles, image wide
    std::vector<uint8_t> header_block, tile_row;
    std::vector<uint32_t> positions, record;
};

// The first tile announces the whole image; later tiles must match it.
int32_t tile_header(const IMG_BITMAPINFOHEADER* h, intptr_t user) {
    auto* t = reinterpret_cast<TileContext*>(user);
    return api_call([&]() -> int32_t {
        if (t->announced) return h->biBitCount == t->bits ? 1 : IMG_ERR_BAD_IMAGE;
        t->header_block.assign(kHeaderBlockSize, 0);
        std::memcpy(t->header_block.data(), h, kDibHeaderSize + palette_bytes(h->biBitCount));
        auto* whole = reinterpret_cast<DibHeader*>(t->header_block.data());
        whole->biWidth = t->info.image_width;
        whole->biHeight = t->info.image_height;
        whole->biSizeImage = 0;
        const int32_t r = library_header(whole, reinterpret_cast<intptr_t>(t->lib));
        if (r < 0) return r;
        t->bits = h->biBitCount;
        t->band_row_bytes = row_bytes(uint32_t(t->info.image_width), t->bits);
        t->band.assign(size_t(t->band_row_bytes) * size_t(t->info.tile_height), 0xFF);
        t->tile_row.assign(size_t(row_bytes(uint32_t(t->info.tile_width), t->bits)) + 8, 0);
        t->positions.assign(size_t(t->info.tile_width) + 2, 0);
        t->record.assign(runs::max_record_bytes(uint32_t(t->info.tile_width)) / 4 + 2, 0);
        t->announced = true;
        return 1;
    });
}

// Copies `count` pixels of depth `bits` from column 0 of `src` to column
// `col` of `dst`.
void place(const uint8_t* src, uint8_t* dst, uint32_t col, uint32_t count, uint32_t bits) {
    if (bits >= 8) {
        std::memcpy(dst + col * (bits / 8), src, size_t(count) * (bits / 8));
        return;
    }
    const uint32_t per_byte = 8 / bits, mask = (1u << bits) - 1;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t v = (src[i / per_byte] >> ((per_byte - 1 - i % per_byte) * bits)) & mask;
        const uint32_t x = col + i;
        const uint32_t shift = (per_byte - 1 - x % per_byte) * bits;
        uint8_t& b = dst[x / per_byte];
        b = static_cast<uint8_t>((b & ~(mask << shift)) | (v << shift));
    }
}

int32_t tile_raster(uint8_t* row, intptr_t user, int32_t r, uint32_t count) {
    auto* t = reinterpret_cast<TileContext*>(user);
    return api_call([&]() -> int32_t {
        const TileInfo& info = t->info;
        if (!t->announced || !row || r < 0 || r >= info.tile_height) return IMG_ERR_BAD_IMAGE;
        const uint32_t tw = uint32_t(info.tile_width);
        const uint32_t tile_rb = row_bytes(tw, t->bits);
        const uint8_t* data = row;
        if (count != tile_rb) {
            // A run record of a bilevel tile: expanded from its change list.
            if (t->bits != 1 ||
                !runs::rebuild_record(row, count, tw, t->positions.data(), t->record.data()))
                return IMG_ERR_BAD_IMAGE;
            runs::expand(t->record.data(), tw, t->tile_row.data(), tile_rb);
            data = t->tile_row.data();
        }
        const uint32_t col = uint32_t(t->index % info.tiles_across) * tw;
        const uint32_t iw = uint32_t(info.image_width);
        if (col < iw)
            place(data, t->band.data() + size_t(r) * t->band_row_bytes, col, std::min(tw, iw - col),
                  t->bits);
        return 0;
    });
}

// Hands the assembled band of tile row `band` to the library's callback.
int32_t flush_band(TileContext& t, int32_t band) {
    for (int32_t k = 0; k < t.info.tile_height; ++k) {
        const int64_t y = int64_t(band) * t.info.tile_height + k;
        if (y >= t.info.image_height) break;
        uint8_t* row = t.band.data() + size_t(k) * t.band_row_bytes;
        const int32_t r = library_raster(row, reinterpret_cast<intptr_t>(t.lib), int32_t(y),
                                         t.band_row_bytes);
        if (r < 0) return r;
    }
    std::fill(t.band.begin(), t.band.end(), 0xFF);
    return 0;
}

bool geometry_valid(const TileInfo& i) {
    if (i.image_width < 1 || i.image_height < 1 || i.tile_width < 1 || i.tile_height < 1 ||
        i.tiles_across < 1 || i.tiles_total < 1 || i.tiles_total > 0x7FFF)
        return false;
    const int64_t across = (int64_t(i.image_width) + i.tile_width - 1) / i.tile_width;
    const int64_t down = (int64_t(i.image_height) + i.tile_height - 1) / i.tile_height;
    return i.tiles_across >= across && i.tiles_total >= i.tiles_across * down &&
           int64_t(i.tile_height) * row_bytes64(uint64_t(i.image_width), 32) < 0x7FFFFFFF;
}

}  // namespace

int32_t decode_tiled(int32_t stream, uint32_t offset, int32_t page, const TileInfo& info,
                     Decoder decoder) {
    if (!geometry_valid(info) || offset > 0x7FFFFFFF) return IMG_ERR_BAD_IMAGE;
    DecodeContext ctx;
    if (int32_t s = begin_decode(ctx)) return s;
    TileContext t;
    t.lib = &ctx;
    t.info = info;
    const auto user = reinterpret_cast<intptr_t>(&t);
    const int32_t down = (info.image_height + info.tile_height - 1) / info.tile_height;
    int32_t r = 0;
    for (int32_t i = 0; i < info.tiles_across * down && r >= 0; ++i) {
        t.index = i;
        const int32_t page_arg = int32_t((uint32_t(i) << 16) | (uint32_t(page) & 0xFFFF));
        if (decoder) {
            r = stream::seek(stream, int32_t(offset), 0);
            if (r >= 0) {
                const uint32_t position = page_arg ? uint32_t(page_arg) | kPositionIsPage : offset;
                r = decoder(position, tile_raster, user, tile_header, stream);
            }
        } else {
            r = run_decoder(stream, offset, page_arg, tile_raster, user, tile_header);
        }
        if (r >= 0 && !t.announced) r = IMG_ERR_BAD_IMAGE;
        if (r >= 0 && i % info.tiles_across == info.tiles_across - 1)
            r = flush_band(t, i / info.tiles_across);
    }
    return finish_decode(ctx, r < 0 ? r : 0);
}

}  // namespace tesslin

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMG_decompress_tiled_bitmap(const char* file, int32_t page) {
    return api_call([&]() -> int32_t {
        return with_file(file, [&](int32_t fd) -> int32_t {
            const TypeTag tag = detect_format(fd);
            if (!tag.format || !tag.format->tiles) return IMG_ERR_NOT_TILED;
            stream::seek(fd, 0, 0);
            TileInfo info{};
            if (int32_t s = tag.format->tiles(fd, page, &info); s < 0)
                return s == IMG_ERR_UNSUPPORTED ? IMG_ERR_NOT_TILED : s;
            // The tiled image may start inside the file (CALS: after the
            // header records).
            return decode_tiled(fd, tag.format->tiles_at, page, info, nullptr);
        });
    });
}

}  // extern "C"
