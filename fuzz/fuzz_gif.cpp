// libFuzzer target for the GIF reader: decodes frame 0 and frames 1 and 3
// of the input from a memory stream with callbacks that check every
// delivered row's size and number, runs the frame count, the variant test
// and the delay query, and saves a decoded frame as GIF and reads it back.
#include <cstdint>

#include "formats/gif/gif.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 22)) return 0;
    const fuzz::VectorInput in(data, size);  // exact size: reads past it are caught
    if (!in.stream) return 0;
    for (uint32_t position : {0u, 0x80000001u, 0x80000003u}) {
        fuzz::RowCheck state;
        state.max_pixels = uint64_t(1) << 22;
        tesslin::stream::seek(in.stream, 0, 0);
        tesslin::gif::decode(position, fuzz::check_row, reinterpret_cast<intptr_t>(&state),
                             fuzz::check_header, in.stream);
    }
    for (auto query : {tesslin::gif::count_frames, tesslin::gif::refine_code,
                       tesslin::gif::animation_delay}) {
        tesslin::stream::seek(in.stream, 0, 0);
        query(in.stream);
    }
    // Through the public interface: a small frame saved plain and
    // interlaced, then decoded again.
    const fuzz::Block block(data, size);
    if (!block.data || size < 10 || data[0] != 'G') return 0;
    IMG_BITMAPINFOHEADER info{};
    tesslin::stream::seek(in.stream, 0, 0);
    if (IMGLOW_get_fileinfo_fd(in.stream, &info) != 0 ||
        uint64_t(info.biWidth) * uint64_t(info.biHeight) > (1u << 18))
        return 0;
    const int32_t handle = IMG_decompress_bitmap_mem(block.data, 0);
    if (handle < 0) return 0;
    const uint64_t room = uint64_t(info.biWidth) * uint64_t(info.biHeight) * 2 + 4096;
    fuzz::save_and_reload(handle, IMG_FORMAT_GIF, room);
    fuzz::save_and_reload(handle, IMG_FORMAT_GIF_INTERLACED, room);
    IMG_delete_bitmap(handle);
    return 0;
}
