// The tesslin command-line tool, run as users run it, on corpus files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "cli.h"
#include "fax.h"

using namespace tesslin::test;

namespace {

// `tesslin convert` of a corpus file.
CliRun convert(const std::string& file, const std::string& out, const std::string& options = "") {
    return run_cli("convert " + quote(corpus(file)) + " " + quote(out) + options);
}

// Files beside `path` whose names start with its name (leftover temporaries).
int leftovers(const std::string& path) {
    int n = 0;
    for (const auto& e : fs::directory_iterator(fs::path(path).parent_path()))
        n += e.path().string().rfind(path, 0) == 0;
    return n;
}

int json_int(const std::string& json, const std::string& key) {
    std::smatch m;
    return std::regex_search(json, m, std::regex("\"" + key + "\": (-?[0-9]+)")) ? std::stoi(m[1]) : INT32_MIN;
}

}  // namespace

TEST(Cli, InfoJsonReportsWhatTheManifestSays) {
    int checked = 0, sized = 0;
    for (const auto& f : manifest()) {
        if (f.size() < 8 || f[2] != "0" || f[5].empty() || f[5] == "-7" || f[7] == "refuse") continue;
        SCOPED_TRACE(f[0]);
        CliRun r = run_cli("info --json " + quote(corpus(f[0])));
        EXPECT_EQ(json_int(r.out, "format_code"), std::stoi(f[5]));
        IMG_FORMAT_INFO info{};
        IMGLOW_get_format_info(std::stoi(f[5]), &info);
        if (info.multipage & 1 || f[1] == "1") { EXPECT_EQ(json_int(r.out, "pages"), std::stoi(f[1])); }
        if (r.status == 0) {
            EXPECT_EQ(json_int(r.out, "width"), std::stoi(f[3]));
            EXPECT_EQ(json_int(r.out, "height"), std::stoi(f[4]));
            EXPECT_GT(json_int(r.out, "bits"), 0);
            ++sized;
        } else {
            EXPECT_EQ(info.reads, 0) << "a format the library reads failed: " << r.err;
            EXPECT_NE(r.err.find("tesslin: "), std::string::npos);
        }
        ++checked;
    }
    EXPECT_GT(checked, 80);
    EXPECT_GT(sized, 20);
}

TEST(Cli, InfoDescribesSeveralFilesAndReportsEachFailure) {
    CliRun r = run_cli("info " + quote(corpus("bmp/rgb24.bmp")) + " /no/such/file " + quote(corpus("png/grey.png")));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("227 x 149 pixels, 24 bits"), std::string::npos);
    EXPECT_NE(r.out.find("43 png"), std::string::npos);
    EXPECT_EQ(r.err, "tesslin: /no/such/file: cannot open: cannot open file (IMG_ERR_OPEN, -2): No such file or directory\n");
    CliRun dpi = run_cli("info --json " + quote(corpus("jpeg/dpi300.jpg")));
    EXPECT_EQ(json_int(dpi.out, "xdpi"), 300);
    EXPECT_EQ(json_int(dpi.out, "ydpi"), 300);
}

TEST(Cli, ConvertWritesFilesOtherToolsReadExactly) {
    if (!have_pillow()) GTEST_SKIP() << "Pillow is not installed";
    const Scratch out("cli-rgb24.png"), bmp("cli-mono.bmp");
    CliRun r = convert("bmp/rgb24.bmp", out);
    ASSERT_EQ(r.status, 0) << r.err;
    // Pillow's decode of our PNG equals the corpus reference of the BMP.
    EXPECT_EQ(count_differences(pillow(out, "RGB"), read_netpbm(corpus("refs/b8d8b9b4501bf26d.ppm")), 3), 0u);

    // Run-length BMP has no 1-bit form: the page is saved as 8 bits.
    r = convert("png/mono.png", bmp, " --format bmp-rle");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("saving it as 8-bit"), std::string::npos) << r.err;
    EXPECT_EQ(IMGLOW_get_filetype(bmp.c_str()), IMG_FORMAT_BMP_RLE);
    r = convert("png/mono.png", bmp, " --format 1 --overwrite");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(IMGLOW_get_filetype(bmp.c_str()), IMG_FORMAT_BMP);
}

TEST(Cli, ConvertHonoursQualityAndReplacesAnExistingOutput) {
    const Scratch out("cli-q.jpg");
    ASSERT_EQ(convert("png/rgb.png", out, " --quality 20").status, 0);
    const size_t small = slurp(out).size();
    ASSERT_EQ(convert("png/rgb.png", out, " --quality 95 --overwrite").status, 0);
    EXPECT_GT(slurp(out).size(), small * 2) << "quality 95 is larger than 20, not appended";
    EXPECT_EQ(IMGLOW_get_pages(out.c_str()), 1);
    IMGLOW_set_comp_quality(50);
}

TEST(Cli, FailuresNameTheStatusAndLeaveNoOutput) {
    const Scratch out("cli-fail.png"), cut("cli-cut.png");
    CliRun r = convert("jpeg/420.jpg", out, " --page 3");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "tesslin: " + corpus("jpeg/420.jpg") + ": cannot decode page 3: page does not exist (IMG_ERR_NO_PAGE, -11)\n");
    EXPECT_EQ(leftovers(out), 0);

    // Truncated data fails while decoding; nothing is left behind.
    const Bytes png = read_file(corpus("png/rgb.png"));
    write_file(cut, Bytes(png.begin(), png.begin() + long(png.size() / 3)));
    r = run_cli("convert " + quote(cut) + " " + quote(out));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("cannot decode page 1"), std::string::npos) << r.err;
    EXPECT_EQ(leftovers(out), 0);

    // An existing output is left as it was.
    std::ofstream(out.path) << "keep";
    r = convert("jpeg/arithmetic.jpg", out);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(slurp(out), "keep");
    EXPECT_EQ(leftovers(out), 1);
    fs::remove(out.path);

    r = convert("jpeg/420.jpg", out.path + ".nosuchformat");
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("give --format"), std::string::npos);
    EXPECT_NE(convert("jpeg/420.jpg", out, " --format 99").status, 0);
    EXPECT_EQ(leftovers(out), 0);
}

// Headerless fax data through IMG_decompress_fax: the geometry comes from
// the command line, with the height found at the end of the page when it is
// not given.
TEST(Cli, ConvertRawFax) {
    const Scratch out("cli-raw.bmp"), reversed("cli-raw-reversed.g3"), cal("cli-raw.cal");
    CliRun r = run_cli("convert --raw-fax 4 --width 1728 " + quote(corpus("doc/page.g4")) + " " + quote(out));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(take_difference(IMG_decompress_bitmap(out.c_str()), corpus_page()), "");
    fs::remove(out.path);

    write_file(reversed, bit_reversed(read_file(corpus("doc/page.g3"))));
    r = run_cli("convert " + quote(reversed) + " " + quote(cal) + " --raw-fax 3 --width 1728 --height 2200 --fill-order 2");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(IMGLOW_get_filetype(cal.c_str()), 18);
    EXPECT_EQ(take_difference(IMG_decompress_bitmap(cal.c_str()), corpus_page()), "");

    // Data that holds no row fails and leaves nothing behind.
    write_file(reversed, {});
    r = run_cli("convert --raw-fax 4 --width 1728 " + quote(reversed) + " " + quote(out));
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("cannot decode page 1: "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("(IMG_ERR_READ, -12)"), std::string::npos) << r.err;
    EXPECT_EQ(leftovers(out), 0);

    const std::string in = " " + quote(corpus("doc/page.g4")) + " o.bmp";
    for (const char* bad : {"--raw-fax 4", "--width 1728", "--raw-fax 4 --width 0",
                            "--raw-fax 4 --width 1728 --height -1", "--raw-fax 4 --width 1728 --fill-order 3",
                            "--raw-fax x --width 1728", "--raw-fax 4 --width 1728 --page 2",
                            "--raw-fax 4 --width 1728 --all-pages"})
        EXPECT_EQ(run_cli(std::string("convert ") + bad + in).status, 2) << bad;
}

TEST(Cli, AllPagesGoIntoOneTiff) {
    const std::string src = corpus("doc/multipage-g4.tif");
    const Scratch out("cli-pages.tif");
    CliRun r = convert("doc/multipage-g4.tif", out, " --all-pages");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(IMGLOW_get_pages(out.c_str()), 3);
    EXPECT_EQ(IMGLOW_get_filetype(out.c_str()), 10) << "bilevel pages in a .tif become Group 4";
    // libtiff sees the same three directories.
    std::string dirs;
    if (have_tool("tiffinfo")) {
        run("tiffinfo " + quote(out) + " 2>&1 | grep -c 'TIFF Directory'", &dirs);
        EXPECT_EQ(dirs, "3\n");
    }
    // Every page equals the source page.
    for (int32_t page = 0; page < 3; ++page) {
        const Handle a = IMG_decompress_bitmap_page(src.c_str(), page), b = IMG_decompress_bitmap_page(out.c_str(), page);
        EXPECT_EQ(count_differences(handle_raster(a), handle_raster(b), 1), 0u) << page;
    }
    // Converting again is refused without --overwrite (the file stays as it
    // was), and with it replaces the file instead of appending to it.
    const std::string before = slurp(out);
    CliRun again = convert("doc/multipage-g4.tif", out, " --page 2");
    EXPECT_EQ(again.status, 1);
    EXPECT_NE(again.err.find("exists; give --overwrite"), std::string::npos) << again.err;
    EXPECT_TRUE(slurp(out) == before);
    ASSERT_EQ(convert("doc/multipage-g4.tif", out, " --page 2 --overwrite").status, 0);
    EXPECT_EQ(IMGLOW_get_pages(out.c_str()), 1);
    // A single-page format keeps the output name as given for one page.
    const Scratch bmp("cli-all.bmp");
    ASSERT_EQ(convert("png/palette8.png", bmp, " --all-pages").status, 0);
    EXPECT_TRUE(fs::exists(bmp.path));
}

// The README's main job: a multi-page fax TIFF into one PDF, the format
// taken from the name or given as a code; poppler gives every page back. The
// summary line names the format and the pages; --quiet leaves it out.
TEST(Cli, AllPagesGoIntoOnePdf) {
    if (!have_tool("pdfinfo") || !have_tool("pdfimages") || !have_pillow())
        GTEST_SKIP() << "poppler-utils or Pillow missing";
    const std::string src = corpus("doc/multipage-g4.tif");
    for (const std::string& how : {std::string(".pdf"), std::string(".out --format 59 --quiet")}) {
        const Scratch out("cli-pages" + how.substr(0, 4));
        CliRun r = convert("doc/multipage-g4.tif", out, how.substr(4) + " --all-pages");
        ASSERT_EQ(r.status, 0) << how << r.err;
        EXPECT_EQ(r.text(), how.size() > 4 ? "" : "wrote " + out.path + " (pdf, 3 pages)\n");
        std::string info;
        ASSERT_TRUE(run("pdfinfo " + quote(out), &info));
        EXPECT_NE(info.find("Pages:           3"), std::string::npos) << info;
        const std::string prefix = temp_path("cli-pdfpage");
        ASSERT_TRUE(run("pdfimages " + quote(out) + " " + quote(prefix)));
        std::string same;
        run("/usr/bin/python3 -c \"import sys; from PIL import Image; t = Image.open(sys.argv[1]); "
            "print(sum(t.seek(i) or t.convert('1').tobytes() == Image.open(sys.argv[2] + '-%03d.pbm' % i)"
            ".convert('1').tobytes() for i in range(3)))\" " + quote(src) + " " + quote(prefix),
            &same);
        EXPECT_EQ(same, "3\n") << how;
        for (int i = 0; i < 3; ++i) fs::remove(prefix + "-00" + std::to_string(i) + ".pbm");
    }
}

// (Every command's help is the manual pages' test.)
TEST(Cli, VersionAndFormats) {
    CliRun v = run_cli("--version");
    EXPECT_EQ(v.status, 0);
    EXPECT_NE(v.out.find("(interface 13.0)"), std::string::npos);
    CliRun f = run_cli("formats");
    EXPECT_EQ(f.status, 0);
    EXPECT_TRUE(std::regex_search(f.out, std::regex("\\n +43  png +yes +yes")));
    EXPECT_TRUE(std::regex_search(f.out, std::regex("\\n +59  pdf +plug-in")));
    EXPECT_EQ(f.out.find("\n  45 "), std::string::npos) << "code 45 names no format";
    for (const char* usage : {"", "frobnicate", "info", "convert a", "convert a b --page 0",
                              "convert a b --page 2 --all-pages", "tags", "tags a b"})
        EXPECT_EQ(run_cli(usage).status, 2) << usage;
}

// One directory entry as a listing shows it.
struct TagLine {
    int tag = 0;
    std::string type;
    long count = 0;
    std::string values;
};

// The entries of directory `dir` (0-based; "Directory " lines count, -1:
// no such lines) in a listing whose entry lines match `entry` (tag, type,
// count, values).
std::vector<TagLine> tag_lines(const std::string& text, const std::regex& entry, int dir) {
    std::vector<TagLine> lines;
    std::istringstream in(text);
    int at = -1;
    for (std::string l; std::getline(in, l);) {
        if (l.rfind("Directory ", 0) == 0) ++at;
        std::smatch m;
        if ((dir < 0 || at == dir) && std::regex_match(l, m, entry))
            lines.push_back({std::stoi(m[1]), m[2], std::stol(m[3]), m[4]});
    }
    return lines;
}

std::vector<double> numbers(const std::string& text) {
    std::vector<double> v;
    static const std::regex number(R"(-?[0-9]+(\.[0-9]+)?(e[-+][0-9]+)?)");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), number);
         it != std::sregex_iterator(); ++it)
        v.push_back(std::stod(it->str()));
    return v;
}

TEST(Cli, TagsListWhatLibtiffSees) {
    if (!have_tool("tiffdump"))
        GTEST_SKIP() << "libtiff's tiffdump is not installed";
    const struct {
        const char* file;
        int page;
    } cases[] = {
        {"doc/multipage-g4.tif", 2},          {"doc/multipage-g4-bigendian.tif", 3},
        {"tone/palette8.tif", 1},              {"tone/rgb-jpeg.tif", 1},
        {"suites/libtiff/rgb-3c-8b.tiff", 1},  {"suites/libtiff/quad-tile.jpg.tiff", 1},
        {"suites/libtiff/rgb-3c-16b.tiff", 1}, {"doc/g3-2d.tif", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const std::string file = corpus(c.file);
        std::string dump;
        run("tiffdump " + quote(file) + " 2>/dev/null", &dump);
        // "ImageWidth (256) SHORT (3) 1<1700>" in tiffdump's listing.
        const std::vector<TagLine> want =
            tag_lines(dump, std::regex(R"(^\S+ \((\d+)\) (\S+) \(\d+\) (\d+)<(.*)>$)"), c.page - 1);
        ASSERT_FALSE(want.empty());
        CliRun r = run_cli("tags " + quote(file) + " --page " + std::to_string(c.page));
        ASSERT_EQ(r.status, 0) << r.err;
        const std::vector<TagLine> got =
            tag_lines(r.out, std::regex(R"(^ +(\d+) +(?:\S+ +)?([A-Z]+) +(\d+)  (.*)$)"), -1);
        ASSERT_EQ(got.size(), want.size()) << r.out;
        for (size_t i = 0; i < want.size(); ++i) {
            SCOPED_TRACE(want[i].tag);
            EXPECT_EQ(got[i].tag, want[i].tag);
            EXPECT_EQ(got[i].type, want[i].type);
            EXPECT_EQ(got[i].count, want[i].count);
            if (want[i].type == "ASCII") {
                // tiffdump shows the text's start; the listing shows it whole.
                std::string start = want[i].values.substr(0, want[i].values.find(" ..."));
                start = start.substr(0, start.find("\\0"));
                EXPECT_EQ(got[i].values.rfind("\"" + start, 0), 0u) << got[i].values;
            } else if (want[i].type == "SHORT" || want[i].type == "LONG" ||
                       want[i].type == "RATIONAL") {
                const std::vector<double> a = numbers(got[i].values), b = numbers(want[i].values);
                const size_t shown = std::min<size_t>(want[i].type == "RATIONAL" ? 2 : 4, b.size());
                ASSERT_GE(a.size(), shown) << got[i].values;
                for (size_t k = 0; k < shown; ++k)
                    EXPECT_NEAR(a[k], b[k], 1e-4 * std::max(1.0, std::abs(b[k])));
            }
        }
    }
    CliRun png = run_cli("tags " + quote(corpus("png/grey.png")));
    EXPECT_EQ(png.status, 1);
    EXPECT_NE(png.err.find("(IMG_ERR_UNSUPPORTED, -7)"), std::string::npos) << png.err;
    CliRun beyond = run_cli("tags " + quote(corpus("doc/multipage-g4.tif")) + " --page 4");
    EXPECT_EQ(beyond.status, 1);
    EXPECT_NE(beyond.err.find("cannot list the tags of page 4: page does not exist "
                              "(IMG_ERR_NO_PAGE, -11)"),
              std::string::npos)
        << beyond.err;
}
