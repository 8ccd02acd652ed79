// The plain reference codec of the JPEG tests (see jpeg_reference.h).
#include "jpeg_reference.h"

#include <algorithm>
#include <cstring>

#include "core/settings.h"
#include "formats/jpeg/jpeg_internal.h"

namespace tesslin::test {
namespace {

const int kZz[64] = {0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,
                     12, 19, 26, 33, 40, 48, 41, 34, 27, 20, 13, 6,  7,  14, 21, 28,
                     35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23, 30, 37, 44, 51,
                     58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

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
void idct_block(const int16_t* natural, int8_t out[8][8]) {
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
            out[j][r] = int8_t(s);
        }
    }
}

uint8_t L(int32_t v) { return uint8_t(v < -128 ? 0 : v > 127 ? 255 : v + 128); }
int cr_r(int c) { return int(1.402 * c); }
int cb_g(int c) { return int(0.34414 * c); }
int cr_g(int c) { return int(0.71414 * c); }
int cb_b(int c) { return int(1.772 * c); }

struct Huff {
    bool defined = false;
    int maxcode[17], valptr[17], mincode[17];
    uint8_t val[256] = {};
};

// T.81 Annex C and F.2.2.3; false for more codes than the lengths hold.
bool make_huff(Huff& h, const uint8_t* counts, const uint8_t* symbols) {
    int total = 0;
    for (int i = 0; i < 16; ++i) total += counts[i];
    if (total > 256) return false;
    std::memset(h.val, 0, 256);
    std::memcpy(h.val, symbols, size_t(total));
    int code = 0, k = 0;
    for (int l = 1; l <= 16; ++l) {
        h.valptr[l] = k;
        h.mincode[l] = code;
        code += counts[l - 1];
        k += counts[l - 1];
        h.maxcode[l] = counts[l - 1] ? code - 1 : -1;
        if (code > (1 << l)) return false;
        code <<= 1;
    }
    h.defined = true;
    return true;
}

// The T.81 Annex K Huffman tables (standard data, shared with the library).
const jpeg::HuffmanCodeLengths* const kStd[4] = {&jpeg::kDcLuma, &jpeg::kDcChroma, &jpeg::kAcLuma,
                                          &jpeg::kAcChroma};

// One bit at a time: mask from 0x80; a 0x00 after a used 0xFF is skipped;
// zero bytes after the end.
struct Bits {
    const std::vector<uint8_t>& d;
    size_t ptr = 0;
    int mask = 0x80;
    explicit Bits(const std::vector<uint8_t>& data) : d(data) {}
    int at(size_t i) const { return i < d.size() ? d[i] : 0; }
    void next_byte() {
        mask = 0x80;
        if (ptr < d.size() && d[ptr] == 0xFF && ptr + 1 < d.size() && d[ptr + 1] == 0) ptr += 2;
        else ptr += 1;
    }
    int bit() {
        const int b = (at(ptr) & mask) ? 1 : 0;
        mask >>= 1;
        if (!mask) next_byte();
        return b;
    }
    uint32_t get(int n) {
        uint32_t v = 0;
        for (int i = 0; i < n; ++i) v = (v << 1) | uint32_t(bit());
        return v;
    }
    bool starved() const { return ptr > d.size() || (ptr == d.size() && mask != 0x80); }
    void align() {
        if (mask != 0x80) next_byte();
    }
    size_t consumed() {
        Bits c = *this;
        c.align();
        return c.ptr;
    }
    bool restart() {
        for (size_t i = 0; i < 50; ++i) {
            const size_t p = ptr + i;
            if (p + 1 < d.size() && d[p] == 0xFF && d[p + 1] >= 0xD0 && d[p + 1] <= 0xD7) {
                ptr = p + 2;
                mask = 0x80;
                return true;
            }
        }
        return false;
    }
    int decode(const Huff& h) {
        int code = 0;
        for (int l = 1; l <= 16; ++l) {
            code = (code << 1) | bit();
            if (code <= h.maxcode[l]) return h.val[(h.valptr[l] + code - h.mincode[l]) & 0xFF];
        }
        return -1;
    }
};

int32_t extend_value(uint32_t v, int s) {
    if (s == 0) return 0;
    return v < (1u << (s - 1)) ? int32_t(v) - (1 << s) + 1 : int32_t(v);
}

struct Comp {
    int id = 0, h = 1, v = 1, tq = 0, bw = 0, bh = 0, niw = 0, nih = 0;
    int16_t pred = 0;
    int dc = 0, ac = 0;
    std::vector<int16_t> coef;  // zig-zag order per block
};

struct Ref {
    const std::vector<uint8_t>& d;
    ReferenceOptions opt;
    uint16_t q[4][64] = {};
    bool qdef[4] = {};
    Huff dc[3], ac[4];
    int restart = 0;
    int sof = 0, precision = 0, width = 0, height = 0, nf = 0;
    Comp c[4];
    int hmax = 1, vmax = 1, mx = 0, my = 0;
    bool jfif = false, adobe = false;
    int units = 0, xd = 0, yd = 0, flags0 = 0, transform = 0;
    uint32_t eobrun = 0;
    explicit Ref(const std::vector<uint8_t>& data) : d(data) {}

    int byte_or(size_t p) const { return p < d.size() ? d[p] : -1; }
    int be16(size_t p) const { return p + 1 < d.size() ? (d[p] << 8) | d[p + 1] : -1; }

    // Segments up to the first SOS (whose position is returned), or a status.
    int64_t segments(const std::vector<uint8_t>& s, size_t pos, bool stop_at_sos) {
        for (;;) {
            if (pos + 1 >= s.size()) return stop_at_sos ? IMG_ERR_READ : 0;
            if (s[pos] != 0xFF) return IMG_ERR_BAD_IMAGE;  // the tests do not need resync
            const int m = s[pos + 1];
            if (m == 0xFF) {
                ++pos;
                continue;
            }
            if (m == 0xD8 || m == 0x01 || (m >= 0xD0 && m <= 0xD7)) {
                pos += 2;
                continue;
            }
            if (m == 0xD9) return stop_at_sos ? IMG_ERR_BAD_IMAGE : 0;
            if (pos + 3 >= s.size()) return IMG_ERR_READ;
            const size_t len = size_t((s[pos + 2] << 8) | s[pos + 3]);
            size_t p = pos + 4;
            auto byte = [&](size_t i) { return i < s.size() ? s[i] : 0; };
            if (m == 0xC0 || m == 0xC1 || m == 0xC2) {
                sof = m;
                precision = byte(p);
                height = (byte(p + 1) << 8) | byte(p + 2);
                width = (byte(p + 3) << 8) | byte(p + 4);
                nf = byte(p + 5);
                for (int i = 0; i < 4; ++i) {
                    c[i].id = byte(p + 6 + 3 * i);
                    c[i].h = byte(p + 7 + 3 * i) >> 4;
                    c[i].v = byte(p + 7 + 3 * i) & 15;
                    c[i].tq = byte(p + 8 + 3 * i);
                }
            } else if ((m >= 0xC3 && m <= 0xCF) && m != 0xC4 && m != 0xC8 && m != 0xCC) {
                return IMG_ERR_UNSUPPORTED;
            } else if (m == 0xDB) {
                const size_t end = pos + 2 + len;
                while (p < end) {
                    const int pq = byte(p) >> 4, tq = byte(p) & 15;
                    if (pq > 1) return IMG_ERR_BAD_IMAGE;
                    for (int k = 0; k < 64; ++k)
                        if (tq < 4)
                            q[tq][k] = uint16_t(pq ? (byte(p + 1 + 2 * k) << 8) | byte(p + 2 + 2 * k)
                                                   : byte(p + 1 + k));
                    if (tq < 4) qdef[tq] = true;
                    p += 1 + 64 * size_t(pq + 1);
                }
            } else if (m == 0xC4) {
                const size_t end = pos + 2 + len;
                while (p < end) {
                    const int id = byte(p);
                    uint8_t counts[16];
                    int total = 0;
                    for (int i = 0; i < 16; ++i) total += counts[i] = byte(p + 1 + i);
                    if (total > 256) return IMG_ERR_BAD_IMAGE;
                    uint8_t sym[256];
                    for (int i = 0; i < total; ++i) sym[i] = byte(p + 17 + i);
                    Huff* h = id <= 2 ? &dc[id] : (id >= 0x10 && id <= 0x13) ? &ac[id - 0x10] : nullptr;
                    if (h && !make_huff(*h, counts, sym)) return IMG_ERR_BAD_IMAGE;
                    p += 17 + size_t(total);
                }
            } else if (m == 0xDD) {
                restart = (byte(p) << 8) | byte(p + 1);
            } else if (m == 0xE0) {
                if (byte(p) == 'J' && byte(p + 1) == 'F') {
                    jfif = true;
                    units = byte(p + 7);
                    xd = int16_t((byte(p + 8) << 8) | byte(p + 9));
                    yd = int16_t((byte(p + 10) << 8) | byte(p + 11));
                }
            } else if (m == 0xEE) {
                if (byte(p) == 'A') {
                    adobe = true;
                    flags0 = (byte(p + 7) << 8) | byte(p + 8);
                    transform = byte(p + 11);
                }
            } else if (m == 0xDA && stop_at_sos) {
                return int64_t(pos);
            }
            pos += 2 + len;
        }
    }

    void table_for(Comp& k, int tbl) {
        k.dc = (tbl >> 4) == 0 ? 0 : (tbl >> 4) == 1 ? 1 : 2;
        k.ac = (tbl & 15) <= 2 ? (tbl & 15) : 3;
        const jpeg::HuffmanCodeLengths& d = *kStd[k.dc ? 1 : 0];
        const jpeg::HuffmanCodeLengths& a = *kStd[k.ac ? 3 : 2];
        if (!dc[k.dc].defined) make_huff(dc[k.dc], d.counts, d.symbols);
        if (!ac[k.ac].defined) make_huff(ac[k.ac], a.counts, a.symbols);
    }

    // Block of a scan holding every component of a sequential frame:
    // RS = 0 ends the block, any other symbol skips R positions.
    int baseline(Bits& b, Comp& k, int16_t* zz) {
        int s = b.decode(dc[k.dc]);
        if (s < 0) s = 0;
        if (s > 16) return IMG_ERR_BAD_IMAGE;
        k.pred = int16_t(add(k.pred, extend_value(b.get(s), s)));
        zz[0] = k.pred;
        for (int kk = 1; kk < 64; ++kk) {
            const int rs = b.decode(ac[k.ac]);
            if (rs < 0) return IMG_ERR_BAD_IMAGE;
            if (rs == 0) break;
            kk += rs >> 4;
            if (kk > 63) return IMG_ERR_BAD_IMAGE;
            if (rs & 15) zz[kk] = int16_t(extend_value(b.get(rs & 15), rs & 15));
        }
        return 0;
    }

    // One block of any other scan, coefficients in zig-zag order.
    int unit(Bits& b, Comp& k, int16_t* zz, int ss, int se, int ah, int al) {
        if (ss == 0) {
            if (ah == 0) {
                int s = b.decode(dc[k.dc]);
                if (s < 0) s = 0;  // no code within 16 bits: category 0
                if (s > 16) return IMG_ERR_BAD_IMAGE;
                k.pred = int16_t(add(k.pred, extend_value(b.get(s), s)));
                zz[0] = int16_t(uint32_t(k.pred) << al);
            } else if (b.bit()) {
                zz[0] = int16_t(zz[0] | (1 << al));
            }
        }
        if (se == 0) return 0;
        int kk = ss > 0 ? ss : 1;
        if (ah == 0) {
            if (eobrun) {
                --eobrun;
                return 0;
            }
            while (kk <= se) {
                const int rs = b.decode(ac[k.ac]);
                if (rs < 0) return IMG_ERR_BAD_IMAGE;
                const int r = rs >> 4, s = rs & 15;
                if (s == 0 && r < 15) {
                    eobrun = (1u << r) + b.get(r) - 1;
                    break;
                }
                kk += r;
                if (kk > se) return IMG_ERR_BAD_IMAGE;
                if (s) zz[kk] = int16_t(uint32_t(extend_value(b.get(s), s)) << al);
                ++kk;
            }
            return 0;
        }
        const int p1 = 1 << al, m1 = -p1;
        auto refine = [&](int16_t& x) {
            if (b.bit() && (x & p1) == 0) x = int16_t(add(x, x >= 0 ? p1 : m1));
        };
        if (eobrun == 0) {
            for (; kk <= se; ++kk) {
                const int rs = b.decode(ac[k.ac]);
                if (rs < 0) return IMG_ERR_BAD_IMAGE;
                int r = rs >> 4;
                const int s = rs & 15;
                int value = 0;
                if (s) value = b.bit() ? p1 : m1;
                else if (r != 15) {
                    eobrun = (1u << r) + b.get(r);
                    break;
                }
                for (; kk <= se; ++kk) {
                    if (zz[kk]) refine(zz[kk]);
                    else if (r-- == 0) break;
                }
                if (value) {
                    if (kk > se) return IMG_ERR_BAD_IMAGE;
                    zz[kk] = int16_t(value);
                }
            }
        }
        if (eobrun) {
            for (; kk <= se; ++kk)
                if (zz[kk]) refine(zz[kk]);
            --eobrun;
        }
        return 0;
    }

    int32_t run(Decoded* out) {
        if (opt.tables) {
            const int64_t t = segments(*opt.tables, 2, false);
            if (t < 0) return int32_t(t);
        }
        size_t soi = 0;
        while (!(soi + 1 < d.size() && d[soi] == 0xFF && d[soi + 1] == 0xD8)) {
            if (soi == 1000 || soi + 1 >= d.size()) return IMG_ERR_BAD_IMAGE;
            ++soi;
        }
        const int64_t sos = segments(d, soi + 2, true);
        if (sos < 0) return int32_t(sos);
        if (!sof || (nf != 1 && nf != 3 && nf != 4) || precision != 8) return IMG_ERR_UNSUPPORTED;
        if (!width || !height) return IMG_ERR_BAD_IMAGE;
        if (nf == 1) c[0].h = c[0].v = 1;
        for (int i = 0; i < nf; ++i) {
            hmax = std::max(hmax, c[i].h);
            vmax = std::max(vmax, c[i].v);
        }
        mx = (width + 8 * hmax - 1) / (8 * hmax);
        my = (height + 8 * vmax - 1) / (8 * vmax);
        for (int i = 0; i < nf; ++i) {
            Comp& k = c[i];
            k.bw = mx * k.h;
            k.bh = my * k.v;
            k.niw = ((width * k.h + hmax - 1) / hmax + 7) / 8;
            k.nih = ((height * k.v + vmax - 1) / vmax + 7) / 8;
            k.coef.assign(size_t(k.bw) * k.bh * 64, 0);
        }
        int mode = 2;
        uint32_t compression = 0;
        if (nf == 4 && adobe) {
            if (transform == 0) mode = 0;
            else if (transform == 1) mode = 1;
            else if (transform == 2 && flags0 == 0x80) {
                mode = 1;
                compression = 200;
            }
        }
        // Header.
        const int ow = opt.coefficients ? mx * 8 * hmax : width;
        const int oh = opt.coefficients ? my * 8 * vmax : height;
        alignas(4) uint8_t hb[40 + 1024] = {};
        auto* h = reinterpret_cast<DibHeader*>(hb);
        h->biSize = 40;
        h->biWidth = ow;
        h->biHeight = oh;
        h->biPlanes = 1;
        h->biBitCount = uint16_t(opt.coefficients ? 32 * nf : nf == 1 ? 8 : nf == 3 ? 24 : 32);
        h->biCompression = opt.coefficients ? 0 : compression;
        h->biSizeImage = row_bytes(uint32_t(ow), h->biBitCount) * uint32_t(oh);
        if (jfif && units) {
            h->biXPelsPerMeter = units == 2 ? int32_t(xd * 2.54 + 0.5) : xd;
            h->biYPelsPerMeter = units == 2 ? int32_t(yd * 2.54 + 0.5) : yd;
        }
        if (nf == 1 && !opt.coefficients)
            for (int i = 0; i < 256; ++i)
                reinterpret_cast<RgbQuad*>(hb + 40)[i] = RgbQuad{uint8_t(i), uint8_t(i), uint8_t(i), 0};
        Decoded::on_header(h, reinterpret_cast<intptr_t>(out));

        // Scans.
        size_t pos = size_t(sos);
        bool first = true, single = false;
        for (;;) {
            // Next marker.
            while (pos + 1 < d.size() &&
                   !(d[pos] == 0xFF && d[pos + 1] != 0 && d[pos + 1] != 0xFF &&
                     !(d[pos + 1] >= 0xD0 && d[pos + 1] <= 0xD7)))
                ++pos;
            if (pos + 1 >= d.size()) break;
            const int m = d[pos + 1];
            const int len = be16(pos + 2);
            if (len < 0) break;
            if (len < 2 || pos + 2 + size_t(len) > d.size()) break;
            if (m != 0xDA) {
                if (m == 0xC4 || m == 0xDB || m == 0xDD || (m >= 0xE0 && m <= 0xEF) || m == 0xFE) {
                    std::vector<uint8_t> seg(d.begin() + long(pos),
                                             d.begin() + long(std::min(d.size(), pos + 2 + size_t(len))));
                    const int64_t r = segments(seg, 0, false);
                    if (r < 0) return int32_t(r);
                    pos += 2 + size_t(len);
                    continue;
                }
                break;
            }
            // A bad header ends the scans, or the decode when it is the first.
            const int ns = pos + 4 < d.size() ? d[pos + 4] : -1;
            if (ns < 1 || ns > 4) {
                if (first) return IMG_ERR_BAD_IMAGE;
                goto rows;
            }
            int sc[4];
            bool used[4] = {};
            for (int i = 0; i < ns; ++i) {
                const int sel = byte_or(pos + 5 + 2 * i), tbl = byte_or(pos + 6 + 2 * i);
                sc[i] = -1;
                for (int j = 0; j < nf; ++j)
                    if (c[j].id == sel) {
                        sc[i] = j;
                        break;
                    }
                if (sc[i] < 0 || used[sc[i]]) {
                    if (first) return IMG_ERR_BAD_IMAGE;
                    goto rows;
                }
                used[sc[i]] = true;
                table_for(c[sc[i]], tbl);
            }
            const size_t sp = pos + 5 + 2 * size_t(ns);
            const int ss = byte_or(sp), se = byte_or(sp + 1), ah = byte_or(sp + 2) >> 4,
                      al = byte_or(sp + 2) & 15;
            if (ss < 0 || se < 0 || byte_or(sp + 2) < 0 || ss > se || se > 63) {
                if (first) return IMG_ERR_BAD_IMAGE;
                goto rows;
            }
            if (first) {
                single = sof != 0xC2 && ns == nf;
                if (!qdef[0] && !qdef[1]) {
                    for (int k = 0; k < 64; ++k) {
                        q[0][k] = kJpegLumaBase[kZz[k]];
                        q[1][k] = kJpegChromaDefault[kZz[k]];
                    }
                    qdef[0] = qdef[1] = true;
                }
            }
            Bits b(d);
            b.ptr = pos + 2 + size_t(len);
            if (b.ptr >= d.size()) {
                if (first) return IMG_ERR_READ;
                break;
            }
            for (auto& k : c) k.pred = 0;
            eobrun = 0;
            int count = 0;
            bool stop = false;
            const bool ni = ns == 1 && !single;
            const int units_x = ni ? c[sc[0]].niw : mx, units_y = ni ? c[sc[0]].nih : my;
            for (int uy = 0; uy < units_y && !stop; ++uy) {
                if (single && opt.strip_rows && uint32_t(uy * 8 * vmax) % opt.strip_rows == 0) {
                    for (auto& k : c) k.pred = 0;
                    b.align();
                }
                for (int ux = 0; ux < units_x && !stop; ++ux) {
                    for (int i = 0; i < ns && !stop; ++i) {
                        Comp& k = c[sc[i]];
                        const int bv = ni ? 1 : k.v, bh = ni ? 1 : k.h;
                        for (int y = 0; y < bv && !stop; ++y)
                            for (int x = 0; x < bh && !stop; ++x) {
                                const int bx = ni ? ux : ux * k.h + x, by = ni ? uy : uy * k.v + y;
                                int16_t* zz = k.coef.data() + (size_t(by) * k.bw + bx) * 64;
                                const int r = single ? baseline(b, k, zz) : unit(b, k, zz, ss, se, ah, al);
                                if (r < 0) {
                                    if (!b.starved()) return r;
                                    if (single) std::memset(zz, 0, 128);
                                    stop = true;
                                }
                            }
                    }
                    if (stop) break;
                    if (b.starved()) {
                        stop = true;
                        break;
                    }
                    const bool last = uy == units_y - 1 && ux == units_x - 1;
                    if (restart && ++count == restart && !last) {
                        count = 0;
                        if (b.restart()) {
                            for (auto& k : c) k.pred = 0;
                            eobrun = 0;
                        }
                    }
                }
            }
            first = false;
            if (single) break;
            pos = std::max(b.consumed(), pos + 2 + size_t(len));
        }

    rows:
        std::vector<std::vector<int8_t>> plane(static_cast<size_t>(nf));
        std::vector<std::vector<int32_t>> cplane(static_cast<size_t>(nf));
        std::vector<uint8_t> line(row_bytes(uint32_t(out->width()), uint32_t(out->bits())));
        for (int r = 0; r < my; ++r) {
            for (int i = 0; i < nf; ++i) {
                Comp& k = c[i];
                const int pw = k.bw * 8;
                plane[size_t(i)].assign(size_t(pw) * 8 * k.v, 0);
                cplane[size_t(i)].assign(size_t(pw) * 8 * k.v, 0);
                const uint16_t* qt = k.tq == 0 ? q[0] : q[1];
                for (int by = 0; by < k.v; ++by)
                    for (int bx = 0; bx < k.bw; ++bx) {
                        const int16_t* zz = k.coef.data() + (size_t(r * k.v + by) * k.bw + bx) * 64;
                        int16_t nat[64] = {};
                        for (int j = 0; j < 64; ++j) nat[kZz[j]] = int16_t(mul(zz[j], qt[j]));
                        int8_t s[8][8];
                        idct_block(nat, s);
                        for (int y = 0; y < 8; ++y)
                            for (int x = 0; x < 8; ++x) {
                                const size_t at = size_t(by * 8 + y) * pw + bx * 8 + x;
                                plane[size_t(i)][at] = s[y][x];
                                cplane[size_t(i)][at] = nat[y * 8 + x];
                            }
                    }
            }
            for (int y = 0; y < 8 * vmax; ++y) {
                const int row = r * 8 * vmax + y;
                if (row >= oh) break;
                std::fill(line.begin(), line.end(), 0);
                auto sample = [&](int i, int x) {
                    const Comp& k = c[i];
                    return plane[size_t(i)][size_t(y / (vmax / k.v)) * k.bw * 8 + x / (hmax / k.h)];
                };
                for (int x = 0; x < ow; ++x) {
                    uint8_t* o = line.data();
                    if (opt.coefficients) {
                        for (int i = 0; i < nf; ++i) {
                            const Comp& k = c[i];
                            const int32_t v = (y < 8 * k.v && x < k.bw * 8)
                                                  ? cplane[size_t(i)][size_t(y) * k.bw * 8 + x]
                                                  : 0;
                            store_le32(o + (size_t(x) * nf + i) * 4, uint32_t(v));
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
                    if (nf == 3) {
                        o[3 * x] = L(B);
                        o[3 * x + 1] = L(G);
                        o[3 * x + 2] = L(Rr);
                        continue;
                    }
                    const int K = sample(3, x);
                    uint8_t* p = o + 4 * x;
                    if (mode == 0) {
                        p[0] = uint8_t(255 - L(Y));
                        p[1] = uint8_t(255 - L(cb));
                        p[2] = uint8_t(255 - L(cr));
                        p[3] = uint8_t(255 - L(K));
                    } else if (mode == 1) {
                        p[0] = L(B - K - 128);
                        p[1] = L(G - K - 128);
                        p[2] = L(Rr - K - 128);
                        p[3] = uint8_t(K + 128);
                    } else {
                        p[0] = L(Rr);
                        p[1] = L(G);
                        p[2] = L(B);
                        p[3] = uint8_t(255 - L(K));
                    }
                }
                Decoded::on_row(line.data(), reinterpret_cast<intptr_t>(out), row, uint32_t(line.size()));
            }
        }
        return 0;
    }
};

// ---- Encoder ----

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

struct Acc {  // the 16-bit accumulator
    std::vector<uint8_t>& out;
    uint32_t bits = 0;
    int n = 0;
    void put(uint32_t code, int size) {
        for (int i = size - 1; i >= 0; --i) {
            if (n == 16) {
                for (int s : {8, 0}) {
                    const uint8_t byte = uint8_t(bits >> s);
                    out.push_back(byte);
                    if (byte == 0xFF) out.push_back(0);
                }
                bits = 0;
                n = 0;
            }
            bits = (bits << 1) | ((code >> i) & 1);
            ++n;
        }
    }
};

struct Code {
    uint16_t code[256] = {};
    int size[256] = {};
    Code(const uint8_t* counts, const uint8_t* sym) {
        int k = 0, c = 0;
        for (int l = 1; l <= 16; ++l) {
            for (int i = 0; i < counts[l - 1]; ++i, ++k) {
                code[sym[k]] = uint16_t(c++);
                size[sym[k]] = l;
            }
            c <<= 1;
        }
    }
};

}  // namespace

int32_t reference_decode(const std::vector<uint8_t>& file, Decoded* out,
                         const ReferenceOptions& options) {
    Ref r(file);
    r.opt = options;
    return r.run(out);
}

void reference_idct(const int16_t* natural, int8_t* samples) {
    int8_t s[8][8];
    idct_block(natural, s);
    std::memcpy(samples, s, 64);
}

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

int32_t reference_encode(const void* dib, std::vector<uint8_t>* out) {
    const auto* hd = static_cast<const DibHeader*>(dib);
    const int w = hd->biWidth, h = hd->biHeight, bits = hd->biBitCount;
    if (bits == 16) return IMG_ERR_DEPTH;
    const auto* pal = dib_palette(dib);
    const uint32_t rb = row_bytes(uint32_t(w), uint32_t(bits));
    const uint8_t* px = static_cast<const uint8_t*>(dib) + 40 + palette_bytes(uint32_t(bits));
    bool grey = bits <= 8 && pal[0].rgbBlue <= 40;
    for (int i = 0; grey && i < (1 << bits); ++i)
        grey = pal[i].rgbBlue == pal[i].rgbGreen && pal[i].rgbBlue == pal[i].rgbRed;
    const Settings& st = settings();
    auto clampf = [](int f) { return f < 1 ? 1 : f > 4 ? 4 : f; };
    const int nf = grey ? 1 : bits == 32 ? 4 : 3;
    const int h1 = nf == 3 ? clampf(st.jpeg_h) : 1, v1 = nf == 1 ? 1 : clampf(st.jpeg_v);
    const int mcx = (w + 8 * h1 - 1) / (8 * h1), mcy = (h + 8 * v1 - 1) / (8 * v1);
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

    std::vector<uint8_t>& o = *out;
    o.clear();
    auto put = [&](std::initializer_list<int> bytes) {
        for (int b : bytes) o.push_back(uint8_t(b));
    };
    put({0xFF, 0xD8});
    if (nf == 4) put({0xFF, 0xEE, 0, 14, 'A', 'd', 'o', 'b', 'e', 1, 0, 0x40, 0, 0, 0, 2});
    int xd = hd->biXPelsPerMeter, yd = hd->biYPelsPerMeter;
    if (xd == 0) xd = yd = 96;
    put({0xFF, 0xE0, 0, 16, 'J', 'F', 'I', 'F', 0, 1, 0, 1, (xd >> 8) & 255, xd & 255, (yd >> 8) & 255,
         yd & 255, 0, 0});
    put({0xFF, 0xDB, 0, 132, 0});
    for (int k = 0; k < 64; ++k) o.push_back(st.jpeg_luma[kZz[k]]);
    o.push_back(1);
    for (int k = 0; k < 64; ++k) o.push_back(st.jpeg_chroma[kZz[k]]);
    put({0xFF, 0xC0, 0, 8 + 3 * nf, 8, h >> 8, h & 255, w >> 8, w & 255, nf, 1, 16 * h1 + v1, 0});
    for (int i = 1; i < nf; ++i) put({i + 1, 0x11, 1});
    auto dht = [&](int id, const uint8_t* counts, const uint8_t* sym, int total) {
        put({0xFF, 0xC4, 0, 19 + total, id});
        o.insert(o.end(), counts, counts + 16);
        o.insert(o.end(), sym, sym + total);
    };
    for (int t : {0, 2, 1, 3})
        if (nf > 1 || t % 2 == 0)
            dht((t >= 2 ? 0x10 : 0) | (t % 2), kStd[t]->counts, kStd[t]->symbols, kStd[t]->total);
    put({0xFF, 0xDA, 0, 6 + 2 * nf, nf, 1, 0});
    for (int i = 1; i < nf; ++i) put({i + 1, 0x11});
    put({0, 63, 0});

    const Code dcl(kStd[0]->counts, kStd[0]->symbols), dcc(kStd[1]->counts, kStd[1]->symbols);
    const Code acl(kStd[2]->counts, kStd[2]->symbols), acc(kStd[3]->counts, kStd[3]->symbols);
    Acc a{o};
    int pred[4] = {};
    auto block = [&](int comp, int x0, int y0, int step_x, int step_y) {
        // Samples: every step-th sample from (x0, y0).
        int32_t s[8][8], tmp[8][8], X[8][8];
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 8; ++x) s[y][x] = plane[comp][size_t(y0 + y * step_y) * pw + x0 + x * step_x];
        for (int r = 0; r < 8; ++r) {
            int32_t res[8];
            fdct8(s[r], res);
            for (int k = 0; k < 8; ++k) tmp[k][r] = int16_t(res[k]);
        }
        for (int k = 0; k < 8; ++k) {
            int32_t res[8];
            fdct8(tmp[k], res);
            for (int j = 0; j < 8; ++j) X[j][k] = int16_t(res[j]);
        }
        const uint8_t* qt = comp ? st.jpeg_chroma : st.jpeg_luma;
        int v[64];
        int last = 0;
        for (int k = 0; k < 64; ++k) {
            const int n = kZz[k], x = X[n / 8][n % 8], Q = qt[n];
            const int m = x < 0 ? -x : x;
            const int qv = Q == 1 ? m / 4 : (m + 2 * Q) / (4 * Q);
            v[k] = x < 0 ? -qv : qv;
            if (v[k]) last = k;
        }
        const Code& dc = comp ? dcc : dcl;
        const Code& ac = comp ? acc : acl;
        const int diff = v[0] - pred[comp];
        pred[comp] = v[0];
        int cat = 0;
        while ((diff < 0 ? -diff : diff) >> cat) ++cat;
        a.put(dc.code[cat], dc.size[cat]);
        if (cat) a.put(uint32_t(diff < 0 ? diff - 1 : diff), cat);
        int run = 0;
        for (int k = 1; k <= last; ++k) {
            if (v[k] == 0 && run < 15) {
                ++run;
                continue;
            }
            int size = 0;
            while ((v[k] < 0 ? -v[k] : v[k]) >> size) ++size;
            a.put(ac.code[run * 16 + size], ac.size[run * 16 + size]);
            if (size) a.put(uint32_t(v[k] < 0 ? v[k] - 1 : v[k]), size);
            run = 0;
        }
        if (last < 63) a.put(ac.code[0], ac.size[0]);
    };
    for (int my = 0; my < mcy; ++my)
        for (int mx = 0; mx < mcx; ++mx) {
            for (int by = 0; by < v1; ++by)
                for (int bx = 0; bx < h1; ++bx) block(0, (mx * h1 + bx) * 8, my * 8 * v1 + by * 8, 1, 1);
            for (int i = 1; i < nf; ++i) block(i, mx * 8 * h1, my * 8 * v1, h1, v1);
        }
    a.put(0, 17 - a.n);
    put({0xFF, 0xD9});
    return 0;
}

}  // namespace tesslin::test
