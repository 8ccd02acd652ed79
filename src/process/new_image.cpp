#include "process/new_image.h"

#include <algorithm>
#include <vector>

#include "platform/platform.h"

namespace tesslin::process {

NewImage::~NewImage() {
    platform::block_free(work_.dib);
    platform::block_free(work_.line_offsets);
}

int32_t NewImage::create(const DibHeader* like, int32_t width, int32_t height, int32_t bits,
                         bool run_encoded) {
    if (!like) return IMG_ERR_BAD_IMAGE;
    if (bitmap_create_dib(&work_, like, width, height, bits, run_encoded) != 0)
        return IMG_ERR_MEMORY;
    if (!run_encoded && work_.header()->biCompression == IMG_COMPRESSION_RUNS)
        work_.header()->biCompression = 0;
    if (bits != 32 && work_.header()->biCompression == IMG_COMPRESSION_ALPHA)
        work_.header()->biCompression = 0;
    return 0;
}

int32_t NewImage::append_record(const uint32_t* record, uint32_t length) {
    return run_store_append(&work_, record, length) == 0 ? 0 : IMG_ERR_MEMORY;
}

void NewImage::reverse_records() {
    const int32_t n = work_.runs_stored;
    if (!work_.run_encoded || n < 2) return;
    // Reversing every word reverses the order of the records and the words
    // inside each; each record's words are then turned back.
    uint32_t* offsets = work_.line_offsets;
    auto* words = reinterpret_cast<uint32_t*>(work_.pixels());
    std::reverse(words, words + offsets[n] / 4);
    // Record k of the new order is record n - 1 - k of the old one.
    std::vector<uint32_t> lengths(static_cast<size_t>(n));
    for (int32_t k = 0; k < n; ++k) lengths[static_cast<size_t>(k)] = offsets[n - k] - offsets[n - 1 - k];
    for (int32_t k = 0; k < n; ++k) {
        offsets[k + 1] = offsets[k] + lengths[static_cast<size_t>(k)];
        std::reverse(words + offsets[k] / 4, words + offsets[k + 1] / 4);
    }
}

int32_t NewImage::install(BitmapObject* obj) {
    if (!work_.dib) return IMG_ERR_MEMORY;
    if (work_.run_encoded && run_store_complete(&work_) != 0) return IMG_ERR_MEMORY;
    platform::block_free(obj->dib);
    platform::block_free(obj->line_offsets);
    obj->dib = work_.dib;
    obj->line_offsets = work_.line_offsets;
    obj->run_encoded = work_.run_encoded;
    obj->runs_stored = work_.runs_stored;
    obj->width = work_.width;
    obj->height = work_.height;
    obj->row_bytes = work_.row_bytes;
    obj->dib_capacity = work_.dib_capacity;
    obj->crop_x = obj->crop_y = 0;
    obj->crop_width = work_.width;
    obj->crop_height = work_.height;
    work_ = BitmapObject{};
    return 0;
}

}  // namespace tesslin::process
