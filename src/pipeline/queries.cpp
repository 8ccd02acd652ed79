// Queries built on detection: format codes, page counts, orientation, tags,
// tiles and the format-code table, each answered by the descriptor of the
// detected format.
#include "core/api.h"
#include "core/stream.h"
#include "pipeline/detect.h"
#include "core/entry.h"
#include "pipeline/plugins.h"
#include "pipeline/registry.h"
#include "platform/platform.h"

namespace tesslin {
namespace {

// Detects the format of the stream from offset 0 and leaves the stream at 0.
TypeTag detect_from_start(int32_t stream) {
    stream::seek(stream, 0, 0);
    const TypeTag tag = detect_format(stream);
    stream::seek(stream, 0, 0);
    return tag;
}

int32_t filetype(int32_t stream, bool memory) {
    const int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here;
    stream::seek(stream, 0, 0);
    const TypeTag tag = detect_format(stream);
    stream::seek(stream, here, 0);
    return format_code(tag, stream, memory);
}

int32_t pages(int32_t stream, bool memory) {
    const TypeTag tag = detect_from_start(stream);
    if (!tag.format) return 1;
    const PageCounter counter = memory ? tag.format->count_pages_mem : tag.format->count_pages;
    return counter ? counter(stream) : 1;
}

int32_t orientation(int32_t stream, int32_t page) {
    const TypeTag tag = detect_from_start(stream);
    if (!tag.format || !tag.format->orientation) return IMG_ERR_UNSUPPORTED;
    return tag.format->orientation(stream, tag.format->orientation_per_page ? page : 0);
}

// Tag query on an open stream. The stream variant answers only for the
// formats that say so (TIFF, DICOM).
int32_t tag_on_stream(int32_t stream, int32_t tag, int32_t size, int32_t* value, void* buffer,
                      int32_t page, bool stream_variant) {
    const TypeTag type = detect_from_start(stream);
    const FormatDescriptor* f = type.format;
    if (!f || (stream_variant && !f->tags_on_stream) || !f->tags) return IMG_ERR_UNSUPPORTED;
    return f->tags(stream, tag, size, value, buffer, page);
}

int32_t tile_info(int32_t stream, int32_t* info, int32_t page) {
    if (!info) return IMG_ERR_BAD_IMAGE;
    const TypeTag type = detect_from_start(stream);
    if (!type.format || !type.format->tiles) return IMG_ERR_UNSUPPORTED;
    TileInfo t{};
    const int32_t r = type.format->tiles(stream, page, &t);
    if (r < 0) return r;
    info[0] = t.image_width;
    info[1] = t.image_height;
    info[2] = t.tile_width;
    info[3] = t.tile_height;
    info[4] = t.tiles_total;
    return r;
}

int32_t format_info(int32_t code, IMG_FORMAT_INFO* info) {
    const registry::CodeEntry e = registry::find_code(code);
    if (!e) return IMG_ERR_UNSUPPORTED;
    if (!info) return 0;
    const FormatDescriptor& f = *e.format;
    const CodeRow& row = *e.row;
    info->code = row.code;
    info->name = row.name;
    info->description = row.description;
    info->extension = row.extension;
    info->reads = !row.save_only && f.decode ? (f.decoded_by_module ? 2 : 1) : 0;
    info->writes = row.encoder ? 1 : 0;
    info->multipage = (!row.save_only && f.count_pages ? 1 : 0) |
                      (row.appends && row.encoder ? 2 : 0);
    return 0;
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
            // PDF files: the file-name module first, when it is present.
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

TESSLIN_API int32_t IMGLOW_get_tiff_tag(int32_t tag, int32_t size, int32_t* value,
                                        const char* file, void* buffer) {
    return api_call([&] {
        return with_file(file, [&](int32_t s) {
            return tag_on_stream(s, tag, size, value, buffer, 0, false);
        });
    });
}

TESSLIN_API int32_t IMGLOW_get_tiff_tag_page(int32_t tag, int32_t size, int32_t* value,
                                             const char* file, void* buffer, int32_t page) {
    return api_call([&] {
        return with_file(file, [&](int32_t s) {
            return tag_on_stream(s, tag, size, value, buffer, page, false);
        });
    });
}

TESSLIN_API int32_t IMGLOW_get_tiff_tag_page_fd(int32_t tag, int32_t size, int32_t* value,
                                                int32_t stream, void* buffer, int32_t page) {
    return api_call([&] { return tag_on_stream(stream, tag, size, value, buffer, page, true); });
}

TESSLIN_API int32_t IMGLOW_get_tiff_directory(const char* file, int32_t page,
                                              IMG_TIFF_FIELD* fields, int32_t max) {
    return api_call([&] {
        return with_file(file, [&](int32_t s) -> int32_t {
            const TypeTag type = detect_from_start(s);
            if (!type.format || !type.format->list_directory) return IMG_ERR_UNSUPPORTED;
            return type.format->list_directory(s, page, fields, max);
        });
    });
}

TESSLIN_API int32_t IMGLOW_is_tiled_image(const char* file) {
    return api_call([&]() -> int32_t {
        const int32_t fd = platform::file_open(file, 0);
        if (fd < 0) return 0;
        const TypeTag type = detect_from_start(fd);
        const int32_t r = type.format && type.format->is_tiled ? type.format->is_tiled(fd) : 0;
        platform::file_close(fd);
        return r;
    });
}

TESSLIN_API int32_t IMGLOW_get_tile_info(const char* file, int32_t* info, int32_t page) {
    return api_call([&]() -> int32_t {
        if (!info) return IMG_ERR_BAD_IMAGE;
        return with_file(file, [&](int32_t fd) { return tile_info(fd, info, page); });
    });
}

TESSLIN_API int32_t IMGLOW_get_format_info(int32_t code, IMG_FORMAT_INFO* info) {
    return api_call([&] { return format_info(code, info); });
}

}  // extern "C"
