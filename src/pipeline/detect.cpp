#include "pipeline/detect.h"

#include <cstring>

#include "core/dib.h"
#include "core/io.h"
#include "core/settings.h"
#include "core/stream.h"
#include "pipeline/probes.h"

namespace tesslin {

bool TypeTag::is(const char* tag) const { return std::strcmp(text, tag) == 0; }

namespace {

constexpr uint32_t kProbeBytes = 10;

// What a signature test sees: the first 10 bytes, and the stream for the
// few tests that look further.
struct Probe {
    const uint8_t* b;
    int32_t stream;
    uint32_t start;  // where the 10 bytes were read
};

// Reads exactly n bytes at an absolute offset.
bool read_at(int32_t stream, uint32_t offset, void* out, uint32_t n) {
    if (offset > 0x7FFFFFFFu) return false;
    if (stream::seek(stream, static_cast<int32_t>(offset), 0) != static_cast<int32_t>(offset))
        return false;
    return stream::read(stream, out, n) == static_cast<int32_t>(n);
}

bool starts(const uint8_t* b, const char* text) {
    return std::memcmp(b, text, std::strlen(text)) == 0;
}

bool bytes_are(const uint8_t* b, std::initializer_list<uint8_t> v) {
    size_t i = 0;
    for (uint8_t x : v)
        if (b[i++] != x) return false;
    return true;
}

bool t_tif(const Probe& p) { return p.b[0] == p.b[1] && (p.b[0] == 'I' || p.b[0] == 'M'); }
bool t_gif(const Probe& p) { return starts(p.b, "GIF"); }
bool t_bmp(const Probe& p) { return starts(p.b, "BM") || bytes_are(p.b, {0x28, 0, 0, 0}); }
bool t_eps(const Probe& p) { return bytes_are(p.b, {0xC5, 0xD0, 0xD3, 0xC6}) || starts(p.b, "%!PS"); }
bool t_pdf(const Probe& p) { return starts(p.b, "%PDF"); }
bool t_dcx(const Probe& p) { return bytes_are(p.b, {0xB1, 0x68, 0xDE, 0x3A}); }
bool t_jpg(const Probe& p) { return p.b[0] == 0xFF && p.b[1] == 0xD8; }
bool t_wpg(const Probe& p) { return starts(p.b + 1, "WPC"); }
bool t_cal(const Probe& p) { return starts(p.b, "src") || starts(p.b, "spec"); }
bool t_png(const Probe& p) { return starts(p.b + 1, "PNG"); }
bool t_ncr(const Probe& p) { return p.b[0] == p.b[1] && (p.b[0] == 'N' || p.b[0] == 'n'); }
bool t_kfx(const Probe& p) { return starts(p.b, ".KF"); }
bool t_iff(const Probe& p) { return starts(p.b, "FORM"); }
bool t_fpx(const Probe& p) { return bytes_are(p.b, {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1}); }
bool t_lsd(const Probe& p) { return p.b[0] == 0xDC && p.b[1] == 0xDC; }
bool t_pcx(const Probe& p) { return p.b[0] == 10 && p.b[2] == 1; }
bool t_mca(const Probe& p) {
    const uint8_t* b = p.b;
    return (b[2] == 0xD3 && ((b[3] == 0xA6 && b[4] == 0xFB) || b[3] == 0xA8)) ||
           (b[0] == 'Z' && b[3] == 0xD3 && (b[4] == 0xA8 || b[4] == 0xEE)) || b[0] == 'p';
}
bool t_jp2(const Probe& p) {
    return bytes_are(p.b, {0, 0, 0, 0x0C, 'j', 'P'}) || (p.b[0] == 0xFF && p.b[1] == 0x4F);
}
bool t_jbg(const Probe& p) { return bytes_are(p.b, {0, 0, 1, 0, 0}); }
bool t_jb2(const Probe& p) {
    return bytes_are(p.b, {0x97, 'J', 'B', '2', 0x0D, 0x0A, 0x1A, 0x0A}) ||
           bytes_are(p.b, {0, 0, 0, 1, '0'});
}
bool t_ico(const Probe& p) {
    return bytes_are(p.b, {0, 0, 1, 0}) &&
           (p.b[6] == 16 || p.b[6] == 32 || p.b[6] == 48 || p.b[6] == 64);
}
bool t_pcd(const Probe& p) { return bytes_are(p.b, {0xFF, 0xFF, 0xFF, 0xFF}); }
bool t_psd(const Probe& p) { return starts(p.b, "8BPS"); }
bool t_clp(const Probe& p) { return p.b[0] == 'P' && p.b[1] == 0xC3; }
bool t_img(const Probe& p) { return bytes_are(p.b, {0, 1, 0}) && (p.b[3] == 8 || p.b[3] == 9); }
bool t_btr(const Probe& p) { return p.b[0] == 0xBB && p.b[3] == 1; }
bool t_xbm(const Probe& p) {
    if (!starts(p.b, "#define")) return false;
    uint8_t more[200];
    if (stream::seek(p.stream, static_cast<int32_t>(p.start + kProbeBytes), 0) < 0) return false;
    int32_t got = stream::read(p.stream, more, sizeof more);
    return got > 0 && std::memchr(more, '\n', static_cast<size_t>(got)) != nullptr;
}
bool t_xpm(const Probe& p) { return starts(p.b, "/* XPM */"); }
bool t_xwd(const Probe& p) { return bytes_are(p.b + 4, {0, 0, 0, 7}); }
bool t_ras(const Probe& p) { return bytes_are(p.b, {0x59, 0xA6, 0x6A, 0x95}); }
bool t_jed(const Probe& p) { return bytes_are(p.b, {0x80, 0, 0, 0}); }
bool t_fxs(const Probe& p) {
    return p.b[0] == 11 && p.b[1] == '#' && p.b[3] == 0xC0 && p.b[4] == 6;
}
bool t_pcl(const Probe& p) { return p.b[0] == 27; }
bool t_mag(const Probe& p) { return starts(p.b, "WTI"); }
bool t_dcm(const Probe& p) {
    uint8_t h[8];
    if (read_at(p.stream, 0, h, 8)) {
        const uint16_t group = load_le16(h);
        const uint64_t next = 8 + uint64_t(load_le32(h + 4));
        uint8_t h2[8];
        if (group != 0 && next <= 0x7FFFFFFF && read_at(p.stream, uint32_t(next), h2, 8) &&
            load_le16(h2) == group)
            return true;
    }
    uint8_t magic[4];
    if (read_at(p.stream, 0, magic, 4) && starts(magic, "DICM")) return true;
    return read_at(p.stream, 128, magic, 4) && starts(magic, "DICM");
}
bool t_sct(const Probe& p) {
    uint8_t b[3];
    return read_at(p.stream, 80, b, 3) && b[0] == 'C' && b[1] == 'T' && b[2] == 0;
}
bool t_cod(const Probe& p) { return starts(p.b, "RSD"); }
bool t_txt(const Probe& p) {
    for (uint32_t i = 0; i < kProbeBytes; ++i) {
        uint8_t c = p.b[i];
        if (!((c >= 32 && c <= 126) || (c >= 9 && c <= 13) || c == 26)) return false;
    }
    return true;
}
bool t_imt(const Probe& p) { return bytes_are(p.b, {'\'', 'C', '1', 0}); }
bool t_pct(const Probe& p) {
    uint8_t b[10];
    return read_at(p.stream, 522, b, 10) && (b[0] == 0x11 || b[1] == 0x11);
}
bool is_cim_mark(const uint8_t* b) { return bytes_are(b, {'p', 0x00, 0x91, 0x01}); }
bool t_cim(const Probe& p) {
    uint8_t off[4], mark[4];
    return read_at(p.stream, 88, off, 4) && read_at(p.stream, load_be32(off), mark, 4) &&
           is_cim_mark(mark);
}
bool t_cif(const Probe& p) {
    uint8_t mark[4];
    return read_at(p.stream, 2123, mark, 4) && is_cim_mark(mark);
}
bool t_msp(const Probe& p) { return starts(p.b, "LinS") || starts(p.b, "DanM"); }
bool t_tga(const Probe& p) {
    const uint8_t map = p.b[1], type = p.b[2];
    return ((type == 1 || type == 9) && map == 1) ||
           ((type == 2 || type == 10 || type == 3 || type == 11) && map == 0) ||
           (p.b[0] >= 24 && p.b[0] <= 69 && type == 156);
}
bool t_wmf(const Probe& p) { return bytes_are(p.b, {0xD7, 0xCD, 0xC6, 0x9A}); }
bool t_gx2(const Probe& p) { return starts(p.b, "GX2"); }
bool t_mac(const Probe& p) {
    uint8_t b[10];
    if (read_at(p.stream, 65, b, 10) && (starts(b, "PNT") || starts(b, "PICT"))) return true;
    return read_at(p.stream, 512, b, 4) && bytes_are(b, {0xB9, 0x00, 0xB9, 0x00});
}
bool t_cut(const Probe& p) {
    const uint8_t* b = p.b;
    if (b[4] != 0 || b[5] != 0) return false;
    if (b[0] == 0 && b[1] == 0) return false;
    if (b[6] == 0 || b[7] == 0) return false;
    return load_le16(b) <= 4999 && load_le16(b + 2) <= 4999;
}
bool t_wbm(const Probe& p) {
    const uint8_t* b = p.b;
    if (b[0] != 0) return false;
    // Byte 1 is the header field, with continuation bytes while bit 7 is set.
    uint32_t i = 1;
    while (i < kProbeBytes && (b[i] & 0x80)) ++i;
    ++i;
    uint32_t width = 0;
    bool more = true;
    while (more) {
        if (i >= kProbeBytes) return false;
        width = (width << 7) | (b[i] & 0x7F);
        more = (b[i] & 0x80) != 0;
        ++i;
        if (width > 320) return false;
    }
    return width >= 3;
}

struct SignatureTest {
    int32_t flag;  // detection switch (format code) that enables the test
    const char* tag;
    bool (*test)(const Probe&);
};

// The signature tests in their fixed order.
constexpr SignatureTest kTests[] = {
    {0, "tif", t_tif},   {4, "gif", t_gif},   {1, "bmp", t_bmp},   {14, "eps", t_eps},
    {59, "pdf", t_pdf},  {11, "dcx", t_dcx},  {13, "jpg", t_jpg},  {5, "wpg", t_wpg},
    {18, "cal", t_cal},  {43, "png", t_png},  {65, "ncr", t_ncr},  {23, "kfx", t_kfx},
    {26, "iff", t_iff},  {54, "fpx", t_fpx},  {19, "lsd", t_lsd},  {2, "pcx", t_pcx},
    {24, "mca", t_mca},  {70, "jp2", t_jp2},  {71, "jbg", t_jbg},  {77, "jb2", t_jb2},
    {25, "ico", t_ico},  {39, "pcd", t_pcd},  {41, "psd", t_psd},  {27, "clp", t_clp},
    {28, "img", t_img},  {29, "btr", t_btr},  {20, "xbm", t_xbm},  {35, "xpm", t_xpm},
    {36, "xwd", t_xwd},  {37, "ras", t_ras},  {56, "jed", t_jed},  {58, "fxs", t_fxs},
    {57, "pcl", t_pcl},  {61, "mag", t_mag},  {55, "dcm", t_dcm},  {60, "sct", t_sct},
    {72, "cod", t_cod},  {38, "txt", t_txt},  {42, "imt", t_imt},  {15, "pct", t_pct},
    {73, "cim", t_cim},  {75, "cif", t_cif},  {30, "msp", t_msp},  {3, "tga", t_tga},
    {6, "wmf", t_wmf},   {22, "gx2", t_gx2},  {21, "mac", t_mac},  {31, "cut", t_cut},
    {68, "wbm", t_wbm},
};
static_assert(sizeof kTests / sizeof kTests[0] == 49, "49 signature tests");

struct TagCode {
    const char* tag;
    int32_t code;
};

constexpr TagCode kTagCodes[] = {
    {"tif", 0},  {"bmp", 1},  {"pcx", 2},  {"tga", 3},  {"gif", 4},  {"wpg", 5},  {"wmf", 6},
    {"dcx", 11}, {"jpg", 13}, {"eps", 14}, {"pct", 15}, {"cal", 18}, {"lsd", 19}, {"xbm", 20},
    {"mac", 21}, {"gx2", 22}, {"kfx", 23}, {"ica", 24}, {"ico", 25}, {"iff", 26}, {"clp", 27},
    {"img", 28}, {"btr", 29}, {"msp", 30}, {"cut", 31}, {"xpm", 35}, {"xwd", 36}, {"ras", 37},
    {"txt", 38}, {"pcd", 39}, {"psd", 41}, {"imt", 42}, {"png", 43}, {"mca", 49}, {"fpx", 54},
    {"dcm", 55}, {"jed", 56}, {"pcl", 57}, {"fxs", 58}, {"pdf", 59}, {"sct", 60}, {"mag", 61},
    {"ncr", 65}, {"wbm", 68}, {"jp2", 70}, {"jbg", 71}, {"cod", 72}, {"cim", 73}, {"cif", 75},
    {"jb2", 77},
};

// Tags the memory variant of the format query does not know.
constexpr const char* kNotInMemory[] = {"jbg", "jb2", "jp2", "cod", "cim", "cif"};

int32_t tiff_code(int32_t stream) {
    int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here;
    probes::TiffTags tags;
    int32_t s = probes::tiff_tags(stream, static_cast<uint32_t>(here), 0, &tags);
    if (s < 0) return s == IMG_ERR_READ ? s : IMG_ERR_UNSUPPORTED;
    switch (tags.compression) {
        case 1: return 0;
        case 2: return 7;
        case 3: return (tags.t4_options & 1) ? 17 : 8;
        case 5: return 9;
        case 4: return 10;
        case 32773: return 16;
        case 6: case 7: return 40;
        case 32010: return 46;
        case 32008: return 47;
        case 9: case 34661: return 66;
        default: return IMG_ERR_UNSUPPORTED;
    }
}

int32_t bmp_code(int32_t stream) {
    // A file starts with the 14-byte file header; a bare DIB with its info
    // header, whose compression field then sits at offset 16.
    uint8_t h[54];
    int32_t got = stream::read(stream, h, 14);
    if (got < 0) return got;
    if (got < 14) return IMG_ERR_READ;
    const bool file = h[0] == 'B' && h[1] == 'M';
    const uint32_t info = file ? 14 : 0;
    const uint32_t want = file ? 40 : 26;
    got = stream::read(stream, h + 14, want);
    if (got < 0) return got;
    if (static_cast<uint32_t>(got) < want) return IMG_ERR_READ;
    return load_le32(h + info + 16) != 0 ? 12 : 1;
}

int32_t gif_code(int32_t stream) {
    StreamReader in(stream, 4096);
    uint8_t screen[13];
    if (!in.read(screen, 13)) return in.status();
    if (screen[10] & 0x80) in.skip(3u << ((screen[10] & 7) + 1));
    for (;;) {
        int c = in.byte_or_eof();
        if (c < 0) return in.ok() ? IMG_ERR_BAD_IMAGE : in.status();
        if (c == '!') {
            in.u8();  // label
            for (;;) {
                int n = in.byte_or_eof();
                if (n < 0) return in.ok() ? IMG_ERR_BAD_IMAGE : in.status();
                if (n == 0) break;
                if (!in.skip(static_cast<uint32_t>(n))) return IMG_ERR_BAD_IMAGE;
            }
        } else if (c == ',') {
            uint8_t desc[9];
            if (!in.read(desc, 9)) return in.status();
            in.sync();
            return (desc[8] & 0x40) ? 44 : 4;
        } else {
            return IMG_ERR_BAD_IMAGE;
        }
    }
}

}  // namespace

TypeTag detect_format(int32_t stream) {
    TypeTag tag;
    int32_t start = stream::seek(stream, 0, 1);
    uint8_t b[kProbeBytes];
    if (start < 0 || stream::read(stream, b, kProbeBytes) != static_cast<int32_t>(kProbeBytes))
        return tag;
    const Probe probe{b, stream, static_cast<uint32_t>(start)};
    const uint8_t* enabled = settings().auto_detect;
    for (const SignatureTest& t : kTests) {
        if (!enabled[t.flag] || !t.test(probe)) continue;
        std::memcpy(tag.text, t.tag, 4);
        break;
    }
    stream::seek(stream, 0, 0);
    return tag;
}

int32_t format_code(const TypeTag& tag, int32_t stream, bool memory) {
    if (tag.empty()) return IMG_ERR_UNSUPPORTED;
    if (memory)
        for (const char* t : kNotInMemory)
            if (tag.is(t)) return IMG_ERR_UNSUPPORTED;
    if (tag.is("tif")) return tiff_code(stream);
    if (tag.is("bmp")) return bmp_code(stream);
    if (tag.is("gif")) return gif_code(stream);
    for (const TagCode& e : kTagCodes)
        if (tag.is(e.tag)) return e.code;
    return IMG_ERR_UNSUPPORTED;
}

}  // namespace tesslin
