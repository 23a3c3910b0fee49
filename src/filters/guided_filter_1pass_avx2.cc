// AVX2 form of the one-pass filter: the SSE4.1 form's steps eight lanes
// wide over the start of each row, its groups of four for the rest.
#include "filters/guided_filter_x86.h"

#if QIMRA_X86_FORMS

namespace qimra {
namespace guided_x86 {
namespace {

QIMRA_AVX2 inline __m256i load8x32(const uint32_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

QIMRA_AVX2 inline __m256i window_sum8(const uint32_t* top, ptrdiff_t below, int32_t side) {
    const uint32_t* bottom = top + below;
    const __m256i br_tl = _mm256_add_epi32(load8x32(bottom + side), load8x32(top));
    return _mm256_sub_epi32(_mm256_sub_epi32(br_tl, load8x32(bottom)), load8x32(top + side));
}

QIMRA_AVX2 inline __m256 u32_to_float8(__m256i v) {
    const __m256 high = _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_srli_epi32(v, 16)), _mm256_set1_ps(65536.0f));
    const __m256 low = _mm256_cvtepi32_ps(_mm256_and_si256(v, _mm256_set1_epi32(0xFFFF)));
    return _mm256_add_ps(high, low);
}

QIMRA_AVX2 inline __m256i low_bytes_of_u32x8(__m256 v) {
    const __m256 positive = _mm256_max_ps(v, _mm256_setzero_ps());  // NaN -> 0
    const __m256i too_big = _mm256_castps_si256(_mm256_cmp_ps(positive, _mm256_set1_ps(4294967296.0f), _CMP_GE_OQ));
    return _mm256_or_si256(_mm256_cvttps_epi32(positive), too_big);
}

// Eight results (two groups of four) as 8 bytes.
QIMRA_AVX2 inline __m128i filter_group8(const uint32_t* sum_top, const uint32_t* sq_top, ptrdiff_t below, int32_t side,
                                        const uint8_t* in, float inv_n, float eps) {
    const __m256 k_inv_n = _mm256_set1_ps(inv_n);
    const __m256 mean = _mm256_mul_ps(u32_to_float8(window_sum8(sum_top, below, side)), k_inv_n);
    const __m256 sq_mean = _mm256_mul_ps(u32_to_float8(window_sum8(sq_top, below, side)), k_inv_n);
    const __m256 var = _mm256_mul_ps(_mm256_sub_ps(sq_mean, _mm256_mul_ps(mean, mean)), _mm256_set1_ps(kInvSquared255));
    const __m256 a = _mm256_mul_ps(recpe_f32x8_avx2(_mm256_add_ps(var, _mm256_set1_ps(eps))), var);
    const __m256 pixel =
        _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(in))));
    const __m256 t1 = _mm256_mul_ps(a, mean);
    const __m256 t2 = _mm256_mul_ps(pixel, a);
    const __m256 t3 = _mm256_sub_ps(mean, t1);
    const __m256i bytes = low_bytes_of_u32x8(_mm256_add_ps(t2, t3));
    // The low byte of every lane, four from each 128-bit half.
    const __m256i low_bytes = _mm256_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, 4, 8, 12,
                                               -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m256i packed = _mm256_shuffle_epi8(bytes, low_bytes);
    return _mm_unpacklo_epi32(_mm256_castsi256_si128(packed), _mm256_extracti128_si256(packed, 1));
}

// Two groups per step, as in the four-lane form, then the zeros the second
// group's store would leave.
[[gnu::noinline]] QIMRA_AVX2 void avx2_rows(const FilterImage im) {
    for (int32_t y = 0; y < im.height; ++y) {
        const FilterRow r = im.row(y);
        int32_t x = 0;
        for (; x + 8 <= im.end; x += 8) {
            store8(r.out + x, filter_group8(r.sum + x, r.sq + x, im.below, im.side, r.in + x, im.inv_n, im.eps));
            std::memset(r.out + x + 8, 0, 4);
        }
        im.groups_of_four_from(x, r);
    }
}

}  // namespace
}  // namespace guided_x86

int32_t self_guided_filter_1pass_avx2(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                      int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height) {
    return guided_x86::filter_image(src, ii_sum, ii_sqsum, radius, eps, dst, width, height, guided_x86::avx2_rows);
}

}  // namespace qimra

#endif  // QIMRA_X86_FORMS
