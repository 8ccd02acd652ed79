// JBIG pages (compressions 9, 34661 and 32780) through libjbig, the JBIG
// reference coder: decoding a strip into a bilevel plane, and encoding the
// rows of a page as one JBIG stream (format code 66).
// jbig.h declares C functions without saying so.
extern "C" {
#include <jbig.h>
}

#include <algorithm>
#include <cstring>

#include "formats/tiff/tiff_read.h"
#include "formats/tiff/tiff_write.h"

namespace tesslin::tiff {
namespace {

// Largest plane the decoder is allowed to allocate.
constexpr uint64_t kMaxPlaneBytes = uint64_t(1) << 28;

struct JbigDecoder {
    jbg_dec_state state;
    JbigDecoder() { jbg_dec_init(&state); }
    ~JbigDecoder() { jbg_dec_free(&state); }
};

struct JbigEncoder {
    jbg_enc_state state;
    bool started = false;
    ~JbigEncoder() {
        if (started) jbg_enc_free(&state);
    }
};

struct Output {
    StreamWriter* out;
    std::vector<uint8_t> bytes;
};

// The coder's bytes go out bit-reversed, as libtiff writes and reads JBIG
// strips with fill order 1.
void jbig_out(unsigned char* start, size_t len, void* file) {
    auto* o = static_cast<Output*>(file);
    o->bytes.assign(start, start + len);
    reverse_bits(o->bytes.data(), len);
    o->out->write(o->bytes.data(), uint32_t(len));
}

}  // namespace

int32_t PageReader::decode_jbig() {
    if (bits_ != 1 || samples_ != 1 || dir_.tiled) return IMG_ERR_DEPTH;
    kind_ = Kind::kCopy;
    out_bits_ = 1;
    raw_row_ = chunky_row_ = (width_ + 7) / 8;
    out_row_ = row_bytes(width_, 1);
    invert_ = photometric_ == 0;
    predictor_ = false;
    reverse_bits_ = false;
    if (uint64_t(raw_row_) * height_ > kMaxPlaneBytes) return IMG_ERR_BAD_IMAGE;
    int32_t r = load_strip_table();
    if (r < 0) return r;
    r = build_header();
    if (r < 0) return r;
    // libtiff, whose JBIG files are the ones in circulation, stores the
    // coder's bytes bit-reversed when the fill order is 1.
    reverse_bits_ = dir_.fill_order != 2;
    r = read_strip(strip_index(0, 0), &strip_);
    reverse_bits_ = false;
    if (r < 0) return r;
    if (strip_.empty()) return IMG_ERR_READ;

    // The coder allocates planes as its header (BIH) declares them: only a
    // single plane no larger than the page gets that far.
    if (strip_.size() < 20) return IMG_ERR_READ;
    const uint8_t* bih = strip_.data();
    const uint32_t xd = load_be32(bih + 4), yd = load_be32(bih + 8), l0 = load_be32(bih + 12);
    if (bih[0] != 0 || bih[1] > 16 || bih[2] != 1 || xd == 0 || xd > width_ || yd == 0 ||
        yd > height_ || l0 == 0)
        return IMG_ERR_BAD_IMAGE;
    JbigDecoder dec;
    jbg_dec_maxsize(&dec.state, width_, height_);
    const size_t block = std::max<size_t>(kIoBlock, raw_row_);
    size_t used = 0;
    int status = JBG_EAGAIN;
    while (used < strip_.size() && status == JBG_EAGAIN) {
        const size_t n = std::min(block, strip_.size() - used);
        size_t taken = 0;
        status = jbg_dec_in(&dec.state, strip_.data() + used, n, &taken);
        if (taken == 0 && status == JBG_EAGAIN) break;
        used += taken;
    }
    if (status == JBG_EAGAIN) return IMG_ERR_READ;
    if (status != JBG_EOK && status != JBG_EOK_INTR) return IMG_ERR_BAD_IMAGE;
    const unsigned char* plane = jbg_dec_getimage(&dec.state, 0);
    const unsigned long jw = jbg_dec_getwidth(&dec.state), jh = jbg_dec_getheight(&dec.state);
    if (!plane) return IMG_ERR_BAD_IMAGE;
    const size_t jrow = (jw + 7) / 8;
    fix_.assign(size_t(raw_row_) + 16, 0);
    out_.assign(size_t(out_row_) + 16, 0);
    for (uint32_t y = 0; y < height_; ++y) {
        std::fill(fix_.begin(), fix_.end(), 0);
        if (y < jh) std::memcpy(fix_.data(), plane + y * jrow, std::min<size_t>(jrow, raw_row_));
        r = row_out(0, y, fix_.data(), true);
        if (r < 0) return r;
    }
    return 0;
}

// The page's rows as one JBIG stream (single layer, sequential, one stripe
// per 128 rows, typical prediction on, as jbigkit's pbmtojbg writes them).
// The bits go out as the DIB holds them: 1 is white.
int32_t encode_jbig(StreamWriter& out, const DibHeader* h, IMG_SUPPLY_CALLBACK supply,
                    intptr_t user) {
    const uint32_t width = uint32_t(h->biWidth), height = uint32_t(h->biHeight);
    const uint32_t rb = (width + 7) / 8;
    if (uint64_t(rb) * height > kMaxPlaneBytes) return IMG_ERR_MEMORY;
    std::vector<uint8_t> plane(size_t(rb) * height + 1, 0);
    std::vector<uint8_t> row(size_t(row_bytes(width, 1)) + 16, 0);
    for (uint32_t y = 0; y < height; ++y) {
        const int32_t r = supply(user, row.data(), int32_t(y), row_bytes(width, 1));
        if (r < 0) return r;
        std::memcpy(plane.data() + size_t(y) * rb, row.data(), rb);
    }
    Output sink{&out, {}};
    JbigEncoder enc;
    unsigned char* planes[1] = {plane.data()};
    jbg_enc_init(&enc.state, width, height, 1, planes, jbig_out, &sink);
    enc.started = true;
    jbg_enc_options(&enc.state, JBG_ILEAVE | JBG_SMID, JBG_TPBON, 128, 0, 0);
    jbg_enc_out(&enc.state);
    return out.status();
}

}  // namespace tesslin::tiff
