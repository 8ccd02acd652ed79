// The tesslin tool with files as users meet them: output formats from every
// writable extension (magic bytes and the peers' readings), the operating
// system's reasons, files cut short, and the manual pages.
#include <gtest/gtest.h>

#include <string>

#include "cli.h"
#include "magick.h"

namespace {

using namespace tesslin::test;

std::string head(const std::string& path, size_t n) { return slurp(path).substr(0, n); }

TEST(CliFiles, OutputFormatFollowsEveryWritableExtension) {
    // Extension, leading bytes, the peer that reads it back: Pillow or
    // ImageMagick exactly (Pillow's DCX reader fails on the page its PCX
    // reader reads exactly), Pillow the size only (JPEG), none.
    const struct {
        const char* ext;
        std::string magic;
        char peer;
    } rows[] = {{"pdf", "%PDF", '-'},      {"eps", "\xC5\xD0\xD3\xC6", '-'},
                {"gif", "GIF8", 'P'},      {"pcx", "\x0A", 'P'},
                {"dcx", "\xB1\x68\xDE\x3A", 'M'}, {"tga", std::string("\0\1\1", 3), 'P'},
                {"psd", "8BPS", 'P'},      {"png", "\x89PNG", 'P'},
                {"bmp", "BM", 'P'},        {"tif", "II*", 'P'},
                {"jpg", "\xFF\xD8", 'S'},  {"xpm", "/* XPM", 'M'}};
    const std::string src = corpus("png/palette8.png");
    const Raster want = pillow(src, "RGB");
    for (const auto& row : rows) {
        const Scratch out(std::string("ext.") + row.ext);
        const CliRun r = run_cli("convert '" + src + "' '" + out.path + "'");
        EXPECT_EQ(r.status, 0) << row.ext << ": " << r.text();
        EXPECT_EQ(head(out, row.magic.size()), row.magic) << row.ext;
        EXPECT_NE(r.text().find("wrote " + out.path), std::string::npos) << r.text();
        if (row.peer == '-' || (row.peer == 'M' ? !have_magick() : !have_pillow())) continue;
        const Raster got = row.peer == 'M' ? magick(out, 3) : pillow(out, "RGB");
        if (row.peer == 'S') {
            EXPECT_EQ(std::pair(got.width, got.height), std::pair(want.width, want.height));
        } else {
            EXPECT_EQ(count_differences(got, want, 3), 0u) << row.ext;
        }
    }
}

TEST(CliFiles, MessagesCarryTheSystemsReason) {
    const std::string src = corpus("png/palette8.png");
    const TempDir dir("dir");
    const struct {
        std::string args, reason;
    } rows[] = {
        {"info '" + dir.path + "'", "Is a directory"},
        {"convert '" + dir.path + "' '" + dir.path + "/x.png'", "Is a directory"},
        {"convert '" + src + "' '" + dir.path + "/no/such/dir/x.png'", "No such file or directory"},
    };
    for (const auto& row : rows) {
        const CliRun r = run_cli(row.args);
        EXPECT_EQ(r.status, 1) << row.args;
        EXPECT_NE(r.text().find(row.reason), std::string::npos) << row.args << ": " << r.text();
    }
}

TEST(CliFiles, FileCutShortIsReportedAndFailsAllPages) {
    // The third page's directory lies past the cut: two pages stay readable.
    auto bytes = read_file(corpus("doc/multipage-g4.tif"));
    bytes.resize(16000);
    const Scratch cut("cut.tif"), out("cut-out.tif");
    write_file(cut, bytes);
    CliRun r = run_cli("info '" + cut.path + "'");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.text().find("pages:       2 readable"), std::string::npos) << r.text();
    EXPECT_NE(r.text().find("warning: the file ends early; 2 pages are readable"), std::string::npos);
    r = run_cli("convert '" + cut.path + "' '" + out.path + "' --all-pages");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.text().find("page 3 cannot be read"), std::string::npos) << r.text();
    EXPECT_NE(run_cli("info --json '" + out.path + "'").text().find("\"pages\": 2"), std::string::npos);
    // The whole file is not cut.
    EXPECT_EQ(run_cli("info '" + corpus("doc/multipage-g4.tif") + "'").text().find("early"),
              std::string::npos);
}

TEST(CliFiles, ManualPagesComeFromTheHelpTexts) {
    const TempDir dir("man");
    ASSERT_EQ(run_cli("--write-man '" + dir.path + "'").status, 0);
    const std::string text = slurp(dir.path + "/tesslin.1");
    // Every command `tesslin --help` lists has its usage and its page, holding
    // its help's options.
    const CliRun list = run_cli("--help");
    EXPECT_EQ(list.status, 0);
    EXPECT_NE(list.out.find("usage: tesslin"), std::string::npos);
    for (const char* command : {"info", "convert", "formats", "tags", "version"}) {
        ASSERT_NE(list.out.find(std::string("  ") + command), std::string::npos);
        const CliRun help = run_cli(std::string(command) + " --help");
        EXPECT_EQ(help.status, 0) << command;
        EXPECT_NE(help.out.find("usage: tesslin " + std::string(command)), std::string::npos) << command;
        EXPECT_NE(text.find(std::string(".B ") + command), std::string::npos) << command;
        EXPECT_FALSE(slurp(dir.path + "/tesslin-" + command + ".1").empty()) << command;
    }
    EXPECT_NE(run_cli("convert --help").out.find("--all-pages"), std::string::npos);
    if (have_tool("man")) {
        std::string rendered;
        run("MANWIDTH=200 man -l '" + dir.path + "/tesslin-convert.1' | col -bx", &rendered);
        EXPECT_NE(rendered.find("--all-pages    every page"), std::string::npos) << rendered;
    }
}

}  // namespace
