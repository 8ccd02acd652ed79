// MAG: several pages of Group 4 data (first pixel in the low bit), chained
// by page records.
//
// Each page has a block of 100 bytes in front of its page record: the width
// and height (16-bit) at 6 and 8, the record at 100. The record holds the
// absolute position of the page's coded data and its length (32-bit each);
// the next page's block starts where that data ends. The first block starts
// at 149 (width and height at 155 and 157, record at 249); when both sizes
// there are 0 the first block is taken 12 bytes later (161: sizes at 167 and
// 169, record at 261).
#include "core/io.h"
#include "core/stream.h"
#include "formats/ccitt/fax_page.h"
#include "formats/faxcontainers/faxcontainers.h"

namespace tesslin::faxcontainers {

namespace {

constexpr uint32_t kFirstBlock = 149;
constexpr uint32_t kMoved = 12;
constexpr uint32_t kSizeInBlock = 6;
constexpr uint32_t kRecordInBlock = 100;
constexpr int32_t kMagDpi = 300;
// Page numbers are 16-bit: no chain is walked further.
constexpr uint32_t kMaxSteps = 0x10000;

struct Record {
    int64_t at = 0;  // where the record stands
    int32_t data = 0;
    int32_t length = 0;
    // Start of the next page's block: where this page's data ends.
    int64_t next_block() const { return int64_t(data) + int64_t(length); }
};

// Reads the record at `at`; false when it cannot be read.
bool read_record(StreamReader& in, int64_t at, Record& r) {
    if (at < 0 || at + 8 > 0x7FFFFFFF || !in.seek(uint32_t(at))) return false;
    r.at = at;
    r.data = int32_t(in.le32());
    r.length = int32_t(in.le32());
    return in.ok();
}

// Moves to the record of the next page; false when it cannot be read or
// does not lie after the current one (a chain that loops back).
bool next_record(StreamReader& in, Record& r, int64_t* block) {
    *block = r.next_block();
    const int64_t at = *block + kRecordInBlock;
    if (at <= r.at) return false;
    return read_record(in, at, r);
}

bool read_size(StreamReader& in, int64_t at, uint32_t* width, uint32_t* height) {
    if (at < 0 || at + 4 > 0x7FFFFFFF || !in.seek(uint32_t(at))) return false;
    *width = in.le16();
    *height = in.le16();
    return in.ok();
}

}  // namespace

int32_t decode_mag(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream) {
    const bool paged = position_is_page(position);
    const uint32_t page = paged ? position_page(position) : 0;
    const int64_t base = paged ? 0 : position;
    StreamReader in(stream, 512);

    uint32_t width = 0, height = 0;
    int64_t block = kFirstBlock;
    if (!read_size(in, base + block + kSizeInBlock, &width, &height)) return in.status();
    if (width == 0 && height == 0) {
        block += kMoved;
        if (!read_size(in, base + block + kSizeInBlock, &width, &height)) return in.status();
    }
    Record r;
    if (!read_record(in, block + kRecordInBlock, r)) return IMG_ERR_NO_PAGE;
    for (uint32_t p = 0; p < page; ++p) {
        if (!next_record(in, r, &block)) return IMG_ERR_NO_PAGE;
        if (!read_size(in, block + kSizeInBlock, &width, &height)) return IMG_ERR_NO_PAGE;
    }
    if (r.data < 1 || r.length < 1 || width < 1) return IMG_ERR_NO_PAGE;

    if (int32_t s = stream::seek(stream, r.data, 0); s < 0) return s;
    return ccitt::decode_page(ccitt::page_params(width, height, ccitt::kModeG4, 2), kMagDpi,
                              kMagDpi, nullptr, stream, raster, user, header);
}

int32_t count_mag_pages(int32_t stream) {
    StreamReader in(stream, 64);
    Record r;
    if (!read_record(in, kFirstBlock + kRecordInBlock, r)) return IMG_ERR_READ;
    if (r.length == 0 && !read_record(in, kFirstBlock + kMoved + kRecordInBlock, r))
        return IMG_ERR_READ;
    // Every step to a next record counts, also the one that finds no page.
    int32_t steps = 0;
    int64_t block = 0;
    while (uint32_t(steps) < kMaxSteps) {
        ++steps;
        if (!next_record(in, r, &block) || r.data < 1 || r.length <= 0) break;
    }
    return steps;
}

}  // namespace tesslin::faxcontainers
