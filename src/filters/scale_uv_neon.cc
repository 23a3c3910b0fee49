// Vector forms of the chroma scalers. Since no pointer ever jumps, a band is
// one run of groups of 8 pairs; two groups go per step, then a last single
// group when the count is odd.
#include "filters/scale_uv.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

namespace qimra {
namespace {

// 4096 - 128 * g, modulo 2^16: with it one widening multiply-accumulate
// gives (c - 128) * g + 4096 in wrapping 16-bit lanes.
inline uint16x8_t bias(uint8x8_t g) { return vsubq_u16(vdupq_n_u16(4096), vshlq_n_u16(vmovl_u8(g), 7)); }

inline uint8x8_t scale8(uint16x8_t bias_g, uint8x8_t c, uint8x8_t g) {
    return vqrshrun_n_s16(vreinterpretq_s16_u16(vmlal_u8(bias_g, c, g)), 5);
}

inline uint8x16_t scale16(uint16x8_t bias_lo, uint16x8_t bias_hi, uint8x16_t c, uint8x16_t g) {
    return vcombine_u8(scale8(bias_lo, vget_low_u8(c), vget_low_u8(g)),
                       scale8(bias_hi, vget_high_u8(c), vget_high_u8(g)));
}

}  // namespace

void scale_uv_planar_neon(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v,
                          const uint8_t* gain, int32_t width, int32_t height) {
    const std::size_t pairs = 8 * scale_uv_groups(width, height);
    std::size_t i = 0;
    for (; i + 16 <= pairs; i += 16) {
        const uint8x16_t g = vld1q_u8(gain + i);
        const uint16x8_t b_lo = bias(vget_low_u8(g));
        const uint16x8_t b_hi = bias(vget_high_u8(g));
        const uint8x16_t u = vld1q_u8(in_u + i);
        const uint8x16_t v = vld1q_u8(in_v + i);
        vst1q_u8(out_u + i, scale16(b_lo, b_hi, u, g));
        vst1q_u8(out_v + i, scale16(b_lo, b_hi, v, g));
    }
    if (i < pairs) {
        const uint8x8_t g = vld1_u8(gain + i);
        const uint16x8_t b = bias(g);
        const uint8x8_t u = vld1_u8(in_u + i);
        const uint8x8_t v = vld1_u8(in_v + i);
        vst1_u8(out_u + i, scale8(b, u, g));
        vst1_u8(out_v + i, scale8(b, v, g));
    }
}

void scale_uv_nv_neon(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height) {
    const std::size_t pairs = 8 * scale_uv_groups(width, height);
    std::size_t i = 0;
    for (; i + 16 <= pairs; i += 16) {
        const uint8x16_t g = vld1q_u8(gain + i);
        const uint16x8_t b_lo = bias(vget_low_u8(g));
        const uint16x8_t b_hi = bias(vget_high_u8(g));
        uint8x16x2_t uv = vld2q_u8(in_uv + 2 * i);
        uv.val[0] = scale16(b_lo, b_hi, uv.val[0], g);
        uv.val[1] = scale16(b_lo, b_hi, uv.val[1], g);
        vst2q_u8(out_uv + 2 * i, uv);
    }
    if (i < pairs) {
        const uint8x8_t g = vld1_u8(gain + i);
        const uint16x8_t b = bias(g);
        uint8x8x2_t uv = vld2_u8(in_uv + 2 * i);
        uv.val[0] = scale8(b, uv.val[0], g);
        uv.val[1] = scale8(b, uv.val[1], g);
        vst2_u8(out_uv + 2 * i, uv);
    }
}

}  // namespace qimra

#endif
