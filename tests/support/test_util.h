// Helpers shared by the tests: files and scratch paths, DIBs and handles,
// reference rasters (netpbm files, Pillow's decodes), saving and decoding
// through the public interface, and a collector for the decoders' callbacks.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "core/dib.h"
#include "core/runs.h"
#include "core/stream.h"
#include "tesslin/tesslin.h"

namespace tesslin::test {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

// ---- files and tools ---------------------------------------------------------

inline Bytes read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}
inline void write_file(const std::string& path, const Bytes& data) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(data.data()),
                                                std::streamsize(data.size()));
}
inline std::string data_path(const std::string& name) { return std::string(TESSLIN_TEST_DATA) + "/" + name; }
inline std::string corpus(const std::string& name) { return data_path("corpus/" + name); }

// A scratch file name in $TMPDIR (else /tmp), unique to this process.
inline std::string temp_path(const std::string& name) {
    const char* dir = std::getenv("TMPDIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/tesslin_" + std::to_string(::getpid()) + "_" + name;
}

// Rows of a tab-separated file after its first line, split into cells.
inline std::vector<std::vector<std::string>> read_tsv(const std::string& path) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    while (std::getline(in, line)) {
        std::vector<std::string> cells;
        std::stringstream ss(line);
        for (std::string c; std::getline(ss, c, '\t');) cells.push_back(c);
        rows.push_back(cells);
    }
    return rows;
}
// The corpus manifest: file, pages, dpi, width, height, code, reference, comparison.
inline std::vector<std::vector<std::string>> manifest() { return read_tsv(corpus("MANIFEST.tsv")); }

inline bool have_tool(const char* name) {
    return std::system((std::string("command -v ") + name + " >/dev/null 2>&1").c_str()) == 0;
}
inline bool have_pillow() {
    static const bool ok = std::system("/usr/bin/python3 -c 'import PIL' >/dev/null 2>&1") == 0;
    return ok;
}
// Runs a shell command; true on exit status 0. Its stdout and stderr go to
// `output` when given, else are discarded.
inline bool run(const std::string& command, std::string* output = nullptr) {
    const std::string out = temp_path("cmd_output.txt");
    const int rc = std::system(("(" + command + ") > '" + out + "' 2>&1").c_str());
    if (output) {
        const Bytes b = read_file(out);
        output->assign(b.begin(), b.end());
    }
    fs::remove(out);
    return rc == 0;
}

// ---- DIBs and handles ----------------------------------------------------------

// A copy of the bytes in a library block (so that memory streams know its size).
inline void* to_block(const Bytes& data) {
    void* b = tesslin_block_alloc(uint32_t(data.size() ? data.size() : 1));
    if (!data.empty()) std::memcpy(b, data.data(), data.size());
    return b;
}

// A DIB in a library block. Rows are filled by fill(row, bytes, row_index),
// row 0 the top row; the palette is black/white for 1 bit, a grey ramp else.
template <typename Fill>
void* make_dib(int32_t width, int32_t height, int bits, Fill fill) {
    const uint32_t rb = row_bytes(uint32_t(width), uint32_t(bits)), pal = palette_bytes(uint32_t(bits));
    auto* dib = static_cast<uint8_t*>(tesslin_block_alloc(40 + pal + rb * uint32_t(height)));
    *reinterpret_cast<DibHeader*>(dib) = dib_header(width, height, uint16_t(bits));
    const uint32_t entries = pal / 4;
    for (uint32_t i = 0; i < entries; ++i) {
        const uint8_t v = uint8_t(entries == 2 ? i * 255 : entries == 16 ? i * 17 : i);
        dib_palette(dib)[i] = RgbQuad{v, v, v, 0};
    }
    for (int32_t r = 0; r < height; ++r) fill(dib + 40 + pal + size_t(height - 1 - r) * rb, rb, r);
    return dib;
}
inline void* make_dib(int32_t width, int32_t height, int bits) {
    return make_dib(width, height, bits, [](uint8_t* row, uint32_t n, int32_t r) {
        for (uint32_t b = 0; b < n; ++b) row[b] = uint8_t(r * 31 + b * 7 + (b >> 3));
    });
}
template <typename Fill>
int32_t make_handle(int32_t width, int32_t height, int bits, Fill fill) {
    return IMG_create_handle_keep(make_dib(width, height, bits, fill));
}
inline int32_t make_handle(int32_t width, int32_t height, int bits) {
    return IMG_create_handle_keep(make_dib(width, height, bits));
}

// A handle the test owns, deleted when it leaves scope (negative ids, the
// statuses of failed calls, are kept as they are and never deleted).
class Handle {
public:
    Handle(int32_t id = -1) : id_(id) {}
    Handle(Handle&& o) noexcept : id_(o.id_) { o.id_ = -1; }
    Handle& operator=(Handle&& o) noexcept {
        std::swap(id_, o.id_);
        return *this;
    }
    ~Handle() {
        if (id_ >= 0) IMG_delete_bitmap(id_);
    }
    operator int32_t() const { return id_; }

private:
    int32_t id_;
};

// A scratch file in $TMPDIR, removed before use and when the test leaves scope.
struct Scratch {
    std::string path;
    explicit Scratch(const std::string& name) : path(temp_path(name)) { fs::remove(path); }
    ~Scratch() { fs::remove(path); }
    operator const std::string&() const { return path; }
    const char* c_str() const { return path.c_str(); }
};

// A scratch directory, emptied and removed with the object.
struct TempDir {
    std::string path;
    explicit TempDir(const std::string& name) : path(temp_path(name)) {
        fs::remove_all(path);
        fs::create_directories(path);
    }
    ~TempDir() { fs::remove_all(path); }
    std::string operator/(const std::string& file) const { return path + "/" + file; }
};

// Row r (0 = top) of a handle, as IMGLOW_get_raster gives it.
inline Bytes get_row(int32_t handle, int32_t r) {
    int32_t w = 0, h = 0, bits = 0;
    IMG_bitmap_info(handle, &w, &h, &bits);
    Bytes row(row_bytes(uint32_t(w), uint32_t(bits)));
    IMGLOW_get_raster(handle, row.data(), r, 0);
    return row;
}
// A copy of a handle's header and palette.
inline Bytes header_of(int32_t handle) {
    Bytes h(kHeaderBlockSize);
    IMGLOW_get_bitmap_header(handle, h.data());
    return h;
}
inline DibHeader info_of(int32_t handle) { return *reinterpret_cast<const DibHeader*>(header_of(handle).data()); }

// ---- reference rasters -------------------------------------------------------

// `channels` 8-bit samples per pixel, rows from the top.
struct Raster {
    int32_t width = 0, height = 0, channels = 0;
    Bytes px;
    const uint8_t* at(int32_t x, int32_t y) const {
        return px.data() + (size_t(y) * size_t(width) + size_t(x)) * size_t(channels);
    }
};

// A netpbm file (P4, P5, P6, or P7 with WIDTH, HEIGHT, DEPTH) of 8-bit
// samples, P4 as 0 (black) / 255; an empty raster when it is missing, cut
// short or not 8-bit.
inline Raster read_netpbm(const std::string& path) {
    const Bytes d = read_file(path);
    Raster r;
    if (d.size() < 3 || d[0] != 'P') return r;
    const char kind = char(d[1]);
    size_t pos = 2;
    auto token = [&]() {
        std::string t;
        while (pos < d.size()) {
            if (d[pos] == '#') {
                while (pos < d.size() && d[pos] != '\n') ++pos;
            } else if (std::isspace(d[pos])) {
                if (!t.empty()) break;
                ++pos;
            } else {
                t += char(d[pos++]);
            }
        }
        return t;
    };
    auto number = [&]() {
        const std::string t = token();
        return t.empty() ? -1 : std::atoi(t.c_str());
    };
    int maxval = 255;
    if (kind == '7') {
        for (std::string t = token(); !t.empty() && t != "ENDHDR"; t = token()) {
            if (t == "WIDTH") r.width = number();
            else if (t == "HEIGHT") r.height = number();
            else if (t == "DEPTH") r.channels = number();
            else if (t == "MAXVAL") maxval = number();
            else if (t == "TUPLTYPE") token();
        }
    } else {
        r.width = number();
        r.height = number();
        if (kind != '4') maxval = number();
        r.channels = kind == '6' ? 3 : 1;
    }
    ++pos;  // the single whitespace before the samples
    if (maxval != 255 || r.width <= 0 || r.height <= 0 || r.channels <= 0) return Raster{};
    const size_t n = size_t(r.width) * size_t(r.height) * size_t(r.channels);
    const size_t rb = (size_t(r.width) + 7) / 8;
    if (pos + (kind == '4' ? rb * size_t(r.height) : n) > d.size()) return Raster{};
    if (kind != '4') {
        r.px.assign(d.begin() + long(pos), d.begin() + long(pos + n));
        return r;
    }
    r.px.resize(n);
    for (int32_t y = 0; y < r.height; ++y)
        for (int32_t x = 0; x < r.width; ++x)
            r.px[size_t(y) * size_t(r.width) + size_t(x)] =
                (d[pos + size_t(y) * rb + size_t(x) / 8] >> (7 - x % 8)) & 1 ? 0 : 255;
    return r;
}

// Pixels of DIB rows (top first) as RGB, or for 32 bits red, green, blue and
// the fourth byte. 16-bit rows are 5-5-5 fields, or grey (high byte of the
// little-endian sample) when grey16 is set.
inline Raster dib_raster(const uint8_t* header, const std::vector<Bytes>& rows, bool grey16 = false) {
    const auto* h = reinterpret_cast<const DibHeader*>(header);
    const RgbQuad* pal = dib_palette(header);
    const int bits = h->biBitCount;
    Raster r;
    r.width = h->biWidth;
    r.height = int32_t(rows.size());
    r.channels = bits == 32 ? 4 : 3;
    r.px.resize(size_t(r.width) * rows.size() * size_t(r.channels));
    for (int32_t y = 0; y < r.height; ++y) {
        const Bytes& row = rows[size_t(y)];
        for (int32_t x = 0; x < r.width; ++x) {
            uint8_t* o = r.px.data() + (size_t(y) * size_t(r.width) + size_t(x)) * size_t(r.channels);
            const uint8_t* p = &row[size_t(x) * size_t(bits) / 8];
            uint32_t index = 0;
            switch (bits) {
                case 1: index = (row[size_t(x) / 8] >> (7 - x % 8)) & 1; break;
                case 4: index = (x & 1) ? p[0] & 15 : p[0] >> 4; break;
                case 8: index = p[0]; break;
                case 16:
                    if (grey16) {
                        o[0] = o[1] = o[2] = p[1];
                    } else {
                        const uint32_t v = load_le16(p);
                        o[0] = uint8_t(((v >> 10) & 31) << 3);
                        o[1] = uint8_t(((v >> 5) & 31) << 3);
                        o[2] = uint8_t((v & 31) << 3);
                    }
                    continue;
                default:
                    o[0] = p[2], o[1] = p[1], o[2] = p[0];
                    if (bits == 32) o[3] = p[3];
                    continue;
            }
            o[0] = pal[index].rgbRed, o[1] = pal[index].rgbGreen, o[2] = pal[index].rgbBlue;
        }
    }
    return r;
}
inline Raster handle_raster(int32_t handle) {
    int32_t w = 0, h = 0, bits = 0;
    IMG_bitmap_info(handle, &w, &h, &bits);
    std::vector<Bytes> rows;
    for (int32_t y = 0; y < h; ++y) rows.push_back(get_row(handle, y));
    return dib_raster(header_of(handle).data(), rows);
}

// A 1-channel reference as RGB.
inline Raster to_rgb(const Raster& r) {
    if (r.channels != 1) return r;
    Raster o = r;
    o.channels = 3;
    o.px.resize(r.px.size() * 3);
    for (size_t i = 0; i < r.px.size(); ++i) o.px[i * 3] = o.px[i * 3 + 1] = o.px[i * 3 + 2] = r.px[i];
    return o;
}

// Samples that differ in the first `channels` channels (a 1-channel side
// stands for every channel); size_t(-1) for a size mismatch.
inline size_t count_differences(const Raster& a, const Raster& b, int channels) {
    if (a.width != b.width || a.height != b.height || a.px.empty() || b.px.empty()) return size_t(-1);
    size_t n = 0;
    for (int32_t y = 0; y < a.height; ++y)
        for (int32_t x = 0; x < a.width; ++x)
            for (int c = 0; c < channels; ++c)
                n += a.at(x, y)[a.channels == 1 ? 0 : c] != b.at(x, y)[b.channels == 1 ? 0 : c];
    return n;
}

// Peak signal-to-noise ratio of two sample arrays (99 when equal, -1 when
// their sizes differ).
inline double psnr(const Bytes& a, const Bytes& b) {
    if (a.size() != b.size() || a.empty()) return -1;
    double se = 0;
    for (size_t i = 0; i < a.size(); ++i) se += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
    return se == 0 ? 99 : 10 * std::log10(255.0 * 255.0 * double(a.size()) / se);
}
// Over the first three channels of two rasters.
inline double psnr(const Raster& a, const Raster& b) {
    if (a.width != b.width || a.height != b.height) return -1;
    const Raster x = to_rgb(a), y = to_rgb(b);
    Bytes p, q;
    for (size_t i = 0; i < size_t(a.width) * size_t(a.height); ++i)
        for (size_t c = 0; c < 3; ++c) {
            p.push_back(x.px[i * size_t(x.channels) + c]);
            q.push_back(y.px[i * size_t(y.channels) + c]);
        }
    return psnr(p, q);
}

// Pillow's pixels of page `page` in `mode` ("RGB", "RGBA", "L", "CMYK";
// "I;16": 16-bit grey, two bytes a pixel, big-endian); an empty raster when
// Pillow fails or is absent. Page 0 is the image Pillow opens on (it does
// not seek there: its Photoshop frames count layers from 1).
inline Raster pillow(const std::string& path, const std::string& mode, int page = 0) {
    const std::string out = temp_path("pillow.raw");
    const std::string cmd =
        "/usr/bin/python3 -c \"import sys; from PIL import Image; im = Image.open(sys.argv[1]); "
        "int(sys.argv[3]) and im.seek(int(sys.argv[3])); im = im if im.mode == sys.argv[4] or (sys.argv[4] == 'I;16' and "
        "im.mode.startswith('I;16')) else im.convert(sys.argv[4]); "
        "data = im.tobytes('raw', 'I;16B') if im.mode.startswith('I;16') else im.tobytes(); "
        "open(sys.argv[2], 'wb').write(b'%d %d ' % im.size + data)\" '" +
        path + "' '" + out + "' " + std::to_string(page) + " '" + mode + "'";
    Raster r;
    if (!have_pillow() || !run(cmd)) return r;
    const Bytes b = read_file(out);
    fs::remove(out);
    size_t pos = 0;
    auto number = [&]() {
        int v = 0;
        while (pos < b.size() && b[pos] != ' ') v = v * 10 + (b[pos++] - '0');
        ++pos;
        return v;
    };
    r.width = number();
    r.height = number();
    r.channels = mode == "L" ? 1 : mode == "RGB" ? 3 : mode == "I;16" ? 2 : 4;
    r.px.assign(b.begin() + long(pos), b.end());
    if (r.px.size() != size_t(r.width) * size_t(r.height) * size_t(r.channels)) return Raster{};
    return r;
}

// ---- the public interface in memory ---------------------------------------

// Saves a handle into memory; *status gets the result (the byte count).
inline Bytes save_mem(int32_t handle, int32_t code, int32_t* status = nullptr, uint32_t capacity = 0) {
    if (!capacity) {
        int32_t w = 0, h = 0, bits = 0;
        IMG_bitmap_info(handle, &w, &h, &bits);
        capacity = std::max(row_bytes(uint32_t(w), uint32_t(bits)) * uint32_t(h) * 2 + 65536, 8u << 20);
    }
    // A cleared block: a TIFF left in a reused block would be appended to.
    void* block = tesslin_block_alloc(capacity);
    std::memset(block, 0, capacity);
    const int32_t n = IMG_save_bitmap_mem(handle, block, code);
    if (status) *status = n;
    Bytes out;
    if (n > 0) out.assign(static_cast<uint8_t*>(block), static_cast<uint8_t*>(block) + n);
    tesslin_block_free(block);
    return out;
}
inline int32_t decode_mem(const Bytes& data, int32_t page = 0) {
    void* block = to_block(data);
    const int32_t h = IMG_decompress_bitmap_mem(block, page);
    tesslin_block_free(block);
    return h;
}
// Status of saving an 8 x 2 image of `bits` bits in `code` into memory (for
// saves that must be refused).
inline int32_t save_status(int bits, int32_t code) {
    int32_t status = 0;
    save_mem(Handle(make_handle(8, 2, bits)), code, &status);
    return status;
}
inline int32_t filetype_mem(const Bytes& data) {
    void* b = to_block(data);
    const int32_t r = IMGLOW_get_filetype_mem(b);
    tesslin_block_free(b);
    return r;
}

// ---- decoder callbacks -----------------------------------------------------

// What a decoder delivered through the header and raster callbacks: the
// header with its palette, each row by number (bilevel run records expanded
// to packed rows) and the order of delivery.
struct Decoded {
    int32_t status = 0;
    Bytes header;  // 40 bytes + palette
    std::vector<Bytes> rows;
    std::vector<int32_t> order;
    int32_t stop_header = 0;                 // returned by the header callback when non-zero
    int32_t stop_row = -1, stop_status = 0;  // the raster callback returns stop_status on this row

    const DibHeader& h() const { return *reinterpret_cast<const DibHeader*>(header.data()); }
    const RgbQuad* palette() const { return dib_palette(header.data()); }
    int32_t width() const { return h().biWidth; }
    int32_t height() const { return h().biHeight; }
    int bits() const { return h().biBitCount; }
    bool complete() const {
        for (const auto& r : rows)
            if (r.empty()) return false;
        return !rows.empty();
    }
    Raster raster(bool grey16 = true) const { return dib_raster(header.data(), rows, grey16); }

    static int32_t on_header(const IMG_BITMAPINFOHEADER* header, intptr_t user) {
        auto* d = reinterpret_cast<Decoded*>(user);
        const auto* b = reinterpret_cast<const uint8_t*>(header);
        d->header.assign(b, b + 40 + palette_bytes(header->biBitCount));
        d->rows.assign(size_t(header->biHeight > 0 ? header->biHeight : 0), {});
        return d->stop_header;
    }
    static int32_t on_row(uint8_t* row, intptr_t user, int32_t number, uint32_t bytes) {
        auto* d = reinterpret_cast<Decoded*>(user);
        d->order.push_back(number);
        if (number == d->stop_row) return d->stop_status;
        if (d->header.empty() || number < 0 || size_t(number) >= d->rows.size()) return -99;
        const uint32_t rb = row_bytes(uint32_t(d->width()), uint32_t(d->bits()));
        if (bytes == rb) {
            d->rows[size_t(number)].assign(row, row + rb);
        } else if (d->bits() == 1 && bytes >= 8 && bytes % 4 == 0) {
            std::vector<uint32_t> record(bytes / 4);
            std::memcpy(record.data(), row, bytes);
            d->rows[size_t(number)].assign(rb, 0);
            runs::expand(record.data(), uint32_t(d->width()), d->rows[size_t(number)].data(), rb);
        } else {
            return -98;
        }
        return 0;
    }
};

// Runs a format's decoder, decoder(position, raster, user, header, stream),
// on bytes held in memory.
template <typename DecodeFn>
Decoded decode_with(DecodeFn decoder, const Bytes& file, uint32_t position = 0, Decoded d = {}) {
    void* block = to_block(file);
    const int32_t s = stream::mem_create_sized(block, uint32_t(file.size()));
    d.status = decoder(position, Decoded::on_row, reinterpret_cast<intptr_t>(&d), Decoded::on_header, s);
    stream::mem_release(s);
    tesslin_block_free(block);
    return d;
}

}  // namespace tesslin::test
