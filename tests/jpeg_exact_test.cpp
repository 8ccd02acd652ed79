// The library's JPEG decoder and encoder against the plain reference codec
// of jpeg_reference.cpp: rows and bytes must be identical, so the lookahead
// Huffman decoding, the vectorised transforms and the table-driven colour
// conversion change nothing but the speed.
#include <gtest/gtest.h>

#include <dirent.h>

#include "core/settings.h"
#include "jpeg_reference.h"
#include "jpeg_test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

std::vector<std::string> jpeg_files() {
    std::vector<std::string> files;
    for (const char* dir : {"corpus/jpeg", "corpus/suites/jpeg", "jpeg"}) {
        const std::string path = data_path(dir);
        DIR* d = opendir(path.c_str());
        if (!d) continue;
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name.size() > 4 && name.substr(name.size() - 4) == ".jpg") files.push_back(path + "/" + name);
        }
        closedir(d);
    }
    std::sort(files.begin(), files.end());
    return files;
}

void expect_same(const std::vector<uint8_t>& bytes, const jpeg::DecodeOptions& options,
                 const ReferenceOptions& ref_options, const std::string& what) {
    SCOPED_TRACE(what);
    Decoded lib, ref;
    const int32_t a = jpeg_decode_bytes(bytes, &lib, options);
    const int32_t b = reference_decode(bytes, &ref, ref_options);
    ASSERT_EQ(a, b);
    if (a < 0) return;
    EXPECT_EQ(0, std::memcmp(&lib.header, &ref.header, sizeof lib.header));
    EXPECT_EQ(lib.palette.size(), ref.palette.size());
    ASSERT_EQ(lib.pixels.size(), ref.pixels.size());
    size_t first = 0;
    while (first < lib.pixels.size() && lib.pixels[first] == ref.pixels[first]) ++first;
    EXPECT_EQ(first, lib.pixels.size()) << "first difference at byte " << first << " (row "
                                         << (lib.row_bytes ? first / lib.row_bytes : 0) << ")";
}

}  // namespace

TEST(JpegExact, DecoderRowsEqualTheReferenceOnEveryTestFile) {
    const auto files = jpeg_files();
    ASSERT_GE(files.size(), 12u);
    for (const auto& f : files) {
        const auto bytes = read_file(f);
        expect_same(bytes, {}, {}, f);
        jpeg::DecodeOptions co;
        co.coefficients = 1;
        ReferenceOptions rco;
        rco.coefficients = true;
        expect_same(bytes, co, rco, f + " (coefficients)");
    }
}
