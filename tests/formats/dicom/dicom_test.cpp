// DICOM: files written by pydicom and DCMTK at test time (make_dicom.py)
// decode to what pydicom decodes (JPEG frames: to djpeg's decode of the
// embedded stream), element queries answer what pydicom reads; the script's
// hand-made files cover packed 12 bits, implicit VR big-endian, nested
// sequences and damage.
#include <map>

#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

struct Generated {
    std::string dir;
    bool ok = false;
    ~Generated() { fs::remove_all(dir); }
};
const Generated& generated() {
    static const Generated g{temp_path("dicom"),
                             fs::create_directories(temp_path("dicom")) &&
                                 run("/usr/bin/python3 '" + data_path("../formats/dicom/make_dicom.py") +
                                     "' '" + temp_path("dicom") + "'")};
    return g;
}

}  // namespace

TEST(Dicom, GeneratedFilesDecodeToTheirReference) {
    const Generated& g = generated();
    if (!g.ok) GTEST_SKIP() << "pydicom (/usr/bin/python3) is not available";
    const auto cases = read_tsv(g.dir + "/cases.tsv");
    ASSERT_GE(cases.size(), 30u);
    const std::map<std::string, int32_t> statuses = {{"BAD_IMAGE", IMG_ERR_BAD_IMAGE}, {"READ", IMG_ERR_READ},
                                                     {"VARIANT", IMG_ERR_VARIANT},
                                                     {"COMPRESSION", IMG_ERR_COMPRESSION}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c[0]);
        const std::string path = g.dir + "/" + c[0];
        EXPECT_EQ(IMGLOW_get_filetype(path.c_str()), IMG_FORMAT_DICOM);
        const Handle h = IMG_decompress_bitmap(path.c_str());
        if (c[1] == "status") {
            EXPECT_EQ(h, statuses.at(c[7]));
            continue;
        }
        ASSERT_GE(h, 0);
        const int32_t width = std::stoi(c[2]), height = std::stoi(c[3]), bits = std::stoi(c[4]);
        const DibHeader info = info_of(h);
        EXPECT_EQ(info.biWidth, width);
        EXPECT_EQ(info.biHeight, height);
        ASSERT_EQ(info.biBitCount, bits);
        const Bytes want = read_file(g.dir + "/" + c[5]);
        const size_t row = size_t(width) * size_t(bits) / 8;
        ASSERT_EQ(want.size(), row * size_t(height));
        Bytes got;
        for (int32_t y = 0; y < height; ++y) {
            const Bytes r = get_row(h, y);
            got.insert(got.end(), r.begin(), r.begin() + long(row));
        }
        if (c[1] == "psnr")
            EXPECT_GE(psnr(got, want), 38.0);
        else
            EXPECT_TRUE(got == want);
        if (!c[6].empty()) {
            const Bytes pal = read_file(g.dir + "/" + c[6]);
            const Bytes block = header_of(h);  // kept alive while q is read
            const RgbQuad* q = dib_palette(block.data());
            for (size_t i = 0; i < 256; ++i) {
                EXPECT_EQ(q[i].rgbRed, pal[3 * i]);
                EXPECT_EQ(q[i].rgbGreen, pal[3 * i + 1]);
                EXPECT_EQ(q[i].rgbBlue, pal[3 * i + 2]);
            }
        }
    }
}

TEST(Dicom, ElementQueriesAnswerWhatPydicomReads) {
    const Generated& g = generated();
    if (!g.ok) GTEST_SKIP() << "pydicom (/usr/bin/python3) is not available";
    for (const auto& q : read_tsv(g.dir + "/queries.tsv")) {
        SCOPED_TRACE(q[0] + " " + q[1]);
        const std::string file = g.dir + "/" + q[0];
        int32_t value = -1;
        char buffer[80] = {};
        const int32_t tag = int32_t(std::stoul(q[1], nullptr, 16));
        const int32_t r = IMGLOW_get_tiff_tag(tag, sizeof buffer, &value, file.c_str(), buffer);
        ASSERT_EQ(r, std::stoi(q[2]));
        if (r == 0) {
            EXPECT_EQ(value, std::stoi(q[3]));
        } else if (r == 1) {
            std::string got(buffer);
            while (!got.empty() && got.back() == ' ') got.pop_back();
            EXPECT_EQ(got, q.size() > 3 ? q[3] : "");
        }
    }
}
