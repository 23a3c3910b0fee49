// Summed-area tables of the luma and of its squares, the input of the
// self-guided filter's window sums.
#pragma once

#include <cstdint>

namespace qimra {

// Border of replicated pixels around the image described by the padded
// tables; it equals the frame path's filter radius, so the filter never
// clips its window.
constexpr int32_t kIntegralPadding = 8;

// Entries per row of the padded tables of a width-pixel image.
constexpr int32_t padded_integral_stride(int32_t width) { return width + 2 * kIntegralPadding + 1; }

}  // namespace qimra
