// Vector forms of the chroma scalers. Since no pointer ever jumps, a band is
// one run of groups of 8 pairs; two groups go per step, then a last single
// group when the count is odd.
#include "filters/scale_uv.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

namespace qimra {
namespace {

// (c - 128) * g + 4096 modulo 2^16 as c * g - (128 * g - 4096): one widening
// multiply per sample and the subtrahend shared by both planes.
inline uint16x8_t subtrahend(uint8x8_t g) { return vsubq_u16(vshll_n_u8(g, 7), vdupq_n_u16(4096)); }

inline uint8x8_t scale8(uint16x8_t sub_g, uint8x8_t c, uint8x8_t g) {
    return vqrshrun_n_s16(vreinterpretq_s16_u16(vsubq_u16(vmull_u8(c, g), sub_g)), 5);
}

inline uint8x16_t scale16(uint16x8_t sub_lo, uint16x8_t sub_hi, uint8x16_t c, uint8x16_t g) {
    return vcombine_u8(scale8(sub_lo, vget_low_u8(c), vget_low_u8(g)),
                       scale8(sub_hi, vget_high_u8(c), vget_high_u8(g)));
}

}  // namespace

// Pointers step on rather than being indexed, so that each load and store
// advances its own (post-increment addressing on ARM).
void scale_uv_planar_neon(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v, const uint8_t* gain,
                          int32_t width, int32_t height) {
    std::size_t steps = scale_uv_groups(width, height);
    for (; steps >= 2; steps -= 2) {
        const uint8x16_t g = vld1q_u8(gain);
        const uint16x8_t s_lo = subtrahend(vget_low_u8(g));
        const uint16x8_t s_hi = subtrahend(vget_high_u8(g));
        vst1q_u8(out_u, scale16(s_lo, s_hi, vld1q_u8(in_u), g));
        vst1q_u8(out_v, scale16(s_lo, s_hi, vld1q_u8(in_v), g));
        gain += 16;
        in_u += 16;
        in_v += 16;
        out_u += 16;
        out_v += 16;
    }
    if (steps != 0) {
        const uint8x8_t g = vld1_u8(gain);
        const uint16x8_t s = subtrahend(g);
        vst1_u8(out_u, scale8(s, vld1_u8(in_u), g));
        vst1_u8(out_v, scale8(s, vld1_u8(in_v), g));
    }
}

void scale_uv_nv_neon(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height) {
    std::size_t steps = scale_uv_groups(width, height);
    for (; steps >= 2; steps -= 2) {
        const uint8x16_t g = vld1q_u8(gain);
        const uint16x8_t s_lo = subtrahend(vget_low_u8(g));
        const uint16x8_t s_hi = subtrahend(vget_high_u8(g));
        uint8x16x2_t uv = vld2q_u8(in_uv);
        uv.val[0] = scale16(s_lo, s_hi, uv.val[0], g);
        uv.val[1] = scale16(s_lo, s_hi, uv.val[1], g);
        vst2q_u8(out_uv, uv);
        gain += 16;
        in_uv += 32;
        out_uv += 32;
    }
    if (steps != 0) {
        const uint8x8_t g = vld1_u8(gain);
        const uint16x8_t s = subtrahend(g);
        uint8x8x2_t uv = vld2_u8(in_uv);
        uv.val[0] = scale8(s, uv.val[0], g);
        uv.val[1] = scale8(s, uv.val[1], g);
        vst2_u8(out_uv, uv);
    }
}

}  // namespace qimra

#endif
