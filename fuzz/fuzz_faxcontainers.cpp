// libFuzzer target of the fax containers. Byte 0 picks the reader (mod 6:
// IMT, BTR, KFX, LSD, MAG, MAG page count), byte 1 the MAG page; the rest is
// the file. Decoders run with contract-checking callbacks and into a handle,
// which IMT and BTR inputs write in their own format and read back.
#include "fax_fuzz.h"
#include "formats/faxcontainers/faxcontainers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    using namespace tesslin::faxcontainers;
    const uint8_t route = data[0] % 6, page = data[1];
    data += 2;
    size -= 2;
    switch (route) {
        case 0: fax_fuzz::run_decoder(decode_imt, 0, data, size, 42); break;
        case 1: fax_fuzz::run_decoder(decode_btr, 0, data, size, 29); break;
        case 2: fax_fuzz::run_decoder(decode_kfx, 0, data, size, -1); break;
        case 3: fax_fuzz::run_decoder(decode_lsd, 0, data, size, -1); break;
        case 4:
            fax_fuzz::run_decoder(decode_mag, page ? tesslin::kPositionIsPage | page : 0, data, size,
                                  -1);
            break;
        default: {
            fuzz::BlockInput in(data, size);
            const int32_t n = count_mag_pages(in.stream);
            fuzz::check(n <= 0x10000);
            break;
        }
    }
    return 0;
}
