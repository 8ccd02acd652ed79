// CALS raster: files built from the record layout around the corpus Group 4
// page, the writer's header records and payload (read back by us and by
// libtiff), the orientation record, and damaged headers.
#include "fax.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// A CALS header of sixteen 128-byte records, each text padded with spaces.
Bytes cals_header(const std::vector<std::string>& records) {
    Bytes h(2048, ' ');
    for (size_t i = 0; i < records.size() && i < 16; ++i)
        std::copy(records[i].begin(), records[i].end(), h.begin() + long(i * 128));
    return h;
}

std::vector<std::string> standard_records(const std::string& pel_count, const std::string& density,
                                          const std::string& orient = "000,270") {
    return {"srcdocid: NONE", "dstdocid: NONE", "txtfilid: NONE", "figid: NONE",
            "srcgph: NONE",   "doccls: NONE",   "rtype: 1",       "rorient: " + orient,
            "rpelcnt: " + pel_count, "rdensty: " + density, "notes: NONE"};
}

Bytes with_data(Bytes header, const Bytes& data) {
    header.insert(header.end(), data.begin(), data.end());
    return header;
}

const Bytes& corpus_g4() { return corpus_fax("g4"); }

// The pel count at record 9, or moved to record 8 or 7 (record 9 then
// without a comma), with the corpus page behind it.
TEST(Cals, ReadsThePelCountFromAnyOfItsRecords) {
    std::vector<std::vector<std::string>> variants;
    variants.push_back(standard_records("001728,002200", "0200"));
    auto moved8 = standard_records("", "0200", "");
    moved8[7] = "rorient: 001728,002200";  // record 8, from character 9
    moved8[8] = "rpelcnt: none";
    variants.push_back(moved8);
    auto moved7 = standard_records("", "0200", "none");
    moved7[6] = "rtype:   1728, 2200";  // record 7, from character 9: spaces skipped
    moved7[8] = "rpelcnt:";
    variants.push_back(moved7);
    for (const auto& records : variants) {
        SCOPED_TRACE(records[6] + " | " + records[7] + " | " + records[8]);
        expect_file_decodes(with_data(cals_header(records), corpus_g4()), 18, 200, corpus_page());
    }
}

// CALS data at an offset of a larger stream: the position is the base of
// every record offset.
TEST(Cals, ReadsAtAnOffset) {
    Bytes file(777, 0x42);
    const Bytes cals =
        with_data(cals_header(standard_records("001728,002200", " 400")), corpus_g4());
    file.insert(file.end(), cals.begin(), cals.end());
    const Scratch path("offset.cal");
    write_file(path, file);
    const int fd = ::open(path.c_str(), O_RDONLY);
    const int32_t h = IMG_decompress_bitmap_fd(fd, 777, 0);
    ::close(fd);
    ASSERT_GE(h, 0);
    EXPECT_EQ(info_of(h).biXPelsPerMeter, 400);
    EXPECT_EQ(take_difference(h, corpus_page()), "");
}

// Format code 18 for a 2544 x 3300 page at 300 dpi: the records of the
// table, the pel count and density values, the page read back exactly by
// libtiff (the payload in a minimal TIFF; the reader's records: the tests above).
TEST(Cals, WriterRecordsAndRoundTrip) {
    const Page page = test_page(2544, 3300);
    const Handle h = page_handle(page, 300, 300);
    ASSERT_GE(h, 0);
    int32_t n = 0;
    const Bytes file = save_mem(h, 18, &n);
    ASSERT_GT(n, 2048);
    EXPECT_EQ(Bytes(file.begin(), file.begin() + 2048), cals_header(standard_records("002544,003300", "0300")));
    if (have_pillow()) {
        EXPECT_EQ(page_difference(libtiff_decode(2544, 3300, 4, 1, 3300, {Bytes(file.begin() + 2048, file.end())}), page),
                  "");
    }
    // No resolution: the density record says 0200.
    const Handle plain = page_handle(test_page(64, 16));
    const Bytes small = save_mem(plain, 18, &n);
    ASSERT_GT(n, 2048);
    EXPECT_EQ(Bytes(small.begin(), small.begin() + 2048), cals_header(standard_records("000064,000016", "0200")));
    // Deep images are refused; a stream without room for the file is a write failure.
    EXPECT_EQ(save_status(8, 18), IMG_ERR_DEPTH);
    const Handle wide = page_handle(test_page(300, 40));
    for (uint32_t room : {100u, 1000u, 2047u, 2052u}) {
        save_mem(wide, 18, &n, room);
        EXPECT_EQ(n, IMG_ERR_WRITE) << room;
    }
}

// The orientation record: 090 is reported as 270, 270 as 90.
TEST(Cals, OrientationRecord) {
    const Scratch path("orient.cal");
    const std::pair<const char*, int32_t> cases[] = {
        {"090,270", 270}, {"270,000", 90}, {"180,000", 180}, {"000,270", 0}, {" 90,000", 270}};
    for (const auto& [value, degrees] : cases) {
        write_file(path, with_data(cals_header(standard_records("001728,002200", "0200", value)),
                                   corpus_g4()));
        EXPECT_EQ(IMGLOW_get_image_orientation(path.c_str()), degrees) << value;
    }
}

// Broken pel counts, cut headers and missing data give negative statuses.
TEST(Cals, DamagedHeadersAndData) {
    auto decode_with = [](const std::string& pel_count) {
        auto records = standard_records(pel_count, "0200", "none");
        records[6] = "rtype: 1";
        return decode_mem(with_data(cals_header(records), corpus_g4()));
    };
    // No comma anywhere; the height's digits running to the end of the 30 bytes read.
    for (const std::string& pel : std::vector<std::string>{"001728 002200", "x1728,2200", ",2200", "1728,", "0,2200",
                                                           "99999999,99999999", "1," + std::string(19, '1')})
        EXPECT_EQ(decode_with(pel), IMG_ERR_BAD_IMAGE) << pel;

    const Bytes good =
        with_data(cals_header(standard_records("001728,002200", "0200")), corpus_g4());
    // Cut in the header or before the page's rows could be coded: -12.
    for (size_t cut : {size_t(12), size_t(1000), size_t(1040), size_t(1100), size_t(1400),
                       size_t(2048), size_t(2048 + 200)}) {
        Bytes part(good.begin(), good.begin() + long(cut));
        // Keep the detection bytes so that the CALS reader is the one asked.
        EXPECT_EQ(decode_mem(part), IMG_ERR_READ) << cut;
    }
    // Cut inside the coded page: the rows that are there, the rest repeated
    // as the Group 4 decoder does for data that ends early.
    EXPECT_GE(Handle(decode_mem(Bytes(good.begin(), good.begin() + 2048 + 3000))), 0);
}

// A CALS file carrying a TIFF at 1431 goes to the TIFF reader, tiles
// included.
TEST(Cals, TiffAt1431GoesToTheTiffReader) {
    auto cals_with_tiff = [](const Bytes& tiff) {
        Bytes file = cals_header(standard_records("000008,000008", "0200"));
        file.resize(1431);
        file.insert(file.end(), tiff.begin(), tiff.end());
        return file;
    };
    const Page page = test_page(300, 200);
    const Handle h = page_handle(page, 300, 300);
    int32_t n = 0;
    const Bytes g4 = save_mem(h, 10, &n);  // TIFF Group 4
    ASSERT_GT(n, 0);
    expect_file_decodes(cals_with_tiff(g4), 18, 300, page);

    const std::string path = temp_path("tiled.cal");
    write_file(path, cals_with_tiff(read_file(corpus("doc/bilevel-tiled.tif"))));
    EXPECT_EQ(IMGLOW_is_tiled_image(path.c_str()), 1);
    EXPECT_EQ(take_difference(IMG_decompress_tiled_bitmap(path.c_str(), 0),
                              load_pbm(corpus("refs/4801f0abbac4f916.pbm"))),
              "");
    fs::remove(path);
    // Not a TIFF after all: the TIFF reader's refusal.
    Bytes bad = cals_with_tiff({'I', 'I', 0x2A, 0, 0xFF, 0xFF, 0xFF, 0x7F});
    bad.resize(4096, 0);
    EXPECT_LT(Handle(decode_mem(bad)), 0);
    // A CALS file without a TIFF is not tiled.
    const Scratch plain("plain.cal");
    write_file(plain, with_data(cals_header(standard_records("001728,002200", "0200")), corpus_g4()));
    EXPECT_EQ(IMG_decompress_tiled_bitmap(plain.c_str(), 0), IMG_ERR_NOT_TILED);
}

}  // namespace
