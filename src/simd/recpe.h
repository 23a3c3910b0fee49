// The single-precision reciprocal estimate of the ARMv7 Advanced SIMD unit
// (VRECPE.F32), reproduced bit for bit. The guided filter deliberately uses
// the raw estimate (about 8 significant bits) as its reciprocal, so its
// output depends on the estimate's exact error; every platform must give the
// instruction's bits, which a true division or another estimate would not.
#pragma once

#include <array>
#include <cstdint>

#include "simd/neon.h"

namespace qimra {

// The 8 leading fraction bits of the estimate for each value of the
// operand's 8 leading fraction bits.
extern const std::array<uint8_t, 256> recpe_fraction_table;

// VRECPE.F32 under the Advanced SIMD unit's fixed FPSCR: denormal operands
// count as zero, the result is never denormal, any NaN gives the default NaN.
float recpe_f32(float x);

#if QIMRA_HAVE_NEON
// Four estimates: the instruction itself on ARM. Elsewhere a lane-parallel
// emulation, because the portable translation of vrecpeq_f32 computes a
// different (and for 0 and infinity wrong) value.
inline float32x4_t recpe_f32x4(float32x4_t x) {
#if defined(__ARM_NEON) || defined(__ARM_NEON__)
    return vrecpeq_f32(x);
#else
    const uint32x4_t bits = vreinterpretq_u32_f32(x);
    const uint32x4_t sign = vandq_u32(bits, vdupq_n_u32(0x80000000u));
    const uint32x4_t exponent = vandq_u32(vshrq_n_u32(bits, 23), vdupq_n_u32(0xFFu));
    const uint32x4_t lead = vandq_u32(vshrq_n_u32(bits, 15), vdupq_n_u32(0xFFu));
    const uint32_t fraction[4] = {
        recpe_fraction_table[vgetq_lane_u32(lead, 0)], recpe_fraction_table[vgetq_lane_u32(lead, 1)],
        recpe_fraction_table[vgetq_lane_u32(lead, 2)], recpe_fraction_table[vgetq_lane_u32(lead, 3)]};
    // Exponents 1..252 give result exponents 252..1; the rest are masked below
    // (the subtraction wraps harmlessly for them).
    uint32x4_t result = vorrq_u32(
        sign, vorrq_u32(vshlq_n_u32(vsubq_u32(vdupq_n_u32(253u), exponent), 23), vshlq_n_u32(vld1q_u32(fraction), 15)));
    // |x| >= 2^126 (and infinity): the reciprocal would be denormal, so zero.
    result = vbslq_u32(vcgeq_u32(exponent, vdupq_n_u32(253u)), sign, result);
    // Zero and denormals (flushed): infinity of the operand's sign.
    result = vbslq_u32(vceqq_u32(exponent, vdupq_n_u32(0u)), vorrq_u32(sign, vdupq_n_u32(0x7F800000u)), result);
    const uint32x4_t is_nan = vcgtq_u32(vandq_u32(bits, vdupq_n_u32(0x7FFFFFFFu)), vdupq_n_u32(0x7F800000u));
    result = vbslq_u32(is_nan, vdupq_n_u32(0x7FC00000u), result);
    return vreinterpretq_f32_u32(result);
#endif
}
#endif

}  // namespace qimra
