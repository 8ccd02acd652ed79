// The tesslin tool with files as users meet them: output formats from every
// writable extension (magic bytes and the peers' readings), the summary line,
// the operating system's reasons, files cut short, and the manual pages.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <string>

#include "test_util.h"

namespace {

using tesslin::test::corpus;
using tesslin::test::have_tool;
using tesslin::test::read_file;
using tesslin::test::temp_path;

struct Result {
    int status;
    std::string text;  // stdout then stderr
};

Result tool(const std::string& args) {
    const std::string out = temp_path("cli_files.txt");
    const int raw = std::system(("'" TESSLIN_CLI "' " + args + " > '" + out + "' 2>&1").c_str());
    const auto bytes = read_file(out);
    std::remove(out.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, std::string(bytes.begin(), bytes.end())};
}

std::string head(const std::string& path, size_t n) {
    const auto b = read_file(path);
    return std::string(b.begin(), b.begin() + std::min(n, b.size()));
}

// "W x H" as Pillow reads the file.
std::string pillow_size(const std::string& path) {
    std::string size;
    tesslin::test::run("/usr/bin/python3 -c \"import sys; from PIL import Image; "
                       "print('%d x %d' % Image.open(sys.argv[1]).size)\" '" + path + "' 2>/dev/null",
                       &size);
    return size.substr(0, size.find('\n'));
}

std::string magick_size(const std::string& path) {
    std::string size;
    tesslin::test::run("/usr/bin/identify -format '%w x %h' '" + path + "' 2>/dev/null", &size);
    return size;
}

TEST(CliFiles, OutputFormatFollowsEveryWritableExtension) {
    // Extension, leading bytes, the peer that reads it back (Pillow, ImageMagick, none).
    const struct {
        const char* ext;
        std::string magic;
        char peer;
    } rows[] = {{"pdf", "%PDF", '-'},      {"eps", "\xC5\xD0\xD3\xC6", '-'},
                {"gif", "GIF8", 'P'},      {"pcx", "\x0A", 'P'},
                {"dcx", "\xB1\x68\xDE\x3A", 'P'}, {"tga", std::string("\0\1\1", 3), 'P'},
                {"psd", "8BPS", 'P'},      {"png", "\x89PNG", 'P'},
                {"bmp", "BM", 'P'},        {"tif", "II*", 'P'},
                {"jpg", "\xFF\xD8", 'P'},  {"xpm", "/* XPM", 'M'}};
    for (const auto& row : rows) {
        const std::string out = temp_path(std::string("ext.") + row.ext);
        const Result r = tool("convert '" + corpus("png/palette8.png") + "' '" + out + "'");
        EXPECT_EQ(r.status, 0) << row.ext << ": " << r.text;
        EXPECT_EQ(head(out, row.magic.size()), row.magic) << row.ext;
        EXPECT_NE(r.text.find("wrote " + out), std::string::npos) << r.text;
        if (row.peer == 'P' && tesslin::test::have_pillow()) {
            EXPECT_EQ(pillow_size(out), pillow_size(corpus("png/palette8.png"))) << row.ext;
        }
        if (row.peer == 'M' && have_tool("/usr/bin/identify")) {
            EXPECT_EQ(magick_size(out), pillow_size(corpus("png/palette8.png"))) << row.ext;
        }
        std::remove(out.c_str());
    }
}

TEST(CliFiles, SummaryLineAndQuiet) {
    const std::string src = corpus("doc/multipage-g4.tif"), out = temp_path("sum.pdf");
    Result r = tool("convert '" + src + "' '" + out + "' --all-pages");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.text, "wrote " + out + " (pdf, 3 pages)\n");
    std::remove(out.c_str());
    r = tool("convert '" + src + "' '" + out + "' --all-pages --quiet");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.text, "");
    if (have_tool("pdfinfo")) {
        std::string info;
        tesslin::test::run("pdfinfo '" + out + "'", &info);
        EXPECT_NE(info.find("Pages:           3"), std::string::npos) << info;
    }
    std::remove(out.c_str());
}

TEST(CliFiles, MessagesCarryTheSystemsReason) {
    const std::string src = corpus("png/palette8.png"), dir = temp_path("dir");
    mkdir(dir.c_str(), 0755);
    const struct {
        std::string args, reason;
    } rows[] = {
        {"info '" + dir + "/missing.png'", "No such file or directory"},
        {"info '" + dir + "'", "Is a directory"},
        {"convert '" + dir + "' '" + dir + "/x.png'", "Is a directory"},
        {"convert '" + src + "' '" + dir + "/no/such/dir/x.png'", "No such file or directory"},
    };
    for (const auto& row : rows) {
        const Result r = tool(row.args);
        EXPECT_EQ(r.status, 1) << row.args;
        EXPECT_NE(r.text.find(row.reason), std::string::npos) << row.args << ": " << r.text;
    }
    rmdir(dir.c_str());
}

TEST(CliFiles, FileCutShortIsReportedAndFailsAllPages) {
    // The third page's directory lies past the cut: two pages stay readable.
    auto bytes = read_file(corpus("doc/multipage-g4.tif"));
    bytes.resize(16000);
    const std::string cut = temp_path("cut.tif"), out = temp_path("cut-out.tif");
    tesslin::test::write_file(cut, bytes);
    Result r = tool("info '" + cut + "'");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.text.find("pages:       2 readable"), std::string::npos) << r.text;
    EXPECT_NE(r.text.find("warning: the file ends early; 2 pages are readable"), std::string::npos);
    r = tool("convert '" + cut + "' '" + out + "' --all-pages");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.text.find("page 3 cannot be read"), std::string::npos) << r.text;
    EXPECT_NE(tool("info --json '" + out + "'").text.find("\"pages\": 2"), std::string::npos);
    // The whole file is not cut.
    EXPECT_EQ(tool("info '" + corpus("doc/multipage-g4.tif") + "'").text.find("early"),
              std::string::npos);
    std::remove(cut.c_str());
    std::remove(out.c_str());
}

TEST(CliFiles, ManualPagesComeFromTheHelpTexts) {
    const std::string dir = temp_path("man");
    mkdir(dir.c_str(), 0755);
    ASSERT_EQ(tool("--write-man '" + dir + "'").status, 0);
    const auto main_page = read_file(dir + "/tesslin.1");
    const std::string text(main_page.begin(), main_page.end());
    // Every command `tesslin --help` lists has its page, holding its help's options.
    const Result list = tool("--help");
    for (const char* command : {"info", "convert", "formats", "tags", "version"}) {
        ASSERT_NE(list.text.find(std::string("  ") + command), std::string::npos);
        EXPECT_NE(text.find(std::string(".B ") + command), std::string::npos) << command;
        const auto page = read_file(dir + "/tesslin-" + command + ".1");
        EXPECT_FALSE(page.empty()) << command;
        std::remove((dir + "/tesslin-" + command + ".1").c_str());
    }
    const auto convert = tool("convert --help").text;
    EXPECT_NE(convert.find("--all-pages"), std::string::npos);
    if (have_tool("man")) {
        std::string rendered;
        tesslin::test::run("'" TESSLIN_CLI "' --write-man '" + dir + "' && MANWIDTH=200 man -l '" + dir +
                               "/tesslin-convert.1' | col -bx",
                           &rendered);
        EXPECT_NE(rendered.find("--all-pages    every page"), std::string::npos) << rendered;
    }
    std::system(("rm -rf '" + dir + "'").c_str());
}

}  // namespace
