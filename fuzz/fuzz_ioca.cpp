// libFuzzer target for the IOCA and MO:DCA reader. Byte 0 is the page
// (mod 4); the rest is the file. Decodes it with callbacks that check the
// decoder contract (page 0 at offset 0 and the chosen page), into a handle
// through the library's callbacks, and runs the page count, orientation
// and ABIC parameter queries.
#include <cstdint>
#include <cstdlib>

#include "formats/ioca/ioca.h"
#include "fuzz_util.h"
#include "pipeline/decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size > (1u << 22)) return 0;
    const uint32_t page = data[0] % 4;
    const fuzz::VectorInput in(data + 1, size - 1);  // exact size: reads past it are caught
    const int32_t stream = in.stream;
    if (!stream) return 0;
    for (uint32_t position : {0u, tesslin::kPositionIsPage | page}) {
        fuzz::RowCheck state;
        state.max_pixels = uint64_t(1) << 24;
        state.runs = fuzz::RunRecords::kChecked;
        tesslin::stream::seek(stream, 0, 0);
        tesslin::ioca::decode(position, fuzz::check_row, reinterpret_cast<intptr_t>(&state),
                              fuzz::check_header, stream);
    }
    {
        tesslin::DecodeContext ctx;
        if (tesslin::begin_decode(ctx) == 0) {
            const int32_t r = tesslin::ioca::decode(0, tesslin::library_raster,
                                                    reinterpret_cast<intptr_t>(&ctx),
                                                    tesslin::library_header, stream);
            const int32_t handle = tesslin::finish_decode(ctx, r < 0 ? r : 0);
            if (handle >= 0) IMG_delete_bitmap(handle);
        }
    }
    tesslin::stream::seek(stream, 0, 0);
    if (tesslin::ioca::count_pages(stream) < 1) std::abort();
    tesslin::stream::seek(stream, 0, 0);
    const int32_t degrees = tesslin::ioca::orientation(stream, int32_t(page));
    if (degrees != 0 && degrees != 90 && degrees >= 0) std::abort();
    tesslin::stream::seek(stream, 0, 0);
    tesslin::AbicParams params{};
    tesslin::ioca::abic_params(stream, int32_t(page), &params);
    return 0;
}
