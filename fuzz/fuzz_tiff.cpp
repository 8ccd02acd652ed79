// libFuzzer target for the TIFF reader: decodes page 0, page 1 and tile 1
// of the input from a memory stream with callbacks that check every
// delivered row's size and number, and runs the directory queries.
#include <cstdint>
#include <cstdlib>

#include "formats/tiff/tiff.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 22)) return 0;
    const fuzz::VectorInput in(data, size);  // exact size: reads past it are caught
    const int32_t stream = in.stream;
    if (!stream) return 0;
    for (uint32_t position : {0u, 0x80000001u, 0x80010000u, 0xFFFFFFFFu}) {
        fuzz::RowCheck state;
        state.max_pixels = uint64_t(1) << 22;
        state.runs = fuzz::RunRecords::kSized;
        tesslin::stream::seek(stream, 0, 0);
        tesslin::tiff::decode(position, fuzz::check_row, reinterpret_cast<intptr_t>(&state),
                              fuzz::check_header, stream);
    }
    tesslin::tiff::count_pages(stream);
    tesslin::tiff::orientation(stream, 1);
    tesslin::TileInfo info;
    tesslin::tiff::tile_query(stream, 0, &info);
    int32_t value = 0;
    uint8_t buffer[64];
    tesslin::tiff::tag_query(stream, 270, sizeof buffer, &value, buffer, 0);
    tesslin::tiff::tag_query(stream, 282, sizeof buffer, &value, buffer, 0);
    // The directory listing: never more entries written than asked for.
    IMG_TIFF_FIELD fields[9];
    fields[8].tag = 0xABCD;
    const int32_t n = tesslin::tiff::list_directory(stream, 0, fields, 8);
    if (fields[8].tag != 0xABCD || n > 1000) std::abort();
    return 0;
}
