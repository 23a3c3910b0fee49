// The by-four enlarger's row, 16 source columns a step.
#include "resample/upscale4.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

namespace qimra {
namespace {

// One phase on eight columns. Every partial sum fits 16 bits: a phase sum
// is at most 16 * 255 and the vertical blend at most 16 times that.
inline uint8x8_t phase8(uint8x8_t a0, uint8x8_t a1, uint8x8_t b0, uint8x8_t b1, int k, uint16x8_t fa, uint16x8_t fb) {
    const uint8x8_t q0 = vdup_n_u8(static_cast<uint8_t>(kUpscale4Phase[k][0]));
    const uint8x8_t q1 = vdup_n_u8(static_cast<uint8_t>(kUpscale4Phase[k][1]));
    const uint16x8_t top = vmlal_u8(vmull_u8(a0, q0), a1, q1);
    const uint16x8_t bottom = vmlal_u8(vmull_u8(b0, q0), b1, q1);
    return vshrn_n_u16(vmlaq_u16(vmulq_u16(top, fa), bottom, fb), 8);
}

}  // namespace

int upscale4_row_neon(const uint8_t* a, const uint8_t* b, uint8_t* dst, int ws, uint32_t f) {
    const uint16x8_t fa = vdupq_n_u16(static_cast<uint16_t>(16u - f));
    const uint16x8_t fb = vdupq_n_u16(static_cast<uint16_t>(f));
    int x = 0;
    // Columns x .. x + 16 are read, so x + 16 must stay an interior column.
    for (; x + 16 <= ws - 1; x += 16) {
        const uint8x16_t a0 = vld1q_u8(a + x);
        const uint8x16_t a1 = vld1q_u8(a + x + 1);
        const uint8x16_t b0 = vld1q_u8(b + x);
        const uint8x16_t b1 = vld1q_u8(b + x + 1);
        uint8x16x4_t out;
        for (int k = 0; k < 4; ++k) {
            out.val[k] =
                vcombine_u8(phase8(vget_low_u8(a0), vget_low_u8(a1), vget_low_u8(b0), vget_low_u8(b1), k, fa, fb),
                            phase8(vget_high_u8(a0), vget_high_u8(a1), vget_high_u8(b0), vget_high_u8(b1), k, fa, fb));
        }
        vst4q_u8(dst + 4 * x, out);
    }
    return x;
}

}  // namespace qimra

#endif  // QIMRA_HAVE_NEON
