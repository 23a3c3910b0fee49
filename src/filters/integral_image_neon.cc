// Vector form of a summed-area table row: eight pixels per step. The eight
// pixel sums of a step stay below 2^16, so their prefix runs in one 16-bit
// vector (three shifted adds) and widens while the run is added; the squares
// take their first prefix step while widening to 32 bits and finish in two
// groups of four, the upper group carried from the lower one's last lane.
// Lanes wrap modulo 2^32 exactly as the scalar running sums do.
#include "filters/integral_image.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

namespace qimra {
namespace {

inline uint32x4_t last_lane(uint32x4_t v) { return vdupq_lane_u32(vget_high_u32(v), 1); }

}  // namespace

int32_t integral_row_neon(const uint8_t* row, int32_t width, uint32_t* sum, uint32_t* sq, ptrdiff_t up, RowRun& run) {
    uint32x4_t run_sum = vdupq_n_u32(run.sum);
    uint32x4_t run_sq = vdupq_n_u32(run.sq);
    const uint16x8_t zero16 = vdupq_n_u16(0);
    const uint32x4_t zero32 = vdupq_n_u32(0);
    const uint32_t* sum_up = sum + up;
    const uint32_t* sq_up = sq + up;
    int32_t x = 0;
    for (; x + 8 <= width; x += 8) {
        const uint8x8_t p8 = vld1_u8(row);
        row += 8;
        const uint16x8_t p = vmovl_u8(p8);
        uint16x8_t ps = vaddq_u16(p, vextq_u16(zero16, p, 7));
        ps = vaddq_u16(ps, vextq_u16(zero16, ps, 6));
        ps = vaddq_u16(ps, vextq_u16(zero16, ps, 4));
        const uint32x4_t s_lo = vaddw_u16(run_sum, vget_low_u16(ps));
        const uint32x4_t s_hi = vaddw_u16(run_sum, vget_high_u16(ps));
        run_sum = last_lane(s_hi);

        const uint16x8_t p2 = vmull_u8(p8, p8);
        const uint16x4_t p2_lo = vget_low_u16(p2), p2_hi = vget_high_u16(p2);
        uint32x4_t q_lo = vaddl_u16(p2_lo, vext_u16(vget_low_u16(zero16), p2_lo, 3));
        uint32x4_t q_hi = vaddl_u16(p2_hi, vext_u16(vget_low_u16(zero16), p2_hi, 3));
        q_lo = vaddq_u32(vaddq_u32(q_lo, vextq_u32(zero32, q_lo, 2)), run_sq);
        q_hi = vaddq_u32(vaddq_u32(q_hi, vextq_u32(zero32, q_hi, 2)), last_lane(q_lo));
        run_sq = last_lane(q_hi);

        vst1q_u32(sum, vaddq_u32(vld1q_u32(sum_up), s_lo));
        vst1q_u32(sum + 4, vaddq_u32(vld1q_u32(sum_up + 4), s_hi));
        vst1q_u32(sq, vaddq_u32(vld1q_u32(sq_up), q_lo));
        vst1q_u32(sq + 4, vaddq_u32(vld1q_u32(sq_up + 4), q_hi));
        sum += 8;
        sq += 8;
        sum_up += 8;
        sq_up += 8;
    }
    run.sum = vgetq_lane_u32(run_sum, 0);
    run.sq = vgetq_lane_u32(run_sq, 0);
    return x;
}

}  // namespace qimra

#endif  // QIMRA_HAVE_NEON
