#include "resample/upscale2.h"
#include "simd/neon.h"

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

// Every multiplier a vector of its own: a by-scalar multiply would have the
// compiler rebuild its scalar operand every step.
struct Weights {
    uint8x8_t w7 = vdup_n_u8(7), w9 = vdup_n_u8(9), w15 = vdup_n_u8(15);
    uint16x8_t h7 = vdupq_n_u16(7), h9 = vdupq_n_u16(9), h15 = vdupq_n_u16(15);
};

inline HorizontalPhases horizontal(uint8x8_t a, uint8x8_t b, const Weights& w) {
    return {vmlal_u8(vmull_u8(a, w.w9), b, w.w7), vmlal_u8(vmovl_u8(a), b, w.w15)};
}

// The 16-bit sums of a destination row's even and odd pixels (both 256
// times the pixel), interleaved: each lane keeps the odd sum's high byte and
// takes the even sum's high byte into its low byte (VSRI), so that the
// lanes in memory order are the row's bytes.
inline uint8x16_t interleave_high_bytes(uint16x8_t even, uint16x8_t odd) {
    return vreinterpretq_u8_u16(vsriq_n_u16(odd, even, 8));
}

inline uint16x8_t top(uint16x8_t upper, uint16x8_t lower, const Weights& w) {
    return vmlaq_u16(vmulq_u16(upper, w.h9), lower, w.h7);
}

inline uint16x8_t bottom(uint16x8_t upper, uint16x8_t lower, const Weights& w) {
    return vmlaq_u16(upper, lower, w.h15);
}

// Eight source columns from their samples a, c (upper and lower row) and
// right neighbours b, d: sixteen pixels of each destination row.
inline void step8(uint8x8_t a, uint8x8_t b, uint8x8_t c, uint8x8_t d, uint8_t* dst0, uint8_t* dst1, const Weights& w) {
    const HorizontalPhases u = horizontal(a, b, w);
    const HorizontalPhases l = horizontal(c, d, w);
    vst1q_u8(dst0, interleave_high_bytes(top(u.even, l.even, w), top(u.odd, l.odd, w)));
    vst1q_u8(dst1, interleave_high_bytes(bottom(u.even, l.even, w), bottom(u.odd, l.odd, w)));
}

// Source columns x .. x + 15 from a, b, c, d (columns x .. x + 15 and their
// right neighbours, upper and lower row).
inline void step16(uint8x16_t a, uint8x16_t b, uint8x16_t c, uint8x16_t d, uint8_t* dst0, uint8_t* dst1,
                   const Weights& w) {
    step8(vget_low_u8(a), vget_low_u8(b), vget_low_u8(c), vget_low_u8(d), dst0, dst1, w);
    step8(vget_high_u8(a), vget_high_u8(b), vget_high_u8(c), vget_high_u8(d), dst0 + 16, dst1 + 16, w);
}

// The 16 columns ending at the last one, whose right neighbour is itself.
inline uint8x16_t right_neighbours_at_end(uint8x16_t v) { return vextq_u8(v, vdupq_lane_u8(vget_high_u8(v), 7), 1); }

}  // namespace

int32_t upscale2_rows_neon(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w) {
    const Weights weights;
    int32_t x = 0;
    for (; w - 1 - x > 15; x += 16)
        step16(vld1q_u8(src0 + x), vld1q_u8(src0 + x + 1), vld1q_u8(src1 + x), vld1q_u8(src1 + x + 1), dst0 + 2 * x,
               dst1 + 2 * x, weights);
    if (w < 16) return x;
    // One more step over the last 16 columns, overlapping the ones already
    // written with the same values, so that no column is left to the
    // per-pixel loop.
    x = w - 16;
    const uint8x16_t a = vld1q_u8(src0 + x);
    const uint8x16_t c = vld1q_u8(src1 + x);
    step16(a, right_neighbours_at_end(a), c, right_neighbours_at_end(c), dst0 + 2 * x, dst1 + 2 * x, weights);
    return w;
}

}  // namespace qimra

#endif
