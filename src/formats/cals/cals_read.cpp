// CALS reader: the pel count and density records of the text header, then
// the Group 4 page at base + 2048, or the TIFF some files carry at
// base + 1431.
#include <cstring>

#include "core/io.h"
#include "core/stream.h"
#include "formats/cals/cals.h"
#include "formats/ccitt/fax_page.h"
#include "formats/tiff/tiff.h"

namespace tesslin::cals {

namespace {

constexpr uint32_t kField = 30;  // bytes read for each value
// Where the pel count value may stand: record 9 after "rpelcnt: ", else the
// same column of records 8 and 7.
constexpr uint32_t kPelCountAt[] = {1033, 905, 777};
constexpr uint32_t kDensityAt = 1160;     // record 10 after "rdensty:"
constexpr uint32_t kMaxValue = 100000000; // larger numbers are not a page size

bool is_digit(uint8_t c) { return c >= '0' && c <= '9'; }

// Reads the 30-byte field at base + at.
bool read_field(StreamReader& in, uint32_t base, uint32_t at, uint8_t* out) {
    const uint64_t offset = uint64_t(base) + at;
    if (offset > 0x7FFFFFFF) {
        in.fail(IMG_ERR_READ);
        return false;
    }
    return in.seek(uint32_t(offset)) && in.read(out, kField);
}

// "width,height": the digits before the comma (spaces skipped), then after
// the comma and any spaces the run of digits, which something other than a
// digit must end within the field.
int32_t parse_pel_count(const uint8_t* f, uint32_t comma, uint32_t* width, uint32_t* height) {
    uint32_t w = 0, digits = 0;
    for (uint32_t i = 0; i < comma; ++i) {
        if (f[i] == ' ') continue;
        if (!is_digit(f[i]) || w >= kMaxValue) return IMG_ERR_BAD_IMAGE;
        w = w * 10 + uint32_t(f[i] - '0');
        ++digits;
    }
    if (!digits) return IMG_ERR_BAD_IMAGE;
    uint32_t i = comma + 1;
    while (i < kField && f[i] == ' ') ++i;
    uint32_t h = 0;
    const uint32_t first = i;
    for (; i < kField && is_digit(f[i]); ++i) {
        if (h >= kMaxValue) return IMG_ERR_BAD_IMAGE;
        h = h * 10 + uint32_t(f[i] - '0');
    }
    if (i == first || i == kField) return IMG_ERR_BAD_IMAGE;
    *width = w;
    *height = h;
    return 0;
}

// From the first digit, up to four characters as a decimal number (spaces
// skipped); 0 without a digit.
int32_t parse_density(const uint8_t* f) {
    uint32_t i = 0;
    while (i < kField && !is_digit(f[i])) ++i;
    int32_t v = 0;
    for (const uint32_t end = i + 4 < kField ? i + 4 : kField; i < end; ++i) {
        if (f[i] == ' ') continue;
        if (!is_digit(f[i])) break;
        v = v * 10 + (f[i] - '0');
    }
    return v;
}

// Hands a file holding a TIFF at base + 1431 to the TIFF reader.
int32_t decode_tiff(uint32_t position, uint32_t base, IMG_RASTER_CALLBACK raster, intptr_t user,
                    IMG_HEADER_CALLBACK header, int32_t stream) {
    const uint32_t at = base + kTiffOffset;
    if (!position_is_page(position)) return tiff::decode(at, raster, user, header, stream);
    // The page (and tile) bits stay; the TIFF starts at the stream's position.
    if (int32_t s = stream::seek(stream, int32_t(at), 0); s < 0) return s;
    return tiff::decode(position, raster, user, header, stream);
}

// "II" at base + 1431.
bool holds_tiff(StreamReader& in, uint32_t base, int32_t* status) {
    uint8_t mark[2];
    if (!in.seek(base + kTiffOffset) || !in.read(mark, 2)) {
        *status = in.status();
        return false;
    }
    *status = 0;
    return mark[0] == 'I' && mark[1] == 'I';
}

}  // namespace

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    uint32_t base = position;
    if (position_is_page(position)) {
        const int32_t here = stream::seek(stream, 0, 1);
        if (here < 0) return here;
        base = uint32_t(here);
    }
    if (uint64_t(base) + kHeaderBytes > 0x7FFFFFFF) return IMG_ERR_BAD_IMAGE;

    StreamReader in(stream, 4096);
    int32_t status = 0;
    if (holds_tiff(in, base, &status))
        return decode_tiff(position, base, raster, user, header, stream);
    if (status < 0) return status;

    uint8_t field[kField];
    const uint8_t* comma = nullptr;
    for (uint32_t at : kPelCountAt) {
        if (!read_field(in, base, at, field)) return in.status();
        comma = static_cast<const uint8_t*>(std::memchr(field, ',', kField));
        if (comma) break;
    }
    if (!comma) return IMG_ERR_BAD_IMAGE;
    uint32_t width = 0, height = 0;
    if (int32_t s = parse_pel_count(field, uint32_t(comma - field), &width, &height)) return s;
    if (!read_field(in, base, kDensityAt, field)) return in.status();
    const int32_t density = parse_density(field);

    if (int32_t s = stream::seek(stream, int32_t(base + kHeaderBytes), 0); s < 0) return s;
    return ccitt::decode_page(ccitt::page_params(width, height, ccitt::kModeG4, 1), density,
                              density, nullptr, stream, raster, user, header);
}

int32_t tile_query(int32_t stream, int32_t page, TileInfo* out) {
    StreamReader in(stream, 64);
    int32_t status = 0;
    if (!holds_tiff(in, 0, &status)) return IMG_ERR_UNSUPPORTED;
    return tiff::tile_info(stream, kTiffOffset, page, out);
}

int32_t is_tiled(int32_t stream) {
    StreamReader in(stream, 64);
    int32_t status = 0;
    return holds_tiff(in, 0, &status) ? tiff::is_tiled(stream, kTiffOffset) : 0;
}

}  // namespace tesslin::cals
