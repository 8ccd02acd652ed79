// libFuzzer target of the Photoshop reader: the composite image, channel 2
// of it and the image-resource query; decoded images are written as
// Photoshop files and read back.
#include "formats/psd/psd.h"
#include "raster_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 22)) return 0;
    raster_fuzz::run(tesslin::psd::decode, data, size, IMG_FORMAT_PSD);
    raster_fuzz::check(tesslin::psd::decode, uint32_t(-2), data, size);  // channel 2
    const fuzz::VectorInput in(data, size);
    uint8_t resource[64];
    int32_t value = 0;
    tesslin::psd::tag_query(in.stream, 1005, sizeof resource, &value, resource, 0);
    return 0;
}
