// Portable layer: the few operating-system services the library needs,
// behind one small interface. docs/platform.md records each choice.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tesslin::platform {

// ---- Blocks -----------------------------------------------------------
// Every DIB, bitmap object and memory-stream record is a block. The
// allocator remembers each live block's size so that an address can be
// checked ("is this the start of a live block, and how large is it?")
// without touching the memory behind it.
void* block_alloc(uint32_t size);
void* block_realloc(void* block, uint32_t size);  // null on failure; the old block stays
void block_free(void* block);                      // null and foreign addresses ignored
bool block_size(const void* block, uint32_t* size);

// ---- Files ------------------------------------------------------------
// Modes: 0 read (shared), 1 read and write, 2 create or truncate for read
// and write, 3 existence test (attributes, or -1 when absent).
int32_t file_open(const char* name, int mode);
int32_t file_read(int32_t fd, void* buffer, uint32_t count);
int32_t file_write(int32_t fd, const void* buffer, uint32_t count);
int32_t file_seek(int32_t fd, int32_t offset, int origin);
int32_t file_close(int32_t fd);
// Cuts (or extends with zeros) the file to `length` bytes; 0 or -1.
int32_t file_truncate(int32_t fd, uint32_t length);
int32_t file_delete(const char* name);
bool is_file_handle(int32_t value);
// Mode 0: makes a new empty file "img<ticks>..." in $TMPDIR (else /tmp) and
// writes its name into name (at least 260 bytes). Mode 1: opens the named
// file for reading. Returns the descriptor or -1.
int32_t temp_file(char* name, int mode);

// ---- The library mutex ------------------------------------------------
// Process-wide; lock waits at most 5,000 ms. Lock returns 0 or -1; unlock
// returns 0 or -1 when the calling thread does not hold it.
int32_t mutex_lock();
int32_t mutex_unlock();

// ---- Fault containment ------------------------------------------------
// Runs fn(context) so that a SIGSEGV or SIGBUS raised inside it returns
// fault_result instead of ending the process. Thread-safe; the signal
// handlers found are restored when no guarded call is running.
int64_t run_guarded(int64_t (*fn)(void*), void* context, int64_t fault_result);

// ---- Loadable modules -----------------------------------------------
// A shared object loaded by path (dlopen, local symbols, resolved at once)
// and its entry points looked up by name. Each returns null on failure;
// module_unload ignores null.
void* module_load(const char* path);
void* module_symbol(void* module, const char* name);
void module_unload(void* module);

// The path of the scanner's data source manager module:
// $TESSLIN_TWAIN_DSM when set and not empty, else "libtesslin-twain.so" in
// the directory of the library itself. False when the file does not exist
// (or the path does not fit in size bytes); the path is written either way
// when it fits.
bool twain_manager_path(char* out, size_t size);

}  // namespace tesslin::platform
