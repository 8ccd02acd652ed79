// Format detection, format codes, page counts and orientation queries.
#include <gtest/gtest.h>

#include <filesystem>

#include "gif_builder.h"
#include "platform/platform.h"
#include "test_util.h"
#include "tiff_builder.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// A scratch file holding `data`.
struct TempFile : Scratch {
    TempFile(const std::string& name, const Bytes& data) : Scratch(name) { write_file(path, data); }
};

// A little-endian TIFF with one directory of the given tags.
Bytes tiff_with(std::initializer_list<std::pair<uint16_t, uint32_t>> tags) {
    TiffBuilder b;
    for (auto [tag, value] : tags) b.add(tag, value > 0xFFFF ? 4 : 3, {value});
    return b.finish();
}

// Restores a detection switch when the test ends.
struct Switch {
    int32_t code, was;
    Switch(int32_t c, bool on) : code(c), was(on ? IMGLOW_set_auto_detect(c) : IMGLOW_unset_auto_detect(c)) {}
    ~Switch() { was ? IMGLOW_set_auto_detect(code) : IMGLOW_unset_auto_detect(code); }
};

}  // namespace

// Every file of the corpus is identified with its expected code from an open
// stream and a memory block (by name: the conformance rows); the stream is
// put back where it was, except
// that TIFF, BMP and GIF files are read from there to refine the code.
TEST(Detect, EveryCorpusFileHasItsExpectedFormatCode) {
    int checked = 0;
    for (const auto& cells : manifest()) {
        if (cells[5].empty()) continue;  // raw fax streams carry no signature
        const std::string path = corpus(cells[0]);
        const int32_t expected = std::stoi(cells[5]);
        SCOPED_TRACE(cells[0]);
        EXPECT_EQ(filetype_mem(read_file(path)), expected);
        const int32_t fd = platform::file_open(path.c_str(), 0);
        ASSERT_GE(fd, 0);
        stream::seek(fd, 0, 0);
        EXPECT_EQ(IMGLOW_get_filetype_fd(fd), expected);
        const int32_t after = stream::seek(fd, 0, 1);
        const std::string ext = std::filesystem::path(cells[0]).extension().string();
        if (ext == ".bmp") {
            EXPECT_EQ(after, 54);  // file and info header read
        } else if (ext != ".tif" && ext != ".gif") {
            EXPECT_EQ(after, 0);
        }
        // From another position, a format without refinement is put back there.
        if (ext == ".png" || ext == ".jpg") {
            stream::seek(fd, 7, 0);
            EXPECT_EQ(IMGLOW_get_filetype_fd(fd), expected);
            EXPECT_EQ(stream::seek(fd, 0, 1), 7);
        }
        platform::file_close(fd);
        ++checked;
    }
    EXPECT_EQ(checked, 95);
}

TEST(Detect, SignatureOrderAndSwitches) {
    // "%PDF" is PDF although nothing else matches; "MM" is TIFF first of all
    // (this one has no directory where its header points: a short read).
    EXPECT_EQ(filetype_mem({'%', 'P', 'D', 'F', '-', '1', '.', '4', '\n', '%'}), 59);
    EXPECT_EQ(filetype_mem({'M', 'M', 0, 42, 'G', 'I', 'F', 0, 0, 0}), IMG_ERR_READ);
    {
        // With TIFF detection off, a TIFF that matches no later test is unknown.
        Switch off(0, false);
        EXPECT_EQ(IMGLOW_get_filetype(corpus("doc/g4.tif").c_str()),
                  IMG_ERR_UNSUPPORTED);
        EXPECT_EQ(IMGLOW_get_filetype(corpus("bmp/rgb24.bmp").c_str()), 1);
    }
    // Nine bytes are too few.
    EXPECT_EQ(filetype_mem({'B', 'M', 0, 0, 0, 0, 0, 0, 0}), IMG_ERR_UNSUPPORTED);
    // Plain text only once its switch is on.
    const Bytes text = {'H', 'e', 'l', 'l', 'o', ',', ' ', 'w', 'o', 'r', 'l', 'd', '\n'};
    EXPECT_EQ(filetype_mem(text), IMG_ERR_UNSUPPORTED);
    {
        Switch on(38, true);
        EXPECT_EQ(filetype_mem(text), 38);
    }
    // The MO:DCA test runs under the IOCA switch (code 24).
    const Bytes modca = {'Z', 0, 0x10, 0xD3, 0xA8, 0xA8, 0, 0, 0, 0};
    EXPECT_EQ(filetype_mem(modca), 49);
    {
        Switch off(24, false);
        EXPECT_NE(filetype_mem(modca), 49);
    }
    // Tests that look beyond the first bytes: DICOM preamble, CALS, WBMP.
    Bytes dicom(140, 0);
    std::memcpy(&dicom[128], "DICM", 4);
    dicom[0] = 1;  // not a matching element pair at offset 0
    EXPECT_EQ(filetype_mem(dicom), 55);
    EXPECT_EQ(filetype_mem({'s', 'r', 'c', 'd', 'o', 'c', 'i', 'd', ':', ' '}), 18);
    EXPECT_EQ(filetype_mem({0, 0, 0x81, 0x63, 0x20, 0, 0, 0, 0, 0}), 68);
    // Tags the memory query does not know.
    const Bytes jp2 = {0, 0, 0, 0x0C, 'j', 'P', ' ', ' ', 0x0D, 0x0A};
    EXPECT_EQ(filetype_mem(jp2), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(IMGLOW_get_filetype(TempFile("x.jp2", jp2).c_str()), 70);
}

TEST(Detect, RefinementsOfTiffBmpAndGif) {
    EXPECT_EQ(filetype_mem(tiff_with({{259, 7}})), 40);
    EXPECT_EQ(filetype_mem(tiff_with({{259, 8}})), IMG_ERR_UNSUPPORTED);
    EXPECT_EQ(filetype_mem(tiff_with({{259, 3}, {292, 1}})), 17);
    EXPECT_EQ(filetype_mem(tiff_with({{259, 3}, {292, 4}})), 8);
    EXPECT_EQ(filetype_mem(tiff_with({{259, 32773}})), 16);
    EXPECT_EQ(filetype_mem(tiff_with({{259, 34661}})), 66);
    EXPECT_EQ(filetype_mem(tiff_with({{256, 10}})), 0);  // compression absent: none
    // Interlaced GIF with a global colour table and an extension block.
    auto gif_of = [](bool interlaced) {
        return gif_file(1, 1, 1, {GifFrame{.indices = {0}, .interlaced = interlaced, .delay = 0}});
    };
    const Bytes gif = gif_of(true);
    EXPECT_EQ(filetype_mem(gif), 44);
    EXPECT_EQ(filetype_mem(gif_of(false)), 4);
    Bytes cut(gif.begin(), gif.begin() + 22);  // ends inside the extension
    EXPECT_EQ(filetype_mem(cut), IMG_ERR_BAD_IMAGE);
    Bytes short_header(gif.begin(), gif.begin() + 11);
    EXPECT_EQ(filetype_mem(short_header), IMG_ERR_READ);
}

// (Corpus files' page counts are conformance rows; PDF without its modules
// is the plug-in tests' part.)
TEST(Detect, PageCounts) {
    EXPECT_EQ(IMGLOW_get_pages(TempFile("unknown.bin", Bytes(64, 0x01)).c_str()), 1);
    void* b = to_block(read_file(corpus("doc/multipage-g4.tif")));
    EXPECT_EQ(IMGLOW_get_pages_mem(b), 3);
    tesslin_block_free(b);
    EXPECT_EQ(IMGLOW_get_pages("/nonexistent/file"), IMG_ERR_OPEN);
}

TEST(Detect, Orientation) {
    // The orientation walk wants directories of 3 entries or more.
    const TempFile t6("o6.tif", tiff_with({{256, 8}, {259, 1}, {274, 6}}));
    const TempFile t8("o8.tif", tiff_with({{256, 8}, {257, 8}, {274, 8}}));
    const TempFile t5("o5.tif", tiff_with({{256, 8}, {257, 8}, {274, 5}}));
    EXPECT_EQ(IMGLOW_get_image_orientation(t6.c_str()), 90);
    EXPECT_EQ(IMGLOW_get_image_orientation(t8.c_str()), 270);
    EXPECT_EQ(IMGLOW_get_image_orientation(t5.c_str()), 5);
    EXPECT_EQ(IMGLOW_get_image_orientation_page(t6.c_str(), 0), 90);
    EXPECT_EQ(IMGLOW_get_image_orientation_page(t6.c_str(), 1), IMG_ERR_NO_PAGE);
    EXPECT_EQ(IMGLOW_get_image_orientation(corpus("doc/g4.tif").c_str()), 0);
    EXPECT_EQ(IMGLOW_get_image_orientation(corpus("png/rgb.png").c_str()),
              IMG_ERR_UNSUPPORTED);
    // Photo CD: the low two bits of byte 3586.
    Bytes pcd(4096, 0xFF);
    pcd[3586] = 0x01;
    EXPECT_EQ(IMGLOW_get_image_orientation(TempFile("x.pcd", pcd).c_str()), 270);
    // (CALS orientation records: the CALS tests.)
}
