// GIF reader and writer: files made by Pillow and ImageMagick decode to
// their pixels, what we write reads back exactly in both, and the reader's
// rules on small files built here. (The corpus' GIF pages are held against
// their references by the conformance suite.)
#include <gtest/gtest.h>

#include "format_checks.h"
#include "formats/gif/gif.h"
#include "gif_builder.h"
#include "peer_decode.h"
#include "test_util.h"

using namespace tesslin;
using namespace tesslin::test;

namespace {

// Random palette images by Pillow: every table size (so every LZW code size
// from 2 to 8), plain and interlaced, one with a transparent index, and a
// three-frame animation whose later frames carry local tables.
const char* kPillowScript = R"(
import random, sys
from PIL import Image
random.seed(7)
d = sys.argv[1]
def image(w, h, n):
    im = Image.new('P', (w, h))
    im.putpalette([random.randrange(256) for _ in range(3 * n)])
    im.putdata([random.randrange(n) for _ in range(w * h)])
    return im
for n, il in [(2, False), (4, True), (8, False), (32, True), (64, False), (128, True), (256, False)]:
    image(61, 37, n).save('%s/p%d.gif' % (d, n), interlace=il)
image(40, 30, 16).save(d + '/transparent.gif', transparency=3)
frames = [image(40, 30, n) for n in (16, 64, 256)]
frames[0].save(d + '/anim.gif', save_all=True, append_images=frames[1:], duration=[30, 40, 50])
)";

std::string make_peer_files() {
    const std::string d = temp_path("gif_peers");
    fs::create_directories(d);
    if (have_pillow()) {
        write_file(d + "/make.py", Bytes(kPillowScript, kPillowScript + std::strlen(kPillowScript)));
        run("/usr/bin/python3 '" + d + "/make.py' '" + d + "'");
    }
    if (have_tool("/usr/bin/convert")) {
        // One run: a noise image reduced to 200 colours, to 16 colours
        // and interlaced, and a two-frame animation of 40 and 9 colours.
        run("cd '" + d + "' && /usr/bin/convert -seed 3 -size 53x41 xc: +noise Random "
            "\\( +clone -colors 200 -write im200.gif +delete \\) "
            "\\( +clone -colors 16 -interlace GIF -write im16i.gif +delete \\) "
            "-delay 9 -colors 40 \\( -size 53x41 xc: +noise Random -colors 9 \\) im_anim.gif");
    }
    std::vector<std::string> files;
    for (const auto& e : fs::directory_iterator(d))
        if (e.path().extension() == ".gif") files.push_back(e.path().string());
    peer_decode(files);
    return d;
}

Decoded read_gif(const Bytes& file, uint32_t position = 0) { return decode_with(gif::decode, file, position); }

}  // namespace

TEST(GifPeers, FilesOfPillowAndImageMagickDecodeToTheirPixels) {
    if (!have_pillow() || !have_tool("/usr/bin/convert")) GTEST_SKIP() << "Pillow or ImageMagick missing";
    const std::string d = make_peer_files();
    struct Case { const char* file; int frames; };
    const Case cases[] = {{"p2.gif", 1}, {"p4.gif", 1}, {"p8.gif", 1}, {"p32.gif", 1}, {"p64.gif", 1},
                          {"p128.gif", 1}, {"p256.gif", 1}, {"transparent.gif", 1}, {"anim.gif", 3},
                          {"im200.gif", 1}, {"im16i.gif", 1}, {"im_anim.gif", 2}};
    for (const Case& c : cases) {
        const std::string path = d + "/" + c.file;
        EXPECT_EQ(IMGLOW_get_pages(path.c_str()), c.frames) << c.file;
        for (int page = 0; page < c.frames; ++page) {
            const Handle h = IMG_decompress_bitmap_page(path.c_str(), page);
            ASSERT_GE(h, 0) << c.file << " frame " << page;
            for (const char* tool : {"pil", "im"})
                EXPECT_EQ(count_differences(handle_raster(h), peer_frame(path, tool, page), 3), 0u)
                    << c.file << " frame " << page << " " << tool;
        }
    }
    // Detection names the interlaced variant by the first frame.
    EXPECT_EQ(IMGLOW_get_filetype((d + "/p4.gif").c_str()), IMG_FORMAT_GIF_INTERLACED);
    EXPECT_EQ(IMGLOW_get_filetype((d + "/p2.gif").c_str()), IMG_FORMAT_GIF);
    EXPECT_EQ(IMGLOW_get_anim_delay((d + "/anim.gif").c_str()), 3);
    EXPECT_EQ(read_gif(read_file(d + "/transparent.gif")).h().biClrUsed, 0x1003u);
    fs::remove_all(d);
}

// What we write: 4 and 8 bits, plain and interlaced, with and without a
// transparent index, read back exactly by Pillow and ImageMagick; the large
// random image makes the writer's table restart many times.
TEST(GifWrite, PeersReadBackEveryPixel) {
    if (!have_pillow() || !have_tool("/usr/bin/convert")) GTEST_SKIP() << "Pillow or ImageMagick missing";
    struct Case { int32_t w, h; int bits; int32_t code; int transparent; };
    const Case cases[] = {{45, 31, 4, IMG_FORMAT_GIF, -1}, {45, 31, 4, IMG_FORMAT_GIF_INTERLACED, 5},
                          {300, 211, 8, IMG_FORMAT_GIF, 200}, {17, 50, 8, IMG_FORMAT_GIF_INTERLACED, -1},
                          {1, 1, 8, IMG_FORMAT_GIF, -1}};
    // Written first, then read by each peer in one run.
    std::vector<std::string> paths;
    std::vector<int32_t> handles;
    for (const Case& c : cases) {
        const int32_t h = random_image(c.w, c.h, c.bits, uint32_t(c.w * c.code));
        if (c.transparent >= 0) IMGLOW_set_transp_color(h, uint32_t(c.transparent));
        int32_t status = 0;
        const Bytes file = save_mem(h, c.code, &status);
        ASSERT_GT(status, 0) << c.w << "x" << c.h;
        paths.push_back(temp_path("written" + std::to_string(paths.size()) + ".gif"));
        write_file(paths.back(), file);
        handles.push_back(h);
        EXPECT_EQ(file[4], c.transparent >= 0 ? '9' : '7');
        EXPECT_EQ(filetype_mem(file), c.code);
        // Read back here: the same depth, pixels and transparency.
        const Decoded back = read_gif(file);
        ASSERT_EQ(back.status, 0);
        EXPECT_EQ(back.bits(), c.bits);
        EXPECT_EQ(back.h().biClrUsed, c.transparent >= 0 ? uint32_t(c.transparent) | 0x1000 : 0u);
        EXPECT_EQ(count_differences(back.raster(), handle_raster(h), 3), 0u);
    }
    // 4096 equal pixels in a row: the table restarts after code 4080.
    handles.push_back(make_handle(4096, 1, 8, [](uint8_t* row, uint32_t n, int32_t) { std::memset(row, 9, n); }));
    paths.push_back(temp_path("flat.gif"));
    write_file(paths.back(), save_mem(handles.back(), IMG_FORMAT_GIF));
    peer_decode(paths);
    for (size_t i = 0; i < paths.size(); ++i) {
        const Raster ours = handle_raster(handles[i]);
        for (const char* tool : {"pil", "im"})
            EXPECT_EQ(count_differences(ours, peer_frame(paths[i], tool), 3), 0u) << paths[i] << " " << tool;
        EXPECT_TRUE(run("giftext '" + paths[i] + "'")) << "giflib refuses " << paths[i];
        IMG_delete_bitmap(handles[i]);
        remove_with_decodes(paths[i]);
    }
    // Depths GIF does not hold.
    for (int bits : {1, 24}) EXPECT_EQ(save_status(bits, IMG_FORMAT_GIF), IMG_ERR_DEPTH) << bits;
}

// The reader's rules on files built here, each checked against Pillow where
// Pillow reads the file.
TEST(GifRead, BuiltFilesFollowTheReadersRules) {
    std::vector<uint8_t> ramp(6 * 5);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = uint8_t(i % 13);
    // Local 16-colour table: 4 bits; a global table with size bits 0: 8 bits
    // with 256 entries; a frame beyond the screen decodes at its own size.
    GifFrame local{.width = 6, .height = 5, .indices = ramp, .local_bits = 4};
    GifFrame global{.width = 6, .height = 5, .indices = ramp};
    GifFrame outside{.left = 900, .top = 900, .width = 6, .height = 5, .indices = ramp, .delay = 4, .transparent = 2};
    GifFrame odd{.width = 6, .height = 5, .indices = ramp, .local_bits = 5, .min_code = 5};
    const Bytes file = gif_file(6, 5, 4, {local, global, odd, outside, global});
    const std::string path = temp_path("built.gif");
    write_file(path, file);
    peer_decode({path});
    EXPECT_EQ(IMGLOW_get_pages(path.c_str()), 5);
    const int expect_bits[] = {4, 8, 8, 8, 8};
    for (int page = 0; page < 5; ++page) {
        const Decoded d = read_gif(file, page ? kPositionIsPage | uint32_t(page) : 0);
        ASSERT_EQ(d.status, 0) << page;
        EXPECT_EQ(d.width(), 6);
        EXPECT_EQ(d.bits(), expect_bits[page]) << page;
        // The transparent index of frame 3 stays in force for frame 4.
        EXPECT_EQ(d.h().biClrUsed, page >= 3 ? 0x1002u : 0u) << page;
        // ImageMagick reads each frame on its own; Pillow places frame 3 on
        // a screen it enlarges, and composes frame 4 over it.
        if (have_tool("/usr/bin/convert")) {
            EXPECT_EQ(count_differences(d.raster(), peer_frame(path, "im", page), 3), 0u) << page;
        }
        if (have_pillow() && page < 3) {
            EXPECT_EQ(count_differences(d.raster(), peer_frame(path, "pil", page), 3), 0u) << page;
        }
    }
    EXPECT_EQ(read_gif(file, kPositionIsPage | 5).status, gif::kNoFrame);
    EXPECT_EQ(read_gif(file, kPositionIsPage | 9).status, gif::kNoFrame);
    EXPECT_EQ(IMGLOW_get_anim_delay(path.c_str()), IMG_ERR_GIF_BLOCK);  // nothing before frame 0
    remove_with_decodes(path);

    // Interlaced, 3 rows: delivered 0, 2, 1.
    const Decoded three = read_gif(gif_file(2, 3, 2, {{.width = 2, .height = 3, .indices = {0, 1, 2, 3, 1, 0}, .interlaced = true}}));
    EXPECT_EQ(three.order, (std::vector<int32_t>{0, 2, 1}));
    // Without an end code the rows still come; without a clear code first: IMG_ERR_BAD_IMAGE.
    EXPECT_EQ(read_gif(gif_file(6, 5, 4, {{.width = 6, .height = 5, .indices = ramp, .end_code = false}})).status, 0);
    EXPECT_EQ(read_gif(gif_file(6, 5, 4, {{.width = 6, .height = 5, .indices = ramp, .clear_first = false}})).status,
              IMG_ERR_BAD_IMAGE);
}

// Damaged and hostile data: the status the reader names, nothing delivered
// that the data does not hold, and no allocation the stream cannot justify.
TEST(GifRead, DamagedDataGivesItsStatus) {
    std::vector<uint8_t> ramp(40 * 30);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = uint8_t(i % 16);
    const Bytes good = gif_file(40, 30, 4, {{.width = 40, .height = 30, .indices = ramp, .delay = 7}});
    const size_t data_at = 13 + 48 + 8 + 10 + 1;
    Bytes huge = good;
    huge[13 + 48 + 8 + 5] = huge[13 + 48 + 8 + 6] = huge[13 + 48 + 8 + 7] = huge[13 + 48 + 8 + 8] = 0xFF;
    Bytes wide_codes = good;
    wide_codes[data_at - 1] = 13;  // code size byte above 12: the size bits (0) give 1
    Bytes no_separator = Bytes(good.begin(), good.begin() + 13 + 48);
    no_separator.push_back('x');
    expect_statuses(gif::decode, {
        {"intact", good, 0, 30},
        {"data cut short", Bytes(good.begin(), good.begin() + long(data_at + 300)), 0, 3},
        {"cut inside the extension", Bytes(good.begin(), good.begin() + 13 + 48 + 4), IMG_ERR_BAD_IMAGE, 0},
        {"no image separator", no_separator, IMG_ERR_BAD_IMAGE, 0},
        {"descriptor cut short", Bytes(good.begin(), good.begin() + 13 + 48 + 8 + 5), IMG_ERR_READ, 0},
        {"screen cut short", Bytes(good.begin(), good.begin() + 9), IMG_ERR_READ, 0},
        {"65535 x 65535 from 600 bytes", huge, IMG_ERR_BAD_IMAGE, 0},
        {"code size above 12", wide_codes, IMG_ERR_BAD_IMAGE, 0},
    }, true);
    // The delay query.
    const std::string path = temp_path("delay.gif");
    write_file(path, good);
    EXPECT_EQ(IMGLOW_get_anim_delay(path.c_str()), 7);
    write_file(path, Bytes{'G', 'I', 'F', '8', '9'});
    EXPECT_EQ(IMGLOW_get_anim_delay(path.c_str()), IMG_ERR_READ);
    write_file(path, Bytes(20, 'x'));
    EXPECT_EQ(IMGLOW_get_anim_delay(path.c_str()), IMG_ERR_UNSUPPORTED);
    fs::remove(path);
    EXPECT_EQ(IMGLOW_get_anim_delay(path.c_str()), IMG_ERR_OPEN);
}
