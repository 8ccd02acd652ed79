// Shared by the fuzz targets of the raster formats (Targa, Photoshop, Sun
// raster, WBMP): a decoder run with contract-checking callbacks and, for
// images of modest size, into a handle through the library's callbacks,
// whose image is then saved in the family's own format and decoded again.
#pragma once

#include <cstdint>

#include "fuzz_util.h"
#include "pipeline/codec.h"
#include "pipeline/decode.h"
#include "tesslin/tesslin.h"

namespace raster_fuzz {

constexpr uint64_t kMaxPixels = uint64_t(1) << 22;

// The decoder at `position` with the checking callbacks; true when the
// header it announced was small enough for a full decode.
inline bool check(tesslin::Decoder decoder, uint32_t position, const uint8_t* data, size_t size) {
    const fuzz::VectorInput in(data, size);  // exact size: reads past it are caught
    fuzz::RowCheck seen;
    seen.max_pixels = kMaxPixels;
    decoder(position, fuzz::check_row, reinterpret_cast<intptr_t>(&seen), fuzz::check_header,
            in.stream);
    return seen.width > 0 && uint64_t(seen.width) * uint64_t(seen.height) <= kMaxPixels;
}

inline void run(tesslin::Decoder decoder, const uint8_t* data, size_t size, int32_t save_code) {
    if (size > (1u << 22) || !check(decoder, 0, data, size)) return;
    fuzz::BlockInput in(data, size);
    tesslin::DecodeContext ctx;
    if (tesslin::begin_decode(ctx) != 0) return;
    const int32_t r = decoder(0, tesslin::library_raster, reinterpret_cast<intptr_t>(&ctx),
                              tesslin::library_header, in.stream);
    const int32_t handle = tesslin::finish_decode(ctx, r < 0 ? r : 0);
    if (handle < 0) return;
    int32_t w = 0, h = 0, bits = 0;
    IMG_bitmap_info(handle, &w, &h, &bits);
    fuzz::save_and_reload(handle, save_code, uint64_t(w) * uint64_t(h) * 4 + 8192);
    IMG_delete_bitmap(handle);
}

}  // namespace raster_fuzz
