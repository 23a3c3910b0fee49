// AVX-512 form of the one-pass filter: the SSE4.1 form's steps sixteen
// lanes wide over the start of each row, its groups of four for the rest.
// GCC 12's AVX-512 intrinsics build their "undefined" pass-through operand
// from an uninitialised variable, which the uninitialised-use warnings report
// once they are inlined here; the value is never used.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#include "filters/guided_filter_x86.h"

#if QIMRA_X86_FORMS

namespace qimra {
namespace guided_x86 {
namespace {

QIMRA_AVX512 inline __m512i window_sum16(const uint32_t* top, ptrdiff_t below, int32_t side) {
    const uint32_t* bottom = top + below;
    const __m512i br_tl = _mm512_add_epi32(_mm512_loadu_si512(bottom + side), _mm512_loadu_si512(top));
    return _mm512_sub_epi32(_mm512_sub_epi32(br_tl, _mm512_loadu_si512(bottom)), _mm512_loadu_si512(top + side));
}

// Sixteen results (four groups of four) as 16 bytes. The unsigned
// conversions are single instructions here: to float rounding to nearest
// even like VCVT.F32.U32, and back truncating with saturation (after the
// max with zero has taken negatives and NaN to zero).
QIMRA_AVX512 inline __m128i filter_group16(const uint32_t* sum_top, const uint32_t* sq_top, ptrdiff_t below,
                                           int32_t side, const uint8_t* in, __m512 inv_n, __m512 eps) {
    const __m512 mean = _mm512_mul_ps(_mm512_cvtepu32_ps(window_sum16(sum_top, below, side)), inv_n);
    const __m512 sq_mean = _mm512_mul_ps(_mm512_cvtepu32_ps(window_sum16(sq_top, below, side)), inv_n);
    const __m512 var = _mm512_mul_ps(_mm512_sub_ps(sq_mean, _mm512_mul_ps(mean, mean)), _mm512_set1_ps(kInvSquared255));
    const __m512 a = _mm512_mul_ps(recpe_f32x16_avx512(_mm512_add_ps(var, eps)), var);
    const __m512 pixel =
        _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in))));
    const __m512 t1 = _mm512_mul_ps(a, mean);
    const __m512 t2 = _mm512_mul_ps(pixel, a);
    const __m512 t3 = _mm512_sub_ps(mean, t1);
    const __m512 positive = _mm512_max_ps(_mm512_add_ps(t2, t3), _mm512_setzero_ps());  // NaN -> 0
    return _mm512_cvtepi32_epi8(_mm512_cvttps_epu32(positive));
}

// Four groups per step; the zeros after the last group's results as its
// own store would leave them.
[[gnu::noinline]] QIMRA_AVX512 void avx512_rows(const FilterImage im) {
    const __m512 inv_n = _mm512_set1_ps(im.inv_n), eps = _mm512_set1_ps(im.eps);
    for (int32_t y = 0; y < im.height; ++y) {
        const FilterRow r = im.row(y);
        int32_t x = 0;
        for (; x + 16 <= im.end; x += 16) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(r.out + x),
                             filter_group16(r.sum + x, r.sq + x, im.below, im.side, r.in + x, inv_n, eps));
            std::memset(r.out + x + 16, 0, 4);
        }
        im.groups_of_four_from(x, r);
    }
}

}  // namespace
}  // namespace guided_x86

int32_t self_guided_filter_1pass_avx512(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                        int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height) {
    return guided_x86::filter_image(src, ii_sum, ii_sqsum, radius, eps, dst, width, height, guided_x86::avx512_rows);
}

}  // namespace qimra

#endif  // QIMRA_X86_FORMS
