// Scanning operations against two manager modules: the SANE-driven module
// with SANE's own test backend (checked against scanimage), and the scripted
// module of this folder for what that backend cannot do (cancels, jams,
// refused capabilities, failing transfer ends).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "scan/twain.h"
#include "test_util.h"

using namespace tesslin::test;

namespace {

// Sets environment variables for one test and restores them after.
class Env {
public:
    void set(const char* name, const std::string& value) {
        const char* old = std::getenv(name);
        saved_.push_back({name, old ? old : "", old != nullptr});
        setenv(name, value.c_str(), 1);
    }
    ~Env() {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
            if (it->had) setenv(it->name.c_str(), it->value.c_str(), 1);
            else unsetenv(it->name.c_str());
        }
        IMG_scan_feeder_close();
        IMG_SCAN_SETTINGS defaults = {1, 0, 0, 8.5, 11, 300, 300};
        IMG_scan_set_caps(&defaults);
    }

private:
    struct Saved {
        std::string name, value;
        bool had;
    };
    std::vector<Saved> saved_;
};

// ---- The scripted module -----------------------------------------------------

// What the scripted source draws: see scripted_dsm.cpp.
Raster scripted_page(int n, int width, int height, int bits) {
    Raster r{width, height, bits == 24 ? 3 : 1, {}};
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const uint8_t grey = uint8_t((x * 3 + y + n) & 255);
            if (bits == 1)
                r.px.push_back(((x / 8 + y / 8 + n) & 1) ? 0 : 255);
            else if (bits == 8)
                r.px.push_back(grey);
            else  // red, green, blue
                r.px.insert(r.px.end(), {uint8_t(y & 255), uint8_t(x & 255), grey});
        }
    return r;
}

// Samples of a scanned page (the handle is deleted) that differ from page n
// of the scripted source; size_t(-1) when there is no page.
size_t scripted_diff(int32_t handle, int n, int width, int height, int bits) {
    return count_differences(handle_raster(Handle(handle)), scripted_page(n, width, height, bits), bits == 24 ? 3 : 1);
}

class Scripted : public ::testing::Test {
protected:
    void SetUp() override {
        env_.set("TESSLIN_TWAIN_DSM", TESSLIN_TEST_SCRIPTED_DSM);
        env_.set("TESSLIN_SCRIPTED_LOG", log_);
    }
    void script(const std::string& s) { env_.set("TESSLIN_SCRIPTED_DSM", s); }
    std::vector<std::string> log() {
        std::ifstream in(log_.path);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
    // Index of the first log line starting with `text`, or -1.
    int find(const std::string& text) {
        const auto lines = log();
        for (size_t i = 0; i < lines.size(); ++i)
            if (lines[i].rfind(text, 0) == 0) return int(i);
        return -1;
    }
    Env env_;
    const Scratch log_{"scripted.log"};
};

TEST_F(Scripted, SettingsRecordIsImposedAndTheFeederSwitchedOff) {
    script("pages=1;bits=8;width=40;height=30;res=150");
    IMG_SCAN_SETTINGS s = {8, 0, 0, 8.5, 11, 150, 200};
    ASSERT_EQ(IMG_scan_set_caps(&s), 0);
    ASSERT_EQ(IMG_scan_set_cap(0, CAP_FEEDERENABLED, 1), 0);  // left on by an earlier call
    EXPECT_EQ(scripted_diff(IMG_scan_acquire(0, 0), 0, 40, 30, 8), 0u);
    for (const char* line : {"SET 0101 1 type 4", "SET 112b 8 type 4", "SET 0102 0 type 4",
                             "SET 1118 150 type 4", "SET 1119 200 type 4",
                             "LAYOUT 0 0 0 0 8 32768 11 0"})
        EXPECT_GE(find(line), 0) << line;
    EXPECT_GE(find("SET 1002 0"), 0);
    EXPECT_LT(find("SET 1002 0"), find("ENABLEDS show 0"));
    EXPECT_GE(find("CLOSEDSM"), 0);  // the connection is closed after one page
}

TEST_F(Scripted, FeederPagesOneCallEach) {
    script("pages=3;bits=24;width=20;height=10");
    for (int n = 0; n < 3; ++n) EXPECT_EQ(scripted_diff(IMG_scan_acquire_feeder(0, 0), n, 20, 10, 24), 0u) << n;
    const auto lines = log();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "OPENDS"), 1);  // opened once ...
    EXPECT_EQ(lines.back(), "CLOSEDSM");  // ... and closed after the last page
}

// The Group 4 memory transfer gives the pixels of the native one, in pieces
// of 100,000 bytes when the source names no preferred size (the page needs
// more than that).
TEST_F(Scripted, Group4MemoryTransferMatchesNative) {
    script("pages=2;g4=1;width=1000;height=1000;preferred=0");
    for (int n = 0; n < 2; ++n)
        EXPECT_EQ(scripted_diff(IMG_scan_acquire_feeder_fast(0, 0, 1), n, 1000, 1000, 1), 0u) << n;
    EXPECT_GE(find("MEMORY 0 length 100000 flags 9"), 0);
    EXPECT_GE(find("SET 0100 5"), 0);
    EXPECT_GE(find("SET 1013 1 type 6"), 0);  // duplex as a boolean
    EXPECT_LT(find("NATIVE"), 0);
}

TEST_F(Scripted, PagesIntoOneTiffOrNumberedFiles) {
    script("pages=3;width=64;height=48");
    const Scratch tif("pages.tif");
    write_file(tif, Bytes(100, 'x'));  // an old file is replaced, not appended to
    ASSERT_EQ(IMG_scan_pages(0, tif.c_str(), IMG_FORMAT_TIFF_G4, 0), 0);
    ASSERT_EQ(IMGLOW_get_pages(tif.c_str()), 3);
    for (int n = 0; n < 3; ++n)
        EXPECT_EQ(scripted_diff(IMG_decompress_bitmap_page(tif.c_str(), n), n, 64, 48, 1), 0u) << n;

    const std::string prefix = temp_path("pg");
    ASSERT_EQ(IMG_scan_pages(0, prefix.c_str(), IMG_FORMAT_BMP, 0), 0);
    for (int n = 0; n < 3; ++n) {
        char name[32];
        std::snprintf(name, sizeof name, "%08d.img", n);
        EXPECT_EQ(scripted_diff(IMG_decompress_bitmap((prefix + name).c_str()), n, 64, 48, 1), 0u) << name;
        fs::remove(prefix + name);
    }
}

// What a batch gives when the source misbehaves part-way: the status, and
// how many pages reached the file.
TEST_F(Scripted, BatchFailures) {
    struct Case {
        const char* script;
        int32_t status;
        int32_t pages;  // in the file afterwards; -1: no file
    } cases[] = {
        {"pages=5;cancel_at=2", IMG_ERR_STOP, 2},
        {"pages=5;cancel_at=1;g4=1", IMG_ERR_STOP, 1},
        {"pages=5;jam_at=3", IMG_ERR_SCAN_REFUSED, 3},
        {"pages=4;endxfer_fail=1", 0, 1},  // a failed end counts as the last page
        {"pages=3;loaded=0", IMG_ERR_SCAN_REFUSED, -1},
        {"pages=3;feeder_fail=1", IMG_ERR_SCAN_REFUSED, -1},
        {"pages=3;open_fail=1", IMG_ERR_SCAN_REFUSED, -1},
        {"pages=0", IMG_ERR_STOP, -1},
    };
    const Scratch tif("batch.tif");
    for (const Case& c : cases) {
        script(c.script);
        fs::remove(tif.path);
        EXPECT_EQ(IMG_scan_pages_fast(0, tif.c_str(), IMG_FORMAT_TIFF_G4, 0, 0), c.status)
            << c.script;
        if (c.pages < 0)
            EXPECT_FALSE(fs::exists(tif.path)) << c.script;
        else
            EXPECT_EQ(IMGLOW_get_pages(tif.c_str()), c.pages) << c.script;
        EXPECT_EQ(log().back(), "CLOSEDSM") << c.script;
    }
}

// Refusals by the source, each seen by the operation that asks.
TEST_F(Scripted, CapabilityRefusals) {
    struct Case {
        const char* script;
        int32_t (*call)();
        int32_t status;
    } cases[] = {
        {"loaded=0", [] { return IMG_scan_acquire_feeder(0, 0); }, IMG_ERR_SCAN_NO_PAPER},
        {"feeder_fail=1", [] { return IMG_scan_acquire_feeder(0, 0); }, IMG_ERR_SCAN_FEEDER},
        {"autofeed_fail=1", [] { return IMG_scan_acquire_feeder(0, 0); }, IMG_ERR_SCAN_AUTOFEED},
        {"uionly=0", [] { return IMG_scan_setup(0); }, IMG_ERR_SCAN_CAPABILITY},
        {"", [] { return IMG_scan_get_cap(0, 0x7777); }, IMG_ERR_SCAN_CAPABILITY},
        {"", [] { return IMG_scan_set_cap(0, 0x7777, 1); }, IMG_ERR_SCAN_CAPABILITY},
        {"", [] { return IMG_scan_get_cap(0, ICAP_XRESOLUTION); }, 300},
        {"open_fail=1", [] { return IMG_scan_acquire(0, 0); }, IMG_ERR_SCAN_REFUSED},
        {"open_fail=1", [] { return IMG_scan_get_cap(0, ICAP_UNITS); }, IMG_ERR_SCAN_REFUSED},
        {"", [] { return IMG_scan_setup(0); }, 0},
    };
    for (const Case& c : cases) {
        script(c.script);
        EXPECT_EQ(c.call(), c.status) << c.script;
        IMG_scan_feeder_close();
    }
    EXPECT_LT(find("ENABLEDSUIONLY show 0"), 0);
}

// A source without a feeder still gives its one page to the feeder call.
TEST_F(Scripted, NoFeederAndCentimetres) {
    script("pages=1;no_feeder=1;units=1;res=118");
    const Handle h = IMG_scan_acquire_feeder(0, 0);
    ASSERT_GE(h, 0) << IMG_status_name(h);
    EXPECT_EQ(info_of(h).biXPelsPerMeter, 300);  // 118 per cm is 300 per inch
    EXPECT_LT(find("GET 1007"), 0);  // autofeed is not asked about without a feeder
}

// ---- SANE, test backend -------------------------------------------------------

// SANE's backends keep allocations past sane_exit from code unloaded by
// then: the leak checker ignores what these tests allocate.
extern "C" void __lsan_disable() __attribute__((weak));
extern "C" void __lsan_enable() __attribute__((weak));

class Sane : public ::testing::Test {
protected:
    void SetUp() override {
        if (!*TESSLIN_TWAIN_SANE) GTEST_SKIP() << "SANE module not built";
        if (!have_tool("scanimage")) GTEST_SKIP() << "scanimage missing";
#if defined(__SANITIZE_ADDRESS__)
        // (The scripted tests cover the library's paths in sanitizer builds.)
        GTEST_SKIP() << "SANE tests do not run in sanitizer builds";
#endif
        dir_ = temp_path("sane");
        mkdir(dir_.c_str(), 0755);
        write_file(dir_ + "/dll.conf", Bytes{'t', 'e', 's', 't', '\n'});
        env_.set("SANE_CONFIG_DIR", dir_);
        env_.set("TESSLIN_TWAIN_DSM", TESSLIN_TWAIN_SANE);
        env_.set("TESSLIN_SANE_DEVICE", "test");
        env_.set("TESSLIN_SANE_OPTIONS", "test-picture=Grid");
        env_.set("LSAN_OPTIONS", "detect_leaks=0");
        if (__lsan_disable) __lsan_disable();
    }
    void TearDown() override {
        if (__lsan_enable && !dir_.empty()) __lsan_enable();
        if (!dir_.empty()) run("rm -rf '" + dir_ + "'");
    }
    // scanimage's picture of the same frame and settings (frame in inches).
    Raster reference(const std::string& mode, int depth, int dpi, double w, double h,
                     const std::string& picture = "Grid") {
        const std::string out = dir_ + "/ref.pnm";
        std::ostringstream cmd;
        cmd << "SANE_CONFIG_DIR='" << dir_ << "' scanimage -d test --test-picture '" << picture
            << "' --mode " << mode << " --depth " << depth << " --resolution " << dpi
            << " -l 0 -t 0 -x " << w * 25.4 << " -y " << h * 25.4 << " --format=pnm > '" << out
            << "' 2>/dev/null";
        if (!run(cmd.str())) return {};
        return read_netpbm(out);
    }
    Env env_;
    std::string dir_;
};

TEST_F(Sane, TenFeederPagesIntoOneGroup4TiffLikeScanimage) {
    const std::string tif = dir_ + "/out.tif";
    std::string output;
    ASSERT_TRUE(run(std::string(TESSLIN_CLI) + " scan '" + tif +
                        "' --format 10 --bits 1 --dpi 300 --frame 0,0,3,4 --feeder",
                    &output))
        << output;
    ASSERT_EQ(IMGLOW_get_pages(tif.c_str()), 10);
    const Raster ref = reference("Gray", 1, 300, 3, 4);
    ASSERT_GT(ref.width, 0);
    for (int page : {0, 9}) {
        const Handle h = IMG_decompress_bitmap_page(tif.c_str(), page);
        ASSERT_GE(h, 0);
        EXPECT_EQ(count_differences(handle_raster(h), ref, 1), 0u) << "page " << page + 1;
        EXPECT_EQ(info_of(h).biXPelsPerMeter, 300);
    }
}

TEST_F(Sane, GreyAndColourPagesLikeScanimage) {
    env_.set("TESSLIN_SANE_OPTIONS", "test-picture=Color pattern");
    struct Case {
        int32_t bits;
        const char* mode;
        int channels;
    } cases[] = {{8, "Gray", 1}, {24, "Color", 3}};
    for (const Case& c : cases) {
        IMG_SCAN_SETTINGS s = {c.bits, 0, 0, 2, 1.5, 100, 100};
        IMG_scan_set_caps(&s);
        const Handle h = IMG_scan_acquire(0, 0);
        ASSERT_GE(h, 0) << IMG_status_name(h);
        const Raster ref = reference(c.mode, 8, 100, 2, 1.5, "Color pattern");
        EXPECT_EQ(count_differences(handle_raster(h), ref, c.channels), 0u) << c.mode;
        EXPECT_EQ(info_of(h).biXPelsPerMeter, 100) << c.mode;  // dots per inch
    }
}

TEST_F(Sane, Group4MemoryTransferGivesTheNativePixels) {
    IMG_SCAN_SETTINGS s = {1, 0, 0, 2, 2, 200, 200};
    IMG_scan_set_caps(&s);
    auto ten_pages = [](int32_t (*acquire)()) {
        std::vector<Raster> pages;
        for (int32_t h; pages.size() < 10 && (h = acquire()) >= 0;) pages.push_back(handle_raster(Handle(h)));
        IMG_scan_feeder_close();
        return pages;
    };
    const std::vector<Raster> native = ten_pages([] { return IMG_scan_acquire_feeder(0, 0); }),
                              fast = ten_pages([] { return IMG_scan_acquire_feeder_fast(0, 0, 0); });
    ASSERT_EQ(native.size(), 10u);
    ASSERT_EQ(fast.size(), 10u);
    for (size_t i = 0; i < 10; ++i) EXPECT_EQ(count_differences(native[i], fast[i], 1), 0u);
}

TEST_F(Sane, AbsentDeviceOrModuleLeavesNoFile) {
    const std::string tif = dir_ + "/none.tif";
    env_.set("TESSLIN_SANE_DEVICE", "test:99");
    EXPECT_EQ(IMG_scan_pages(0, tif.c_str(), IMG_FORMAT_TIFF_G4, 0), IMG_ERR_SCAN_REFUSED);
    EXPECT_FALSE(fs::exists(tif));
    env_.set("TESSLIN_TWAIN_DSM", dir_ + "/no-such-module.so");
    EXPECT_EQ(IMG_scan_pages(0, tif.c_str(), IMG_FORMAT_TIFF_G4, 0), IMG_ERR_SCAN_MANAGER);
    EXPECT_EQ(IMG_scan_acquire_feeder(0, 0), IMG_ERR_SCAN_REFUSED);
    EXPECT_FALSE(fs::exists(tif));
}

}  // namespace
