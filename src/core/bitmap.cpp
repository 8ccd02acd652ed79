#include "core/bitmap.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "core/runs.h"
#include "platform/platform.h"

namespace tesslin {
namespace {

// A slot holds 0 (free), 1 (reserved between search and allocation) or the
// object's address. Static storage is zero at load.
constexpr uintptr_t kReserved = 1;
std::atomic<uintptr_t> g_slots[kTableSlots];

// Slack kept beyond a DIB's capacity so that small overruns of a growing
// run store never reach past the block.
constexpr uint32_t kDibSlack = 8192;
constexpr uint32_t kRunGrowthStep = 32768;

}  // namespace

int32_t slot_allocate() {
    if (platform::mutex_lock() != 0) return -1;
    int32_t found = -1;
    // Every search starts at slot 100 and wraps to 0 after 9999.
    for (int32_t i = 0; i < kTableSlots; ++i) {
        int32_t slot = (kFirstHandle + i) % kTableSlots;
        if (g_slots[slot].load(std::memory_order_relaxed) == 0) {
            g_slots[slot].store(kReserved, std::memory_order_relaxed);
            found = slot;
            break;
        }
    }
    platform::mutex_unlock();
    if (found < 0) return -1;
    auto* obj = static_cast<BitmapObject*>(platform::block_alloc(sizeof(BitmapObject)));
    if (!obj) {
        g_slots[found].store(0, std::memory_order_release);
        return -1;
    }
    std::memset(obj, 0, sizeof *obj);
    g_slots[found].store(reinterpret_cast<uintptr_t>(obj), std::memory_order_release);
    return found;
}

BitmapObject* bitmap_get(int32_t handle) {
    if (handle < 0 || handle >= kTableSlots) return nullptr;
    uintptr_t v = g_slots[handle].load(std::memory_order_acquire);
    if (v == 0 || v == kReserved) return nullptr;
    return reinterpret_cast<BitmapObject*>(v);
}

void slot_release(int32_t handle, bool free_dib) {
    BitmapObject* obj = bitmap_get(handle);
    if (!obj) return;
    if (free_dib) {
        platform::block_free(obj->dib);
        for (void* block : obj->owned) platform::block_free(block);
    }
    platform::block_free(obj->line_offsets);
    platform::block_free(obj);
    g_slots[handle].store(0, std::memory_order_release);
}

void bitmap_reset_state(BitmapObject* obj, int32_t width, int32_t height) {
    obj->crop_x = obj->crop_y = 0;
    obj->crop_width = width;
    obj->crop_height = height;
    obj->rop = kRopSourceCopy;
    obj->last_reduced_row = -1;
    obj->reserved0 = 0;
}

uint32_t* alloc_line_offsets(int32_t width, int32_t height) {
    uint64_t m = static_cast<uint64_t>(std::max(width, height));
    uint64_t bytes = (m + m / 2) * 4 + 800;
    if (bytes > UINT32_MAX) return nullptr;
    auto* table = static_cast<uint32_t*>(platform::block_alloc(static_cast<uint32_t>(bytes)));
    if (table) std::memset(table, 0, (static_cast<size_t>(height) + 1) * 4);
    return table;
}

int32_t bitmap_create_dib(BitmapObject* obj, const DibHeader* source, int32_t width,
                          int32_t height, int32_t bits, bool run_encoded) {
    if (width < 1 || height < 1 || !dib_depth_valid(static_cast<uint32_t>(bits))) return -1;
    const uint32_t pal = palette_bytes(static_cast<uint32_t>(bits));
    const uint64_t rb = row_bytes64(static_cast<uint64_t>(width), static_cast<uint64_t>(bits));
    const uint64_t rounded_height = (static_cast<uint64_t>(height) + 3) & ~uint64_t(3);
    const uint64_t plain = pal + rb * rounded_height + kDibHeaderSize;
    uint64_t capacity = plain;
    uint32_t* offsets = nullptr;
    if (run_encoded) {
        capacity = (plain / (width < 10000 ? 8 : 50)) * 2;
        capacity = std::max<uint64_t>(capacity, kDibHeaderSize + pal + runs::max_record_bytes(
                                                                            uint32_t(width)));
        offsets = alloc_line_offsets(width, height);
        if (!offsets) return -1;
    }
    if (capacity + kDibSlack > UINT32_MAX) {
        platform::block_free(offsets);
        return -1;
    }
    auto* dib = static_cast<uint8_t*>(
        platform::block_alloc(static_cast<uint32_t>(capacity + kDibSlack)));
    if (!dib) {
        platform::block_free(offsets);
        return -1;
    }
    auto* h = reinterpret_cast<DibHeader*>(dib);
    std::memcpy(h, source, kDibHeaderSize);
    const uint32_t source_pal = palette_bytes(source->biBitCount);
    std::memcpy(dib + kDibHeaderSize, dib_palette(source), std::min(pal, source_pal));
    if (pal > source_pal) std::memset(dib + kDibHeaderSize + source_pal, 0, pal - source_pal);
    h->biSize = kDibHeaderSize;
    h->biPlanes = 1;
    h->biBitCount = static_cast<uint16_t>(bits);
    h->biWidth = width;
    h->biHeight = height;
    h->biSizeImage = static_cast<uint32_t>(rb * static_cast<uint64_t>(height));
    if (run_encoded) h->biCompression = IMG_COMPRESSION_RUNS;

    platform::block_free(obj->dib);
    platform::block_free(obj->line_offsets);
    obj->dib = dib;
    obj->line_offsets = offsets;
    obj->run_encoded = run_encoded ? 1 : 0;
    obj->runs_stored = 0;
    obj->width = width;
    obj->height = height;
    obj->row_bytes = static_cast<uint32_t>(rb);
    obj->dib_capacity = static_cast<uint32_t>(capacity);
    obj->crop_x = obj->crop_y = 0;
    obj->crop_width = width;
    obj->crop_height = height;
    return 0;
}

namespace {

// Grows the DIB of a run store to hold at least `need` bytes of header,
// palette and records.
int32_t grow_run_store(BitmapObject* obj, uint64_t need) {
    uint64_t capacity = obj->dib_capacity;
    if (obj->runs_stored > 0) {
        capacity = capacity * static_cast<uint64_t>(obj->height) /
                   static_cast<uint64_t>(obj->runs_stored);
    }
    if (capacity <= obj->dib_capacity) capacity = uint64_t(obj->dib_capacity) + kRunGrowthStep;
    while (capacity < need) capacity += kRunGrowthStep;
    if (capacity + kDibSlack > UINT32_MAX) return -1;
    void* grown = platform::block_realloc(obj->dib, static_cast<uint32_t>(capacity + kDibSlack));
    if (!grown) return -1;
    obj->dib = static_cast<uint8_t*>(grown);
    obj->dib_capacity = static_cast<uint32_t>(capacity);
    return 0;
}

}  // namespace

int32_t run_store_append(BitmapObject* obj, const uint32_t* record, uint32_t length) {
    const int32_t index = obj->runs_stored;
    if (index >= obj->height) return -1;
    const uint32_t offset = obj->line_offsets[index];
    const uint64_t need = uint64_t(dib_prefix_bytes(obj)) + offset + length;
    if (need > obj->dib_capacity && grow_run_store(obj, need) != 0) return -1;
    std::memcpy(obj->pixels() + offset, record, length);
    obj->line_offsets[index + 1] = offset + length;
    obj->runs_stored = index + 1;
    return 0;
}

int32_t run_store_complete(BitmapObject* obj) {
    if (!obj->run_encoded) return 0;
    uint32_t white[8];
    const uint32_t w = static_cast<uint32_t>(obj->width);
    uint32_t length = runs::record_from_changes(&w, 1, w, white);
    while (obj->runs_stored < obj->height) {
        if (run_store_append(obj, white, length) != 0) return -1;
    }
    return 0;
}

int32_t run_store_reverse(BitmapObject* obj) {
    const uint32_t prefix = dib_prefix_bytes(obj);
    auto* dib = static_cast<uint8_t*>(platform::block_alloc(obj->dib_capacity + kDibSlack));
    uint32_t* offsets = alloc_line_offsets(obj->width, obj->height);
    if (!dib || !offsets) {
        platform::block_free(dib);
        platform::block_free(offsets);
        return -1;
    }
    std::memcpy(dib, obj->dib, prefix);
    uint8_t* out = dib + prefix;
    uint32_t at = 0;
    for (int32_t r = obj->height - 1; r >= 0; --r) {
        uint32_t space = obj->line_offsets[r + 1] - obj->line_offsets[r];
        std::memcpy(out + at, obj->pixels() + obj->line_offsets[r], space);
        offsets[obj->height - 1 - r] = at;
        at += space;
    }
    offsets[obj->height] = at;
    platform::block_free(obj->dib);
    platform::block_free(obj->line_offsets);
    obj->dib = dib;
    obj->line_offsets = offsets;
    return 0;
}

int bitmap_is_color(BitmapObject* obj) {
    const uint32_t bits = obj->bits();
    if (bits >= 24) return 1;
    const RgbQuad* pal = dib_palette(obj->dib);
    for (uint32_t i = 0; i < palette_entries(bits); ++i)
        if (pal[i].rgbRed != pal[i].rgbGreen || pal[i].rgbGreen != pal[i].rgbBlue) return 1;
    return 0;
}

void normalise_bilevel_palette(DibHeader* header) {
    if (header->biBitCount != 1) return;
    RgbQuad* pal = dib_palette(header);
    if (pal[0].rgbRed && pal[0].rgbGreen && pal[0].rgbBlue) {
        pal[0] = RgbQuad{0, 0, 0, 0};
        pal[1] = RgbQuad{255, 255, 255, 0};
    }
}

}  // namespace tesslin
