// libFuzzer target of the Targa reader; decoded images are written as Targa
// (format code 3) and read back.
#include "formats/targa/targa.h"
#include "raster_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    raster_fuzz::run(tesslin::targa::decode, data, size, IMG_FORMAT_TARGA);
    return 0;
}
