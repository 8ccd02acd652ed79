// The one pipeline seam the public interface cannot reach: the ABIC
// fallback when the data carries no parameters at all. (Everything else of
// the pipeline is tested through include/tesslin/tesslin.h.)
#include <gtest/gtest.h>

#include "pipeline/decode.h"
#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

TEST(AbicFallback, StatusesWithoutTheModuleOrItsParameters) {
    auto bilevel = [](int32_t, int32_t, AbicParams* p) {
        *p = AbicParams{20, 6, 1, 300, 300};
        return 0;
    };
    auto absent = [](int32_t, int32_t, AbicParams*) { return kAbicParamsAbsent; };
    void* block = to_block({'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 0, 0});
    const int32_t s = stream::mem_create(block);
    const std::string empty = temp_path("no-modules");
    fs::create_directories(empty);
    IMG_unload_plugins();
    tesslin_set_plugin_dir(empty.c_str());
    EXPECT_EQ(abic_fallback(s, 0, bilevel, nullptr), IMG_ERR_ABIC_PLUGIN);
    EXPECT_EQ(abic_fallback(s, 0, absent, nullptr), IMG_ERR_COMPRESSION);
    tesslin_set_plugin_dir(nullptr);
    stream::mem_release(s);
    tesslin_block_free(block);
}
