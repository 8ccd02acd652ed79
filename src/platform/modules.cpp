// Loadable modules: dlopen/dlsym/dlclose, and where the scanner's data
// source manager module is looked for.
#include <dlfcn.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/platform.h"

namespace tesslin::platform {

void* module_load(const char* path) {
    if (!path || !*path) return nullptr;
    return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

void* module_symbol(void* module, const char* name) {
    if (!module || !name) return nullptr;
    return dlsym(module, name);
}

void module_unload(void* module) {
    if (module) dlclose(module);
}

bool twain_manager_path(char* out, size_t size) {
    std::string path;
    if (const char* env = std::getenv("TESSLIN_TWAIN_DSM"); env && *env) {
        path = env;
    } else {
        Dl_info info;
        if (!dladdr(reinterpret_cast<void*>(&twain_manager_path), &info) || !info.dli_fname)
            return false;
        path = info.dli_fname;
        const size_t slash = path.rfind('/');
        path = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) +
               "libtesslin-twain.so";
    }
    if (!out || path.size() + 1 > size) return false;
    std::memcpy(out, path.c_str(), path.size() + 1);
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace tesslin::platform
