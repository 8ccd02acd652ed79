// Raw fax writers: the bare code stream of the CCITT encoders.
#include "formats/ccitt/ccitt.h"
#include "formats/rawfax/rawfax.h"

namespace tesslin::rawfax {

int32_t encode(int32_t stream, const DibHeader* header, IMG_SUPPLY_CALLBACK supply,
               intptr_t user, int32_t variant) {
    if (!header || !supply) return IMG_ERR_BAD_IMAGE;
    // Plain Group 3 takes any depth: the run supply hands the encoder change lists.
    if (variant != IMG_FORMAT_RAW_G3 && header->biBitCount != 1) return IMG_ERR_DEPTH;
    switch (variant) {
        case IMG_FORMAT_RAW_G3_REVERSED: return ccitt::fax_encode_1d(stream, header, supply, user, 1, ccitt::kFrameG3);
        case IMG_FORMAT_RAW_G3: return ccitt::fax_encode_1d(stream, header, supply, user, 0, ccitt::kFrameG3);
        case IMG_FORMAT_RAW_G4_REVERSED: return ccitt::fax_encode_g4(stream, header, supply, user, 1, ccitt::kFrameG4);
        case IMG_FORMAT_RAW_G4: return ccitt::fax_encode_g4(stream, header, supply, user, 0, ccitt::kFrameG4);
        default: return IMG_ERR_UNSUPPORTED;
    }
}

}  // namespace tesslin::rawfax
