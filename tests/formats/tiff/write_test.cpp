// TIFF writer: every format code from every depth it takes, read back by
// our reader, by libtiff (tiffinfo -D, tiffcp) and by Pillow; multi-page
// files with and without the page index; the tag and strip settings.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "fax.h"
#include "tiff_test.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// Settings a test changes, put back when it ends.
struct Restore {
    ~Restore() {
        IMGLOW_set_tiff_indexing(0);
        IMGLOW_set_tiff_save_strips(0);
        IMGLOW_set_image_orientation(1);
        IMGLOW_set_tiff_tag(-1, 0, 0, nullptr);
    }
};

// A test image of a depth: patterns that exercise runs and literals.
Handle image(int bits, bool colour_palette = false, bool alpha = true, int32_t w = 123, int32_t h = 37) {
    void* dib = make_dib(w, h, bits, [&](uint8_t* row, uint32_t n, int32_t y) {
        for (uint32_t x = 0; x < n; ++x) row[x] = uint8_t((x / 9 + y / 3) % 3 == 0 ? 0xFF : (x * 7 + y * 13) ^ (x >> 2));
    });
    auto* hd = static_cast<DibHeader*>(dib);
    if (bits == 32 && alpha) hd->biCompression = IMG_COMPRESSION_ALPHA;
    if (colour_palette) {
        RgbQuad* p = dib_palette(dib);
        for (uint32_t i = 0; i < palette_entries(uint32_t(bits)); ++i)
            p[i] = RgbQuad{uint8_t(i * 37), uint8_t(255 - i * 5), uint8_t(i * 91 + 7), 0};
    }
    if (bits == 1) hd->biXPelsPerMeter = hd->biYPelsPerMeter = 300;
    return Handle(IMG_create_handle_keep(dib));
}

int32_t save(int32_t handle, const std::string& path, int32_t code) {
    fs::remove(path);
    return IMG_save_bitmap(handle, path.c_str(), code);
}

// Rows of a handle (0 = top) and its palette.
std::vector<Bytes> rows_of(int32_t handle) {
    std::vector<Bytes> out;
    for (int32_t y = 0; y < info_of(handle).biHeight; ++y) out.push_back(get_row(handle, y));
    return out;
}

// The handle's pixels in the form Pillow gives for the mode.
Raster expected_for_pillow(int32_t handle, const std::string& mode) {
    Raster r = handle_raster(handle), out = r;
    out.channels = mode == "L" ? 1 : mode == "I;16" ? 2 : r.channels;
    out.px.clear();
    for (int32_t y = 0; y < r.height; ++y) {
        const Bytes row = get_row(handle, y);
        for (int32_t x = 0; x < r.width; ++x) {
            const uint8_t* p = r.at(x, y);
            if (mode == "L") out.px.push_back(p[0]);
            else if (mode == "I;16") out.px.insert(out.px.end(), {row[size_t(x) * 2 + 1], row[size_t(x) * 2]});
            else if (mode == "CMYK") out.px.insert(out.px.end(), {p[2], p[1], p[0], p[3]});
            else out.px.insert(out.px.end(), p, p + r.channels);
        }
    }
    return out;
}

// libtiff reads the file without an error and copies it, uncompressed, to
// `copy` (when given) for Pillow to read libtiff's decode.
void expect_libtiff_reads(const std::string& path, const std::string& what,
                          const std::string& copy = "") {
    if (!have_tool("tiffinfo") || !have_tool("tiffcp")) return;
    std::string out;
    EXPECT_TRUE(run("tiffinfo -D '" + path + "'", &out)) << what << "\n" << out;
    EXPECT_EQ(out.find("Error"), std::string::npos) << what << "\n" << out;
    const std::string to = copy.empty() ? temp_path("copy.tif") : copy;
    EXPECT_TRUE(run("tiffcp -c none '" + path + "' '" + to + "'", &out)) << what << "\n" << out;
    if (copy.empty()) fs::remove(to);
}

// Rows with the bits beyond the width cleared (the padding of stored rows
// is not written to files).
std::vector<Bytes> trimmed(std::vector<Bytes> rows, int32_t width, int bits) {
    for (auto& row : rows)
        for (uint64_t b = uint64_t(width) * uint64_t(bits); b < uint64_t(row.size()) * 8; ++b)
            row[b / 8] &= uint8_t(~(0x80 >> (b % 8)));
    return rows;
}

bool same_rows(const Decoded& d, int32_t handle) {
    int32_t w, h, bits;
    IMG_bitmap_info(handle, &w, &h, &bits);
    return d.status == 0 && d.width() == w && d.height() == h &&
           trimmed(d.rows, w, bits) == trimmed(rows_of(handle), w, bits);
}

struct Depth {
    int bits;
    bool colour;  // palette with colours (4, 8 bits); alpha (32 bits)
    const char* pillow_mode;
};

const Depth kDepths[] = {{1, false, "L"},      {4, false, "L"},     {4, true, "RGB"},
                         {8, false, "L"},      {8, true, "RGB"},    {16, false, "I;16"},
                         {24, false, "RGB"},   {32, true, "RGBA"},  {32, false, "CMYK"}};

}  // namespace

// Codes 0, 9 and 16 take every depth, in one strip or several: our reader
// gives back the same pixels (grey 4-bit pages come back with the library's
// 16-level ramp, i * 16, where they were saved with i * 17), libtiff reads
// and copies the file, Pillow sees the same pixels.
TEST(TiffWrite, DataCodesRoundTripEveryDepth) {
    Restore restore;
    const Scratch path("depth.tif");
    for (int32_t code : {0, 9, 16}) {
        for (int strips : {0, 1}) {
            IMGLOW_set_tiff_save_strips(strips);
            for (const Depth& d : kDepths) {
                const std::string what = "code " + std::to_string(code) + " strips " + std::to_string(strips) +
                                         " bits " + std::to_string(d.bits) + (d.colour ? " colour" : "");
                const Handle h = image(d.bits, d.colour && d.bits <= 8, d.colour, 300, strips ? 700 : 37);
                ASSERT_EQ(save(h, path, code), 0) << what;
                EXPECT_EQ(IMGLOW_get_filetype(path.c_str()), code) << what;
                const Decoded back = decode_file(path);
                ASSERT_EQ(back.status, 0) << what;
                EXPECT_TRUE(same_rows(back, h)) << what;
                EXPECT_EQ(back.bits(), d.bits) << what;
                if (d.bits == 32) { EXPECT_EQ(back.h().biCompression, d.colour ? 200u : 0u) << what; }
                if (d.colour && d.bits <= 8) {
                    EXPECT_EQ(std::memcmp(back.palette(), dib_palette(header_of(h).data()), palette_bytes(uint32_t(d.bits))), 0)
                        << what;
                }
                expect_libtiff_reads(path, what);
                if (have_pillow()) {
                    EXPECT_EQ(pillow(path, d.pillow_mode).px, expected_for_pillow(h, d.pillow_mode).px) << what;
                }
            }
        }
    }
}

// The bilevel codes: 7 and 8 (modified Huffman, Group 3) and 66 (JBIG)
// take 1-bit images only; 10, 51 and 67 (Group 4) take 1-bit images as
// they are and deeper ones dithered. Every file reads back as it was
// saved, in our reader, libtiff and Pillow.
TEST(TiffWrite, BilevelCodesRoundTrip) {
    Restore restore;
    const Scratch path("bilevel.tif"), copy("bilevel-copy.tif");
    const Handle page = image(1, false, false, 1728, 300);
    // Held as run records, as decoded fax pages are.
    const Handle runs = image(1, false, false, 1728, 300);
    ASSERT_EQ(IMG_dib_to_runs(runs), 0);
    for (int32_t code : {7, 8, 10, 51, 67, 66}) {
        for (int32_t h : {int32_t(page), int32_t(runs)}) {
            const std::string what = "code " + std::to_string(code) + (h == runs ? " runs" : "");
            ASSERT_EQ(save(h, path, code), 0) << what;
            EXPECT_EQ(IMGLOW_get_filetype(path.c_str()), code == 51 || code == 67 ? 10 : code) << what;
            const Decoded back = decode_file(path);
            ASSERT_EQ(back.status, 0) << what;
            EXPECT_TRUE(same_rows(back, page)) << what;
            // Pillow does not open JBIG files: it reads libtiff's
            // uncompressed copy instead.
            expect_libtiff_reads(path, what, copy);
            if (have_pillow()) {
                EXPECT_EQ(pillow(code == 66 ? copy : path, "L").px, expected_for_pillow(page, "L").px) << what;
            }
        }
    }
    const Handle grey = image(8);
    for (int32_t code : {7, 8, 66}) EXPECT_EQ(save(grey, path, code), IMG_ERR_DEPTH) << code;
    // Deeper images through the Group 4 codes: the dithered page.
    ASSERT_EQ(save(grey, path, 10), 0);
    const Decoded dithered = decode_file(path);
    ASSERT_EQ(dithered.status, 0);
    EXPECT_EQ(dithered.bits(), 1);
    expect_libtiff_reads(path, "dithered");
}

// Code 40: the JPEG encoder's stream as the strip. Our reader decodes it to
// exactly what it makes of the same image saved as a JPEG file; libtiff
// and Pillow read it close to the original.
TEST(TiffWrite, JpegCodeHoldsTheJpegStream) {
    Restore restore;
    const Scratch path("jpeg.tif"), jpg("jpeg.jpg"), copy("jpeg-copy.tif");
    for (const Depth& d : {Depth{8, false, "L"}, Depth{24, false, "RGB"}, Depth{8, true, "RGB"},
                           Depth{1, false, "L"}, Depth{4, false, "L"}, Depth{32, false, "CMYK"}}) {
        const std::string what = "bits " + std::to_string(d.bits) + (d.colour ? " colour" : "");
        const Handle h = image(d.bits, d.colour, false, 160, 96);
        ASSERT_EQ(save(h, path, 40), 0) << what;
        ASSERT_EQ(save(h, jpg, 13), 0) << what;
        EXPECT_EQ(IMGLOW_get_filetype(path.c_str()), 40) << what;
        const Decoded back = decode_file(path);
        ASSERT_EQ(back.status, 0) << what;
        EXPECT_TRUE(back.rows == jpeg_rows(read_file(jpg)).rows) << what;
        if (d.bits != 32 && have_tool("tiffinfo") && have_tool("tiff2rgba")) {
            // libtiff decodes the page (tiffcp cannot copy it: libtiff writes
            // no old-style JPEG and converts no subsampled YCbCr data to
            // another compression); its decode, through tiff2rgba, is close
            // to ours.
            std::string out;
            EXPECT_TRUE(run("tiffinfo -D '" + path.path + "'", &out)) << what << "\n" << out;
            EXPECT_EQ(out.find("Error"), std::string::npos) << what << "\n" << out;
            EXPECT_TRUE(run("tiff2rgba -c none '" + path.path + "' '" + copy.path + "'", &out)) << what << out;
            if (have_pillow()) { EXPECT_GT(psnr(back.raster(), pillow(copy, "RGB")), 30.0) << what; }
        }
    }
    EXPECT_EQ(save(image(16), path, 40), IMG_ERR_DEPTH);
}

namespace {

// The directories of a file as libtiff's tiffdump lists them: the offset
// of each and its entry lines.
struct DumpedDirectory {
    uint32_t offset;
    std::vector<std::string> entries;
};
std::vector<DumpedDirectory> tiffdump(const std::string& path) {
    std::string out;
    EXPECT_TRUE(run("tiffdump '" + path + "'", &out)) << out;
    std::vector<DumpedDirectory> dirs;
    std::istringstream in(out);
    for (std::string l; std::getline(in, l);) {
        if (l.rfind("Directory ", 0) == 0) dirs.push_back({uint32_t(std::stoul(l.substr(l.find("offset ") + 7))), {}});
        else if (!dirs.empty() && !l.empty()) dirs.back().entries.push_back(l);
    }
    return dirs;
}

// The entries of the first directory, which must include `lines`.
std::vector<std::string> expect_tiffdump(const std::string& path, const std::vector<std::string>& lines) {
    const auto dirs = tiffdump(path);
    const std::vector<std::string> entries = dirs.empty() ? std::vector<std::string>{} : dirs[0].entries;
    for (const std::string& l : lines)
        EXPECT_NE(std::find(entries.begin(), entries.end(), l), entries.end()) << l;
    return entries;
}

}  // namespace

// Three pages saved in turn to a new file with the page index for 10:
// bytes 16-19 hold 3, the index the three directory offsets, and each
// directory chains to the next. Every page reads back, also in libtiff, and
// our reader follows the index without the chain. Pages beyond the index's
// room (2) go on along the chain: the page count at 16 keeps counting, and
// every page is found through the last indexed page and the chain.
TEST(TiffWrite, PageIndex) {
    Restore restore;
    IMGLOW_set_tiff_indexing(10);
    const Scratch path("indexed.tif"), overflow("overflow.tif");
    const Handle pages[] = {image(1), image(8), image(24)};
    for (size_t i = 0; i < 3; ++i) ASSERT_EQ(IMG_save_bitmap(pages[i], path.c_str(), i == 0 ? 10 : 9), 0);
    const Bytes f = read_file(path);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&f[8]), 7), "Tesslin");
    EXPECT_EQ(load_le32(&f[4]), 60u);
    EXPECT_EQ(load_le32(&f[16]), 3u);
    for (uint32_t p = 0; p < 3; ++p) { EXPECT_TRUE(same_rows(decode(f, 0x80000000u | p), pages[p])) << p; }
    if (have_tool("tiffdump")) {
        // libtiff follows the chain through the three directories the index lists.
        const auto dirs = tiffdump(path);
        ASSERT_EQ(dirs.size(), 3u);
        for (uint32_t p = 0; p < 3; ++p) {
            EXPECT_EQ(load_le32(&f[20 + 4 * p]), dirs[p].offset) << p;
            EXPECT_EQ(dirs[p].entries.size(), 18u) << p;  // no colour map on these pages
        }
    }
    EXPECT_EQ(load_le32(&f[32]), 0u);  // index entry 3: unused
    // The reader finds page 2 through the index alone: the chain cut after page 0.
    Bytes cut = f;
    store_le32(&cut[60 + 2 + 12 * 18], 0);
    EXPECT_TRUE(same_rows(decode(cut, 0x80000002u), pages[2]));
    EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 3);
    expect_libtiff_reads(path, "indexed");
    if (have_pillow()) { EXPECT_EQ(pillow(path, "RGB", 2).px, expected_for_pillow(pages[2], "RGB").px); }

    IMGLOW_set_tiff_indexing(2);
    for (int i = 0; i < 5; ++i) ASSERT_EQ(IMG_save_bitmap(image(8, false, false, 20 + i, 10), overflow.c_str(), 0), 0);
    const Bytes o = read_file(overflow);
    EXPECT_EQ(load_le32(&o[16]), 5u);
    EXPECT_EQ(load_le32(&o[4]), 28u);  // 20 + 4 x 2: the first directory follows the index
    for (uint32_t p = 0; p < 5; ++p) {
        const Decoded back = decode(o, 0x80000000u | p);
        ASSERT_EQ(back.status, 0) << p;
        EXPECT_EQ(back.width(), int32_t(20 + p));
    }
    EXPECT_EQ(IMGLOW_get_pages(overflow.c_str()), 5);
    EXPECT_EQ(decode(o, 0x80000005u).status, IMG_ERR_NO_PAGE);
    expect_libtiff_reads(overflow, "overflow");
}

// Extra tags: count 3 is a LONG with the value, count 12 twelve ASCII bytes;
// both on every page until cleared. The orientation setting is written, 9 is
// ignored; pages without resolution get 640/9 and 480/7 (200/1 for Group 3),
// pages with one keep it. As libtiff's tiffdump lists them.
TEST(TiffWrite, TagsOrientationAndResolution) {
    if (!have_tool("tiffdump")) GTEST_SKIP() << "no tiffdump";
    Restore restore;
    const Scratch path("tags.tif");
    ASSERT_EQ(IMGLOW_set_tiff_tag(50001, 3, 1234, nullptr), 0);
    ASSERT_EQ(IMGLOW_set_tiff_tag(50002, 12, 0, "twelve bytes"), 0);
    IMGLOW_set_image_orientation(6);
    IMGLOW_set_image_orientation(9);
    ASSERT_EQ(save(image(8), path, 0), 0);
    EXPECT_EQ(expect_tiffdump(path, {"50001 (0xc351) LONG (4) 1<1234>", "50002 (0xc352) ASCII (2) 12<twelve bytes>",
                                     "Orientation (274) SHORT (3) 1<6>", "XResolution (282) RATIONAL (5) 1<71.1111>",
                                     "YResolution (283) RATIONAL (5) 1<68.5714>"})
                  .size(),
              20u);
    expect_libtiff_reads(path, "tags");
    // Cleared: the next page has its 18 tags and T4Options.
    IMGLOW_set_tiff_tag(-1, 0, 0, nullptr);
    ASSERT_EQ(save(image(1, false, false, 64, 8), path, 8), 0);
    EXPECT_EQ(expect_tiffdump(path, {"XResolution (282) RATIONAL (5) 1<300>"}).size(), 19u);
    ASSERT_EQ(save(Handle(make_handle(64, 8, 1)), path, 8), 0);
    expect_tiffdump(path, {"XResolution (282) RATIONAL (5) 1<200>", "YResolution (283) RATIONAL (5) 1<200>"});
}

// A file that starts with "MM" is rewritten from its start as a new
// little-endian TIFF; appending to a file whose directory chain is damaged
// fails with IMG_ERR_BAD_IMAGE and leaves the file in place.
TEST(TiffWrite, BigEndianFileIsReplacedAndABrokenChainRefused) {
    const Scratch path("mm.tif");
    fs::copy_file(data_path("corpus/tone/rgb-bigendian.tif"), path.path);
    const Handle h = image(24, false, false, 40, 20);
    ASSERT_EQ(IMG_save_bitmap(h, path.c_str(), 9), 0);
    const Bytes f = read_file(path);
    EXPECT_EQ(f[0], 'I');
    EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 1);
    EXPECT_TRUE(same_rows(decode(f), h));

    Bytes broken = read_file(data_path("corpus/tone/grey-none.tif"));
    store_le32(&broken[4], uint32_t(broken.size() + 1000));
    write_file(path, broken);
    EXPECT_EQ(IMG_save_bitmap(image(8), path.c_str(), 0), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(read_file(path), broken);
}

// Code 67 on 4000 rows of 1728 pixels (rows of 216 bytes): 3703 rows per
// strip, two strips, each a Group 4 stream of its own, as libtiff (through
// Pillow) decodes them.
TEST(TiffWrite, Group4InStrips) {
    Restore restore;
    const Scratch path("g4strips.tif"), p51("g4strips51.tif");
    const Handle h = image(1, false, false, 1728, 4000);
    ASSERT_EQ(save(h, path, 67), 0);
    const Bytes f = read_file(path);
    EXPECT_TRUE(same_rows(decode(f), h));
    if (have_tool("tiffdump")) {
        expect_tiffdump(path, {"RowsPerStrip (278) LONG (4) 1<3703>", "Compression (259) SHORT (3) 1<4>",
                               "FillOrder (266) SHORT (3) 1<1>"});
    }
    expect_libtiff_reads(path, "code 67");
    if (have_pillow()) { EXPECT_EQ(pillow(path, "L").px, expected_for_pillow(h, "L").px); }
    // Code 51 with the strips setting on writes the same as 67.
    IMGLOW_set_tiff_save_strips(1);
    ASSERT_EQ(save(h, p51, 51), 0);
    EXPECT_EQ(read_file(p51), f);
}

// Pages whose data the caller compressed: a plain page, then a Group 4
// page of our own encoding appended to it.
TEST(TiffWrite, WriteTiffStream) {
    Restore restore;
    const Scratch path("stream.tif");
    const Handle h = image(8, false, false, 30, 10);
    Bytes hdr = header_of(h), data;
    for (const auto& row : rows_of(h)) data.insert(data.end(), row.begin(), row.begin() + 30);
    auto* header = reinterpret_cast<IMG_BITMAPINFOHEADER*>(hdr.data());
    ASSERT_EQ(IMGLOW_write_tiff_stream(header, data.data(), uint32_t(data.size()), 1, path.c_str()), 0);
    // Group 4 data from the encoder: compression 4 with the bytes bit-reversed
    // (fill order 2), 4000 with the bytes in natural order (fill order 1).
    const Handle bw = image(1, false, false, 200, 50);
    Bytes bwh = header_of(bw);
    for (int32_t compression : {4, 4000}) {
        Bytes g4;
        ASSERT_EQ(encode_page(g4, handle_page(bw), false, compression == 4, ccitt::kFrameG4, true), 0);
        ASSERT_EQ(IMGLOW_write_tiff_stream(reinterpret_cast<IMG_BITMAPINFOHEADER*>(bwh.data()), g4.data(),
                                           uint32_t(g4.size()), compression, path.c_str()),
                  0);
    }
    const Bytes f = read_file(path);
    EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 3);
    for (uint32_t p : {0u, 1u, 2u}) { EXPECT_TRUE(same_rows(decode(f, 0x80000000u | p), p ? bw : h)) << p; }
    expect_libtiff_reads(path, "write_tiff_stream");
    EXPECT_EQ(IMGLOW_write_tiff_stream(header, data.data(), 4, 1, "/nonexistent/dir/x.tif"), IMG_ERR_CREATE);
}
