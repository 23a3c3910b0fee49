// The 2 x 2 area mean of the matrix resize, 16 pixels a step.
#include "resample/u_mat.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

namespace qimra {

int area_mean_2x2_neon(const uint8_t* s0, const uint8_t* s1, uint8_t* dst, int w) {
    int dx = 0;
    for (; dx + 16 <= w; dx += 16) {
        const uint16x8_t lo = vaddq_u16(vpaddlq_u8(vld1q_u8(s0 + 2 * dx)), vpaddlq_u8(vld1q_u8(s1 + 2 * dx)));
        const uint16x8_t hi = vaddq_u16(vpaddlq_u8(vld1q_u8(s0 + 2 * dx + 16)), vpaddlq_u8(vld1q_u8(s1 + 2 * dx + 16)));
        // The rounding shift adds 2 before >> 2: halves go up.
        vst1q_u8(dst + dx, vcombine_u8(vrshrn_n_u16(lo, 2), vrshrn_n_u16(hi, 2)));
    }
    return dx;
}

}  // namespace qimra

#endif  // QIMRA_HAVE_NEON
