// Upscale by two of the guided-filter base: every output pixel is a weighted
// 2 x 2 sum of source pixels with weights in 1/256, truncated.
#pragma once

#include <cstdint>

namespace qimra {

// Destination rows 2y and 2y + 1 (dst0, dst1; 2w pixels each) from source
// rows y and y + 1 (src0, src1; w pixels each), for source columns
// x_begin .. w - 1. The last column repeats itself. Passing src1 == src0
// gives the last-row pass (both destination rows equal).
void upscale2_rows_c(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w,
                     int32_t x_begin);

// Source columns 16 at a time; returns the first column it did not do. The
// NEON form does every column of a row of 16 or more (its last step
// overlaps the one before); the x86 forms stop while more than 15 columns
// with a right neighbour remain. The destination rows must not overlap the
// source rows.
int32_t upscale2_rows_neon(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w);

// x86-64 has its own form of the same steps: translated, the NEON form's
// widening multiplies and interleaving store cost several shuffles. The
// AVX2 form takes 32 columns a step, then the SSE4.1 steps from column x on.
int32_t upscale2_rows_sse41(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w);
int32_t upscale2_rows_sse41_from(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w,
                                 int32_t x);
int32_t upscale2_rows_avx2(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w);

// One row pair, in the dispatch's form where the rows do not overlap.
void upscale2_rows(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w);

}  // namespace qimra
