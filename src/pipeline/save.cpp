// The save driver and the save entry points.
#include "pipeline/save.h"

#include <algorithm>
#include <cstring>

#include "core/api.h"
#include "core/runs.h"
#include "core/settings.h"
#include "core/stream.h"
#include "pipeline/registry.h"
#include "platform/platform.h"
#include "process/colour/ordered_dither.h"

namespace tesslin {

int32_t run_encoder(int32_t stream, const DibHeader* header, int32_t code,
                    IMG_SUPPLY_CALLBACK supply, intptr_t user, const CodeRow* row) {
    if (!row) row = registry::find_code(code).row;
    if (!row || !row->encoder) return IMG_ERR_UNSUPPORTED;
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    const int32_t r = row->encoder(stream, header, supply, user, row->variant);
    return r < 0 ? r : 0;
}

bool has_encoder(int32_t code) {
    const CodeRow* row = registry::find_code(code).row;
    return row && row->encoder;
}

bool uses_run_supply(const CodeRow& row, uint32_t bits) {
    switch (row.supply) {
        case RowSupply::kRuns: return true;
        case RowSupply::kRunsWhenBilevel: return bits == 1;
        default: return false;
    }
}

namespace {

int32_t packed_body(SaveContext* c, uint8_t* buffer, int32_t r, uint32_t n) {
    if (!buffer || r < 0 || uint32_t(r) >= c->crop_height) return IMG_ERR_BAD_IMAGE;
    if (int32_t p = report_progress(c->height, r, n); p < 0) return p;
    BitmapObject* obj = c->obj;
    const int32_t stored = c->crop_y + r;
    if (!obj->run_encoded && c->crop_shift) {
        // A crop that starts inside a byte (1 and 4 bits): every output
        // byte joins the end of one stored byte with the start of the next.
        const uint8_t* src = obj->plain_row(stored);
        const uint32_t first = c->crop_x_bytes, shift = c->crop_shift;
        for (uint32_t i = 0; i < n; ++i) {
            const uint32_t at = first + i;
            const uint32_t hi = at < c->row_bytes ? src[at] : 0;
            const uint32_t lo = at + 1 < c->row_bytes ? src[at + 1] : 0;
            buffer[i] = uint8_t((hi << shift) | (lo >> (8 - shift)));
        }
    } else if (!obj->run_encoded) {
        const uint8_t* src = obj->plain_row(stored) + std::min(c->crop_x_bytes, c->row_bytes);
        const uint32_t avail = c->row_bytes - std::min(c->crop_x_bytes, c->row_bytes);
        const uint32_t take = std::min(n, avail);
        // An encoder reading the row where it is stored (supply_source) has
        // nothing to be copied.
        if (buffer == src && take == n) return 0;
        std::memcpy(buffer, src, take);
        std::memset(buffer + take, 0, n - take);
    } else if (c->crop_width == uint32_t(obj->width)) {
        runs::expand(obj->run_record(stored), uint32_t(obj->width), buffer, n);
    } else {
        // Only the runs inside the crop rectangle, moved to column 0.
        runs::cut_record(obj->run_record(stored), uint32_t(obj->width), c->crop_x,
                         c->crop_width, c->record.data());
        runs::expand(c->record.data(), c->crop_width, buffer, n);
    }
    if (c->tone_map)
        for (uint32_t i = 0; i < n; ++i) buffer[i] = c->tone_map[buffer[i]];
    return 0;
}

int32_t run_body(SaveContext* c, uint8_t* buffer, int32_t r, uint32_t n) {
    if (!buffer || r < 0 || uint32_t(r) >= c->crop_height) return IMG_ERR_BAD_IMAGE;
    BitmapObject* obj = c->obj;
    const uint32_t cw = c->crop_width;
    std::vector<uint32_t>& out = c->record;
    if (obj->run_encoded) {
        if (int32_t p = report_progress(c->height, r, n); p < 0) return p;
        const uint32_t* positions = obj->run_record(c->crop_y + r) + 1;
        const uint32_t x = c->crop_x, end = c->crop_x + cw;
        uint32_t i = 0, skipped = 0;
        while (positions[i] < x) ++i, ++skipped;
        size_t w = 1;
        if (skipped & 1) {
            // Black at the crop's left edge, unless that run ends right there.
            if (positions[i] == x)
                ++i;
            else
                out[w++] = 0;
        }
        for (; positions[i] < end; ++i) out[w++] = positions[i] - x;
        const uint32_t words = static_cast<uint32_t>(w);
        for (uint32_t k = 0; k < 3; ++k) out[w++] = cw;
        for (uint32_t k = 0; k < 3; ++k) out[w++] = cw + 2;
        out[0] = 0;
        std::memcpy(buffer, out.data(), w * 4);
        return static_cast<int32_t>(words * 4 + 24);
    }
    if (obj->bits() == 1) return packed_body(c, buffer, r, n);
    // Deeper images: the packed row, dithered to one bit, as a run record.
    const uint32_t deep = row_bytes(cw, obj->bits());
    if (int32_t s = packed_body(c, c->work.data(), r, deep)) return s;
    colour::dither_row(c->work.data(), obj->bits(), dib_palette(obj->dib), cw, 1, r,
                       c->bilevel.data());
    const uint32_t length = runs::encode(c->bilevel.data(), cw, out.data());
    out[0] = 0;
    std::memcpy(buffer, out.data(), length);
    return static_cast<int32_t>(length);
}

}  // namespace

const uint8_t* supply_source(IMG_SUPPLY_CALLBACK supply, intptr_t user, int32_t row) {
    if (supply != packed_supply || !user) return nullptr;
    const auto* c = reinterpret_cast<const SaveContext*>(user);
    const BitmapObject* obj = c->obj;
    if (!obj || !obj->dib || obj->run_encoded || c->crop_shift || c->tone_map || row < 0 ||
        uint32_t(row) >= c->crop_height)
        return nullptr;
    const uint32_t n = row_bytes(c->crop_width, obj->bits());
    if (c->crop_x_bytes > c->row_bytes || n > c->row_bytes - c->crop_x_bytes) return nullptr;
    return const_cast<BitmapObject*>(obj)->plain_row(c->crop_y + row) + c->crop_x_bytes;
}

int32_t packed_supply(intptr_t user, uint8_t* buffer, int32_t row, uint32_t count) {
    auto* c = reinterpret_cast<SaveContext*>(user);
    return api_call([&] { return packed_body(c, buffer, row, count); });
}

int32_t run_supply(intptr_t user, uint8_t* buffer, int32_t row, uint32_t count) {
    auto* c = reinterpret_cast<SaveContext*>(user);
    return api_call([&] { return run_body(c, buffer, row, count); });
}

int32_t prepare_save(int32_t handle, int32_t code, SaveContext* c, uint8_t* block) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return IMG_ERR_HANDLE;
    if (!obj->dib) return IMG_ERR_MEMORY;
    const uint32_t bits = obj->bits();

    // The encoder header: the bitmap's header and palette, sized to the
    // crop rectangle, with the transparent colour in the colour-count field.
    std::memset(block, 0, kHeaderBlockSize);
    std::memcpy(block, obj->dib, dib_prefix_bytes(obj));
    auto* h = reinterpret_cast<DibHeader*>(block);
    h->biWidth = obj->crop_width;
    h->biHeight = obj->crop_height;
    h->biSizeImage = row_bytes(uint32_t(obj->crop_width), bits) * uint32_t(obj->crop_height);
    if (obj->transparent) h->biClrUsed = obj->transparent_color | kTransparentFlag;

    c->obj = obj;
    c->pixels = obj->pixels();
    c->handle = handle;
    c->height = obj->height;
    c->row_bytes = obj->row_bytes;
    const auto x = static_cast<uint32_t>(obj->crop_x);
    c->crop_x = x;
    // Byte offset of the crop in a packed row, and the bits it starts into
    // that byte for 1- and 4-bit rows.
    c->crop_x_bytes = bits == 1 ? x / 8 : bits == 4 ? x / 2 : x * (bits / 8);
    c->crop_shift = bits == 1 ? x % 8 : bits == 4 ? (x % 2) * 4 : 0;
    c->crop_y = obj->crop_y;
    c->crop_width = static_cast<uint32_t>(obj->crop_width);
    c->crop_height = static_cast<uint32_t>(obj->crop_height);
    c->code = code;
    c->tone_map = save_tone_map(*obj, h, c->tone_table);
    const uint32_t widest = std::max(uint32_t(obj->width), c->crop_width);
    c->record.assign(runs::max_record_bytes(widest) / 4 + 8, 0);
    c->work.assign(size_t(row_bytes(widest, bits)) + 8, 0);
    c->bilevel.assign(size_t(row_bytes(widest, 1)) + 8, 0);
    return 0;
}

int32_t save_handle(int32_t handle, int32_t stream, int32_t code, const CodeRow* row) {
    if (!row) row = registry::find_code(code).row;
    SaveContext c;
    alignas(DibHeader) uint8_t block[kHeaderBlockSize];
    if (int32_t s = prepare_save(handle, code, &c, block)) return s;
    if (!row || !row->encoder) return IMG_ERR_UNSUPPORTED;
    IMG_SUPPLY_CALLBACK supply = uses_run_supply(*row, c.obj->bits()) ? run_supply : packed_supply;
    return run_encoder(stream, reinterpret_cast<DibHeader*>(block), code, supply,
                       reinterpret_cast<intptr_t>(&c), row);
}

namespace {

// The format code IMG_save_bitmap gives a file name: the code whose
// extension the name's last three characters are (compared exactly), or -1.
int32_t code_from_name(const char* file) {
    const size_t n = std::strlen(file);
    if (n < 3) return -1;
    for (const FormatDescriptor* f : registry::formats())
        for (const CodeRow& row : f->codes)
            if (row.by_extension && std::strlen(row.extension) == 3 &&
                std::memcmp(file + n - 3, row.extension, 3) == 0)
                return row.code;
    return -1;
}

// body(stream) on a memory stream over the caller's block; returns the
// bytes written (the stream's final position) or the body's failure.
template <typename F>
int32_t into_memory(void* block, F&& body) {
    if (!block) return IMG_ERR_BAD_IMAGE;
    const int32_t s = stream::mem_create(block);
    if (!s) return IMG_ERR_MEMORY;
    int32_t r = body(s);
    if (r >= 0) r = stream::length(s);
    stream::mem_release(s);
    return r;
}

}  // namespace

int32_t save_named(int32_t handle, const char* file, int32_t code, const CodeRow* row) {
    if (!bitmap_get(handle)) return IMG_ERR_HANDLE;
    if (!file) return IMG_ERR_CREATE;
    if (code == -1) code = code_from_name(file);
    if (!row) row = registry::find_code(code).row;
    // A code without an encoder fails before the file is touched.
    if (!row || !row->encoder) return IMG_ERR_UNSUPPORTED;
    const bool append = row->appends && platform::file_open(file, 3) >= 0;
    const int32_t fd = platform::file_open(file, append ? 1 : 2);
    if (fd < 0) return IMG_ERR_CREATE;
    const int32_t r = save_handle(handle, fd, code, row);
    platform::file_close(fd);
    if (r < 0 && !append) platform::file_delete(file);
    return r;
}

}  // namespace tesslin

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMGLOW_save_bitmap(int32_t stream, const IMG_BITMAPINFOHEADER* header,
                                       int32_t format_code, IMG_SUPPLY_CALLBACK supply,
                                       intptr_t user) {
    return api_call([&] { return run_encoder(stream, header, format_code, supply, user); });
}

TESSLIN_API int32_t IMGLOW_save_bitmap_mem(void* block, const IMG_BITMAPINFOHEADER* header,
                                           int32_t format_code, IMG_SUPPLY_CALLBACK supply,
                                           intptr_t user) {
    return api_call([&] {
        return into_memory(block, [&](int32_t s) {
            return run_encoder(s, header, format_code, supply, user);
        });
    });
}

TESSLIN_API int32_t IMG_save_bitmap_fd(int32_t handle, int32_t stream, int32_t format_code) {
    return api_call([&] { return save_handle(handle, stream, format_code); });
}

TESSLIN_API int32_t IMG_save_bitmap_mem(int32_t handle, void* block, int32_t format_code) {
    return api_call([&]() -> int32_t {
        if (!bitmap_get(handle)) return IMG_ERR_HANDLE;
        return into_memory(block, [&](int32_t s) { return save_handle(handle, s, format_code); });
    });
}

TESSLIN_API int32_t IMG_save_bitmap(int32_t handle, const char* file, int32_t format_code) {
    return api_call([&] { return save_named(handle, file, format_code); });
}

}  // extern "C"
