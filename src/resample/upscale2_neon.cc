#include "resample/upscale2.h"

#if QIMRA_HAVE_NEON

namespace qimra {
namespace {

// The 2 x 2 weights factor into a horizontal pass (9, 7) / (1, 15) and the
// same vertical pass; every partial sum stays below 2^16 (the full sum is at
// most 255 * 256), so 16-bit lanes are exact.
struct HorizontalPhases {
    uint16x8_t even;  // 9a + 7b
    uint16x8_t odd;   // a + 15b
};

inline HorizontalPhases horizontal(uint8x8_t a, uint8x8_t b) {
    return {vmlal_u8(vmull_u8(a, vdup_n_u8(9)), b, vdup_n_u8(7)), vmlal_u8(vmovl_u8(a), b, vdup_n_u8(15))};
}

inline uint8x8_t top(uint16x8_t upper, uint16x8_t lower) {
    return vshrn_n_u16(vmlaq_n_u16(vmulq_n_u16(upper, 9), lower, 7), 8);
}

inline uint8x8_t bottom(uint16x8_t upper, uint16x8_t lower) {
    return vshrn_n_u16(vmlaq_n_u16(upper, lower, 15), 8);
}

// Source columns x .. x + 15 from a, b, c, d (columns x .. x + 15 and their
// right neighbours, upper and lower row).
inline void step16(uint8x16_t a, uint8x16_t b, uint8x16_t c, uint8x16_t d, uint8_t* dst0, uint8_t* dst1) {
    const HorizontalPhases u_lo = horizontal(vget_low_u8(a), vget_low_u8(b));
    const HorizontalPhases u_hi = horizontal(vget_high_u8(a), vget_high_u8(b));
    const HorizontalPhases l_lo = horizontal(vget_low_u8(c), vget_low_u8(d));
    const HorizontalPhases l_hi = horizontal(vget_high_u8(c), vget_high_u8(d));
    uint8x16x2_t row0;
    row0.val[0] = vcombine_u8(top(u_lo.even, l_lo.even), top(u_hi.even, l_hi.even));
    row0.val[1] = vcombine_u8(top(u_lo.odd, l_lo.odd), top(u_hi.odd, l_hi.odd));
    uint8x16x2_t row1;
    row1.val[0] = vcombine_u8(bottom(u_lo.even, l_lo.even), bottom(u_hi.even, l_hi.even));
    row1.val[1] = vcombine_u8(bottom(u_lo.odd, l_lo.odd), bottom(u_hi.odd, l_hi.odd));
    vst2q_u8(dst0, row0);
    vst2q_u8(dst1, row1);
}

// The 16 columns ending at the last one, whose right neighbour is itself.
inline uint8x16_t right_neighbours_at_end(uint8x16_t v) {
    return vextq_u8(v, vdupq_lane_u8(vget_high_u8(v), 7), 1);
}

}  // namespace

int32_t upscale2_rows_neon(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w) {
    int32_t x = 0;
    for (; w - 1 - x > 15; x += 16)
        step16(vld1q_u8(src0 + x), vld1q_u8(src0 + x + 1), vld1q_u8(src1 + x), vld1q_u8(src1 + x + 1), dst0 + 2 * x,
               dst1 + 2 * x);
    if (w < 16) return x;
    // One more step over the last 16 columns, overlapping the ones already
    // written with the same values, so that no column is left to the
    // per-pixel loop.
    x = w - 16;
    const uint8x16_t a = vld1q_u8(src0 + x);
    const uint8x16_t c = vld1q_u8(src1 + x);
    step16(a, right_neighbours_at_end(a), c, right_neighbours_at_end(c), dst0 + 2 * x, dst1 + 2 * x);
    return w;
}

}  // namespace qimra

#endif
