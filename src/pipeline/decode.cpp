// The decode driver and the decode entry points.
#include "pipeline/decode.h"

#include <cstring>

#include "core/api.h"
#include "core/stream.h"
#include "core/entry.h"
#include "pipeline/detect.h"
#include "pipeline/plugins.h"
#include "pipeline/registry.h"
#include "platform/platform.h"

namespace tesslin {

int32_t run_decoder(int32_t stream, uint32_t offset, int32_t page, IMG_RASTER_CALLBACK raster,
                    intptr_t user, IMG_HEADER_CALLBACK header) {
    if (offset > 0x7FFFFFFFu) return IMG_ERR_BAD_IMAGE;
    const auto at = static_cast<int32_t>(offset);
    if (int32_t s = stream::seek(stream, at, 0); s < 0) return s;
    const TypeTag tag = detect_format(stream);
    uint32_t position = offset;
    if (page != 0) {
        if (int32_t s = stream::seek(stream, at, 0); s < 0) return s;
        position = static_cast<uint32_t>(page) | kPositionIsPage;
    }
    if (!tag.format || !tag.format->decode) return IMG_ERR_UNSUPPORTED;
    const Decoder decoder = tag.format->decode;
    const int32_t r = decoder(position, raster, user, header, stream);
    return r < 0 ? r : 0;
}

int32_t decode_to_handle(int32_t stream, uint32_t offset, int32_t page) {
    DecodeContext ctx;
    if (int32_t s = begin_decode(ctx)) return s;
    const int32_t r = run_decoder(stream, offset, page, library_raster,
                                  reinterpret_cast<intptr_t>(&ctx), library_header);
    if (r == IMG_ERR_COMPRESSION) {
        finish_decode(ctx, r);
        stream::seek(stream, static_cast<int32_t>(offset), 0);
        return abic_fallback(stream, page);
    }
    return finish_decode(ctx, r);
}

Decoder decoder_for_tag(const char* tag) {
    const FormatDescriptor* f = registry::find_tag(tag);
    return f ? f->decode : nullptr;
}

int32_t decode_into_handle(DecodeBody body, void* context) {
    DecodeContext ctx;
    if (int32_t s = begin_decode(ctx)) return s;
    const int32_t r = body(context, library_raster, reinterpret_cast<intptr_t>(&ctx),
                           library_header);
    return finish_decode(ctx, r < 0 ? r : 0);
}

namespace {

// Header callback of the header-only decode: copies the 40-byte header and
// stops the decoder.
int32_t info_header(const IMG_BITMAPINFOHEADER* header, intptr_t user) {
    std::memcpy(reinterpret_cast<void*>(user), header, sizeof *header);
    return IMG_ERR_STOP;
}

int32_t info_raster(uint8_t*, intptr_t, int32_t, uint32_t) { return IMG_ERR_STOP; }

int32_t fileinfo(int32_t stream, IMG_BITMAPINFOHEADER* record) {
    if (!record) return IMG_ERR_BAD_IMAGE;
    const int32_t r = run_decoder(stream, 0, 0, info_raster, reinterpret_cast<intptr_t>(record),
                                  info_header);
    return r == IMG_ERR_STOP ? 0 : r;
}



// Page of a PDF file: the stream PDF module first, the file-name module
// when the stream module is absent.
int32_t decode_pdf_page(const char* file, int32_t fd, int32_t page, bool* closed) {
    DecodeContext ctx;
    if (int32_t s = begin_decode(ctx)) return s;
    const auto user = reinterpret_cast<intptr_t>(&ctx);
    stream::seek(fd, 0, 0);
    const uint32_t position = page ? static_cast<uint32_t>(page) | kPositionIsPage : 0;
    int32_t r = modules::decode_pdf(position, library_raster, user, library_header, fd);
    if (r == IMG_ERR_PLUGIN) {
        platform::file_close(fd);
        *closed = true;
        r = plugins::apdf_decode(file, library_raster, user, library_header, page);
    }
    return finish_decode(ctx, r < 0 ? r : 0);
}

}  // namespace
}  // namespace tesslin

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMGLOW_decompress_bitmap(int32_t stream, int32_t offset, int32_t page,
                                             IMG_RASTER_CALLBACK raster, intptr_t user,
                                             IMG_HEADER_CALLBACK header) {
    return api_call([&]() -> int32_t {
        if (!raster || !header) return IMG_ERR_BAD_IMAGE;
        if (offset < 0) return IMG_ERR_BAD_IMAGE;
        return run_decoder(stream, static_cast<uint32_t>(offset), page, raster, user, header);
    });
}

TESSLIN_API int32_t IMGLOW_decompress_bitmap_mem(const void* block, int32_t page,
                                                 IMG_RASTER_CALLBACK raster, intptr_t user,
                                                 IMG_HEADER_CALLBACK header) {
    return api_call([&]() -> int32_t {
        if (!raster || !header) return IMG_ERR_BAD_IMAGE;
        return with_memory(block, [&](int32_t s) {
            return run_decoder(s, 0, page, raster, user, header);
        });
    });
}

TESSLIN_API int32_t IMG_decompress_bitmap(const char* file) {
    return api_call([&]() -> int32_t {
        return with_file(file, [](int32_t fd) { return decode_to_handle(fd, 0, 0); });
    });
}

TESSLIN_API int32_t IMG_decompress_bitmap_fd(int32_t stream, int32_t offset, int32_t page) {
    return api_call([&]() -> int32_t {
        if (offset < 0) return IMG_ERR_BAD_IMAGE;
        return decode_to_handle(stream, static_cast<uint32_t>(offset), page);
    });
}

TESSLIN_API int32_t IMG_decompress_bitmap_mem(const void* block, int32_t page) {
    return api_call([&]() -> int32_t {
        return with_memory(block, [&](int32_t s) { return decode_to_handle(s, 0, page); });
    });
}

TESSLIN_API int32_t IMG_decompress_bitmap_page(const char* file, int32_t page) {
    return api_call([&]() -> int32_t {
        const int32_t fd = platform::file_open(file, 0);
        if (fd < 0) return IMG_ERR_OPEN;
        uint8_t start[15] = {};
        const int32_t got = stream::read(fd, start, sizeof start);
        bool closed = false;
        int32_t r;
        if (got >= 4 && std::memcmp(start, "%PDF", 4) == 0)
            r = decode_pdf_page(file, fd, page, &closed);
        else
            r = decode_to_handle(fd, 0, page);
        if (!closed) platform::file_close(fd);
        return r;
    });
}

TESSLIN_API int32_t IMG_create_handle(const void* dib) {
    return IMG_decompress_bitmap_mem(dib, 0);
}

TESSLIN_API int32_t IMGLOW_get_fileinfo(const char* file, IMG_BITMAPINFOHEADER* record) {
    return api_call([&]() -> int32_t {
        return with_file(file, [&](int32_t fd) { return fileinfo(fd, record); });
    });
}

TESSLIN_API int32_t IMGLOW_get_fileinfo_fd(int32_t stream, IMG_BITMAPINFOHEADER* record) {
    return api_call([&]() -> int32_t { return fileinfo(stream, record); });
}

}  // extern "C"
