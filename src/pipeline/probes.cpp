#include "pipeline/probes.h"

#include <algorithm>
#include <vector>

#include "core/io.h"
#include "core/stream.h"

namespace tesslin::probes {
namespace {

// Reads 16/32-bit values in the file's byte order.
struct TiffReader {
    StreamReader in;
    bool big = false;
    uint32_t base = 0;

    TiffReader(int32_t stream, uint32_t at) : in(stream, 4096), base(at) {}

    uint16_t u16() { return big ? in.be16() : in.le16(); }
    uint32_t u32() { return big ? in.be32() : in.le32(); }

    // Reads the header; returns the first directory's offset or 0.
    int32_t header(uint32_t* first) {
        if (!in.seek(base)) return in.status();
        uint8_t order[2];
        if (!in.read(order, 2)) return in.status();
        if (order[0] != order[1] || (order[0] != 'I' && order[0] != 'M')) return IMG_ERR_BAD_IMAGE;
        big = order[0] == 'M';
        u16();  // 42
        *first = u32();
        return in.status();
    }

    // Next directory's offset after the one at `offset`; entries counted in *n.
    bool next(uint32_t offset, uint32_t* following) {
        if (!in.seek(base + offset)) return false;
        uint32_t n = u16();
        if (!in.skip(n * 12)) return false;
        *following = u32();
        return in.ok();
    }
};

}  // namespace

int32_t tiff_tags(int32_t stream, uint32_t base, int32_t page, TiffTags* out) {
    TiffReader t(stream, base);
    uint32_t offset = 0;
    if (int32_t s = t.header(&offset)) return s;
    if (page < 0) page = 0;
    for (int32_t i = 0; i < page; ++i) {
        if (offset == 0) return IMG_ERR_NO_PAGE;
        if (!t.next(offset, &offset)) return t.in.status() ? t.in.status() : IMG_ERR_READ;
    }
    if (offset == 0) return IMG_ERR_NO_PAGE;
    *out = TiffTags{1, 0, 1};
    if (!t.in.seek(base + offset)) return t.in.status();
    uint32_t n = t.u16();
    for (uint32_t i = 0; i < n && t.in.ok(); ++i) {
        uint16_t tag = t.u16();
        uint16_t type = t.u16();
        t.u32();  // count
        uint32_t value = type == 3 ? t.u16() : t.u32();
        if (type == 3) t.u16();
        if (tag == 259) out->compression = value;
        if (tag == 292) out->t4_options = value;
        if (tag == 274) out->orientation = value;
    }
    if (!t.in.ok()) return t.in.status();
    t.in.sync();
    return 0;
}

int32_t pcd_orientation(int32_t stream, int32_t) {
    uint8_t b = 0;
    if (stream::seek(stream, 3586, 0) != 3586 || stream::read(stream, &b, 1) != 1)
        return IMG_ERR_READ;
    static constexpr int32_t kDegrees[4] = {0, 270, 180, 90};
    return kDegrees[b & 3];
}

int32_t cal_orientation(int32_t stream, int32_t) {
    uint8_t digits[3];
    if (stream::seek(stream, 905, 0) != 905 || stream::read(stream, digits, 3) != 3)
        return IMG_ERR_READ;
    int32_t value = 0;
    for (uint8_t c : digits) {
        if (c == ' ') continue;
        if (c < '0' || c > '9') break;
        value = value * 10 + (c - '0');
    }
    return value == 90 ? 270 : value == 270 ? 90 : value;
}

}  // namespace tesslin::probes
