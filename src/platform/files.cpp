// Files through POSIX descriptors. A stream handle of 0 means "nothing" to the
// library, so a descriptor that comes back as 0 (stdin closed by the
// application) is moved above 2 before it is handed out.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/platform.h"

namespace tesslin::platform {
namespace {

int32_t keep_off_zero(int fd) {
    if (fd != 0) return fd;
    int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    close(fd);
    return moved;
}

}  // namespace

int32_t file_open(const char* name, int mode) {
    if (!name) return -1;
    int fd = -1;
    switch (mode) {
        case 0:
            fd = open(name, O_RDONLY | O_CLOEXEC);
            break;
        case 1:
            fd = open(name, O_RDWR | O_CLOEXEC);
            break;
        case 2:
            fd = open(name, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
            break;
        case 3: {
            struct stat st;
            if (stat(name, &st) != 0) return -1;
            // Windows-style attributes: directory 0x10, normal file 0x80.
            return S_ISDIR(st.st_mode) ? 0x10 : 0x80;
        }
        default:
            return -1;
    }
    if (fd < 0) return -1;
    // A directory opens for reading on POSIX but is not a file to decode.
    struct stat st;
    if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        close(fd);
        return -1;
    }
    return keep_off_zero(fd);
}

int32_t file_read(int32_t fd, void* buffer, uint32_t count) {
    auto* out = static_cast<unsigned char*>(buffer);
    uint32_t done = 0;
    while (done < count) {
        ssize_t n = read(fd, out + done, count - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<uint32_t>(n);
    }
    return static_cast<int32_t>(done);
}

int32_t file_write(int32_t fd, const void* buffer, uint32_t count) {
    const auto* in = static_cast<const unsigned char*>(buffer);
    uint32_t done = 0;
    while (done < count) {
        ssize_t n = write(fd, in + done, count - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<uint32_t>(n);
    }
    return static_cast<int32_t>(done);
}

int32_t file_seek(int32_t fd, int32_t offset, int origin) {
    int whence = origin == 0 ? SEEK_SET : origin == 1 ? SEEK_CUR : SEEK_END;
    off_t pos = lseek(fd, offset, whence);
    if (pos < 0 || pos > INT32_MAX) return -1;
    return static_cast<int32_t>(pos);
}

int32_t file_close(int32_t fd) { return close(fd) == 0 ? 0 : -1; }

int32_t file_truncate(int32_t fd, uint32_t length) {
    return ftruncate(fd, off_t(length)) == 0 ? 0 : -1;
}

int32_t file_delete(const char* name) { return name && unlink(name) == 0 ? 0 : -1; }

bool is_file_handle(int32_t value) { return value > 0 && fcntl(value, F_GETFD) != -1; }

int32_t temp_file(char* name, int mode) {
    if (!name) return -1;
    if (mode == 1) return file_open(name, 0);
    if (mode != 0) return -1;
    const char* dir = std::getenv("TMPDIR");
    if (!dir || !*dir || std::strlen(dir) > 100) dir = "/tmp";
    auto ticks = std::chrono::duration_cast<std::chrono::milliseconds>(
                     std::chrono::steady_clock::now().time_since_epoch())
                     .count();
    // The tick count names the file; mkstemp's suffix keeps names unique
    // when two calls land on the same tick.
    std::snprintf(name, 260, "%s/img%04llx_XXXXXX", dir,
                  static_cast<unsigned long long>(ticks & 0xFFFF));
    int fd = mkstemp(name);
    if (fd < 0) return -1;
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    return keep_off_zero(fd);
}

}  // namespace tesslin::platform
