// Conformance suite: walks the corpus manifest, identifies and decodes every
// listed page through the public interface, expands the bitmap to the form of
// the reference raster and compares as the row's rule says.
//
//   tesslin_conformance [--corpus DIR] [--expected FILE] [--doc FILE]
//                       [--check-doc FILE] [--only SUBSTRING]
//
// One line per row: PASS, FAIL (first differing pixel, or the PSNR), XFAIL
// (listed in the expected-failures file, with its reason) or XPASS (listed but
// passing: remove it from the list). Then "N passed, N failed". The exit
// status is non-zero when any row fails or passes while listed. --doc writes
// the per-format table to a Markdown file; --check-doc fails when that file
// does not hold the current table.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tesslin/tesslin.h"
#include "test_util.h"

namespace test = tesslin::test;

namespace {

struct Row {
    std::string file;
    int pages = 0;
    int page = 0;
    std::string format_code;  // empty: no signature (raw data)
    std::string reference;
    std::string compare;
    std::string note;
};

std::vector<Row> read_manifest(const std::string& path) {
    std::vector<Row> rows;
    for (auto f : test::read_tsv(path)) {
        if (f.empty()) continue;
        f.resize(9);
        rows.push_back({f[0], std::atoi(f[1].c_str()), std::atoi(f[2].c_str()), f[5], f[6], f[7], f[8]});
    }
    return rows;
}

// file<TAB>page<TAB>reason; '#' starts a comment line.
std::map<std::string, std::string> read_expected(const std::string& path) {
    std::map<std::string, std::string> out;
    for (const auto& f : test::read_tsv(path))
        if (f.size() >= 3 && f[0][0] != '#') out[f[0] + "#" + f[1]] = f[2];
    return out;
}

// ---- Reference rasters ----------------------------------------------------

enum class Form { Bilevel, Grey, Rgb, Rgba, Cmyk };

// A reference raster (bilevel: 0 black, 255 white) and the form its netpbm
// kind names: P4 bilevel, P5 grey, P6 RGB, P7 by its tuple type or depth.
struct Reference {
    Form form = Form::Rgb;
    test::Raster r;
};

bool read_reference(const std::string& path, Reference& ref) {
    ref.r = test::read_netpbm(path);
    const test::Bytes b = test::read_file(path);
    const std::string head(b.begin(), b.begin() + long(std::min<size_t>(b.size(), 200)));
    const char kind = head.size() > 1 ? head[1] : 0;
    ref.form = kind == '4'                                    ? Form::Bilevel
               : kind == '5'                                  ? Form::Grey
               : kind == '7' && head.find("TUPLTYPE CMYK") != std::string::npos      ? Form::Cmyk
               : kind == '7' && head.find("TUPLTYPE RGB_ALPHA") != std::string::npos ? Form::Rgba
               : ref.r.channels == 1                          ? Form::Grey
                                                              : Form::Rgb;
    return !ref.r.px.empty();
}

// ---- Our bitmap in the reference's form -----------------------------------

struct Result {
    bool pass = false;
    std::string detail;
};

std::string describe(const uint8_t* v, int n) {
    std::string s = "(";
    for (int i = 0; i < n; ++i) s += (i ? "," : "") + std::to_string(v[i]);
    return s + ")";
}

// Our pixel o (red, green, blue, fourth byte; 16-bit samples as grey) in the
// reference's form.
void to_form(const uint8_t* o, Form form, int bits, bool alpha, uint8_t* got) {
    switch (form) {
        case Form::Bilevel: got[0] = (int(o[0]) + o[1] + o[2]) < 384 ? 0 : 255; break;
        case Form::Grey:
            got[0] = (o[0] == o[1] && o[1] == o[2]) ? o[1]
                                                    : uint8_t((299 * o[0] + 587 * o[1] + 114 * o[2] + 500) / 1000);
            break;
        case Form::Rgb:
        case Form::Rgba:
            for (int i = 0; i < 3; ++i)  // CMYK (cyan in the first byte) shown as RGB
                got[i] = bits == 32 && !alpha && form == Form::Rgb ? uint8_t((255 - o[2 - i]) * (255 - o[3]) / 255)
                                                                   : o[i];
            got[3] = alpha ? o[3] : 255;
            break;
        case Form::Cmyk:
            for (int i = 0; i < 3; ++i) got[i] = bits == 32 && !alpha ? o[2 - i] : uint8_t(255 - o[i]);
            got[3] = bits == 32 && !alpha ? o[3] : 0;
            break;
    }
}

Result compare(int handle, const Reference& reference, const std::string& rule) {
    const test::Raster& ref = reference.r;
    int32_t w = 0, h = 0, bits = 0;
    if (IMG_bitmap_info(handle, &w, &h, &bits) < 0) return {false, "no bitmap"};
    if (w != ref.width || h != ref.height)
        return {false, "size " + std::to_string(w) + "x" + std::to_string(h) + ", want " +
                           std::to_string(ref.width) + "x" + std::to_string(ref.height)};
    const test::Bytes header = test::header_of(handle);
    const bool alpha = bits == 32 && test::info_of(handle).biCompression == IMG_COMPRESSION_ALPHA;
    std::vector<test::Bytes> rows;
    for (int y = 0; y < h; ++y) rows.push_back(test::get_row(handle, y));
    const test::Raster ours = test::dib_raster(header.data(), rows, true);
    const int n = ref.channels;
    test::Bytes got_all, want_all;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t got[4];
            to_form(ours.at(x, y), reference.form, bits, alpha, got);
            const uint8_t* want = ref.at(x, y);
            if (rule == "exact" && std::memcmp(got, want, size_t(n)) != 0)
                return {false, "first difference at (" + std::to_string(x) + "," + std::to_string(y) +
                                   "): got " + describe(got, n) + ", want " + describe(want, n)};
            got_all.insert(got_all.end(), got, got + n);
            want_all.insert(want_all.end(), want, want + n);
        }
    if (rule == "exact") return {true, ""};
    const double psnr = test::psnr(got_all, want_all), need = std::atof(rule.c_str() + 5);
    char buf[64];
    std::snprintf(buf, sizeof buf, "PSNR %.2f dB (need %.0f)", psnr, need);
    return {psnr >= need, buf};
}

// ---- Running a row ---------------------------------------------------------

// The number after `key` in a manifest note ("... width 1728 height 2200"),
// or 0.
int32_t note_value(const std::string& note, const std::string& key) {
    const size_t at = note.find(key + " ");
    return at == std::string::npos ? 0 : std::atoi(note.c_str() + at + key.size() + 1);
}

// Raw fax data carries no header: IMG_decompress_fax with the width and
// height of the row's note and the coding of the file's extension (.g3 one-
// dimensional Group 3, mode 3; .g32d two-dimensional Group 3, mode 2; .g4
// Group 4, mode 4), most significant bit first.
int32_t decode_raw(const std::string& path, const Row& row) {
    const std::string ext = path.substr(path.find_last_of('.') + 1);
    const int32_t mode = ext == "g3" ? 3 : ext == "g32d" ? 2 : ext == "g4" ? 4 : -1;
    if (mode < 0) return IMG_ERR_UNSUPPORTED;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return IMG_ERR_OPEN;
    const int32_t h = IMG_decompress_fax(fd, note_value(row.note, "width"),
                                         note_value(row.note, "height"), mode, 1);
    close(fd);
    return h;
}

Result run_row(const std::string& corpus, const Row& row) {
    const std::string path = corpus + "/" + row.file;
    if (!row.format_code.empty()) {
        int32_t code = IMGLOW_get_filetype(path.c_str());
        if (code != std::atoi(row.format_code.c_str()))
            return {false, "identified as " + std::to_string(code) + ", want " + row.format_code};
        int32_t pages = IMGLOW_get_pages(path.c_str());
        if (pages != row.pages)
            return {false, std::to_string(pages) + " pages, want " + std::to_string(row.pages)};
    }
    if (row.compare == "refuse") {
        const test::Handle h = IMG_decompress_bitmap_page(path.c_str(), row.page);
        if (h >= 0) return {false, "decoded, want a negative status"};
        return {true, std::string("refused with ") + IMG_status_name(h)};
    }
    // Raw fax data through IMG_decompress_fax; tiled pages tile by tile.
    const bool tiled = row.note.rfind("tiled", 0) == 0;
    const test::Handle h = row.format_code.empty() ? decode_raw(path, row)
                           : tiled                 ? IMG_decompress_tiled_bitmap(path.c_str(), row.page)
                                                   : IMG_decompress_bitmap_page(path.c_str(), row.page);
    if (h < 0)
        return {false, std::string("decode failed: ") + IMG_status_name(h) + " (" +
                           std::to_string(h) + ")"};
    Reference ref;
    if (!read_reference(corpus + "/" + row.reference, ref))
        return {false, "cannot read reference " + row.reference};
    return compare(h, ref, row.compare);
}

// Format name for the table: the corpus directory and, for suites, the suite.
std::string family(const Row& row) {
    const size_t slash = row.file.find('/');
    if (row.file.rfind("suites/", 0) == 0) return row.file.substr(0, row.file.find('/', slash + 1));
    return row.file.substr(0, slash);
}

std::string make_doc(const std::map<std::string, std::vector<int>>& table) {
    std::ostringstream out;
    out << "# Conformance\n\n"
           "Written by the conformance suite (`tesslin_conformance --doc docs/conformance.md`),\n"
           "which decodes every page listed in the corpus manifest "
           "(`tests/data/corpus/MANIFEST.tsv`)\n"
           "through the public interface and compares it with its reference raster.\n"
           "Rows that cannot pass yet are listed with their reasons in\n"
           "`tests/conformance/expected_failures.tsv`.\n\n"
           "| Corpus folder | Rows | Passing | Expected failures |\n"
           "|---|---|---|---|\n";
    int rows = 0, pass = 0, xfail = 0;
    for (const auto& [name, v] : table) {
        out << "| " << name << " | " << v[0] << " | " << v[1] << " | " << v[2] << " |\n";
        rows += v[0];
        pass += v[1];
        xfail += v[2];
    }
    out << "| **all** | " << rows << " | " << pass << " | " << xfail << " |\n";
    return out.str();
}

}  // namespace

int main(int argc, char** argv) {
    std::string corpus = TESSLIN_CORPUS, expected_path = TESSLIN_EXPECTED, doc, check_doc, only;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "--corpus") corpus = argv[i + 1];
        else if (a == "--expected") expected_path = argv[i + 1];
        else if (a == "--doc") doc = argv[i + 1];
        else if (a == "--check-doc") check_doc = argv[i + 1];
        else if (a == "--only") only = argv[i + 1];
    }
    auto rows = read_manifest(corpus + "/MANIFEST.tsv");
    if (rows.empty()) {
        std::fprintf(stderr, "no rows in %s/MANIFEST.tsv\n", corpus.c_str());
        return 2;
    }
    auto expected = read_expected(expected_path);
    int passed = 0, failed = 0, xfailed = 0, xpassed = 0;
    std::map<std::string, std::vector<int>> table;
    for (const Row& row : rows) {
        if (!only.empty() && row.file.find(only) == std::string::npos) continue;
        const std::string key = row.file + "#" + std::to_string(row.page);
        Result r = run_row(corpus, row);
        auto listed = expected.find(key);
        auto& t = table[family(row)];
        t.resize(3);
        t[0]++;
        const std::string name = row.file + "[" + std::to_string(row.page) + "]";
        if (listed != expected.end()) {
            if (r.pass) {
                std::printf("XPASS %s: passes but is listed as expected to fail\n", name.c_str());
                ++xpassed;
                ++failed;
            } else {
                std::printf("XFAIL %s: %s (%s)\n", name.c_str(), listed->second.c_str(),
                            r.detail.c_str());
                ++xfailed;
                t[2]++;
            }
        } else if (r.pass) {
            std::printf("PASS  %s%s%s\n", name.c_str(), r.detail.empty() ? "" : ": ",
                        r.detail.c_str());
            ++passed;
            t[1]++;
        } else {
            std::printf("FAIL  %s: %s\n", name.c_str(), r.detail.c_str());
            ++failed;
        }
    }
    std::printf("%d passed, %d failed (%d expected failures, %d unexpected passes)\n", passed,
                failed, xfailed, xpassed);
    const std::string text = make_doc(table);
    int status = failed ? 1 : 0;
    if (!doc.empty()) std::ofstream(doc) << text;
    if (!check_doc.empty() && only.empty()) {
        const test::Bytes have = test::read_file(check_doc);
        if (std::string(have.begin(), have.end()) != text) {
            std::printf("%s is out of date: run tesslin_conformance --doc %s\n", check_doc.c_str(),
                        check_doc.c_str());
            status = 1;
        }
    }
    return status;
}
