// MO:DCA structured fields and IOCA self-defining fields: the pieces the
// IOCA decoder, the page counter, the orientation reader and the ABIC
// parameter reader share.
#pragma once

#include <cstdint>
#include <vector>

#include "core/io.h"

namespace tesslin::ioca {

// Structured field identifiers.
constexpr uint32_t kBeginPage = 0xD3A8AF;
constexpr uint32_t kImageData = 0xD3EEFB;        // IOCA image picture data
constexpr uint32_t kContainerData = 0xD3EE92;    // object container data
constexpr uint32_t kObjectAreaPosition = 0xD3AC6B;

// Compression codes of the image encoding parameter.
constexpr uint8_t kIbmMmr = 0x01, kUncompressed = 0x03, kAbic = 0x08, kAbicConcatenated = 0x0A,
                  kT4OneD = 0x80, kT4TwoD = 0x81, kT6 = 0x82, kJpeg = 0x83;

struct Field {
    uint32_t id = 0;
    uint8_t flags = 0;
    uint32_t data_at = 0;      // stream offset of the data
    uint32_t data_length = 0;  // without extension and padding
    uint32_t end = 0;          // stream offset after the field
};

// Reads the structured fields of a MO:DCA file from `base`: with the 0x5A
// introducer before every field when the byte at `base` is 0x5A.
class FieldReader {
public:
    FieldReader(int32_t stream, uint32_t base);

    // The next field's header: 1, 0 at the end of the data (nothing left),
    // IMG_ERR_READ for a header cut short, IMG_ERR_BAD_IMAGE for a length
    // below 8, an extension longer than the field or a missing introducer.
    int32_t next(Field* f);
    // Moves after the field; false when the stream cannot get there.
    bool skip(const Field& f) { return in_.seek(f.end); }
    // Appends the field's data (its padding left out) to `out`; false when
    // the data is cut short.
    bool append_data(const Field& f, std::vector<uint8_t>* out);
    // Identifier of the next field without consuming it; 0 when there is none.
    uint32_t peek_id();

    StreamReader& in() { return in_; }

private:
    StreamReader in_;
    bool introducer_ = false;
};

// Where the image of a page is.
struct Located {
    enum class Kind : uint8_t { kIoca, kJpeg, kTiff } kind = Kind::kIoca;
    bool bare = false;  // a bare segment rather than MO:DCA fields
    // An IOCA segment (the data of consecutive D3EEFB fields, or a bare
    // segment to the end of the stream), or the object container's data.
    std::vector<uint8_t> data;
    // Stream offset of every piece of `data`: (offset in data, stream offset).
    std::vector<std::pair<uint32_t, uint32_t>> pieces;
    // Stream offset of a byte of `data`.
    uint32_t stream_offset(uint32_t at) const;
};

// Finds the image of `page` in the MO:DCA file or bare segment at `base`.
// 0; IMG_ERR_NO_PAGE for a page other than 0 of a bare segment;
// IMG_ERR_READ when the fields end before the page's image; the status of
// a broken field.
int32_t locate(int32_t stream, uint32_t base, uint32_t page, Located* out);

// The parameters and image data of an IOCA segment.
struct Segment {
    uint32_t width = 0, height = 0;
    uint32_t x_resolution = 0, y_resolution = 0;  // units per 10 inches
    uint32_t bits = 1;
    uint8_t compression = 0, recording = 0;
    bool lsb_first = false;
    bool has_size = false, has_encoding = false;
    uint32_t data_at = 0;       // offset in the segment of the first image data byte
    std::vector<uint8_t> data;  // the image data fields' data, concatenated
};

// Parses the self-defining fields of a segment up to the image data and
// gathers the image data fields; the data of MO:DCA fields without one is
// taken whole as image data (`wrapped`). 0; IMG_ERR_BAD_IMAGE when an image
// data field runs past the segment or no data is found.
int32_t parse_segment(const std::vector<uint8_t>& segment, bool wrapped, Segment* out);

}  // namespace tesslin::ioca
