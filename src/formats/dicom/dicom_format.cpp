// The DICOM family's registry descriptor: recognition, the decoder and the
// element query of IMGLOW_get_tiff_tag.
#include <algorithm>

#include "formats/dicom/dicom.h"
#include "formats/dicom/dicom_elements.h"

namespace tesslin::dicom {

// Two data elements of the same group at the start; else "DICM" at 0 or 128.
bool signature(const Probe& p) {
    uint8_t h[8];
    if (p.read_at(0, h, 8)) {
        const uint16_t group = load_le16(h);
        const uint64_t next = 8 + uint64_t(load_le32(h + 4));
        uint8_t h2[8];
        if (group != 0 && next <= 0x7FFFFFFF && p.read_at(uint32_t(next), h2, 8) &&
            load_le16(h2) == group)
            return true;
    }
    uint8_t magic[4];
    if (p.read_at(0, magic, 4) && load_be32(magic) == 0x4449434D) return true;
    return p.read_at(128, magic, 4) && load_be32(magic) == 0x4449434D;
}

int32_t tag_query(int32_t stream, int32_t tag, int32_t size, int32_t* value, void* buffer,
                  int32_t) {
    const auto wanted = uint32_t(tag);
    if (wanted == 0) return IMG_ERR_NOT_FOUND;
    ElementReader r(stream);
    Element e;
    const int32_t opened = r.open(0, wanted, &e);
    if (opened < 0) return opened == IMG_ERR_BAD_IMAGE ? opened : IMG_ERR_NOT_FOUND;
    const bool in_meta = opened == 1;
    if (!in_meta) {
        for (;;) {
            if (!r.next(&e)) return IMG_ERR_NOT_FOUND;
            if (r.depth() == 0 && e.tag() == wanted) break;
            if (!r.pass(e)) return IMG_ERR_NOT_FOUND;
        }
    }
    const uint32_t room = uint32_t(std::max(size, 0));
    if (std::min(e.length, room) == 2) {
        uint8_t v[2];
        if (!r.in().read(v, 2)) return IMG_ERR_NOT_FOUND;
        if (value) *value = in_meta ? load_le16(v) : r.u16(v);
        return 0;
    }
    if (buffer && room > 0) {
        auto* out = static_cast<uint8_t*>(buffer);
        const uint32_t n = r.in().read_some(out, std::min(e.length, room - 1));
        out[n] = 0;
    }
    return 1;
}

namespace {
constexpr CodeRow kCodes[] = {{IMG_FORMAT_DICOM, "dicom", "DICOM", "dcm"}};
}  // namespace

}  // namespace tesslin::dicom

namespace tesslin::formats {

extern const FormatDescriptor kDcm = {
    .tag = "dcm", .detect_switch = IMG_FORMAT_DICOM, .signature = dicom::signature,
    .decode = dicom::decode, .tags = dicom::tag_query, .tags_on_stream = true,
    .codes = dicom::kCodes};

}  // namespace tesslin::formats
