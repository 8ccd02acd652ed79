// What the plug-in modules share: the library's stream callbacks, handed to
// a module through its set_callbacks entry point, and reading a whole input
// stream with them (both codecs parse from memory).
#pragma once

#include <cstdint>
#include <new>
#include <vector>

#include "tesslin/tesslin.h"

namespace tesslin::module {

using ReadFn = int32_t (*)(int32_t stream, void* buffer, uint32_t bytes);
using WriteFn = int32_t (*)(int32_t stream, const void* buffer, uint32_t bytes);
using SeekFn = int32_t (*)(int32_t stream, int32_t offset, int origin);

// Reads `stream` from byte `position` (with bit 31 set: from where it
// stands) to its end, appending to `bytes` a megabyte at a time. Returns 0,
// the read callback's negative status, IMG_ERR_READ without callbacks or
// when the seek fails, IMG_ERR_BAD_IMAGE once more than `limit` bytes have
// arrived, IMG_ERR_MEMORY when the bytes cannot be held.
template <typename Byte>
int32_t read_whole(ReadFn read, SeekFn seek, int32_t stream, uint32_t position, std::vector<Byte>& bytes,
                   uint64_t limit) {
    if (!read || !seek) return IMG_ERR_READ;
    if (!(position & 0x80000000u) && seek(stream, int32_t(position), 0) < 0) return IMG_ERR_READ;
    try {
        constexpr uint32_t kBlock = 1u << 20;
        for (;;) {
            const size_t at = bytes.size();
            bytes.resize(at + kBlock);
            const int32_t n = read(stream, bytes.data() + at, kBlock);
            if (n < 0) return n;
            bytes.resize(at + uint32_t(n));
            if (n == 0) break;
            if (bytes.size() > limit) return IMG_ERR_BAD_IMAGE;
        }
    } catch (const std::bad_alloc&) {
        return IMG_ERR_MEMORY;
    }
    return 0;
}

}  // namespace tesslin::module
