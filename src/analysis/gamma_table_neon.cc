// The straight part of the tone table, 16 entries per step.
#include "analysis/gamma_table.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

namespace qimra {

namespace {

// n / 191 for 0 <= n < 2^16 as (n * 43920) >> 23, with 43920 = ceil(2^23 / 191).
// The multiplier overshoots 2^23 / 191 by 112 / 191 / 2^23, which adds less
// than 0.0035 to n / 191 for n <= 255 * 191; every fractional part of n / 191
// is at most 190 / 191, so the floor never moves. The tests check all k * d.
constexpr uint16_t kRecip191 = 43920;

inline uint16x8_t div191(uint16x8_t n) {
    const uint16x4_t recip = vdup_n_u16(kRecip191);
    const uint32x4_t lo = vmull_u16(vget_low_u16(n), recip);
    const uint32x4_t hi = vmull_u16(vget_high_u16(n), recip);
    return vshrq_n_u16(vcombine_u16(vshrn_n_u32(lo, 16), vshrn_n_u32(hi, 16)), 7);
}

}  // namespace

void gamma_line_neon(uint8_t* out, int32_t b, int32_t d, int32_t k_begin, int32_t k_end) {
    static const uint16_t kLanes[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    const uint16_t magnitude = static_cast<uint16_t>(d < 0 ? -d : d);
    // Truncation toward zero: divide |k * d| and negate afterwards. Only the
    // low 8 bits of the quotient matter for (b + q) mod 256.
    const uint8x16_t sign = vdupq_n_u8(d < 0 ? 0xFF : 0x00);
    const uint8x16_t base = vdupq_n_u8(static_cast<uint8_t>(b));
    const uint16x8_t step = vdupq_n_u16(16);
    uint16x8_t k_lo = vaddq_u16(vld1q_u16(kLanes), vdupq_n_u16(static_cast<uint16_t>(k_begin)));
    uint16x8_t k_hi = vaddq_u16(vld1q_u16(kLanes + 8), vdupq_n_u16(static_cast<uint16_t>(k_begin)));
    for (int32_t k = k_begin; k < k_end; k += 16) {
        const uint16x8_t q_lo = div191(vmulq_n_u16(k_lo, magnitude));
        const uint16x8_t q_hi = div191(vmulq_n_u16(k_hi, magnitude));
        uint8x16_t q = vcombine_u8(vmovn_u16(q_lo), vmovn_u16(q_hi));
        q = vsubq_u8(veorq_u8(q, sign), sign);  // -q mod 256 when d < 0
        vst1q_u8(out + 64 + k, vaddq_u8(base, q));
        k_lo = vaddq_u16(k_lo, step);
        k_hi = vaddq_u16(k_hi, step);
    }
}

}  // namespace qimra

#endif
