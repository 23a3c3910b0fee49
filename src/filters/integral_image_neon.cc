// Vector form of a summed-area table row: eight pixels per step. Inside a
// group of four lanes the prefix sum takes two shifted adds; the run enters
// as a broadcast of the previous group's last lane. Lanes wrap modulo 2^32
// exactly as the scalar running sums do.
#include "filters/integral_image.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

namespace qimra {
namespace {

inline uint32x4_t prefix4(uint32x4_t v) {
    const uint32x4_t zero = vdupq_n_u32(0);
    v = vaddq_u32(v, vextq_u32(zero, v, 3));  // + the lane to the left
    return vaddq_u32(v, vextq_u32(zero, v, 2));  // + the two lanes two to the left
}

inline uint32x4_t last_lane(uint32x4_t v) { return vdupq_lane_u32(vget_high_u32(v), 1); }

}  // namespace

int32_t integral_row_neon(const uint8_t* row, int32_t width, uint32_t* sum, uint32_t* sq, ptrdiff_t up,
                          RowRun& run) {
    uint32x4_t run_sum = vdupq_n_u32(run.sum);
    uint32x4_t run_sq = vdupq_n_u32(run.sq);
    int32_t x = 0;
    for (; x + 8 <= width; x += 8) {
        const uint16x8_t p = vmovl_u8(vld1_u8(row + x));
        const uint16x4_t p_lo = vget_low_u16(p), p_hi = vget_high_u16(p);
        const uint32x4_t s_lo = vaddq_u32(prefix4(vmovl_u16(p_lo)), run_sum);
        const uint32x4_t s_hi = vaddq_u32(prefix4(vmovl_u16(p_hi)), last_lane(s_lo));
        const uint32x4_t q_lo = vaddq_u32(prefix4(vmull_u16(p_lo, p_lo)), run_sq);
        const uint32x4_t q_hi = vaddq_u32(prefix4(vmull_u16(p_hi, p_hi)), last_lane(q_lo));
        run_sum = last_lane(s_hi);
        run_sq = last_lane(q_hi);
        vst1q_u32(sum + x, vaddq_u32(vld1q_u32(sum + x + up), s_lo));
        vst1q_u32(sum + x + 4, vaddq_u32(vld1q_u32(sum + x + 4 + up), s_hi));
        vst1q_u32(sq + x, vaddq_u32(vld1q_u32(sq + x + up), q_lo));
        vst1q_u32(sq + x + 4, vaddq_u32(vld1q_u32(sq + x + 4 + up), q_hi));
    }
    run.sum = vgetq_lane_u32(run_sum, 0);
    run.sq = vgetq_lane_u32(run_sq, 0);
    return x;
}

}  // namespace qimra

#endif  // QIMRA_HAVE_NEON
