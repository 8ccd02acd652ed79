// The TIFF family's registry descriptor: signature, the format code a file's
// first directory gives, the reader, the writer's codes and the directory
// queries.
#include <vector>

#include "core/stream.h"
#include "formats/tiff/tiff.h"
#include "formats/tiff/tiff_dir.h"

namespace tesslin::tiff {
namespace {

bool signature(const Probe& p) {
    return p.bytes[0] == p.bytes[1] && (p.bytes[0] == 'I' || p.bytes[0] == 'M');
}

// The code of the compression of the first directory of the TIFF at the
// stream's position; the stream is left where the reading ended.
int32_t refine(int32_t stream) {
    const int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here;
    TiffFile f(stream, uint32_t(here));
    int32_t r = f.read_header();
    if (r < 0) return r == IMG_ERR_BAD_IMAGE ? IMG_ERR_READ : IMG_ERR_UNSUPPORTED;
    if (f.first_ifd() == 0) return IMG_ERR_UNSUPPORTED;
    std::vector<Field> fields;
    uint32_t next = 0;
    r = f.read_directory(f.first_ifd(), &fields, &next);
    if (r < 0) return r == IMG_ERR_READ ? r : IMG_ERR_UNSUPPORTED;
    f.in().sync();
    const Field* c = find_field(fields, kCompression);
    const Field* t4 = find_field(fields, kT4Options);
    switch (c ? f.value(*c) : 1) {
        case 1: return IMG_FORMAT_TIFF;
        case 2: return IMG_FORMAT_TIFF_MH;
        case 3: return t4 && (f.value(*t4) & 1) ? IMG_FORMAT_TIFF_G3_2D : IMG_FORMAT_TIFF_G3;
        case 4: return IMG_FORMAT_TIFF_G4;
        case 5: return IMG_FORMAT_TIFF_LZW;
        case 6: case 7: return IMG_FORMAT_TIFF_JPEG;
        case 9: case 34661: return IMG_FORMAT_TIFF_JBIG;
        case 32773: return IMG_FORMAT_TIFF_PACKBITS;
        case 32010: return IMG_FORMAT_TIFF_ABIC_32010;
        case 32008: return IMG_FORMAT_TIFF_ABIC_32008;
        default: return IMG_ERR_UNSUPPORTED;
    }
}

int32_t tiled_at_start(int32_t stream) { return is_tiled(stream, 0); }

// ABIC parameters when the stream stands at a TIFF.
int32_t abic_params_if_tiff(int32_t stream, int32_t page, AbicParams* out) {
    const int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here;
    uint8_t order[2] = {};
    const bool tiff = stream::read(stream, order, 2) == 2 && order[0] == order[1] &&
                      (order[0] == 'I' || order[0] == 'M');
    stream::seek(stream, here, 0);
    return tiff ? abic_params(stream, page, out) : kAbicParamsAbsent;
}

constexpr RowSupply kRuns = RowSupply::kRuns;

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_TIFF, "tiff", "TIFF, uncompressed", "tif", encode, IMG_FORMAT_TIFF,
     RowSupply::kPacked, true, true},
    {IMG_FORMAT_TIFF_MH, "tiff-mh", "TIFF, CCITT modified Huffman", "tif", encode,
     IMG_FORMAT_TIFF_MH, kRuns, true},
    {IMG_FORMAT_TIFF_G3, "tiff-g3", "TIFF, CCITT Group 3", "tif", encode, IMG_FORMAT_TIFF_G3,
     kRuns, true},
    {IMG_FORMAT_TIFF_LZW, "tiff-lzw", "TIFF, LZW", "tif", encode, IMG_FORMAT_TIFF_LZW,
     RowSupply::kPacked, true},
    {IMG_FORMAT_TIFF_G4, "tiff-g4", "TIFF, CCITT Group 4", "tif", encode, IMG_FORMAT_TIFF_G4,
     kRuns, true},
    {IMG_FORMAT_TIFF_PACKBITS, "tiff-packbits", "TIFF, PackBits", "tif", encode,
     IMG_FORMAT_TIFF_PACKBITS, RowSupply::kPacked, true},
    {IMG_FORMAT_TIFF_G3_2D, "tiff-g3-2d", "TIFF, CCITT Group 3 two-dimensional", "tif"},
    {IMG_FORMAT_TIFF_JPEG, "tiff-jpeg", "TIFF, JPEG", "tif", encode, IMG_FORMAT_TIFF_JPEG,
     RowSupply::kPacked, true},
    {IMG_FORMAT_TIFF_ABIC_32010, "tiff-32010", "TIFF, compression 32010 (ABIC)", "tif",
     nullptr, 0, RowSupply::kPacked, true},
    {IMG_FORMAT_TIFF_ABIC_32008, "tiff-32008", "TIFF, compression 32008 (ABIC)", "tif",
     nullptr, 0, RowSupply::kPacked, true},
    {IMG_FORMAT_TIFF_G4_FILL1, "tiff-g4-fill1", "TIFF, CCITT Group 4 with fill order 1", "tif",
     encode, IMG_FORMAT_TIFF_G4_FILL1, kRuns, true, false, true},
    {IMG_FORMAT_TIFF_JBIG, "tiff-jbig", "TIFF, JBIG", "tif", encode, IMG_FORMAT_TIFF_JBIG,
     RowSupply::kPacked, true},
    {IMG_FORMAT_TIFF_G4_STRIPS, "tiff-g4-strips", "TIFF, CCITT Group 4 in strips", "tif",
     encode, IMG_FORMAT_TIFF_G4_STRIPS, kRuns, true},
};

}  // namespace
}  // namespace tesslin::tiff

namespace tesslin::formats {

extern const FormatDescriptor kTif = {
    .tag = "tif", .detect_switch = IMG_FORMAT_TIFF, .signature = tiff::signature,
    .refine = tiff::refine, .decode = tiff::decode, .count_pages = tiff::count_pages,
    .count_pages_mem = tiff::count_pages, .orientation = tiff::orientation,
    .orientation_per_page = true, .tiles = tiff::tile_query, .is_tiled = tiff::tiled_at_start,
    .tags = tiff::tag_query, .tags_on_stream = true, .list_directory = tiff::list_directory,
    .abic_params = tiff::abic_params_if_tiff, .codes = tiff::kCodes};

}  // namespace tesslin::formats
