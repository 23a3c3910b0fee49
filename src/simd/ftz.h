// Single-precision arithmetic as the ARMv7 Advanced SIMD unit does it:
// denormal operands and results count as zero of the same sign. Per-pixel
// forms of vector kernels use these so that their values are the vector
// form's on ARM (plain scalar VFP code keeps denormals).
#pragma once

#include <cfloat>
#include <cmath>

#include "simd/neon.h"

namespace qimra {

inline float flush_denormal(float v) { return std::fabs(v) < FLT_MIN ? std::copysign(0.0f, v) : v; }
// The unit judges a product tiny by its exact value, before rounding, so a
// product just below FLT_MIN that would round up to it is still flushed.
// The double product of two floats is exact and shows that value; narrowing
// it rounds once, as the float multiply would.
inline float ftz_mul(float a, float b) {
    const double exact = static_cast<double>(flush_denormal(a)) * static_cast<double>(flush_denormal(b));
    return std::fabs(exact) < FLT_MIN ? static_cast<float>(std::copysign(0.0, exact)) : static_cast<float>(exact);
}
// A sum below FLT_MIN is a multiple of the smallest denormal and so exact:
// flushing after rounding is the same as before.
inline float ftz_add(float a, float b) { return flush_denormal(flush_denormal(a) + flush_denormal(b)); }
inline float ftz_sub(float a, float b) { return flush_denormal(flush_denormal(a) - flush_denormal(b)); }

#if QIMRA_HAVE_NEON
// Four lanes: the instructions themselves on ARM. Elsewhere lane by lane
// through the scalar rules above, because the portable translation of
// vmulq_f32 and friends keeps denormals.
#if defined(__ARM_NEON) || defined(__ARM_NEON__)
inline float32x4_t ftz_mul_f32x4(float32x4_t a, float32x4_t b) { return vmulq_f32(a, b); }
inline float32x4_t ftz_add_f32x4(float32x4_t a, float32x4_t b) { return vaddq_f32(a, b); }
inline float32x4_t ftz_sub_f32x4(float32x4_t a, float32x4_t b) { return vsubq_f32(a, b); }
#else
// A scalar rule of the unit applied to each of four lanes.
template <float (*op)(float, float)>
inline float32x4_t ftz_lanes(float32x4_t a, float32x4_t b) {
    float x[4];
    float y[4];
    vst1q_f32(x, a);
    vst1q_f32(y, b);
    for (int i = 0; i < 4; ++i) x[i] = op(x[i], y[i]);
    return vld1q_f32(x);
}
inline float32x4_t ftz_mul_f32x4(float32x4_t a, float32x4_t b) { return ftz_lanes<ftz_mul>(a, b); }
inline float32x4_t ftz_add_f32x4(float32x4_t a, float32x4_t b) { return ftz_lanes<ftz_add>(a, b); }
inline float32x4_t ftz_sub_f32x4(float32x4_t a, float32x4_t b) { return ftz_lanes<ftz_sub>(a, b); }
#endif
#endif

}  // namespace qimra
