// The JPEG decoder against libjpeg-turbo's coefficients made into rows by the
// plain reference (jpeg_reference.h), and the transform and quantisation
// kernels against the plain forms, on every instruction set the processor has.
#include <gtest/gtest.h>

#include "formats/jpeg/jpeg_internal.h"
#include "jpeg_reference.h"
#include "jpeg_test.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

std::vector<std::string> jpeg_files() {
    std::vector<std::string> files;
    for (const char* dir : {"corpus/jpeg", "corpus/suites/jpeg", "jpeg"})
        for (const auto& e : fs::directory_iterator(data_path(dir)))
            if (e.path().extension() == ".jpg") files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

// How many rows from the top `d` has equal to `full`'s.
size_t equal_rows(const Decoded& d, const Decoded& full) {
    size_t n = 0;
    while (n < d.rows.size() && n < full.rows.size() && !d.rows[n].empty() && d.rows[n] == full.rows[n]) ++n;
    return n;
}

// djpeg writes four-component files as RGB: each of the stored (inverted)
// C, M, Y values times the stored K over 255.
Bytes four_channels_as_djpeg_rgb(const Decoded& d) {
    Bytes out;
    for (int y = 0; y < d.height(); ++y) {
        const uint8_t* r = d.rows[size_t(y)].data();
        for (int x = 0; x < d.width(); ++x) {
            const double k = 255 - r[4 * x + 3];
            for (int c = 0; c < 3; ++c) out.push_back(uint8_t((255 - r[4 * x + c]) * k / 255.0 + 0.5));
        }
    }
    return out;
}

}  // namespace

// Files libjpeg refuses or that are arithmetic-coded (lossless, 12-bit) the
// library refuses too; for the others, both outputs equal the reference's,
// whose rows are within 40 dB of djpeg's where the test data holds them.
// Patched streams add JFIF dots per centimetre, Adobe flags0 0x0080 with
// transform 2 (YCC, K carried through, alpha marker) and transform 0 (stored
// values inverted), and one component declaring 2 x 2 sampling.
TEST(JpegExact, DecoderFollowsLibjpegCoefficientsOnEveryTestFile) {
    std::vector<std::pair<std::string, Bytes>> inputs;
    for (const auto& f : jpeg_files()) inputs.push_back({f, read_file(f)});
    ASSERT_GE(inputs.size(), 12u);
    const Bytes grey = read_file(data_path("jpeg/grey.jpg"));
    const Bytes alpha = patched(read_file(data_path("jpeg/ycck.jpg")), 0xEE, 11, {0x00, 0x80});
    inputs.push_back({"dots per centimetre", patched(grey, 0xE0, 11, {2, 0, 118, 0, 40})});
    inputs.push_back({"flags0 0x0080", alpha});
    inputs.push_back({"transform 0", patched(alpha, 0xEE, 15, {0})});
    inputs.push_back({"grey 2 x 2", patched(grey, 0xC0, 11, {0x22})});
    int with_djpeg = 0;
    for (const auto& input : inputs) {
        // (Named references: lambdas below cannot capture structured bindings in Clang 14.)
        const std::string& f = input.first;
        const Bytes& bytes = input.second;
        SCOPED_TRACE(f);
        JpegCoefficients peer;
        const int warnings = peer_coefficients(bytes, &peer);
        Decoded probe;
        if (jpeg_decode_bytes(bytes, &probe) == IMG_ERR_UNSUPPORTED) {
            EXPECT_TRUE(warnings < 0 || peer.arithmetic);
            continue;
        }
        ASSERT_EQ(warnings, 0);
        Decoded want[2];
        for (int coefficients : {0, 1}) reference_rows(peer, coefficients, &want[coefficients]);
        const std::string djpeg = f.substr(0, f.size() - 4) + (peer.nf == 1 ? ".pgm" : ".ppm");
        if (f.ends_with(".jpg") && fs::exists(djpeg)) {
            const Raster ref = read_netpbm(djpeg);
            const auto ours = peer.nf == 4 ? four_channels_as_djpeg_rgb(want[0]) : samples(want[0]);
            // testorig.ppm is libjpeg's own decode, with smooth chroma upsampling.
            EXPECT_GE(psnr(ours, ref.px), f.find("testorig") == std::string::npos ? 40.0 : 39.0);
            ++with_djpeg;
        }
        for_each_isa([&](const jpeg::Kernels&) {
            for (int coefficients : {0, 1}) {
                IMGLOW_set_jpeg_decompression(coefficients);  // the setting asks for coefficients
                Decoded lib;
                const int32_t status = jpeg_decode_bytes(bytes, &lib);
                IMGLOW_set_jpeg_decompression(0);
                ASSERT_EQ(status, 0);
                EXPECT_EQ(lib.header, want[coefficients].header);
                EXPECT_EQ(equal_rows(lib, want[coefficients]), want[coefficients].rows.size()) << coefficients;
            }
        });
    }
    EXPECT_GE(with_djpeg, 17);
}

// Truncated and damaged entropy-coded data: a status from the allowed set or
// all rows, and the data before the damage decodes as in the whole stream: a
// longer cut never gives fewer correct rows, and damage never changes a row
// that the stream cut just before the damage gives correctly.
TEST(JpegExact, DamagedDataKeepsWhatCameBefore) {
    const char* names[] = {"jpeg/420.jpg", "jpeg/restart.jpg", "jpeg/progressive.jpg",
                           "jpeg/progressive-restart.jpg", "jpeg/grey.jpg", "jpeg/multiscan.jpg",
                           "jpeg/ycck.jpg", "corpus/jpeg/optimized.jpg"};
    for_each_isa([&](const jpeg::Kernels&) {
        uint32_t seed = 12345;
        auto rnd = [&]() { return seed = seed * 1103515245u + 12345u, (seed >> 8) & 0xFFFFFF; };
        for (const char* name : names) {
            SCOPED_TRACE(name);
            const auto good = read_file(data_path(name));
            Decoded full;
            ASSERT_EQ(jpeg_decode_bytes(good, &full), 0);
            auto decode = [&](const Bytes& bytes, Decoded* d) {
                const int32_t s = jpeg_decode_bytes(bytes, d);
                EXPECT_TRUE(s == IMG_ERR_READ || s == IMG_ERR_BAD_IMAGE || (s == 0 && d->complete())) << s;
                if (s == 0) {
                    EXPECT_EQ(d->header, full.header);
                }
            };
            // Rows the stream cut at `size` gives correctly.
            auto cut = [&](size_t size) {
                Decoded d;
                decode(Bytes(good.begin(), good.begin() + long(size)), &d);
                return equal_rows(d, full);
            };
            // Damage from byte `at`: no delivered row above those changes.
            auto expect_kept = [&](const Bytes& bad, size_t at, const std::string& what) {
                const size_t kept = cut(at);
                Decoded d;
                decode(bad, &d);
                for (size_t r = 0; r < kept; ++r)
                    ASSERT_TRUE(d.rows[r].empty() || d.rows[r] == full.rows[r]) << what << ": row " << r;
            };
            const size_t sos = find_marker(good, 0xDA), start = sos + 2 + load_be16(&good[sos + 2]);
            ASSERT_LT(start, good.size());
            size_t last = 0;
            for (int i = 0; i <= 24; ++i) {
                const size_t rows = cut(start + (good.size() - start) * size_t(i) / 24);
                EXPECT_GE(rows, last) << "cut " << i << "/24";
                last = rows;
            }
            EXPECT_EQ(last, full.rows.size());
            for (int i = 0; i < 40; ++i) {
                Bytes bad = good;
                size_t first = bad.size();
                for (int f = 1 + int(rnd() % 4); f > 0; --f) {
                    const size_t at = start + rnd() % (bad.size() - start);
                    bad[at] ^= uint8_t(1 << (rnd() % 8));
                    first = std::min(first, at);
                }
                expect_kept(bad, first - 1, "damage " + std::to_string(i));
            }
            if (std::string(name) != "jpeg/restart.jpg") continue;
            // A restart marker missing at its place.
            Bytes lost = good;
            size_t rst = start;
            while (!(lost[rst] == 0xFF && lost[rst + 1] >= 0xD0 && lost[rst + 1] <= 0xD7)) ++rst;
            lost.erase(lost.begin() + long(rst), lost.begin() + long(rst + 2));
            expect_kept(lost, rst, "restart marker missing");
        }
    });
}

namespace {

// The largest magnitude sum the kernels take through their 16-bit lanes.
constexpr int32_t kWidest = int32_t(jpeg::kIdctNarrowLimit) - 8;

// The inverse transform of the kernels (one block, and two at once where
// the kernels pair blocks) against the reference on one block.
void expect_idct(const jpeg::Kernels& k, const int16_t* natural, const char* what, int trial) {
    int16_t columns[64];
    for (int n = 0; n < 64; ++n) columns[(n % 8) * 8 + n / 8] = natural[n];
    int8_t ref[64], fast[64], scalar[64], pair[2][64];
    reference_idct(natural, ref);
    k.idct(columns, fast, 8);
    jpeg::idct_block_scalar(columns, scalar, 8);
    ASSERT_EQ(0, std::memcmp(ref, fast, 64)) << what << " " << trial;
    ASSERT_EQ(0, std::memcmp(ref, scalar, 64)) << what << " " << trial;
    if (k.idct_pair) {
        int16_t zero[64] = {};
        k.idct_pair(columns, pair[0], 8, zero, pair[1], 8);
        ASSERT_EQ(0, std::memcmp(ref, pair[0], 64)) << what << " " << trial;
        k.idct_pair(zero, pair[1], 8, columns, pair[0], 8);
        ASSERT_EQ(0, std::memcmp(ref, pair[0], 64)) << what << " " << trial;
    }
}

}  // namespace

// Sparse and dense blocks, blocks at the 16-bit lanes' limit with their
// whole magnitude where a single intermediate value weighs it most, and
// coefficients at the ends of the 16-bit range where the 32-bit arithmetic
// wraps.
TEST(JpegExact, InverseTransformOnRandomAndExtremeBlocks) {
    for_each_isa([](const jpeg::Kernels& k) {
        uint32_t seed = 7;
        auto rnd = [&]() { return seed = seed * 1664525u + 1013904223u, seed >> 8; };
        for (int trial = 0; trial < 6000; ++trial) {
            int16_t natural[64] = {};
            const int kind = trial % 6;
            const int count = kind == 0 ? 1 : kind == 1 ? 3 : kind == 2 ? 10 : 64;
            for (int i = 0; i < count; ++i) {
                const int at = kind == 4 ? i : int(rnd() % 64);
                int v = int(rnd() % 2048) - 1024;
                if (kind == 3) v = int(rnd() % 65536) - 32768;
                if (kind == 4) v = (rnd() & 1) ? 32767 : -32768;
                natural[at] = int16_t(v);
            }
            if (kind == 5) {
                // Dense, scaled to the limit exactly.
                uint32_t sum = 0;
                for (auto& c : natural) sum += uint32_t(std::abs(c = int16_t(int(rnd() % 2001) - 1000)));
                int32_t left = kWidest;
                for (auto& c : natural) {
                    c = int16_t(int64_t(c) * kWidest / int32_t(sum));
                    left -= std::abs(c);
                }
                natural[rnd() % 64] += int16_t(natural[0] < 0 ? -left : left);
            }
            expect_idct(k, natural, "random", trial);
        }
        // The whole limit on one coefficient, or split between two (the
        // kernels' test admits sums up to 8 below the limit).
        const int16_t limit = int16_t(kWidest);
        for (int a = 0; a < 64; ++a)
            for (int sign : {1, -1}) {
                int16_t natural[64] = {};
                natural[a] = int16_t(sign * limit);
                expect_idct(k, natural, "single", a);
                for (int b = a + 1; b < 64; ++b)
                    for (int sb : {1, -1}) {
                        int16_t two[64] = {};
                        two[a] = int16_t(sign * (limit / 2));
                        two[b] = int16_t(sb * (limit - limit / 2));
                        expect_idct(k, two, "pair", a * 64 + b);
                    }
            }
    });
}

// The encoder's fused transform and quantisation kernels (one block, and
// two at once where the kernels pair blocks) against the reference transform
// and the plain quantisation, on random, saturated and checkerboard blocks.
TEST(JpegExact, ForwardTransformOnRandomAndExtremeBlocks) {
    for_each_isa([](const jpeg::Kernels& k) {
        uint32_t seed = 11;
        auto rnd = [&]() { return seed = seed * 1664525u + 1013904223u, seed >> 8; };
        for (int trial = 0; trial < 5000; ++trial) {
            int16_t s[2][64];
            for (int b = 0; b < 2; ++b)
                for (int i = 0; i < 64; ++i) {
                    switch ((trial + b) % 4) {
                        case 0: s[b][i] = int16_t(int(rnd() % 257) - 128); break;
                        case 1: s[b][i] = (rnd() & 1) ? 128 : -128; break;
                        case 2: s[b][i] = int16_t(((i / 8 + i % 8 + trial / 4) & 1) ? 128 : -128); break;
                        default: s[b][i] = int16_t(trial % 2 ? 128 : -128); break;
                    }
                }
            uint8_t table[64];
            for (auto& t : table) t = uint8_t(trial % 3 == 0 ? 1 + rnd() % 4 : 1 + rnd() % 255);
            jpeg::Quantiser quant;
            quant.set(table);
            // Both blocks through the reference; side by side in rows of 16 samples.
            int16_t ref[64], rows[128], want[2][64], got[2][64];
            uint64_t want_mask[2], got_mask[2];
            for (int b = 0; b < 2; ++b) {
                reference_fdct(s[b], ref);
                want_mask[b] = jpeg::quantise_block_scalar(ref, quant, want[b]);
                for (int r = 0; r < 8; ++r) std::memcpy(rows + 16 * r + 8 * b, s[b] + 8 * r, 16);
            }
            got_mask[0] = k.fdct_quantise(s[0], 8, quant, got[0]);
            ASSERT_EQ(want_mask[0], got_mask[0]) << trial;
            ASSERT_EQ(0, std::memcmp(want[0], got[0], sizeof got[0])) << trial;
            if (k.fdct_quantise_pair) {
                got_mask[0] = k.fdct_quantise_pair(rows, rows + 8, 16, quant, got[0], got[1], &got_mask[1]);
                for (int b = 0; b < 2; ++b) {
                    ASSERT_EQ(want_mask[b], got_mask[b]) << trial;
                    ASSERT_EQ(0, std::memcmp(want[b], got[b], sizeof got[b])) << trial;
                }
            }
        }
    });
}

// Quantisation by reciprocals against division, for every table entry and
// every 16-bit coefficient.
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
}
