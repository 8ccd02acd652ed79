// The references of the JPEG tests (see jpeg_reference.h).
#include "jpeg_reference.h"

#include <csetjmp>
#include <cstdio>
#include <cstring>

#include <jpeglib.h>

#include "core/settings.h"

namespace tesslin::test {
namespace {

// 32-bit two's complement arithmetic.
int32_t add(int64_t a, int64_t b) { return int32_t(uint32_t(uint64_t(a) + uint64_t(b))); }
int32_t mul(int64_t a, int64_t b) { return int32_t(uint32_t(uint64_t(a) * uint64_t(b))); }
int32_t R(int32_t c, int32_t x) { return add(mul(c, x), 512) >> 10; }

void idct8(const int32_t* x, int32_t* y) {
    int32_t a0 = R(724, x[0]), a4 = R(724, x[4]), t = R(724, add(x[2], x[6]));
    int32_t e0 = add(a0, a4), e1 = add(a0, -int64_t(a4));
    int32_t d = R(1338, add(x[2], -int64_t(t))), c = R(553, add(x[2], t));
    int32_t f0 = add(e0, c), f3 = add(e0, -int64_t(c)), f1 = add(e1, d), f2 = add(e1, -int64_t(d));
    int32_t u = R(724, add(x[3], x[5]));
    int32_t g0 = add(x[1], -int64_t(u)), g1 = add(x[1], u), s = add(x[1], x[3]);
    int32_t w = R(724, add(add(x[7], x[5]), s));
    int32_t h1 = R(1338, add(s, -int64_t(w))), h0 = R(553, add(s, w));
    int32_t o0 = R(522, add(h0, g1)), o1 = R(616, add(h1, g0));
    int32_t o3 = R(922, add(g0, -int64_t(h1))), o2 = R(2624, add(g1, -int64_t(h0)));
    y[0] = add(f0, o0);
    y[1] = add(f1, o1);
    y[2] = add(f2, o3);
    y[3] = add(f3, o2);
    y[4] = add(f3, -int64_t(o2));
    y[5] = add(f2, -int64_t(o3));
    y[6] = add(f1, -int64_t(o1));
    y[7] = add(f0, -int64_t(o0));
}

// Rows of the coefficient block become columns of the intermediate block;
// the rows of the intermediate then give the sample columns.
void idct_block(const int16_t* natural, int8_t* out) {
    int32_t inter[8][8];
    for (int v = 0; v < 8; ++v) {
        int32_t x[8], y[8];
        for (int k = 0; k < 8; ++k) x[k] = natural[v * 8 + k];
        idct8(x, y);
        for (int j = 0; j < 8; ++j) inter[j][v] = y[j];
    }
    for (int r = 0; r < 8; ++r) {
        int32_t y[8];
        idct8(inter[r], y);
        for (int j = 0; j < 8; ++j) {
            int32_t s = add(y[j], 2) >> 2;
            if (s < -127) s = -127;
            if (s > 127) s = 127;
            out[j * 8 + r] = int8_t(s);
        }
    }
}

uint8_t L(int32_t v) { return uint8_t(v < -128 ? 0 : v > 127 ? 255 : v + 128); }
int cr_r(int c) { return int(1.402 * c); }
int cb_g(int c) { return int(0.34414 * c); }
int cr_g(int c) { return int(0.71414 * c); }
int cb_b(int c) { return int(1.772 * c); }

int T(double c, int v) {
    const int r = int((c < 0 ? -c : c) * v + 0.5);
    return c < 0 ? -r : r;
}

void fdct8(const int32_t* x, int32_t* X) {
    int32_t a = x[0] + x[7], b = x[3] + x[4], e = a + b;
    int32_t p = R(522, x[0] - x[7]), q = R(2624, x[3] - x[4]), r = R(616, x[1] - x[6]),
            t = R(922, x[2] - x[5]);
    int32_t c = x[2] + x[5], f = c + x[1] + x[6];
    int32_t u = q + p, w = t + r, m = R(553, p - q), g = R(553, a - b), h = R(1338, x[1] + x[6] - c),
            n = R(1338, r - t);
    int32_t k = m - n, z1 = R(724, k), z2 = R(724, g - h), z3 = R(724, u - w), y = z1 + n + m;
    X[0] = ((f + e) * 362 + 256) >> 9;
    X[1] = u + w + y;
    X[2] = g + h + z2;
    X[3] = y + z3;
    X[4] = R(724, e - f);
    X[5] = z3 + z1;
    X[6] = z2;
    X[7] = R(724, k);
}

struct PeerError {
    jpeg_error_mgr mgr;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX] = {};
};

[[noreturn]] void peer_exit(j_common_ptr info) {
    auto* e = reinterpret_cast<PeerError*>(info->err);
    info->err->format_message(info, e->message);
    std::longjmp(e->jump, 1);
}

}  // namespace

int peer_coefficients(const Bytes& file, JpegCoefficients* out, std::string* error) {
    JpegCoefficients& o = *out = {};
    jpeg_decompress_struct info;
    PeerError e;
    info.err = jpeg_std_error(&e.mgr);
    e.mgr.error_exit = peer_exit;
    jpeg_create_decompress(&info);
    if (setjmp(e.jump)) {
        if (error) *error = e.message;
        jpeg_destroy_decompress(&info);
        return -1;
    }
    jpeg_mem_src(&info, file.data(), static_cast<unsigned long>(file.size()));
    jpeg_save_markers(&info, JPEG_APP0 + 14, 0xFFFF);
    jpeg_read_header(&info, TRUE);
    jvirt_barray_ptr* arrays = jpeg_read_coefficients(&info);
    o.width = int(info.image_width);
    o.height = int(info.image_height);
    o.nf = info.num_components;
    o.arithmetic = info.arith_code;
    if (info.saw_JFIF_marker) {
        o.units = info.density_unit;
        o.xd = int16_t(info.X_density);
        o.yd = int16_t(info.Y_density);
    }
    for (jpeg_saved_marker_ptr m = info.marker_list; m; m = m->next)
        if (m->data_length >= 12 && std::memcmp(m->data, "Adobe", 5) == 0) {
            o.adobe_flags0 = (m->data[7] << 8) | m->data[8];
            o.adobe_transform = m->data[11];
        }
    // One component is taken as sampled 1 x 1 whatever its factors say.
    for (int i = 0; i < std::min(o.nf, 4); ++i) {
        const jpeg_component_info& k = info.comp_info[i];
        o.c[i].h = o.nf > 1 ? k.h_samp_factor : 1;
        o.c[i].v = o.nf > 1 ? k.v_samp_factor : 1;
        o.hmax = std::max(o.hmax, o.c[i].h);
        o.vmax = std::max(o.vmax, o.c[i].v);
        for (int n = 0; n < 64 && k.quant_table; ++n) o.c[i].q[n] = k.quant_table->quantval[n];
    }
    for (int i = 0; i < std::min(o.nf, 4); ++i) {
        auto& k = o.c[i];
        const int bw = o.mx() * k.h, bh = o.my() * k.v;
        k.blocks.resize(size_t(bw) * size_t(bh) * 64);
        for (int by = 0; by < bh; ++by) {
            JBLOCKARRAY row =
                info.mem->access_virt_barray(j_common_ptr(&info), arrays[i], JDIMENSION(by), 1, FALSE);
            for (int bx = 0; bx < bw; ++bx)
                std::copy(row[0][bx], row[0][bx] + 64, k.blocks.begin() + (long(by) * bw + bx) * 64);
        }
    }
    const int warnings = int(e.mgr.num_warnings);
    jpeg_destroy_decompress(&info);
    return warnings;
}

void reference_rows(const JpegCoefficients& in, bool coefficients, Decoded* out) {
    const int nf = in.nf, mx = in.mx(), my = in.my();
    // Four components: Adobe transform 0 inverts the stored values, 1 (and 2
    // with flags0 0x0080, marked as alpha) converts YCC and carries K
    // through; anything else converts YCC and inverts K.
    int mode = 2;
    if (nf == 4 && in.adobe_transform == 0) mode = 0;
    if (nf == 4 && (in.adobe_transform == 1 || (in.adobe_transform == 2 && in.adobe_flags0 == 0x80))) mode = 1;
    const int ow = coefficients ? mx * 8 * in.hmax : in.width;
    const int oh = coefficients ? my * 8 * in.vmax : in.height;
    alignas(4) uint8_t hb[40 + 1024] = {};
    auto* h = reinterpret_cast<DibHeader*>(hb);
    *h = dib_header(ow, oh, uint16_t(coefficients ? 32 * nf : nf == 1 ? 8 : nf == 3 ? 24 : 32));
    h->biCompression = !coefficients && mode == 1 && in.adobe_transform == 2 ? 200 : 0;
    if (in.units) {
        h->biXPelsPerMeter = in.units == 2 ? int32_t(in.xd * 2.54 + 0.5) : in.xd;
        h->biYPelsPerMeter = in.units == 2 ? int32_t(in.yd * 2.54 + 0.5) : in.yd;
    }
    if (nf == 1 && !coefficients)
        for (int i = 0; i < 256; ++i) dib_palette(hb)[i] = RgbQuad{uint8_t(i), uint8_t(i), uint8_t(i), 0};
    Decoded::on_header(h, reinterpret_cast<intptr_t>(out));

    // Each component as a plane of dequantised coefficients and one of
    // samples, its blocks side by side.
    std::vector<int16_t> coef[4];
    std::vector<int8_t> plane[4];
    int pw[4] = {};
    for (int i = 0; i < nf; ++i) {
        const auto& k = in.c[i];
        const int bw = mx * k.h;
        pw[i] = bw * 8;
        coef[i].assign(k.blocks.size(), 0);
        plane[i].assign(k.blocks.size(), 0);
        for (size_t b = 0; b < k.blocks.size() / 64; ++b) {
            int16_t nat[64];
            for (int n = 0; n < 64; ++n) nat[n] = int16_t(mul(k.blocks[b * 64 + size_t(n)], k.q[n]));
            int8_t s[64];
            idct_block(nat, s);
            for (int y = 0; y < 8; ++y)
                for (int x = 0; x < 8; ++x) {
                    const size_t at =
                        (b / size_t(bw) * 8 + size_t(y)) * size_t(pw[i]) + b % size_t(bw) * 8 + size_t(x);
                    coef[i][at] = nat[y * 8 + x];
                    plane[i][at] = s[y * 8 + x];
                }
        }
    }
    std::vector<uint8_t> line(row_bytes(uint32_t(ow), h->biBitCount));
    for (int row = 0; row < oh; ++row) {
        std::fill(line.begin(), line.end(), 0);
        uint8_t* o = line.data();
        auto sample = [&](int i, int x) {
            const auto& k = in.c[i];
            return plane[i][size_t(row / (in.vmax / k.v)) * size_t(pw[i]) + size_t(x / (in.hmax / k.h))];
        };
        for (int x = 0; x < ow; ++x) {
            if (coefficients) {
                // Row y of MCU row r holds row y of each component's blocks of that MCU row.
                const int r = row / (8 * in.vmax), y = row % (8 * in.vmax);
                for (int i = 0; i < nf; ++i) {
                    const int32_t v = y < 8 * in.c[i].v && x < pw[i]
                                          ? coef[i][size_t(r * 8 * in.c[i].v + y) * size_t(pw[i]) + size_t(x)]
                                          : 0;
                    store_le32(o + (size_t(x) * size_t(nf) + size_t(i)) * 4, uint32_t(v));
                }
                continue;
            }
            const int Y = sample(0, x);
            if (nf == 1) {
                o[x] = L(Y);
                continue;
            }
            const int cb = sample(1, x), cr = sample(2, x);
            const int B = Y + cb_b(cb), G = Y - (cb_g(cb) + cr_g(cr)), Rr = Y + cr_r(cr);
            const int K = nf == 4 ? sample(3, x) : 0;
            // Three components: blue, green, red; four: one row per mode.
            const uint8_t px[4][4] = {
                {uint8_t(255 - L(Y)), uint8_t(255 - L(cb)), uint8_t(255 - L(cr)), uint8_t(255 - L(K))},
                {L(B - K - 128), L(G - K - 128), L(Rr - K - 128), uint8_t(K + 128)},
                {L(Rr), L(G), L(B), uint8_t(255 - L(K))},
                {L(B), L(G), L(Rr), 0}};
            std::memcpy(o + size_t(nf) * size_t(x), px[nf == 3 ? 3 : mode], size_t(nf));
        }
        Decoded::on_row(line.data(), reinterpret_cast<intptr_t>(out), row, uint32_t(line.size()));
    }
}

void reference_idct(const int16_t* natural, int8_t* samples) { idct_block(natural, samples); }

void reference_fdct(const int16_t* samples, int16_t* coefficients) {
    int32_t tmp[8][8];
    for (int r = 0; r < 8; ++r) {
        int32_t x[8], res[8];
        for (int k = 0; k < 8; ++k) x[k] = samples[r * 8 + k];
        fdct8(x, res);
        for (int k = 0; k < 8; ++k) tmp[k][r] = int16_t(res[k]);
    }
    for (int k = 0; k < 8; ++k) {
        int32_t res[8];
        fdct8(tmp[k], res);
        for (int j = 0; j < 8; ++j) coefficients[j * 8 + k] = int16_t(res[j]);
    }
}

void reference_forward(const void* dib, JpegCoefficients* out) {
    const auto* hd = static_cast<const DibHeader*>(dib);
    const int w = hd->biWidth, h = hd->biHeight, bits = hd->biBitCount;
    const auto* pal = dib_palette(dib);
    const uint32_t rb = row_bytes(uint32_t(w), uint32_t(bits));
    const uint8_t* px = static_cast<const uint8_t*>(dib) + 40 + palette_bytes(uint32_t(bits));
    // Palette images whose entries are all grey, entry 0 no lighter than 40, are grey.
    bool grey = bits <= 8 && pal[0].rgbBlue <= 40;
    for (int i = 0; grey && i < (1 << bits); ++i)
        grey = pal[i].rgbBlue == pal[i].rgbGreen && pal[i].rgbBlue == pal[i].rgbRed;
    const Settings& st = settings();
    auto clampf = [](int f) { return f < 1 ? 1 : f > 4 ? 4 : f; };
    const int nf = grey ? 1 : bits == 32 ? 4 : 3;
    const int h1 = nf == 3 ? clampf(st.jpeg_h) : 1, v1 = nf == 1 ? 1 : clampf(st.jpeg_v);
    JpegCoefficients& want = *out = {};
    want.width = w;
    want.height = h;
    want.nf = nf;
    want.hmax = h1;
    want.vmax = v1;
    want.units = 1;
    want.xd = want.yd = 96;
    if (hd->biXPelsPerMeter) {
        want.xd = int16_t(hd->biXPelsPerMeter);
        want.yd = int16_t(hd->biYPelsPerMeter);
    }
    if (nf == 4) {
        want.adobe_transform = 2;
        want.adobe_flags0 = 0x4000;
    }
    const int mcx = want.mx(), mcy = want.my();
    const int pw = mcx * 8 * h1, ph = mcy * 8 * v1;

    // Every pixel of the padded image as (byte0, byte1, byte2, byte3): blue,
    // green, red for colour, the grey level first for grey.
    auto pixel = [&](int x, int y, uint8_t o[4]) {
        if (x >= w) x = w - 1;
        if (y >= h) y = h - 1;
        const uint8_t* row = px + size_t(h - 1 - y) * rb;
        o[0] = o[1] = o[2] = o[3] = 0;
        if (bits >= 24) {
            for (int i = 0; i < bits / 8; ++i) o[i] = row[x * (bits / 8) + i];
            return;
        }
        int index = bits == 8 ? row[x] : bits == 4 ? (row[x / 2] >> (x % 2 ? 0 : 4)) & 15
                                                   : (row[x / 8] >> (7 - x % 8)) & 1;
        if (grey) {
            o[0] = uint8_t(bits == 8 ? index : bits == 4 ? pal[index].rgbBlue : index ? 255 : 0);
            return;
        }
        o[0] = pal[index].rgbBlue;
        o[1] = pal[index].rgbGreen;
        o[2] = pal[index].rgbRed;
    };
    std::vector<int> plane[4];
    for (auto& p : plane) p.assign(size_t(pw) * ph, 0);
    for (int y = 0; y < ph; ++y)
        for (int x = 0; x < pw; ++x) {
            uint8_t o[4];
            pixel(x, y, o);
            const size_t at = size_t(y) * pw + x;
            if (nf == 1) {
                plane[0][at] = o[0] - 128;
                continue;
            }
            const int r = nf == 3 ? o[2] : o[0], g = o[1], b = nf == 3 ? o[0] : o[2];
            plane[0][at] = T(0.299, r) + T(0.587, g) + T(0.114, b) - 128;
            plane[1][at] = T(-0.16874, r) + T(-0.33126, g) + T(0.5, b);
            plane[2][at] = T(0.5, r) + T(-0.41869, g) + T(-0.08131, b);
            plane[3][at] = 127 - o[3];
        }


    // Block (bx, by) of a component: luma samples, or every h1-th / v1-th
    // chroma sample, transformed and divided by the table entry, rounded.
    auto block = [&](int comp, int bx, int by) {
        const int sx = comp ? h1 : 1, sy = comp ? v1 : 1;
        int16_t s[64], X[64];
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 8; ++x)
                s[y * 8 + x] = int16_t(plane[comp][size_t((by * 8 + y) * sy) * pw + size_t((bx * 8 + x) * sx)]);
        reference_fdct(s, X);
        int16_t* v = &want.c[comp].blocks[(size_t(by) * size_t(mcx * want.c[comp].h) + size_t(bx)) * 64];
        for (int n = 0; n < 64; ++n) {
            const int x = X[n], Q = want.c[comp].q[n], m = x < 0 ? -x : x;
            const int qv = Q == 1 ? m / 4 : (m + 2 * Q) / (4 * Q);
            v[n] = int16_t(x < 0 ? -qv : qv);
        }
    };
    for (int i = 0; i < nf; ++i) {
        auto& k = want.c[i];
        k.h = i ? 1 : h1;
        k.v = i ? 1 : v1;
        std::copy(i ? st.jpeg_chroma : st.jpeg_luma, (i ? st.jpeg_chroma : st.jpeg_luma) + 64, k.q);
        k.blocks.resize(size_t(mcx * k.h) * size_t(mcy * k.v) * 64);
        for (int by = 0; by < mcy * k.v; ++by)
            for (int bx = 0; bx < mcx * k.h; ++bx) block(i, bx, by);
    }
}

}  // namespace tesslin::test
