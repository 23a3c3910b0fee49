// Downscale by four for the analysis image: each output pixel is the
// truncated mean of the top-left 2 x 2 of its 4 x 4 source block.
#pragma once

#include <cstdint>

namespace qimra {

// One output row of n pixels from source rows 4y (row0) and 4y + 1 (row1).
void downscale4_row_c(const uint8_t* row0, const uint8_t* row1, uint8_t* dst, int32_t n);

// The leading multiple of 16 output pixels; returns how many it wrote. The
// caller finishes the row with the per-pixel form. dst must not overlap the
// 4 * n bytes of either source row.
int32_t downscale4_row_neon(const uint8_t* row0, const uint8_t* row1, uint8_t* dst, int32_t n);

// One output row, in the dispatch's form where it applies.
void downscale4_row(const uint8_t* row0, const uint8_t* row1, uint8_t* dst, int32_t n);

}  // namespace qimra
