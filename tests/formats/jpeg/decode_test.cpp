// JPEG decoding: refusals, tables and the decoder contract. (Rows and
// header fields: exact_test against libjpeg's coefficients and djpeg; the
// corpus' JPEG pages against their references in the conformance suite.)
#include "jpeg_test.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

Bytes test_file(const std::string& name) { return read_file(data_path("jpeg/" + name)); }

// The file without the segments of one marker type.
Bytes without_segments(Bytes f, uint8_t m) {
    for (size_t at; (at = find_marker(f, m)) != std::string::npos;) {
        const size_t len = size_t((f[at + 2] << 8) | f[at + 3]);
        f.erase(f.begin() + long(at), f.begin() + long(at + 2 + len));
    }
    return f;
}

bool same_pixels(const Bytes& a, const Bytes& b) {
    Decoded x, y;
    return jpeg_decode_bytes(a, &x) == 0 && jpeg_decode_bytes(b, &y) == 0 && x.rows == y.rows;
}

}  // namespace

TEST(JpegDecode, FindsStartOfImageWithinAThousandBytes) {
    const auto f = test_file("grey.jpg");
    Decoded ref;
    ASSERT_EQ(jpeg_decode_bytes(f, &ref), 0);
    for (size_t junk : {size_t(1), size_t(999), size_t(1000), size_t(1001)}) {
        Bytes g(junk, 0x20);
        g.insert(g.end(), f.begin(), f.end());
        Decoded d;
        const int32_t r = jpeg_decode_bytes(g, &d);
        if (junk <= 1000) {
            EXPECT_EQ(r, 0) << junk;
            EXPECT_EQ(d.rows, ref.rows);
        } else {
            EXPECT_EQ(r, IMG_ERR_BAD_IMAGE);
        }
    }
    // A byte offset, and bit 31 with the stream standing at the data.
    Bytes g(5000, 0x55);
    g.insert(g.end(), f.begin(), f.end());
    Decoded at;
    EXPECT_EQ(jpeg_decode_bytes(g, &at, {}, 4990), 0);
    EXPECT_EQ(at.rows, ref.rows);
    const Decoded page = decode_with([](uint32_t, IMG_RASTER_CALLBACK r, intptr_t u, IMG_HEADER_CALLBACK h, int32_t s) {
        stream::seek(s, 4500, 0);
        return jpeg::decode(0x80000000u, r, u, h, s);
    }, g);
    EXPECT_EQ(page.status, 0);
    EXPECT_EQ(page.rows, ref.rows);
    Decoded empty;
    EXPECT_EQ(jpeg_decode_bytes({0xFF}, &empty), IMG_ERR_READ);
}

TEST(JpegDecode, TablesAndSamplingFactors) {
    // Without DQT the two default tables are used (libjpeg refuses such a
    // stream, so only the status is checked).
    const auto no_dqt = without_segments(test_file("420.jpg"), 0xDB);
    Decoded d;
    EXPECT_EQ(jpeg_decode_bytes(no_dqt, &d), 0);
    // A motion-JPEG style stream without DHT uses the T.81 Annex K tables,
    // which are what cjpeg wrote.
    auto std_tables = read_file(data_path("corpus/jpeg/420.jpg"));
    EXPECT_TRUE(same_pixels(std_tables, without_segments(std_tables, 0xC4)));
    // Quantisation selectors 2 and 3 use table 1.
    const Bytes f = test_file("420.jpg");
    EXPECT_TRUE(same_pixels(f, patched(patched(f, 0xC0, 15, {2}), 0xC0, 18, {3})));
}

TEST(JpegDecode, StripRestartsAndSharedTables) {
    // A stream with a restart marker after every MCU row, its markers and
    // DRI taken out, is what a whole-image JPEG spanning TIFF strips of 16
    // rows looks like: each strip starts byte-aligned with fresh DC
    // predictors.
    const auto rows = test_file("restart-rows.jpg");
    auto strips = without_segments(rows, 0xDD);
    const size_t data = find_marker(strips, 0xDA);
    for (size_t i = data + 2; i + 1 < strips.size();)
        if (strips[i] == 0xFF && strips[i + 1] >= 0xD0 && strips[i + 1] <= 0xD7)
            strips.erase(strips.begin() + long(i), strips.begin() + long(i + 2));
        else
            ++i;
    Decoded expect, got, plain;
    ASSERT_EQ(jpeg_decode_bytes(rows, &expect), 0);
    jpeg::DecodeOptions o;
    o.strip_rows = 16;
    ASSERT_EQ(jpeg_decode_bytes(strips, &got, o), 0);
    EXPECT_EQ(got.rows, expect.rows);
    ASSERT_EQ(jpeg_decode_bytes(strips, &plain), 0);
    EXPECT_NE(plain.rows, expect.rows);

    // Tables shared by abbreviated streams (TIFF JPEGTables): the tables
    // stream holds DQT and DHT, the image stream neither.
    const auto full = test_file("420.jpg");
    Bytes tables = without_segments(without_segments(full, 0xE0), 0xC0);
    tables.resize(find_marker(tables, 0xDA));
    tables.insert(tables.end(), {0xFF, 0xD9});
    const auto image = without_segments(without_segments(full, 0xDB), 0xC4);
    jpeg::Tables t;
    ASSERT_EQ(jpeg::read_tables(tables.data(), uint32_t(tables.size()), &t), 0);
    EXPECT_TRUE(t.quant_defined[0] && t.quant_defined[1] && t.dc[1].defined && t.ac[1].defined);
    jpeg::DecodeOptions shared;
    shared.tables = &t;
    Decoded a, b;
    ASSERT_EQ(jpeg_decode_bytes(full, &a), 0);
    ASSERT_EQ(jpeg_decode_bytes(image, &b, shared), 0);
    EXPECT_EQ(a.rows, b.rows);
    // Malformed tables streams are refused.
    auto bad = tables;
    bad[find_marker(bad, 0xDB) + 4] = 0x20;  // precision 2
    EXPECT_EQ(jpeg::read_tables(bad.data(), uint32_t(bad.size()), &t), IMG_ERR_BAD_IMAGE);
}

TEST(JpegDecode, CallbackContract) {
    const auto f = test_file("420.jpg");
    Decoded d;
    ASSERT_EQ(jpeg_decode_bytes(f, &d), 0);
    ASSERT_EQ(d.order.size(), 74u);
    for (int i = 0; i < 74; ++i) EXPECT_EQ(d.order[size_t(i)], i);  // top row first, once each
    EXPECT_EQ(d.rows[0].size(), row_bytes(113, 24));

    Decoded stop;
    stop.stop_row = 3, stop.stop_status = -5;
    EXPECT_EQ(jpeg_decode_bytes(f, &stop), -5);
    EXPECT_EQ(stop.order.size(), 4u) << "nothing after the row that failed";
    Decoded stop_prog;
    stop_prog.stop_row = 0, stop_prog.stop_status = -5;
    EXPECT_EQ(jpeg_decode_bytes(test_file("progressive.jpg"), &stop_prog), -5);

    // A header callback's status ends the decode before any row.
    Decoded refused;
    refused.stop_header = -18;
    EXPECT_EQ(jpeg_decode_bytes(f, &refused), -18);
    EXPECT_TRUE(refused.order.empty());
}

TEST(JpegDecode, BadInputIsRefused) {
    const auto f = test_file("420.jpg");
    struct Patch {
        const char* what;
        uint8_t marker;
        size_t at;
        Bytes values;
        int32_t status;
    };
    const Patch patches[] = {
        {"sizes the data cannot back", 0xC0, 5, {0xFF, 0xFF, 0xFF, 0xFF}, IMG_ERR_BAD_IMAGE},
        {"height 0", 0xC0, 5, {0, 0}, IMG_ERR_BAD_IMAGE},
        {"two components", 0xC0, 9, {2}, IMG_ERR_UNSUPPORTED},
        // 3 x 2 beside 1 x 1 chroma: 3 is no multiple.
        {"sampling 3 x 2", 0xC0, 11, {0x32, f[find_marker(f, 0xC0) + 12], f[find_marker(f, 0xC0) + 13], 0x21},
         IMG_ERR_UNSUPPORTED},
        {"three Huffman codes of length 1", 0xC4, 5, {3}, IMG_ERR_BAD_IMAGE},
        {"more than 256 Huffman symbols", 0xC4, 5, Bytes(16, 17), IMG_ERR_BAD_IMAGE},
        {"quantisation precision 2", 0xDB, 4, {0x20}, IMG_ERR_BAD_IMAGE},
        {"scan of a component the frame lacks", 0xDA, 5, {9}, IMG_ERR_BAD_IMAGE},
    };
    for (const Patch& p : patches) {
        Decoded d;
        EXPECT_EQ(jpeg_decode_bytes(patched(f, p.marker, p.at, p.values), &d), p.status) << p.what;
        // Frame and table faults are refused before the header callback.
        if (p.marker != 0xDA) { EXPECT_TRUE(d.header.empty()) << p.what; }
    }
    // Nothing after the scan header.
    Decoded d;
    EXPECT_EQ(jpeg_decode_bytes(Bytes(f.begin(), f.begin() + long(find_marker(f, 0xDA) + 14)), &d), IMG_ERR_READ);
    // Arithmetic coding, lossless and 12-bit frames: refused before the header callback.
    for (const char* name : {"corpus/jpeg/arithmetic.jpg", "corpus/suites/jpeg/testimgari.jpg",
                             "jpeg/lossless.jpg", "jpeg/twelve-bit.jpg"}) {
        Decoded r;
        EXPECT_EQ(jpeg_decode_file(data_path(name), &r), IMG_ERR_UNSUPPORTED) << name;
        EXPECT_TRUE(r.header.empty() && r.order.empty()) << name;
    }
}

TEST(JpegDecode, IccProfile) {
    // The corpus' Adobe CMYK file carries a profile in three chunks; a
    // stream with one chunk; files without.
    uint32_t size = 1234;
    void* p = IMG_get_profile(data_path("corpus/jpeg/cmyk.jpg").c_str(), 0, &size);
    ASSERT_NE(p, nullptr);
    const auto bytes = read_file(data_path("corpus/jpeg/cmyk.jpg"));
    // Chunk payloads from the file itself, in order.
    Bytes expect;
    for (size_t i = 2; i + 3 < bytes.size() && bytes[i] == 0xFF && bytes[i + 1] != 0xDA;) {
        const size_t len = size_t((bytes[i + 2] << 8) | bytes[i + 3]);
        if (bytes[i + 1] == 0xE2 && std::memcmp(&bytes[i + 4], "ICC_PROFILE", 12) == 0)
            expect.insert(expect.end(), bytes.begin() + long(i + 18), bytes.begin() + long(i + 2 + len));
        i += 2 + len;
    }
    ASSERT_GT(expect.size(), 65536u);
    ASSERT_EQ(size, expect.size());
    EXPECT_EQ(0, std::memcmp(p, expect.data(), size));
    EXPECT_EQ(load_be32(static_cast<uint8_t*>(p)), size);  // an ICC header starts with its size
    tesslin_block_free(p);
    EXPECT_EQ(IMG_get_profile(data_path("jpeg/420.jpg").c_str(), 0, &size), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(IMG_get_profile(data_path("corpus/tone/rgb-none.tif").c_str(), 0, &size), nullptr);
    EXPECT_EQ(IMG_get_profile("/nonexistent/file.jpg", 0, &size), nullptr);
}
