// The plug-in loader: modules are loaded with dlopen by base name on first
// use, their entry points looked up by name, "set_callbacks" called once;
// each stays loaded until IMG_unload_plugins or library unload.
#include "pipeline/plugins.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "core/api.h"
#include "core/entry.h"
#include "core/stream.h"
#include "pipeline/detect.h"

namespace tesslin::plugins {
namespace {

enum Slot { kPdf, kApdf, kDoc, kPcl, kJp2, kAbic, kSlotCount };
constexpr int kMaxEntries = 5;

// A module's base name and the entry points looked up in it.
struct ModuleEntries {
    const char* base;
    const char* entries[kMaxEntries];
};

constexpr ModuleEntries kModules[kSlotCount] = {
    {"pdfmod", {"decode_pdf", "set_pdf_input", "pdf_get_pages", "pdf_search_text", "set_callbacks"}},
    {"apdfmod", {"decode_apdf", "set_pdf_input", "apdf_get_pages", "apdf_extract_text", nullptr}},
    {"docmod", {"decode_word", "set_word_input", "word_get_pages", "set_callbacks", nullptr}},
    {"pclmod", {"decode_pcl", "set_pcl_input", "pcl_get_pages", "set_callbacks", nullptr}},
    {"jp2mod", {"decode_jp2", "encode_jp2", "set_jp2_parameters", "set_callbacks", nullptr}},
    {"abicmod", {"IMG_decomp_abic", nullptr, nullptr, nullptr, nullptr}},
};

// Entry point positions in the table above.
enum Entry {
    kDecode = 0,
    kSetInput = 1,
    kPages = 2,
    kText = 3,  // pdf_search_text, apdf_extract_text
    kJp2Encode = 1,
    kJp2Parameters = 2
};

// Signatures of the entry points and of the functions handed to modules.
using ReadFn = int32_t (*)(int32_t, void*, uint32_t);
using WriteFn = int32_t (*)(int32_t, const void*, uint32_t);
using SeekFn = int32_t (*)(int32_t, int32_t, int);
using DecodeFn = int32_t (*)(uint32_t, IMG_RASTER_CALLBACK, intptr_t, IMG_HEADER_CALLBACK,
                             int32_t);
using DecodeFileFn = int32_t (*)(const char*, IMG_RASTER_CALLBACK, intptr_t, IMG_HEADER_CALLBACK,
                                 int32_t);
using EncodeFn = int32_t (*)(int32_t, const IMG_BITMAPINFOHEADER*, IMG_SUPPLY_CALLBACK, intptr_t);
using PagesFn = int32_t (*)(int32_t);
using PagesFileFn = int32_t (*)(const char*);
using SetInputFn = int32_t (*)(int32_t, int32_t);
using SetValueFn = int32_t (*)(int32_t);
using SearchTextFn = int32_t (*)(int32_t, int32_t, const char*, int32_t);
using ExtractTextFn = int32_t (*)(const char*, char**, int32_t);
using AbicFn = int32_t (*)(int32_t, int32_t, int32_t, int32_t, uint8_t*, SeekFn, ReadFn);
using DecompressMemFn = int32_t (*)(const void*, int32_t);
using DeleteFn = int32_t (*)(int32_t);
using DocCallbacksFn = void (*)(ReadFn, WriteFn, SeekFn, intptr_t, DecompressMemFn, void*, void*,
                                DeleteFn, void*);
using PclCallbacksFn = void (*)(ReadFn, WriteFn, SeekFn, intptr_t, DecompressMemFn, void*, void*,
                                DeleteFn);
using Jp2CallbacksFn = void (*)(ReadFn, WriteFn, SeekFn, void*);

struct Loaded {
    void* module = nullptr;
    void* entry[kMaxEntries] = {};
};

// Loading is serialised (a module's set_callbacks may call back into the
// library, hence recursive). Calls into loaded modules take no lock.
std::recursive_mutex g_lock;
Loaded g_loaded[kSlotCount];
char g_dir[4096];  // set by tesslin_set_plugin_dir; empty: not set

void* open_in(const std::string& dir, const char* base) {
    std::string path = dir;
    if (!path.empty() && path.back() != '/') path += '/';
    path += base;
    path += ".so";
    return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

// Search order: the directory the application set; else $TESSLIN_PLUGIN_DIR;
// else the directory of the library itself, then the loader's own search.
void* open_module(const char* base) {
    if (g_dir[0]) return open_in(g_dir, base);
    if (const char* env = std::getenv("TESSLIN_PLUGIN_DIR"); env && *env) return open_in(env, base);
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&open_module), &info) && info.dli_fname) {
        std::string self = info.dli_fname;
        const size_t slash = self.rfind('/');
        if (slash != std::string::npos)
            if (void* m = open_in(self.substr(0, slash), base)) return m;
    }
    return open_in("", base);
}

void pass_callbacks(Slot slot, void* fn) {
    const auto read = &stream::read;
    const auto write = &stream::write;
    const auto seek = &stream::seek;
    switch (slot) {
        case kPdf:
        case kDoc:
            reinterpret_cast<DocCallbacksFn>(fn)(read, write, seek, 0, &IMG_decompress_bitmap_mem,
                                                 nullptr, nullptr, &IMG_delete_bitmap, nullptr);
            break;
        case kPcl:
            reinterpret_cast<PclCallbacksFn>(fn)(read, write, seek, 0, &IMG_decompress_bitmap_mem,
                                                 nullptr, nullptr, &IMG_delete_bitmap);
            break;
        case kJp2:
            reinterpret_cast<Jp2CallbacksFn>(fn)(read, write, seek, nullptr);
            break;
        default:
            break;
    }
}

// The entry point of a slot, loading the module on first use; null when the
// module cannot be loaded or lacks the entry point.
void* entry(Slot slot, int index) {
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    Loaded& l = g_loaded[slot];
    if (!l.module) {
        void* module = open_module(kModules[slot].base);
        if (!module) return nullptr;
        l.module = module;
        void* callbacks = nullptr;
        for (int i = 0; i < kMaxEntries; ++i) {
            const char* name = kModules[slot].entries[i];
            if (!name) continue;
            l.entry[i] = dlsym(module, name);
            if (std::strcmp(name, "set_callbacks") == 0) callbacks = l.entry[i];
        }
        if (callbacks) pass_callbacks(slot, callbacks);
    }
    return l.entry[index];
}

template <typename Fn>
Fn get(Slot slot, int index) {
    return reinterpret_cast<Fn>(entry(slot, index));
}

void unload_all() {
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    for (Loaded& l : g_loaded) {
        if (l.module) dlclose(l.module);
        l = Loaded{};
    }
}

// Modules are released when the library is unloaded (or the process ends).
__attribute__((destructor)) void unload_at_exit() { unload_all(); }

}  // namespace

// A decoder or page counter that forwards to a module's entry point.
template <Slot S, int32_t Failure>
int32_t forward_decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                       IMG_HEADER_CALLBACK header, int32_t stream) {
    auto fn = get<DecodeFn>(S, kDecode);
    return fn ? fn(position, raster, user, header, stream) : Failure;
}

template <Slot S, int32_t Failure>
int32_t forward_pages(int32_t stream) {
    auto fn = get<PagesFn>(S, kPages);
    return fn ? fn(stream) : Failure;
}

int32_t apdf_pages(const char* file) {
    auto fn = get<PagesFileFn>(kApdf, kPages);
    return fn ? fn(file) : IMG_ERR_PLUGIN;
}

int32_t apdf_decode(const char* file, IMG_RASTER_CALLBACK raster, intptr_t user,
                    IMG_HEADER_CALLBACK header, int32_t page) {
    auto fn = get<DecodeFileFn>(kApdf, kDecode);
    return fn ? fn(file, raster, user, header, page) : IMG_ERR_PLUGIN;
}

int32_t abic_decode(int32_t stream, int32_t width, int32_t rows, uint8_t* out) {
    auto fn = get<AbicFn>(kAbic, kDecode);
    return fn ? fn(stream, width, rows, 5, out, &stream::seek, &stream::read) : IMG_ERR_ABIC_PLUGIN;
}

}  // namespace tesslin::plugins

namespace tesslin::modules {

using namespace plugins;

int32_t decode_pdf(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream) {
    return forward_decode<kPdf, IMG_ERR_PLUGIN>(position, raster, user, header, stream);
}

int32_t decode_doc(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream) {
    return forward_decode<kDoc, IMG_ERR_DOC_PLUGIN>(position, raster, user, header, stream);
}

int32_t decode_pcl(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream) {
    return forward_decode<kPcl, IMG_ERR_PLUGIN>(position, raster, user, header, stream);
}

int32_t decode_jp2(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream) {
    return forward_decode<kJp2, IMG_ERR_JP2_PLUGIN>(position, raster, user, header, stream);
}

int32_t encode_jp2(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t) {
    auto fn = get<EncodeFn>(kJp2, kJp2Encode);
    return fn ? fn(stream, header, supply, user) : IMG_ERR_JP2_PLUGIN;
}

int32_t pdf_pages(int32_t stream) { return forward_pages<kPdf, IMG_ERR_PLUGIN>(stream); }
int32_t pcl_pages(int32_t stream) { return forward_pages<kPcl, IMG_ERR_PCL_PLUGIN>(stream); }
int32_t doc_pages(int32_t stream) { return forward_pages<kDoc, IMG_ERR_DOC_PLUGIN>(stream); }

}  // namespace tesslin::modules

using namespace tesslin;
using namespace tesslin::plugins;

extern "C" {

TESSLIN_API int32_t tesslin_set_plugin_dir(const char* dir) {
    std::lock_guard<std::recursive_mutex> hold(g_lock);
    if (!dir) {
        g_dir[0] = 0;
        return 0;
    }
    const size_t n = std::strlen(dir);
    if (n >= sizeof g_dir) return IMG_ERR_BAD_IMAGE;
    std::memcpy(g_dir, dir, n + 1);
    return 0;
}

TESSLIN_API int32_t IMG_unload_plugins(void) {
    unload_all();
    return 0;
}

TESSLIN_API int32_t IMGLOW_set_pdf_input(int32_t a, int32_t b) {
    return api_call([&]() -> int32_t {
        // Both modules render pages (the stream one for the decode entry
        // points, the file-name one for pages when the stream one is
        // absent), so both get the setting; apdfmod's answer is returned.
        const auto by_name = get<SetInputFn>(kApdf, kSetInput);
        const auto by_stream = get<SetInputFn>(kPdf, kSetInput);
        if (!by_name && !by_stream) return IMG_ERR_PLUGIN;
        const int32_t r = by_name ? by_name(a, b) : by_stream(a, b);
        if (by_name && by_stream) by_stream(a, b);
        return r;
    });
}

TESSLIN_API int32_t IMGLOW_extract_text(const char* file, char** text, int32_t* length,
                                        int32_t flag) {
    return api_call([&]() -> int32_t {
        if (!text || !length) return IMG_ERR_BAD_IMAGE;
        *text = nullptr;
        *length = 0;
        const int32_t is_pdf =
            with_file(file, [](int32_t s) -> int32_t { return detect_format(s).is("pdf"); });
        if (is_pdf < 0) return is_pdf;
        if (!is_pdf) return IMG_ERR_UNSUPPORTED;
        auto fn = get<ExtractTextFn>(kApdf, kText);
        if (!fn) return IMG_ERR_PLUGIN;
        char* module_text = nullptr;
        const int32_t n = fn(file, &module_text, flag);
        if (n < 0 || !module_text) {
            std::free(module_text);
            return n < 0 ? n : IMG_ERR_TEXT_NOT_FOUND;
        }
        // Handed over in a library block, freed with tesslin_block_free.
        auto* block = static_cast<char*>(tesslin_block_alloc(uint32_t(n) + 1));
        if (!block) {
            std::free(module_text);
            return IMG_ERR_MEMORY;
        }
        std::memcpy(block, module_text, size_t(n));
        block[n] = 0;
        std::free(module_text);
        *text = block;
        *length = n;
        return 0;
    });
}

TESSLIN_API int32_t IMGLOW_search_text(const char* file, int32_t page, const char* text,
                                       int32_t flag) {
    return api_call([&]() -> int32_t {
        if (!text || !*text) return IMG_ERR_BAD_IMAGE;
        return with_file(file, [&](int32_t s) -> int32_t {
            if (!detect_format(s).is("pdf")) return IMG_ERR_UNSUPPORTED;
            auto fn = get<SearchTextFn>(kPdf, kText);
            return fn ? fn(s, page, text, flag) : IMG_ERR_PLUGIN;
        });
    });
}

TESSLIN_API int32_t IMGLOW_set_pcl_input(int32_t a, int32_t b) {
    return api_call([&]() -> int32_t {
        auto fn = get<SetInputFn>(kPcl, kSetInput);
        return fn ? fn(a, b) : IMG_ERR_PLUGIN;
    });
}

TESSLIN_API int32_t IMGLOW_set_jpeg2000_comp_ratio(int32_t ratio) {
    return api_call([&]() -> int32_t {
        auto fn = get<SetValueFn>(kJp2, kJp2Parameters);
        return fn ? fn(ratio) : IMG_ERR_JP2_PLUGIN;
    });
}

}  // extern "C"
