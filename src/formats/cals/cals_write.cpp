// CALS writer (format code 18): eleven header records, five blank ones,
// then the page in Group 4.
#include <cstdio>
#include <cstring>

#include "core/stream.h"
#include "formats/cals/cals.h"
#include "formats/ccitt/ccitt.h"

namespace tesslin::cals {

namespace {

constexpr uint32_t kRecordBytes = 128;
constexpr uint32_t kRecords = kHeaderBytes / kRecordBytes;

// Writes one record: the text, padded with spaces to 128 bytes.
int32_t write_record(int32_t stream, const char* text) {
    char record[kRecordBytes];
    std::memset(record, ' ', kRecordBytes);
    std::memcpy(record, text, std::strlen(text));
    const int32_t w = stream::write(stream, record, kRecordBytes);
    if (w < 0) return w;
    return w == int32_t(kRecordBytes) ? 0 : IMG_ERR_WRITE;
}

}  // namespace

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    if (header->biBitCount != 1) return IMG_ERR_DEPTH;
    if (header->biWidth < 1 || header->biHeight < 1) return IMG_ERR_BAD_IMAGE;

    char pel_count[64], density[64];
    std::snprintf(pel_count, sizeof pel_count, "rpelcnt: %06d,%06d", int(header->biWidth),
                  int(header->biHeight));
    const int dpi = header->biXPelsPerMeter > 0 ? int(header->biXPelsPerMeter) : 200;
    std::snprintf(density, sizeof density, "rdensty: %04d", dpi);
    const char* const records[kRecords] = {
        "srcdocid: NONE", "dstdocid: NONE",  "txtfilid: NONE", "figid: NONE",
        "srcgph: NONE",   "doccls: NONE",    "rtype: 1",       "rorient: 000,270",
        pel_count,        density,           "notes: NONE",    "",
        "",               "",                "",               "",
    };
    for (const char* text : records)
        if (int32_t s = write_record(stream, text)) return s;
    return ccitt::fax_encode_g4(stream, header, supply, user, 0, ccitt::kFrameG4);
}

}  // namespace tesslin::cals
