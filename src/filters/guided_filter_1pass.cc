#include <cfloat>
#include <cmath>
#include <cstddef>

#include "filters/guided_filter.h"
#include "qimra/qimra.h"
#include "simd/convert.h"
#include "simd/dispatch.h"
#include "simd/ftz.h"
#include "simd/recpe.h"

namespace qimra {

// The filter's arithmetic is that of the Advanced SIMD unit, which treats
// denormal operands and results as zero. They arise only for an eps beyond
// about 2^69 (a, a * mean and I * a turn denormal) and never change an output
// byte there, but the per-pixel form mirrors the unit so that its values are
// the vector form's on ARM.
void self_guided_filter_1pass_c(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum, int32_t radius,
                                float eps, uint8_t* dst, int32_t width, int32_t height, int32_t first_column) {
    if (width <= 0 || height <= 0) return;
    const auto [side, table_stride, below] = window_geometry(width, radius);
    const float inv_n = 1.0f / static_cast<float>(side * side);
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t* in = src + static_cast<ptrdiff_t>(y) * width;
        uint8_t* out = dst + static_cast<ptrdiff_t>(y) * width;
        const uint32_t* sum_row = ii_sum + y * table_stride;
        const uint32_t* sq_row = ii_sqsum + y * table_stride;
        for (int32_t x = first_column; x < width; ++x) {
            const uint32_t s = window_sum(sum_row + x, below, side);
            const uint32_t q = window_sum(sq_row + x, below, side);
            const float mean = ftz_mul(static_cast<float>(s), inv_n);
            const float var =
                ftz_mul(ftz_sub(ftz_mul(static_cast<float>(q), inv_n), ftz_mul(mean, mean)), kInvSquared255);
            // The raw estimate, unrefined: its error is part of the output.
            const float a = ftz_mul(recpe_f32(ftz_add(var, eps)), var);
            const float t1 = ftz_mul(a, mean);
            const float t2 = ftz_mul(static_cast<float>(in[x]), a);
            const float t3 = ftz_sub(mean, t1);
            // Truncated and saturated to 32 bits, then cut to 8: 256 and
            // above wrap rather than clamp.
            out[x] = low_byte_of_u32(ftz_add(t2, t3));
        }
    }
    uint8_t* tail = dst + static_cast<ptrdiff_t>(width) * height;
    for (int k = 0; k < 4; ++k) tail[k] = 0;
}

}  // namespace qimra

// src_stride is not used: the source is read as rows of `width` bytes, the
// layout of the guided-filter input on the frame path.
extern "C" void blc_self_guided_filter_1pass(const uint8_t* src, int /*src_stride*/, const uint32_t* ii_sum,
                                             const uint32_t* ii_sqsum, int radius, float eps, uint8_t* dst, int width,
                                             int height, float*, float*, uint32_t*, uint32_t*) {
    if (width <= 0 || height <= 0) return;
    using namespace qimra;
    using Form = decltype(&self_guided_filter_1pass_neon);
    static const Form form = select_form<Form>({.neon = QIMRA_NEON_FORM(self_guided_filter_1pass_neon),
                                                .sse41 = QIMRA_X86_FORM(self_guided_filter_1pass_sse41),
                                                .avx2 = QIMRA_X86_FORM(self_guided_filter_1pass_avx2),
                                                .avx512 = QIMRA_X86_FORM(self_guided_filter_1pass_avx512)});
    const int32_t done = form != nullptr ? form(src, ii_sum, ii_sqsum, radius, eps, dst, width, height) : 0;
    self_guided_filter_1pass_c(src, ii_sum, ii_sqsum, radius, eps, dst, width, height, done);
}
