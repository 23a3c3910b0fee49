// Vertical blend of the bilinear matrix resize, 16 pixels a step.
#include "resample/u_mat.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

namespace qimra {
namespace {

inline int32x4_t blend4(const int* row0, const int* row1, int32x4_t b0, int32x4_t b1) {
    const int32x4_t t0 = vshrq_n_s32(vmulq_s32(b0, vshrq_n_s32(vld1q_s32(row0), 4)), 16);
    const int32x4_t t1 = vshrq_n_s32(vmulq_s32(b1, vshrq_n_s32(vld1q_s32(row1), 4)), 16);
    return vshrq_n_s32(vaddq_s32(vaddq_s32(t0, t1), vdupq_n_s32(2)), 2);
}

// Keeps the low 8 bits of each lane, like the per-pixel byte store.
inline uint8x8_t low_bytes(int32x4_t lo, int32x4_t hi) {
    return vmovn_u16(vreinterpretq_u16_s16(vcombine_s16(vmovn_s32(lo), vmovn_s32(hi))));
}

}  // namespace

int vresizeLinear_neon(const int* row0, const int* row1, uint8_t* dst, int b0, int b1, int width) {
    const int32x4_t w0 = vdupq_n_s32(b0);
    const int32x4_t w1 = vdupq_n_s32(b1);
    int x = 0;
    for (; x + 16 <= width; x += 16) {
        const uint8x8_t lo = low_bytes(blend4(row0 + x, row1 + x, w0, w1), blend4(row0 + x + 4, row1 + x + 4, w0, w1));
        const uint8x8_t hi =
            low_bytes(blend4(row0 + x + 8, row1 + x + 8, w0, w1), blend4(row0 + x + 12, row1 + x + 12, w0, w1));
        vst1q_u8(dst + x, vcombine_u8(lo, hi));
    }
    return x;
}

}  // namespace qimra

#endif  // QIMRA_HAVE_NEON
