// PostScript and EPS output, rendered by ghostscript and compared with the
// image; the TIFF previews read back by Pillow.
#include <regex>

#include "test_util.h"

namespace tesslin::test {
namespace {

std::string text_of(const Bytes& b) { return std::string(b.begin(), b.end()); }

// A handle for a DIB at a resolution (72 dpi: one pixel a point).
int32_t with_dpi(void* dib, int32_t dpi = 72) {
    auto* h = static_cast<DibHeader*>(dib);
    h->biXPelsPerMeter = h->biYPelsPerMeter = dpi;
    return IMG_create_handle_keep(dib);
}

int32_t image(int bits, int32_t w = 61, int32_t h = 23) {
    switch (bits) {
        case 1:
            return with_dpi(make_dib(w, h, 1));
        case 4: {
            void* dib = make_dib(w, h, 4, [w](uint8_t* row, uint32_t, int32_t) {
                for (int32_t x = 0; x < w; x += 2) row[x / 2] = uint8_t((x * 16 / w) << 4 | (((x + 1) * 16 / w) & 15));
            });
            for (int i = 0; i < 16; ++i)
                dib_palette(dib)[i] = RgbQuad{uint8_t(i * 17), uint8_t(255 - i * 9), uint8_t(i * 5), 0};
            return with_dpi(dib);
        }
        case 24:
            return with_dpi(make_dib(w, h, 24, [w, h](uint8_t* row, uint32_t, int32_t y) {
                for (int32_t x = 0; x < w; ++x) {
                    row[3 * x] = uint8_t(255 * x / w);
                    row[3 * x + 1] = uint8_t(255 * y / h);
                    row[3 * x + 2] = uint8_t(100 + x % 50);
                }
            }));
        case 8:
            return with_dpi(make_dib(w, h, 8, [w](uint8_t* row, uint32_t, int32_t y) {
                for (int32_t x = 0; x < w; ++x) row[x] = uint8_t(x * 200 / w + y);
            }));
        default:  // CMYK: the left half paper, the right half full black
            return with_dpi(make_dib(w, h, 32, [w](uint8_t* row, uint32_t, int32_t) {
                for (int32_t x = 0; x < w; ++x) {
                    row[4 * x] = row[4 * x + 1] = row[4 * x + 2] = 0;
                    row[4 * x + 3] = x < w / 2 ? 0 : 255;
                }
            }));
    }
}

// ghostscript's renderings at 72 dpi, one run for all files: EPS files
// cropped to their bounding boxes, other PostScript on w x h pages.
std::vector<Raster> gs_render(const std::vector<Bytes>& files, bool eps, int32_t w = 0,
                              int32_t h = 0) {
    std::string inputs;
    for (size_t i = 0; i < files.size(); ++i) {
        const std::string in = temp_path("gs_in" + std::to_string(i) + ".ps");
        write_file(in, files[i]);
        inputs += " '" + in + "'";
    }
    const std::string out = temp_path("gs_out");
    const std::string page =
        eps ? "-dEPSCrop" : "-g" + std::to_string(w) + "x" + std::to_string(h) + " -dFIXEDMEDIA";
    run("gs -q -dSAFER -dBATCH -dNOPAUSE -r72 -sDEVICE=ppmraw " + page + " -sOutputFile='" + out +
        "-%d.ppm'" + inputs);
    std::vector<Raster> pages;
    for (size_t i = 0; i < files.size(); ++i) {
        const std::string ppm = out + "-" + std::to_string(i + 1) + ".ppm";
        pages.push_back(read_netpbm(ppm));
        fs::remove(ppm);
        fs::remove(temp_path("gs_in" + std::to_string(i) + ".ps"));
    }
    return pages;
}

uint32_t le32_at(const Bytes& b, size_t at) { return at + 4 <= b.size() ? load_le32(&b[at]) : 0; }

// ghostscript draws every variant; hexadecimal and run-length data exactly,
// JPEG data closely, CMYK samples as ink (paper white, full black black).
TEST(PostScript, GhostscriptRendersEveryVariant) {
    if (!have_tool("gs")) GTEST_SKIP() << "ghostscript missing";
    struct Output {
        int code, bits;
        Raster want;
        Bytes file;
    };
    std::vector<Output> outputs;
    for (int code : {IMG_FORMAT_EPS, IMG_FORMAT_EPS_LEVEL2_RLE, IMG_FORMAT_EPS_LEVEL2_G4,
                     IMG_FORMAT_PS_FILTERED})
        for (int bits : {1, 4, 8, 24, 32}) {
            const Handle handle = image(bits);
            int32_t n = 0;
            outputs.push_back({code, bits, handle_raster(handle), save_mem(handle, code, &n)});
            ASSERT_GT(n, 0) << code << "/" << bits;
        }
    for (bool eps : {true, false}) {
        std::vector<Bytes> files;
        std::vector<const Output*> which;
        for (const Output& o : outputs)
            if ((o.code != IMG_FORMAT_PS_FILTERED) == eps) {
                files.push_back(o.file);
                which.push_back(&o);
            }
        const std::vector<Raster> pages = gs_render(files, eps, 61, 23);
        for (size_t i = 0; i < pages.size(); ++i) {
            const Output& o = *which[i];
            if (o.bits == 32) {
                ASSERT_EQ(pages[i].width, 61) << o.code;
                EXPECT_GT(pages[i].at(8, 8)[0], 235) << o.code;
                EXPECT_LT(pages[i].at(56, 8)[0], 60) << o.code;
                continue;
            }
            // Level 2 EPS codes every image but a bilevel one as JPEG.
            if (o.bits != 1 && o.code != IMG_FORMAT_EPS && o.code != IMG_FORMAT_PS_FILTERED)
                EXPECT_GT(psnr(pages[i], o.want), 28) << o.code << "/" << o.bits;
            else
                EXPECT_EQ(count_differences(pages[i], o.want, 3), 0u) << o.code << "/" << o.bits;
        }
    }
}

TEST(PostScript, EpsWithTiffPreview) {
    // A 300-dpi page: a bounding box of 612 by 792 points, and the same
    // image in the preview. (The PostScript data: ghostscript's renderings.)
    const Handle page = with_dpi(make_dib(2550, 3300, 1, [](uint8_t* row, uint32_t n, int32_t y) {
        std::memset(row, (y / 40) % 2 ? 0xFF : 0xF0, n);
    }), 300);
    const Raster want = handle_raster(page);
    const Bytes file = save_mem(page, IMG_FORMAT_EPS);
    ASSERT_GT(file.size(), 32u);
    const uint32_t ps_at = le32_at(file, 4), tiff_at = le32_at(file, 20), tiff_len = le32_at(file, 24);
    const std::string ps = text_of(Bytes(file.begin() + ps_at, file.end()));
    EXPECT_EQ(ps.rfind("%!PS-Adobe-2.0 EPSF-2.0\r\n%%BoundingBox: 0 0 612 792\r\n", 0), 0u);

    if (have_pillow()) {
        const std::string tif = temp_path("preview.tif");
        write_file(tif, Bytes(file.begin() + tiff_at, file.begin() + tiff_at + tiff_len));
        EXPECT_EQ(count_differences(pillow(tif, "L"), want, 1), 0u);
        fs::remove(tif);
    }

    // A fax page of 204 x 98 dpi keeps its proportions: 2 by 2 inches.
    void* fax = make_dib(408, 196, 1);
    reinterpret_cast<DibHeader*>(fax)->biXPelsPerMeter = 204;
    reinterpret_cast<DibHeader*>(fax)->biYPelsPerMeter = 98;
    const Handle fax_handle = IMG_create_handle_keep(fax);
    for (int code : {IMG_FORMAT_EPS, IMG_FORMAT_EPS_LEVEL2_G4}) {
        const std::string fax_text = text_of(save_mem(fax_handle, code));
        EXPECT_NE(fax_text.find("%%BoundingBox: 0 0 144 144\r\n"), std::string::npos) << code;
    }
}

// Level 2 Group 4: both placeholders hold the byte count of the data after
// the "image" line.
TEST(PostScript, Level2CountsItsData) {
    for (int code : {IMG_FORMAT_EPS_LEVEL2_G4, IMG_FORMAT_EPS_LEVEL2_RLE}) {
        const Handle h = image(1, 300, 200);
        const std::string text = text_of(save_mem(h, code));
        const size_t from = text.find("\r\nimage\r\n") + 9, to = text.find("%%\r\n", from);
        ASSERT_NE(to, std::string::npos);
        std::smatch m;
        ASSERT_TRUE(std::regex_search(text, m, std::regex("/Length ([0-9]+) *\r\n"))) << code;
        EXPECT_EQ(std::stoul(m[1]), to - from) << code;
        if (code == IMG_FORMAT_EPS_LEVEL2_G4) {
            ASSERT_TRUE(std::regex_search(text, m, std::regex("%%BeginBinary: ([0-9]+) *\r\nimage")));
            EXPECT_EQ(std::stoul(m[1]), to - from);
        }
    }
}

// The separation's four plates, rendered by ghostscript, and its CMYK
// preview, read by Pillow; it takes CMYK only, no PostScript output 16 bits.
TEST(PostScript, Separation) {
    EXPECT_EQ(save_status(24, IMG_FORMAT_EPS_SEPARATION), IMG_ERR_DEPTH);
    for (int code : {IMG_FORMAT_EPS, IMG_FORMAT_EPS_SEPARATION, IMG_FORMAT_EPS_LEVEL2_RLE, IMG_FORMAT_EPS_LEVEL2_G4,
                     IMG_FORMAT_PS_FILTERED})
        EXPECT_EQ(save_status(16, code), IMG_ERR_DEPTH) << code;

    const int32_t w = 40, h = 12;
    const Handle cmyk = with_dpi(make_dib(w, h, 32));
    const Raster want = handle_raster(cmyk);  // red, green, blue, fourth byte = bytes 2, 1, 0, 3
    const Bytes file = save_mem(cmyk, IMG_FORMAT_EPS_SEPARATION);
    ASSERT_GT(file.size(), 32u);
    const std::string text = text_of(file);
    const uint32_t tiff_at = le32_at(file, 20);
    EXPECT_EQ(le32_at(file, 4), 32u);  // the main part, not rendered here, ends where the preview starts
    EXPECT_EQ(32 + le32_at(file, 8), tiff_at);

    const std::regex plate("%%PlateFile: \\((Cyan|Magenta|Yellow|Black)\\) EPS #([0-9]{8}) ([0-9]{8})\r\n");
    std::vector<std::pair<uint32_t, uint32_t>> plates;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), plate); it != std::sregex_iterator(); ++it)
        plates.emplace_back(std::stoul((*it)[2]), std::stoul((*it)[3]));
    ASSERT_EQ(plates.size(), 4u);
    const int sample_of[4] = {2, 1, 0, 3};  // cyan is byte 0, which the raster holds as blue
    std::vector<Bytes> parts;
    for (const auto& [at, length] : plates) {
        EXPECT_EQ(length, plates[0].second);
        ASSERT_LE(size_t(at) + length, file.size());
        parts.emplace_back(file.begin() + at, file.begin() + at + length);
        EXPECT_EQ(text_of(parts.back()).rfind("%!PS-Adobe-2.0 EPSF-1.2\r\n", 0), 0u);
    }
    if (have_tool("gs")) {
        const std::vector<Raster> got = gs_render(parts, false, w, h);
        for (int p = 0; p < 4; ++p) {
            ASSERT_EQ(got[size_t(p)].width, w);
            size_t wrong = 0;
            for (int32_t y = 0; y < h; ++y)
                for (int32_t x = 0; x < w; ++x)
                    wrong += got[size_t(p)].at(x, y)[0] != want.at(x, y)[sample_of[p]];
            EXPECT_EQ(wrong, 0u) << "plate " << p;
        }
    }
    if (have_pillow()) {
        const Scratch tif("separation.tif");
        write_file(tif, Bytes(file.begin() + tiff_at, file.end()));
        const Raster preview = pillow(tif, "CMYK");
        ASSERT_EQ(preview.width, w);
        size_t wrong = 0;
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x)
                for (int c = 0; c < 4; ++c) wrong += preview.at(x, y)[c] != want.at(x, y)[sample_of[c]];
        EXPECT_EQ(wrong, 0u);
    }
}

}  // namespace
}  // namespace tesslin::test
