// Format, page-count and orientation queries built on detection.
#include "core/api.h"
#include "core/stream.h"
#include "pipeline/entry.h"
#include "pipeline/detect.h"
#include "pipeline/dispatch.h"
#include "pipeline/plugins.h"
#include "platform/platform.h"

namespace tesslin {
namespace {

int32_t filetype(int32_t stream, bool memory) {
    const int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here;
    stream::seek(stream, 0, 0);
    const TypeTag tag = detect_format(stream);
    stream::seek(stream, here, 0);
    return format_code(tag, stream, memory);
}

int32_t pages(int32_t stream, bool memory) {
    stream::seek(stream, 0, 0);
    const TypeTag tag = detect_format(stream);
    bool listed = false;
    PageCounter counter = dispatch::page_counter_for(tag.text, memory, &listed);
    if (!counter) return 1;
    stream::seek(stream, 0, 0);
    const int32_t n = counter(stream);
    // The stream PDF module's failure counts as no pages here; the memory
    // variant passes its answer through.
    if (n < 0 && !memory && tag.is("pdf")) return 0;
    return n;
}

int32_t orientation(int32_t stream, int32_t page) {
    stream::seek(stream, 0, 0);
    const TypeTag tag = detect_format(stream);
    OrientationReader reader = dispatch::orientation_for(tag.text);
    if (!reader) return IMG_ERR_UNSUPPORTED;
    stream::seek(stream, 0, 0);
    // Only TIFF and MO:DCA files record an orientation per page.
    return reader(stream, tag.is("tif") || tag.is("mca") ? page : 0);
}



}  // namespace
}  // namespace tesslin

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMGLOW_get_filetype(const char* file) {
    return api_call([&] { return with_file(file, [](int32_t s) { return filetype(s, false); }); });
}

TESSLIN_API int32_t IMGLOW_get_filetype_fd(int32_t stream) {
    return api_call([&] { return filetype(stream, false); });
}

TESSLIN_API int32_t IMGLOW_get_filetype_mem(const void* block) {
    return api_call([&] { return with_memory(block, [](int32_t s) { return filetype(s, true); }); });
}

TESSLIN_API int32_t IMGLOW_get_pages(const char* file) {
    return api_call([&]() -> int32_t {
        return with_file(file, [&](int32_t s) -> int32_t {
            if (detect_format(s).is("pdf")) {
                const int32_t n = plugins::apdf_pages(file);
                if (n != IMG_ERR_PLUGIN) return n;
            }
            return pages(s, false);
        });
    });
}

TESSLIN_API int32_t IMGLOW_get_pages_fd(int32_t stream) {
    return api_call([&] { return pages(stream, false); });
}

TESSLIN_API int32_t IMGLOW_get_pages_mem(const void* block) {
    return api_call([&] { return with_memory(block, [](int32_t s) { return pages(s, true); }); });
}

TESSLIN_API int32_t IMGLOW_get_image_orientation(const char* file) {
    return api_call([&] { return with_file(file, [](int32_t s) { return orientation(s, 0); }); });
}

TESSLIN_API int32_t IMGLOW_get_image_orientation_page(const char* file, int32_t page) {
    return api_call(
        [&] { return with_file(file, [&](int32_t s) { return orientation(s, page); }); });
}

}  // extern "C"
