// The two-pass filter's first pass, four pixels a step.
#include "filters/guided_filter.h"
#include "filters/guided_filter_variants.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

#include "simd/ftz.h"
#include "simd/recpe.h"
#include "simd/recps.h"

namespace qimra {

int32_t guided_2pass_coefficients_neon(const PaddedWindows& w, float inv_n, float eps, float* a, float* b, int32_t n) {
    const ptrdiff_t below = w.side * w.stride;
    const float32x4_t inv_n4 = vdupq_n_f32(inv_n);
    const float32x4_t norm4 = vdupq_n_f32(kInvSquared255);
    const float32x4_t eps4 = vdupq_n_f32(eps);
    const int32_t done = n & ~3;
    for (int32_t i = 0; i < done; i += 4) {
        const uint32_t* st = w.sum_top + i;
        const uint32_t* qt = w.sq_top + i;
        const uint32x4_t s =
            vsubq_u32(vsubq_u32(vaddq_u32(vld1q_u32(st + below + w.side), vld1q_u32(st)), vld1q_u32(st + below)),
                      vld1q_u32(st + w.side));
        const uint32x4_t q =
            vsubq_u32(vsubq_u32(vaddq_u32(vld1q_u32(qt + below + w.side), vld1q_u32(qt)), vld1q_u32(qt + below)),
                      vld1q_u32(qt + w.side));
        // The unit's arithmetic, denormals flushed; off ARM the plain
        // translated operations would keep them (a denormal a for eps near
        // 1e37, where the per-pixel form, like the unit, has zero).
        const float32x4_t mean = ftz_mul_f32x4(vcvtq_f32_u32(s), inv_n4);
        const float32x4_t var =
            ftz_mul_f32x4(ftz_sub_f32x4(ftz_mul_f32x4(vcvtq_f32_u32(q), inv_n4), ftz_mul_f32x4(mean, mean)), norm4);
        const float32x4_t d = ftz_add_f32x4(var, eps4);
        float32x4_t r = recpe_f32x4(d);
        r = ftz_mul_f32x4(r, recps_f32x4(d, r));
        r = ftz_mul_f32x4(r, recps_f32x4(d, r));
        const float32x4_t coef = ftz_mul_f32x4(r, var);
        vst1q_f32(a + i, coef);
        vst1q_f32(b + i, ftz_sub_f32x4(mean, ftz_mul_f32x4(coef, mean)));
    }
    return done;
}

}  // namespace qimra

#endif  // QIMRA_HAVE_NEON
