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
