// The dispatch tables: one line per format.
//
// Registering a codec: declare its entry points in its own header
// (src/formats/<family>/<family>.h, namespace tesslin::<family>), add the
// include below and put the entry point on the format's line in place of
// nullptr. A tag whose decoder is null, or a code whose encoder is null,
// answers -7 until then. The order of each table is the order of comparison
// and must not change.
#include "pipeline/dispatch.h"

#include <cstring>

#include "formats/bmp/bmp.h"
#include "formats/cals/cals.h"
#include "formats/faxcontainers/faxcontainers.h"
#include "formats/jpeg/jpeg.h"
#include "formats/png/png.h"
#include "formats/rawfax/rawfax.h"
#include "formats/tiff/tiff.h"
#include "pipeline/plugins.h"
#include "pipeline/probes.h"

namespace tesslin::dispatch {
namespace {

struct DecoderEntry {
    const char* tag;  // "." + tag
    Decoder decoder;
};

// Decoders, in the order the decode driver compares the tags.
constexpr DecoderEntry kDecoders[] = {
    {".tif", tiff::decode},
    {".bmp", bmp::decode},
    {".wbm", nullptr},  // WBMP reader
    {".jpg", jpeg::decode},
    {".jbg", nullptr},  // JBIG reader
    {".jb2", nullptr},  // JBIG2 reader
    {".jp2", plugins::decode_jp2},
    {".pct", nullptr},  // PICT reader
    {".png", png_decode},
    {".gif", nullptr},  // GIF reader
    {".pcx", nullptr},  // PCX reader
    {".tga", nullptr},  // Targa reader
    {".wpg", nullptr},  // WordPerfect graphics reader
    {".wmf", nullptr},  // metafile reader
    {".eps", nullptr},  // EPS preview reader
    {".dcx", nullptr},  // DCX reader
    {".cal", cals::decode},
    {".lsd", faxcontainers::decode_lsd},
    {".pcd", nullptr},  // Photo CD reader
    {".kfx", faxcontainers::decode_kfx},
    {".dcm", nullptr},  // DICOM reader
    {".fxs", nullptr},  // FXS reader
    {".pdf", plugins::decode_pdf},
    {".cod", nullptr},  // COD reader
    {".cif", nullptr},  // CIF reader
    {".ica", nullptr},  // IOCA reader
    {".mca", nullptr},  // MO:DCA reader
    {".ico", nullptr},  // icon reader
    {".iff", nullptr},  // IFF reader
    {".gx2", nullptr},  // GX2 reader
    {".clp", nullptr},  // clipboard reader
    {".img", nullptr},  // GEM IMG reader
    {".btr", faxcontainers::decode_btr},
    {".msp", nullptr},  // Microsoft Paint reader
    {".cut", nullptr},  // CUT reader
    {".xbm", nullptr},  // X bitmap reader
    {".xpm", nullptr},  // X pixmap reader
    {".xwd", nullptr},  // X window dump reader
    {".ras", nullptr},  // Sun raster reader
    {".txt", nullptr},  // text renderer
    {".mac", nullptr},  // MacPaint reader
    {".psd", nullptr},  // Photoshop reader
    {".imt", faxcontainers::decode_imt},
    {".ncr", nullptr},  // NCR reader
    {".fpx", plugins::decode_doc},
    {".jed", nullptr},  // JED reader
    {".sct", nullptr},  // Scitex reader
    {".mag", faxcontainers::decode_mag},
    {".cim", nullptr},  // CIM reader
    {".pcl", plugins::decode_pcl},
};

// Encoders, in the order the save driver tests the codes; the variant is
// passed to the encoder after the user value.
constexpr EncoderEntry kEncoders[] = {
    {13, jpeg::encode, 0},
    {70, plugins::encode_jp2, 0},
    {43, png_encode, 0},
    {59, nullptr, 0},  // PDF
    {0, tiff::encode, 0},
    {1, bmp::encode, 1},
    {68, nullptr, 0},  // WBMP
    {48, bmp::encode, 48},
    {2, nullptr, 0},   // PCX
    {3, nullptr, 0},   // Targa
    {32, nullptr, 0},  // Targa 24-bit variant
    {4, nullptr, 0},   // GIF
    {44, nullptr, 0},  // GIF interlaced
    {5, nullptr, 0},   // WordPerfect graphics
    {6, nullptr, 0},   // metafile
    {7, tiff::encode, 7},
    {8, tiff::encode, 8},
    {9, tiff::encode, 9},
    {66, tiff::encode, 66},
    {16, tiff::encode, 16},
    {10, tiff::encode, 10},
    {67, tiff::encode, 67},
    {40, tiff::encode, 40},
    {57, nullptr, 0},  // PCL unencoded rows
    {56, nullptr, 0},  // JED
    {62, nullptr, 0},  // EPS four-plate separation
    {64, nullptr, 0},  // EPS level 2, Group 4 or JPEG
    {11, nullptr, 0},  // DCX
    {12, bmp::encode, 12},
    {15, nullptr, 0},  // PICT
    {14, nullptr, 0},  // EPS with TIFF preview
    {18, cals::encode, 0},
    {25, nullptr, 0},  // icon
    {27, nullptr, 0},  // clipboard
    {33, rawfax::encode, 33},  // raw Group 3, bit-reversed
    {34, rawfax::encode, 34},  // raw Group 4, bit-reversed
    {20, nullptr, 0},  // X bitmap
    {35, nullptr, 0},  // X pixmap
    {36, nullptr, 0},  // X window dump
    {37, nullptr, 0},  // Sun raster
    {41, nullptr, 0},  // Photoshop
    {42, faxcontainers::encode_imt, 0},
    {26, nullptr, 0},  // IFF
    {29, faxcontainers::encode_btr, 0},
    {24, nullptr, 0},  // IOCA
    {49, nullptr, 0},  // MO:DCA, variant 0
    {74, nullptr, 1},  // MO:DCA, variant 1
    {51, tiff::encode, 51},
    {53, rawfax::encode, 53},  // raw Group 3
    {52, rawfax::encode, 52},  // raw Group 4
    {76, nullptr, 0},  // PCL mode 2 rows
    {60, nullptr, 0},  // Scitex CT
    {63, nullptr, 0},  // EPS level 2, run-length or JPEG
    {69, nullptr, 0},  // PostScript, filtered, second variant
};

struct PageEntry {
    const char* tag;
    PageCounter counter;  // null: 1 page until the format's counter lands
    bool memory;          // also asked by IMGLOW_get_pages_mem
};

// Page counters, in the order IMGLOW_get_pages_fd tests the tags.
constexpr PageEntry kPageCounters[] = {
    {"tif", tiff::count_pages, true},
    {"dcx", nullptr, true},  // DCX page count
    {"ica", nullptr, true},  // MO:DCA page count
    {"mca", nullptr, true},  // MO:DCA page count
    {"txt", nullptr, true},  // text page count
    {"pcd", nullptr, true},  // Photo CD image count
    {"gif", nullptr, true},  // GIF image count
    {"mag", faxcontainers::count_mag_pages, false},
    {"cod", nullptr, false},  // COD page count
    {"cim", nullptr, false},  // CIM page count
    {"cif", nullptr, false},  // CIF page count
    {"pdf", plugins::pdf_pages, true},
    {"pcl", plugins::pcl_pages, true},
    {"fpx", plugins::doc_pages, false},
};

struct OrientationEntry {
    const char* tag;
    OrientationReader reader;
};

constexpr OrientationEntry kOrientation[] = {
    {"tif", tiff::orientation},
    {"pcd", probes::pcd_orientation},
    {"cal", probes::cal_orientation},
    {"ncr", nullptr},  // NCR header orientation
    {"mca", nullptr},  // MO:DCA page description
};

struct TileEntry {
    const char* tag;
    TileQuery query;
};

constexpr TileEntry kTileQueries[] = {
    {"tif", tiff::tile_query},
    {"cal", cals::tile_query},
};

struct TagEntry {
    const char* tag;
    TagQuery query;
};

constexpr TagEntry kTagQueries[] = {
    {"tif", tiff::tag_query},
    {"dcm", nullptr},  // DICOM elements
    {"eps", nullptr},  // EPS tagged values
    {"psd", nullptr},  // Photoshop image resources
};

}  // namespace

Decoder decoder_for(const char* tag) {
    if (!tag || !tag[0]) return nullptr;
    for (const DecoderEntry& e : kDecoders)
        if (std::strcmp(e.tag + 1, tag) == 0) return e.decoder;
    return nullptr;
}

PageCounter page_counter_for(const char* tag, bool memory, bool* listed) {
    if (listed) *listed = false;
    if (!tag || !tag[0]) return nullptr;
    for (const PageEntry& e : kPageCounters) {
        if (std::strcmp(e.tag, tag) != 0) continue;
        if (memory && !e.memory) return nullptr;
        if (listed) *listed = true;
        return e.counter;
    }
    return nullptr;
}

OrientationReader orientation_for(const char* tag) {
    if (!tag || !tag[0]) return nullptr;
    for (const OrientationEntry& e : kOrientation)
        if (std::strcmp(e.tag, tag) == 0) return e.reader;
    return nullptr;
}

TileQuery tile_query_for(const char* tag) {
    if (!tag || !tag[0]) return nullptr;
    for (const TileEntry& e : kTileQueries)
        if (std::strcmp(e.tag, tag) == 0) return e.query;
    return nullptr;
}

TagQuery tag_query_for(const char* tag) {
    if (!tag || !tag[0]) return nullptr;
    for (const TagEntry& e : kTagQueries)
        if (std::strcmp(e.tag, tag) == 0) return e.query;
    return nullptr;
}

const EncoderEntry* encoder_for(int32_t code) {
    for (const EncoderEntry& e : kEncoders)
        if (e.code == code) return &e;
    return nullptr;
}

AbicParamReader abic_tiff_params() { return tiff::abic_params; }
AbicParamReader abic_modca_params() { return nullptr; }  // MO:DCA structured fields

}  // namespace tesslin::dispatch
