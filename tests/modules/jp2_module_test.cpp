// JPEG 2000 through jp2mod (OpenJPEG): files made by opj_compress decode
// exactly (lossless) or as well as opj_decompress decodes them (lossy); files
// we write read back in opj_decompress; damaged data is refused.
#include <algorithm>
#include <cstring>
#include <iostream>

#include "module_test_util.h"

using namespace tesslin::test;

namespace {

// Pictures with smooth and busy parts, written by numpy: src<n> of n 8-bit
// samples a pixel (alpha, the fourth, a ramp), src<n>-16 of 16-bit samples
// whose low byte is noise, and want<n>-16, their high bytes, which a decode
// must give (.pgm, .ppm or .pam as n says).
const char kPictures[] = R"(
import sys
import numpy as np
rng = np.random.default_rng(12345)
y, x = np.mgrid[0:157, 0:203]
def write(name, a, maxval):
    n = a.shape[2]
    head = ("P%d\n203 157\n%d\n" % (5 if n == 1 else 6, maxval) if n < 4 else
            "P7\nWIDTH 203\nHEIGHT 157\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n")
    name += {1: ".pgm", 3: ".ppm", 4: ".pam"}[n]
    open(sys.argv[1] + "/" + name, "wb").write(head.encode() + a.astype(">u2" if maxval > 255 else "u1").tobytes())
for n in (1, 3, 4):
    planes = [(x * 3 + y * (c + 1) * 2) % 256 // 2 + rng.integers(0, 64, x.shape) + (x // 16 + y // 16) % 2 * 60
              for c in range(min(n, 3))]
    a = np.stack(planes + [x * 255 // 203] * (n == 4), axis=2)
    write("src%d" % n, a, 255)
    if n < 4:
        wide = a * 257 + rng.integers(0, 200, a.shape)
        write("src%d-16" % n, wide, 65535)
        write("want%d-16" % n, wide >> 8, 255)
)";

// The directory of the pictures; its path empty when numpy failed.
const std::string& pictures() {
    static const TempDir dir("modules_pictures");
    static const std::string path = [] {
        write_file(dir / "make.py", Bytes(kPictures, kPictures + sizeof kPictures - 1));
        return run("/usr/bin/python3 '" + dir.path + "/make.py' '" + dir.path + "'") ? dir.path : "";
    }();
    return path;
}
std::string picture(const std::string& kind, int channels, bool wide = false) {
    return pictures() + "/" + kind + std::to_string(channels) + (wide ? "-16" : "") +
           (channels == 1 ? ".pgm" : channels == 3 ? ".ppm" : ".pam");
}

#define REQUIRE_PICTURES() \
    if (pictures().empty()) GTEST_SKIP() << "numpy (/usr/bin/python3) is not available"

class Jp2Module : public ModuleTest {};

}  // namespace

TEST_F(Jp2Module, OpenJpegFilesDecode) {
    REQUIRE_MODULE("jp2mod");
    REQUIRE_TOOL("opj_compress");
    REQUIRE_TOOL("opj_decompress");
    const struct {
        const char* name;
        int channels;
        bool wide;
        const char *options, *ext;
        bool lossless;
    } cases[] = {
        {"grey", 1, false, "", "jp2", true},
        {"colour", 3, false, "", "jp2", true},
        {"colour tiled codestream", 3, false, "-t 64,64", "j2k", true},
        {"colour with alpha", 4, false, "", "jp2", true},
        {"grey 16-bit", 1, true, "", "jp2", true},
        {"colour 16-bit", 3, true, "-t 96,64", "j2k", true},
        {"colour ratio 20", 3, false, "-r 20", "jp2", false},
        {"grey ratio 10 tiled", 1, false, "-r 10 -t 64,64", "j2k", false},
        {"colour quality layers", 3, false, "-r 40,10,5", "jp2", false},
    };
    REQUIRE_PICTURES();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string in = picture("src", c.channels, c.wide);
        const Raster want = read_netpbm(c.wide ? picture("want", c.channels, true) : in);
        const Scratch file(std::string("modules_opj.") + c.ext);
        ASSERT_TRUE(run("opj_compress -i '" + in + "' -o '" + file.path + "' " + c.options));
        EXPECT_EQ(IMGLOW_get_filetype(file.c_str()), IMG_FORMAT_JPEG2000);
        EXPECT_EQ(IMG_decompress_bitmap_page(file.c_str(), 1), IMG_ERR_NO_PAGE);
        const Handle h = IMG_decompress_bitmap(file.c_str());
        ASSERT_GE(h, 0);
        EXPECT_EQ(info_of(h).biBitCount, c.channels == 1 ? 8 : c.channels == 3 ? 24 : 32);
        const Raster got = handle_raster(h);
        if (c.lossless) {
            EXPECT_EQ(count_differences(got, want, c.channels == 4 ? 4 : 3), 0u);
        } else {
            const Scratch ref(std::string("modules_ref.") + (c.channels == 1 ? "pgm" : "ppm"));
            ASSERT_TRUE(run("opj_decompress -i '" + file.path + "' -o '" + ref.path + "'"));
            const double ours = psnr(got, want), theirs = psnr(read_netpbm(ref), want);
            std::cout << "[ figure   ] " << c.name << ": " << ours << " dB, opj_decompress " << theirs
                      << " dB\n";
            EXPECT_GE(ours, theirs - 0.5);
        }
    }
}

TEST_F(Jp2Module, OurFilesReadBackInOpjDecompress) {
    REQUIRE_MODULE("jp2mod");
    REQUIRE_TOOL("opj_decompress");
    REQUIRE_PICTURES();
    for (const int channels : {1, 3}) {
        SCOPED_TRACE(channels);
        const Raster src = read_netpbm(picture("src", channels));
        // The picture's samples as the rows' bytes (blue first for colour).
        const Handle handle = make_handle(src.width, src.height, channels * 8, [&](uint8_t* row, uint32_t, int32_t y) {
            std::memcpy(row, src.at(0, y), size_t(src.width * channels));
        });
        ASSERT_GE(handle, 0);
        const Raster want = handle_raster(handle);
        for (const int ratio : {1, 20}) {
            ASSERT_EQ(IMGLOW_set_jpeg2000_comp_ratio(ratio), 0);
            const Scratch file("modules_ours.jp2"), ref(channels == 1 ? "modules_back.pgm" : "modules_back.ppm");
            ASSERT_EQ(IMG_save_bitmap(handle, file.c_str(), IMG_FORMAT_JPEG2000), 0);
            ASSERT_TRUE(run("opj_decompress -i '" + file.path + "' -o '" + ref.path + "'"));
            const Raster back = read_netpbm(ref);
            const auto size = fs::file_size(file.path);
            std::cout << "[ figure   ] ratio " << ratio << ": " << size << " bytes for " << src.px.size()
                      << " bytes of pixels\n";
            if (ratio == 1)
                EXPECT_EQ(count_differences(back, want, 3), 0u);
            else
                EXPECT_LE(size * 10, src.px.size());
            // And through our own decoder.
            EXPECT_EQ(count_differences(handle_raster(Handle(IMG_decompress_bitmap(file.c_str()))), back, 3), 0u);
        }
    }
    EXPECT_EQ(IMGLOW_set_jpeg2000_comp_ratio(-1), IMG_ERR_BAD_IMAGE);
    IMGLOW_set_jpeg2000_comp_ratio(1);
}

TEST_F(Jp2Module, DamagedDataIsRefused) {
    REQUIRE_MODULE("jp2mod");
    REQUIRE_TOOL("opj_compress");
    REQUIRE_TOOL("opj_decompress");
    REQUIRE_PICTURES();
    for (const char* ext : {"jp2", "j2k"}) {
        SCOPED_TRACE(ext);
        const Scratch file(std::string("modules_bad.") + ext);
        ASSERT_TRUE(run("opj_compress -i '" + picture("src", 3) + "' -o '" + file.path + "'"));
        const Bytes good = read_file(file);
        // Cut short: refused.
        for (const size_t keep : {good.size() / 2, size_t(40), size_t(12)}) {
            write_file(file, Bytes(good.begin(), good.begin() + long(keep)));
            EXPECT_LT(IMG_decompress_bitmap(file.c_str()), 0) << keep;
        }
        // Bytes changed in the headers or the coded data: refused when
        // opj_decompress refuses it (coded data is not checked by the
        // format, so garbage pixels are the right answer there).
        for (size_t from = 2; from < good.size(); from += good.size() / 7) {
            Bytes bad = good;
            for (size_t i = from; i < std::min(good.size(), from + 120); i += 5) bad[i] ^= 0xA5;
            write_file(file, bad);
            const bool opj = run("opj_decompress -i '" + file.path + "' -o '" + temp_path("modules_x.ppm") + "'");
            const Handle h = IMG_decompress_bitmap(file.c_str());
            EXPECT_TRUE(opj || h < 0) << from;
        }
    }
}
