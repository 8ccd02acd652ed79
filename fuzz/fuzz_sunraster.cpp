// libFuzzer target of the Sun raster reader; decoded images are written as
// Sun raster files and read back.
#include "formats/sunraster/sunraster.h"
#include "raster_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    raster_fuzz::run(tesslin::sunraster::decode, data, size, IMG_FORMAT_SUN_RASTER);
    return 0;
}
