// Single-precision arithmetic as the ARMv7 Advanced SIMD unit does it:
// denormal operands and results count as zero of the same sign. Per-pixel
// forms of vector kernels use these so that their values are the vector
// form's on ARM (plain scalar VFP code keeps denormals).
#pragma once

#include <cfloat>
#include <cmath>

namespace qimra {

inline float flush_denormal(float v) { return std::fabs(v) < FLT_MIN ? std::copysign(0.0f, v) : v; }
inline float ftz_mul(float a, float b) { return flush_denormal(flush_denormal(a) * flush_denormal(b)); }
inline float ftz_add(float a, float b) { return flush_denormal(flush_denormal(a) + flush_denormal(b)); }
inline float ftz_sub(float a, float b) { return flush_denormal(flush_denormal(a) - flush_denormal(b)); }

}  // namespace qimra
