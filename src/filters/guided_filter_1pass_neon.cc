#include "filters/guided_filter.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

#include <cstddef>
#include <cstring>

#include "simd/recpe.h"

namespace qimra {
namespace {

struct Constants {
    float32x4_t inv_n;
    float32x4_t inv_255_squared;
    float32x4_t eps;
};

inline uint32x4_t window_sum4(const uint32_t* top, ptrdiff_t below, int32_t side) {
    const uint32_t* bottom = top + below;
    const uint32x4_t br_tl = vaddq_u32(vld1q_u32(bottom + side), vld1q_u32(top));
    return vsubq_u32(vsubq_u32(br_tl, vld1q_u32(bottom)), vld1q_u32(top + side));
}

// Four output pixels: their bytes followed by four zero bytes, as one group
// store writes them. Only the four source bytes are read (a 32-bit load), so
// the source needs no slack past its last pixel.
inline uint8x8_t filter_group(const uint32_t* sum_top, const uint32_t* sq_top, ptrdiff_t below, int32_t side,
                              const uint8_t* in, const Constants& k) {
    const uint32x4_t s = window_sum4(sum_top, below, side);
    const uint32x4_t q = window_sum4(sq_top, below, side);
    const float32x4_t mean = vmulq_f32(vcvtq_f32_u32(s), k.inv_n);
    const float32x4_t var =
        vmulq_f32(vsubq_f32(vmulq_f32(vcvtq_f32_u32(q), k.inv_n), vmulq_f32(mean, mean)), k.inv_255_squared);
    // The raw estimate, unrefined: its error is part of the output.
    const float32x4_t a = vmulq_f32(recpe_f32x4(vaddq_f32(var, k.eps)), var);

    uint32_t four;
    std::memcpy(&four, in, sizeof four);
    const uint16x8_t wide = vmovl_u8(vreinterpret_u8_u32(vdup_n_u32(four)));
    const float32x4_t pixel = vcvtq_f32_u32(vmovl_u16(vget_low_u16(wide)));

    const float32x4_t t1 = vmulq_f32(a, mean);
    const float32x4_t t2 = vmulq_f32(pixel, a);
    const float32x4_t t3 = vsubq_f32(mean, t1);
    // Saturating truncation to 32 bits, then two plain narrowings: values of
    // 256 and above wrap. (Off ARM the translated conversion is inexact only
    // in [2^31, 2^32), where every float is a multiple of 256, so the low
    // byte still agrees.)
    const uint16x4_t narrow = vmovn_u32(vcvtq_u32_f32(vaddq_f32(t2, t3)));
    return vmovn_u16(vcombine_u16(narrow, vdup_n_u16(0)));
}

}  // namespace

int32_t self_guided_filter_1pass_neon(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                      int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height) {
    const int32_t groups = width / 4;
    if (groups <= 0 || height <= 0) return 0;
    const auto [side, table_stride, below] = window_geometry(width, radius);
    const Constants k{vdupq_n_f32(1.0f / static_cast<float>(side * side)), vdupq_n_f32(kInvSquared255),
                      vdupq_n_f32(eps)};
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t* in = src + static_cast<ptrdiff_t>(y) * width;
        uint8_t* out = dst + static_cast<ptrdiff_t>(y) * width;
        const uint32_t* sum_row = ii_sum + y * table_stride;
        const uint32_t* sq_row = ii_sqsum + y * table_stride;
        const int32_t end = 4 * groups;
        int32_t x = 0;
        // Two independent groups per step, both computed before either is
        // stored, so that the compiler may interleave them (a byte store could
        // otherwise alias the next group's loads).
        for (; x + 8 <= end; x += 8) {
            const uint8x8_t first = filter_group(sum_row + x, sq_row + x, below, side, in + x, k);
            const uint8x8_t second = filter_group(sum_row + x + 4, sq_row + x + 4, below, side, in + x + 4, k);
            vst1_u8(out + x, first);
            vst1_u8(out + x + 4, second);
        }
        if (x < end) vst1_u8(out + x, filter_group(sum_row + x, sq_row + x, below, side, in + x, k));
    }
    return 4 * groups;
}

}  // namespace qimra

#endif
