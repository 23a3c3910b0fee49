// The luma/gain table, 8 entries of a row per step.
#include "engine/colour_lut.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

namespace qimra {

namespace {

struct RowConstants {
    float32x4_t g_i;
    float32x4_t s;
    int32x4_t m;
    int32x4_t c;
};

struct FourEntries {
    int32x4_t luma;  // low 8 bits are the luma byte
    int32x4_t gain_index;
};

// The per-pixel rule on four entries, operation for operation in the same
// precision and order (no fused multiply-add).
inline FourEntries four_entries(const RowConstants& rc, float32x4_t w, float32x4_t gamma_j, int32x4_t i_minus_j) {
    const float32x4_t t_f = vaddq_f32(gamma_j, vmulq_f32(vcvtq_f32_s32(i_minus_j), rc.s));
    const int32x4_t t = vcvtq_s32_f32(t_f);
    const float32x4_t u_f =
        vaddq_f32(vmulq_f32(vsubq_f32(vdupq_n_f32(1.0f), w), rc.g_i), vmulq_f32(w, vcvtq_f32_s32(t)));
    const int32x4_t u = vmaxq_s32(vcvtq_s32_f32(u_f), vdupq_n_s32(0));
    const int32x4_t r = vshrq_n_s32(vmulq_s32(rc.m, u), 5);
    const int32x4_t x = vaddq_s32(vshrq_n_s32(vmulq_s32(r, rc.c), 11), vdupq_n_s32(16));
    const int32x4_t over = vshrq_n_s32(x, 8);
    const uint32x4_t in_range = vceqq_s32(over, vdupq_n_s32(0));
    FourEntries e;
    e.luma = vbslq_s32(in_range, x, vmulq_n_s32(over, 255));
    e.gain_index = vminq_s32(vshrq_n_s32(vmulq_n_s32(r, 5), 10), vdupq_n_s32(kGainCurveEntries - 1));
    return e;
}

}  // namespace

void colour_lut_row_neon(const ColourLutInputs& in, const ColourLutVectorTables& v, int32_t i, uint16_t* row,
                         int32_t l_begin, int32_t l_end) {
    static const int32_t kLaneSteps[4] = {0, 2, 4, 6};
    const RowConstants rc{vdupq_n_f32(static_cast<float>(in.gamma_lut[i])), vdupq_n_f32(in.sig50p1_f[i]),
                          vdupq_n_s32(in.recip[i]), vdupq_n_s32(i >= 16 ? i - 16 : 0)};
    const float* weight = v.weight[i & 1] + 128 - (i >> 1);
    // i - j for the first four entries of a step; j advances by 16 per step.
    int32x4_t i_minus_j = vsubq_s32(vdupq_n_s32(i - 2 * l_begin), vld1q_s32(kLaneSteps));
    const int32x4_t eight = vdupq_n_s32(8);
    for (int32_t l = l_begin; l < l_end; l += 8) {
        const FourEntries lo = four_entries(rc, vld1q_f32(weight + l), vld1q_f32(v.gamma_even + l), i_minus_j);
        i_minus_j = vsubq_s32(i_minus_j, eight);
        const FourEntries hi = four_entries(rc, vld1q_f32(weight + l + 4), vld1q_f32(v.gamma_even + l + 4), i_minus_j);
        i_minus_j = vsubq_s32(i_minus_j, eight);

        // The gain curve has no vector gather: look the eight gains up one by one.
        int32_t index[8];
        vst1q_s32(index, lo.gain_index);
        vst1q_s32(index + 4, hi.gain_index);
        uint16_t gain[8];
        for (int n = 0; n < 8; ++n) gain[n] = static_cast<uint16_t>(static_cast<uint32_t>(in.gain[index[n]]) << 8);

        const uint16x8_t luma = vandq_u16(
            vcombine_u16(vmovn_u32(vreinterpretq_u32_s32(lo.luma)), vmovn_u32(vreinterpretq_u32_s32(hi.luma))),
            vdupq_n_u16(0xFF));
        vst1q_u16(row + l, vorrq_u16(luma, vld1q_u16(gain)));
    }
}

}  // namespace qimra

#endif
