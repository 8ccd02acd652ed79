// libFuzzer target for the DICOM reader: decodes the input from a memory
// stream with callbacks that check the decoder contract (at offset 0 and
// from the stream's position), decodes it into a handle through the
// library's callbacks, and runs element queries.
#include <cstdint>
#include <cstdlib>

#include "formats/dicom/dicom.h"
#include "fuzz_util.h"
#include "pipeline/decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 22)) return 0;
    const fuzz::VectorInput in(data, size);  // exact size: reads past it are caught
    const int32_t stream = in.stream;
    if (!stream) return 0;
    for (uint32_t position : {0u, tesslin::kPositionIsPage}) {
        fuzz::RowCheck state;
        state.max_pixels = uint64_t(1) << 22;
        tesslin::stream::seek(stream, 0, 0);
        tesslin::dicom::decode(position, fuzz::check_row, reinterpret_cast<intptr_t>(&state),
                               fuzz::check_header, stream);
    }
    {
        tesslin::DecodeContext ctx;
        if (tesslin::begin_decode(ctx) == 0) {
            const int32_t r = tesslin::dicom::decode(0, tesslin::library_raster,
                                                     reinterpret_cast<intptr_t>(&ctx),
                                                     tesslin::library_header, stream);
            const int32_t handle = tesslin::finish_decode(ctx, r < 0 ? r : 0);
            if (handle >= 0) IMG_delete_bitmap(handle);
        }
    }
    for (int32_t tag : {0x00280010, 0x00100010, 0x00020010, 0x7FE00010}) {
        int32_t value = 0;
        uint8_t buffer[65];
        buffer[64] = 0xA5;
        const int32_t r = tesslin::dicom::tag_query(stream, tag, 64, &value, buffer, 0);
        if (r > 1 || buffer[64] != 0xA5) std::abort();
    }
    return 0;
}
