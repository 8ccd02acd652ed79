// ICC profiles embedded in JPEG streams: APP2 (or APP13) segments whose
// payload starts "ICC_PROFILE\0", a chunk number and the chunk count; the
// chunks follow each other and their data concatenated is the profile.
#include <cstring>

#include "core/api.h"
#include "core/stream.h"
#include "formats/jpeg/jpeg.h"
#include "formats/jpeg/jpeg_input.h"
#include "platform/platform.h"

namespace tesslin::jpeg {
namespace {

constexpr uint8_t kIccTag[12] = {'I', 'C', 'C', '_', 'P', 'R', 'O', 'F', 'I', 'L', 'E', 0};

struct Segment {
    int marker = 0;
    uint64_t payload = 0;  // offset of the payload
    uint32_t length = 0;   // payload bytes
};

// Next segment at `pos` (fill bytes skipped); false at the end of the data,
// at a scan or at the end of the image.
bool next_segment(Source& src, uint64_t& pos, Segment* seg) {
    for (;;) {
        src.seek(pos);
        const int b0 = src.byte(), b1 = src.byte();
        if (b1 < 0 || b0 != 0xFF) return false;
        if (b1 == 0xFF) {
            pos += 1;
            continue;
        }
        if (b1 == 0xD9 || b1 == 0xDA) return false;
        if (b1 == 0x01 || (b1 >= 0xD0 && b1 <= 0xD8)) {
            pos += 2;
            continue;
        }
        const int32_t length = src.be16();
        if (length < 2) return false;
        seg->marker = b1;
        seg->payload = pos + 4;
        seg->length = static_cast<uint32_t>(length) - 2;
        pos += 2 + static_cast<uint64_t>(length);
        return true;
    }
}

// The chunk count of an ICC segment, or -1 for any other segment.
int icc_chunks(Source& src, const Segment& seg) {
    if ((seg.marker != 0xE2 && seg.marker != 0xED) || seg.length < 14) return -1;
    uint8_t head[14];
    src.seek(seg.payload);
    if (!src.read(head, 14) || std::memcmp(head, kIccTag, 12) != 0) return -1;
    return head[13];
}

}  // namespace

void* read_profile(int32_t stream, uint32_t offset, uint32_t* size) {
    if (size) *size = 0;
    Source src(stream);
    if (!src.init()) return nullptr;
    src.seek(offset);
    uint8_t soi[2];
    if (!src.read(soi, 2) || soi[0] != 0xFF || soi[1] != 0xD8) return nullptr;
    uint64_t pos = offset + 2;
    Segment seg;
    int chunks = -1;
    while (next_segment(src, pos, &seg))
        if ((chunks = icc_chunks(src, seg)) >= 0) break;
    if (chunks < 0) return nullptr;
    if (chunks == 0) chunks = 1;
    const uint32_t capacity = static_cast<uint32_t>(chunks) * 65536u + 1000u;
    auto* block = static_cast<uint8_t*>(platform::block_alloc(capacity));
    if (!block) return nullptr;
    uint32_t used = 0;
    for (int i = 0; i < chunks; ++i) {
        if (i > 0 && (!next_segment(src, pos, &seg) || icc_chunks(src, seg) < 0)) break;
        const uint32_t n = seg.length - 14;  // below 65536, so every chunk fits
        src.seek(seg.payload + 14);
        if (!src.read(block + used, n)) break;
        used += n;
    }
    if (used == 0) {
        platform::block_free(block);
        return nullptr;
    }
    if (size) *size = used;
    return block;
}

}  // namespace tesslin::jpeg

using namespace tesslin;

extern "C" {

TESSLIN_API void* IMG_get_profile(const char* file_name, int32_t reserved, uint32_t* size) {
    (void)reserved;
    void* block = nullptr;
    uint32_t length = 0;
    const int32_t r = api_call([&]() -> int32_t {
        if (!file_name) return IMG_ERR_OPEN;
        const int32_t fd = platform::file_open(file_name, 0);
        if (fd < 0) return IMG_ERR_OPEN;
        block = jpeg::read_profile(fd, 0, &length);
        platform::file_close(fd);
        return 0;
    });
    if (r < 0 && block) {
        platform::block_free(block);
        block = nullptr;
    }
    if (size) *size = block ? length : 0;
    return block;
}

}  // extern "C"
