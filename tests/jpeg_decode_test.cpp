// JPEG decoding: the corpus' JPEG rows against their independent references,
// files made by peer encoders against djpeg, refusals, header fields and the
// decoder contract.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "jpeg_test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

struct ManifestRow {
    std::string file, reference, compare;
    int width = 0, height = 0;
};

std::vector<ManifestRow> jpeg_manifest_rows() {
    std::vector<ManifestRow> rows;
    std::ifstream in(data_path("corpus/MANIFEST.tsv"));
    std::string line;
    while (std::getline(in, line)) {
        std::vector<std::string> f;
        std::stringstream ss(line);
        std::string cell;
        while (std::getline(ss, cell, '\t')) f.push_back(cell);
        if (f.size() < 8 || f[0].rfind("jpeg/", 0) != 0) continue;
        ManifestRow r;
        r.file = f[0];
        r.width = std::atoi(f[3].c_str());
        r.height = std::atoi(f[4].c_str());
        r.reference = f[6];
        r.compare = f[7];
        rows.push_back(r);
    }
    return rows;
}

}  // namespace

TEST(JpegDecode, CorpusRowsMatchTheirReferences) {
    const auto rows = jpeg_manifest_rows();
    ASSERT_GE(rows.size(), 10u);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.file);
        Decoded d;
        const int32_t r = jpeg_decode_file(data_path("corpus/" + row.file), &d);
        if (row.compare == "refuse") {
            EXPECT_LT(r, 0);
            continue;
        }
        ASSERT_EQ(r, 0);
        EXPECT_EQ(d.header.biWidth, row.width);
        EXPECT_EQ(d.header.biHeight, row.height);
        Pnm ref;
        ASSERT_TRUE(read_pnm(data_path("corpus/" + row.reference), &ref));
        const double p = psnr(as_pnm_samples(d), ref.data);
        const double need = std::atof(row.compare.c_str() + 5);
        std::printf("%-28s %6.2f dB\n", row.file.c_str(), p);
        EXPECT_GE(p, need);
    }
}

namespace {

// djpeg writes four-component files as RGB: each of the stored (inverted)
// C, M, Y values times the stored K over 255.
std::vector<uint8_t> four_channels_as_djpeg_rgb(const Decoded& d) {
    std::vector<uint8_t> out;
    for (int y = 0; y < d.header.biHeight; ++y) {
        const uint8_t* r = d.row(y);
        for (int x = 0; x < d.header.biWidth; ++x) {
            const double k = 255 - r[4 * x + 3];
            for (int c = 0; c < 3; ++c) out.push_back(uint8_t((255 - r[4 * x + c]) * k / 255.0 + 0.5));
        }
    }
    return out;
}

}  // namespace

TEST(JpegDecode, PeerEncodedFilesMatchDjpeg) {
    const char* files[] = {"444", "422", "420", "411", "440", "444-in-2x1", "grey",
                           "progressive", "progressive-grey", "progressive-restart", "restart",
                           "multiscan", "extended", "cmyk", "ycck"};
    for (const char* name : files) {
        SCOPED_TRACE(name);
        Decoded d;
        ASSERT_EQ(jpeg_decode_file(data_path(std::string("jpeg/") + name + ".jpg"), &d), 0);
        const bool grey = d.header.biBitCount == 8;
        Pnm ref;
        ASSERT_TRUE(read_pnm(data_path(std::string("jpeg/") + name + (grey ? ".pgm" : ".ppm")), &ref));
        ASSERT_EQ(d.header.biWidth, ref.width);
        ASSERT_EQ(d.header.biHeight, ref.height);
        const auto ours = d.header.biBitCount == 32 ? four_channels_as_djpeg_rgb(d) : as_pnm_samples(d);
        const double p = psnr(ours, ref.data);
        std::printf("%-22s %6.2f dB\n", name, p);
        EXPECT_GE(p, 40.0);
    }
}
