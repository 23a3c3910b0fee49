// The chroma gain of the scalar chroma variants: a flooring shift and the
// cheap clamp that subtracts the overflow count instead of saturating.
#pragma once

#include <cstdint>

namespace qimra {

// t = (((c - 128) * g) >> 5) + 128, the shift arithmetic (flooring). The
// clamp is deliberately cheap: k = t >> 8 counts whole 256s out of range and
// the stored byte is (k != 0 ? 0 : t) - k, so t in 0..255 passes, 256..511
// gives 255, 512..767 gives 254, -256..-1 gives 1, -512..-257 gives 2, and so
// on; c = 0 with gain 255 gives t = -892 and stores 4.
inline uint8_t scale_chroma_cheap_clamp(uint8_t c, uint8_t g) {
    const int32_t t = (((static_cast<int32_t>(c) - 128) * static_cast<int32_t>(g)) >> 5) + 128;
    const int32_t k = t >> 8;
    return static_cast<uint8_t>((k != 0 ? 0 : t) - k);
}

}  // namespace qimra
