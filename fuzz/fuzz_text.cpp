// libFuzzer target of the text decoder and page counter. The first byte
// picks attributes (tab size, style, a small fixed font height, a page
// number); the rest is the text. The decoder runs with contract-checking
// callbacks on a page kept small so that each input stays fast.
#include "formats/text/text.h"
#include "fuzz_util.h"

// fontconfig keeps a few bytes of its parsed configuration unreachable
// until FcFini, which a library may not call behind its application's back.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint8_t pick = data[0];
    IMG_ASCII_ATTRIBUTES a{};
    a.mask = IMG_ASCII_PAGE_WIDTH | IMG_ASCII_PAGE_HEIGHT | IMG_ASCII_TAB_SIZE | IMG_ASCII_BOLD |
             IMG_ASCII_ITALIC | IMG_ASCII_FONT_HEIGHT;
    a.page_width = 3000;
    a.page_height = 3000;
    a.tab_size = (pick & 7) - 1;  // -1 .. 6
    a.bold = pick & 8;
    a.italic = pick & 16;
    a.font_height = (pick & 32) ? 12 : -1;
    IMGLOW_set_ascii_attributes(&a);

    fuzz::VectorInput input(data + 1, size - 1);
    const int32_t pages = tesslin::text::count_pages(input.stream);
    fuzz::check(pages != 0);
    tesslin::stream::seek(input.stream, 0, 0);
    fuzz::RowCheck rows;
    const uint32_t page = (pick >> 6) & 3;
    const int32_t r = tesslin::text::decode(page ? page | tesslin::kPositionIsPage : 0,
                                            fuzz::check_row, reinterpret_cast<intptr_t>(&rows),
                                            fuzz::check_header, input.stream);
    fuzz::check(r <= 0);
    // Exactly the pages the counter found exist (a text the counter refuses
    // still renders: the decoder skips other control bytes).
    if (pages > 0 && r == 0) fuzz::check(int32_t(page) < pages);
    if (pages > 0 && r == IMG_ERR_NO_PAGE) fuzz::check(int32_t(page) >= pages);
    return 0;
}
