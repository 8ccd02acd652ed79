// Text files as pages: page geometry and pagination with the default
// attributes, tesseract reading back what was typeset, tabs, margins,
// styles, the width measure, and refusals (binary files, no font).
#include <gtest/gtest.h>

#include <cstdlib>

#include "fax.h"
#include "formats/text/text.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// Text detection on, and the attributes as they were, for one test.
struct TextScope {
    IMG_ASCII_ATTRIBUTES saved{};
    int32_t detect;
    TextScope() {
        saved.mask = 0xFFF;
        IMGLOW_get_ascii_attributes(&saved);
        detect = IMGLOW_set_auto_detect(IMG_FORMAT_TEXT);
    }
    ~TextScope() {
        IMGLOW_set_ascii_attributes(&saved);
        if (!detect) IMGLOW_unset_auto_detect(IMG_FORMAT_TEXT);
    }
};

std::string text_file(const std::string& name, const std::string& body) {
    const std::string path = temp_path(name);
    write_file(path, Bytes(body.begin(), body.end()));
    return path;
}

// Lines of words from a fixed vocabulary, about 60 characters each.
std::vector<std::string> prose(int lines) {
    static const char* words[] = {"the", "quick", "brown", "fox", "jumps", "over", "lazy", "dog",
                                  "paper", "window", "garden", "silver", "morning", "river",
                                  "letter", "number", "yellow", "winter", "market", "simple",
                                  "orange", "travel", "bridge", "castle", "friend", "planet"};
    std::vector<std::string> out;
    uint32_t seed = 7;
    for (int i = 0; i < lines; ++i) {
        std::string line;
        while (line.size() < 55) {
            seed = seed * 1103515245 + 12345;
            line += std::string(line.empty() ? "" : " ") + words[(seed >> 16) % 26];
        }
        out.push_back(line);
    }
    return out;
}

// Black pixels of a 1-bit page per column and in total.
struct Ink {
    std::vector<int64_t> columns;
    int64_t total = 0, first_row = -1;
};
Ink ink(int32_t handle) {
    int32_t w = 0, h = 0, bits = 0;
    IMG_bitmap_info(handle, &w, &h, &bits);
    Ink k;
    k.columns.assign(size_t(w), 0);
    for (int32_t y = 0; y < h; ++y) {
        const Bytes row = get_row(handle, y);
        for (int32_t x = 0; x < w; ++x)
            if (!((row[size_t(x) / 8] >> (7 - x % 8)) & 1)) {
                ++k.columns[size_t(x)], ++k.total;
                if (k.first_row < 0) k.first_row = y;
            }
    }
    return k;
}

int32_t page_of(const std::string& body, int32_t page = 0) {
    const std::string path = text_file("page.txt", body);
    const int32_t h = IMG_import_ascii(path.c_str(), page);
    fs::remove(path);
    return h;
}

}  // namespace

TEST(Text, PagesOfTheDefaultLetterPage) {
    TextScope scope;
    std::string body;
    for (const std::string& l : prose(70)) body += l + "\n";
    const std::string path = text_file("seventy.txt", body);
    EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 2);
    const Handle h = IMG_import_ascii(path.c_str(), 0);
    ASSERT_GE(h, 0);
    int32_t w = 0, ht = 0, bits = 0;
    IMG_bitmap_info(h, &w, &ht, &bits);
    EXPECT_EQ(w, 1700);
    EXPECT_EQ(ht, 2200);
    EXPECT_EQ(bits, 1);
    EXPECT_EQ(info_of(h).biXPelsPerMeter, 200);
    // Ink only between the margins, from the top margin on.
    const Ink k = ink(h);
    int64_t outside = 0;
    for (int32_t x = 0; x < 1700; ++x) outside += (x < 200 || x >= 1500) ? k.columns[size_t(x)] : 0;
    EXPECT_EQ(outside, 0);
    EXPECT_GE(k.first_row, 150);
    EXPECT_EQ(IMG_import_ascii(path.c_str(), 2), IMG_ERR_NO_PAGE);

    // tesseract reads the words back in order.
    if (!have_tool("tesseract")) GTEST_SKIP() << "tesseract missing";
    const Scratch pbm("page1.pbm");
    write_file(pbm, pbm_bytes(handle_page(h)));
    std::string said;
    ASSERT_TRUE(run("OMP_THREAD_LIMIT=1 tesseract '" + pbm.path + "' stdout --dpi 200 --psm 6 2>/dev/null", &said));
    std::vector<std::string> read_back;
    std::stringstream rs(said);
    for (std::string word; rs >> word;) read_back.push_back(word);
    // The words read back are in order in the typed text (95 % of them, by
    // longest common subsequence) and cover at least 60 of its 70 lines
    // (page 2 holds the rest).
    std::vector<std::string> typed;
    for (const std::string& line : prose(70)) {
        std::stringstream ls(line);
        for (std::string word; ls >> word;) typed.push_back(word);
    }
    std::vector<std::vector<int32_t>> lcs(typed.size() + 1, std::vector<int32_t>(read_back.size() + 1, 0));
    for (size_t i = 1; i <= typed.size(); ++i)
        for (size_t j = 1; j <= read_back.size(); ++j)
            lcs[i][j] = typed[i - 1] == read_back[j - 1] ? lcs[i - 1][j - 1] + 1 : std::max(lcs[i - 1][j], lcs[i][j - 1]);
    const size_t matched = size_t(lcs[typed.size()][read_back.size()]);
    EXPECT_GE(matched * 100, read_back.size() * 95) << matched << " of " << read_back.size() << " words:\n" << said;
    EXPECT_GE(matched * 70 * 100, typed.size() * 60 * 95);
    std::printf("tesseract: %zu of %zu words in order on page 1\n", matched, read_back.size());
    fs::remove(path);
}

TEST(Text, TabsMarginsAndStyles) {
    TextScope scope;
    // A tab is eight spaces by default, four with a tab size of 4.
    const auto same_page = [](const std::string& a, const std::string& b) {
        const Handle x = page_of(a), y = page_of(b);
        return x >= 0 && y >= 0 && count_differences(handle_raster(x), handle_raster(y), 1) == 0;
    };
    // (Detection looks at ten bytes: every text here is longer.)
    EXPECT_TRUE(same_page("\tX\nab\tcd\nend\n", "        X\nab      cd\nend\n"));
    IMG_ASCII_ATTRIBUTES a{};
    a.mask = IMG_ASCII_TAB_SIZE;
    a.tab_size = 4;
    IMGLOW_set_ascii_attributes(&a);
    EXPECT_TRUE(same_page("\tX\nab\tcd\nend\n", "    X\nab  cd\nend\n"));
    // Carriage returns and form feeds are ignored; text after the last line
    // feed is not drawn.
    EXPECT_TRUE(same_page("ab\r\ncd\f\nefgh\nlast", "ab\ncd\nefgh\n"));

    // A 100-character line is cut at the right margin: ink right up to it.
    const Handle long_line = page_of(std::string(100, 'W') + "\n");  // ("MM" would be TIFF)
    ASSERT_GE(long_line, 0);
    const Ink cut = ink(long_line);
    EXPECT_GT(cut.columns[1495], 0);
    EXPECT_EQ(cut.columns[1500], 0);

    // Bold inks more; italic leans (ink reaches further right on the line).
    const std::string body = "Hamburgefonstiv lll 0123\n";
    const Handle plain = page_of(body);
    a.mask = IMG_ASCII_BOLD;
    a.bold = 1;
    IMGLOW_set_ascii_attributes(&a);
    const Handle bold = page_of(body);
    a.mask = IMG_ASCII_BOLD | IMG_ASCII_ITALIC;
    a.bold = 0;
    a.italic = 1;
    IMGLOW_set_ascii_attributes(&a);
    const Handle italic = page_of(body);
    EXPECT_GT(ink(bold).total * 100, ink(plain).total * 125);
    EXPECT_NE(count_differences(handle_raster(italic), handle_raster(plain), 1), 0u);
}

TEST(Text, WidthMeasureAndRefusals) {
    TextScope scope;
    // 120 characters at 16 pixels (80 fill 1300 pixels) and 200 dpi.
    const std::string wide = text_file("wide.txt", "short\n" + std::string(120, 'w') + "\n\tx\n");
    EXPECT_EQ(IMGLOW_get_ascii_page_width(wide.c_str()), 120 * 16 * 1000 / 200 + 2000);
    IMG_ASCII_ATTRIBUTES a{};
    a.mask = IMG_ASCII_CHARS_PER_LINE;
    IMGLOW_get_ascii_attributes(&a);
    EXPECT_EQ(a.chars_per_line, 120);
    IMGLOW_set_ascii_attributes(&scope.saved);

    const std::string binary = text_file("binary.txt", std::string("Ordinary text\n\x07 bell\n"));
    EXPECT_EQ(IMGLOW_get_pages(binary.c_str()), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(IMGLOW_get_ascii_page_width(binary.c_str()), IMG_ERR_BAD_IMAGE);
    EXPECT_EQ(IMGLOW_get_ascii_page_width("/nonexistent/x.txt"), IMG_ERR_OPEN);
    EXPECT_EQ(IMG_import_ascii("/nonexistent/x.txt", 0), IMG_ERR_OPEN);
    // Without text detection a text file is not an image.
    IMGLOW_unset_auto_detect(IMG_FORMAT_TEXT);
    EXPECT_EQ(IMG_import_ascii(wide.c_str(), 0), IMG_ERR_UNSUPPORTED);
    IMGLOW_set_auto_detect(IMG_FORMAT_TEXT);
    // An empty text has one page; its second does not exist.
    const Bytes empty;
    void* block = to_block(empty);
    const int32_t s = stream::mem_create_sized(block, 0);
    EXPECT_EQ(text::count_pages(s), 1);
    stream::mem_release(s);
    tesslin_block_free(block);
    EXPECT_EQ(decode_with(text::decode, empty, 1 | kPositionIsPage).status, IMG_ERR_NO_PAGE);
    EXPECT_EQ(decode_with(text::decode, empty, 0).height(), 2200);
    // Page sizes no image can have.
    a.mask = IMG_ASCII_PAGE_WIDTH;
    for (int32_t width : {0, -8500, INT32_MAX}) {
        a.page_width = width;
        IMGLOW_set_ascii_attributes(&a);
        EXPECT_EQ(IMG_import_ascii(wide.c_str(), 0), IMG_ERR_BAD_IMAGE) << width;
    }
    fs::remove(wide);
    fs::remove(binary);
}

// With no font to be had, a clear status. Runs in a fresh process whose
// fontconfig knows no fonts at all.
TEST(Text, NoFont) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string conf = text_file("nofonts.conf", "<?xml version=\"1.0\"?>\n<fontconfig></fontconfig>\n");
    const std::string path = text_file("nofont.txt", "some text\nmore text\n");
    EXPECT_EXIT(
        {
            setenv("FONTCONFIG_FILE", conf.c_str(), 1);
            IMGLOW_set_auto_detect(IMG_FORMAT_TEXT);
            const bool ok = IMG_import_ascii(path.c_str(), 0) == IMG_ERR_UNSUPPORTED &&
                            IMGLOW_get_pages(path.c_str()) == IMG_ERR_UNSUPPORTED &&
                            IMGLOW_get_ascii_page_width(path.c_str()) == IMG_ERR_UNSUPPORTED;
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    fs::remove(conf);
    fs::remove(path);
}
