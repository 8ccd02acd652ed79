// JPEG 2000 through jp2mod (OpenJPEG): files made by opj_compress decode
// exactly (lossless) or as well as opj_decompress decodes them (lossy); files
// we write read back in opj_decompress; damaged data is refused.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <iostream>

#include "module_test_util.h"

using namespace tesslin::test;

namespace {

// A picture with smooth and busy parts, `channels` 8-bit samples a pixel
// (or 16-bit big-endian samples when wide).
Raster picture(int width, int height, int channels, bool wide = false) {
    Raster r;
    r.width = width;
    r.height = height;
    r.channels = channels * (wide ? 2 : 1);
    uint32_t seed = 12345;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < channels; ++c) {
                seed = seed * 1103515245u + 12345u;
                const int v = c == 3 ? (x * 255) / width  // alpha: a ramp
                                     : (x * 3 + y * (c + 1) * 2) % 256 / 2 + int((seed >> 16) % 64) +
                                           ((x / 16 + y / 16) % 2) * 60;
                if (wide) {
                    const int w16 = v * 257 + int((seed >> 8) % 200);
                    r.px.push_back(uint8_t(w16 >> 8));
                    r.px.push_back(uint8_t(w16));
                } else {
                    r.px.push_back(uint8_t(v));
                }
            }
    return r;
}

void write_netpbm(const std::string& path, const Raster& r, int channels, bool wide) {
    std::string head;
    const std::string size = std::to_string(r.width) + " " + std::to_string(r.height);
    const std::string max = wide ? "65535" : "255";
    if (channels == 4)
        head = "P7\nWIDTH " + std::to_string(r.width) + "\nHEIGHT " + std::to_string(r.height) +
               "\nDEPTH 4\nMAXVAL " + max + "\nTUPLTYPE RGB_ALPHA\nENDHDR\n";
    else
        head = std::string(channels == 1 ? "P5\n" : "P6\n") + size + "\n" + max + "\n";
    Bytes b(head.begin(), head.end());
    b.insert(b.end(), r.px.begin(), r.px.end());
    write_file(path, b);
}

// The high byte of each 16-bit sample.
Raster high_bytes(const Raster& r) {
    Raster o = r;
    o.channels = r.channels / 2;
    o.px.clear();
    for (size_t i = 0; i < r.px.size(); i += 2) o.px.push_back(r.px[i]);
    return o;
}

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
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Raster src = picture(203, 157, c.channels, c.wide);
        const Raster want = c.wide ? high_bytes(src) : src;
        const Scratch in(std::string("modules_src.") + (c.channels == 4 ? "pam" : c.channels == 1 ? "pgm" : "ppm")),
            file(std::string("modules_opj.") + c.ext);
        write_netpbm(in, src, c.channels, c.wide);
        ASSERT_TRUE(run("opj_compress -i '" + in.path + "' -o '" + file.path + "' " + c.options));
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
    for (const int channels : {1, 3}) {
        SCOPED_TRACE(channels);
        const Raster src = picture(150, 100, channels);
        // The picture's samples as the rows' bytes (blue first for colour).
        const Handle handle = make_handle(150, 100, channels * 8, [&](uint8_t* row, uint32_t, int32_t y) {
            std::memcpy(row, src.at(0, y), size_t(150 * channels));
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
            std::cout << "[ figure   ] ratio " << ratio << ": " << size << " bytes for "
                      << 150 * 100 * channels << " bytes of pixels\n";
            if (ratio == 1)
                EXPECT_EQ(count_differences(back, want, 3), 0u);
            else
                EXPECT_LE(size * 10, uint64_t(150 * 100 * channels));
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
    const Raster src = picture(120, 90, 3);
    const Scratch in("modules_bad.ppm");
    write_netpbm(in, src, 3, false);
    for (const char* ext : {"jp2", "j2k"}) {
        SCOPED_TRACE(ext);
        const Scratch file(std::string("modules_bad.") + ext);
        ASSERT_TRUE(run("opj_compress -i '" + in.path + "' -o '" + file.path + "'"));
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
