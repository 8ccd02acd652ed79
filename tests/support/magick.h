// ImageMagick as the reference decoder of the formats Pillow does not read
// (or reads differently): a file's pixels as ImageMagick shows them; and
// small helpers of the raster format tests.
#pragma once

#include <string>

#include "test_util.h"

namespace tesslin::test {

inline bool have_magick() {
    static const bool ok = have_tool("/usr/bin/convert");
    return ok;
}

// The pixels of `path` (its first image, turned upright as its orientation
// says: ImageMagick keeps a bottom-up Targa file in file order otherwise)
// as 1 (grey), 3 (RGB) or 4 (RGBA) 8-bit samples; an empty raster when
// ImageMagick fails or is absent. `options` go before the conversion (such as
// "-colorspace sRGB" for Lab images).
inline Raster magick(const std::string& path, int channels = 3, const std::string& options = "") {
    const std::string out = temp_path("magick.pam");
    const std::string type = channels == 4   ? "-alpha on -type TrueColorAlpha"
                             : channels == 3 ? "-alpha off -type TrueColor"
                                             : "-alpha off -type Grayscale";
    Raster r;
    if (have_magick() &&
        run("/usr/bin/convert '" + path + "[0]' -auto-orient " + options + " -depth 8 " + type +
            " 'pam:" + out + "'"))
        r = read_netpbm(out);
    fs::remove(out);
    return r;
}

}  // namespace tesslin::test
