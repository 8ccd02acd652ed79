// The one pipeline seam the public interface cannot reach: the ABIC
// fallback's statuses without the module or without parameters. (Everything
// else of the pipeline is tested through include/tesslin/tesslin.h.)
#include <gtest/gtest.h>

#include "pipeline/decode.h"
#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

TEST(AbicFallback, StatusesWithoutTheModuleOrItsParameters) {
    void* block = to_block({'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 0, 0});
    void* other = to_block({'X', 'Y', 1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    const int32_t s = stream::mem_create(block), o = stream::mem_create(other);
    const TempDir empty("no-modules");
    IMG_unload_plugins();
    tesslin_set_plugin_dir(empty.path.c_str());
    EXPECT_EQ(abic_decode_image(s, AbicParams{20, 6, 1, 300, 300}), IMG_ERR_ABIC_PLUGIN);
    // Data no container describes stays undecoded.
    EXPECT_EQ(abic_fallback(o, 0), IMG_ERR_COMPRESSION);
    tesslin_set_plugin_dir(nullptr);
    stream::mem_release(s);
    stream::mem_release(o);
    tesslin_block_free(block);
    tesslin_block_free(other);
}
