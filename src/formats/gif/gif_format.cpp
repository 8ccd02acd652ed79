// The GIF registry descriptor and the exported animation-delay query.
#include "core/api.h"
#include "core/entry.h"
#include "formats/gif/gif.h"

namespace tesslin {
namespace {

bool is_gif(const Probe& p) { return p.starts_with("GIF"); }

constexpr CodeRow kGifCodes[] = {
    {IMG_FORMAT_GIF, "gif", "GIF", "gif", gif::encode, IMG_FORMAT_GIF, RowSupply::kPacked, false,
     true},
    {IMG_FORMAT_GIF_INTERLACED, "gif-interlaced", "GIF, interlaced", "gif", gif::encode,
     IMG_FORMAT_GIF_INTERLACED},
};

}  // namespace

namespace formats {

extern const FormatDescriptor kGif = {
    .tag = "gif", .detect_switch = IMG_FORMAT_GIF, .signature = is_gif,
    .refine = gif::refine_code, .decode = gif::decode, .count_pages = gif::count_frames,
    .count_pages_mem = gif::count_frames, .codes = kGifCodes};

}  // namespace formats
}  // namespace tesslin

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMGLOW_get_anim_delay(const char* file) {
    return api_call([&]() -> int32_t { return with_file(file, gif::animation_delay); });
}

}  // extern "C"
