// libFuzzer target for the PNG reader: decodes the input from a memory
// stream with callbacks that check every delivered row's size and number.
#include <cstdint>

#include "formats/png/png.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 24)) return 0;
    const fuzz::VectorInput in(data, size);  // exact size: reads past it are caught
    if (!in.stream) return 0;
    fuzz::RowCheck state;
    state.max_pixels = uint64_t(1) << 24;
    tesslin::png_decode(0, fuzz::check_row, reinterpret_cast<intptr_t>(&state), fuzz::check_header,
                        in.stream);
    return 0;
}
