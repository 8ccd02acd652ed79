// Shared by the tests of the real plug-in modules (modules/): a fixture that
// points the loader at the build's module directory and skips cleanly when
// the module was not built.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "test_util.h"

namespace tesslin::test {

#ifdef TESSLIN_MODULE_DIR
inline const std::string kModuleDir = TESSLIN_MODULE_DIR;
#else
inline const std::string kModuleDir;
#endif

inline bool module_built(const char* base) {
    return !kModuleDir.empty() && fs::exists(kModuleDir + "/" + base + ".so");
}

class ModuleTest : public ::testing::Test {
protected:
    // Loads modules from the build's module directory; false (and the test
    // skipped) when `base` was not built.
    bool use(const char* base) {
        if (!module_built(base)) return false;
        IMG_unload_plugins();
        tesslin_set_plugin_dir(kModuleDir.c_str());
        return true;
    }
    void TearDown() override {
        IMG_unload_plugins();
        tesslin_set_plugin_dir(nullptr);
    }
};

#define REQUIRE_MODULE(base) \
    if (!use(base)) GTEST_SKIP() << base ".so was not built"
#define REQUIRE_TOOL(tool) \
    if (!have_tool(tool)) GTEST_SKIP() << tool " is not installed"

}  // namespace tesslin::test
