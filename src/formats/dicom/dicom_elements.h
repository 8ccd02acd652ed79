// The element walk the DICOM decoder and the element query share: where the
// data set starts (bare data set, or file meta information behind an
// optional preamble), its transfer syntax, and its elements one header at a
// time, with the nesting of sequences and items tracked so that callers
// act on top-level elements only.
#pragma once

#include <cstdint>
#include <string_view>

#include "core/io.h"

namespace tesslin::dicom {

// How the pixel data of a transfer syntax is coded.
enum class PixelCoding : uint8_t { kNative, kRle, kJpeg, kRefused };

struct Syntax {
    bool big_endian = false;
    bool explicit_vr = false;
    PixelCoding pixels = PixelCoding::kNative;
};

// The syntax of a transfer syntax UID (without its padding), compared as a
// whole string; unknown UIDs read as implicit little-endian native data.
Syntax syntax_of(std::string_view uid);

constexpr uint32_t kUndefinedLength = 0xFFFFFFFF;
constexpr uint16_t kItemGroup = 0xFFFE;
constexpr uint32_t kItem = 0xFFFEE000;
constexpr uint32_t kItemEnd = 0xFFFEE00D;
constexpr uint32_t kSequenceEnd = 0xFFFEE0DD;
constexpr uint32_t kPixelData = 0x7FE00010;

struct Element {
    uint16_t group = 0, element = 0;
    char vr[2] = {};
    uint32_t length = 0;
    uint32_t value_at = 0;  // stream offset of the value
    uint32_t tag() const { return (uint32_t(group) << 16) | element; }
};

// What the file meta information holds, each value kept up to its field
// size (64 characters for UIDs, 16 for the two names).
struct MetaRecord {
    uint8_t version[2] = {};
    char media_class[65] = {}, instance[65] = {}, transfer_syntax[65] = {},
         implementation_class[65] = {}, private_creator[65] = {};
    char implementation_version[17] = {}, source_title[17] = {};
};

class ElementReader {
public:
    explicit ElementReader(int32_t stream) : in_(stream, 8192) {}

    // Settles where the data set starts and its transfer syntax: a bare data
    // set (two implicit little-endian headers of the same non-zero group at
    // `base`), or "DICM" at `base` or a preamble and "DICM" before the file
    // meta elements. Leaves the reader at the first data set element.
    // When `wanted` is met among the meta elements, *hit describes it and 1
    // is returned. Otherwise 0, IMG_ERR_BAD_IMAGE for malformed meta
    // information (an element or group it may not hold), IMG_ERR_READ when
    // it is cut short.
    int32_t open(uint32_t base, uint32_t wanted = 0, Element* hit = nullptr);

    const Syntax& syntax() const { return syntax_; }
    const MetaRecord& meta() const { return meta_; }
    StreamReader& in() { return in_; }

    // The next element header of the data set; false when it cannot be read.
    // depth() tells how deep inside sequences of undefined length it lies.
    bool next(Element* e);
    int32_t depth() const { return depth_; }

    // Moves past the element: skips its value, or enters it when its length
    // is undefined (sequences, items, encapsulated pixel data); delimiters
    // leave the level they close. False when the value runs past the
    // offsets a stream can have.
    bool pass(const Element& e);

    // Reads min(length, max) bytes of a value of defined length into out and
    // skips the rest; the count read, or -1 when the value cannot be read.
    int64_t read_value(const Element& e, void* out, uint32_t max);

    uint16_t u16(const uint8_t* p) const { return syntax_.big_endian ? load_be16(p) : load_le16(p); }
    uint32_t u32(const uint8_t* p) const { return syntax_.big_endian ? load_be32(p) : load_le32(p); }

private:
    bool header(Element* e, bool big_endian, bool explicit_vr);
    bool skip_to(uint64_t offset);
    // Exactly n bytes at an absolute offset, without consuming them; a short
    // look sets no status.
    bool peek(uint64_t offset, uint8_t* out, uint32_t n);
    int32_t read_meta(uint32_t wanted, Element* hit);

    StreamReader in_;
    Syntax syntax_;
    MetaRecord meta_;
    int32_t depth_ = 0;
};

}  // namespace tesslin::dicom
