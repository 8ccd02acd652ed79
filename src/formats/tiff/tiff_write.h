// The TIFF writer's pieces shared by the format codes and
// IMGLOW_write_tiff_stream.
#pragma once

#include <cstdint>
#include <vector>

#include "core/io.h"
#include "pipeline/codec.h"

namespace tesslin::tiff {

// Compression value the writer uses for Group 4 data with fill order 1
// (format codes 51 and 67); it is written to the file as 4.
constexpr uint32_t kMmrNatural = 4000;

// The extra tags set through IMGLOW_set_tiff_tag, in the order they were
// set. Process-wide, like the other settings.
struct ExtraTag {
    uint16_t tag;
    uint32_t count;
    uint32_t value;
    std::vector<uint8_t> data;  // count bytes when count is 5 or more
};
std::vector<ExtraTag>& extra_tags();

// Writes one page: the header (new file, with the page index the indexing
// setting asks for) or the append steps, the directory and its trailing
// block, then the strips through write_strip(strip, first_row, rows), which
// writes the strip's bytes at the stream's position (through `out`, or
// directly after out.flush()) and returns 0 or a negative status. Patches
// the strip offsets and byte counts afterwards.
struct PageDesc {
    const DibHeader* header = nullptr;  // width, height, bits, palette, resolution
    uint32_t compression = 1;           // written value (kMmrNatural for 4 with fill order 1)
    uint32_t bits = 1;                  // bits per pixel described by the directory
    uint32_t rows_per_strip = 0;        // 0: one strip
    bool palette_page = false;          // colour map from the header's palette
    bool alpha = false;                 // 32-bit: RGBA (else CMYK)
    bool default_res_200 = false;       // resolution 200/1 when the header has none
};

class PageWriter {
public:
    PageWriter(int32_t stream);
    // Starts the page: appends to an "II" TIFF at the stream's position or
    // writes a new header there (with the page index the indexing setting
    // asks for, unless `indexing` is false). IMG_ERR_BAD_IMAGE when an existing chain
    // cannot be read, IMG_ERR_WRITE on a short write.
    int32_t begin(bool indexing = true);
    // Writes the directory and trailing block for the page and leaves the
    // stream where the first strip goes.
    int32_t directory(const PageDesc& desc);
    // Marks the start and end of strip i's data (call after its bytes are
    // on the stream or in `out`).
    uint32_t position();  // offset of the next byte, relative to the TIFF's start
    void strip_done(uint32_t strip, uint32_t start, uint32_t end);
    // Patches the strip table and, when appending, links the page into the
    // existing file as the last step; leaves the stream at the end of the page.
    int32_t finish();
    // After any failure: an append is undone by cutting the file back to
    // its old end (the existing file was not touched before finish()).
    void abandon();

    StreamWriter& out() { return out_; }
    int32_t stream() const { return stream_; }
    uint32_t strips() const { return strips_; }

private:
    int32_t append(const uint8_t* head, uint32_t have);
    int32_t link();
    int32_t patch(uint32_t at, uint32_t value);

    int32_t stream_;
    uint32_t base_ = 0;      // stream position of the TIFF's first byte
    uint32_t ifd_ = 0;       // offset of the new directory
    uint32_t strips_ = 1;
    uint32_t offsets_at_ = 0, counts_at_ = 0;  // value fields or arrays
    std::vector<uint32_t> strip_offsets_, strip_counts_;
    // Append state: the old end, the next pointer to set, the index to update.
    bool appending_ = false, indexed_ = false;
    uint32_t old_end_ = 0, next_field_ = 0, pages_ = 0, room_ = 0;
    StreamWriter out_;
};

// True for palettes written as grey (no colour map): 4 bits with entry i
// = 17 i, 8 bits with equal components not above index + 128; other depths.
bool grey_palette(const DibHeader* header);

// JBIG stream of the page's rows (format code 66), through `out`.
int32_t encode_jbig(StreamWriter& out, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
                    intptr_t user);

}  // namespace tesslin::tiff
