// TIFF directories: the file header, the page index our writer adds, the
// walk along the IFD chain and the directory record the reader, the tag
// query, the tile query and the page counter share.
//
// Offsets inside a TIFF count from its base, the stream position at which
// the TIFF begins (0 for a file, 1431 inside some CALS files, the preview
// offset inside an EPS file).
#pragma once

#include <cstdint>
#include <vector>

#include "core/io.h"

namespace tesslin::tiff {

// Tags the reader and the writer name.
enum Tag : uint16_t {
    kNewSubfileType = 254,
    kImageWidth = 256,
    kImageLength = 257,
    kBitsPerSample = 258,
    kCompression = 259,
    kPhotometric = 262,
    kFillOrder = 266,
    kStripOffsets = 273,
    kOrientation = 274,
    kSamplesPerPixel = 277,
    kRowsPerStrip = 278,
    kStripByteCounts = 279,
    kXResolution = 282,
    kYResolution = 283,
    kPlanarConfig = 284,
    kGrayResponseUnit = 290,
    kGrayResponseCurve = 291,
    kT4Options = 292,
    kResolutionUnit = 296,
    kDateTime = 306,
    kArtist = 315,
    kPredictor = 317,
    kColorMap = 320,
    kTileWidth = 322,
    kTileLength = 323,
    kTileOffsets = 324,
    kTileByteCounts = 325,
    kExtraSamples = 338,
    kJpegTables = 347,
    kJpegInterchange = 513,
    kJpegInterchangeLength = 514,
    kJpegRestartInterval = 515,
    kJpegQTables = 519,
    kJpegDcTables = 520,
    kJpegAcTables = 521,
    kYCbCrSubsampling = 530,
};

// Field types.
enum Type : uint16_t { kByte = 1, kAscii = 2, kShort = 3, kLong = 4, kRational = 5 };

// Signature our writer puts at offset 8 when the file carries a page index;
// the reader recognises its first four bytes.
constexpr char kIndexSignature[8] = {'T', 'e', 's', 's', 'l', 'i', 'n', 0};

// Bounds of the directory walk: a first directory outside 3..550 entries is
// refused, a later one outside 5..500 ends the chain.
constexpr uint32_t kFirstMinEntries = 3, kFirstMaxEntries = 550;
constexpr uint32_t kChainMinEntries = 5, kChainMaxEntries = 500;

// One 12-byte directory entry; `raw` is the value field as stored.
struct Field {
    uint16_t tag = 0;
    uint16_t type = 0;
    uint32_t count = 0;
    uint8_t raw[4] = {};
    bool present() const { return type != 0; }
};

// Reads a TIFF's header and directories through one buffered reader.
class TiffFile {
public:
    TiffFile(int32_t stream, uint32_t base);

    StreamReader& in() { return in_; }
    int32_t stream() const { return stream_; }
    uint32_t base() const { return base_; }
    bool big_endian() const { return big_; }
    // Bytes the stream holds from offset 0, or -1 when unknown.
    int64_t capacity() const { return capacity_; }

    uint16_t u16() { return big_ ? in_.be16() : in_.le16(); }
    uint32_t u32() { return big_ ? in_.be32() : in_.le32(); }
    uint16_t load16(const uint8_t* p) const { return big_ ? load_be16(p) : load_le16(p); }
    uint32_t load32(const uint8_t* p) const { return big_ ? load_be32(p) : load_le32(p); }

    // Seeks to base + offset; false (status IMG_ERR_READ) when that lies beyond 4 GB
    // or past the end of a stream of known size.
    bool seek(uint32_t offset);

    // Reads n bytes at base + offset straight from the stream into out,
    // around the reader's buffer (whose view of the stream stays valid).
    bool read_direct(uint32_t offset, uint8_t* out, uint32_t n);

    // Reads the 8-byte header: 0, IMG_ERR_BAD_IMAGE when fewer than 8 bytes arrive,
    // IMG_ERR_UNSUPPORTED when the byte-order word is neither "II" nor "MM".
    int32_t read_header();
    uint32_t first_ifd() const { return first_ifd_; }

    // Moves to the directory of `page` and returns its offset in *ifd: through the page index when
    // the file has one, otherwise along the chain. `min_first`/`max_first` bound the entry count of
    // the directory the walk starts at (IMG_ERR_BAD_IMAGE outside), `min_next`/`max_next` every
    // later one: outside them the chain ends, or with `strict` the walk fails with
    // IMG_ERR_BAD_IMAGE. A loop in the chain ends it too. IMG_ERR_NO_PAGE for a page beyond the
    // chain, or the reader's status.
    int32_t find_page(uint32_t page, uint32_t* ifd, uint32_t min_first, uint32_t max_first,
                      uint32_t min_next, uint32_t max_next, bool strict = false);

    // Reads the directory at `ifd` (entry count, entries, next offset).
    // IMG_ERR_READ when it is cut short.
    int32_t read_directory(uint32_t ifd, std::vector<Field>* fields, uint32_t* next);

    // The first value of a field as an unsigned number: BYTE, SHORT, LONG
    // (inline or at the offset), the numerator of a RATIONAL; 0 for other
    // types or when the offset cannot be read.
    uint32_t value(const Field& f);
    // Value i (0-based) of a BYTE, SHORT or LONG field; false past the data.
    bool value_at(const Field& f, uint32_t i, uint32_t* out);
    // Numerator / denominator of a RATIONAL (numerator alone for a zero
    // denominator), or the plain value of other types.
    uint32_t rational(const Field& f);
    // Up to `max` values of a BYTE, SHORT or LONG field; false when the
    // data cannot be read.
    bool values(const Field& f, uint32_t max, std::vector<uint32_t>* out);
    // The bytes of a field (inline or at its offset), at most `max`.
    bool bytes(const Field& f, uint32_t max, std::vector<uint8_t>* out);

    // Offset of the value data of a field that does not fit inline.
    uint32_t offset_of(const Field& f) const { return load32(f.raw); }

private:
    int32_t stream_;
    uint32_t base_;
    StreamReader in_;
    int64_t capacity_ = -1;
    bool big_ = false;
    uint32_t first_ifd_ = 0;
};

// Size in bytes of one value of a field type (0 for unknown types).
uint32_t type_size(uint16_t type);

// The directory record the reader decodes from.
struct Directory {
    uint32_t width = 0;           // ImageWidth, or TileWidth of a tiled image
    uint32_t length = 0;          // ImageLength, or TileLength of a tiled image
    uint32_t image_width = 0;     // ImageWidth and ImageLength as written
    uint32_t image_length = 0;
    uint32_t tile_width = 0;      // 0 when absent
    uint32_t tile_length = 0;
    bool tiled = false;
    uint32_t rows_per_strip = 0xFFFFFFFE;
    Field strip_offsets, strip_counts;
    uint32_t samples = 1;
    uint32_t bits = 1;
    uint32_t compression = 1;
    uint32_t photometric = 0;
    bool photometric_present = false;
    Field color_map;
    uint32_t x_res = 0, y_res = 0;
    uint32_t resolution_unit = 2;
    uint32_t fill_order = 1;
    uint32_t planar = 1;
    uint32_t predictor = 1;
    Field gray_curve;
    uint32_t gray_unit = 0;
    uint32_t jpeg_interchange = 0;
    uint32_t jpeg_interchange_length = 0;
    uint32_t jpeg_restart = 0;
    Field jpeg_q, jpeg_dc, jpeg_ac, jpeg_tables;
    uint32_t ycbcr_h = 0, ycbcr_v = 0;  // 0: tag absent
    uint32_t orientation = 0;
    uint32_t t4_options = 0;
    uint32_t extra_samples = 0;
    Field date, artist;
    bool jbig_reserve = false;  // tag 34750 or 33431 present
};

// Parses a directory's fields into the record, with the adjustments made
// after the list: CCITT photometric flipped, one strip raised to the image
// length, Group 4 with deeper samples read as uncompressed, Group 3 with
// two-dimensional coding as compression 45.
void parse_directory(TiffFile& f, const std::vector<Field>& fields, Directory* d);

// The field with a tag, or null.
const Field* find_field(const std::vector<Field>& fields, uint16_t tag);

}  // namespace tesslin::tiff
