// Byte streams: every reader and writer sees its input or output only as a
// 32-bit stream handle. A handle is an open file descriptor, a memory stream
// (negative values handed out by mem_create, never a descriptor), or 0 for
// nothing. Application hooks, when installed, take every operation instead.
#pragma once

#include <cstdint>

namespace tesslin::stream {

// Size given to a memory stream over an address that is not the start of a
// live block: reads are then bounded only by faults, which are contained.
constexpr uint32_t kForeignSize = 0x70000000;

// Bytes transferred (0 at the end), or IMG_ERR_STREAM_FAULT after a fault.
int32_t read(int32_t handle, void* buffer, uint32_t count);
int32_t write(int32_t handle, const void* buffer, uint32_t count);
// origin 0 from the start, 1 from the current position, 2 from the end.
// Returns the new position, or IMG_ERR_STREAM_FAULT.
int32_t seek(int32_t handle, int32_t offset, int origin);
// A file's length (position unchanged); for a memory stream its position.
int32_t length(int32_t handle);

// Puts the end of the data back at `length` and the position there: a file
// is cut to that length, a memory stream's position set to it (so that
// length() reports it). Writers call it to undo a failed append. 0, or
// IMG_ERR_UNSUPPORTED when application hooks own the stream (nothing can be
// cut through them), IMG_ERR_WRITE when the file cannot be cut.
int32_t truncate(int32_t handle, uint32_t length);

// Size of the data behind the handle from offset 0 when it can be known
// (file length, memory block size, through the seek hook); -1 otherwise.
// Codecs use it to refuse declared sizes the stream cannot hold.
int64_t capacity(int32_t handle);

// Memory stream over a caller's block. Size: the block's size when the
// address starts a live block, else kForeignSize. 0 when out of memory.
int32_t mem_create(void* base);
// Memory stream of a known size.
int32_t mem_create_sized(void* base, uint32_t size);
void mem_release(int32_t handle);

bool is_memory(int32_t handle);

}  // namespace tesslin::stream
