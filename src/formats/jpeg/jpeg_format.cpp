// The JPEG registry descriptor.
#include "formats/jpeg/jpeg.h"
#include "pipeline/codec.h"

namespace tesslin::jpeg {
namespace {

bool signature(const Probe& p) { return p.bytes[0] == 0xFF && p.bytes[1] == 0xD8; }

int32_t decode_image(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                     IMG_HEADER_CALLBACK header, int32_t stream) {
    return decode(position, raster, user, header, stream);
}

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_JPEG, "jpeg", "JPEG", "jpg", encode, 0, RowSupply::kPacked, false, true},
};

}  // namespace
}  // namespace tesslin::jpeg

namespace tesslin::formats {

extern const FormatDescriptor kJpg = {
    .tag = "jpg", .detect_switch = IMG_FORMAT_JPEG, .signature = jpeg::signature,
    .decode = jpeg::decode_image, .codes = jpeg::kCodes};

}  // namespace tesslin::formats
