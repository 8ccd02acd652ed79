// PDF input through pdfmod/apdfmod (poppler): placed 1-bit images come back
// as their samples, vector pages as pdftoppm renders them, text as pdftotext
// gives it, and damaged or locked files are refused.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <regex>
#include <thread>
#include <vector>

#include "module_test_util.h"

using namespace tesslin::test;

namespace {

// Two pages of text and vector graphics; the second is black only.
const char kVectorPs[] = R"(%!PS
/Helvetica findfont 24 scalefont setfont
72 700 moveto (Tesslin renders vector pages) show
72 660 moveto (Second line of text 12345) show
newpath 100 100 moveto 500 400 lineto 3 setlinewidth stroke
0.2 0.5 0.8 setrgbcolor 300 300 100 0 360 arc fill
showpage
/Times-Roman findfont 30 scalefont setfont
72 700 moveto (Black page with words) show
72 600 moveto (vector lines below) show
newpath 72 500 moveto 540 100 lineto 5 setlinewidth stroke
newpath 100 200 200 0 360 arc 2 setlinewidth stroke
showpage
)";

std::string vector_pdf() {
    static std::string path;
    if (path.empty()) {
        const std::string ps = temp_path("modules_vector.ps");
        write_file(ps, Bytes(kVectorPs, kVectorPs + sizeof kVectorPs - 1));
        path = temp_path("modules_vector.pdf");
        if (!run("ps2pdf '" + ps + "' '" + path + "'")) path = "-";
    }
    return path;
}

// Runs of spaces and line ends as one space (page breaks are kept).
std::string collapse_spaces(const std::string& s) {
    return std::regex_replace(s, std::regex("[ \n\r\t]+"), " ");
}

class PdfModule : public ModuleTest {};

// The 1-bit page a PostScript program draws, through ps2pdf and the module
// at `dpi`; an empty raster when a step fails.
Raster render_ps(const std::string& ps, const std::string& name, int dpi) {
    const Scratch src(name + ".ps"), pdf(name + ".pdf");
    write_file(src, Bytes(ps.begin(), ps.end()));
    Raster got{};
    if (run("ps2pdf '" + src.path + "' '" + pdf.path + "'") && IMGLOW_set_pdf_input(dpi, 1) == 0) {
        const Handle page = IMG_decompress_bitmap(pdf.c_str());
        if (page >= 0) got = handle_raster(page);
    }
    IMGLOW_set_pdf_input(0, 0);
    return got;
}

// Pixels of the w x h box at (x0, y0) whose first sample is not want(x, y).
template <typename Want>
size_t wrong_in(const Raster& got, int x0, int y0, int w, int h, Want want) {
    size_t wrong = 0;
    for (int y = y0; y < y0 + h; ++y)
        for (int x = x0; x < x0 + w; ++x) wrong += got.at(x, y)[0] != want(x, y);
    return wrong;
}

}  // namespace

TEST_F(PdfModule, PlacedBilevelImagesComeBackAsTheirSamples) {
    REQUIRE_MODULE("pdfmod");
    REQUIRE_TOOL("ps2pdf");
    // A 2000x2000 page at 300 dpi with one 333x211 1-bit image placed three
    // times: pixel for pixel at an odd offset (the scanned-page path),
    // inverted by its decode array, and scaled by 4 (drawn by the renderer,
    // each sample a 4x4 block); and four 200-pixel squares of grey, which
    // must come back solid, black below half grey and white above (a
    // halftone fails it).
    constexpr int w = 333, h = 211, side = 2000;
    const auto sample = [](int x, int y) { return ((x * x + 3 * y * y) / 97 + x / 13) & 1; };
    std::string ps = "%!PS\n<< /PageSize [480 480] >> setpagedevice\n/DeviceGray setcolorspace\n/data <";
    for (int y = 0; y < h; ++y)
        for (int x0 = 0; x0 < w; x0 += 8) {
            int byte = 0;
            for (int x = x0; x < x0 + 8; ++x) byte = byte << 1 | (x < w ? sample(x, y) : 0);
            char hex[3];
            std::snprintf(hex, sizeof hex, "%02x", byte);
            ps += hex;
        }
    ps += "> def\n";
    const struct {
        int left, top, scale;
        bool invert;
    } places[] = {{101, 57, 1, false}, {517, 400, 1, true}, {300, 1000, 4, false}};
    for (const auto& p : places) {
        char line[400];
        std::snprintf(line, sizeof line,
                      "gsave %.2f %.2f translate %.2f %.2f scale << /ImageType 1 /Width %d /Height %d "
                      "/BitsPerComponent 1 /Decode %s /ImageMatrix [%d 0 0 -%d 0 %d] /DataSource data >> "
                      "image grestore\n",
                      p.left * 0.24, (side - p.top - h * p.scale) * 0.24, w * p.scale * 0.24,
                      h * p.scale * 0.24, w, h, p.invert ? "[1 0]" : "[0 1]", w, h, h);
        ps += line;
    }
    const double greys[] = {0.2, 0.45, 0.55, 0.8};
    for (int i = 0; i < 4; ++i)
        ps += std::to_string(greys[i]) + " setgray " + std::to_string(240 + 60 * i) + " 417.6 48 48 rectfill\n";
    ps += "showpage\n";
    Raster want{side, side, 1, Bytes(size_t(side) * side, 255)};
    for (int i = 0; i < 4; ++i)
        for (int y = 60; y < 260; ++y)
            std::memset(&want.px[size_t(y) * side + size_t(1000 + 250 * i)], greys[i] < 0.5 ? 0 : 255, 200);
    for (const auto& p : places)
        for (int y = 0; y < h * p.scale; ++y)
            for (int x = 0; x < w * p.scale; ++x)
                want.px[size_t(p.top + y) * side + size_t(p.left + x)] =
                    (sample(x / p.scale, y / p.scale) != p.invert) ? 255 : 0;
    const Raster got = render_ps(ps, "modules_images", 300);
    ASSERT_EQ(got.width, side);
    const size_t differ = count_differences(got, want, 1);
    ASSERT_NE(differ, size_t(-1));
    std::cout << "[ figure   ] placed images: " << 100.0 * (1.0 - double(differ) / (double(side) * side))
              << " % of pixels equal\n";
    // The scaled copy may be a pixel off along a seam (the renderer's
    // rounding); the pixel-for-pixel ones come back exactly.
    EXPECT_LE(differ, size_t(side) * side / 1000);
    const auto wanted = [&](int x, int y) { return want.at(x, y)[0]; };
    for (const auto& p : places) {
        if (p.scale == 1) {
            EXPECT_EQ(wrong_in(got, p.left, p.top, w, h, wanted), 0u) << p.left;
        }
    }
    for (int i = 0; i < 4; ++i) EXPECT_EQ(wrong_in(got, 1005 + 250 * i, 65, 190, 190, wanted), 0u) << greys[i];
}

TEST_F(PdfModule, VectorPagesRenderLikePdftoppm) {
    REQUIRE_MODULE("pdfmod");
    REQUIRE_TOOL("pdftoppm");
    REQUIRE_TOOL("ps2pdf");
    const std::string pdf = vector_pdf();
    // (page, bits, pdftoppm option, extension, minimum PSNR in dB)
    const struct {
        int page, bits;
        const char *option, *ext;
        double psnr, equal;
    } cases[] = {{1, 24, "", "ppm", 40, 99}, {1, 8, "-gray", "pgm", 40, 99},
                 // pdftoppm -mono rasterises glyphs in its own bilevel mode;
                 // ours are thresholded: edge pixels differ.
                 {2, 1, "-mono", "pbm", 15, 98}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bits);
        ASSERT_EQ(IMGLOW_set_pdf_input(100, c.bits), 0);
        const Scratch ref(std::string("modules_ref.") + c.ext);
        ASSERT_TRUE(run("pdftoppm -r 100 " + std::string(c.option) + " -f " + std::to_string(c.page) + " -l " +
                        std::to_string(c.page) + " -singlefile '" + pdf + "' '" + temp_path("modules_ref") + "'"));
        const Raster want = read_netpbm(ref);
        const Handle h = IMG_decompress_bitmap_page(pdf.c_str(), c.page - 1);
        ASSERT_GE(h, 0);
        EXPECT_EQ(info_of(h).biBitCount, c.bits);
        const Raster got = handle_raster(h);
        const double db = psnr(got, want);
        const double equal =
            100.0 * (1.0 - double(count_differences(got, want, 3)) / (3.0 * want.width * want.height));
        std::cout << "[ figure   ] " << c.bits << " bits: " << db << " dB, " << equal
                  << " % of samples equal beside pdftoppm\n";
        EXPECT_GE(db, c.psnr);
        EXPECT_GE(equal, c.equal);
    }
    // The whole-file decode goes through the stream module at the setting.
    const auto whole = info_of(Handle(IMG_decompress_bitmap(pdf.c_str())));
    EXPECT_EQ(whole.biWidth, 827);  // A4, 595 pt at 100 dpi
    EXPECT_EQ(whole.biXPelsPerMeter, 100);
    EXPECT_EQ(IMGLOW_get_pages(pdf.c_str()), 2);
    EXPECT_EQ(IMG_decompress_bitmap_page(pdf.c_str(), 2), IMG_ERR_NO_PAGE);
    IMGLOW_set_pdf_input(0, 0);
}

TEST_F(PdfModule, ConcurrentDecodesOfOneDocumentAgree) {
    REQUIRE_MODULE("pdfmod");
    REQUIRE_TOOL("ps2pdf");
    // Threads decoding the pages of one file at once share the module's kept
    // document without sharing it at the same time: every page comes back as
    // it does alone.
    const std::string pdf = vector_pdf();
    ASSERT_EQ(IMGLOW_set_pdf_input(100, 1), 0);
    std::vector<Raster> alone;
    for (int p = 0; p < 2; ++p) {
        const Handle h = IMG_decompress_bitmap_page(pdf.c_str(), p);
        ASSERT_GE(h, 0);
        alone.push_back(handle_raster(h));
    }
    std::vector<size_t> differ(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 6; ++i) {
                const int p = (t + i) % 2;
                const Handle h = IMG_decompress_bitmap_page(pdf.c_str(), p);
                differ[size_t(t)] += h < 0 ? 1 : count_differences(handle_raster(h), alone[size_t(p)], 1);
            }
        });
    for (auto& t : threads) t.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(differ[size_t(t)], 0u) << t;
    IMGLOW_set_pdf_input(0, 0);
}

TEST_F(PdfModule, TextAsPdftotextGivesIt) {
    REQUIRE_MODULE("apdfmod");
    REQUIRE_TOOL("pdftotext");
    REQUIRE_TOOL("ps2pdf");
    const std::string pdf = vector_pdf();
    std::string want;
    ASSERT_TRUE(run("pdftotext '" + pdf + "' -", &want));
    char* text = nullptr;
    int32_t length = 0;
    ASSERT_EQ(IMGLOW_extract_text(pdf.c_str(), &text, &length, 0), 0);
    ASSERT_NE(text, nullptr);
    const std::string got(text, size_t(length));
    tesslin_block_free(text);
    EXPECT_EQ(collapse_spaces(got), collapse_spaces(want));
    EXPECT_EQ(std::count(got.begin(), got.end(), '\f'), 2);

    // Search through the stream module.
    if (module_built("pdfmod")) {
        EXPECT_EQ(IMGLOW_search_text(pdf.c_str(), 0, "text", 0), 1);
        EXPECT_EQ(IMGLOW_search_text(pdf.c_str(), 1, "BLACK", 1), 1);
        EXPECT_EQ(IMGLOW_search_text(pdf.c_str(), 1, "BLACK", 0), IMG_ERR_TEXT_NOT_FOUND);
        EXPECT_EQ(IMGLOW_search_text(pdf.c_str(), 5, "text", 0), IMG_ERR_NO_PAGE);
    }
    // Not a PDF.
    const Scratch other("modules_not.pdf");
    write_file(other, Bytes{'B', 'M', 0, 0, 0, 0});
    EXPECT_EQ(IMGLOW_extract_text(other.c_str(), &text, &length, 0), IMG_ERR_UNSUPPORTED);
}

TEST_F(PdfModule, DamagedAndLockedFilesAreRefused) {
    REQUIRE_MODULE("pdfmod");
    REQUIRE_TOOL("ps2pdf");
    const Bytes good = read_file(vector_pdf());
    Bytes corrupt = good;
    for (size_t i = 200; i + 100 < corrupt.size(); i += 37) corrupt[i] ^= 0x5A;
    const Scratch locked("modules_locked.pdf");
    const bool have_qpdf = have_tool("qpdf") &&
                           run("qpdf --encrypt user owner 256 -- '" + vector_pdf() + "' '" + locked.path + "'");
    const struct {
        const char* name;
        Bytes data;
        int32_t status;
    } cases[] = {
        {"half", Bytes(good.begin(), good.begin() + long(good.size() / 2)), IMG_ERR_BAD_IMAGE},
        {"tail cut", Bytes(good.begin(), good.end() - 200), IMG_ERR_BAD_IMAGE},
        {"header only", Bytes(good.begin(), good.begin() + 16), IMG_ERR_BAD_IMAGE},
        {"corrupt", corrupt, IMG_ERR_BAD_IMAGE},
        {"locked", have_qpdf ? read_file(locked) : Bytes{}, IMG_ERR_VARIANT},
    };
    for (const auto& c : cases) {
        if (c.data.empty()) continue;
        SCOPED_TRACE(c.name);
        const Scratch path("modules_bad.pdf");
        write_file(path, c.data);
        EXPECT_EQ(IMG_decompress_bitmap(path.c_str()), c.status);
        EXPECT_EQ(decode_mem(c.data), c.status);
        EXPECT_EQ(IMGLOW_get_pages(path.c_str()), c.status);
    }
    EXPECT_EQ(IMGLOW_set_pdf_input(5, 24), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(IMGLOW_set_pdf_input(200, 4), IMG_ERR_BAD_IMAGE);
}
