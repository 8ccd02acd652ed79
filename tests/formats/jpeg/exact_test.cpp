// The library's JPEG decoder and encoder against the plain reference codec
// of jpeg_reference.cpp: rows and bytes must be identical, so the lookahead
// Huffman decoding, the vectorised transforms and the table-driven colour
// conversion change nothing but the speed.
#include <gtest/gtest.h>

#include <dirent.h>

#include "core/settings.h"
#include "formats/jpeg/jpeg_internal.h"
#include "formats/jpeg/jpeg_rows.h"
#include "jpeg_reference.h"
#include "jpeg_test.h"

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

void expect_same(const Bytes& bytes, const jpeg::DecodeOptions& options,
                 const ReferenceOptions& ref_options, const std::string& what) {
    SCOPED_TRACE(what);
    Decoded lib, ref;
    const int32_t a = jpeg_decode_bytes(bytes, &lib, options);
    const int32_t b = reference_decode(bytes, &ref, ref_options);
    ASSERT_EQ(a, b);
    if (a < 0) return;
    EXPECT_EQ(lib.header, ref.header);
    ASSERT_EQ(lib.rows.size(), ref.rows.size());
    size_t first = 0;
    while (first < lib.rows.size() && lib.rows[first] == ref.rows[first]) ++first;
    EXPECT_EQ(first, lib.rows.size()) << "first difference in row " << first;
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

namespace {

// Offset of the first byte after the first scan header.
size_t first_scan_data(const Bytes& f) {
    for (size_t i = 2; i + 3 < f.size(); ++i)
        if (f[i] == 0xFF && f[i + 1] == 0xDA) return i + 2 + size_t((f[i + 2] << 8) | f[i + 3]);
    return f.size();
}

}  // namespace

// Truncated and damaged entropy-coded data: whatever the library makes of it
// (a status, or rows with the missing part grey), the reference makes too.
TEST(JpegExact, DamagedDataGivesTheReferenceResult) {
    const char* names[] = {"jpeg/420.jpg", "jpeg/restart.jpg", "jpeg/progressive.jpg",
                           "jpeg/progressive-restart.jpg", "jpeg/grey.jpg", "jpeg/multiscan.jpg",
                           "jpeg/ycck.jpg", "corpus/jpeg/optimized.jpg"};
    uint32_t seed = 12345;
    auto rnd = [&]() { return seed = seed * 1103515245u + 12345u, (seed >> 8) & 0xFFFFFF; };
    int negative = 0, complete = 0;
    for (const char* name : names) {
        const auto good = read_file(data_path(name));
        const size_t start = first_scan_data(good);
        ASSERT_LT(start, good.size());
        for (int i = 0; i < 24; ++i) {
            Bytes cut(good.begin(), good.begin() + long(start + (good.size() - start) * i / 24));
            expect_same(cut, {}, {}, std::string(name) + " cut " + std::to_string(cut.size()));
            Decoded d;
            (jpeg_decode_bytes(cut, &d) < 0 ? negative : complete)++;
        }
        for (int i = 0; i < 40; ++i) {
            Bytes bad = good;
            const int flips = 1 + int(rnd() % 4);
            for (int f = 0; f < flips; ++f) bad[start + rnd() % (bad.size() - start)] ^= uint8_t(1 << (rnd() % 8));
            expect_same(bad, {}, {}, std::string(name) + " damage " + std::to_string(i));
            Decoded d;
            (jpeg_decode_bytes(bad, &d) < 0 ? negative : complete)++;
        }
    }
    std::printf("damaged streams: %d refused, %d delivered complete\n", negative, complete);
}

// Every chroma value through the vectorised conversion, with and without
// horizontal replication, against the constants' products.
TEST(JpegExact, ColourConversionCoversEveryChromaValue) {
    for (int f : {1, 2}) {
        const int width = 256 * f + 5;  // a tail for the scalar path too
        jpeg::Plane planes[3];
        for (auto& p : planes) ASSERT_TRUE(p.allocate(width + 32, 1, false));
        for (int x = 0; x < width + 32; ++x) {
            planes[0].samples()[x] = int8_t((x * 73 + 11) % 255 - 127);
            planes[1].samples()[x] = int8_t(x);
            planes[2].samples()[x] = int8_t(x * 37 + 5);
        }
        jpeg::RowLayout layout;
        layout.nf = 3;
        layout.width = width;
        layout.hmax = f;
        layout.vmax = 1;
        for (int i = 0; i < 3; ++i) {
            layout.plane[i] = &planes[i];
            layout.h[i] = i == 0 ? f : 1;
            layout.v[i] = 1;
        }
        jpeg::RowConverter conv;
        ASSERT_TRUE(conv.init(layout));
        Bytes out(size_t(width) * 3);
        conv.convert(0, out.data());
        auto L = [](int v) { return v < -128 ? 0 : v > 127 ? 255 : v + 128; };
        for (int x = 0; x < width; ++x) {
            const int y = planes[0].samples()[x], cb = planes[1].samples()[x / f],
                      cr = planes[2].samples()[x / f];
            ASSERT_EQ(out[3 * x], L(y + int(1.772 * cb))) << f << " " << x;
            ASSERT_EQ(out[3 * x + 1], L(y - (int(0.34414 * cb) + int(0.71414 * cr)))) << f << " " << x;
            ASSERT_EQ(out[3 * x + 2], L(y + int(1.402 * cr))) << f << " " << x;
        }
    }
}

// The vectorised transforms against the plain ones: sparse and dense
// blocks, and coefficients at the ends of the 16-bit range where the
// 32-bit arithmetic wraps.
TEST(JpegExact, InverseTransformOnRandomAndExtremeBlocks) {
    uint32_t seed = 7;
    auto rnd = [&]() { return seed = seed * 1664525u + 1013904223u, seed >> 8; };
    for (int trial = 0; trial < 20000; ++trial) {
        int16_t natural[64] = {}, columns[64] = {};
        const int kind = trial % 5;
        const int count = kind == 0 ? 1 : kind == 1 ? 3 : kind == 2 ? 10 : 64;
        // Blocks confined to the top-left 2 x 2, 2 x 4, 4 x 2 or 4 x 4 corner
        // take the shorter paths.
        const int rows_max = 2 << (trial / 5 % 3), cols_max = 2 << (trial / 15 % 3);
        for (int i = 0; i < count; ++i) {
            int at = kind == 4 ? i : int(rnd() % (kind == 1 ? 8 : 64));
            if (kind == 1 || kind == 2) at = int(rnd() % uint32_t(rows_max)) * 8 + int(rnd() % uint32_t(cols_max));
            int v = int(rnd() % 2048) - 1024;
            if (kind == 3) v = int(rnd() % 65536) - 32768;
            if (kind == 4) v = (rnd() & 1) ? 32767 : -32768;
            natural[at] = int16_t(v);
        }
        uint32_t rows = 0, used = 0;
        for (int n = 0; n < 64; ++n) {
            columns[(n % 8) * 8 + n / 8] = natural[n];
            if (natural[n]) rows |= 1u << (n / 8), used |= (1u << (n / 8)) | (0x100u << (n % 8));
        }
        int8_t ref[64], fast[64], exact_mask[64], scalar[64];
        reference_idct(natural, ref);
        jpeg::idct_block()(columns, rows, fast, 8);
        jpeg::idct_block()(columns, used, exact_mask, 8);
        jpeg::idct_block_scalar(columns, used, scalar, 8);
        ASSERT_EQ(0, std::memcmp(ref, fast, 64)) << trial;
        ASSERT_EQ(0, std::memcmp(ref, exact_mask, 64)) << trial;
        ASSERT_EQ(0, std::memcmp(ref, scalar, 64)) << trial;
    }
}

TEST(JpegExact, ForwardTransformOnRandomAndExtremeBlocks) {
    uint32_t seed = 11;
    auto rnd = [&]() { return seed = seed * 1664525u + 1013904223u, seed >> 8; };
    for (int trial = 0; trial < 20000; ++trial) {
        int16_t s[64];
        for (int i = 0; i < 64; ++i) {
            switch (trial % 4) {
                case 0: s[i] = int16_t(int(rnd() % 257) - 128); break;
                case 1: s[i] = (rnd() & 1) ? 128 : -128; break;
                case 2: s[i] = int16_t(((i / 8 + i % 8 + trial / 4) & 1) ? 128 : -128); break;
                default: s[i] = int16_t(trial % 2 ? 128 : -128); break;
            }
        }
        int16_t ref[64], fast[64], scalar[64];
        reference_fdct(s, ref);
        jpeg::fdct_block()(s, 8, fast);
        jpeg::fdct_block_scalar(s, 8, scalar);
        ASSERT_EQ(0, std::memcmp(ref, fast, sizeof ref)) << trial;
        ASSERT_EQ(0, std::memcmp(ref, scalar, sizeof ref)) << trial;
    }
}

// Quantisation by reciprocals against division, for every table entry and
// every 16-bit coefficient; the block form against the plain one.
TEST(JpegExact, QuantisationEqualsDivision) {
    uint8_t table[64];
    for (int q = 1; q <= 255; ++q) {
        std::memset(table, q, sizeof table);
        jpeg::Quantiser quant;
        quant.set(table);
        for (int32_t x = -32768; x <= 32767; ++x) {
            const int32_t m = x < 0 ? -x : x;
            const int32_t d = q == 1 ? m / 4 : (m + 2 * q) / (4 * q);
            if (quant(0, x) != (x < 0 ? -d : d)) FAIL() << "q " << q << " x " << x;
        }
    }
    uint32_t seed = 3;
    auto rnd = [&]() { return seed = seed * 1664525u + 1013904223u, seed >> 8; };
    for (int trial = 0; trial < 5000; ++trial) {
        for (auto& t : table) t = uint8_t(1 + rnd() % 255);
        jpeg::Quantiser quant;
        quant.set(table);
        int16_t coef[64], a[64], b[64];
        for (auto& c : coef) c = int16_t(trial % 2 ? int(rnd() % 65536) - 32768 : int(rnd() % 600) - 300);
        const uint64_t ma = jpeg::quantise_block()(coef, quant, a);
        const uint64_t mb = jpeg::quantise_block_scalar(coef, quant, b);
        ASSERT_EQ(ma, mb);
        ASSERT_EQ(0, std::memcmp(a, b, sizeof a));
    }
}

// The encoder's vectorised colour conversion against its tables, for every
// value of every channel.
TEST(JpegExact, EncoderColourConversionCoversEveryValue) {
    const jpeg::RgbTables& t = jpeg::rgb_tables();
    for (int h : {0, 1, 2}) {
        for (int shift = 0; shift < 256; shift += 15) {
            Bytes bgr(256 * 3);
            for (int x = 0; x < 256; ++x) {
                bgr[3 * x] = uint8_t(x * 11 + shift);
                bgr[3 * x + 1] = uint8_t(x * 7 + 3 * shift);
                bgr[3 * x + 2] = uint8_t(x);
            }
            std::vector<int16_t> y(256, 999), cb(256, 999), cr(256, 999);
            const int done = jpeg::bgr_to_ycc_fast(bgr.data(), 256, h, y.data(), cb.data(), cr.data());
            EXPECT_TRUE(done == 256 || done == 0);  // 0 without SSE4.1
            for (int x = 0; x < done; ++x) {
                const int b = bgr[3 * x], g = bgr[3 * x + 1], r = bgr[3 * x + 2];
                ASSERT_EQ(y[x], t.y_r[r] + t.y_g[g] + t.y_b[b] - 128) << x;
                if (h == 0 || x % h) continue;
                ASSERT_EQ(cb[x / h], t.cb_r[r] + t.cb_g[g] + t.cb_b[b]) << x;
                ASSERT_EQ(cr[x / h], t.cr_r[r] + t.cr_g[g] + t.cr_b[b]) << x;
            }
            if (h == 0) {
                EXPECT_EQ(cb[0], 999);
            }
        }
    }
}
