// libFuzzer target for the PCX and DCX readers: decodes the input as a PCX
// image and as pages 0 and 1 of a DCX from a memory stream with callbacks
// that check every delivered row's size and number, counts the DCX pages,
// and saves a decoded image as PCX and as a DCX page and reads it back.
#include <cstdint>

#include "formats/pcx/pcx.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 22)) return 0;
    const fuzz::VectorInput in(data, size);  // exact size: reads past it are caught
    if (!in.stream) return 0;
    struct Run {
        tesslin::Decoder decoder;
        uint32_t position;
    };
    for (const Run& run : {Run{tesslin::pcx::decode, 0}, Run{tesslin::pcx::decode_dcx, 0},
                           Run{tesslin::pcx::decode_dcx, 0x80000001u}}) {
        fuzz::RowCheck state;
        state.max_pixels = uint64_t(1) << 22;
        tesslin::stream::seek(in.stream, 0, 0);
        run.decoder(run.position, fuzz::check_row, reinterpret_cast<intptr_t>(&state),
                    fuzz::check_header, in.stream);
    }
    tesslin::stream::seek(in.stream, 0, 0);
    tesslin::pcx::count_dcx_pages(in.stream);
    // Through the public interface: a small image saved as PCX and as a DCX
    // page, then decoded again.
    IMG_BITMAPINFOHEADER info{};
    tesslin::stream::seek(in.stream, 0, 0);
    if (IMGLOW_get_fileinfo_fd(in.stream, &info) != 0 ||
        uint64_t(info.biWidth) * uint64_t(info.biHeight) > (1u << 18))
        return 0;
    const fuzz::Block block(data, size);
    if (!block.data) return 0;
    const int32_t handle = IMG_decompress_bitmap_mem(block.data, 0);
    if (handle < 0) return 0;
    const uint64_t room = uint64_t(info.biWidth) * uint64_t(info.biHeight) * 8 + 8192;
    fuzz::save_and_reload(handle, IMG_FORMAT_PCX, room);
    fuzz::save_and_reload(handle, IMG_FORMAT_DCX, room);
    IMG_delete_bitmap(handle);
    return 0;
}
