#include "process/colour/rows.h"

#include <algorithm>
#include <cstring>

#include "core/runs.h"

namespace tesslin::colour {

namespace {

inline uint8_t clamp_byte(double v) {
    const int i = static_cast<int>(v);  // truncation toward zero
    return static_cast<uint8_t>(i < 0 ? 0 : i > 255 ? 255 : i);
}

}  // namespace

void row32_to_bgr24(const uint8_t* src, uint8_t* dst, uint32_t width, uint32_t compression) {
    if (compression == IMG_COMPRESSION_ALPHA) {
        for (uint32_t x = 0; x < width; ++x) {
            const uint8_t b = src[4 * x], g = src[4 * x + 1], r = src[4 * x + 2];
            dst[3 * x] = b, dst[3 * x + 1] = g, dst[3 * x + 2] = r;
        }
        return;
    }
    for (uint32_t x = 0; x < width; ++x) {
        const uint8_t* p = src + 4 * x;
        const double c = static_cast<int>(p[0] * 0.57) & 255;
        const double m = static_cast<int>(p[1] * 0.6) & 255;
        const double y = static_cast<int>(p[2] * 0.5) & 255;
        const double k = 255 - (static_cast<int>(p[3] * 0.4) & 255);
        const uint8_t blue = clamp_byte(k - 1.2 * y - 0.133 * c - 0.592 * m);
        const uint8_t green = clamp_byte(k - 1.2 * m - 0.39 * c - 0.074 * y);
        const uint8_t red = clamp_byte(k - 1.2 * c - 0.1 * m - 0.223 * y);
        dst[3 * x] = blue, dst[3 * x + 1] = green, dst[3 * x + 2] = red;
    }
}

RowReader::RowReader(BitmapObject* obj)
    : obj_(obj),
      width_(uint32_t(obj->width)),
      bits_(obj->bits()),
      compression_(obj->header()->biCompression),
      height_(obj->height),
      palette_(dib_palette(obj->dib)) {
    const uint32_t entries = palette_entries(bits_);
    std::memset(grey_of_index_, 0, sizeof grey_of_index_);
    for (uint32_t i = 0; i < entries; ++i)
        grey_of_index_[i] = uint8_t(luma(palette_[i].rgbBlue, palette_[i].rgbGreen, palette_[i].rgbRed));
    if (obj->run_encoded) expanded_.assign(obj->row_bytes, 0);
    if (bits_ != 24) bgr_.assign(size_t(width_) * 4 + 4, 0);
}

const uint8_t* RowReader::stored(int32_t s) {
    if (!obj_->run_encoded) return obj_->pixels() + size_t(s) * obj_->row_bytes;
    runs::expand(obj_->run_record(height_ - 1 - s), width_, expanded_.data(), obj_->row_bytes);
    return expanded_.data();
}

const uint8_t* RowReader::bgr(int32_t s) {
    const uint8_t* row = stored(s);
    if (bits_ == 24) return row;
    uint8_t* out = bgr_.data();
    if (bits_ == 32) {
        row32_to_bgr24(row, out, width_, compression_);
        return out;
    }
    for (uint32_t x = 0; x < width_; ++x) {
        uint32_t index;
        switch (bits_) {
            case 1: index = (row[x >> 3] >> (7 - (x & 7))) & 1; break;
            case 4: index = (x & 1) ? row[x >> 1] & 15 : row[x >> 1] >> 4; break;
            case 8: index = row[x]; break;
            default: index = row[2 * x + 1]; break;  // 16: the high byte
        }
        const RgbQuad& q = palette_[index];
        out[3 * x] = q.rgbBlue, out[3 * x + 1] = q.rgbGreen, out[3 * x + 2] = q.rgbRed;
    }
    return out;
}

template <typename T>
void RowReader::grey_into(int32_t s, T* out) {
    if (s < 0 || s >= height_) return;
    const uint8_t* row = stored(s);
    const uint8_t* lut = grey_of_index_;
    switch (bits_) {
        case 4:
            for (uint32_t x = 0; x < width_; ++x)
                out[x] = T(lut[(x & 1) ? row[x >> 1] & 15 : row[x >> 1] >> 4]);
            return;
        case 8:
            for (uint32_t x = 0; x < width_; ++x) out[x] = T(lut[row[x]]);
            return;
        case 16:
            for (uint32_t x = 0; x < width_; ++x) out[x] = T(lut[row[2 * x + 1]]);
            return;
        case 24:
            break;
        default: {
            const uint8_t* p = bgr(s);
            for (uint32_t x = 0; x < width_; ++x)
                out[x] = T(luma(p[3 * x], p[3 * x + 1], p[3 * x + 2]));
            return;
        }
    }
    for (uint32_t x = 0; x < width_; ++x)
        out[x] = T(luma(row[3 * x], row[3 * x + 1], row[3 * x + 2]));
}

void RowReader::grey(int32_t s, uint32_t* out) { grey_into(s, out); }
void RowReader::grey(int32_t s, int32_t* out) { grey_into(s, out); }

void RowReader::colour(int32_t s, int32_t* out) {
    const uint8_t* p = bgr(std::min(s, height_ - 1));
    const bool less40 = bits_ == 8 || bits_ == 16;
    for (uint32_t x = 0; x < width_; ++x, p += 3, out += 4) {
        const int32_t b = p[0], g = p[1], r = p[2];
        int32_t l = intensity(b, g, r);
        if (less40) l = l > 40 ? l - 40 : 0;
        out[0] = b, out[1] = g, out[2] = r, out[3] = l;
    }
}

void RowReader::ordered(int32_t s, uint16_t* out) {
    const uint8_t* p = bgr(std::min(s, height_ - 1));
    const bool less40 = bits_ != 4;
    for (uint32_t x = 0; x < width_; ++x, p += 3, out += 4) {
        const int32_t b = p[0], g = p[1], r = p[2];
        int32_t i = intensity(b, g, r);
        if (less40) i = i > 40 ? i - 40 : 0;
        out[0] = uint16_t(b), out[1] = uint16_t(g), out[2] = uint16_t(r), out[3] = uint16_t(i);
    }
}

}  // namespace tesslin::colour
