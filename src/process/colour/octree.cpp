// Octree colour quantisation: the image's colours (or a caller's palette)
// counted into an octree of at most `colors` leaves, the leaves' mean colours
// as the palette, and the image mapped onto it with Floyd-Steinberg error
// diffusion.
//
//   IMG_octree_color   8, 24, 32 bits -> 4 or 8 bits; returns the number of
//                      palette entries; IMG_ERR_DEPTH for 1-, 4- and 16-bit
//                      sources and for output bits other than 4 and 8,
//                      IMG_ERR_HANDLE, IMG_ERR_MEMORY, or the progress
//                      callback's status (the bitmap keeps its image on every
//                      failure)
//
// The tree: a node at level l (0..7, the root at -1) has up to eight
// children, child index = blue bit x 4 + green bit x 2 + red bit of bit
// 7 - l of each component. A node with a pixel count is a leaf. Every node
// above the deepest level is kept in its level's reducible list, newest
// first. When a new leaf is needed and the tree holds the maximum, the
// deepest list's node whose children hold the fewest pixels (newest among
// equals) takes its children in, and its level becomes the deepest level.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/api.h"
#include "core/settings.h"
#include "process/colour/frame.h"
#include "process/colour/rows.h"

using namespace tesslin;

namespace {

struct Node {
    uint64_t sum_b = 0, sum_g = 0, sum_r = 0;
    uint32_t count = 0;  // pixels; non-zero marks a leaf
    uint32_t index = 0;  // palette index of a leaf
    int32_t child[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
    int32_t next = -1, prev = -1;  // reducible list
    int8_t level = -1;
    uint8_t children = 0;
};

// The path of a colour: child index at each level.
struct Path {
    uint8_t at[8];
    Path(uint32_t b, uint32_t g, uint32_t r) {
        for (int l = 0; l < 8; ++l)
            at[l] = uint8_t((((b >> (7 - l)) & 1) << 2) | (((g >> (7 - l)) & 1) << 1) | ((r >> (7 - l)) & 1));
    }
};

class Octree {
public:
    // What the first four levels of the paths of a 4-bit colour cell lead
    // to: a leaf, or the level-3 node to go on from; -1 for neither.
    struct Cell {
        int32_t node = -1, leaf = -1;
    };

    explicit Octree(int32_t max) : max_(max) {
        nodes_.reserve(1600);
        root_ = make(-1);
    }

    // Counts one colour into the tree. The first four levels of a path
    // depend on the colour's 4-bit cell only; what they lead to is kept per
    // cell (a leaf, or the level-3 node to go on from) until a reduction at
    // level 3 or above changes it, and a colour whose path is complete below
    // is added without walking from the root.
    void insert(uint32_t b, uint32_t g, uint32_t r) {
        const uint32_t cell_index = (b >> 4) << 8 | (g >> 4) << 4 | (r >> 4);
        Cell& cell = insert_cells_[cell_index];
        if (cell.leaf >= 0) return add(cell.leaf, b, g, r);
        if (cell.node >= 0) {
            int32_t node = cell.node;
            for (int32_t l = 4; l < 8; ++l) {
                const int32_t c = nodes_[size_t(node)].child[child_index(b, g, r, l)];
                if (c < 0) break;
                if (nodes_[size_t(c)].count != 0 || l == 7) return add(c, b, g, r);
                node = c;
            }
        }
        insert_walk(b, g, r);
        remember_cell(cell, b, g, r);
    }

    // The general insertion: walk from the root, reduce while the tree is
    // full, create the missing nodes.
    void insert_walk(uint32_t b, uint32_t g, uint32_t r) {
        const Path path(b, g, r);
        Walk w = walk(path);
        while (w.found < 0 && leaves_ >= max_) {
            if (!reduce()) break;
            w = walk(path);
        }
        if (w.found >= 0) return add(w.found, b, g, r);
        // New nodes from the first missing level down: each above the
        // deepest level joins its level's reducible list; the last is the
        // new leaf.
        int32_t parent = w.parent;
        for (int32_t l = w.missing;; ++l) {
            const int32_t n = make(l);
            nodes_[size_t(parent)].child[path.at[l]] = n;
            ++nodes_[size_t(parent)].children;
            if (l >= deepest_ || l == 7) {
                ++leaves_;
                return add(n, b, g, r);
            }
            link(n);
            parent = n;
        }
    }

    // Records what the first four levels of a cell's path lead to, when they
    // lead to a leaf or to an existing level-3 node.
    void remember_cell(Cell& cell, uint32_t b, uint32_t g, uint32_t r) {
        int32_t node = root_;
        for (int32_t l = 0; l < 4; ++l) {
            const int32_t c = nodes_[size_t(node)].child[child_index(b, g, r, l)];
            if (c < 0) return;
            if (nodes_[size_t(c)].count != 0) {
                cell.leaf = c;
                return;
            }
            node = c;
        }
        cell.node = node;
    }

    // Gives every leaf its palette index in depth-first order (each node
    // before its children, children in index order) and writes the mean
    // colours, up to `max` entries. Returns the number of entries.
    int32_t make_palette(RgbQuad* palette, int32_t max) {
        int32_t n = 0;
        std::vector<int32_t> stack{root_};
        while (!stack.empty() && n < max) {
            Node& node = nodes_[size_t(stack.back())];
            stack.pop_back();
            if (node.count) {
                node.index = uint32_t(n);
                palette[n] = RgbQuad{uint8_t(node.sum_b / node.count), uint8_t(node.sum_g / node.count),
                                     uint8_t(node.sum_r / node.count), 0};
                ++n;
            }
            for (int i = 7; i >= 0; --i)
                if (node.child[i] >= 0) stack.push_back(node.child[i]);
        }
        entries_ = n;
        palette_ = palette;
        return n;
    }

    // Palette index of a colour: the first leaf on its path, or where the
    // path breaks the entry nearest in halved components (green, blue, red
    // squared differences; lowest index among equals). Call prepare_map()
    // once the palette is made.
    uint32_t map(uint32_t b, uint32_t g, uint32_t r) {
        // The first four levels depend on the colour's 4-bit cell only.
        const Cell& cell = cells_[(b >> 4) << 8 | (g >> 4) << 4 | (r >> 4)];
        if (cell.leaf >= 0) return uint32_t(cell.leaf);
        if (cell.node >= 0) {
            int32_t node = cell.node;
            for (int32_t l = 4; l < 8; ++l) {
                const int32_t c = nodes_[size_t(node)].child[child_index(b, g, r, l)];
                if (c < 0) break;
                if (nodes_[size_t(c)].count != 0 || l == 7) return nodes_[size_t(c)].index;
                node = c;
            }
        }
        // The search depends on the halved components only: kept per
        // halved colour.
        uint16_t& known = nearest_[(b >> 1) << 14 | (g >> 1) << 7 | (r >> 1)];
        if (known == kUnknown) known = uint16_t(nearest(b, g, r));
        return known;
    }

    void prepare_map() {
        cells_.assign(4096, Cell{});
        for (uint32_t i = 0; i < 4096; ++i) {
            const uint32_t b = (i >> 8) << 4, g = ((i >> 4) & 15) << 4, r = (i & 15) << 4;
            int32_t node = root_;
            for (int32_t l = 0; l < 4; ++l) {
                const int32_t c = nodes_[size_t(node)].child[child_index(b, g, r, l)];
                if (c < 0) {
                    node = -1;
                    break;
                }
                if (nodes_[size_t(c)].count != 0) {
                    cells_[i].leaf = int32_t(nodes_[size_t(c)].index);
                    break;
                }
                node = c;
            }
            if (cells_[i].leaf < 0) cells_[i].node = node;
        }
        nearest_.assign(size_t(1) << 21, kUnknown);
        std::fill(half_b_, half_b_ + 256, kFarAway);
        std::fill(half_g_, half_g_ + 256, kFarAway);
        std::fill(half_r_, half_r_ + 256, kFarAway);
        for (int32_t i = 0; i < entries_; ++i) {
            half_b_[size_t(i)] = palette_[i].rgbBlue >> 1;
            half_g_[size_t(i)] = palette_[i].rgbGreen >> 1;
            half_r_[size_t(i)] = palette_[i].rgbRed >> 1;
        }
    }

private:
    struct Walk {
        int32_t found = -1;             // the leaf (or level-7 node) reached
        int32_t parent = -1, missing = -1;  // else where the path breaks
    };

    static uint32_t child_index(uint32_t b, uint32_t g, uint32_t r, int32_t l) {
        const int32_t bit = 7 - l;
        return (((b >> bit) & 1) << 2) | (((g >> bit) & 1) << 1) | ((r >> bit) & 1);
    }

    // The entry with the smallest squared distance in halved components,
    // the lowest index among equals (every distance is below the 65,535 the
    // search starts from). The distances of all 256 slots are computed side
    // by side; slots beyond the palette lie far away.
    uint32_t nearest(uint32_t b, uint32_t g, uint32_t r) const {
        const int32_t hb = int32_t(b >> 1), hg = int32_t(g >> 1), hr = int32_t(r >> 1);
        int32_t d[256];
        for (int32_t i = 0; i < 256; ++i) {
            const int32_t dg = hg - half_g_[i], db = hb - half_b_[i], dr = hr - half_r_[i];
            d[i] = dg * dg + db * db + dr * dr;
        }
        int32_t best = 65535;
        for (int32_t i = 0; i < 256; ++i) best = std::min(best, d[i]);
        uint32_t index = 0;
        while (d[index] != best) ++index;
        return index;
    }

    Walk walk(const Path& path) const {
        int32_t node = root_;
        for (int32_t l = 0; l < 8; ++l) {
            const int32_t c = nodes_[size_t(node)].child[path.at[l]];
            if (c < 0) return Walk{-1, node, l};
            if (nodes_[size_t(c)].count != 0 || l == 7) return Walk{c, -1, -1};
            node = c;
        }
        return Walk{};
    }

    void add(int32_t n, uint32_t b, uint32_t g, uint32_t r) {
        Node& node = nodes_[size_t(n)];
        ++node.count;
        node.sum_b += b, node.sum_g += g, node.sum_r += r;
    }

    int32_t make(int32_t level) {
        int32_t n;
        if (!free_.empty()) {
            n = free_.back();
            free_.pop_back();
            nodes_[size_t(n)] = Node{};
        } else {
            n = int32_t(nodes_.size());
            nodes_.emplace_back();
        }
        nodes_[size_t(n)].level = int8_t(level);
        return n;
    }

    void link(int32_t n) {
        Node& node = nodes_[size_t(n)];
        const int32_t l = node.level;
        node.prev = -1;
        node.next = heads_[l];
        if (heads_[l] >= 0) nodes_[size_t(heads_[l])].prev = n;
        heads_[l] = n;
    }

    void unlink(int32_t n) {
        Node& node = nodes_[size_t(n)];
        if (node.prev >= 0)
            nodes_[size_t(node.prev)].next = node.next;
        else
            heads_[node.level] = node.next;
        if (node.next >= 0) nodes_[size_t(node.next)].prev = node.prev;
        node.next = node.prev = -1;
    }

    // Folds the children of one node of the deepest reducible list into it.
    bool reduce() {
        int32_t l = 6;
        while (l >= 0 && heads_[l] < 0) --l;
        if (l < 0) return false;
        int32_t chosen = -1;
        uint64_t fewest = 0;
        for (int32_t n = heads_[l]; n >= 0; n = nodes_[size_t(n)].next) {
            uint64_t total = 0;
            for (int32_t c : nodes_[size_t(n)].child)
                if (c >= 0) total += nodes_[size_t(c)].count;
            if (chosen < 0 || total < fewest) chosen = n, fewest = total;
        }
        unlink(chosen);
        deepest_ = l;
        // Folding a node of level 3 or above changes where the first four
        // levels of some paths lead.
        if (l <= 3) std::fill(insert_cells_.begin(), insert_cells_.end(), Cell{});
        Node& node = nodes_[size_t(chosen)];
        for (int32_t& c : node.child) {
            if (c < 0) continue;
            const Node& child = nodes_[size_t(c)];
            node.count += child.count;
            node.sum_b += child.sum_b, node.sum_g += child.sum_g, node.sum_r += child.sum_r;
            free_.push_back(c);
            c = -1;
            --leaves_;
        }
        node.children = 0;
        ++leaves_;
        return true;
    }

    std::vector<Node> nodes_;
    std::vector<int32_t> free_;
    int32_t heads_[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
    int32_t root_ = -1;
    int32_t leaves_ = 0, max_, deepest_ = 7, entries_ = 0;
    const RgbQuad* palette_ = nullptr;
    // Mapping: per 4-bit cell the palette index of a leaf reached within four
    // levels, or the level-3 node to go on from (-1 when the path breaks
    // before it).
    static constexpr uint16_t kUnknown = 0xFFFF;
    std::vector<Cell> cells_;
    std::vector<Cell> insert_cells_ = std::vector<Cell>(4096);  // for insert(): leaf as node id
    std::vector<uint16_t> nearest_;  // per halved colour, kUnknown until searched
    static constexpr int32_t kFarAway = 1000;
    int32_t half_b_[256] = {}, half_g_[256] = {}, half_r_[256] = {};  // palette, halved
};

inline int32_t clamp255(int32_t v) { return v < 0 ? 0 : v > 255 ? 255 : v; }

// One row of Floyd-Steinberg diffusion in direction `Step` over rows of
// blue, green, red per pixel (two spare pixels on each side).
template <int Step, typename Index>
void diffuse_row(int32_t* cur, int32_t* next, uint32_t width, const RgbQuad* palette, uint32_t bits,
                 uint8_t* out, Index index_of) {
    const int32_t n = int32_t(width);
    int32_t x = Step > 0 ? 0 : n - 1;
    for (int32_t i = 0; i < n; ++i, x += Step) {
        int32_t* p = cur + 3 * x;
        const int32_t b = clamp255(p[0]), g = clamp255(p[1]), r = clamp255(p[2]);
        const uint32_t index = index_of(uint32_t(b), uint32_t(g), uint32_t(r));
        if (bits == 8)
            out[x] = uint8_t(index);
        else
            out[x >> 1] = uint8_t(out[x >> 1] | ((x & 1) ? index : index << 4));
        const RgbQuad& e = palette[index];
        const int32_t error[3] = {b - e.rgbBlue, g - e.rgbGreen, r - e.rgbRed};
        int32_t* q = next + 3 * x;
        for (int c = 0; c < 3; ++c) {
            const int32_t v = error[c];
            p[c + 3 * Step] += 7 * v / 16;
            q[c - 3 * Step] += 3 * v / 16;
            q[c] += 5 * v / 16;
            q[c + 3 * Step] += v / 16;
        }
    }
}

// Blue, green, red of stored row s into a working row.
void fetch(colour::RowReader& src, int32_t s, int32_t* out) {
    const uint8_t* p = src.bgr(s);
    for (uint32_t i = 0; i < 3 * src.width(); ++i) out[i] = p[i];
}

int32_t octree(int32_t handle, int32_t bits, const RgbQuad* caller, int32_t colors) {
    BitmapObject* obj = nullptr;
    if (int32_t s = colour::find(handle, &obj)) return s;
    colour::discard_window_level(obj);
    const uint32_t depth = obj->bits();
    if (depth != 8 && depth != 24 && depth != 32) return IMG_ERR_DEPTH;
    if (bits != 4 && bits != 8) return IMG_ERR_DEPTH;
    const int32_t max = std::min(std::clamp(colors, 8, 256), bits == 4 ? 16 : 256);

    process::NewImage image;
    if (int32_t s = colour::create(image, obj, bits)) return s;
    colour::RowReader src(obj);
    const uint32_t width = src.width();
    const int32_t height = src.height();
    const int32_t total = height > INT32_MAX / 2 ? INT32_MAX : height * 2;
    const uint32_t rb = image.row_bytes();

    Octree tree(max);
    RgbQuad* palette = image.palette();
    std::memset(palette, 0, palette_bytes(uint32_t(bits)));
    if (caller) {
        const int32_t n = std::clamp(colors, 0, 256);
        for (int32_t i = 0; i < n; ++i) tree.insert(caller[i].rgbBlue, caller[i].rgbGreen, caller[i].rgbRed);
    } else {
        for (int32_t s = 0; s < height; ++s) {
            const uint8_t* p = src.bgr(s);
            for (uint32_t x = 0; x < width; ++x, p += 3) tree.insert(p[0], p[1], p[2]);
            if (int32_t r = report_progress(total, s, rb); r < 0) return r;
        }
    }
    const int32_t entries = tree.make_palette(palette, max);

    tree.prepare_map();
    auto index_of = [&](uint32_t b, uint32_t g, uint32_t r) { return tree.map(b, g, r); };
    const size_t pitch = (size_t(width) + 4) * 3;
    std::vector<int32_t> work(pitch * 2, 0);
    int32_t* cur = work.data() + 6;
    int32_t* next = cur + pitch;
    fetch(src, 0, cur);
    if (height > 1) fetch(src, 1, next);
    for (int32_t s = 0; s < height; ++s) {
        uint8_t* out = colour::stored_row(image, s);
        std::memset(out, 0, rb);
        if (s & 1)
            diffuse_row<-1>(cur, next, width, palette, uint32_t(bits), out, index_of);
        else
            diffuse_row<1>(cur, next, width, palette, uint32_t(bits), out, index_of);
        std::swap(cur, next);
        // The spare pixels gather shares that are never read; cleared so
        // that tall images cannot make them overflow.
        std::fill(next - 6, next, 0);
        std::fill(next + 3 * size_t(width), next + 3 * size_t(width) + 6, 0);
        if (s + 2 < height) fetch(src, s + 2, next);
        if (int32_t r = report_progress(total, s, rb); r < 0) return r;
    }
    if (int32_t s = colour::install(image, obj)) return s;
    return entries;
}

}  // namespace

extern "C" TESSLIN_API int32_t IMG_octree_color(int32_t handle, int32_t bits, const IMG_RGBQUAD* palette,
                                                int32_t colors) {
    return api_call([&] { return octree(handle, bits, palette, colors); });
}
