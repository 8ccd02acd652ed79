#include "formats/ccitt/fax_page.h"

#include <cstring>

#include "core/limits.h"
#include "core/stream.h"

namespace tesslin::ccitt {

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
    if (int32_t s = limits::check_dimensions(uint64_t(width), uint64_t(height))) return s;
    if (data_bytes < 0) return 0;
    // Rows are delivered one by one: the page is not held whole, so only the
    // coded data bounds its size.
    limits::ImageBytes size;
    if (int32_t s = limits::image_bytes(uint64_t(width), uint64_t(height), 1, &size, UINT64_MAX))
        return s;
    if (int32_t s = limits::check_declared_size(data_bytes, 0, size.total, limits::kBilevel,
                                                IMG_ERR_BAD_IMAGE))
        return s;
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
