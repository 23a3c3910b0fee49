// The Newton-Raphson step of the ARMv7 Advanced SIMD unit (VRECPS.F32),
// reproduced bit for bit: 2.0 - a * b with the product and the difference
// rounded separately (never fused), under the unit's fixed FPSCR (denormal
// operands and results count as zero, round to nearest, default NaN).
// e * VRECPS(d, e) refines an estimate e of 1 / d.
#pragma once

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>

#include "simd/ftz.h"
#include "simd/neon.h"

namespace qimra {

inline float recps_f32(float a, float b) {
    a = flush_denormal(a);
    b = flush_denormal(b);
    if (std::isnan(a) || std::isnan(b)) return std::bit_cast<float>(0x7FC00000u);
    // 0 * infinity would be invalid; the step defines it as exactly 2.
    if ((std::isinf(a) && b == 0.0f) || (a == 0.0f && std::isinf(b))) return 2.0f;
    // The unit also flushes a product below the normal range, but 2 minus
    // anything that small rounds to 2 either way; the result itself is never
    // denormal (near 2 every difference is a multiple of 2^-23).
    const float product = a * b;
    return 2.0f - product;
}

#if QIMRA_HAVE_NEON
// Four steps: the instruction on ARM; elsewhere lane by lane through the
// emulation, because the portable translation of vrecpsq_f32 neither flushes
// nor treats 0 * infinity as the unit does.
inline float32x4_t recps_f32x4(float32x4_t a, float32x4_t b) {
#if defined(__ARM_NEON) || defined(__ARM_NEON__)
    return vrecpsq_f32(a, b);
#else
    return ftz_lanes<recps_f32>(a, b);
#endif
}
#endif

}  // namespace qimra
