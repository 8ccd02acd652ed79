// The library's own header and raster callbacks: they build the bitmap
// object of a decode and apply the decode settings on the way.
#include <algorithm>
#include <cstring>

#include "core/api.h"
#include "core/pixels.h"
#include "core/runs.h"
#include "core/settings.h"
#include "pipeline/decode.h"
#include "process/colour/ordered_dither.h"
#include "process/colour/palette.h"
#include "process/resample/scale_rows.h"

namespace tesslin {
namespace {

// Depth the image is stored at when the decomp reduction applies to it:
// 8 from 24 bits or more, 4 from 8 bits or more, 1 from 4 bits or more.
bool reduction_applies(int32_t reduction, uint32_t bits) {
    return (reduction == 8 && bits >= 24) || (reduction == 4 && bits >= 8) ||
           (reduction == 1 && bits >= 4);
}

int32_t header_body(const DibHeader* h, DecodeContext* ctx) {
    ctx->header = h;
    ctx->row_order = 1;
    if (h->biWidth < 1 || h->biHeight < 1 || h->biBitCount < 1 || !dib_depth_valid(h->biBitCount))
        return IMG_ERR_BAD_IMAGE;
    BitmapObject* obj = bitmap_get(ctx->handle);
    if (!obj) return IMG_ERR_HANDLE;
    const Settings& s = settings();
    const int32_t width = h->biWidth, height = h->biHeight;
    const uint32_t src_bits = h->biBitCount;

    for (int i = 0; i < 4; ++i) obj->decode_rect[i] = static_cast<uint32_t>(s.decomp_rect[i]);
    obj->rop = kRopSourceCopy;
    obj->last_reduced_row = -1;
    obj->reserved0 = 0;
    if (h->biClrUsed & kTransparentFlag) {
        obj->transparent = 1;
        obj->transparent_color = h->biClrUsed;
    }

    uint32_t bits = src_bits;
    if (reduction_applies(ctx->reduction, src_bits))
        bits = static_cast<uint32_t>(ctx->reduction);
    else
        ctx->reduction = 0;

    // Stored size: the reduced size when both values are set and both are
    // smaller than the image; else the decode rectangle, clipped to the image.
    int32_t stored_w = width, stored_h = height;
    ctx->mode = DecodeContext::Mode::kStore;
    const int32_t rw = s.decomp_width, rh = s.decomp_height;
    const int32_t* rect = s.decomp_rect;
    if (rw > 0 && rh > 0 && rw < width && rh < height) {
        stored_w = rw;
        stored_h = rh;
        obj->reduced_width = rw;
        obj->reduced_height = rh;
        ctx->mode = DecodeContext::Mode::kScale;
    } else if ((rw == 0 || rh == 0) && (rect[0] || rect[1] || rect[2] || rect[3])) {
        const int32_t x = std::max(rect[0], 0), y = std::max(rect[1], 0);
        if (x >= width || y >= height) return IMG_ERR_BAD_IMAGE;
        stored_w = rect[2] > 0 ? std::min(rect[2], width - x) : width - x;
        stored_h = rect[3] > 0 ? std::min(rect[3], height - y) : height - y;
        if (x != 0 || y != 0 || stored_w != width || stored_h != height) {
            ctx->mode = DecodeContext::Mode::kRect;
            ctx->rect_x = x;
            ctx->rect_y = y;
        }
    }

    const bool run_encoded = src_bits == 1;
    bitmap_reset_state(obj, stored_w, stored_h);
    if (bitmap_create_dib(obj, h, stored_w, stored_h, static_cast<int32_t>(bits), run_encoded) != 0)
        return IMG_ERR_MEMORY;
    DibHeader* stored = obj->header();
    if (run_encoded)
        stored->biCompression = IMG_COMPRESSION_RUNS;
    else if (!(bits == 32 && h->biCompression == IMG_COMPRESSION_ALPHA))
        stored->biCompression = 0;
    stored->biClrUsed = stored->biClrImportant = 0;
    // Plain rows are not cleared here: every row is written once, by the
    // decoder's row or, for rows no delivered row reaches, by finish_decode.
    if (!run_encoded) ctx->row_written.assign(size_t(stored_h), 0);
    ctx->rows_written = 0;

    if (ctx->reduction == 8)
        build_standard_palette(stored, "targa");  // the 3-3-2 cube the conversion indexes
    else if (ctx->reduction == 4)
        build_standard_palette(stored, "dither");
    else if (ctx->reduction == 1)
        build_standard_palette(stored, nullptr);

    ctx->obj = obj;
    ctx->src_width = width;
    ctx->src_height = height;
    ctx->src_bits = src_bits;
    ctx->src_row_bytes = row_bytes(static_cast<uint32_t>(width), src_bits);
    ctx->bits = bits;
    std::memcpy(ctx->palette, dib_palette(h), palette_bytes(src_bits));
    const uint32_t widest = static_cast<uint32_t>(std::max(width, stored_w));
    ctx->reduced.assign(size_t(row_bytes(uint32_t(width), bits)) + 8, 0);
    ctx->work.assign(size_t(row_bytes(widest, bits)) + 8, 0);
    ctx->padded.assign(size_t(ctx->src_row_bytes) + 8, 0);
    ctx->record.assign(runs::max_record_bytes(widest) / 4 + 2, 0);
    ctx->record2.assign(ctx->record.size(), 0);
    return 1;
}

// Notes that plain stored row `dest` holds its pixels.
void mark_written(DecodeContext* ctx, int32_t dest) {
    uint8_t& w = ctx->row_written[size_t(dest)];
    ctx->rows_written += w == 0;
    w = 1;
}

// Appends the record of stored row `dest` to the run store. Rows arrive in
// store order (top first, or bottom first when row order is 0); rows a
// decoder skipped are stored white.
int32_t store_record(DecodeContext* ctx, int32_t dest, const uint32_t* record, uint32_t length) {
    BitmapObject* obj = ctx->obj;
    const int32_t index = ctx->row_order == 0 ? obj->height - 1 - dest : dest;
    if (index < obj->runs_stored || index >= obj->height) return IMG_ERR_BAD_IMAGE;
    if (index > obj->runs_stored) {
        uint32_t white[8];
        const uint32_t w = static_cast<uint32_t>(obj->width);
        const uint32_t white_length = runs::record_from_changes(&w, 1, w, white);
        while (obj->runs_stored < index)
            if (run_store_append(obj, white, white_length) != 0) return IMG_ERR_MEMORY;
    }
    return run_store_append(obj, record, length) == 0 ? 0 : IMG_ERR_MEMORY;
}

int32_t raster_body(uint8_t* row, DecodeContext* ctx, int32_t r, uint32_t count) {
    BitmapObject* obj = ctx->obj;
    if (!obj || !obj->dib || !row) return IMG_ERR_BAD_IMAGE;
    if (r < 0 || r >= ctx->src_height) return IMG_ERR_BAD_IMAGE;
    if (int32_t p = report_progress(ctx->src_height, r, count); p < 0) return p;

    const uint32_t src_w = static_cast<uint32_t>(ctx->src_width);
    const bool run_encoded = obj->run_encoded != 0;
    const uint8_t* data = row;
    uint32_t* record = ctx->record.data();
    uint32_t length = 0;
    if (run_encoded && count != ctx->src_row_bytes) {
        // A run record: rebuild it from its change list, so that what is
        // stored is always a well-formed record whatever the decoder sent.
        length = runs::rebuild_record(row, count, src_w, ctx->record2.data(), record);
        if (!length) return IMG_ERR_BAD_IMAGE;
        data = nullptr;
    } else if (count < ctx->src_row_bytes) {
        // A short packed row: the rest is taken as 0.
        std::memcpy(ctx->padded.data(), row, count);
        std::memset(ctx->padded.data() + count, 0, ctx->src_row_bytes - count);
        data = ctx->padded.data();
    }
    if (data && ctx->reduction) {
        colour::dither_row(data, ctx->src_bits, ctx->palette, src_w, ctx->bits, r,
                           ctx->reduced.data());
        data = ctx->reduced.data();
    }
    if (ctx->row_order == 1) ctx->row_order = (r == ctx->src_height - 1 && run_encoded) ? 0 : 2;
    if (data && run_encoded) length = runs::encode(data, src_w, record);

    const uint32_t stored_w = static_cast<uint32_t>(obj->width);
    switch (ctx->mode) {
        case DecodeContext::Mode::kScale: {
            const int32_t dest = static_cast<int32_t>(int64_t(obj->height) * r / ctx->src_height);
            if (dest == obj->last_reduced_row) return 0;
            obj->last_reduced_row = dest;
            if (run_encoded) {
                length = resample::scale_record(record, src_w, stored_w, ctx->record2.data());
                return store_record(ctx, dest, ctx->record2.data(), length);
            }
            resample::scale_row(data, ctx->bits, src_w, ctx->work.data(), stored_w);
            std::memcpy(obj->plain_row(dest), ctx->work.data(), obj->row_bytes);
            mark_written(ctx, dest);
            return 0;
        }
        case DecodeContext::Mode::kRect: {
            if (r < ctx->rect_y || r >= ctx->rect_y + obj->height) return 0;
            const int32_t dest = r - ctx->rect_y;
            const uint32_t x = static_cast<uint32_t>(ctx->rect_x);
            if (run_encoded) {
                length = runs::cut_record(record, src_w, x, stored_w, ctx->record2.data());
                return store_record(ctx, dest, ctx->record2.data(), length);
            }
            const uint32_t full = row_bytes(src_w, ctx->bits);
            const uint32_t from = pixels::column_bytes(x, ctx->bits);
            const uint32_t n = std::min(obj->row_bytes, full - from);
            uint8_t* out = obj->plain_row(dest);
            std::memcpy(out, data + from, n);
            std::memset(out + n, 0, obj->row_bytes - n);
            mark_written(ctx, dest);
            return 0;
        }
        case DecodeContext::Mode::kStore:
            break;
    }
    if (run_encoded) return store_record(ctx, r, record, length);
    // A decoder that built the row in place (raster_destination) has
    // nothing left to copy.
    uint8_t* out = obj->plain_row(r);
    if (data != out) std::memcpy(out, data, obj->row_bytes);
    mark_written(ctx, r);
    return 0;
}

// Clears the plain rows no delivered row reached.
void clear_unwritten(DecodeContext& ctx) {
    BitmapObject* obj = ctx.obj;
    if (!obj || obj->run_encoded || ctx.rows_written >= obj->height) return;
    for (int32_t r = 0; r < obj->height; ++r)
        if (!ctx.row_written[size_t(r)]) std::memset(obj->plain_row(r), 0, obj->row_bytes);
}

}  // namespace

int32_t library_header(const IMG_BITMAPINFOHEADER* header, intptr_t user) {
    auto* ctx = reinterpret_cast<DecodeContext*>(user);
    if (!header || !ctx) return IMG_ERR_BAD_IMAGE;
    return api_call([&] { return header_body(header, ctx); });
}

int32_t library_raster(uint8_t* row, intptr_t user, int32_t row_number, uint32_t byte_count) {
    auto* ctx = reinterpret_cast<DecodeContext*>(user);
    if (!ctx) return IMG_ERR_BAD_IMAGE;
    return api_call([&] { return raster_body(row, ctx, row_number, byte_count); });
}

uint8_t* raster_destination(IMG_RASTER_CALLBACK raster, intptr_t user, int32_t row) {
    if (raster != library_raster || !user) return nullptr;
    auto* ctx = reinterpret_cast<DecodeContext*>(user);
    BitmapObject* obj = ctx->obj;
    if (!obj || !obj->dib || obj->run_encoded || ctx->mode != DecodeContext::Mode::kStore ||
        ctx->reduction || row < 0 || row >= obj->height)
        return nullptr;
    return obj->plain_row(row);
}

int32_t begin_decode(DecodeContext& ctx) {
    ctx.handle = slot_allocate();
    if (ctx.handle < 0) return IMG_ERR_MEMORY;
    ctx.reduction = settings().decomp_reduction;
    return 0;
}

int32_t finish_decode(DecodeContext& ctx, int32_t status) {
    BitmapObject* obj = bitmap_get(ctx.handle);
    if (status >= 0 && (!obj || !obj->dib)) status = IMG_ERR_BAD_IMAGE;
    if (status >= 0 && obj->run_encoded) {
        if (run_store_complete(obj) != 0 || (ctx.row_order == 0 && run_store_reverse(obj) != 0))
            status = IMG_ERR_MEMORY;
    }
    if (status < 0) {
        slot_release(ctx.handle, true);
        return status;
    }
    if (obj == ctx.obj) clear_unwritten(ctx);
    return ctx.handle;
}

}  // namespace tesslin
