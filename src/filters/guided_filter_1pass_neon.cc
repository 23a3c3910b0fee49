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

// The filter on four window sums and their pixels, up to the 32-bit result
// (truncated toward zero, saturated).
inline uint32x4_t filter4(uint32x4_t s, uint32x4_t q, float32x4_t pixel, const Constants& k) {
    const float32x4_t mean = vmulq_f32(vcvtq_f32_u32(s), k.inv_n);
    const float32x4_t var =
        vmulq_f32(vsubq_f32(vmulq_f32(vcvtq_f32_u32(q), k.inv_n), vmulq_f32(mean, mean)), k.inv_255_squared);
    // The raw estimate, unrefined: its error is part of the output.
    const float32x4_t a = vmulq_f32(recpe_f32x4(vaddq_f32(var, k.eps)), var);
    const float32x4_t t1 = vmulq_f32(a, mean);
    const float32x4_t t2 = vmulq_f32(pixel, a);
    const float32x4_t t3 = vsubq_f32(mean, t1);
    // (Off ARM the translated conversion is inexact only in [2^31, 2^32),
    // where every float is a multiple of 256, so the low byte still agrees.)
    return vcvtq_u32_f32(vaddq_f32(t2, t3));
}

// Four output pixels: their bytes followed by four zero bytes, as one group
// store writes them. Only the four source bytes are read (a 32-bit load), so
// the source needs no slack past its last pixel.
inline uint8x8_t filter_group(const uint32_t* sum_top, const uint32_t* sq_top, ptrdiff_t below, int32_t side,
                              const uint8_t* in, const Constants& k) {
    uint32_t four;
    std::memcpy(&four, in, sizeof four);
    const uint16x8_t wide = vmovl_u8(vreinterpret_u8_u32(vdup_n_u32(four)));
    const float32x4_t pixel = vcvtq_f32_u32(vmovl_u16(vget_low_u16(wide)));
    const uint32x4_t out = filter4(window_sum4(sum_top, below, side), window_sum4(sq_top, below, side), pixel, k);
    // Two plain narrowings: values of 256 and above wrap.
    return vmovn_u16(vcombine_u16(vmovn_u32(out), vdup_n_u16(0)));
}

// The four table corners of eight neighbouring windows, each corner's eight
// entries loaded at once and split into even and odd columns (VLD2), so
// that every step of the filter runs on the even and the odd half.
struct Corners {
    const uint32_t* top_left;
    const uint32_t* top_right;
    const uint32_t* bottom_left;
    const uint32_t* bottom_right;
    Corners(const uint32_t* top, ptrdiff_t below, int32_t side)
        : top_left(top), top_right(top + side), bottom_left(top + below), bottom_right(top + below + side) {}
    uint32x4x2_t next_sums() {
        const uint32x4x2_t tl = vld2q_u32(top_left), tr = vld2q_u32(top_right);
        const uint32x4x2_t bl = vld2q_u32(bottom_left), br = vld2q_u32(bottom_right);
        top_left += 8;
        top_right += 8;
        bottom_left += 8;
        bottom_right += 8;
        uint32x4x2_t s;
        for (int h = 0; h < 2; ++h)
            s.val[h] = vsubq_u32(vsubq_u32(vaddq_u32(br.val[h], tl.val[h]), bl.val[h]), tr.val[h]);
        return s;
    }
};

// Eight output pixels from eight source bytes; the even and odd results are
// put back in order (VZIP) before the last narrowing.
inline uint8x8_t filter8(Corners& sum, Corners& sq, const uint8_t* in, const Constants& k) {
    const uint32x4x2_t s = sum.next_sums();
    const uint32x4x2_t q = sq.next_sums();
    const uint16x8_t wide = vmovl_u8(vld1_u8(in));
    const uint16x4x2_t split = vuzp_u16(vget_low_u16(wide), vget_high_u16(wide));
    const uint32x4_t even = filter4(s.val[0], q.val[0], vcvtq_f32_u32(vmovl_u16(split.val[0])), k);
    const uint32x4_t odd = filter4(s.val[1], q.val[1], vcvtq_f32_u32(vmovl_u16(split.val[1])), k);
    const uint16x4x2_t in_order = vzip_u16(vmovn_u32(even), vmovn_u32(odd));
    // Two plain narrowings: values of 256 and above wrap.
    return vmovn_u16(vcombine_u16(in_order.val[0], in_order.val[1]));
}

}  // namespace

int32_t self_guided_filter_1pass_neon(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                      int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height) {
    const int32_t groups = width / 4;
    if (groups <= 0 || height <= 0) return 0;
    const auto [side, table_stride, below] = window_geometry(width, radius);
    const Constants k{vdupq_n_f32(1.0f / static_cast<float>(side * side)), vdupq_n_f32(kInvSquared255),
                      vdupq_n_f32(eps)};
    const int32_t end = 4 * groups;
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t* in = src + static_cast<ptrdiff_t>(y) * width;
        uint8_t* out = dst + static_cast<ptrdiff_t>(y) * width;
        Corners sum(ii_sum + y * table_stride, below, side);
        Corners sq(ii_sqsum + y * table_stride, below, side);
        // Every pointer steps on by itself (post-increment addressing).
        for (const uint8_t* const in_end = in + end / 8 * 8; in != in_end; in += 8, out += 8)
            vst1_u8(out, filter8(sum, sq, in, k));
        if (end % 8 != 0) {
            vst1_u8(out, filter_group(sum.top_left, sq.top_left, below, side, in, k));
        } else {
            // The four zero bytes a last group store leaves after the row.
            std::memset(out, 0, 4);
        }
    }
    return 4 * groups;
}

}  // namespace qimra

#endif
