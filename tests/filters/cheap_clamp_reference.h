// The chroma gain of the scalar chroma variants, written from its ranges.
#pragma once

#include <cmath>
#include <cstdint>

namespace qimra::test {

// A flooring shift, then the cheap clamp: 0..255 pass, each further 256
// above takes one off 256, each 256 below adds one to 0.
inline uint8_t cheap_clamp_reference(int c, int g) {
    const int t = int(std::floor((c - 128) * g / 32.0)) + 128;
    if (t >= 0 && t <= 255) return uint8_t(t);
    if (t > 255) return uint8_t(256 - t / 256);
    return uint8_t((255 - t) / 256);
}

}  // namespace qimra::test
