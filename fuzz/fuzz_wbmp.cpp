// libFuzzer target of the WBMP reader; decoded images are written as WBMP
// and read back.
#include "formats/wbmp/wbmp.h"
#include "raster_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    raster_fuzz::run(tesslin::wbmp::decode, data, size, IMG_FORMAT_WBMP);
    return 0;
}
