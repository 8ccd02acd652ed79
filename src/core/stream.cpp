#include "core/stream.h"

#include <atomic>
#include <cstring>
#include <mutex>

#include "platform/platform.h"
#include "tesslin/tesslin.h"

namespace tesslin::stream {
namespace {

// ---- Process-wide hooks and key ---------------------------------------

std::atomic<IMG_READ_HOOK> g_read_hook{nullptr};
std::atomic<IMG_WRITE_HOOK> g_write_hook{nullptr};
std::atomic<IMG_SEEK_HOOK> g_seek_hook{nullptr};
std::atomic<uint8_t> g_key_on{0};
std::atomic<uint8_t> g_key{0x9D};

// ---- Memory streams ---------------------------------------------------

struct MemStream {
    uint32_t position;
    uint32_t size;
    uint8_t* base;
    int32_t handle;
    bool foreign;  // base is not a live block: accesses run under the fault guard
};

// Handles are INT32_MIN | generation << 16 | slot: always negative, so never
// an open file descriptor, and a stale handle does not find a new stream.
constexpr uint32_t kSlots = 1u << 16;
std::atomic<MemStream*> g_mem_table[kSlots];
std::mutex g_mem_lock;
uint32_t g_mem_cursor = 0;
uint32_t g_mem_generation = 0;

MemStream* find_memory(int32_t handle) {
    if (handle >= 0) return nullptr;
    MemStream* s = g_mem_table[static_cast<uint32_t>(handle) & (kSlots - 1)].load(
        std::memory_order_acquire);
    return s && s->handle == handle ? s : nullptr;
}

// ---- Guarded calls ----------------------------------------------------

struct Call {
    int64_t (*body)(Call&);
    int32_t handle;
    void* buffer;
    const void* input;
    uint32_t count;
    int32_t offset;
    int origin;
    MemStream* mem;
};

int64_t run_call(void* context) {
    Call& c = *static_cast<Call*>(context);
    return c.body(c);
}

int32_t guarded(Call& call) {
    return static_cast<int32_t>(platform::run_guarded(run_call, &call, IMG_ERR_STREAM_FAULT));
}

void scramble(uint8_t* bytes, uint32_t count, uint8_t key) {
    for (uint32_t i = 0; i < count; ++i) bytes[i] ^= key;
}

// Memory-stream bodies. Copies go byte range by byte range with memcpy; a
// foreign block that ends early faults inside the guard.
int64_t mem_read_body(Call& c) {
    MemStream* s = c.mem;
    if (s->position >= s->size) return 0;
    uint32_t n = s->size - s->position;
    if (c.count < n) n = c.count;
    std::memcpy(c.buffer, s->base + s->position, n);
    s->position += n;
    if (g_key_on.load(std::memory_order_relaxed))
        scramble(static_cast<uint8_t*>(c.buffer), n, g_key.load(std::memory_order_relaxed));
    return n;
}

int64_t mem_write_body(Call& c) {
    MemStream* s = c.mem;
    if (s->position >= s->size) return 0;
    uint32_t n = s->size - s->position;
    if (c.count < n) n = c.count;
    uint8_t* dst = s->base + s->position;
    std::memcpy(dst, c.input, n);
    if (g_key_on.load(std::memory_order_relaxed))
        scramble(dst, n, g_key.load(std::memory_order_relaxed));
    s->position += n;
    return n;
}

int64_t hook_read_body(Call& c) {
    return g_read_hook.load(std::memory_order_relaxed)(c.handle, c.buffer, c.count);
}
int64_t hook_write_body(Call& c) {
    return g_write_hook.load(std::memory_order_relaxed)(c.handle, c.input, c.count);
}
int64_t hook_seek_body(Call& c) {
    return g_seek_hook.load(std::memory_order_relaxed)(c.handle, c.offset, c.origin);
}

int32_t file_write_scrambled(int32_t fd, const void* buffer, uint32_t count, uint8_t key) {
    // The caller's buffer stays unchanged: scramble through a local block.
    uint8_t chunk[8192];
    const auto* in = static_cast<const uint8_t*>(buffer);
    uint32_t done = 0;
    while (done < count) {
        uint32_t n = count - done < sizeof chunk ? count - done : uint32_t(sizeof chunk);
        for (uint32_t i = 0; i < n; ++i) chunk[i] = in[done + i] ^ key;
        int32_t w = platform::file_write(fd, chunk, n);
        if (w > 0) done += static_cast<uint32_t>(w);
        if (w < static_cast<int32_t>(n)) break;
    }
    return static_cast<int32_t>(done);
}

}  // namespace

int32_t truncate(int32_t handle, uint32_t length) {
    if (g_write_hook.load(std::memory_order_relaxed)) return IMG_ERR_UNSUPPORTED;
    if (MemStream* m = find_memory(handle)) {
        m->position = length < m->size ? length : m->size;
        return 0;
    }
    if (length > 0x7FFFFFFFu || platform::file_truncate(handle, length) != 0) return IMG_ERR_WRITE;
    return platform::file_seek(handle, int32_t(length), 0) < 0 ? IMG_ERR_WRITE : 0;
}

int32_t read(int32_t handle, void* buffer, uint32_t count) {
    if (g_read_hook.load(std::memory_order_relaxed)) {
        Call c{hook_read_body, handle, buffer, nullptr, count, 0, 0, nullptr};
        return guarded(c);
    }
    if (MemStream* s = find_memory(handle)) {
        Call c{mem_read_body, handle, buffer, nullptr, count, 0, 0, s};
        return s->foreign ? guarded(c) : static_cast<int32_t>(mem_read_body(c));
    }
    if (platform::is_file_handle(handle)) {
        int32_t n = platform::file_read(handle, buffer, count);
        if (n > 0 && g_key_on.load(std::memory_order_relaxed))
            scramble(static_cast<uint8_t*>(buffer), static_cast<uint32_t>(n),
                     g_key.load(std::memory_order_relaxed));
        return n;
    }
    return 0;
}

int32_t write(int32_t handle, const void* buffer, uint32_t count) {
    if (g_write_hook.load(std::memory_order_relaxed)) {
        Call c{hook_write_body, handle, nullptr, buffer, count, 0, 0, nullptr};
        return guarded(c);
    }
    if (MemStream* s = find_memory(handle)) {
        Call c{mem_write_body, handle, nullptr, buffer, count, 0, 0, s};
        return s->foreign ? guarded(c) : static_cast<int32_t>(mem_write_body(c));
    }
    if (platform::is_file_handle(handle)) {
        if (g_key_on.load(std::memory_order_relaxed))
            return file_write_scrambled(handle, buffer, count,
                                        g_key.load(std::memory_order_relaxed));
        return platform::file_write(handle, buffer, count);
    }
    return 0;
}

int32_t seek(int32_t handle, int32_t offset, int origin) {
    if (g_seek_hook.load(std::memory_order_relaxed)) {
        Call c{hook_seek_body, handle, nullptr, nullptr, 0, offset, origin, nullptr};
        return guarded(c);
    }
    if (MemStream* s = find_memory(handle)) {
        // The position is not clamped; a later read beyond the size gives 0.
        uint32_t base = origin == 0 ? 0 : origin == 1 ? s->position : s->size;
        s->position = base + static_cast<uint32_t>(offset);
        return static_cast<int32_t>(s->position);
    }
    if (platform::is_file_handle(handle)) return platform::file_seek(handle, offset, origin);
    return 0;
}

int32_t length(int32_t handle) {
    if (!g_seek_hook.load(std::memory_order_relaxed) && !platform::is_file_handle(handle)) {
        MemStream* s = find_memory(handle);
        return s ? static_cast<int32_t>(s->position) : 0;
    }
    int32_t position = seek(handle, 0, 1);
    if (position < 0) return position;
    int32_t end = seek(handle, 0, 2);
    seek(handle, position, 0);
    return end;
}

int64_t capacity(int32_t handle) {
    if (!g_seek_hook.load(std::memory_order_relaxed)) {
        if (MemStream* s = find_memory(handle)) return s->size;
        if (!platform::is_file_handle(handle)) return handle == 0 ? 0 : -1;
    }
    int32_t end = length(handle);
    return end < 0 ? -1 : end;
}

int32_t mem_create_sized(void* base, uint32_t size) {
    auto* s = static_cast<MemStream*>(platform::block_alloc(sizeof(MemStream)));
    if (!s) return 0;
    s->position = 0;
    s->size = size;
    s->base = static_cast<uint8_t*>(base);
    s->foreign = false;
    std::lock_guard<std::mutex> hold(g_mem_lock);
    for (uint32_t tries = 0; tries < kSlots; ++tries) {
        uint32_t slot = g_mem_cursor;
        g_mem_cursor = (g_mem_cursor + 1) & (kSlots - 1);
        if (g_mem_table[slot].load(std::memory_order_relaxed)) continue;
        g_mem_generation = (g_mem_generation + 1) & 0x7FFF;
        s->handle = static_cast<int32_t>(0x80000000u | (g_mem_generation << 16) | slot);
        g_mem_table[slot].store(s, std::memory_order_release);
        return s->handle;
    }
    platform::block_free(s);
    return 0;
}

int32_t mem_create(void* base) {
    uint32_t size = 0;
    bool known = platform::block_size(base, &size) && size != 0;
    int32_t handle = mem_create_sized(base, known ? size : kForeignSize);
    if (handle && !known) find_memory(handle)->foreign = true;
    return handle;
}

void mem_release(int32_t handle) {
    MemStream* s = find_memory(handle);
    if (!s) return;
    {
        std::lock_guard<std::mutex> hold(g_mem_lock);
        g_mem_table[static_cast<uint32_t>(handle) & (kSlots - 1)].store(nullptr,
                                                                       std::memory_order_release);
    }
    platform::block_free(s);
}

bool is_memory(int32_t handle) { return find_memory(handle) != nullptr; }

}  // namespace tesslin::stream

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMGLOW_set_fileio(IMG_READ_HOOK read_hook, IMG_WRITE_HOOK write_hook,
                                      IMG_SEEK_HOOK seek_hook) {
    stream::g_read_hook.store(read_hook);
    stream::g_write_hook.store(write_hook);
    stream::g_seek_hook.store(seek_hook);
    return 0;
}

TESSLIN_API int32_t IMG_set_encrypt(int32_t flag, int32_t key) {
    auto k = static_cast<uint32_t>(key);
    uint8_t sum = static_cast<uint8_t>((k & 0xFF) + ((k >> 8) & 0xFF) + ((k >> 16) & 0xFF) +
                                       ((k >> 24) & 0xFF));
    stream::g_key.store(sum ? sum : 0x9D);
    stream::g_key_on.store(static_cast<uint8_t>(flag));
    return 0;
}

}  // extern "C"
