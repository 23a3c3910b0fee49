// The tone table: a power curve over the dark inputs joined at input 64 to
// a straight line that ends at the chosen top value at input 255.
#pragma once

#include <cstdint>

namespace qimra {

// The straight part: out[64 + k] = (b + (k * d) / 191) mod 256 for k in
// [k_begin, k_end), the division truncating toward zero (d may be negative).
void gamma_line_c(uint8_t* out, int32_t b, int64_t d, int32_t k_begin, int32_t k_end);

// The same, 16 entries per step. Preconditions: (k_end - k_begin) is a
// multiple of 16, 0 <= k_begin, k_end <= 192 and -255 <= d <= 255, so that
// k * |d| fits in 16 bits, where the reciprocal division is exact.
void gamma_line_neon(uint8_t* out, int32_t b, int32_t d, int32_t k_begin, int32_t k_end);

}  // namespace qimra
