// What the operating system says about files the tool could not use, and
// whether a multi-page file ends before its last page.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "common.h"

namespace cli {

std::string input_reason(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return std::strerror(errno);
    if (S_ISDIR(st.st_mode)) return std::strerror(EISDIR);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::strerror(errno);
    close(fd);
    return "";
}

std::string output_reason(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return std::strerror(EISDIR);
    // Whether a file can be made beside it: the reason of that attempt.
    const std::string::size_type slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    std::string probe = dir + "/.tesslin-probe-XXXXXX";
    std::vector<char> buf(probe.begin(), probe.end());
    buf.push_back(0);
    const int fd = mkstemp(buf.data());
    if (fd < 0) return std::strerror(errno);
    close(fd);
    unlink(buf.data());
    if (stat(path.c_str(), &st) == 0 && access(path.c_str(), W_OK) != 0) return std::strerror(errno);
    return "";
}

namespace {

struct Bytes {
    std::vector<uint8_t> data;
    bool little = true;
    uint64_t get(uint64_t at, int size) const {
        uint64_t v = 0;
        for (int i = 0; i < size; ++i) {
            const uint64_t b = data[at + i];
            v |= little ? b << (8 * i) : b << (8 * (size - 1 - i));
        }
        return v;
    }
};

// A TIFF's directory chain: each directory ends with the offset of the
// next. True when a directory or the next offset lies past the end.
bool tiff_chain_cut(const Bytes& f) {
    const uint64_t size = f.data.size();
    const bool big = f.get(2, 2) == 43;
    const int count_size = big ? 8 : 2, entry = big ? 20 : 12, offset_size = big ? 8 : 4;
    uint64_t next = big ? (size >= 16 ? f.get(8, 8) : 0) : f.get(4, 4);
    for (int guard = 0; next != 0 && guard < 65536; ++guard) {
        if (next + count_size > size) return true;
        const uint64_t entries = f.get(next, count_size);
        const uint64_t end = next + count_size + entries * entry;
        if (entries > size || end + offset_size > size) return true;
        next = f.get(end, offset_size);
    }
    return false;
}

// DCX: a table of up to 1023 page offsets after the signature, ended by 0.
bool dcx_table_cut(const Bytes& f) {
    const uint64_t size = f.data.size();
    for (uint64_t at = 4; at + 4 <= size && at < 4 + 1024 * 4; at += 4) {
        const uint64_t offset = f.get(at, 4);
        if (offset == 0) return false;
        if (offset >= size) return true;
    }
    return false;
}

}  // namespace

bool ends_early(const std::string& path) {
    std::FILE* in = std::fopen(path.c_str(), "rb");
    if (!in) return false;
    Bytes f;
    uint8_t chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, in)) > 0) f.data.insert(f.data.end(), chunk, chunk + n);
    std::fclose(in);
    if (f.data.size() < 8) return false;
    const uint8_t* d = f.data.data();
    if ((d[0] == 'I' && d[1] == 'I') || (d[0] == 'M' && d[1] == 'M')) {
        f.little = d[0] == 'I';
        const uint64_t magic = f.get(2, 2);
        if (magic == 42 || (magic == 43 && f.data.size() >= 16)) return tiff_chain_cut(f);
        return false;
    }
    if (f.get(0, 4) == 987654321) return dcx_table_cut(f);
    return false;
}

}  // namespace cli
