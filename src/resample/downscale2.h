// Internals of the downscales by two.
#pragma once

#include <cstdint>

namespace qimra {

// The nine Lanczos taps of the halving (x = 0.8 k, a = 4), normalised to
// 15 fractional bits. They sum to 32768 only within rounding.
void lanczos_q15_taps(int32_t q[9]);

}  // namespace qimra
