// Helpers of the codec contract that formats call.
#include "pipeline/codec.h"

#include "core/stream.h"

namespace tesslin {

int32_t single_image_start(uint32_t position, int32_t stream, uint32_t* offset) {
    if (!position_is_page(position)) {
        *offset = position;
        return 0;
    }
    if (position_page(position) != 0) return IMG_ERR_NO_PAGE;
    const int32_t here = stream::seek(stream, 0, 1);
    if (here < 0) return here;
    *offset = uint32_t(here);
    return 0;
}

}  // namespace tesslin
