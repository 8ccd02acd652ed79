#include "formats/dicom/dicom_elements.h"

#include <algorithm>
#include <cstring>

#include "core/stream.h"

namespace tesslin::dicom {
namespace {

// Offsets beyond this are not stream positions.
constexpr uint64_t kMaxOffset = 0x7FFFFFFF;

// Explicit-VR value representations whose header carries two reserved bytes
// and a 32-bit length; every other one has a 16-bit length.
bool long_vr(char a, char b) {
    static constexpr char kLong[][3] = {"OB", "OD", "OF", "OL", "OV", "OW", "SQ",
                                        "SV", "UC", "UN", "UR", "UT", "UV"};
    for (const char* v : kLong)
        if (v[0] == a && v[1] == b) return true;
    return false;
}

// A UID or name without the padding DICOM adds to even lengths.
std::string_view trimmed(const char* text) {
    std::string_view s(text);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\0')) s.remove_suffix(1);
    return s;
}

}  // namespace

Syntax syntax_of(std::string_view uid) {
    using P = PixelCoding;
    struct Row {
        const char* uid;
        Syntax syntax;
    };
    static constexpr Row kSyntaxes[] = {
        {"1.2.840.10008.1.2", {false, false, P::kNative}},
        {"1.2.840.10008.1.2.1", {false, true, P::kNative}},
        {"1.2.840.10008.1.3", {true, false, P::kNative}},
        {"1.2.840.10008.1.2.2", {true, true, P::kNative}},
        {"1.2.840.10008.1.2.5", {false, true, P::kRle}},
        {"1.2.840.10008.1.2.4.50", {false, true, P::kJpeg}},
        // JPEG lossless: refused; queries still walk them (explicit VR).
        {"1.2.840.10008.1.2.4.57", {false, true, P::kRefused}},
        {"1.2.840.10008.1.2.4.70", {false, true, P::kRefused}},
    };
    for (const Row& r : kSyntaxes)
        if (uid == r.uid) return r.syntax;
    return Syntax{};
}

bool ElementReader::peek(uint64_t offset, uint8_t* out, uint32_t n) {
    if (offset + n > kMaxOffset || !in_.seek(uint32_t(offset)) || in_.ensure(n) < n) return false;
    std::memcpy(out, in_.data(), n);
    return true;
}

bool ElementReader::skip_to(uint64_t offset) {
    if (offset > kMaxOffset) {
        in_.fail(IMG_ERR_READ);
        return false;
    }
    return in_.seek(uint32_t(offset));
}

bool ElementReader::header(Element* e, bool big_endian, bool explicit_vr) {
    uint8_t h[8];
    if (!in_.read(h, 8)) return false;
    auto u16 = [&](const uint8_t* p) { return big_endian ? load_be16(p) : load_le16(p); };
    auto u32 = [&](const uint8_t* p) { return big_endian ? load_be32(p) : load_le32(p); };
    e->group = u16(h);
    e->element = u16(h + 2);
    if (e->group == kItemGroup || !explicit_vr) {
        e->vr[0] = e->vr[1] = 0;
        e->length = u32(h + 4);
    } else {
        e->vr[0] = char(h[4]);
        e->vr[1] = char(h[5]);
        if (long_vr(e->vr[0], e->vr[1])) {
            uint8_t l[4];
            if (!in_.read(l, 4)) return false;
            e->length = u32(l);
        } else {
            e->length = u16(h + 6);
        }
    }
    e->value_at = in_.tell();
    return true;
}

bool ElementReader::next(Element* e) { return header(e, syntax_.big_endian, syntax_.explicit_vr); }

bool ElementReader::pass(const Element& e) {
    if (e.length == kUndefinedLength) {
        ++depth_;
        return true;
    }
    if ((e.tag() == kItemEnd || e.tag() == kSequenceEnd) && depth_ > 0) --depth_;
    return skip_to(uint64_t(e.value_at) + e.length);
}

int64_t ElementReader::read_value(const Element& e, void* out, uint32_t max) {
    if (e.length == kUndefinedLength) return -1;
    const uint32_t n = std::min(e.length, max);
    if (!in_.read(out, n) || !skip_to(uint64_t(e.value_at) + e.length)) return -1;
    return n;
}

int32_t ElementReader::open(uint32_t base, uint32_t wanted, Element* hit) {
    // A bare data set: implicit little-endian from the first byte.
    uint8_t a[8], b[8];
    if (peek(base, a, 8) && load_le16(a) != 0 &&
        peek(uint64_t(base) + 8 + load_le32(a + 4), b, 8) && load_le16(b) == load_le16(a)) {
        syntax_ = Syntax{};
        return in_.seek(base) ? 0 : in_.status();
    }
    // File meta information after "DICM", at the start or behind the
    // 128-byte preamble.
    uint8_t magic[4] = {};
    const bool at_start = peek(base, magic, 4) && std::memcmp(magic, "DICM", 4) == 0;
    if (!skip_to(uint64_t(base) + (at_start ? 4 : 132))) return IMG_ERR_READ;
    const int32_t r = read_meta(wanted, hit);
    if (r != 0) return r;
    syntax_ = syntax_of(trimmed(meta_.transfer_syntax));
    return 0;
}

int32_t ElementReader::read_meta(uint32_t wanted, Element* hit) {
    // The group is read until its length (element 0000) is used up. Without
    // that element the meta information ends at the first element of
    // another group.
    uint64_t group_end = uint64_t(in_.tell()) + 9999;
    bool have_length = false;
    while (in_.tell() < group_end) {
        if (in_.ensure(2) < 2) return in_.ok() ? IMG_ERR_READ : in_.status();
        if (load_le16(in_.data()) != 2) {
            if (have_length) return IMG_ERR_BAD_IMAGE;
            break;
        }
        Element e;
        if (!header(&e, false, true)) return in_.ok() ? IMG_ERR_READ : in_.status();
        if (e.length == kUndefinedLength) return IMG_ERR_BAD_IMAGE;
        if (wanted && e.tag() == wanted) {
            if (hit) *hit = e;
            return 1;
        }
        char* text = nullptr;
        uint32_t field = 0;
        switch (e.element) {
            case 0x0000: {
                uint8_t v[4] = {};
                if (read_value(e, v, 4) < 0) return IMG_ERR_READ;
                group_end = uint64_t(in_.tell()) + load_le32(v);
                have_length = true;
                continue;
            }
            case 0x0001:
                if (read_value(e, meta_.version, 2) < 0) return IMG_ERR_READ;
                continue;
            case 0x0002: text = meta_.media_class, field = 64; break;
            case 0x0003: text = meta_.instance, field = 64; break;
            case 0x0010: text = meta_.transfer_syntax, field = 64; break;
            case 0x0012: text = meta_.implementation_class, field = 64; break;
            case 0x0013: text = meta_.implementation_version, field = 16; break;
            case 0x0016: text = meta_.source_title, field = 16; break;
            case 0x0100: text = meta_.private_creator, field = 64; break;
            case 0x0102:
                if (!pass(e)) return IMG_ERR_READ;
                continue;
            default: return IMG_ERR_BAD_IMAGE;
        }
        const int64_t n = read_value(e, text, field);
        if (n < 0) return IMG_ERR_READ;
        text[n] = 0;
    }
    return 0;
}

}  // namespace tesslin::dicom
