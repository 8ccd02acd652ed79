// Helpers of the exported entry points: run a body on a file opened by
// name, or on a memory stream over a caller's block, and close or release
// it afterwards.
#pragma once

#include <cstdint>

#include "core/stream.h"
#include "platform/platform.h"
#include "tesslin/tesslin.h"

namespace tesslin {

// body(stream) on the file opened for reading; IMG_ERR_OPEN when it cannot be opened.
template <typename F>
int32_t with_file(const char* file, F&& body) {
    const int32_t fd = platform::file_open(file, 0);
    if (fd < 0) return IMG_ERR_OPEN;
    const int32_t r = body(fd);
    platform::file_close(fd);
    return r;
}

// body(stream) on a memory stream over the block; IMG_ERR_MEMORY when none can be made.
template <typename F>
int32_t with_memory(const void* block, F&& body) {
    if (!block) return IMG_ERR_BAD_IMAGE;
    const int32_t stream = stream::mem_create(const_cast<void*>(block));
    if (!stream) return IMG_ERR_MEMORY;
    const int32_t r = body(stream);
    stream::mem_release(stream);
    return r;
}

}  // namespace tesslin
