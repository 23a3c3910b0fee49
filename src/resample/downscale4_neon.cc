#include "resample/downscale4.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

namespace qimra {

int32_t downscale4_row_neon(const uint8_t* row0, const uint8_t* row1, uint8_t* dst, int32_t n) {
    int32_t x = 0;
    for (; x + 16 <= n; x += 16) {
        // De-interleaving by 16-bit pairs keeps bytes (4x, 4x + 1) together in
        // the even halfwords; a pairwise widening add then sums them.
        const uint8_t* s0 = row0 + 4 * x;
        const uint8_t* s1 = row1 + 4 * x;
        const uint16x8x2_t a_lo = vld2q_u16(reinterpret_cast<const uint16_t*>(s0));
        const uint16x8x2_t a_hi = vld2q_u16(reinterpret_cast<const uint16_t*>(s0 + 32));
        const uint16x8x2_t b_lo = vld2q_u16(reinterpret_cast<const uint16_t*>(s1));
        const uint16x8x2_t b_hi = vld2q_u16(reinterpret_cast<const uint16_t*>(s1 + 32));
        uint16x8_t sum_lo = vpaddlq_u8(vreinterpretq_u8_u16(a_lo.val[0]));
        uint16x8_t sum_hi = vpaddlq_u8(vreinterpretq_u8_u16(a_hi.val[0]));
        sum_lo = vpadalq_u8(sum_lo, vreinterpretq_u8_u16(b_lo.val[0]));
        sum_hi = vpadalq_u8(sum_hi, vreinterpretq_u8_u16(b_hi.val[0]));
        vst1q_u8(dst + x, vcombine_u8(vshrn_n_u16(sum_lo, 2), vshrn_n_u16(sum_hi, 2)));
    }
    return x;
}

}  // namespace qimra

#endif
