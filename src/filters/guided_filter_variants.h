// The exported variants of the self-guided filter beside the frame path's
// one-pass form: the two-step filter with clipped windows, and the two-pass
// filter over padded tables with a refined reciprocal.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qimra {

// Largest radius of the two-pass filter: its tables carry the fixed border
// of replicated pixels of the padded builder.
constexpr int32_t kTwoPassMaxRadius = 8;

// The windows of one run of pixels in the padded tables: sum_top and sq_top
// point at the top-left table corner of the first pixel's window, side is
// 2r + 1, stride the table row stride.
struct PaddedWindows {
    const uint32_t* sum_top;
    const uint32_t* sq_top;
    ptrdiff_t stride;
    int32_t side;
};

// First pass of the two-pass filter for n consecutive pixels: the linear
// model a (var / (var + eps) through the reciprocal estimate refined by two
// Newton-Raphson steps) and b = mean - a * mean, as the Advanced SIMD unit
// computes them.
void guided_2pass_coefficients_c(const PaddedWindows& w, float inv_n, float eps, float* a, float* b, int32_t n);
// Whole groups of four only; returns the pixels done (n rounded down to 4).
int32_t guided_2pass_coefficients_neon(const PaddedWindows& w, float inv_n, float eps, float* a, float* b, int32_t n);

}  // namespace qimra
