// Shared by the fuzz targets of the fax document formats (CALS, the fax
// containers): a run of a decoder both with contract-checking callbacks and
// into a handle through the library's callbacks, whose image is then saved
// and decoded again.
#pragma once

#include <cstdint>

#include "fuzz_util.h"
#include "pipeline/codec.h"
#include "pipeline/decode.h"
#include "tesslin/tesslin.h"

namespace fax_fuzz {

// The decoder with the checking callbacks, then into a handle. Fax pages are
// bilevel and may come as run records; a CALS file carrying a TIFF at 1431
// delivers whatever that TIFF holds, so any DIB depth is a valid header.
inline void run_decoder(tesslin::Decoder decoder, uint32_t position, const uint8_t* data,
                        size_t size, int32_t save_code) {
    {
        fuzz::BlockInput in(data, size);
        fuzz::RowCheck seen;
        seen.runs = fuzz::RunRecords::kChecked;
        decoder(position, fuzz::check_row, reinterpret_cast<intptr_t>(&seen), fuzz::check_header,
                in.stream);
    }
    fuzz::BlockInput in(data, size);
    tesslin::DecodeContext ctx;
    if (tesslin::begin_decode(ctx) != 0) return;
    const int32_t r = decoder(position, tesslin::library_raster, reinterpret_cast<intptr_t>(&ctx),
                              tesslin::library_header, in.stream);
    const int32_t handle = tesslin::finish_decode(ctx, r < 0 ? r : 0);
    if (handle < 0) return;
    if (save_code >= 0) {
        // Saved when the image is small enough.
        int32_t w = 0, h = 0, bits = 0;
        IMG_bitmap_info(handle, &w, &h, &bits);
        const uint64_t pixels = uint64_t(w) * uint64_t(h);
        if (pixels <= (uint64_t(1) << 22)) fuzz::save_and_reload(handle, save_code, pixels / 2 + 8192);
    }
    IMG_delete_bitmap(handle);
}

}  // namespace fax_fuzz
