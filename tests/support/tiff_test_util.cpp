#include "tiff_test_util.h"

#include <cmath>
#include <cstring>

#include "core/runs.h"

namespace tesslin::tifftest {

int32_t on_header(const IMG_BITMAPINFOHEADER* header, intptr_t user) {
    auto* d = reinterpret_cast<Decoded*>(user);
    const auto* b = reinterpret_cast<const uint8_t*>(header);
    d->header.assign(b, b + 40 + palette_bytes(header->biBitCount));
    d->rows.assign(size_t(header->biHeight), {});
    return d->stop_header ? d->stop_header : 1;
}

int32_t on_row(uint8_t* row, intptr_t user, int32_t number, uint32_t bytes) {
    auto* d = reinterpret_cast<Decoded*>(user);
    ++d->deliveries;
    if (d->header.empty() || number < 0 || size_t(number) >= d->rows.size()) return -99;
    const uint32_t rb = row_bytes(uint32_t(d->width()), uint32_t(d->bits()));
    std::vector<uint8_t>& out = d->rows[size_t(number)];
    if (bytes == rb) {
        out.assign(row, row + rb);
    } else {
        // A run record of a bilevel row.
        if (d->bits() != 1 || bytes < 8 || bytes % 4) return -98;
        std::vector<uint32_t> record(bytes / 4);
        std::memcpy(record.data(), row, bytes);
        out.assign(rb, 0);
        runs::expand(record.data(), uint32_t(d->width()), out.data(), rb);
    }
    return 0;
}

Decoded decode(const std::vector<uint8_t>& file, uint32_t position) {
    Decoded d;
    std::vector<uint8_t> copy = file;
    if (copy.empty()) copy.push_back(0);
    const int32_t s = stream::mem_create_sized(copy.data(), uint32_t(file.size()));
    d.status = tiff::decode(position, on_row, reinterpret_cast<intptr_t>(&d), on_header, s);
    stream::mem_release(s);
    return d;
}

void pixel(const Decoded& d, int32_t x, int32_t y, uint8_t out[4]) {
    const std::vector<uint8_t>& row = d.rows[size_t(y)];
    const RgbQuad* pal = d.palette();
    out[3] = 255;
    auto from = [&](uint32_t i) {
        out[0] = pal[i].rgbRed;
        out[1] = pal[i].rgbGreen;
        out[2] = pal[i].rgbBlue;
    };
    switch (d.bits()) {
        case 1: from((row[size_t(x) / 8] >> (7 - x % 8)) & 1); break;
        case 4: from((row[size_t(x) / 2] >> (x % 2 ? 0 : 4)) & 15); break;
        case 8: from(row[size_t(x)]); break;
        case 16: out[0] = out[1] = out[2] = row[size_t(x) * 2 + 1]; break;
        case 24:
            out[0] = row[size_t(x) * 3 + 2];
            out[1] = row[size_t(x) * 3 + 1];
            out[2] = row[size_t(x) * 3];
            break;
        case 32:
            out[0] = row[size_t(x) * 4 + 2];
            out[1] = row[size_t(x) * 4 + 1];
            out[2] = row[size_t(x) * 4];
            out[3] = row[size_t(x) * 4 + 3];
            break;
    }
}

int64_t differences(const Decoded& d, const Raster& ref, int channels) {
    if (d.header.empty() || d.width() != ref.width || d.height() != ref.height || !d.complete())
        return -1;
    int64_t n = 0;
    for (int32_t y = 0; y < ref.height; ++y)
        for (int32_t x = 0; x < ref.width; ++x) {
            uint8_t p[4];
            pixel(d, x, y, p);
            const uint8_t* r = ref.at(x, y);
            for (int c = 0; c < channels; ++c) {
                const uint8_t want = ref.channels == 1 ? r[0] : r[c];
                if (p[c] != want) {
                    ++n;
                    break;
                }
            }
        }
    return n;
}

double psnr(const Decoded& d, const Raster& ref) {
    if (d.header.empty() || d.width() != ref.width || d.height() != ref.height || !d.complete())
        return 0;
    double sq = 0;
    for (int32_t y = 0; y < ref.height; ++y)
        for (int32_t x = 0; x < ref.width; ++x) {
            uint8_t p[4];
            pixel(d, x, y, p);
            for (int c = 0; c < 3; ++c) {
                const double e = double(p[c]) - ref.at(x, y)[ref.channels == 1 ? 0 : c];
                sq += e * e;
            }
        }
    const double mse = sq / (3.0 * ref.width * ref.height);
    return mse == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / mse);
}

// ---- Builder -----------------------------------------------------------------

Builder::Builder(bool big_endian) : big(big_endian) {
    bytes = {uint8_t(big ? 'M' : 'I'), uint8_t(big ? 'M' : 'I'), 0, 0, 0, 0, 0, 0};
    if (big) bytes[3] = 42;
    else bytes[2] = 42;
}

uint32_t Builder::add_data(const std::vector<uint8_t>& data) {
    const uint32_t at = uint32_t(bytes.size());
    bytes.insert(bytes.end(), data.begin(), data.end());
    if (bytes.size() & 1) bytes.push_back(0);
    return at;
}

void Builder::add(uint16_t tag, uint16_t type, const std::vector<uint32_t>& values) {
    Entry e{tag, type, uint32_t(type == 5 ? values.size() / 2 : values.size()), {}};
    for (uint32_t v : values) {
        uint8_t b[4];
        if (type == 1) {
            e.data.push_back(uint8_t(v));
        } else if (type == 3) {
            big ? store_be16(b, uint16_t(v)) : store_le16(b, uint16_t(v));
            e.data.insert(e.data.end(), b, b + 2);
        } else {
            big ? store_be32(b, v) : store_le32(b, v);
            e.data.insert(e.data.end(), b, b + 4);
        }
    }
    entries.push_back(e);
}

void Builder::add_ascii(uint16_t tag, const std::string& text) {
    Entry e{tag, 2, uint32_t(text.size() + 1), {}};
    e.data.assign(text.begin(), text.end());
    e.data.push_back(0);
    entries.push_back(e);
}

void Builder::put32_at(uint32_t at, uint32_t v) {
    big ? store_be32(bytes.data() + at, v) : store_le32(bytes.data() + at, v);
}

void Builder::set_first(uint32_t ifd) { put32_at(4, ifd); }

uint32_t Builder::finish_directory(uint32_t next) {
    // Long values first, then the directory.
    std::vector<uint32_t> where(entries.size(), 0);
    for (size_t i = 0; i < entries.size(); ++i)
        if (entries[i].data.size() > 4) where[i] = add_data(entries[i].data);
    const uint32_t ifd = uint32_t(bytes.size());
    uint8_t b[12];
    big ? store_be16(b, uint16_t(entries.size())) : store_le16(b, uint16_t(entries.size()));
    bytes.insert(bytes.end(), b, b + 2);
    for (size_t i = 0; i < entries.size(); ++i) {
        const Entry& e = entries[i];
        std::memset(b, 0, 12);
        big ? store_be16(b, e.tag) : store_le16(b, e.tag);
        big ? store_be16(b + 2, e.type) : store_le16(b + 2, e.type);
        big ? store_be32(b + 4, e.count) : store_le32(b + 4, e.count);
        if (e.data.size() > 4) {
            big ? store_be32(b + 8, where[i]) : store_le32(b + 8, where[i]);
        } else {
            std::memcpy(b + 8, e.data.data(), e.data.size());
        }
        bytes.insert(bytes.end(), b, b + 12);
    }
    big ? store_be32(b, next) : store_le32(b, next);
    bytes.insert(bytes.end(), b, b + 4);
    entries.clear();
    return ifd;
}

std::vector<uint8_t> simple_tiff(uint32_t width, uint32_t height, uint32_t samples, uint32_t bits,
                                 uint32_t photometric, const std::vector<uint8_t>& pixels,
                                 uint32_t rows_per_strip) {
    Builder b;
    const uint32_t rps = rows_per_strip ? rows_per_strip : height;
    const uint32_t row = (width * samples * bits + 7) / 8;
    std::vector<uint32_t> offsets, counts;
    for (uint32_t y = 0; y < height; y += rps) {
        const uint32_t n = std::min(rps, height - y) * row;
        offsets.push_back(b.add_data(std::vector<uint8_t>(pixels.begin() + y * row,
                                                          pixels.begin() + y * row + n)));
        counts.push_back(n);
    }
    b.add_long(256, width);
    b.add_long(257, height);
    b.add(258, 3, std::vector<uint32_t>(samples, bits));
    b.add_short(259, 1);
    b.add_short(262, photometric);
    b.add(273, 4, offsets);
    b.add_short(277, samples);
    b.add_long(278, rps);
    b.add(279, 4, counts);
    b.set_first(b.finish_directory());
    return b.bytes;
}

// ---- Peer tools ------------------------------------------------------------

bool run(const std::string& command, std::string* output) {
    const std::string out = temp_path("cmd_output.txt");
    const int rc = std::system((command + " > '" + out + "' 2>&1").c_str());
    if (output) {
        const std::vector<uint8_t> b = test::read_file(out);
        output->assign(b.begin(), b.end());
    }
    std::filesystem::remove(out);
    return rc == 0;
}

Raster pillow(const std::string& path, const std::string& mode, int page) {
    const std::string out = temp_path("pillow.raw");
    const std::string cmd =
        "/usr/bin/python3 -c \"import sys; from PIL import Image; im = Image.open(sys.argv[1]); "
        "im.seek(int(sys.argv[3])); im = im if im.mode == sys.argv[4] or (sys.argv[4] == 'I;16' and im.mode.startswith('I;16')) else im.convert(sys.argv[4]); "
        "data = im.tobytes('raw', 'I;16B') if im.mode.startswith('I;16') else im.tobytes(); "
        "open(sys.argv[2], 'wb').write(b'%d %d ' % im.size + data)\" '" +
        path + "' '" + out + "' " + std::to_string(page) + " '" + mode + "'";
    Raster r;
    if (!run(cmd)) return r;
    const std::vector<uint8_t> b = test::read_file(out);
    std::filesystem::remove(out);
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
    if (r.px.size() != size_t(r.width) * r.height * r.channels) return Raster{};
    return r;
}

}  // namespace tesslin::tifftest
