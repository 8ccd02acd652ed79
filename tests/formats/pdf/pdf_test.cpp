// PDF output, checked with poppler (pdfinfo, pdfimages, pdftoppm) and qpdf:
// documents built page by page, the page layout, appending to documents of
// other producers or damaged ones, and a failed append through I/O hooks.
#include <fcntl.h>

#include <map>
#include <regex>

#include "test_util.h"

namespace tesslin::test {
namespace {

std::string text_of(const Bytes& b) { return std::string(b.begin(), b.end()); }

bool have_poppler() { return have_tool("pdfinfo") && have_tool("pdfimages") && have_tool("pdftoppm"); }

// pdfinfo's page count, -1 when it fails.
int pdf_pages(const std::string& path) {
    std::string out;
    if (!run("pdfinfo '" + path + "'", &out)) return -1;
    std::smatch m;
    return std::regex_search(out, m, std::regex("Pages:\\s+([0-9]+)")) ? std::stoi(m[1]) : -1;
}

// A bilevel page: black bars and a diagonal on white, pixel value 1 white.
int32_t bilevel_handle(int32_t w, int32_t h) {
    return make_handle(w, h, 1, [w](uint8_t* row, uint32_t n, int32_t y) {
        std::memset(row, 0xFF, n);
        for (int32_t x = 0; x < w; ++x)
            if ((x / 7 + y / 5) % 4 == 0 || x == y % w) row[x / 8] &= uint8_t(~(0x80 >> (x % 8)));
    });
}

// A smooth colour page (JPEG friendly).
int32_t colour_handle(int32_t w, int32_t h) {
    return make_handle(w, h, 24, [w, h](uint8_t* row, uint32_t, int32_t y) {
        for (int32_t x = 0; x < w; ++x) {
            row[3 * x] = uint8_t(255 * x / w);
            row[3 * x + 1] = uint8_t(255 * y / h);
            row[3 * x + 2] = uint8_t(128 + (x + y) % 64);
        }
    });
}

int32_t grey_handle(int32_t w, int32_t h) {
    return make_handle(w, h, 8, [w](uint8_t* row, uint32_t, int32_t y) {
        for (int32_t x = 0; x < w; ++x) row[x] = uint8_t(x + y);
    });
}

int32_t save(int32_t handle, const std::string& path) {
    const int32_t r = IMG_save_bitmap(handle, path.c_str(), IMG_FORMAT_PDF);
    IMG_delete_bitmap(handle);
    return r;
}

// Renders page `page` (1-based) at 72 dpi, cropped to the image's place,
// as RGB.
Raster render(const std::string& pdf, int page, int x, int y, int w, int h) {
    const std::string out = temp_path("render");
    run("pdftoppm -r 72 -f " + std::to_string(page) + " -l " + std::to_string(page) + " -x " +
        std::to_string(x) + " -y " + std::to_string(y) + " -W " + std::to_string(w) + " -H " +
        std::to_string(h) + " -singlefile '" + pdf + "' '" + out + "'");
    Raster r = to_rgb(read_netpbm(out + ".ppm"));
    fs::remove(out + ".ppm");
    return r;
}

TEST(Pdf, SavesMakeOneDocumentPeersRead) {
    if (!have_poppler() || !have_tool("qpdf")) GTEST_SKIP() << "poppler-utils or qpdf missing";
    const Scratch pdf("three.pdf");
    const int32_t bilevel = bilevel_handle(333, 211);
    const Raster bilevel_px = handle_raster(bilevel);
    const int32_t colour = colour_handle(160, 120), grey = grey_handle(100, 80);
    const Raster colour_px = handle_raster(colour), grey_px = handle_raster(grey);
    ASSERT_EQ(save(bilevel, pdf), 0);
    ASSERT_EQ(save(colour, pdf), 0);
    ASSERT_EQ(save(grey, pdf), 0);
    // Palette images other than the grey ramp from black go in as RGB: the
    // ramp from white (8 bits) and colours (4 bits).
    for (int bits : {8, 4}) {
        const int32_t h = make_handle(64, 32, bits);
        std::vector<RgbQuad> palette(1u << bits);
        for (uint32_t i = 0; i < palette.size(); ++i) {
            const auto v = uint8_t(255 - i);
            palette[i] = bits == 8 ? RgbQuad{v, v, v, 0} : RgbQuad{uint8_t(i * 16), 0, v, 0};
        }
        IMGLOW_put_palette(h, palette.data());
        ASSERT_EQ(save(h, pdf), 0);
    }
    // Ink is ink: a CMYK page, the left half paper, the right half full black.
    const int32_t ink = make_handle(64, 32, 32, [](uint8_t* row, uint32_t n, int32_t) {
        std::memset(row, 0, n);
        for (int x = 32; x < 64; ++x) row[4 * x + 3] = 255;
    });
    ASSERT_EQ(save(ink, pdf), 0);

    EXPECT_EQ(pdf_pages(pdf), 6);
    std::string out;
    EXPECT_TRUE(run("qpdf --check '" + pdf.path + "'", &out)) << out;
    EXPECT_NE(out.find("No syntax or stream encoding errors"), std::string::npos) << out;
    // page num type width height color comp bpc enc
    ASSERT_TRUE(run("pdfimages -list '" + pdf.path + "'", &out));
    EXPECT_TRUE(std::regex_search(out, std::regex("1 +0 image +333 +211 +gray +1 +1 +ccitt"))) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("2 +1 image +160 +120 +rgb +3 +8 +jpeg"))) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("3 +2 image +100 +80 +gray +1 +8 +jpeg"))) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("4 +3 image +64 +32 +rgb +3 +8 +jpeg"))) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("5 +4 image +64 +32 +rgb +3 +8 +jpeg"))) << out;
    EXPECT_TRUE(std::regex_search(out, std::regex("6 +5 image +64 +32 +cmyk +4 +8 +jpeg"))) << out;

    // The bilevel page comes back exactly; the others closely, rendered.
    const std::string prefix = temp_path("extract");
    ASSERT_TRUE(run("pdfimages -f 1 -l 1 '" + pdf.path + "' '" + prefix + "'"));
    EXPECT_EQ(count_differences(read_netpbm(prefix + "-000.pbm"), bilevel_px, 3), 0u);
    fs::remove(prefix + "-000.pbm");
    EXPECT_GT(psnr(render(pdf, 2, 226, 336, 160, 120), colour_px), 30);
    EXPECT_GT(psnr(render(pdf, 3, 256, 356, 100, 80), grey_px), 30);
    const Raster cmyk = render(pdf, 6, 274, 380, 64, 32);
    ASSERT_EQ(cmyk.width, 64);
    EXPECT_GT(cmyk.at(8, 16)[0], 240);
    EXPECT_LT(cmyk.at(56, 16)[0], 40);
}

TEST(Pdf, PlacementOnThePage) {
    struct Case {
        int32_t w, h, page_w, page_h;
        const char* cm;
    };
    const Case cases[] = {
        {2550, 3300, 612, 792, "000612 0 0 000792      0      0 cm"},  // fitted exactly
        {400, 300, 612, 792, "000400 0 0 000300    106    246 cm"},    // smaller: centred
        {1000, 100, 612, 792, "000612 0 0 000061      0    365 cm"},   // fitted to the width
        {100, 2000, 612, 792, "000039 0 0 000792    286      0 cm"},   // fitted to the height
        {300, 300, 300, 400, "000300 0 0 000300      0     50 cm"},    // as wide as the page
    };
    for (const Case& c : cases) {
        IMGLOW_set_pdf_output(c.page_w, c.page_h);
        const Handle h = bilevel_handle(c.w, c.h);
        int32_t n = 0;
        const std::string text = text_of(save_mem(h, IMG_FORMAT_PDF, &n));
        ASSERT_GT(n, 0);
        EXPECT_NE(text.find("stream\r\n" + std::string(c.cm) + "\r\n/Quor0 Do\r\nendstream"),
                  std::string::npos)
            << c.w << "x" << c.h;
        EXPECT_NE(text.find("/MediaBox [ 0 0 " + std::to_string(c.page_w) + " " +
                            std::to_string(c.page_h) + " ]"),
                  std::string::npos);
    }
    IMGLOW_set_pdf_output(612, 792);
}

// A failed append through application I/O hooks over a file that cannot
// grow leaves the document as it was: the hooks cannot cut the file, so the
// old bytes are put back. (Cancelled appends and full disks, at every
// failure point: the pipeline's append-failure test.)
struct HookFile {
    static inline int fd = -1;
    static inline off_t limit = 0;
    static int32_t read(int32_t, void* b, uint32_t n) { return int32_t(::read(fd, b, n)); }
    static int32_t seek(int32_t, int32_t o, int32_t origin) {
        return int32_t(lseek(fd, o, origin == 0 ? SEEK_SET : origin == 1 ? SEEK_CUR : SEEK_END));
    }
    static int32_t write(int32_t, const void* b, uint32_t n) {
        const off_t at = lseek(fd, 0, SEEK_CUR);
        const off_t room = std::max<off_t>(0, limit - at);
        return int32_t(::write(fd, b, size_t(std::min<off_t>(room, n))));
    }
};

TEST(Pdf, FailedAppendThroughHooksLeavesTheDocumentAsItWas) {
    const Scratch pdf("keep.pdf");
    ASSERT_EQ(save(bilevel_handle(300, 200), pdf), 0);
    ASSERT_EQ(save(colour_handle(120, 90), pdf), 0);
    const Bytes before = read_file(pdf);
    for (off_t growth : {off_t(100), off_t(3000)}) {
        const Handle page = bilevel_handle(900, 700);
        HookFile::fd = ::open(pdf.c_str(), O_RDWR);
        HookFile::limit = off_t(before.size()) + growth;
        IMGLOW_set_fileio(HookFile::read, HookFile::write, HookFile::seek);
        EXPECT_EQ(IMG_save_bitmap_fd(page, 77, IMG_FORMAT_PDF), IMG_ERR_WRITE);
        IMGLOW_set_fileio(nullptr, nullptr, nullptr);
        ::close(HookFile::fd);
        Bytes after = read_file(pdf);
        EXPECT_LE(after.size(), before.size() + size_t(growth));
        after.resize(std::min(after.size(), before.size()));
        EXPECT_TRUE(after == before) << "growth " << growth;
        if (fs::file_size(pdf.path) > before.size()) fs::resize_file(pdf.path, before.size());
    }
    // Still a document to append to.
    ASSERT_EQ(save(grey_handle(50, 50), pdf), 0);
    if (have_tool("pdfinfo")) {
        EXPECT_EQ(pdf_pages(pdf), 3);
    }
}

// Existing files that are not this writer's documents: overwritten as new
// documents when their end cannot be read, refused when they are readable
// documents of another layout, and a status when the page count is missing.
TEST(Pdf, ForeignAndDamagedDocuments) {
    const Scratch ours("ours.pdf"), file("other.pdf");
    ASSERT_EQ(save(bilevel_handle(120, 80), ours), 0);
    ASSERT_EQ(save(bilevel_handle(120, 80), ours), 0);
    const Bytes doc = read_file(ours);
    std::string no_count = text_of(doc);
    for (size_t at = no_count.find("/Count"); at != std::string::npos; at = no_count.find("/Count"))
        no_count.replace(at, 6, "/Cxunt");

    struct Case {
        const char* name;
        Bytes content;           // the existing file; empty: made by qpdf from ours
        const char* qpdf_args;   // with qpdf: how
        int32_t status;
        int pages;               // pages afterwards; 0: the file is unchanged
    };
    const Case cases[] = {
        {"short file", Bytes{'%', 'P', 'D', 'F', '-', '1', '.', '4', '\n'}, nullptr, 0, 1},
        {"no end marker", Bytes(1000, 'x'), nullptr, 0, 1},
        {"end cut off", Bytes(doc.begin(), doc.end() - 10), nullptr, 0, 1},
        {"table out of place", [&] {
             std::string t = text_of(doc);
             t.replace(t.rfind("startxref\r\n") + 11, 1, "9");
             return Bytes(t.begin(), t.end());
         }(), nullptr, 0, 1},
        {"no page count", Bytes(no_count.begin(), no_count.end()), nullptr, IMG_ERR_MEMORY, 0},
        {"rewritten by qpdf", {}, "", IMG_ERR_VARIANT, 0},
        {"cross-reference stream", {}, "--object-streams=generate", 0, 1},
    };
    for (const Case& c : cases) {
        if (c.qpdf_args) {
            if (!have_tool("qpdf")) continue;
            fs::remove(file.path);
            ASSERT_TRUE(run(std::string("qpdf ") + c.qpdf_args + " '" + ours.path + "' '" + file.path + "'"));
        } else {
            write_file(file, c.content);
        }
        const Bytes before = read_file(file);
        EXPECT_EQ(save(bilevel_handle(64, 64), file), c.status) << c.name;
        if (c.pages == 0) {
            EXPECT_TRUE(read_file(file) == before) << c.name;
        } else if (have_tool("pdfinfo")) {
            EXPECT_EQ(pdf_pages(file), c.pages) << c.name;
        }
    }
}

// A memory stream's length is its position: every save into a block is a
// new one-page document, whatever the block held before.
TEST(Pdf, EverySaveIntoMemoryIsANewDocument) {
    const uint32_t size = 1 << 20;
    void* block = tesslin_block_alloc(size);
    std::memset(block, 0, size);
    int32_t n[2] = {};
    for (int32_t& written : n) {
        const Handle h = bilevel_handle(200, 100);
        written = IMG_save_bitmap_mem(h, block, IMG_FORMAT_PDF);
    }
    ASSERT_GT(n[0], 0);
    EXPECT_EQ(n[1], n[0]);
    const auto* b = static_cast<const uint8_t*>(block);
    const std::string text(b, b + n[1]);
    EXPECT_EQ(text.compare(0, 10, "%PDF-1.2\r\n"), 0);
    EXPECT_NE(text.find("/Count 1"), std::string::npos);
    tesslin_block_free(block);
}

// Depths PDF does not hold, and a page size of 0. (A refused save's file is
// removed by the save driver: the pipeline's tests.)
TEST(Pdf, RefusedImages) {
    EXPECT_EQ(save_status(16, IMG_FORMAT_PDF), IMG_ERR_DEPTH);
    DibHeader odd = dib_header(16, 16, 7);
    auto supply = [](intptr_t, uint8_t*, int32_t, uint32_t) -> int32_t { return 0; };
    void* block = tesslin_block_alloc(4096);
    EXPECT_EQ(IMGLOW_save_bitmap_mem(block, &odd, IMG_FORMAT_PDF, supply, 0), IMG_ERR_DEPTH);
    tesslin_block_free(block);
    IMGLOW_set_pdf_output(0, 792);
    EXPECT_EQ(save_status(1, IMG_FORMAT_PDF), IMG_ERR_BAD_IMAGE);
    IMGLOW_set_pdf_output(612, 792);
}

}  // namespace
}  // namespace tesslin::test
