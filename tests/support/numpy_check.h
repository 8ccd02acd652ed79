// Handles as pixel arrays, checked against numpy and Pillow by
// tests/support/numpy_ops.py (one script run for a whole batch of checks).
#pragma once

#include "test_util.h"

namespace tesslin::test {

// Pixels of an image, top row first, k bytes each: the palette index for 1,
// 4 and 8 bits, the pixel's own bytes for 16, 24 and 32.
struct PixelArray {
    int32_t width = 0, height = 0, k = 1;
    Bytes px;
    bool operator==(const PixelArray&) const = default;
};

inline PixelArray pixels_of(int32_t handle) {
    PixelArray a;
    int32_t bits = 0;
    IMG_bitmap_info(handle, &a.width, &a.height, &bits);
    a.k = bits <= 8 ? 1 : bits / 8;
    for (int32_t y = 0; y < a.height; ++y) {
        const Bytes row = get_row(handle, y);
        for (int32_t x = 0; x < a.width; ++x) {
            if (bits == 1)
                a.px.push_back((row[size_t(x) / 8] >> (7 - x % 8)) & 1);
            else if (bits == 4)
                a.px.push_back((x & 1) ? row[size_t(x) / 2] & 15 : row[size_t(x) / 2] >> 4);
            else
                a.px.insert(a.px.end(), row.begin() + x * a.k, row.begin() + (x + 1) * a.k);
        }
    }
    return a;
}

// Pseudo-random pixels (every byte of every row, fill bytes included).
inline int32_t noise_handle(int32_t w, int32_t h, int bits) {
    return make_handle(w, h, bits, [](uint8_t* row, uint32_t n, int32_t r) {
        uint32_t v = uint32_t(r + 1) * 2654435761u;
        for (uint32_t b = 0; b < n; ++b) row[b] = uint8_t((v = v * 1103515245u + 12345u) >> 16);
    });
}

// The crop rectangle: x, y, width, height.
inline std::vector<int32_t> crop_of(int32_t h) {
    int32_t c[4];
    IMG_get_croprect(h, &c[0], &c[1], &c[2], &c[3]);
    return {c[0], c[1], c[2], c[3]};
}

// A progress callback that cancels at row 3 with status -77.
inline int32_t stop_at_row_3(intptr_t, int32_t, int32_t row, uint32_t) { return row == 3 ? -77 : 0; }

// A letter page at 300 dpi in Group 4, made by ImageMagick from a corpus
// page (kept in $TMPDIR as page300.tif for the next call); decoded, it is
// held as run records. -1 when ImageMagick is missing.
inline int32_t g4_page_300dpi() {
    const std::string tif = temp_path("page300.tif");
    if (!fs::exists(tif) &&
        !run("/usr/bin/convert '" + corpus("refs/540397096c9b25d0.pbm") +
             "' -sample 150% -density 300 -compress Group4 '" + tif + "'"))
        return -1;
    return IMG_decompress_bitmap(tif.c_str());
}

// 24- and 32-bit pixels as red, green, blue (for Pillow).
inline PixelArray rgb_of(const PixelArray& a) {
    if (a.k < 3) return a;
    PixelArray o{a.width, a.height, 3, {}};
    for (size_t i = 0; i < a.px.size(); i += size_t(a.k))
        o.px.insert(o.px.end(), {a.px[i + 2], a.px[i + 1], a.px[i]});
    return o;
}

inline void write_array(const std::string& path, const PixelArray& a) {
    std::string head = std::to_string(a.width) + " " + std::to_string(a.height) + " " + std::to_string(a.k) + "\n";
    Bytes b(head.begin(), head.end());
    b.insert(b.end(), a.px.begin(), a.px.end());
    write_file(path, b);
}

inline bool have_numpy() {
    static const bool ok = std::system("/usr/bin/python3 -c 'import numpy, PIL' >/dev/null 2>&1") == 0;
    return ok;
}

// A batch of checks: add() writes the two arrays and returns the case's
// index; run() gives one result line per case ("ok", "diff N", "psnr X" ...)
// or an empty list when the script cannot run.
class NumpyChecks {
public:
    size_t add(const std::string& op, const PixelArray& before, const PixelArray& after) {
        const std::string stem = temp_path("np" + std::to_string(lines_.size()));
        write_array(stem + "_in", before);
        write_array(stem + "_out", after);
        files_.push_back(stem + "_in");
        files_.push_back(stem + "_out");
        lines_.push_back(op + " " + stem + "_in " + stem + "_out");
        return lines_.size() - 1;
    }
    std::vector<std::string> run() {
        const std::string list = temp_path("np_cases.txt");
        std::string text;
        for (const auto& l : lines_) text += l + "\n";
        write_file(list, Bytes(text.begin(), text.end()));
        std::string out;
        const bool ok = test::run("/usr/bin/python3 '" + std::string(TESSLIN_TEST_DATA) +
                                      "/../support/numpy_ops.py' '" + list + "'",
                                  &out);
        fs::remove(list);
        for (const auto& f : files_) fs::remove(f);
        std::vector<std::string> results;
        std::stringstream ss(out);
        for (std::string line; std::getline(ss, line);) results.push_back(line);
        if (!ok || results.size() != lines_.size()) {
            ADD_FAILURE() << "numpy_ops.py: " << out;
            return {};
        }
        return results;
    }
    const std::string& line(size_t i) const { return lines_[i]; }

private:
    std::vector<std::string> lines_, files_;
};

// The number after "psnr " in a result line, or -1.
inline double psnr_of(const std::string& result) {
    return result.rfind("psnr ", 0) == 0 ? std::atof(result.c_str() + 5) : -1;
}

}  // namespace tesslin::test
