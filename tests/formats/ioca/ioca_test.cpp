// IOCA and MO:DCA: files built here from structured fields and
// self-defining fields around the corpus page's fax streams, in every
// framing; each must decode to the corpus page. Pages, orientation, the
// ABIC parameters and damaged files.
#include "format_checks.h"
#include "fax.h"
#include "formats/ioca/ioca.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
Bytes be16(uint32_t v) { return {uint8_t(v >> 8), uint8_t(v)}; }

// ---- the generator ---------------------------------------------------------------

struct Image {
    uint8_t compression = 0x82;
    Bytes data;
    uint32_t width = kCorpusWidth, height = kCorpusHeight, bits = 1;
    uint8_t bit_order = 0;
    uint32_t block = 30000;  // bytes per image data field
};

// A bare IOCA segment: begin segment, begin image content, size (3000 units
// per 10 inches), encoding, data element size, the data in image data
// fields, end image content, end segment.
Bytes segment(const Image& im) {
    Bytes s = Bytes{0x70, 0x00, 0x91, 0x01, 0xFF, 0x94, 0x09, 0x00} + be16(3000) + be16(3000) +
              be16(im.width) + be16(im.height) + Bytes{0x95, 0x03, im.compression, 0x01, im.bit_order} +
              Bytes{0x96, 0x01, uint8_t(im.bits)};
    for (size_t at = 0; at < im.data.size(); at += im.block) {
        const size_t n = std::min<size_t>(im.block, im.data.size() - at);
        s = s + Bytes{0xFE, 0x92} + be16(uint32_t(n)) +
            Bytes(im.data.begin() + long(at), im.data.begin() + long(at + n));
    }
    return s + Bytes{0x93, 0x00, 0x71, 0x00};
}

Bytes field(uint32_t id, const Bytes& data, bool introducer) {
    Bytes f = introducer ? Bytes{0x5A} : Bytes{};
    return f + be16(uint32_t(data.size() + 8)) +
           Bytes{uint8_t(id >> 16), uint8_t(id >> 8), uint8_t(id), 0, 0, 0} + data;
}

// A document of pages, each holding one IOCA image whose segment is split
// over `split` image picture data fields or more; `turned` puts an object area
// position with a 90-degree X axis on the page.
Bytes document(const std::vector<Bytes>& segments, bool introducer, size_t split = 1,
               bool turned = false) {
    Bytes d = field(0xD3A8A8, Bytes(8, 0x40), introducer);
    for (const Bytes& s : segments) {
        d = d + field(0xD3A8AF, Bytes(8, 0x40), introducer);
        if (turned)
            d = d + field(0xD3AC6B, Bytes{1, 23, 0, 0, 0, 0, 0, 0, 0x2D, 0x00, 0x5A, 0x00} + Bytes(11, 0),
                          introducer);
        d = d + field(0xD3A8FB, Bytes(8, 0x40), introducer);
        // At least `split` fields, none longer than a field can be.
        const size_t part = std::min<size_t>((s.size() + split - 1) / split, 32000);
        size_t at = 0;
        do {
            const size_t end = std::min(s.size(), at + part);
            d = d + field(0xD3EEFB, Bytes(s.begin() + long(at), s.begin() + long(end)), introducer);
            at = end;
        } while (at < s.size());
        d = d + field(0xD3A9FB, Bytes(8, 0x40), introducer) + field(0xD3A9AF, Bytes(8, 0x40), introducer);
    }
    return d + field(0xD3A9A8, Bytes(8, 0x40), introducer);
}

Decoded run_decoder(const Bytes& file, uint32_t position = 0) {
    return decode_with(ioca::decode, file, position);
}

}  // namespace

TEST(Ioca, EveryCodingInEveryFramingGivesTheCorpusPage) {
    const Bytes pbm = pbm_bytes(corpus_page());  // rows with 1 marking ink behind the header
    const struct {
        const char* name;
        Image image;
    } codings[] = {
        {"T.6", {0x82, corpus_fax("g4")}},
        {"T.6, least significant bit first", {0x82, bit_reversed(corpus_fax("g4")), kCorpusWidth, kCorpusHeight, 1, 1}},
        {"T.4 one-dimensional", {0x80, corpus_fax("g3")}},
        {"T.4 two-dimensional", {0x81, corpus_fax("g32d")}},
        {"IBM MMR", {0x01, plain_mmr(corpus_page())}},
        {"T.6 data marked IBM MMR", {0x01, corpus_fax("g4")}},
        {"uncompressed", {0x03, Bytes(pbm.end() - long(kCorpusHeight * kCorpusWidth / 8), pbm.end())}},
    };
    for (const auto& c : codings) {
        const Bytes s = segment(c.image);
        const struct {
            const char* name;
            Bytes file;
        } framings[] = {
            {"bare segment", s},
            {"MO:DCA", document({s}, false)},
            {"MO:DCA, record introducers, data in three fields", document({s}, true, 3)},
        };
        for (const auto& f : framings) {
            SCOPED_TRACE(std::string(c.name) + " / " + f.name);
            expect_file_decodes(f.file, IMG_FORMAT_MODCA, 300, corpus_page());
        }
    }
}

// Images carried as TIFF: in an object container, and in the indexed
// container whose table gives image offsets.
TEST(Ioca, TiffImagesInContainers) {
    const Bytes tiff = read_file(corpus("doc/g4.tif"));
    const Bytes container = field(0xD3A8A8, Bytes(8, 0x40), false) + field(0xD3A8AF, {}, false) +
                            field(0xD3EE92, Bytes(tiff.begin(), tiff.begin() + 3000), false) +
                            field(0xD3EE92, Bytes(tiff.begin() + 3000, tiff.end()), false) +
                            field(0xD3A9AF, {}, false);
    EXPECT_EQ(take_difference(decode_mem(container), corpus_page()), "");
    Bytes indexed = {'0', '0', '0'};
    indexed.resize(64, ' ');
    store_be32(&indexed[23], 64);
    const Decoded d = run_decoder(indexed + tiff);
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(d.width(), int32_t(kCorpusWidth));
}

TEST(Ioca, PagesCountsAndOrientation) {
    std::vector<Bytes> pages;
    for (uint8_t p = 0; p < 3; ++p) {
        Image im{0x03, Bytes(16, uint8_t(0x11 * (p + 1))), 32, 4};
        pages.push_back(segment(im));
    }
    for (bool introducer : {false, true}) {
        SCOPED_TRACE(introducer);
        const Bytes doc = document(pages, introducer);
        void* block = to_block(doc);
        EXPECT_EQ(IMGLOW_get_pages_mem(block), 3);
        tesslin_block_free(block);
        const Decoded third = run_decoder(doc, kPositionIsPage | 2);
        ASSERT_EQ(third.status, 0);
        EXPECT_EQ(third.rows[0][0], uint8_t(~0x33));  // bytes inverted
        EXPECT_EQ(run_decoder(doc, kPositionIsPage | 5).status, IMG_ERR_READ);
    }
    EXPECT_EQ(run_decoder(pages[0], kPositionIsPage | 1).status, IMG_ERR_NO_PAGE);

    const Scratch path("turned.mca");
    write_file(path, document({pages[0], pages[1]}, false, 1, true));
    EXPECT_EQ(IMGLOW_get_image_orientation_page(path.c_str(), 1), 90);
    write_file(path, document({pages[0]}, false));
    EXPECT_EQ(IMGLOW_get_image_orientation(path.c_str()), 0);
    EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 1);
}

// ABIC data is refused by the decoder; the decode entry points then read
// its size through the MO:DCA fields and hand it to the ABIC module.
TEST(Ioca, AbicGoesToTheModule) {
    const Bytes doc = document({segment(Image{0x08, Bytes(40, 0), 20, 6})}, true);
    EXPECT_EQ(run_decoder(doc).status, IMG_ERR_COMPRESSION);
    IMG_unload_plugins();
    tesslin_set_plugin_dir((std::string(TESSLIN_TEST_PLUGINS) + "/abicmod").c_str());
    const Handle h = decode_mem(doc);
    tesslin_set_plugin_dir(nullptr);
    IMG_unload_plugins();
    ASSERT_GE(h, 0);
    const DibHeader info = info_of(h);
    EXPECT_EQ(info.biWidth, 20);
    EXPECT_EQ(info.biHeight, 6);
    EXPECT_EQ(info.biXPelsPerMeter, 300);
}

TEST(Ioca, DamagedFilesFailCleanly) {
    const Image small{0x03, Bytes(16, 0x55), 32, 4};
    Bytes lying = document({segment(small)}, false);
    store_be16(&lying[0], 4);  // a field length below 8
    Bytes chain = segment(small);
    store_be16(&chain[chain.size() - 4 - 16 - 2], 400);  // an image data field past the end
    Bytes missing = document({segment(small)}, true);
    missing[17] = 0x00;  // the begin-page field's record introducer lost
    Image huge{0x82, Bytes(10, 0), 60000, 60000};
    Image empty{0x82, {}};
    expect_statuses(ioca::decode, {
        {"structured field length below 8", lying, IMG_ERR_BAD_IMAGE},
        {"structured field past the end", Bytes{0x00, 0x40, 0xD3, 0xA8, 0xAF, 0, 0, 0, 1, 2}, IMG_ERR_READ},
        {"image data field past the end", chain, IMG_ERR_BAD_IMAGE},
        {"record introducer missing", missing, IMG_ERR_BAD_IMAGE},
        {"no image data", document({Bytes{}}, false), IMG_ERR_BAD_IMAGE},
        {"segment without image data fields", segment(empty), IMG_ERR_BAD_IMAGE},
        {"unknown compression", segment(Image{0x44, Bytes(16, 0), 32, 4}), IMG_ERR_BAD_IMAGE},
        {"uncompressed data cut short", segment(Image{0x03, Bytes(15, 0), 32, 4}), IMG_ERR_READ},
        {"2 bits per pixel", segment(Image{0x03, Bytes(32, 0), 32, 4, 2}), IMG_ERR_VARIANT},
        {"page larger than its data can be", segment(huge), IMG_ERR_BAD_IMAGE},
        {"no page at all", document({}, false), IMG_ERR_READ},
    });
}
