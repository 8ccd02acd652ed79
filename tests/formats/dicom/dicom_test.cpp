// DICOM: files written by pydicom and DCMTK at test time (make_dicom.py)
// decode to what pydicom decodes (JPEG frames: to djpeg's decode of the
// embedded stream), element queries answer what pydicom reads, and files
// built here cover the packed 12-bit layout, nested sequences and damage.
#include <fcntl.h>

#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// ---- a small DICOM writer: explicit VR little-endian ------------------------

Bytes element(uint16_t group, uint16_t elem, const char* vr, const Bytes& value,
              uint32_t length = 0xFFFFFFFE) {
    Bytes out(4);
    store_le16(&out[0], group);
    store_le16(&out[2], elem);
    const uint32_t n = length == 0xFFFFFFFE ? uint32_t(value.size()) : length;
    const std::string v = vr;
    out.insert(out.end(), v.begin(), v.end());
    const bool wide = v == "OB" || v == "OW" || v == "SQ" || v == "UN";
    out.resize(out.size() + (wide ? 6 : 2));
    if (wide)
        store_le32(&out[out.size() - 4], n);
    else
        store_le16(&out[out.size() - 2], uint16_t(n));
    out.insert(out.end(), value.begin(), value.end());
    return out;
}
Bytes item(uint16_t elem, const Bytes& value, uint32_t length) {
    Bytes out(8);
    store_le16(&out[0], 0xFFFE);
    store_le16(&out[2], elem);
    store_le32(&out[4], length);
    out.insert(out.end(), value.begin(), value.end());
    return out;
}
Bytes us(uint16_t v) { return {uint8_t(v), uint8_t(v >> 8)}; }
Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }
Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes meta(const std::string& syntax, const Bytes& extra = {}) {
    const Bytes body = element(2, 0x10, "UI", text(syntax + std::string(syntax.size() % 2, '\0'))) + extra;
    Bytes out(128, 0);
    out = out + text("DICM") + element(2, 0, "UL", {uint8_t(body.size()), 0, 0, 0}) + body;
    return out;
}
// The image attributes of a grey image.
Bytes attributes(uint16_t rows, uint16_t columns, uint16_t allocated, uint16_t stored) {
    return element(0x28, 4, "CS", text("MONOCHROME2 ")) + element(0x28, 0x10, "US", us(rows)) +
           element(0x28, 0x11, "US", us(columns)) + element(0x28, 0x100, "US", us(allocated)) +
           element(0x28, 0x101, "US", us(stored)) + element(0x28, 0x102, "US", us(uint16_t(stored - 1)));
}
const std::string kExplicit = "1.2.840.10008.1.2.1", kRle = "1.2.840.10008.1.2.5";

// A 4 x 2 8-bit image whose pixel data is one RLE fragment.
Bytes rle_file(const Bytes& fragment) {
    return meta(kRle) + attributes(2, 4, 8, 8) + element(0x7FE0, 0x10, "OB", {}, 0xFFFFFFFF) +
           item(0xE000, {}, 0) + item(0xE000, fragment, uint32_t(fragment.size())) + item(0xE0DD, {}, 0);
}
Bytes rle_fragment(uint32_t segments, uint32_t first_offset) {
    Bytes f(64, 0);
    store_le32(&f[0], segments);
    store_le32(&f[4], first_offset);
    return f + Bytes{7, 1, 2, 3, 4, 5, 6, 7, 8};  // one literal run of the 8 pixels
}

// ---- files from pydicom and DCMTK -------------------------------------------

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

TEST(Dicom, DecodesWhatPydicomAndDcmtkWrite) {
    const Generated& g = generated();
    if (!g.ok) GTEST_SKIP() << "pydicom (/usr/bin/python3) is not available";
    const auto cases = read_tsv(g.dir + "/cases.tsv");
    ASSERT_GE(cases.size(), 12u);
    for (const auto& c : cases) {
        SCOPED_TRACE(c[0]);
        const Handle h = IMG_decompress_bitmap((g.dir + "/" + c[0]).c_str());
        if (c[1] == "status") {
            EXPECT_EQ(h, std::stoi(c[7]));
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
        // The same on an open stream.
        const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        int32_t again = -1;
        EXPECT_EQ(IMGLOW_get_tiff_tag_page_fd(tag, sizeof buffer, &again, fd, buffer, 0), r);
        ::close(fd);
    }
}

// Packed 12-bit samples: 0x12 0x34 0x56 gives 0x1230 and 0x4560. A nested
// sequence of undefined length holding its own Rows and Pixel Data (an icon)
// does not disturb the image's.
TEST(Dicom, PackedTwelveBitsAndNestedSequences) {
    const Bytes icon = item(0xE000, element(0x28, 0x10, "US", us(99)) + element(0x7FE0, 0x10, "OB", {1, 2}) +
                                        item(0xE00D, {}, 0),
                            0xFFFFFFFF);
    const Bytes file = meta(kExplicit) + attributes(1, 2, 12, 12) +
                       element(0x88, 0x200, "SQ", icon + item(0xE0DD, {}, 0), 0xFFFFFFFF) +
                       element(0x7FE0, 0x10, "OB", {0x12, 0x34, 0x56, 0});
    const Handle h = decode_mem(file);
    ASSERT_GE(h, 0);
    EXPECT_EQ(info_of(h).biHeight, 1);
    EXPECT_EQ(info_of(h).biBitCount, 16);
    const Bytes row = get_row(h, 0);
    EXPECT_EQ(load_le16(&row[0]), 0x1230);
    EXPECT_EQ(load_le16(&row[2]), 0x4560);
}

// Implicit VR big-endian (no writer makes it): 16-bit samples, and 8-bit
// samples in byte-swapped words.
TEST(Dicom, ImplicitBigEndian) {
    auto el = [](uint16_t group, uint16_t elem, const Bytes& value) {
        Bytes out(8);
        store_be16(&out[0], group);
        store_be16(&out[2], elem);
        store_be32(&out[4], uint32_t(value.size()));
        return out + value;
    };
    auto be = [](uint16_t v) { return Bytes{uint8_t(v >> 8), uint8_t(v)}; };
    for (uint16_t bits : {16, 8}) {
        SCOPED_TRACE(bits);
        const Bytes pixels = bits == 16 ? Bytes{0x01, 0x02, 0x03, 0x04, 0xFF, 0xFE} : Bytes{0x02, 0x01, 0x00, 0x03};
        const Bytes file = meta("1.2.840.10008.1.3") + el(0x28, 4, text("MONOCHROME2 ")) +
                           el(0x28, 0x10, be(1)) + el(0x28, 0x11, be(3)) + el(0x28, 0x100, be(bits)) +
                           el(0x28, 0x101, be(bits)) + el(0x7FE0, 0x10, pixels);
        const Handle h = decode_mem(file);
        ASSERT_GE(h, 0);
        const Bytes row = get_row(h, 0);
        if (bits == 16) {
            EXPECT_EQ(load_le16(&row[0]), 0x0102);
            EXPECT_EQ(load_le16(&row[4]), 0xFFFE);
        } else {
            EXPECT_EQ(Bytes(row.begin(), row.begin() + 3), (Bytes{1, 2, 3}));
        }
    }
}

TEST(Dicom, DamagedFilesFailCleanly) {
    const Bytes image = attributes(2, 4, 8, 8);
    const Bytes pixels = element(0x7FE0, 0x10, "OB", Bytes(8, 9));
    Bytes cut_rle = rle_file(rle_fragment(1, 64));
    cut_rle.resize(cut_rle.size() - 20);
    const struct {
        const char* name;
        Bytes file;
        int32_t status;
    } cases[] = {
        {"meta element the meta information may not hold",
         meta(kExplicit, element(2, 0x99, "UI", text("1."))) + image + pixels, IMG_ERR_BAD_IMAGE},
        {"meta element of undefined length",
         meta(kExplicit, element(2, 0x102, "OB", {}, 0xFFFFFFFF)) + image + pixels, IMG_ERR_BAD_IMAGE},
        {"native pixel data of undefined length",
         meta(kExplicit) + image + element(0x7FE0, 0x10, "OB", Bytes(8, 9), 0xFFFFFFFF), IMG_ERR_BAD_IMAGE},
        {"element length past the end",
         meta(kExplicit) + element(0x10, 0x10, "UN", text("Doe"), 0x7FFFFF00) + image + pixels, IMG_ERR_READ},
        {"sequence that never ends",
         meta(kExplicit) + image + element(0x88, 0x200, "SQ", item(0xE000, Bytes(8, 0), 0xFFFFFFFF), 0xFFFFFFFF),
         IMG_ERR_READ},
        {"pixel data shorter than the image", meta(kExplicit) + image + element(0x7FE0, 0x10, "OB", Bytes(6, 9)),
         IMG_ERR_READ},
        {"rows and columns the data cannot hold",
         meta(kExplicit) + attributes(60000, 60000, 16, 16) + pixels, IMG_ERR_READ},
        {"32 bits allocated", meta(kExplicit) + attributes(2, 4, 32, 32) + pixels, IMG_ERR_VARIANT},
        {"RLE data without an item",
         meta(kRle) + image + element(0x7FE0, 0x10, "OB", {}, 0xFFFFFFFF) + element(0x10, 0x10, "PN", {}),
         IMG_ERR_BAD_IMAGE},
        {"RLE segment offset past the fragment", rle_file(rle_fragment(1, 4000)), IMG_ERR_BAD_IMAGE},
        {"RLE segment offset inside the header", rle_file(rle_fragment(1, 8)), IMG_ERR_BAD_IMAGE},
        {"RLE segment count 0", rle_file(rle_fragment(0, 64)), IMG_ERR_BAD_IMAGE},
        {"RLE fragment cut short", cut_rle, IMG_ERR_READ},
        {"JPEG data that is no JPEG",
         meta("1.2.840.10008.1.2.4.50") + image + element(0x7FE0, 0x10, "OB", {}, 0xFFFFFFFF) +
             item(0xE000, {}, 0) + item(0xE000, Bytes(16, 7), 16) + item(0xE0DD, {}, 0),
         IMG_ERR_BAD_IMAGE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(filetype_mem(c.file), IMG_FORMAT_DICOM);
        EXPECT_EQ(decode_mem(c.file), c.status);
    }
    // The well-formed RLE file the damaged ones come from decodes.
    const Handle h = decode_mem(rle_file(rle_fragment(1, 64)));
    ASSERT_GE(h, 0);
    EXPECT_EQ(get_row(h, 1)[3], 8);
}
