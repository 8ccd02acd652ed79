// One page of fax data behind a fixed header: the pieces every format that
// wraps coded bilevel data shares (CALS, raw fax, IMT, BTR, KFX, LSD, MAG).
// The header the reader announces, the check of declared sizes against the
// coded data the stream holds, and the decode of the page.
#pragma once

#include <cstdint>

#include "core/dib.h"
#include "formats/ccitt/ccitt.h"
#include "tesslin/tesslin.h"

namespace tesslin::ccitt {

// A 1-bit DIB header: size 40, the width and height, 1 plane, compression
// 0, image size = packed row bytes x height, both resolutions in dots per
// inch, colour counts 0, palette entry 0 black and entry 1 white.
struct BilevelHeader {
    DibHeader info;
    RgbQuad palette[2];
};
BilevelHeader bilevel_header(uint32_t width, uint32_t height, int32_t x_dpi, int32_t y_dpi);

// Bytes of the stream from `offset` to its end, or -1 when the stream cannot
// tell (a hook without a size).
int64_t bytes_from(int32_t stream, uint32_t offset);

// Whether `data_bytes` bytes of coded data (negative: unknown) can back a
// page of width x height. IMG_ERR_BAD_IMAGE for a width or height outside
// 1 .. limits::kMaxDimension, or a page whose packed rows the data cannot
// back under limits::kBilevel (fax coding of a blank row costs one bit
// whatever its width, hence its large allowance); IMG_ERR_READ when the page
// has more rows than the data has bits: every coding spends at least one bit
// on a row, so the data is cut short (no data at all is the plainest case).
// 0 otherwise.
int32_t check_page(int64_t width, int64_t height, int64_t data_bytes);

// Parameters of a page decoded whole: rows delivered white = 1, no strips.
FaxParams page_params(uint32_t width, uint32_t height, int32_t mode, uint32_t fill_order);

// Announces the page's header through `header` after check_page against
// `data_bytes` bytes of coded data. Returns 0 to go on, or the negative
// status of the check or of the header callback.
int32_t announce_page(uint32_t width, uint32_t height, int32_t x_dpi, int32_t y_dpi,
                      int64_t data_bytes, IMG_HEADER_CALLBACK header, intptr_t user);

// announce_page, then every row of the page (params.height rows from row 0)
// through the decoder of params.mode: memory modes read params.data_length
// bytes at `data`, stream modes read from the stream's current position to
// its end. 0 or the first negative status.
int32_t decode_page(const FaxParams& params, int32_t x_dpi, int32_t y_dpi, const uint8_t* data,
                    int32_t stream, IMG_RASTER_CALLBACK raster, intptr_t user,
                    IMG_HEADER_CALLBACK header);

}  // namespace tesslin::ccitt
