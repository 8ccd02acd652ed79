#include "formats/ccitt/fax_page.h"

#include <cstring>

#include "core/stream.h"

namespace tesslin::ccitt {

namespace {

constexpr uint64_t kPixelBytesPerCodedByte = 2048;
constexpr uint64_t kPixelAllowance = uint64_t(64) << 20;

}  // namespace

BilevelHeader bilevel_header(uint32_t width, uint32_t height, int32_t x_dpi, int32_t y_dpi) {
    BilevelHeader h;
    std::memset(&h, 0, sizeof h);
    h.info.biSize = kDibHeaderSize;
    h.info.biWidth = int32_t(width);
    h.info.biHeight = int32_t(height);
    h.info.biPlanes = 1;
    h.info.biBitCount = 1;
    h.info.biSizeImage = uint32_t(uint64_t(row_bytes(width, 1)) * height);
    h.info.biXPelsPerMeter = x_dpi;
    h.info.biYPelsPerMeter = y_dpi;
    h.palette[0] = RgbQuad{0, 0, 0, 0};
    h.palette[1] = RgbQuad{255, 255, 255, 0};
    return h;
}

FaxParams page_params(uint32_t width, uint32_t height, int32_t mode, uint32_t fill_order) {
    FaxParams p;
    p.width = width;
    p.height = height;
    p.mode = mode;
    p.fill_order = fill_order;
    p.no_inversion = 1;
    return p;
}

int64_t bytes_from(int32_t stream, uint32_t offset) {
    const int64_t capacity = stream::capacity(stream);
    if (capacity < 0) return -1;
    return capacity > int64_t(offset) ? capacity - int64_t(offset) : 0;
}

int32_t check_page(int64_t width, int64_t height, int64_t data_bytes) {
    if (width < 1 || width > int64_t(kMaxFaxWidth) || height < 1 || height > INT32_MAX)
        return IMG_ERR_BAD_IMAGE;
    if (data_bytes < 0) return 0;
    const uint64_t pixel_bytes = uint64_t(row_bytes(uint32_t(width), 1)) * uint64_t(height);
    if (pixel_bytes > uint64_t(data_bytes) * kPixelBytesPerCodedByte + kPixelAllowance)
        return IMG_ERR_BAD_IMAGE;
    if (uint64_t(height) > uint64_t(data_bytes) * 8) return IMG_ERR_READ;
    return 0;
}

int32_t announce_page(uint32_t width, uint32_t height, int32_t x_dpi, int32_t y_dpi,
                      int64_t data_bytes, IMG_HEADER_CALLBACK header, intptr_t user) {
    if (int32_t s = check_page(width, height, data_bytes); s < 0) return s;
    if (!header) return IMG_ERR_BAD_IMAGE;
    const BilevelHeader h = bilevel_header(width, height, x_dpi, y_dpi);
    const int32_t r = header(&h.info, user);
    return r < 0 ? r : 0;
}

int32_t decode_page(const FaxParams& params, int32_t x_dpi, int32_t y_dpi, const uint8_t* data,
                    int32_t stream, IMG_RASTER_CALLBACK raster, intptr_t user,
                    IMG_HEADER_CALLBACK header) {
    int64_t data_bytes = params.data_length;
    if (!data) {
        const int32_t here = stream::seek(stream, 0, 1);
        if (here < 0) return here;
        data_bytes = bytes_from(stream, uint32_t(here));
    }
    if (int32_t s = announce_page(params.width, params.height, x_dpi, y_dpi, data_bytes, header,
                                  user))
        return s;
    return fax_decode(data, params.height, 0, params, stream, raster, user);
}

}  // namespace tesslin::ccitt
