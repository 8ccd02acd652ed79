#include "formats/ioca/modca.h"

#include <algorithm>

#include "formats/ioca/ioca.h"

namespace tesslin::ioca {
namespace {

constexpr uint32_t kMaxOffset = 0x7FFFFFFF;
constexpr uint8_t kExtensionFlag = 0x80, kPaddingFlag = 0x08;

// Appends up to `n` bytes of the stream at the reader's position; the buffer
// grows only with bytes that arrived. The count appended.
uint32_t append_bytes(StreamReader& in, uint32_t n, std::vector<uint8_t>* out) {
    uint8_t chunk[8192];
    uint32_t done = 0;
    while (done < n) {
        const uint32_t got = in.read_some(chunk, std::min<uint32_t>(n - done, sizeof chunk));
        if (got == 0) break;
        out->insert(out->end(), chunk, chunk + got);
        done += got;
    }
    return done;
}

}  // namespace

FieldReader::FieldReader(int32_t stream, uint32_t base) : in_(stream, 8192) {
    in_.seek(base);
    introducer_ = in_.ensure(1) >= 1 && in_.data()[0] == 0x5A;
}

int32_t FieldReader::next(Field* f) {
    if (in_.ensure(1) == 0) return in_.ok() ? 0 : in_.status();
    if (introducer_ && in_.u8() != 0x5A) return IMG_ERR_BAD_IMAGE;
    uint8_t h[8];
    if (!in_.read(h, 8)) return IMG_ERR_READ;
    const uint32_t length = load_be16(h);
    if (length < 8) return IMG_ERR_BAD_IMAGE;
    f->id = (uint32_t(h[2]) << 16) | (uint32_t(h[3]) << 8) | h[4];
    f->flags = h[5];
    f->data_at = in_.tell();
    f->data_length = length - 8;
    if (uint64_t(f->data_at) + f->data_length > kMaxOffset) return IMG_ERR_READ;
    f->end = f->data_at + f->data_length;
    if ((f->flags & kExtensionFlag) && f->data_length) {
        // The extension's first byte counts the extension itself.
        const uint32_t extension = in_.ensure(1) ? in_.data()[0] : 0;
        if (extension > f->data_length) return IMG_ERR_BAD_IMAGE;
        f->data_at += extension;
        f->data_length -= extension;
    }
    return 1;
}

bool FieldReader::append_data(const Field& f, std::vector<uint8_t>* out) {
    if (!in_.seek(f.data_at)) return false;
    const size_t start = out->size();
    if (append_bytes(in_, f.data_length, out) != f.data_length) return false;
    if ((f.flags & kPaddingFlag) && out->size() > start) {
        // The last padding byte counts the padding, itself included.
        const uint32_t pad = out->back();
        if (pad <= out->size() - start) out->resize(out->size() - pad);
    }
    return in_.seek(f.end);
}

uint32_t FieldReader::peek_id() {
    const uint32_t skip = introducer_ ? 1 : 0;
    if (in_.ensure(5 + skip) < 5 + skip) return 0;
    const uint8_t* p = in_.data() + skip;
    if (introducer_ && in_.data()[0] != 0x5A) return 0;
    return (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 8) | p[4];
}

uint32_t Located::stream_offset(uint32_t at) const {
    uint32_t offset = 0;
    for (const auto& [start, stream_at] : pieces)
        if (start <= at) offset = stream_at + (at - start);
    return offset;
}

int32_t locate(int32_t stream, uint32_t base, uint32_t page, Located* out) {
    FieldReader fields(stream, base);
    StreamReader& in = fields.in();
    if (in.ensure(1) >= 1 && in.data()[0] == 0x70) {
        // A bare image segment: one image, up to the end of the stream.
        if (page != 0) return IMG_ERR_NO_PAGE;
        out->kind = Located::Kind::kIoca;
        out->bare = true;
        out->pieces.push_back({0, base});
        append_bytes(in, kMaxOffset, &out->data);
        return in.ok() ? 0 : in.status();
    }
    uint32_t pages = 0;
    for (;;) {
        Field f;
        const int32_t r = fields.next(&f);
        if (r == 0) return IMG_ERR_READ;
        if (r < 0) return r;
        if (f.id == kBeginPage) ++pages;
        const bool on_page = page == 0 || pages > page;
        if (on_page && (f.id == kImageData || f.id == kContainerData)) {
            if (f.id == kContainerData) {
                uint8_t two[2] = {};
                if (!in.seek(f.data_at) || f.data_length < 2 || !in.read(two, 2)) {
                    if (!fields.skip(f)) return IMG_ERR_READ;
                    continue;
                }
                const bool jpeg = two[0] == 0xFF && two[1] == 0xD8;
                const bool tiff = two[0] == two[1] && (two[0] == 'I' || two[0] == 'M');
                if (!jpeg && !tiff) {
                    if (!fields.skip(f)) return IMG_ERR_READ;
                    continue;
                }
                out->kind = jpeg ? Located::Kind::kJpeg : Located::Kind::kTiff;
            } else {
                out->kind = Located::Kind::kIoca;
            }
            // The data of this field and of the consecutive ones of the
            // same kind.
            const uint32_t id = f.id;
            for (;;) {
                out->pieces.push_back({uint32_t(out->data.size()), f.data_at});
                if (!fields.append_data(f, &out->data)) break;
                if (fields.peek_id() != id || fields.next(&f) != 1) break;
            }
            return 0;
        }
        if (!fields.skip(f)) return IMG_ERR_READ;
    }
}

int32_t parse_segment(const std::vector<uint8_t>& s, bool wrapped, Segment* out) {
    const size_t n = s.size();
    size_t pos = 0;
    // Parameters, up to the first image data field. Fields this reader
    // does not use are skipped by their length.
    while (pos < n) {
        const uint8_t code = s[pos];
        if (code == 0xFE) {
            if (pos + 4 > n) break;
            if (s[pos + 1] == 0x92) break;
            pos += 4 + load_be16(&s[pos + 2]);
            continue;
        }
        if (pos + 2 > n) break;
        const uint32_t len = s[pos + 1];
        if (pos + 2 + len > n) break;
        const uint8_t* p = &s[pos + 2];
        if (code == 0x94 && len >= 9) {
            out->x_resolution = load_be16(p + 1);
            out->y_resolution = load_be16(p + 3);
            out->width = load_be16(p + 5);
            out->height = load_be16(p + 7);
            out->has_size = true;
        } else if (code == 0x95 && len >= 2) {
            out->compression = p[0];
            out->recording = p[1];
            out->lsb_first = len == 3 && p[2] != 0;
            out->has_encoding = true;
        } else if (code == 0x96 && len >= 1) {
            out->bits = p[0];
        }
        pos += 2 + len;
    }
    // The image data: consecutive image data fields.
    out->data.clear();
    if (pos + 4 <= n && s[pos] == 0xFE && s[pos + 1] == 0x92) {
        out->data_at = uint32_t(pos + 4);
        while (pos + 4 <= n && s[pos] == 0xFE && s[pos + 1] == 0x92) {
            const size_t len = load_be16(&s[pos + 2]);
            if (pos + 4 + len > n) return IMG_ERR_BAD_IMAGE;
            out->data.insert(out->data.end(), s.begin() + long(pos + 4), s.begin() + long(pos + 4 + len));
            pos += 4 + len;
        }
    } else if (wrapped) {
        out->data_at = 0;
        out->data = s;
    }
    return out->data.empty() ? IMG_ERR_BAD_IMAGE : 0;
}

}  // namespace tesslin::ioca
