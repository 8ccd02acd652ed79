// The contract between the pipeline and the format codecs: the only
// pipeline header a format includes.
//
// A format family (src/formats/<family>/) describes itself with one
// FormatDescriptor per type tag: its signature test, how the tag maps to a
// format code, its decoder and queries, and a CodeRow for every format code
// it answers for, with the encoder where it writes that code. The pipeline
// finds descriptors through the one ordered list in src/pipeline/registry.cpp
// and never includes a format's header.
//
// Decoder: called with (position, raster callback, user value, header
// callback, stream). Position bit 31 clear: a byte offset, the decoder seeks
// there itself. Bit 31 set: the stream already stands at the image and bits
// 0-15 give the page (0 = first), bits 16-30 the tile index. The decoder
// calls the header callback once (info header + palette, resolution in dots
// per inch, compression 0 or 200 for 32-bit alpha, colour-count field 0 or
// transparent colour | kTransparentFlag), then the raster callback once per
// row; it returns 0 or the first negative status (including a callback's),
// freeing what it holds. Bilevel rows come top to bottom or bottom to top,
// each exactly once, packed or as run records.
//
// Encoder: called with (stream, encoder header, supply callback, user value,
// variant); the header describes the image to write (compression 99 when the
// rows come as run records). Rows are pulled 0 .. height-1 (any order the
// format needs) through the supply. Returns 0 or a negative status:
// IMG_ERR_WRITE for a short write, IMG_ERR_DEPTH for a depth the format does
// not write.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>

#include "core/dib.h"
#include "tesslin/tesslin.h"

namespace tesslin {

using Decoder = int32_t (*)(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                            IMG_HEADER_CALLBACK header, int32_t stream);
using Encoder = int32_t (*)(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                            intptr_t user, int32_t variant);

constexpr uint32_t kPositionIsPage = 0x80000000u;
inline bool position_is_page(uint32_t position) { return (position & kPositionIsPage) != 0; }
inline uint32_t position_page(uint32_t position) { return position & 0xFFFF; }
inline uint32_t position_tile(uint32_t position) { return (position >> 16) & 0x7FFF; }

// Where the data of a single-image format starts: for a page request the
// stream's current position (page 0 only, else IMG_ERR_NO_PAGE), otherwise
// the position itself. 0 or a negative status.
int32_t single_image_start(uint32_t position, int32_t stream, uint32_t* offset);

// Colour-count field flag marking a transparent colour in decoder headers.
constexpr uint32_t kTransparentFlag = 0x1000;

// Page counter: called with the stream at offset 0 (detection has just run).
// Returns the number of pages or images in the file, or a negative status.
using PageCounter = int32_t (*)(int32_t stream);

// Orientation reader: degrees (0, 90, 180, 270) recorded for the page, or a
// negative status. Called with the stream at offset 0.
using OrientationReader = int32_t (*)(int32_t stream, int32_t page);

// Geometry of a tiled image, from the tile-information query.
struct TileInfo {
    int32_t image_width;
    int32_t image_height;
    int32_t tile_width;
    int32_t tile_height;
    int32_t tiles_across;
    int32_t tiles_total;
};

// Tile-information query: fills `out` for the page and returns 0 (or the
// positive value IMGLOW_get_tile_info answers for the format), or
// IMG_ERR_NOT_TILED when the page is not tiled, IMG_ERR_UNSUPPORTED when the
// file holds no tiled image format at all (any other negative status on bad
// data). Called with the stream at offset 0.
using TileQuery = int32_t (*)(int32_t stream, int32_t page, TileInfo* out);

// Tiled test of IMGLOW_is_tiled_image: 1 when the file's first image is
// stored in tiles, else 0 (also on bad data). Stream at offset 0.
using TiledTest = int32_t (*)(int32_t stream);

// Tag query (IMGLOW_get_tiff_tag and its variants): reads the value of
// `tag` on `page` of the file at offset 0 of the stream. Values that fit in
// a number go to *value (result 0); longer ones are copied into `buffer`
// (at most `size` bytes; the result is the count copied). Negative status
// on failure (IMG_ERR_NOT_FOUND when the tag is absent).
using TagQuery = int32_t (*)(int32_t stream, int32_t tag, int32_t size, int32_t* value,
                             void* buffer, int32_t page);

// Directory listing (IMGLOW_get_tiff_directory): at most `max` entries of
// the page's directory written to `out`, the entry count returned, or a
// negative status. Stream at offset 0.
using DirectoryLister = int32_t (*)(int32_t stream, int32_t page, IMG_TIFF_FIELD* out,
                                    int32_t max);

// Parameters of ABIC-compressed data, read by the fallback of the decode
// entry points (after a decoder answered IMG_ERR_COMPRESSION).
struct AbicParams {
    int32_t width;
    int32_t height;
    int32_t bits;  // 1, 4 or 8
    int32_t x_dpi;
    int32_t y_dpi;
};

// Reads the parameters of the page's ABIC data at the stream's position and
// leaves the stream at the compressed data. 0, or a negative status;
// kAbicParamsAbsent means the data is not this container's or holds no such
// parameters (the next reader is tried).
using AbicParamReader = int32_t (*)(int32_t stream, int32_t page, AbicParams* out);
constexpr int32_t kAbicParamsAbsent = 23456;

// ---- Detection -----------------------------------------------------------

// Detection reads this many bytes at the stream's position.
constexpr uint32_t kProbeBytes = 10;

// What a signature test sees: the first bytes, and the stream for the few
// tests that look further.
struct Probe {
    const uint8_t* bytes;  // kProbeBytes bytes read at `start`
    int32_t stream;
    uint32_t start;

    // Reads exactly n bytes at an absolute offset of the stream.
    bool read_at(uint32_t offset, void* out, uint32_t n) const;
    // True when the bytes at `at` are `text` (without its zero byte).
    bool starts_with(const char* text, uint32_t at = 0) const;
    // True when the bytes at `at` are `values`.
    bool bytes_are(std::initializer_list<uint8_t> values, uint32_t at = 0) const;
};

// Signature test: true when the probed data is of the format. May move the
// stream; detection puts it back.
using SignatureTest = bool (*)(const Probe& probe);

// Format code of a detected file whose variant only its data tells (TIFF
// compression, BMP compression, GIF interlacing): reads at the stream's
// current position and leaves the stream where the reading ended. A code,
// or a negative status.
using CodeRefiner = int32_t (*)(int32_t stream);

// ---- Format codes and descriptors ---------------------------------------

// How the save driver hands rows to an encoder.
enum class RowSupply : uint8_t {
    kPacked,            // packed rows of the bitmap's depth
    kRuns,              // run records; deeper images reduced to one bit first
    kRunsWhenBilevel,   // run records for 1-bit images, packed rows otherwise
};

// One format code of a family.
struct CodeRow {
    int32_t code;             // IMG_FORMAT_...
    const char* name;         // short name for command lines ("tiff-g4")
    const char* description;  // "TIFF, CCITT Group 4"
    const char* extension;    // usual file extension, without the dot
    Encoder encoder = nullptr;  // null: the code is not written (yet)
    int32_t variant = 0;        // passed to the encoder
    RowSupply supply = RowSupply::kPacked;
    bool appends = false;     // saving into an existing file of the format adds a page
    bool by_extension = false;  // IMG_save_bitmap with code -1 picks this code from the
                                // file name's last three characters (== extension)
    bool save_only = false;   // no detection reports this code
};

// Everything the pipeline knows of one type tag. Null members: the format
// has no such thing (yet); the pipeline answers as for an unknown format
// (IMG_ERR_UNSUPPORTED, 1 page, IMG_ERR_NOT_TILED ...).
struct FormatDescriptor {
    const char* tag;              // type tag ("tif"); "" for codes no detection names
    int32_t detect_switch = 0;    // code whose detection switch enables `signature`
    SignatureTest signature = nullptr;  // null: detection never names the tag
    CodeRefiner refine = nullptr;       // null: the tag's code is codes[0].code
    bool known_in_memory = true;        // IMGLOW_get_filetype_mem names its code
    Decoder decode = nullptr;
    bool decoded_by_module = false;     // the decoder forwards to a plug-in module
    PageCounter count_pages = nullptr;      // IMGLOW_get_pages_fd; null: 1 page
    PageCounter count_pages_mem = nullptr;  // IMGLOW_get_pages_mem; null: 1 page
    OrientationReader orientation = nullptr;
    bool orientation_per_page = false;  // the page argument is passed on (else 0)
    TileQuery tiles = nullptr;
    uint32_t tiles_at = 0;              // byte offset the tiles' image starts at
    TiledTest is_tiled = nullptr;
    TagQuery tags = nullptr;
    bool tags_on_stream = false;        // IMGLOW_get_tiff_tag_page_fd answers too
    DirectoryLister list_directory = nullptr;
    AbicParamReader abic_params = nullptr;
    std::span<const CodeRow> codes;     // the first row is the tag's code
};

// ---- Services of the pipeline for formats --------------------------------

// The decoder of a type tag ("jpg"), for formats that carry images of other
// formats; null when the tag has none.
Decoder decoder_for_tag(const char* tag);

// Body of a decode into a new handle: runs a decoder-like procedure with the
// library's own callbacks.
using DecodeBody = int32_t (*)(void* context, IMG_RASTER_CALLBACK raster, intptr_t user,
                               IMG_HEADER_CALLBACK header);

// Runs `body` with the library's callbacks into a new bitmap handle: the
// handle, or the body's negative status (the handle freed).
int32_t decode_into_handle(DecodeBody body, void* context);

// Where row `row` (0 = top) will be stored when the decode runs with the
// library's own callbacks and they store delivered rows as they are (no
// depth or size reduction, no decode rectangle, packed rows): a decoder may
// build the complete row there, padding bytes included, and pass that
// address to the raster callback, which then copies nothing. Null for any
// other callbacks or settings; the decoder then uses its own buffer. Ask
// after the header callback, for each row just before delivering it.
uint8_t* raster_destination(IMG_RASTER_CALLBACK raster, intptr_t user, int32_t row);

// Row `row` (0 = top) of the image being saved, where it is stored, when
// the save runs with the library's own supply of packed rows and the row
// is stored exactly as the supply would hand it over (no crop inside a
// byte, no tone mapping): an encoder may read it there, and must not write
// to it. The encoder still calls the supply with that address, which then
// copies nothing but reports progress as usual. Null for any other supply
// or settings; the encoder then has the row copied into its own buffer.
const uint8_t* supply_source(IMG_SUPPLY_CALLBACK supply, intptr_t user, int32_t row);

// Has the ABIC module decode the data at the stream's position, described
// by `params`, into a new handle (1 bit: white, black palette; 4 and 8 bits:
// grey ramp). The handle, IMG_ERR_BAD_IMAGE for bad parameters,
// IMG_ERR_ABIC_PLUGIN without the module, or another negative status.
int32_t abic_decode_image(int32_t stream, const AbicParams& params);

// Formats read (and JPEG 2000 written) by plug-in modules: these forward to
// the module's entry point, loading it on first use, or return the module's
// failure status when it cannot be loaded (IMG_ERR_PLUGIN for PDF and PCL
// input, IMG_ERR_DOC_PLUGIN, IMG_ERR_PCL_PLUGIN for the PCL page count,
// IMG_ERR_JP2_PLUGIN).
namespace modules {
int32_t decode_pdf(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);
int32_t decode_doc(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);
int32_t decode_pcl(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);
int32_t decode_jp2(uint32_t position, IMG_RASTER_CALLBACK raster, intptr_t user,
                   IMG_HEADER_CALLBACK header, int32_t stream);
int32_t encode_jp2(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                   intptr_t user, int32_t variant);
int32_t pdf_pages(int32_t stream);
int32_t pcl_pages(int32_t stream);
int32_t doc_pages(int32_t stream);
}  // namespace modules

}  // namespace tesslin
