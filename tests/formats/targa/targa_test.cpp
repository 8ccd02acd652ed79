// Targa: files of every kind the reader takes (written by Pillow, or built
// after the Truevision conformance set) against ImageMagick's decode;
// damaged files. (The writer: tests/formats/raster.)
#include <gtest/gtest.h>

#include "formats/targa/targa.h"
#include "format_checks.h"
#include "magick.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// A 5-bit field as we widen it (shifted up by 3) and as ImageMagick does
// (scaled to 0..255) agree on the field itself.
size_t field_differences(const Raster& ours, const Raster& ref) {
    if (ours.px.size() != ref.px.size()) return size_t(-1);
    size_t n = 0;
    for (size_t i = 0; i < ref.px.size(); ++i) n += ours.px[i] >> 3 != (ref.px[i] * 31 + 127) / 255;
    return n;
}

Bytes tga_file(uint8_t type, uint8_t depth, uint16_t w, uint16_t h, const Bytes& data,
               uint8_t descriptor = 0) {
    Bytes f(18 + data.size(), 0);
    f[2] = type;
    store_le16(&f[12], w);
    store_le16(&f[14], h);
    f[16] = depth;
    f[17] = descriptor;
    std::copy(data.begin(), data.end(), f.begin() + 18);
    return f;
}

}  // namespace

TEST(TargaRead, EveryKindOfFileDecodesAsImageMagickShowsIt) {
    if (!have_pillow() || !have_magick()) GTEST_SKIP() << "needs Pillow and ImageMagick";
    const TempDir dir("targa_variants");
    ASSERT_TRUE(run("/usr/bin/python3 '" + data_path("raster/make_targa.py") + "' '" + dir.path + "'"));
    size_t files = 0;
    for (const auto& e : fs::directory_iterator(dir.path)) {
        const std::string name = e.path().filename();
        SCOPED_TRACE(name);
        const Handle h = IMG_decompress_bitmap(e.path().c_str());
        ASSERT_GE(h, 0);
        const Raster ours = handle_raster(h);
        const int channels = ours.channels;  // 4 for 32-bit files
        const Raster ref = magick(e.path(), channels);
        ASSERT_FALSE(ref.px.empty());
        if (name.find("16") != std::string::npos || name.find("15") != std::string::npos)
            EXPECT_EQ(field_differences(ours, ref), 0u);
        else
            EXPECT_EQ(count_differences(ours, ref, channels), 0u);
        ++files;
    }
    EXPECT_EQ(files, 24u);
}

// Sixteen-bit values widen by shifting: 0x7FFF is 248 in every channel (the
// peer test compares the 5-bit fields only). Type 156 carries JPEG data right
// after the header. (Packets crossing rows: make_targa.py's files.)
TEST(TargaRead, SixteenBitShiftAndJpeg) {
    const Bytes jpeg = read_file(corpus("jpeg/grey.jpg"));
    Bytes wrapped = tga_file(156, 8, 0, 0, jpeg);
    wrapped[0] = 30;  // the ID length detection asks of type 156
    const Handle a = decode_mem(wrapped), b = decode_mem(jpeg);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    EXPECT_EQ(count_differences(handle_raster(a), handle_raster(b), 3), 0u);

    const Decoded d = decode_with(targa::decode, tga_file(2, 16, 1, 1, {0xFF, 0x7F}));
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(Bytes(d.rows[0].begin(), d.rows[0].begin() + 3), (Bytes{248, 248, 248}));
}

TEST(TargaRead, DamagedFilesAreRefused) {
    const Bytes rows(3 * 4 * 2, 7);
    Bytes mapped = tga_file(1, 8, 4, 2, Bytes(8, 1));
    mapped[1] = 1, mapped[6] = 1, mapped[7] = 24;  // 256 map entries, 8 bytes of data
    expect_statuses(targa::decode, {
        {"short header", Bytes(rows.begin(), rows.begin() + 12), IMG_ERR_READ},
        {"rows cut short", tga_file(2, 24, 4, 2, Bytes(rows.begin(), rows.end() - 1)), IMG_ERR_READ},
        {"run-length data cut short", tga_file(10, 24, 4, 2, {0x83, 1, 2, 3, 0x02, 1}), IMG_ERR_READ},
        {"colour map larger than the file", mapped, IMG_ERR_READ},
        {"run-length size no data can reach", tga_file(10, 24, 20000, 20000, {0xFF, 1, 2, 3}),
         IMG_ERR_BAD_IMAGE},
        {"raw size beyond the file", tga_file(2, 32, 65535, 65535, rows), IMG_ERR_BAD_IMAGE},
        {"depth 7", tga_file(2, 7, 4, 2, rows), IMG_ERR_BAD_IMAGE},
        {"zero width", tga_file(2, 24, 0, 2, rows), IMG_ERR_BAD_IMAGE},
        {"image type 33", tga_file(33, 8, 4, 2, rows), IMG_ERR_VARIANT},
    });
}
