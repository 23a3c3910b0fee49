// The by-four enlarger's row kernel and the 16.16 stepping shared with the
// free-ratio resize.
#pragma once

#include <cstdint>

#include "resample/overlap.h"

namespace qimra {

// 16.16 source step per destination sample. Enlarging maps the end samples
// onto each other ((src - 1) / (dst - 1)); reducing covers whole source
// cells (src / dst). Unsigned 32-bit throughout, as the fixed point wraps.
inline uint32_t fixed_step(int32_t src, int32_t dst) {
    const uint32_t s = static_cast<uint32_t>(src);
    const uint32_t d = static_cast<uint32_t>(dst);
    if (src <= dst) return ((s - 1u) << 16) / (d - 1u);
    return (s << 16) / d;
}

// Reductions start half a fractional step in, so the samples sit in the
// middle of their cells; a whole-number step starts at one half.
inline uint32_t start_fraction(uint32_t step) {
    if (step < 65536u) return 0;
    const uint32_t frac = step & 0xFFFFu;
    return frac == 0 ? 32768u : frac >> 1;
}

// Weights in sixteenths on a column and on its right neighbour for the four
// horizontal phases.
constexpr uint32_t kUpscale4Phase[4][2] = {{13, 3}, {9, 7}, {5, 11}, {1, 15}};

// One destination row of 4 * ws pixels from source rows a (weight 16 - f)
// and b (weight f), f in 0..15, starting at source column x_begin. An
// unblended row is f = 0 with b = a.
void upscale4_row_c(const uint8_t* a, const uint8_t* b, uint8_t* dst, int x_begin, int ws, uint32_t f);

// The same for 16 source columns at a time while more than 15 interior
// columns remain; returns the source columns done.
int upscale4_row_neon(const uint8_t* a, const uint8_t* b, uint8_t* dst, int ws, uint32_t f);

}  // namespace qimra
