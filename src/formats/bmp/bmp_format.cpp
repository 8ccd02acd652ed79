// The BMP family's registry descriptor: files and bare DIBs, the reader and
// the writers of codes 1, 12 and 48.
#include "core/io.h"
#include "core/stream.h"
#include "formats/bmp/bmp.h"

namespace tesslin::bmp {
namespace {

bool signature(const Probe& p) { return p.starts_with("BM") || p.bytes_are({0x28, 0, 0, 0}); }

// A file starts with the 14-byte file header; a bare DIB with its info
// header, whose compression field then sits at offset 16. Compressed files
// are code 12.
int32_t refine(int32_t stream) {
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
    return load_le32(h + info + 16) != 0 ? IMG_FORMAT_BMP_RLE : IMG_FORMAT_BMP;
}

constexpr CodeRow kCodes[] = {
    {IMG_FORMAT_BMP, "bmp", "Windows BMP", "bmp", encode, IMG_FORMAT_BMP, RowSupply::kPacked,
     false, true},
    {IMG_FORMAT_BMP_RLE, "bmp-rle", "Windows BMP, run-length compressed", "bmp", encode,
     IMG_FORMAT_BMP_RLE},
    {IMG_FORMAT_DIB, "dib", "BMP without the file header (bare DIB)", "dib", encode,
     IMG_FORMAT_DIB, RowSupply::kPacked, false, false, true},
};

}  // namespace
}  // namespace tesslin::bmp

namespace tesslin::formats {

extern const FormatDescriptor kBmp = {
    .tag = "bmp", .detect_switch = IMG_FORMAT_BMP, .signature = bmp::signature,
    .refine = bmp::refine, .decode = bmp::decode, .codes = bmp::kCodes};

}  // namespace tesslin::formats
