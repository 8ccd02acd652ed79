// Photographic effects in place on 24-bit images.
//
//   IMG_remove_red_eye  24 bits; IMG_ERR_DEPTH otherwise
//   IMG_antique_effect  24 bits; IMG_ERR_DEPTH otherwise
//
// Both: IMG_ERR_HANDLE for a bad handle, IMG_ERR_MEMORY.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "core/api.h"
#include "process/tone/tone.h"

using namespace tesslin;

namespace {

// A group of red pixels: stored rows bottom ... top, columns left ... right,
// all inclusive while collecting.
struct Box {
    int32_t bottom, top, left, right;
    int64_t count;
    bool contains(int32_t x, int32_t s) const {
        return s >= bottom && s <= top && x >= left && x <= right;
    }
};

inline bool is_red(const uint8_t* p) { return p[2] >= 129 && p[2] > p[1] + p[0]; }

int32_t remove_red_eye(int32_t handle, int32_t x, int32_t y, int32_t w, int32_t h) {
    BitmapObject* obj = nullptr;
    if (int32_t s = tone::find(handle, &obj)) return s;
    if (obj->bits() != 24) return IMG_ERR_DEPTH;
    const int32_t width = obj->width, height = obj->height;
    // The search area in stored rows and columns, kept inside the image.
    int32_t s0 = 0, s1 = height - 1, x0 = 0, x1 = width - 1;
    if (x != -1 && y != -1 && w != -1 && h != -1) {
        s0 = std::max<int64_t>(0, int64_t(height) - y - h);
        s1 = int32_t(std::min<int64_t>(height - 1, int64_t(height) - y - 1));
        x0 = std::max(0, x);
        x1 = int32_t(std::min<int64_t>(width - 1, int64_t(x) + w - 1));
    }
    uint8_t* pixels = obj->pixels();
    auto at = [&](int32_t px, int32_t s) { return pixels + size_t(s) * obj->row_bytes + 3 * size_t(px); };

    // Collect: a red pixel inside a box counts for the first such box and
    // pushes each edge it lies on outward by one; any other red pixel starts
    // a box around itself. Boxes whose top lies below the row being scanned
    // can take no more pixels, so only the others are searched.
    std::vector<Box> boxes;
    std::vector<uint32_t> active;
    for (int32_t s = s0; s <= s1; ++s) {
        std::erase_if(active, [&](uint32_t i) { return boxes[i].top < s; });
        for (int32_t px = x0; px <= x1; ++px) {
            if (!is_red(at(px, s))) continue;
            Box* hit = nullptr;
            for (uint32_t i : active)
                if (boxes[i].contains(px, s)) {
                    hit = &boxes[i];
                    break;
                }
            if (hit) {
                ++hit->count;
                if (s == hit->bottom) hit->bottom = std::max(0, s - 1);
                if (s == hit->top) hit->top = std::min(height - 1, s + 1);
                if (px == hit->left) hit->left = std::max(0, px - 1);
                if (px == hit->right) hit->right = std::min(width - 1, px + 1);
            } else {
                active.push_back(uint32_t(boxes.size()));
                boxes.push_back({std::max(0, s - 1), std::min(height - 1, s + 1),
                                 std::max(0, px - 1), std::min(width - 1, px + 1), 1});
            }
        }
    }
    // A box also counts the pixels of every other box holding one of its corners.
    std::vector<int64_t> total(boxes.size());
    for (size_t i = 0; i < boxes.size(); ++i) {
        const Box& b = boxes[i];
        total[i] = b.count;
        for (size_t j = 0; j < boxes.size(); ++j) {
            if (j == i) continue;
            const Box& o = boxes[j];
            if (o.contains(b.left, b.bottom) || o.contains(b.right, b.bottom) ||
                o.contains(b.left, b.top) || o.contains(b.right, b.top))
                total[i] += o.count;
        }
    }
    // Correct the boxes big enough to be a pupil and small enough not to be
    // a red object: reddish pixels take the smaller of green and blue.
    const int64_t limit = int64_t(width) * height / 800;
    for (size_t i = 0; i < boxes.size(); ++i) {
        if (total[i] < 4 || total[i] >= limit) continue;
        const Box& b = boxes[i];
        for (int32_t s = b.bottom; s < b.top; ++s)
            for (int32_t px = b.left; px < b.right; ++px) {
                uint8_t* p = at(px, s);
                if (2 * p[2] > p[1] + p[0]) p[2] = std::min(p[0], p[1]);
            }
    }
    return 0;
}

int32_t antique_effect(int32_t handle) {
    BitmapObject* obj = nullptr;
    if (int32_t s = tone::find(handle, &obj)) return s;
    if (obj->bits() != 24) return IMG_ERR_DEPTH;
    const int32_t width = obj->width, height = obj->height;
    const auto frame = int32_t(width * 0.02);
    for (int32_t s = 0; s < height; ++s) {
        uint8_t* p = obj->pixels() + size_t(s) * obj->row_bytes;
        const bool band = s < frame || s >= height - frame;
        for (int32_t x = 0; x < width; ++x, p += 3) {
            if (band || x < frame || x >= width - frame) {
                p[0] = 183, p[1] = 220, p[2] = 250;  // the frame colour 0x00B7DCFA
                continue;
            }
            const int32_t l = (75 * p[1] + 14 * p[0] + 38 * p[2]) >> 7;
            p[2] = uint8_t(l), p[1] = uint8_t(l * 134 / 170), p[0] = uint8_t(l * 94 / 170);
        }
    }
    return 0;
}

}  // namespace

extern "C" {

TESSLIN_API int32_t IMG_remove_red_eye(int32_t handle, int32_t x, int32_t y, int32_t width,
                                       int32_t height) {
    return api_call([&] { return remove_red_eye(handle, x, y, width, height); });
}

TESSLIN_API int32_t IMG_antique_effect(int32_t handle) {
    return api_call([&] { return antique_effect(handle); });
}

}  // extern "C"
