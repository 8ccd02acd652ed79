// Formats without a codec of their own in the library yet: detection names
// them (and IMGLOW_get_filetype reports their codes), formats read through
// plug-in modules decode there, and everything else answers as a format the
// library cannot read or write (IMG_ERR_UNSUPPORTED).
//
// When a format's codec lands, its descriptor moves from this file into the
// format's own folder (src/formats/<family>/<family>_format.cpp), keeping
// its name, so that its row in src/pipeline/registry.cpp stays as it is.
#include "core/io.h"
#include "core/stream.h"
#include "pipeline/codec.h"

namespace tesslin::formats {
namespace {

// ---- Signature tests -------------------------------------------------------

bool is_wpg(const Probe& p) { return p.starts_with("WPC", 1); }
bool is_ncr(const Probe& p) {
    return p.bytes[0] == p.bytes[1] && (p.bytes[0] == 'N' || p.bytes[0] == 'n');
}
bool is_iff(const Probe& p) { return p.starts_with("FORM"); }
bool is_fpx(const Probe& p) { return p.bytes_are({0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1}); }
bool is_jp2(const Probe& p) {
    return p.bytes_are({0, 0, 0, 0x0C, 'j', 'P'}) || p.bytes_are({0xFF, 0x4F});
}
bool is_jbg(const Probe& p) { return p.bytes_are({0, 0, 1, 0, 0}); }
bool is_jb2(const Probe& p) {
    return p.bytes_are({0x97, 'J', 'B', '2', 0x0D, 0x0A, 0x1A, 0x0A}) ||
           p.bytes_are({0, 0, 0, 1, '0'});
}
bool is_ico(const Probe& p) {
    const uint8_t size = p.bytes[6];
    return p.bytes_are({0, 0, 1, 0}) && (size == 16 || size == 32 || size == 48 || size == 64);
}
bool is_pcd(const Probe& p) { return p.bytes_are({0xFF, 0xFF, 0xFF, 0xFF}); }
bool is_clp(const Probe& p) { return p.bytes[0] == 'P' && p.bytes[1] == 0xC3; }
bool is_img(const Probe& p) {
    return p.bytes_are({0, 1, 0}) && (p.bytes[3] == 8 || p.bytes[3] == 9);
}
bool is_xwd(const Probe& p) { return p.bytes_are({0, 0, 0, 7}, 4); }
bool is_jed(const Probe& p) { return p.bytes_are({0x80, 0, 0, 0}); }
bool is_fxs(const Probe& p) {
    return p.bytes[0] == 11 && p.bytes[1] == '#' && p.bytes[3] == 0xC0 && p.bytes[4] == 6;
}
bool is_pcl(const Probe& p) { return p.bytes[0] == 27; }
bool is_sct(const Probe& p) {
    uint8_t b[3];
    return p.read_at(80, b, 3) && b[0] == 'C' && b[1] == 'T' && b[2] == 0;
}
bool is_cod(const Probe& p) { return p.starts_with("RSD"); }
bool is_pct(const Probe& p) {
    uint8_t b[10];
    return p.read_at(522, b, 10) && (b[0] == 0x11 || b[1] == 0x11);
}
bool is_cim_mark(const uint8_t* b) { return b[0] == 'p' && b[1] == 0 && b[2] == 0x91 && b[3] == 1; }
bool is_cim(const Probe& p) {
    uint8_t off[4], mark[4];
    return p.read_at(88, off, 4) && p.read_at(load_be32(off), mark, 4) && is_cim_mark(mark);
}
bool is_cif(const Probe& p) {
    uint8_t mark[4];
    return p.read_at(2123, mark, 4) && is_cim_mark(mark);
}
bool is_msp(const Probe& p) { return p.starts_with("LinS") || p.starts_with("DanM"); }
bool is_wmf(const Probe& p) { return p.bytes_are({0xD7, 0xCD, 0xC6, 0x9A}); }
bool is_gx2(const Probe& p) { return p.starts_with("GX2"); }
bool is_mac(const Probe& p) {
    uint8_t b[10];
    if (p.read_at(65, b, 10) && (load_be32(b) >> 8 == 0x504E54 || load_be32(b) == 0x50494354))
        return true;
    return p.read_at(512, b, 4) && load_be32(b) == 0xB900B900;
}
bool is_cut(const Probe& p) {
    const uint8_t* b = p.bytes;
    if (b[4] != 0 || b[5] != 0) return false;
    if (b[0] == 0 && b[1] == 0) return false;
    if (b[6] == 0 || b[7] == 0) return false;
    return load_le16(b) <= 4999 && load_le16(b + 2) <= 4999;
}

// ---- Code refinements, counters and queries --------------------------------

// Photo CD: low two bits of the byte at offset 3586.
int32_t pcd_orientation(int32_t stream, int32_t) {
    uint8_t b = 0;
    if (stream::seek(stream, 3586, 0) != 3586 || stream::read(stream, &b, 1) != 1)
        return IMG_ERR_READ;
    static constexpr int32_t kDegrees[4] = {0, 270, 180, 90};
    return kDegrees[b & 3];
}

// ---- Format codes ------------------------------------------------------------

constexpr CodeRow kWpgCodes[] = {
    {IMG_FORMAT_WPG, "wpg", "WordPerfect graphics", "wpg", nullptr, 0, RowSupply::kPacked, false,
     true}};
constexpr CodeRow kNcrCodes[] = {{IMG_FORMAT_NCR, "ncr", "NCR", "ncr"}};
constexpr CodeRow kIffCodes[] = {
    {IMG_FORMAT_IFF, "iff", "IFF", "iff", nullptr, 0, RowSupply::kPacked, false, true}};
constexpr CodeRow kFpxCodes[] = {
    {IMG_FORMAT_OLE, "ole", "OLE compound document (FlashPix)", "fpx"}};
constexpr CodeRow kJp2Codes[] = {
    {IMG_FORMAT_JPEG2000, "jp2", "JPEG 2000", "jp2", modules::encode_jp2}};
constexpr CodeRow kJbgCodes[] = {{IMG_FORMAT_JBIG, "jbig", "JBIG", "jbg"}};
constexpr CodeRow kJb2Codes[] = {{IMG_FORMAT_JBIG2, "jbig2", "JBIG2", "jb2", nullptr, 0,
                                  RowSupply::kPacked, true}};
constexpr CodeRow kIcoCodes[] = {
    {IMG_FORMAT_ICON, "ico", "Windows icon", "ico", nullptr, 0, RowSupply::kPacked, false, true}};
constexpr CodeRow kPcdCodes[] = {{IMG_FORMAT_PHOTO_CD, "photo-cd", "Kodak Photo CD", "pcd"}};
constexpr CodeRow kClpCodes[] = {{IMG_FORMAT_CLIPBOARD, "clp", "Windows clipboard", "clp",
                                  nullptr, 0, RowSupply::kPacked, false, true}};
constexpr CodeRow kImgCodes[] = {{IMG_FORMAT_GEM_IMG, "gem-img", "GEM IMG", "img"}};
constexpr CodeRow kXwdCodes[] = {
    {IMG_FORMAT_XWD, "xwd", "X window dump", "xwd", nullptr, 0, RowSupply::kPacked, false, true}};
constexpr CodeRow kJedCodes[] = {
    {IMG_FORMAT_JED, "jed", "JED tiled bilevel", "jed", nullptr, 0, RowSupply::kPacked, false,
     true}};
constexpr CodeRow kFxsCodes[] = {{IMG_FORMAT_FXS, "fxs", "FXS fax", "fxs"}};
constexpr CodeRow kPclCodes[] = {
    {IMG_FORMAT_PCL, "pcl", "PCL, unencoded raster", "pcl", nullptr, 0, RowSupply::kPacked, false,
     true},
    {IMG_FORMAT_PCL_MODE2, "pcl-mode2", "PCL, compression mode 2 raster", "pcl", nullptr, 0,
     RowSupply::kPacked, false, false, true},
};
constexpr CodeRow kSctCodes[] = {
    {IMG_FORMAT_SCITEX, "scitex", "Scitex CT", "sct", nullptr, 0, RowSupply::kPacked, false, true}};
constexpr CodeRow kCodCodes[] = {{IMG_FORMAT_COD, "cod", "COD", "cod"}};
constexpr CodeRow kPctCodes[] = {
    {IMG_FORMAT_PICT, "pict", "Macintosh PICT", "pct", nullptr, 0, RowSupply::kPacked, false,
     true}};
constexpr CodeRow kCimCodes[] = {{IMG_FORMAT_CIM, "cim", "CIM", "cim"}};
constexpr CodeRow kCifCodes[] = {{IMG_FORMAT_CIF, "cif", "CIF", "cif"}};
constexpr CodeRow kMspCodes[] = {{IMG_FORMAT_MSP, "msp", "Microsoft Paint", "msp"}};
constexpr CodeRow kWmfCodes[] = {
    {IMG_FORMAT_WMF, "wmf", "Windows metafile", "wmf", nullptr, 0, RowSupply::kPacked, false,
     true}};
constexpr CodeRow kGx2Codes[] = {{IMG_FORMAT_GX2, "gx2", "GX2", "gx2"}};
constexpr CodeRow kMacCodes[] = {{IMG_FORMAT_MACPAINT, "macpaint", "MacPaint", "mac"}};
constexpr CodeRow kCutCodes[] = {{IMG_FORMAT_CUT, "cut", "Dr. Halo CUT", "cut"}};

}  // namespace

// Formats read through plug-in modules.
extern const FormatDescriptor kFpx = {
    .tag = "fpx", .detect_switch = IMG_FORMAT_OLE, .signature = is_fpx,
    .decode = modules::decode_doc, .decoded_by_module = true, .count_pages = modules::doc_pages,
    .codes = kFpxCodes};
extern const FormatDescriptor kJp2 = {
    .tag = "jp2", .detect_switch = IMG_FORMAT_JPEG2000, .signature = is_jp2,
    .known_in_memory = false, .decode = modules::decode_jp2, .decoded_by_module = true,
    .codes = kJp2Codes};
extern const FormatDescriptor kPcl = {
    .tag = "pcl", .detect_switch = IMG_FORMAT_PCL, .signature = is_pcl,
    .decode = modules::decode_pcl, .decoded_by_module = true, .count_pages = modules::pcl_pages,
    .count_pages_mem = modules::pcl_pages, .codes = kPclCodes};

// Formats the library does not read yet.
extern const FormatDescriptor kWpg = {
    .tag = "wpg", .detect_switch = IMG_FORMAT_WPG, .signature = is_wpg, .codes = kWpgCodes};
extern const FormatDescriptor kNcr = {
    .tag = "ncr", .detect_switch = IMG_FORMAT_NCR, .signature = is_ncr, .codes = kNcrCodes};
extern const FormatDescriptor kIff = {
    .tag = "iff", .detect_switch = IMG_FORMAT_IFF, .signature = is_iff, .codes = kIffCodes};
extern const FormatDescriptor kJbg = {
    .tag = "jbg", .detect_switch = IMG_FORMAT_JBIG, .signature = is_jbg,
    .known_in_memory = false, .codes = kJbgCodes};
extern const FormatDescriptor kJb2 = {
    .tag = "jb2", .detect_switch = IMG_FORMAT_JBIG2, .signature = is_jb2,
    .known_in_memory = false, .codes = kJb2Codes};
extern const FormatDescriptor kIco = {
    .tag = "ico", .detect_switch = IMG_FORMAT_ICON, .signature = is_ico, .codes = kIcoCodes};
extern const FormatDescriptor kPcd = {
    .tag = "pcd", .detect_switch = IMG_FORMAT_PHOTO_CD, .signature = is_pcd,
    .orientation = pcd_orientation, .codes = kPcdCodes};
extern const FormatDescriptor kClp = {
    .tag = "clp", .detect_switch = IMG_FORMAT_CLIPBOARD, .signature = is_clp,
    .codes = kClpCodes};
extern const FormatDescriptor kImg = {
    .tag = "img", .detect_switch = IMG_FORMAT_GEM_IMG, .signature = is_img, .codes = kImgCodes};
extern const FormatDescriptor kXwd = {
    .tag = "xwd", .detect_switch = IMG_FORMAT_XWD, .signature = is_xwd, .codes = kXwdCodes};
// JED files are always tiled (512 x 512).
extern const FormatDescriptor kJed = {
    .tag = "jed", .detect_switch = IMG_FORMAT_JED, .signature = is_jed,
    .is_tiled = [](int32_t) -> int32_t { return 1; }, .codes = kJedCodes};
extern const FormatDescriptor kFxs = {
    .tag = "fxs", .detect_switch = IMG_FORMAT_FXS, .signature = is_fxs, .codes = kFxsCodes};
extern const FormatDescriptor kSct = {
    .tag = "sct", .detect_switch = IMG_FORMAT_SCITEX, .signature = is_sct, .codes = kSctCodes};
extern const FormatDescriptor kCod = {
    .tag = "cod", .detect_switch = IMG_FORMAT_COD, .signature = is_cod,
    .known_in_memory = false, .codes = kCodCodes};
extern const FormatDescriptor kPct = {
    .tag = "pct", .detect_switch = IMG_FORMAT_PICT, .signature = is_pct, .codes = kPctCodes};
extern const FormatDescriptor kCim = {
    .tag = "cim", .detect_switch = IMG_FORMAT_CIM, .signature = is_cim,
    .known_in_memory = false, .codes = kCimCodes};
extern const FormatDescriptor kCif = {
    .tag = "cif", .detect_switch = IMG_FORMAT_CIF, .signature = is_cif,
    .known_in_memory = false, .codes = kCifCodes};
extern const FormatDescriptor kMsp = {
    .tag = "msp", .detect_switch = IMG_FORMAT_MSP, .signature = is_msp, .codes = kMspCodes};
extern const FormatDescriptor kWmf = {
    .tag = "wmf", .detect_switch = IMG_FORMAT_WMF, .signature = is_wmf, .codes = kWmfCodes};
extern const FormatDescriptor kGx2 = {
    .tag = "gx2", .detect_switch = IMG_FORMAT_GX2, .signature = is_gx2, .codes = kGx2Codes};
extern const FormatDescriptor kMac = {
    .tag = "mac", .detect_switch = IMG_FORMAT_MACPAINT, .signature = is_mac,
    .codes = kMacCodes};
extern const FormatDescriptor kCut = {
    .tag = "cut", .detect_switch = IMG_FORMAT_CUT, .signature = is_cut, .codes = kCutCodes};

}  // namespace tesslin::formats
