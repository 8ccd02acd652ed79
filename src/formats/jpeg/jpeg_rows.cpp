// Conversion of sample planes into delivered rows. Every component is
// replicated to the full resolution: pixel x of line y takes the sample at
// (x / (hmax / h), y / (vmax / v)) of its plane.
#include "formats/jpeg/jpeg_rows.h"

#include <cstring>
#include <new>

#include "core/dib.h"
#include "formats/jpeg/jpeg_internal.h"

namespace tesslin::jpeg {

bool Plane::allocate(int w, int h, bool coefficients) {
    width = w;
    height = h;
    const size_t n = static_cast<size_t>(w) * static_cast<size_t>(h);
    if (coefficients) {
        c.reset(new (std::nothrow) int32_t[n]);
        if (!c) return false;
        std::memset(c.get(), 0, n * sizeof(int32_t));
        return true;
    }
    s.reset(new (std::nothrow) int8_t[n]);
    if (!s) return false;
    std::memset(s.get(), 0, n);
    return true;
}

bool RowConverter::init(const RowLayout& layout) {
    l_ = layout;
    for (int i = 0; i < l_.nf; ++i) {
        fx_[i] = l_.hmax / l_.h[i];
        fy_[i] = l_.vmax / l_.v[i];
    }
    return true;
}

void RowConverter::convert(int y, uint8_t* out) const {
    if (l_.coefficients) coefficients(y, out);
    else if (l_.nf == 1) grey(y, out);
    else if (l_.nf == 3) ycc(y, out);
    else four(y, out);
}

void RowConverter::grey(int y, uint8_t* out) const {
    const int8_t* s = row(0, y);
    for (int x = 0; x < l_.width; ++x) out[x] = range_limit(s[x]);
}

void RowConverter::ycc(int y, uint8_t* out) const {
    const ChromaTables& t = chroma_tables();
    const int8_t* lum = row(0, y);
    const int8_t* cb = row(1, y);
    const int8_t* cr = row(2, y);
    const int w = l_.width;
    if (fx_[0] == 1 && fx_[1] == fx_[2]) {
        const int f = fx_[1];
        for (int x = 0, j = 0; x < w; x += f, ++j) {
            const uint8_t b = static_cast<uint8_t>(cb[j]), r = static_cast<uint8_t>(cr[j]);
            const int32_t tb = t.cb_b[b], tg = t.cb_g[b] + t.cr_g[r], tr = t.cr_r[r];
            const int n = w - x < f ? w - x : f;
            for (int i = 0; i < n; ++i, out += 3) {
                const int32_t v = lum[x + i];
                out[0] = range_limit(v + tb);
                out[1] = range_limit(v - tg);
                out[2] = range_limit(v + tr);
            }
        }
        return;
    }
    for (int x = 0; x < w; ++x, out += 3) {
        const int32_t v = lum[x / fx_[0]];
        const uint8_t b = static_cast<uint8_t>(cb[x / fx_[1]]);
        const uint8_t r = static_cast<uint8_t>(cr[x / fx_[2]]);
        out[0] = range_limit(v + t.cb_b[b]);
        out[1] = range_limit(v - (t.cb_g[b] + t.cr_g[r]));
        out[2] = range_limit(v + t.cr_r[r]);
    }
}

void RowConverter::four(int y, uint8_t* out) const {
    const ChromaTables& t = chroma_tables();
    const int8_t* p0 = row(0, y);
    const int8_t* p1 = row(1, y);
    const int8_t* p2 = row(2, y);
    const int8_t* p3 = row(3, y);
    for (int x = 0; x < l_.width; ++x, out += 4) {
        const int32_t c0 = p0[x / fx_[0]], c1 = p1[x / fx_[1]], c2 = p2[x / fx_[2]],
                      k = p3[x / fx_[3]];
        if (l_.cmyk_mode == 0) {
            out[0] = static_cast<uint8_t>(255 - range_limit(c0));
            out[1] = static_cast<uint8_t>(255 - range_limit(c1));
            out[2] = static_cast<uint8_t>(255 - range_limit(c2));
            out[3] = static_cast<uint8_t>(255 - range_limit(k));
            continue;
        }
        const uint8_t b = static_cast<uint8_t>(c1), r = static_cast<uint8_t>(c2);
        const int32_t tb = t.cb_b[b], tg = t.cb_g[b] + t.cr_g[r], tr = t.cr_r[r];
        if (l_.cmyk_mode == 1) {
            out[0] = range_limit(c0 + tb - k - 128);
            out[1] = range_limit(c0 - tg - k - 128);
            out[2] = range_limit(c0 + tr - k - 128);
            out[3] = static_cast<uint8_t>(k + 128);
        } else {
            out[0] = range_limit(c0 + tr);
            out[1] = range_limit(c0 - tg);
            out[2] = range_limit(c0 + tb);
            out[3] = static_cast<uint8_t>(255 - range_limit(k));
        }
    }
}

// Each pixel carries one 32-bit little-endian value per component, taken
// from the component's own coefficient plane (0 outside it).
void RowConverter::coefficients(int y, uint8_t* out) const {
    for (int c = 0; c < l_.nf; ++c) {
        const Plane& p = *l_.plane[c];
        const int32_t* src = y < p.height ? p.coefficient_row(y) : nullptr;
        for (int x = 0; x < l_.width; ++x) {
            const int32_t v = (src && x < p.width) ? src[x] : 0;
            store_le32(out + (static_cast<size_t>(x) * l_.nf + c) * 4, static_cast<uint32_t>(v));
        }
    }
}

}  // namespace tesslin::jpeg
