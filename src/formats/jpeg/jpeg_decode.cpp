// JPEG decoder: Huffman-coded baseline, extended (8-bit) and progressive
// frames, one or several scans, grey, YCbCr, CMYK and YCCK, delivered row
// by row through the decoder callbacks.
//
// A frame whose scan holds every component is decoded one MCU row at a
// time straight into sample planes. Any other frame (progressive, or
// sequential with one scan per component) keeps every block's coefficients
// until its last scan and then produces the rows the same way.
#include <cstring>
#include <memory>
#include <new>

#include "core/api.h"
#include "core/limits.h"
#include "core/settings.h"
#include "core/stream.h"
#include "formats/jpeg/jpeg.h"
#include "formats/jpeg/jpeg_input.h"
#include "formats/jpeg/jpeg_internal.h"
#include "formats/jpeg/jpeg_rows.h"
#include "pipeline/codec.h"

namespace tesslin::jpeg {
namespace {

constexpr int kMaxComponents = 4;

// Unrecoverable problems inside the entropy-coded data.
constexpr int32_t kCorrupt = IMG_ERR_BAD_IMAGE;

template <typename T>
std::unique_ptr<T[]> alloc_array(size_t n) {
    return std::unique_ptr<T[]>(new (std::nothrow) T[n]);
}

struct Component {
    int id = 0, h = 1, v = 1, tq = 0;
    int bw = 0, bh = 0;      // blocks across and down in the MCU-padded grid
    int ni_w = 0, ni_h = 0;  // blocks of a scan that holds this component alone
    int16_t pred = 0;
    const HuffmanDecode* dc = nullptr;
    const HuffmanDecode* ac = nullptr;
    std::unique_ptr<int16_t[]> coefs;  // every block, zig-zag order (multi-scan)
    Plane plane;                       // one MCU row of samples
};

struct Scan {
    int ns = 0;
    int comp[kMaxComponents] = {};  // frame component index per scan component
    int ss = 0, se = 63, ah = 0, al = 0;
    uint64_t data = 0;  // offset of the entropy-coded data
};

class Decoder {
public:
    Decoder(int32_t stream, const DecodeOptions& options)
        : stream_(stream), src_(stream), br_(src_), options_(options) {}

    int32_t run(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                IMG_HEADER_CALLBACK header);

private:
    // ---- segments ----
    int32_t find_soi(uint64_t start, uint64_t* soi);
    int32_t parse_headers(uint64_t soi);
    int32_t read_dqt(int32_t length);
    int32_t read_dht(int32_t length);
    int32_t read_frame(int marker);
    int32_t read_scan_header(uint64_t marker_pos, Scan* scan);
    int32_t validate_frame();
    int32_t announce(IMG_HEADER_CALLBACK header, intptr_t user);
    void install_tables(const Tables& t);
    void install_default_quant();
    const HuffmanDecode* dc_table(int nibble);
    const HuffmanDecode* ac_table(int nibble);
    bool find_marker(uint64_t from, uint64_t* at, int* marker);

    // ---- entropy-coded data ----
    int32_t decode_block(Component& c, const uint16_t* q, int16_t* block);
    int32_t decode_unit(Component& c, int16_t* zz, const Scan& scan);
    void reset_predictors() {
        for (auto& c : comp_) c.pred = 0;
        eobrun_ = 0;
    }

    // ---- paths ----
    int32_t single_scan(const Scan& scan);
    int32_t multi_scan(uint64_t first_sos);
    int32_t decode_scan(const Scan& scan, bool first);
    int32_t allocate_planes();
    int32_t deliver_mcu_row(int my);
    void emit_block(Component& c, const int16_t* block, bool ac, int bx, int by);
    void zero_block(Component& c, int bx, int by);
    void flush_idct();
    void keep_pending();
    const uint16_t* quant_for(const Component& c) const { return c.tq == 0 ? quant_[0] : quant_[1]; }

    int32_t stream_;
    Source src_;
    BitReader br_;
    const DecodeOptions& options_;
    bool coefficients_ = false;
    IMG_RASTER_CALLBACK raster_ = nullptr;
    intptr_t user_ = 0;

    // Tables.
    uint16_t quant_[4][64] = {};
    bool quant_defined_[4] = {};
    HuffmanDecode dc_[3], ac_[4];
    uint32_t restart_interval_ = 0;

    // Frame.
    int frame_marker_ = 0;
    int precision_ = 0;
    int width_ = 0, height_ = 0, nf_ = 0;
    Component comp_[kMaxComponents];
    int hmax_ = 1, vmax_ = 1, mcus_x_ = 0, mcus_y_ = 0;
    uint32_t eobrun_ = 0;

    // Markers seen.
    bool jfif_ = false;
    int jfif_units_ = 0, jfif_x_ = 0, jfif_y_ = 0;
    bool adobe_ = false;
    int adobe_flags0_ = 0, adobe_transform_ = 0;
    int cmyk_mode_ = 2;
    uint32_t compression_ = 0;
    uint64_t sos_pos_ = 0;

    // Output.
    const Kernels& kern_ = kernels();
    RowConverter rows_;
    std::unique_ptr<uint8_t[]> line_[2];
    uint32_t line_bytes_ = 0;
    // A block waiting for a second one to go through the paired inverse
    // transform.
    struct PendingIdct {
        const int16_t* coef = nullptr;
        int8_t* out = nullptr;
        int stride = 0;
    } pending_;
    // Dequantised coefficients of the blocks of one MCU (or of a run of
    // blocks of the multi-scan path), column-major, all zero between uses.
    static constexpr int kBlockBuffer = 64;
    alignas(32) int16_t blocks_[kBlockBuffer][64] = {};
    alignas(32) int16_t pending_copy_[64] = {};
    int32_t delivered_ = 0;
    int out_height_ = 0;
};

// ---------------------------------------------------------------------------
// Segments

int32_t Decoder::find_soi(uint64_t start, uint64_t* soi) {
    src_.seek(start);
    uint8_t two[2];
    if (!src_.read(two, 2)) return IMG_ERR_READ;
    for (uint64_t i = 0;; ++i) {
        if (two[0] == 0xFF && two[1] == 0xD8) {
            *soi = start + i;
            return 0;
        }
        if (i == 1000) return IMG_ERR_BAD_IMAGE;
        two[0] = two[1];
        int b = src_.byte();
        if (b < 0) return IMG_ERR_BAD_IMAGE;
        two[1] = static_cast<uint8_t>(b);
    }
}

void Decoder::install_tables(const Tables& t) {
    for (int i = 0; i < 4; ++i)
        if (t.quant_defined[i]) {
            std::memcpy(quant_[i], t.quant[i], sizeof quant_[i]);
            quant_defined_[i] = true;
        }
    for (int i = 0; i < 3; ++i)
        if (t.dc[i].defined) build_huffman(dc_[i], t.dc[i].counts, t.dc[i].symbols, true);
    for (int i = 0; i < 4; ++i)
        if (t.ac[i].defined) build_huffman(ac_[i], t.ac[i].counts, t.ac[i].symbols, false);
    if (t.restart_defined) restart_interval_ = t.restart_interval;
}

void Decoder::install_default_quant() {
    if (quant_defined_[0] || quant_defined_[1]) return;
    std::memcpy(quant_[0], default_quant(0), sizeof quant_[0]);
    std::memcpy(quant_[1], default_quant(1), sizeof quant_[1]);
    quant_defined_[0] = quant_defined_[1] = true;
}

int32_t Decoder::read_dqt(int32_t length) {
    int32_t left = length - 2;
    while (left > 0) {
        const int pqtq = src_.byte();
        if (pqtq < 0) return IMG_ERR_READ;
        const int pq = pqtq >> 4, tq = pqtq & 15;
        if (pq > 1) return IMG_ERR_BAD_IMAGE;
        uint16_t table[64];
        for (int k = 0; k < 64; ++k) {
            const int32_t v = pq ? src_.be16() : src_.byte();
            if (v < 0) return IMG_ERR_READ;
            table[k] = static_cast<uint16_t>(v);
        }
        if (tq < 4) {
            std::memcpy(quant_[tq], table, sizeof table);
            quant_defined_[tq] = true;
        }
        left -= 1 + 64 * (pq + 1);
    }
    return 0;
}

int32_t Decoder::read_dht(int32_t length) {
    int32_t left = length - 2;
    while (left > 0) {
        const int id = src_.byte();
        uint8_t counts[16], symbols[256];
        if (id < 0 || !src_.read(counts, 16)) return IMG_ERR_READ;
        int total = 0;
        for (int i = 0; i < 16; ++i) total += counts[i];
        if (total > 256) return IMG_ERR_BAD_IMAGE;
        if (!src_.read(symbols, static_cast<uint32_t>(total))) return IMG_ERR_READ;
        HuffmanDecode* t = id <= 2 ? &dc_[id] : (id >= 0x10 && id <= 0x13) ? &ac_[id - 0x10] : nullptr;
        if (t && !build_huffman(*t, counts, symbols, id <= 2)) return IMG_ERR_BAD_IMAGE;
        left -= 17 + total;
    }
    return 0;
}

int32_t Decoder::read_frame(int marker) {
    uint8_t b[18];
    if (!src_.read(b, 18)) return IMG_ERR_READ;
    frame_marker_ = marker;
    precision_ = b[0];
    height_ = (b[1] << 8) | b[2];
    width_ = (b[3] << 8) | b[4];
    nf_ = b[5];
    for (int i = 0; i < kMaxComponents; ++i) {
        comp_[i].id = b[6 + 3 * i];
        comp_[i].h = b[7 + 3 * i] >> 4;
        comp_[i].v = b[7 + 3 * i] & 15;
        comp_[i].tq = b[8 + 3 * i];
    }
    return 0;
}

int32_t Decoder::parse_headers(uint64_t soi) {
    uint64_t pos = soi + 2;
    int32_t last_length = 0;
    for (;;) {
        src_.seek(pos);
        const int b0 = src_.byte(), b1 = src_.byte();
        if (b1 < 0) return IMG_ERR_READ;
        if (b0 != 0xFF) {
            // A segment length was wrong: search again from just after the
            // previous marker for one of the segments that matter.
            uint64_t q = pos - static_cast<uint64_t>(last_length);
            src_.seek(q);
            int prev = src_.byte();
            for (;;) {
                const int cur = src_.byte();
                if (cur < 0) return IMG_ERR_READ;
                if (prev == 0xFF && (cur == 0xC0 || cur == 0xC1 || cur == 0xC2 || cur == 0xDB ||
                                     cur == 0xC4 || cur == 0xDD || cur == 0xDA))
                    break;
                prev = cur;
                ++q;
            }
            pos = q;
            continue;
        }
        if (b1 == 0xFF) {  // fill byte
            pos += 1;
            continue;
        }
        if (b1 == 0x01 || (b1 >= 0xD0 && b1 <= 0xD8)) {  // markers without a segment
            pos += 2;
            continue;
        }
        if (b1 == 0xD9) return IMG_ERR_BAD_IMAGE;  // end of image before any scan
        const int32_t length = src_.be16();
        if (length < 0) return IMG_ERR_READ;
        const uint64_t next = pos + 2 + static_cast<uint64_t>(length);
        int32_t r = 0;
        switch (b1) {
            case 0xC0:
            case 0xC1:
            case 0xC2:
                r = read_frame(b1);
                break;
            case 0xC3: case 0xC5: case 0xC6: case 0xC7: case 0xC9: case 0xCA:
            case 0xCB: case 0xCD: case 0xCE: case 0xCF:
                return IMG_ERR_UNSUPPORTED;  // lossless, hierarchical or arithmetic
            case 0xDB:
                r = read_dqt(length);
                break;
            case 0xC4:
                r = read_dht(length);
                break;
            case 0xDD: {
                const int32_t v = src_.be16();
                if (v < 0) return IMG_ERR_READ;
                restart_interval_ = static_cast<uint32_t>(v);
                break;
            }
            case 0xE0: {
                uint8_t a[14];
                if (!src_.read(a, 14)) return IMG_ERR_READ;
                if (a[0] == 'J' && a[1] == 'F') {
                    jfif_ = true;
                    jfif_units_ = a[7];
                    jfif_x_ = static_cast<int16_t>((a[8] << 8) | a[9]);
                    jfif_y_ = static_cast<int16_t>((a[10] << 8) | a[11]);
                }
                break;
            }
            case 0xEE: {
                uint8_t a[12];
                if (!src_.read(a, 12)) return IMG_ERR_READ;
                if (a[0] == 'A') {
                    adobe_ = true;
                    adobe_flags0_ = (a[7] << 8) | a[8];
                    adobe_transform_ = a[11];
                }
                break;
            }
            case 0xDA:
                sos_pos_ = pos;
                return 0;
            default:
                break;
        }
        if (r < 0) return r;
        pos = next;
        last_length = length;
    }
}

int32_t Decoder::validate_frame() {
    if (!frame_marker_ || (nf_ != 1 && nf_ != 3 && nf_ != 4) || precision_ != 8)
        return IMG_ERR_UNSUPPORTED;
    if (width_ == 0 || height_ == 0) return IMG_ERR_BAD_IMAGE;
    if (nf_ == 1) comp_[0].h = comp_[0].v = 1;
    hmax_ = vmax_ = 1;
    for (int i = 0; i < nf_; ++i) {
        Component& c = comp_[i];
        if (c.h < 1 || c.h > 4 || c.v < 1 || c.v > 4) return IMG_ERR_BAD_IMAGE;
        if (c.h > hmax_) hmax_ = c.h;
        if (c.v > vmax_) vmax_ = c.v;
    }
    for (int i = 0; i < nf_; ++i)
        if (hmax_ % comp_[i].h || vmax_ % comp_[i].v) return IMG_ERR_UNSUPPORTED;
    mcus_x_ = (width_ + 8 * hmax_ - 1) / (8 * hmax_);
    mcus_y_ = (height_ + 8 * vmax_ - 1) / (8 * vmax_);
    uint64_t blocks = 0;
    for (int i = 0; i < nf_; ++i) {
        Component& c = comp_[i];
        c.bw = mcus_x_ * c.h;
        c.bh = mcus_y_ * c.v;
        const int cw = (width_ * c.h + hmax_ - 1) / hmax_;
        const int ch = (height_ * c.v + vmax_ - 1) / vmax_;
        c.ni_w = (cw + 7) / 8;
        c.ni_h = (ch + 7) / 8;
        blocks += static_cast<uint64_t>(c.bw) * static_cast<uint64_t>(c.bh);
    }
    // Every block costs at least one bit of entropy-coded data: refuse
    // sizes that the stream cannot back before anything is allocated.
    if (int32_t s = limits::check_declared_size(stream::capacity(stream_), sos_pos_, blocks * 64,
                                                limits::kJpeg, IMG_ERR_BAD_IMAGE))
        return s;
    if (nf_ == 4) {
        cmyk_mode_ = 2;
        if (adobe_) {
            if (adobe_transform_ == 0) cmyk_mode_ = 0;
            else if (adobe_transform_ == 1) cmyk_mode_ = 1;
            else if (adobe_transform_ == 2 && adobe_flags0_ == 0x0080) {
                cmyk_mode_ = 1;
                compression_ = 200;
            }
        }
    }
    return 0;
}

int32_t Decoder::announce(IMG_HEADER_CALLBACK header, intptr_t user) {
    alignas(4) uint8_t block[kHeaderBlockSize] = {};
    auto* h = reinterpret_cast<DibHeader*>(block);
    h->biSize = 40;
    h->biPlanes = 1;
    int out_width = width_;
    out_height_ = height_;
    uint32_t bits;
    if (coefficients_) {
        out_width = mcus_x_ * 8 * hmax_;
        out_height_ = mcus_y_ * 8 * vmax_;
        bits = 32u * static_cast<uint32_t>(nf_);
    } else {
        bits = nf_ == 1 ? 8 : nf_ == 3 ? 24 : 32;
        h->biCompression = compression_;
    }
    h->biWidth = out_width;
    h->biHeight = out_height_;
    h->biBitCount = static_cast<uint16_t>(bits);
    line_bytes_ = row_bytes(static_cast<uint32_t>(out_width), bits);
    h->biSizeImage = line_bytes_ * static_cast<uint32_t>(out_height_);
    if (jfif_ && jfif_units_ != 0) {
        int32_t x = jfif_x_, y = jfif_y_;
        if (jfif_units_ == 2) {
            x = static_cast<int32_t>(x * 2.54 + 0.5);
            y = static_cast<int32_t>(y * 2.54 + 0.5);
        }
        dib_set_resolution(h, x, y);
    }
    if (bits == 8) {
        RgbQuad* pal = dib_palette(block);
        for (int i = 0; i < 256; ++i) {
            const auto v = static_cast<uint8_t>(i);
            pal[i] = RgbQuad{v, v, v, 0};
        }
    }
    const int32_t r = header(h, user);
    return r < 0 ? r : 0;
}

const HuffmanDecode* Decoder::dc_table(int nibble) {
    const int i = nibble == 0 ? 0 : nibble == 1 ? 1 : 2;
    // Streams without a DHT (motion-JPEG frames) rely on the standard tables.
    if (!dc_[i].defined) {
        const HuffmanCodeLengths& s = i == 0 ? kDcLuma : kDcChroma;
        build_huffman(dc_[i], s.counts, s.symbols, true);
    }
    return &dc_[i];
}

const HuffmanDecode* Decoder::ac_table(int nibble) {
    const int i = nibble <= 2 ? nibble : 3;
    if (!ac_[i].defined) {
        const HuffmanCodeLengths& s = i == 0 ? kAcLuma : kAcChroma;
        build_huffman(ac_[i], s.counts, s.symbols, false);
    }
    return &ac_[i];
}

int32_t Decoder::read_scan_header(uint64_t marker_pos, Scan* scan) {
    src_.seek(marker_pos + 2);
    const int32_t length = src_.be16();
    const int ns = src_.byte();
    if (length < 0 || ns < 0) return IMG_ERR_READ;
    if (ns < 1 || ns > kMaxComponents) return IMG_ERR_BAD_IMAGE;
    scan->ns = ns;
    bool used[kMaxComponents] = {};
    for (int i = 0; i < ns; ++i) {
        const int sel = src_.byte(), tbl = src_.byte();
        if (tbl < 0) return IMG_ERR_READ;
        int found = -1;
        for (int c = 0; c < nf_; ++c)
            if (comp_[c].id == sel) {
                found = c;
                break;
            }
        if (found < 0 || used[found]) return IMG_ERR_BAD_IMAGE;
        used[found] = true;
        scan->comp[i] = found;
        comp_[found].dc = dc_table(tbl >> 4);
        comp_[found].ac = ac_table(tbl & 15);
    }
    const int ss = src_.byte(), se = src_.byte(), a = src_.byte();
    if (a < 0) return IMG_ERR_READ;
    scan->ss = ss;
    scan->se = se;
    scan->ah = a >> 4;
    scan->al = a & 15;
    if (ss > se || se > 63) return IMG_ERR_BAD_IMAGE;
    scan->data = marker_pos + 2 + static_cast<uint64_t>(length);
    return 0;
}

// Next marker at or after `from`: 0xFF followed by a byte that is not 0x00,
// 0xFF or a restart marker.
bool Decoder::find_marker(uint64_t from, uint64_t* at, int* marker) {
    src_.seek(from);
    int prev = src_.byte();
    uint64_t q = from;
    for (;;) {
        const int cur = src_.byte();
        if (cur < 0) return false;
        if (prev == 0xFF && cur != 0x00 && cur != 0xFF && !(cur >= 0xD0 && cur <= 0xD7)) {
            *at = q;
            *marker = cur;
            return true;
        }
        prev = cur;
        ++q;
    }
}

// ---------------------------------------------------------------------------
// Entropy-coded data

// Baseline block (T.81 F.2.2): dequantised coefficients, column-major,
// into `block` (all zero on entry). Returns 0 when the block holds its DC
// coefficient only, 1 when it has AC symbols, or kCorrupt. Most codes are
// resolved with their value bits in one lookup of the fast table; the
// others by their code alone, or bit by bit. The bit window lives in
// registers and goes back to the reader around every slower step.
__attribute__((always_inline)) inline int32_t Decoder::decode_block(Component& c,
                                                                     const uint16_t* q,
                                                                     int16_t* block) {
    BitWindow w = br_.window();
#define REFILL()                                                                          \
    do {                                                                                  \
        if (w.nbits < 32 && !w.quick_fill()) {                                            \
            br_.set_window(w);                                                            \
            br_.fill();                                                                   \
            w = br_.window();                                                             \
        }                                                                                 \
    } while (0)
    REFILL();
    int32_t diff;
    const uint32_t d = c.dc->fast[w.peek(kFastBits)];
    if (d & kFastValue) {
        w.consume(d);
        diff = static_cast<int32_t>(d) >> 16;
    } else {
        br_.set_window(w);
        int s;
        if (d) {
            br_.skip(static_cast<int>(d & kFastLength));
            s = static_cast<int>((d >> 8) & 0xFF);
        } else {
            s = br_.decode_long(*c.dc);
            if (s < 0) s = 0;  // no code within 16 bits: category 0
        }
        if (s > 16) return kCorrupt;
        diff = s ? extend(br_.get(s), s) : 0;
        w = br_.window();
    }
    c.pred = static_cast<int16_t>(wrap_add(c.pred, diff));
    block[0] = static_cast<int16_t>(wrap_mul(c.pred, q[0]));
    const uint32_t* fast = c.ac->fast;
    int k = 1;
    for (;;) {
        REFILL();
        const uint32_t e = fast[w.peek(kFastBits)];
        int run;
        int32_t value;
        if (e & kFastValue) {
            w.consume(e);
            run = static_cast<int>((e >> 8) & 0xFF);  // kEndOfBlock runs past the block
            value = static_cast<int32_t>(e) >> 16;
        } else {
            br_.set_window(w);
            int rs;
            if (e) {
                br_.skip(static_cast<int>(e & kFastLength));
                rs = static_cast<int>((e >> 8) & 0xFF);
            } else {
                rs = br_.decode_long(*c.ac);
                if (rs < 0) return kCorrupt;
            }
            const int size = rs & 15;
            value = size ? extend(br_.get(size), size) : 0;
            run = rs ? rs >> 4 : static_cast<int>(kEndOfBlock);
            w = br_.window();
        }
        k += run;
        if (k > 63) {
            if (run == static_cast<int>(kEndOfBlock)) {
                k -= run;
                break;
            }
            br_.set_window(w);
            return kCorrupt;
        }
        // Written even when zero (a run without value): the position was
        // zero, and each position is reached once.
        block[kZigzagColumns[k]] = static_cast<int16_t>(wrap_mul(value, q[k]));
        if (++k == 64) break;
    }
#undef REFILL
    br_.set_window(w);
    return k > 1;
}

// One block of a scan of the multi-scan path, coefficients in zig-zag order.
int32_t Decoder::decode_unit(Component& c, int16_t* zz, const Scan& scan) {
    const int al = scan.al;
    if (scan.ss == 0) {
        if (scan.ah == 0) {
            int s = br_.decode(*c.dc);
            if (s < 0) s = 0;
            if (s > 16) return kCorrupt;
            const int32_t diff = s ? extend(br_.get(s), s) : 0;
            c.pred = static_cast<int16_t>(wrap_add(c.pred, diff));
            zz[0] = static_cast<int16_t>(static_cast<uint32_t>(c.pred) << al);
        } else if (br_.get(1)) {
            zz[0] = static_cast<int16_t>(zz[0] | (1 << al));
        }
    }
    if (scan.se == 0) return 0;
    const int se = scan.se;
    int k = scan.ss > 0 ? scan.ss : 1;
    const HuffmanDecode& ac = *c.ac;
    if (scan.ah == 0) {
        // First scan of the band (T.81 G.1.2.2).
        if (eobrun_) {
            --eobrun_;
            return 0;
        }
        while (k <= se) {
            const int rs = br_.decode(ac);
            if (rs < 0) return kCorrupt;
            const int r = rs >> 4, s = rs & 15;
            if (s == 0) {
                if (r < 15) {
                    eobrun_ = (1u << r) + br_.get(r) - 1;
                    break;
                }
                k += 15;
                if (k > se) return kCorrupt;
                ++k;
                continue;
            }
            k += r;
            if (k > se) return kCorrupt;
            zz[k] = static_cast<int16_t>(static_cast<uint32_t>(extend(br_.get(s), s)) << al);
            ++k;
        }
        return 0;
    }
    // Refinement of the band (T.81 G.1.2.3).
    const int32_t p1 = 1 << al, m1 = -p1;
    auto refine = [&](int16_t& coef) {
        if (br_.get(1) && (coef & p1) == 0)
            coef = static_cast<int16_t>(wrap_add(coef, coef >= 0 ? p1 : m1));
    };
    if (eobrun_ == 0) {
        for (; k <= se; ++k) {
            const int rs = br_.decode(ac);
            if (rs < 0) return kCorrupt;
            int r = rs >> 4;
            const int s = rs & 15;
            int32_t value = 0;
            if (s) {
                value = br_.get(1) ? p1 : m1;
            } else if (r != 15) {
                eobrun_ = 1u << r;
                if (r) eobrun_ += br_.get(r);
                break;
            }
            // Skip r coefficients that are still zero, refining the others.
            for (; k <= se; ++k) {
                if (zz[k] != 0) {
                    refine(zz[k]);
                } else {
                    if (r == 0) break;
                    --r;
                }
            }
            if (value) {
                if (k > se) return kCorrupt;
                zz[k] = static_cast<int16_t>(value);
            }
        }
    }
    if (eobrun_) {
        for (; k <= se; ++k)
            if (zz[k] != 0) refine(zz[k]);
        --eobrun_;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Output

int32_t Decoder::allocate_planes() {
    for (int i = 0; i < nf_; ++i) {
        Component& c = comp_[i];
        if (!c.plane.allocate(c.bw * 8, c.v * 8, coefficients_)) return IMG_ERR_MEMORY;
    }
    for (auto& line : line_) {
        line = alloc_array<uint8_t>(line_bytes_ + 64);
        if (!line) return IMG_ERR_MEMORY;
        std::memset(line.get(), 0, line_bytes_ + 64);
    }
    RowLayout layout;
    layout.nf = nf_;
    layout.width = coefficients_ ? mcus_x_ * 8 * hmax_ : width_;
    layout.row_bytes = line_bytes_;
    layout.hmax = hmax_;
    layout.vmax = vmax_;
    layout.cmyk_mode = cmyk_mode_;
    layout.rgb = options_.rgb;
    layout.coefficients = coefficients_;
    for (int i = 0; i < nf_; ++i) {
        layout.plane[i] = &comp_[i].plane;
        layout.h[i] = comp_[i].h;
        layout.v[i] = comp_[i].v;
    }
    if (!rows_.init(layout, kern_)) return IMG_ERR_MEMORY;
    return 0;
}

// A column-major block of dequantised coefficients into the plane: through
// the inverse transform (one value for a block without AC coefficients),
// or as it is for coefficient output. Blocks wait for a partner when the
// processor transforms two at once; flush_idct() transforms the one left
// over.
void Decoder::emit_block(Component& c, const int16_t* block, bool ac, int bx, int by) {
    if (coefficients_) {
        int32_t* out = c.plane.coefficients() + static_cast<size_t>(by) * 8 * c.plane.width + bx * 8;
        for (int v = 0; v < 8; ++v)
            for (int u = 0; u < 8; ++u) out[v * c.plane.width + u] = block[u * 8 + v];
        return;
    }
    const int stride = c.plane.width;
    int8_t* out = c.plane.samples() + static_cast<size_t>(by) * 8 * stride + bx * 8;
    if (!ac) {
        uint64_t v = static_cast<uint8_t>(idct_dc_value(block[0]));
        v *= 0x0101010101010101ull;
        for (int j = 0; j < 8; ++j) std::memcpy(out + j * stride, &v, 8);
        return;
    }
    if (!kern_.idct_pair) {
        kern_.idct(block, out, stride);
    } else if (pending_.coef) {
        kern_.idct_pair(pending_.coef, pending_.out, pending_.stride, block, out, stride);
        pending_.coef = nullptr;
    } else {
        pending_ = PendingIdct{block, out, stride};
    }
}

// The coefficient buffer is about to be cleared: a block still waiting
// for its partner moves out of it.
void Decoder::keep_pending() {
    if (!pending_.coef || pending_.coef == pending_copy_) return;
    std::memcpy(pending_copy_, pending_.coef, sizeof pending_copy_);
    pending_.coef = pending_copy_;
}

void Decoder::flush_idct() {
    if (!pending_.coef) return;
    kern_.idct(pending_.coef, pending_.out, pending_.stride);
    pending_.coef = nullptr;
}

void Decoder::zero_block(Component& c, int bx, int by) {
    if (coefficients_) {
        int32_t* out = c.plane.coefficients() + static_cast<size_t>(by) * 8 * c.plane.width + bx * 8;
        for (int v = 0; v < 8; ++v) std::memset(out + v * c.plane.width, 0, 8 * sizeof(int32_t));
        return;
    }
    int8_t* out = c.plane.samples() + static_cast<size_t>(by) * 8 * c.plane.width + bx * 8;
    for (int v = 0; v < 8; ++v) std::memset(out + v * c.plane.width, 0, 8);
}

// The lines of MCU row `my`, built straight into the image's rows when the
// library's own callbacks store them as they are, else in a line buffer.
int32_t Decoder::deliver_mcu_row(int my) {
    const int lines = 8 * vmax_;
    const int step = rows_.pairs() ? 2 : 1;
    for (int y = 0; y < lines; y += step) {
        const int row = my * lines + y;
        if (row >= out_height_) break;
        const bool two = step == 2 && row + 1 < out_height_;
        uint8_t* out[2] = {raster_destination(raster_, user_, row), nullptr};
        if (!out[0]) out[0] = line_[0].get();
        if (two) {
            out[1] = raster_destination(raster_, user_, row + 1);
            if (!out[1]) out[1] = line_[1].get();
        }
        rows_.convert(y, out[0], out[1]);
        for (int i = 0; i < (two ? 2 : 1); ++i) {
            const int32_t r = raster_(out[i], user_, row + i, line_bytes_);
            if (r < 0) return r;
            ++delivered_;
        }
    }
    return 0;
}

int32_t Decoder::single_scan(const Scan& scan) {
    int32_t r = allocate_planes();
    if (r < 0) return r;
    install_default_quant();
    br_.start(scan.data);
    if (br_.at_end()) return IMG_ERR_READ;
    reset_predictors();
    // The blocks of one MCU in scan order.
    struct Slot {
        Component* c;
        const uint16_t* q;
        int bx, by;
    };
    Slot slots[kBlockBuffer];
    int nslots = 0;
    for (int i = 0; i < scan.ns; ++i) {
        Component& c = comp_[scan.comp[i]];
        for (int by = 0; by < c.v; ++by)
            for (int bx = 0; bx < c.h; ++bx) slots[nslots++] = Slot{&c, quant_for(c), bx, by};
    }
    bool ac[kBlockBuffer];
    uint32_t count = 0;
    bool starved = false;
    const uint32_t strip = options_.strip_rows;
    const uint64_t total = static_cast<uint64_t>(mcus_x_) * static_cast<uint64_t>(mcus_y_);
    uint64_t index = 0;
    for (int my = 0; my < mcus_y_; ++my) {
        if (strip && !starved && static_cast<uint32_t>(delivered_) % strip == 0) {
            reset_predictors();
            br_.align();
        }
        for (int mx = 0; mx < mcus_x_; ++mx, ++index) {
            // Blocks decoded; once the data has run out (a bit past its end
            // consumed) the block that failed and every later one is grey.
            int decoded = 0;
            if (!starved) {
                for (; decoded < nslots; ++decoded) {
                    const Slot& s = slots[decoded];
                    r = decode_block(*s.c, s.q, blocks_[decoded]);
                    if (r < 0) {
                        if (!br_.starved()) return r;
                        starved = true;
                        break;
                    }
                    ac[decoded] = r != 0;
                }
            }
            for (int i = 0; i < nslots; ++i) {
                const Slot& s = slots[i];
                if (i < decoded) emit_block(*s.c, blocks_[i], ac[i], mx * s.c->h + s.bx, s.by);
                else zero_block(*s.c, mx * s.c->h + s.bx, s.by);
            }
            keep_pending();
            std::memset(blocks_, 0, sizeof blocks_[0] * static_cast<size_t>(nslots));
            if (starved) continue;
            if (br_.starved()) {
                starved = true;
                continue;
            }
            if (restart_interval_ && ++count == restart_interval_ && index + 1 < total) {
                count = 0;
                if (br_.restart()) reset_predictors();
            }
        }
        flush_idct();
        r = deliver_mcu_row(my);
        if (r < 0) return r;
    }
    return 0;
}

int32_t Decoder::decode_scan(const Scan& scan, bool first) {
    br_.start(scan.data);
    if (br_.at_end()) return first ? IMG_ERR_READ : 1;
    reset_predictors();
    uint32_t count = 0;
    auto after_unit = [&](bool last) -> bool {  // false: stop the scan
        if (br_.starved()) return false;
        if (restart_interval_ && ++count == restart_interval_ && !last) {
            count = 0;
            if (br_.restart()) reset_predictors();
        }
        return true;
    };
    if (scan.ns == 1) {
        Component& c = comp_[scan.comp[0]];
        for (int by = 0; by < c.ni_h; ++by)
            for (int bx = 0; bx < c.ni_w; ++bx) {
                int16_t* zz = c.coefs.get() + (static_cast<size_t>(by) * c.bw + bx) * 64;
                const int32_t r = decode_unit(c, zz, scan);
                if (r < 0) return br_.starved() ? 1 : r;
                if (!after_unit(by == c.ni_h - 1 && bx == c.ni_w - 1)) return 1;
            }
        return 0;
    }
    for (int my = 0; my < mcus_y_; ++my)
        for (int mx = 0; mx < mcus_x_; ++mx) {
            for (int i = 0; i < scan.ns; ++i) {
                Component& c = comp_[scan.comp[i]];
                for (int by = 0; by < c.v; ++by)
                    for (int bx = 0; bx < c.h; ++bx) {
                        const size_t bi = static_cast<size_t>(my * c.v + by) * c.bw + mx * c.h + bx;
                        const int32_t r = decode_unit(c, c.coefs.get() + bi * 64, scan);
                        if (r < 0) return br_.starved() ? 1 : r;
                    }
            }
            if (!after_unit(my == mcus_y_ - 1 && mx == mcus_x_ - 1)) return 1;
        }
    return 0;
}

int32_t Decoder::multi_scan(uint64_t first_sos) {
    for (int i = 0; i < nf_; ++i) {
        Component& c = comp_[i];
        const size_t n = static_cast<size_t>(c.bw) * static_cast<size_t>(c.bh) * 64;
        c.coefs = alloc_array<int16_t>(n);
        if (!c.coefs) return IMG_ERR_MEMORY;
        std::memset(c.coefs.get(), 0, n * sizeof(int16_t));
    }
    int32_t r = allocate_planes();
    if (r < 0) return r;

    uint64_t pos = first_sos;
    bool first = true;
    for (;;) {
        uint64_t at;
        int marker;
        if (!find_marker(pos, &at, &marker)) break;
        if (marker == 0xDA) {
            Scan scan;
            r = read_scan_header(at, &scan);
            if (r < 0) {
                if (first) return r;
                break;
            }
            r = decode_scan(scan, first);
            if (r < 0) return r;
            first = false;
            if (r > 0) pos = br_.consumed_end() > scan.data ? br_.consumed_end() : scan.data;
            else pos = br_.consumed_end();
            continue;
        }
        src_.seek(at + 2);
        const int32_t length = src_.be16();
        if (length < 2) break;
        // A segment cut short by the end of the data ends the scans.
        src_.seek(at + 1 + static_cast<uint64_t>(length));
        if (src_.byte() < 0) break;
        src_.seek(at + 4);
        if (marker == 0xC4) {
            r = read_dht(length);
        } else if (marker == 0xDB) {
            r = read_dqt(length);
        } else if (marker == 0xDD) {
            const int32_t v = src_.be16();
            if (v >= 0) restart_interval_ = static_cast<uint32_t>(v);
        } else if (!((marker >= 0xE0 && marker <= 0xEF) || marker == 0xFE)) {
            break;  // end of image, or a segment that ends the scans
        }
        if (r < 0) return r;
        pos = at + 2 + static_cast<uint64_t>(length);
    }

    install_default_quant();
    for (int my = 0; my < mcus_y_; ++my) {
        for (int i = 0; i < nf_; ++i) {
            Component& c = comp_[i];
            const uint16_t* q = quant_for(c);
            for (int by = 0; by < c.v; ++by)
                for (int bx0 = 0; bx0 < c.bw; bx0 += kBlockBuffer) {
                    const int n = c.bw - bx0 < kBlockBuffer ? c.bw - bx0 : kBlockBuffer;
                    for (int j = 0; j < n; ++j) {
                        const int16_t* zz = c.coefs.get() +
                                            (static_cast<size_t>(my * c.v + by) * c.bw + bx0 + j) * 64;
                        int16_t* block = blocks_[j];
                        block[0] = static_cast<int16_t>(wrap_mul(zz[0], q[0]));
                        bool ac = false;
                        for (int k = 1; k < 64; ++k) {
                            if (!zz[k]) continue;
                            block[kZigzagColumns[k]] = static_cast<int16_t>(wrap_mul(zz[k], q[k]));
                            ac = true;
                        }
                        emit_block(c, block, ac, bx0 + j, by);
                    }
                    flush_idct();
                    std::memset(blocks_, 0, sizeof blocks_[0] * static_cast<size_t>(n));
                }
        }
        r = deliver_mcu_row(my);
        if (r < 0) return r;
    }
    return 0;
}

int32_t Decoder::run(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                     IMG_HEADER_CALLBACK header) {
    if (!src_.init()) return IMG_ERR_MEMORY;
    uint64_t start;
    if (position_is_page(position)) {
        const int32_t here = stream::seek(stream_, 0, 1);
        if (here < 0) return IMG_ERR_READ;
        start = static_cast<uint64_t>(here);
    } else {
        start = position;
    }
    coefficients_ = options_.coefficients < 0 ? settings().jpeg_decompression != 0
                                              : options_.coefficients != 0;
    raster_ = raster;
    user_ = user;
    if (options_.tables) install_tables(*options_.tables);

    uint64_t soi = 0;
    int32_t r = find_soi(start, &soi);
    if (r < 0) return r;
    r = parse_headers(soi);
    if (r < 0) return r;
    r = validate_frame();
    if (r < 0) return r;
    r = announce(header, user);
    if (r < 0) return r;

    Scan scan;
    r = read_scan_header(sos_pos_, &scan);
    if (r < 0) return r;
    if (frame_marker_ != 0xC2 && scan.ns == nf_) r = single_scan(scan);
    else r = multi_scan(sos_pos_);
    if (r < 0) return r;
    return src_.fault() ? src_.fault() : 0;
}

}  // namespace

int32_t decode(const DecodeOptions& options, uint32_t position, IMG_RASTER_CALLBACK raster,
               intptr_t user, IMG_HEADER_CALLBACK header, int32_t stream) {
    if (!raster || !header) return IMG_ERR_UNSUPPORTED;
    std::unique_ptr<Decoder> d(new (std::nothrow) Decoder(stream, options));
    if (!d) return IMG_ERR_MEMORY;
    return d->run(position, raster, user, header);
}

int32_t decode(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
               IMG_HEADER_CALLBACK header, int32_t stream) {
    const DecodeOptions options;
    return decode(options, position, raster, user, header, stream);
}

int32_t read_tables(const uint8_t* data, uint32_t size, Tables* out) {
    if (!data || !out) return IMG_ERR_BAD_IMAGE;
    *out = Tables{};
    uint32_t pos = 0;
    if (size >= 2 && data[0] == 0xFF && data[1] == 0xD8) pos = 2;
    while (pos + 4 <= size) {
        if (data[pos] != 0xFF) {
            ++pos;
            continue;
        }
        const uint8_t marker = data[pos + 1];
        if (marker == 0xFF) {
            ++pos;
            continue;
        }
        if (marker == 0xD9 || marker == 0xDA) break;
        const uint32_t length = (data[pos + 2] << 8) | data[pos + 3];
        if (length < 2) return IMG_ERR_BAD_IMAGE;
        const uint32_t end = pos + 2 + length > size ? size : pos + 2 + length;
        uint32_t p = pos + 4;
        if (marker == 0xDB) {
            while (p < end) {
                const int pq = data[p] >> 4, tq = data[p] & 15;
                if (pq > 1) return IMG_ERR_BAD_IMAGE;
                const uint32_t need = 1 + 64 * static_cast<uint32_t>(pq + 1);
                if (p + need > end) return IMG_ERR_BAD_IMAGE;
                if (tq < 4) {
                    for (int k = 0; k < 64; ++k)
                        out->quant[tq][k] = pq ? static_cast<uint16_t>((data[p + 1 + 2 * k] << 8) |
                                                                       data[p + 2 + 2 * k])
                                               : data[p + 1 + k];
                    out->quant_defined[tq] = true;
                }
                p += need;
            }
        } else if (marker == 0xC4) {
            while (p < end) {
                if (p + 17 > end) return IMG_ERR_BAD_IMAGE;
                const uint8_t id = data[p];
                uint32_t total = 0;
                for (int i = 0; i < 16; ++i) total += data[p + 1 + i];
                if (total > 256 || p + 17 + total > end) return IMG_ERR_BAD_IMAGE;
                Tables::Huffman* t = id <= 2 ? &out->dc[id]
                                     : (id >= 0x10 && id <= 0x13) ? &out->ac[id - 0x10]
                                                                  : nullptr;
                if (t) {
                    HuffmanDecode check;
                    if (!build_huffman(check, data + p + 1, data + p + 17, id <= 2)) return IMG_ERR_BAD_IMAGE;
                    std::memcpy(t->counts, data + p + 1, 16);
                    std::memset(t->symbols, 0, sizeof t->symbols);
                    std::memcpy(t->symbols, data + p + 17, total);
                    t->defined = true;
                }
                p += 17 + total;
            }
        } else if (marker == 0xDD && p + 2 <= end) {
            out->restart_interval = static_cast<uint16_t>((data[p] << 8) | data[p + 1]);
            out->restart_defined = true;
        }
        pos += 2 + length;
    }
    return 0;
}

}  // namespace tesslin::jpeg
