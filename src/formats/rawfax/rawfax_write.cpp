// Raw fax writers: the bare code stream of the CCITT encoders.
#include "formats/ccitt/ccitt.h"
#include "formats/rawfax/rawfax.h"

namespace tesslin::rawfax {

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    // Code 53 takes any depth: the run supply hands the encoder change lists.
    if (variant != 53 && header->biBitCount != 1) return IMG_ERR_DEPTH;
    switch (variant) {
        case 33: return ccitt::fax_encode_1d(stream, header, supply, user, 1, ccitt::kFrameG3);
        case 53: return ccitt::fax_encode_1d(stream, header, supply, user, 0, ccitt::kFrameG3);
        case 34: return ccitt::fax_encode_g4(stream, header, supply, user, 1, ccitt::kFrameG4);
        case 52: return ccitt::fax_encode_g4(stream, header, supply, user, 0, ccitt::kFrameG4);
        default: return IMG_ERR_UNSUPPORTED;
    }
}

}  // namespace tesslin::rawfax
