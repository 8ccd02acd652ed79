// Every frame (page) of a batch of image files decoded by Pillow and by
// ImageMagick, each tool started once per batch rather than once per frame:
// the decodes land beside each file as <file>.pil<N>.ppm and
// <file>.im<N>.ppm (RGB, frames as the tool reads them on their own).
#pragma once

#include <string>
#include <vector>

#include "test_util.h"

namespace tesslin::test {

inline void peer_decode(const std::vector<std::string>& files) {
    if (files.empty()) return;
    std::string list;
    for (const std::string& f : files) list += " '" + f + "'";
    if (have_pillow()) {
        static const char kScript[] =
            "import sys\n"
            "from PIL import Image, ImageSequence\n"
            "for f in sys.argv[1:]:\n"
            "    try:\n"
            "        for i, frame in enumerate(ImageSequence.Iterator(Image.open(f))):\n"
            "            frame.convert('RGB').save('%s.pil%d.ppm' % (f, i))\n"
            "    except Exception as e:\n"
            "        print(f, e)\n";
        const std::string script = temp_path("peer_decode.py");
        write_file(script, Bytes(kScript, kScript + sizeof kScript - 1));
        run("/usr/bin/python3 '" + script + "'" + list);
        fs::remove(script);
    }
    if (have_tool("/usr/bin/convert"))
        for (const std::string& f : files) run("/usr/bin/convert '" + f + "' -depth 8 +adjoin '" + f + ".im%d.ppm'");
}

// A handle of pseudo-random pixels; 4- and 8-bit ones get 256 distinct
// colours, so that every index shows in a peer's RGB decode.
inline int32_t random_image(int32_t w, int32_t h, int bits, uint32_t seed) {
    const int32_t handle = make_handle(w, h, bits, [&](uint8_t* row, uint32_t n, int32_t r) {
        uint32_t s = seed + uint32_t(r) * 7919;
        for (uint32_t i = 0; i < n; ++i) row[i] = uint8_t((s = s * 1103515245 + 12345) >> 16);
    });
    Bytes pal(1024);
    for (size_t i = 0; i < 256; ++i)
        pal[4 * i] = uint8_t(i * 7 + seed), pal[4 * i + 1] = uint8_t(255 - i), pal[4 * i + 2] = uint8_t(i * 29 + 5);
    if (bits == 4 || bits == 8) IMGLOW_put_palette(handle, pal.data());
    return handle;
}

// One frame of a peer's decode made by peer_decode ("pil" or "im"); an
// empty raster when the tool did not decode it.
inline Raster peer_frame(const std::string& file, const char* tool, int frame = 0) {
    return read_netpbm(file + "." + tool + std::to_string(frame) + ".ppm");
}

// Removes the file and the decodes peer_decode made of it.
inline void remove_with_decodes(const std::string& file) {
    const fs::path p(file);
    if (!fs::exists(p.parent_path())) return;
    for (const auto& e : fs::directory_iterator(p.parent_path())) {
        const std::string name = e.path().filename().string(), base = p.filename().string();
        if (name == base || (name.rfind(base + ".", 0) == 0 && e.path().extension() == ".ppm"))
            fs::remove(e.path());
    }
}

}  // namespace tesslin::test
