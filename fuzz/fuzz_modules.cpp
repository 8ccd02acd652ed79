// Arbitrary bytes through the library's decode entry point with the real
// plug-in modules loaded (PDF on poppler, JPEG 2000 on OpenJPEG): inputs that
// detect as "pdf" or "jp2" reach the modules; the page count and a decode of
// the first two pages must return a status or a valid handle, never crash.
// The modules are looked for in the build's module directory (or
// $TESSLIN_PLUGIN_DIR); without them every call answers the modules'
// failure status, which is checked too.
#include <cstdint>
#include <cstdlib>

#include "fuzz_util.h"

namespace {

bool g_ready = false;

void setup() {
    if (g_ready) return;
    g_ready = true;
#ifdef TESSLIN_MODULE_DIR
    if (!std::getenv("TESSLIN_PLUGIN_DIR")) tesslin_set_plugin_dir(TESSLIN_MODULE_DIR);
#endif
    // Small renderings keep a run fast; grey exercises the palette path.
    IMGLOW_set_pdf_input(24, 8);
}

}  // namespace

// fontconfig, which poppler asks for fonts, keeps a cache for the life of
// the process; LeakSanitizer would report it on the first PDF with text.
extern "C" const char* __lsan_default_suppressions() { return "leak:libfontconfig.so\n"; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    setup();
    if (size > (1u << 20)) return 0;
    fuzz::Block block(data, size);
    if (!block.data) return 0;
    const int32_t pages = IMGLOW_get_pages_mem(block.data);
    for (int32_t page = 0; page < 2; ++page) {
        const int32_t h = IMG_decompress_bitmap_mem(block.data, page);
        if (h < 0) continue;
        int32_t w = 0, height = 0, bits = 0;
        fuzz::check(IMG_bitmap_info(h, &w, &height, &bits) >= 0 && w > 0 && height > 0);
        IMG_delete_bitmap(h);
    }
    (void)pages;
    return 0;
}
