// SSE4.1 form of the one-pass filter. The translated NEON costs about 35
// instructions a pixel here, most of them in the lane-by-lane reciprocal
// estimate and in the widening and narrowing shuffles; this form keeps
// every step in SSE4.1 registers.
#include "filters/guided_filter_x86.h"

#if QIMRA_X86_FORMS

namespace qimra {
namespace guided_x86 {
namespace {

void sse_rows(const FilterImage im) {
    for (int32_t y = 0; y < im.height; ++y) im.groups_of_four_from(0, im.row(y));
}

}  // namespace

int32_t filter_image(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum, int32_t radius, float eps,
                     uint8_t* dst, int32_t width, int32_t height, Form form) {
    const int32_t groups = width / 4;
    if (groups <= 0 || height <= 0) return 0;
    const auto [side, table_stride, below] = window_geometry(width, radius);
    const float inv_n = 1.0f / static_cast<float>(side * side);
    const Constants k{_mm_set1_ps(inv_n), _mm_set1_ps(kInvSquared255), _mm_set1_ps(eps)};
    const FilterImage im{src,   dst,  ii_sum, ii_sqsum, width,      height, table_stride,
                         below, side, inv_n,  eps,      4 * groups, k};
    form(im);
    return im.end;
}

}  // namespace guided_x86

int32_t self_guided_filter_1pass_sse41(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                       int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height) {
    return guided_x86::filter_image(src, ii_sum, ii_sqsum, radius, eps, dst, width, height, guided_x86::sse_rows);
}

}  // namespace qimra

#endif  // QIMRA_X86_FORMS
