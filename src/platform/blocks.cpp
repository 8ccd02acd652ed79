// Block allocator: malloc underneath, with a registry of live blocks so that
// an address can be recognised as the start of a block and sized without
// reading memory that may not belong to us. The registry is sharded by
// address to keep threads that allocate at once from queueing on one lock.
#include <cstdlib>
#include <mutex>
#include <unordered_map>

#include "platform/platform.h"
#include "tesslin/tesslin.h"

namespace tesslin::platform {
namespace {

constexpr size_t kShards = 64;

struct Shard {
    std::mutex lock;
    std::unordered_map<uintptr_t, uint32_t> sizes;
};

Shard& shard_for(uintptr_t address) {
    static Shard shards[kShards];
    // malloc results are 16-byte aligned; mix the higher bits in.
    size_t index = ((address >> 4) ^ (address >> 12)) % kShards;
    return shards[index];
}

bool remember(void* block, uint32_t size) {
    auto key = reinterpret_cast<uintptr_t>(block);
    Shard& s = shard_for(key);
    std::lock_guard<std::mutex> guard(s.lock);
    try {
        s.sizes[key] = size;
    } catch (...) {
        return false;
    }
    return true;
}

bool forget(const void* block) {
    auto key = reinterpret_cast<uintptr_t>(block);
    Shard& s = shard_for(key);
    std::lock_guard<std::mutex> guard(s.lock);
    return s.sizes.erase(key) != 0;
}

}  // namespace

void* block_alloc(uint32_t size) {
    void* block = std::malloc(size ? size : 1);
    if (!block) return nullptr;
    if (!remember(block, size)) {
        std::free(block);
        return nullptr;
    }
    return block;
}

void* block_realloc(void* block, uint32_t size) {
    if (!block) return block_alloc(size);
    uint32_t old_size = 0;
    if (!block_size(block, &old_size)) return nullptr;
    // Forget before realloc: once realloc succeeds the old address may be
    // handed out again by another thread's malloc.
    forget(block);
    void* moved = std::realloc(block, size ? size : 1);
    if (!moved) {
        remember(block, old_size);
        return nullptr;
    }
    if (!remember(moved, size)) {
        std::free(moved);
        return nullptr;
    }
    return moved;
}

void block_free(void* block) {
    if (!block) return;
    if (forget(block)) std::free(block);
}

bool block_size(const void* block, uint32_t* size) {
    if (!block) return false;
    auto key = reinterpret_cast<uintptr_t>(block);
    Shard& s = shard_for(key);
    std::lock_guard<std::mutex> guard(s.lock);
    auto it = s.sizes.find(key);
    if (it == s.sizes.end()) return false;
    if (size) *size = it->second;
    return true;
}

}  // namespace tesslin::platform

using namespace tesslin;

extern "C" {

TESSLIN_API void* tesslin_block_alloc(uint32_t size) { return platform::block_alloc(size); }

TESSLIN_API void* tesslin_block_realloc(void* block, uint32_t size) {
    return platform::block_realloc(block, size);
}

TESSLIN_API void tesslin_block_free(void* block) { platform::block_free(block); }

TESSLIN_API int64_t tesslin_block_size(const void* block) {
    uint32_t size = 0;
    return platform::block_size(block, &size) ? static_cast<int64_t>(size) : -1;
}

}  // extern "C"
