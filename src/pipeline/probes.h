// Small readers the detection queries need before (or without) a format's
// full codec: the TIFF directory tags format identification maps (the TIFF
// reader in formats/tiff answers page counts and orientation) and the
// orientation fields of Photo CD and CALS files.
#pragma once

#include <cstdint>

namespace tesslin::probes {

struct TiffTags {
    uint32_t compression;  // 1 when the tag is absent
    uint32_t t4_options;   // 0 when absent
    uint32_t orientation;  // 1 when absent
};

// Reads the TIFF header at byte `base` of the stream and the tags of
// directory `page` (offsets relative to the header). Leaves the stream where
// the reading ended. 0; -12 on a short read; -3 for a header that is not
// TIFF; -11 when the directory does not exist.
int32_t tiff_tags(int32_t stream, uint32_t base, int32_t page, TiffTags* out);

// Photo CD: low two bits of the byte at offset 3586: 0 -> 0, 1 -> 270,
// 2 -> 180, 3 -> 90.
int32_t pcd_orientation(int32_t stream, int32_t page);

// CALS: the three digits at offset 905 (blanks skipped): 90 -> 270,
// 270 -> 90, other values unchanged.
int32_t cal_orientation(int32_t stream, int32_t page);

}  // namespace tesslin::probes
