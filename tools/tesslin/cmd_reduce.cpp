// tesslin reduce: pages to 16 or 256 colours.
#include <string>

#include "common.h"

namespace cli {

extern const char* const reduce_help =
    "usage: tesslin reduce INPUT OUTPUT [--colors 16|256] [--method M]\n"
    "                      [--page N | --all-pages] [--format F] [--quiet]\n"
    "\n"
    "Reduces pages to a palette of 16 colours (4 bits a pixel) or 256 (8 bits).\n"
    "  --colors 16|256   (default 256)\n"
    "  --method octree      a palette of the page's own colours from an octree,\n"
    "                       with Floyd-Steinberg diffusion (default; 16 and 256)\n"
    "  --method popularity  the 255 most frequent colours after black, no\n"
    "                       diffusion (256)\n"
    "  --method mediancut   error diffusion into the fixed 3-3-2 colour cube, or\n"
    "                       the fixed 256-colour table with dithering mode 2 (256)\n"
    "  --method diffusion   error diffusion: into the 16 basic colours (16), as\n"
    "                       mediancut (256)\n"
    "  --method ordered     ordered dither into the 16 basic colours (16)\n"
    "Pages deeper methods need are promoted to 24 bits first.\n"
    "--page, --all-pages, --format and --quiet as for 'tesslin convert'.\n";

namespace {

enum class Method { kOctree, kPopularity, kFixed, kDiffusion16, kOrdered16 };

// The depths below which a method first needs the page as 24-bit colour.
bool needs_colour(Method m, int32_t bits) {
    switch (m) {
        case Method::kOctree: return bits != 8 && bits != 24 && bits != 32;
        case Method::kPopularity: return bits < 24;
        default: return bits == 1;
    }
}

}  // namespace

int run_reduce(int argc, char** argv) {
    PageJob job("reduce", "reduce", "reducing");
    int32_t colours = 256;
    std::string method_name = "octree";
    const auto own = [&](Args& a) {
        if (a.is("--method"))
            return a.text(&method_name, "--method needs octree, popularity, mediancut, diffusion or ordered")
                       ? Taken::kYes
                       : Taken::kBad;
        return choice_option(a, "--colors", &colours, {16, 256}, "--colors needs 16 or 256");
    };
    if (!job.parse(argc, argv, own)) return kUsageError;
    Method method;
    if (method_name == "octree")
        method = Method::kOctree;
    else if (method_name == "popularity" && colours == 256)
        method = Method::kPopularity;
    else if ((method_name == "mediancut" || method_name == "diffusion") && colours == 256)
        method = Method::kFixed;
    else if (method_name == "diffusion" && colours == 16)
        method = Method::kDiffusion16;
    else if (method_name == "ordered" && colours == 16)
        method = Method::kOrdered16;
    else if (method_name == "popularity" || method_name == "mediancut" || method_name == "ordered")
        return usage_error("--method " + method_name + " makes " + (method_name == "ordered" ? "16" : "256") +
                               " colours, not " + std::to_string(colours),
                           job.command);
    else
        return usage_error("--method needs octree, popularity, mediancut, diffusion or ordered, not '" +
                               method_name + "'",
                           job.command);
    return run_pages(job, [method, colours](int32_t handle) -> int32_t {
        int32_t w = 0, h = 0, bits = 0;
        IMG_bitmap_info(handle, &w, &h, &bits);
        if (needs_colour(method, bits))
            if (int32_t s = IMG_promote_24(handle); s < 0) return s;
        switch (method) {
            case Method::kOctree: return IMG_octree_color(handle, colours == 16 ? 4 : 8, nullptr, colours);
            case Method::kPopularity: return IMG_popularity_color(handle);
            case Method::kFixed: return IMG_mediancut_color(handle);
            case Method::kDiffusion16: return IMG_diffusion_color(handle);
            case Method::kOrdered16: return IMG_bayer_color(handle);
        }
        return IMG_ERR_UNSUPPORTED;
    });
}

}  // namespace cli
