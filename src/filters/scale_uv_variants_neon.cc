// The vector self-test's arithmetic, 16 bytes a step.
#include "filters/scale_uv_variants.h"
#include "simd/neon.h"

#if QIMRA_HAVE_NEON

namespace qimra {

void test_asm_bytes_neon(const uint8_t* in, uint8_t* out, int n) {
    const uint8x16_t k233 = vdupq_n_u8(233);
    const uint8x16_t k3 = vdupq_n_u8(3);
    for (int i = 0; i < n; i += 16) {
        const uint8x16_t v = vld1q_u8(in + i);
        vst1q_u8(out + i, vmulq_u8(vaddq_u8(vaddq_u8(v, v), k233), k3));
    }
}

}  // namespace qimra

#endif  // QIMRA_HAVE_NEON
