// libFuzzer target of the CALS reader: the input is the CALS data; the
// decoder runs with contract-checking callbacks and into a handle that is
// written as CALS again and read back.
#include "fax_fuzz.h"
#include "formats/cals/cals.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fax_fuzz::run_decoder(tesslin::cals::decode, 0, data, size, 18);
    return 0;
}
