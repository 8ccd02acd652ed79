// libtiff reading and writing a file held in memory, for the benchmarks
// that measure libtiff beside the library.
#pragma once

#include <tiffio.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace tesslin::bench {

struct MemFile {
    std::vector<uint8_t> data;
    toff_t pos = 0;
};

namespace libtiff_memory {

inline tsize_t read(thandle_t h, tdata_t buf, tsize_t n) {
    auto* m = static_cast<MemFile*>(h);
    if (m->pos >= m->data.size()) return 0;
    const tsize_t take = std::min<tsize_t>(n, tsize_t(m->data.size() - m->pos));
    std::memcpy(buf, m->data.data() + m->pos, size_t(take));
    m->pos += toff_t(take);
    return take;
}
inline tsize_t write(thandle_t h, tdata_t buf, tsize_t n) {
    auto* m = static_cast<MemFile*>(h);
    if (m->pos + toff_t(n) > m->data.size()) m->data.resize(size_t(m->pos + toff_t(n)));
    std::memcpy(m->data.data() + m->pos, buf, size_t(n));
    m->pos += toff_t(n);
    return n;
}
inline toff_t seek(thandle_t h, toff_t off, int whence) {
    auto* m = static_cast<MemFile*>(h);
    if (whence == SEEK_SET) m->pos = off;
    else if (whence == SEEK_CUR) m->pos += off;
    else m->pos = m->data.size() + off;
    return m->pos;
}
inline int close(thandle_t) { return 0; }
inline toff_t size(thandle_t h) { return static_cast<MemFile*>(h)->data.size(); }
inline int map(thandle_t, tdata_t*, toff_t*) { return 0; }
inline void unmap(thandle_t, tdata_t, toff_t) {}

}  // namespace libtiff_memory

// libtiff on `m` from its start: mode "r" reads m.data, "w" writes into it.
inline TIFF* mem_open(MemFile& m, const char* mode) {
    namespace io = libtiff_memory;
    m.pos = 0;
    return TIFFClientOpen("memory", mode, &m, io::read, io::write, io::seek, io::close, io::size, io::map,
                          io::unmap);
}

}  // namespace tesslin::bench
