// The plug-in loader with the test suite's own modules (tests/plugin/):
// detection, page counts and decodes through a module, callbacks passed
// once, settings forwarded, and every failure code when modules are absent.
// (The ABIC module itself is exercised through raw fax and TIFF pages.)
#include <gtest/gtest.h>
#include <dlfcn.h>

#include <tuple>

#include "pipeline/decode.h"
#include "platform/platform.h"
#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

const std::string kModules = TESSLIN_TEST_PLUGINS;

// A synthetic document file the test modules serve, removed with the object.
struct PdfFile : Scratch {
    PdfFile(const std::string& name, int pages, int width, int height, int bits, size_t junk = 0) : Scratch(name) {
        const std::string text = std::string(junk, 'j') + "%PDF-1.4 tesslin-test pages=" + std::to_string(pages) +
                                 " width=" + std::to_string(width) + " height=" + std::to_string(height) +
                                 " bits=" + std::to_string(bits) + "\n%%EOF\n";
        write_file(path, Bytes(text.begin(), text.end()));
    }
};

// Calls a query function of a loaded test module.
template <typename R, typename... A>
R query(const std::string& module, const char* name, A... args) {
    void* m = dlopen((kModules + "/" + module + "/" + module + ".so").c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (!m) return R(-999);
    auto fn = reinterpret_cast<R (*)(A...)>(dlsym(m, name));
    R r = fn ? fn(args...) : R(-998);
    dlclose(m);
    return r;
}

class Plugins : public ::testing::Test {
protected:
    void use(const std::string& dir) {
        IMG_unload_plugins();
        tesslin_set_plugin_dir(dir.c_str());
    }
    void TearDown() override {
        IMG_unload_plugins();
        tesslin_set_plugin_dir(nullptr);
    }
};

}  // namespace

TEST_F(Plugins, FailureCodesWhenModulesAreAbsent) {
    const TempDir empty("empty");
    use(empty.path);
    const PdfFile pdf("absent.pdf", 2, 8, 8, 8);
    EXPECT_EQ(IMGLOW_get_filetype(pdf.c_str()), 59);  // detection needs no module
    EXPECT_EQ(IMG_decompress_bitmap(pdf.c_str()), IMG_ERR_PLUGIN);
    EXPECT_EQ(IMG_decompress_bitmap_page(pdf.c_str(), 1), IMG_ERR_PLUGIN);
    EXPECT_EQ(IMGLOW_get_pages(pdf.c_str()), 0);  // no pages from a stream, the status from memory
    void* block = to_block(read_file(pdf));
    EXPECT_EQ(IMGLOW_get_pages_mem(block), IMG_ERR_PLUGIN);
    tesslin_block_free(block);
    EXPECT_EQ(IMGLOW_set_pdf_input(1, 2), IMG_ERR_PLUGIN);
    EXPECT_EQ(IMGLOW_set_pcl_input(1, 2), IMG_ERR_PLUGIN);
    EXPECT_EQ(IMGLOW_set_jpeg2000_comp_ratio(20), IMG_ERR_JP2_PLUGIN);

    const Bytes pcl = {27, 'E', 27, '*', 'r', '1', 'A', 0, 0, 0, 0, 0};
    const Bytes fpx = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1, 0, 0, 0, 0};
    const Bytes jp2 = {0, 0, 0, 0x0C, 'j', 'P', ' ', ' ', 0x0D, 0x0A, 0x87, 0x0A};
    using Case = std::tuple<Bytes, int32_t, int32_t>;
    for (const auto& [data, decode, pages] : {Case{pcl, IMG_ERR_PLUGIN, IMG_ERR_PCL_PLUGIN},
                                              Case{fpx, IMG_ERR_DOC_PLUGIN, IMG_ERR_DOC_PLUGIN},
                                              Case{jp2, IMG_ERR_JP2_PLUGIN, 1}}) {
        const Scratch path("absent.bin");
        write_file(path, data);
        EXPECT_EQ(IMG_decompress_bitmap(path.c_str()), decode);
        EXPECT_EQ(IMGLOW_get_pages(path.c_str()), pages);
    }
    EXPECT_EQ(save_status(24, 70), IMG_ERR_JP2_PLUGIN);

    // The ABIC fallback (a seam the public interface cannot reach) without
    // its module; data no container describes stays undecoded.
    void* tiff = to_block({'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 0, 0});
    void* other = to_block({'X', 'Y', 1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    const int32_t s = stream::mem_create(tiff), o = stream::mem_create(other);
    EXPECT_EQ(abic_decode_image(s, AbicParams{20, 6, 1, 300, 300}), IMG_ERR_ABIC_PLUGIN);
    EXPECT_EQ(abic_fallback(o, 0), IMG_ERR_COMPRESSION);
    stream::mem_release(s);
    stream::mem_release(o);
    tesslin_block_free(tiff);
    tesslin_block_free(other);
}

TEST_F(Plugins, StreamPdfModuleCountsAndDecodesPages) {
    use(kModules + "/pdfmod");
    const PdfFile pdf("doc.pdf", 3, 21, 13, 8);
    EXPECT_EQ(IMGLOW_get_filetype(pdf.c_str()), 59);
    EXPECT_EQ(IMGLOW_get_pages(pdf.c_str()), 3);  // apdfmod absent: pdfmod answers
    void* block = to_block(read_file(pdf));
    EXPECT_EQ(IMGLOW_get_pages_mem(block), 3);
    tesslin_block_free(block);
    for (int page : {0, 2}) {
        SCOPED_TRACE(page);
        const Handle h = IMG_decompress_bitmap_page(pdf.c_str(), page);
        ASSERT_GE(h, 0);
        for (int y : {0, 6, 12}) {
            const auto row = get_row(h, y);
            for (int x : {0, 9, 20}) EXPECT_EQ(row[size_t(x)], uint8_t(7 * x + 3 * y + 50 * page));
        }
        EXPECT_EQ(IMGLOW_get_transp_color(h), 0x1005);
    }
    EXPECT_EQ(IMG_decompress_bitmap_page(pdf.c_str(), 3), IMG_ERR_NO_PAGE);
    // "set_callbacks" ran once however many calls used the module.
    EXPECT_EQ(query<int>("pdfmod", "testmod_callbacks"), 1);
    // The PDF input setting goes to pdfmod when apdfmod is absent.
    EXPECT_EQ(IMGLOW_set_pdf_input(7, 9), 17);
    EXPECT_EQ(query<int32_t>("pdfmod", "testmod_input", 0), 7);
    EXPECT_EQ(query<int32_t>("pdfmod", "testmod_input", 1), 9);
    // After unloading, the next use loads the module afresh.
    IMG_unload_plugins();
    EXPECT_EQ(query<int>("pdfmod", "testmod_callbacks"), -999);
    EXPECT_EQ(IMGLOW_get_pages(pdf.c_str()), 3);
    EXPECT_EQ(query<int>("pdfmod", "testmod_callbacks"), 1);
}

TEST_F(Plugins, PageArgumentReachesTheDecoderWithTheStreamAtTheOffset) {
    use(kModules + "/pdfmod");
    const PdfFile pdf("offset.pdf", 4, 8, 4, 8, 100);
    const int32_t fd = platform::file_open(pdf.c_str(), 0);
    ASSERT_GE(fd, 0);
    const Handle h = IMG_decompress_bitmap_fd(fd, 100, 3);
    EXPECT_GE(h, 0);
    EXPECT_EQ(query<uint32_t>("pdfmod", "testmod_position"), 0x80000003u);
    EXPECT_EQ(query<int32_t>("pdfmod", "testmod_stream_at"), 100);
    // Page 0 passes the offset itself.
    const Handle first = IMG_decompress_bitmap_fd(fd, 100, 0);
    EXPECT_GE(first, 0);
    EXPECT_EQ(query<uint32_t>("pdfmod", "testmod_position"), 100u);
    platform::file_close(fd);
}

TEST_F(Plugins, BilevelPagesFromAModuleAreRunEncodedTopFirst) {
    use(kModules + "/pdfmod");
    const PdfFile pdf("mono.pdf", 2, 40, 12, 1);
    const Handle h = IMG_decompress_bitmap_page(pdf.c_str(), 1);
    ASSERT_GE(h, 0);
    const Raster r = handle_raster(h);
    size_t bad = 0;
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 40; ++x) bad += (r.at(x, y)[0] == 0) != ((x / 4 + y / 4 + 1) % 2 == 0);
    EXPECT_EQ(bad, 0u);
}

TEST_F(Plugins, FileNamePdfModuleWhenTheStreamModuleIsAbsent) {
    use(kModules + "/apdfmod");
    const PdfFile pdf("named.pdf", 2, 16, 5, 8);
    EXPECT_EQ(IMGLOW_get_pages(pdf.c_str()), 102);  // the file-name module's answer
    const Handle h = IMG_decompress_bitmap_page(pdf.c_str(), 1);
    ASSERT_GE(h, 0);
    EXPECT_EQ(get_row(h, 4)[3], uint8_t(7 * 3 + 3 * 4 + 50));
    EXPECT_EQ(query<uint32_t>("apdfmod", "testmod_position"), 1u);  // page without bit 31
    EXPECT_EQ(IMGLOW_set_pdf_input(3, 4), 17);
    EXPECT_EQ(query<int32_t>("apdfmod", "testmod_input", 0), 3);
}

TEST_F(Plugins, DirectoryFromTheEnvironment) {
    IMG_unload_plugins();
    tesslin_set_plugin_dir(nullptr);
    setenv("TESSLIN_PLUGIN_DIR", (kModules + "/pdfmod").c_str(), 1);
    EXPECT_EQ(IMGLOW_get_pages(PdfFile("env.pdf", 5, 8, 8, 8).c_str()), 5);
    unsetenv("TESSLIN_PLUGIN_DIR");
}
