// libFuzzer target of the PDF writer's reading of an existing document: the
// input is the file a page is appended to. The writer reads its end (marker,
// cross-reference table, trailer, catalogue, page tree) and appends a small
// bilevel page in the room left behind the input; whatever happens, the
// bytes before the place the page went must be the input's.
#include <cstring>

#include "formats/pdf/pdf.h"
#include "fuzz_util.h"

namespace {

int32_t white_rows(intptr_t, uint8_t* buffer, int32_t, uint32_t bytes) {
    std::memset(buffer, 0xFF, bytes);
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 20)) return 0;
    // The input, followed by room for the new page.
    std::vector<uint8_t> file(data, data + size);
    file.resize(size + 65536, 0);
    const int32_t stream = tesslin::stream::mem_create_sized(file.data(), uint32_t(file.size()));
    if (!stream) return 0;

    tesslin::pdf::Document doc;
    const int32_t opened = tesslin::pdf::open_document(stream, uint32_t(size), &doc);
    fuzz::check(opened == 0 || opened == IMG_ERR_MEMORY || opened == IMG_ERR_VARIANT);
    fuzz::check(!doc.exists || (doc.xref_at < size && doc.offsets.size() == 7 * doc.pages + 1));

    // A memory stream's length is its position: stand at the input's end so
    // that the writer takes the input for an existing document.
    alignas(tesslin::DibHeader) uint8_t header_block[tesslin::kHeaderBlockSize] = {};
    auto* header = reinterpret_cast<tesslin::DibHeader*>(header_block);
    *header = tesslin::dib_header(40, 30, 1);
    tesslin::dib_palette(header)[1] = tesslin::RgbQuad{255, 255, 255, 0};
    tesslin::stream::seek(stream, int32_t(size), 0);
    const int32_t saved = tesslin::pdf::encode(stream, header, white_rows, 0, 0);
    fuzz::check(saved == opened || (opened == 0 && (saved == 0 || saved == IMG_ERR_WRITE)));
    const size_t kept = doc.exists ? doc.xref_at : 0;
    fuzz::check(saved != 0 || std::memcmp(file.data(), data, kept) == 0);
    if (saved < 0) fuzz::check(std::memcmp(file.data(), data, size) == 0);
    tesslin::stream::mem_release(stream);
    return 0;
}
