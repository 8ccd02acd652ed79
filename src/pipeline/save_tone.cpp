// Tone mapping of saved rows. A bitmap whose tone fields are set (by the
// look-up-table and tone operations) is saved through the colour map that
// display applies to it: computed with the first tone field cleared, it
// becomes the supply's byte table for 24- and 32-bit bitmaps and grey
// palettes, and is applied once to the encoder header's palette for colour
// palettes. The tone operations provide that map; until they do, no bitmap
// carries a mapping and saving copies rows unchanged.
#include "pipeline/save.h"

namespace tesslin {

const uint8_t* save_tone_map(const BitmapObject&, DibHeader*, uint8_t*) { return nullptr; }

}  // namespace tesslin
