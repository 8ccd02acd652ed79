// The format-code table as applications see it: a short name for command
// lines, a description, the usual file extension, and whether the library
// reads, writes and holds several pages of each format right now (what is
// registered in the dispatch tables).
#include <cstring>

#include "core/api.h"
#include "pipeline/dispatch.h"
#include "pipeline/save.h"
#include "tesslin/tesslin.h"

namespace tesslin {
namespace {

struct FormatRow {
    int32_t code;
    const char* name;
    const char* description;
    const char* tag;        // type tag detection gives, "" when none
    const char* extension;  // "" when the format has no file of its own
};

constexpr FormatRow kFormats[] = {
    {0, "tiff", "TIFF, uncompressed", "tif", "tif"},
    {1, "bmp", "Windows BMP", "bmp", "bmp"},
    {2, "pcx", "PCX", "pcx", "pcx"},
    {3, "tga", "Targa", "tga", "tga"},
    {4, "gif", "GIF", "gif", "gif"},
    {5, "wpg", "WordPerfect graphics", "wpg", "wpg"},
    {6, "wmf", "Windows metafile", "wmf", "wmf"},
    {7, "tiff-mh", "TIFF, CCITT modified Huffman", "tif", "tif"},
    {8, "tiff-g3", "TIFF, CCITT Group 3", "tif", "tif"},
    {9, "tiff-lzw", "TIFF, LZW", "tif", "tif"},
    {10, "tiff-g4", "TIFF, CCITT Group 4", "tif", "tif"},
    {11, "dcx", "DCX (multi-page PCX)", "dcx", "dcx"},
    {12, "bmp-rle", "Windows BMP, run-length compressed", "bmp", "bmp"},
    {13, "jpeg", "JPEG", "jpg", "jpg"},
    {14, "eps", "EPS with a TIFF preview", "eps", "eps"},
    {15, "pict", "Macintosh PICT", "pct", "pct"},
    {16, "tiff-packbits", "TIFF, PackBits", "tif", "tif"},
    {17, "tiff-g3-2d", "TIFF, CCITT Group 3 two-dimensional", "tif", "tif"},
    {18, "cals", "CALS raster", "cal", "cal"},
    {19, "lsd", "LSD fax container", "lsd", "lsd"},
    {20, "xbm", "X bitmap", "xbm", "xbm"},
    {21, "macpaint", "MacPaint", "mac", "mac"},
    {22, "gx2", "GX2", "gx2", "gx2"},
    {23, "kfx", "KFX fax container", "kfx", "kfx"},
    {24, "ioca", "IOCA", "ica", "ica"},
    {25, "ico", "Windows icon", "ico", "ico"},
    {26, "iff", "IFF", "iff", "iff"},
    {27, "clp", "Windows clipboard", "clp", "clp"},
    {28, "gem-img", "GEM IMG", "img", "img"},
    {29, "btr", "BTR", "btr", "btr"},
    {30, "msp", "Microsoft Paint", "msp", "msp"},
    {31, "cut", "Dr. Halo CUT", "cut", "cut"},
    {32, "tga-24", "Targa, 24-bit only", "", "tga"},
    {33, "raw-g3-v1", "raw CCITT Group 3, variant 1", "", "g3"},
    {34, "raw-g4-v1", "raw CCITT Group 4, variant 1", "", "g4"},
    {35, "xpm", "X pixmap", "xpm", "xpm"},
    {36, "xwd", "X window dump", "xwd", "xwd"},
    {37, "sun-raster", "Sun raster", "ras", "ras"},
    {38, "text", "plain text rendered as an image", "txt", "txt"},
    {39, "photo-cd", "Kodak Photo CD", "pcd", "pcd"},
    {40, "tiff-jpeg", "TIFF, JPEG", "tif", "tif"},
    {41, "psd", "Photoshop", "psd", "psd"},
    {42, "imt", "IMT fax container", "imt", "imt"},
    {43, "png", "PNG", "png", "png"},
    {44, "gif-interlaced", "GIF, interlaced", "gif", "gif"},
    {46, "tiff-32010", "TIFF, compression 32010 (ABIC)", "tif", "tif"},
    {47, "tiff-32008", "TIFF, compression 32008 (ABIC)", "tif", "tif"},
    {48, "dib", "BMP without the file header (bare DIB)", "", "dib"},
    {49, "modca", "MO:DCA", "mca", "mca"},
    {51, "tiff-g4-fill1", "TIFF, CCITT Group 4 with fill order 1", "", "tif"},
    {52, "raw-g4", "raw CCITT Group 4", "", "g4"},
    {53, "raw-g3", "raw CCITT Group 3", "", "g3"},
    {54, "ole", "OLE compound document (FlashPix)", "fpx", "fpx"},
    {55, "dicom", "DICOM", "dcm", "dcm"},
    {56, "jed", "JED tiled bilevel", "jed", "jed"},
    {57, "pcl", "PCL, unencoded raster", "pcl", "pcl"},
    {58, "fxs", "FXS fax", "fxs", "fxs"},
    {59, "pdf", "PDF", "pdf", "pdf"},
    {60, "scitex", "Scitex CT", "sct", "sct"},
    {61, "mag", "MAG", "mag", "mag"},
    {62, "eps-separation", "EPS four-plate colour separation", "", "eps"},
    {63, "eps-level2-rle", "EPS level 2, run-length or JPEG data", "", "eps"},
    {64, "eps-level2-g4", "EPS level 2, Group 4 or JPEG data", "", "eps"},
    {65, "ncr", "NCR", "ncr", "ncr"},
    {66, "tiff-jbig", "TIFF, JBIG", "tif", "tif"},
    {67, "tiff-g4-strips", "TIFF, CCITT Group 4 in strips", "tif", "tif"},
    {68, "wbmp", "Wireless bitmap (WBMP)", "wbm", "wbmp"},
    {69, "ps-filtered", "PostScript, filtered data", "", "ps"},
    {70, "jp2", "JPEG 2000", "jp2", "jp2"},
    {71, "jbig", "JBIG", "jbg", "jbg"},
    {72, "cod", "COD", "cod", "cod"},
    {73, "cim", "CIM", "cim", "cim"},
    {74, "modca-ri", "MO:DCA with record introducers", "", "afp"},
    {75, "cif", "CIF", "cif", "cif"},
    {76, "pcl-mode2", "PCL, compression mode 2 raster", "", "pcl"},
    {77, "jbig2", "JBIG2", "jb2", "jb2"},
};

// Formats whose reading goes through a separately delivered module.
bool read_by_plugin(const char* tag) {
    for (const char* t : {"pdf", "fpx", "pcl", "jp2"})
        if (std::strcmp(tag, t) == 0) return true;
    return false;
}

}  // namespace
}  // namespace tesslin

using namespace tesslin;

extern "C" {

TESSLIN_API int32_t IMGLOW_get_format_info(int32_t code, IMG_FORMAT_INFO* info) {
    return api_call([&]() -> int32_t {
        for (const FormatRow& f : kFormats) {
            if (f.code != code) continue;
            if (!info) return 0;
            info->code = f.code;
            info->name = f.name;
            info->description = f.description;
            info->extension = f.extension;
            info->reads = 0;
            if (*f.tag && dispatch::decoder_for(f.tag))
                info->reads = read_by_plugin(f.tag) ? 2 : 1;
            info->writes = has_encoder(code) ? 1 : 0;
            const bool has_counter = *f.tag && dispatch::page_counter_for(f.tag, false) != nullptr;
            info->multipage = (has_counter ? 1 : 0) | (multi_page(code) && info->writes ? 2 : 0);
            return 0;
        }
        return IMG_ERR_UNSUPPORTED;
    });
}

}  // extern "C"
