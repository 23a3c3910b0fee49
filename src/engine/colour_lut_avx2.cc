// The luma/gain table on x86-64 with AVX2: the NEON form's steps eight lanes
// wide. Translated, the NEON form's saturating float-to-integer conversions
// and narrowing cost several instructions each; here the conversion is one
// truncation plus the two fix-ups the saturating rule needs.
#include "engine/colour_lut.h"
#include "simd/x86.h"

#if QIMRA_X86_FORMS

#include <immintrin.h>

namespace qimra {
namespace {

// Truncation toward zero, saturated to the int32 range, NaN to 0, as the
// per-pixel form's sat_i32_from_float. cvttps gives 0x80000000 for every
// out-of-range or NaN lane: right for large negative values only.
QIMRA_AVX2 inline __m256i sat_i32(__m256 v) {
    const __m256i t = _mm256_cvttps_epi32(v);
    const __m256 too_big = _mm256_cmp_ps(v, _mm256_set1_ps(2147483648.0f), _CMP_GE_OQ);
    const __m256 nan = _mm256_cmp_ps(v, v, _CMP_UNORD_Q);
    const __m256i saturated = _mm256_blendv_epi8(t, _mm256_set1_epi32(INT32_MAX), _mm256_castps_si256(too_big));
    return _mm256_andnot_si256(_mm256_castps_si256(nan), saturated);
}

struct RowConstants {
    __m256 g_i;
    __m256 s;
    __m256i m;
    __m256i c;
};

}  // namespace

QIMRA_AVX2 void colour_lut_row_avx2(const ColourLutInputs& in, const ColourLutVectorTables& v, int32_t i, uint16_t* row,
                                    int32_t l_begin, int32_t l_end) {
    const RowConstants rc{_mm256_set1_ps(static_cast<float>(in.gamma_lut[i])), _mm256_set1_ps(in.sig50p1_f[i]),
                          _mm256_set1_epi32(in.recip[i]), _mm256_set1_epi32(i >= 16 ? i - 16 : 0)};
    const float* weight = v.weight[i & 1] + 128 - (i >> 1);
    // i - j for the eight entries of a step; j advances by 16 per step.
    __m256i i_minus_j =
        _mm256_sub_epi32(_mm256_set1_epi32(i - 2 * l_begin), _mm256_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14));
    const __m256i sixteen = _mm256_set1_epi32(16);
    const __m256 one = _mm256_set1_ps(1.0f);
    for (int32_t l = l_begin; l < l_end; l += 8) {
        const __m256 w = _mm256_loadu_ps(weight + l);
        const __m256 gamma_j = _mm256_loadu_ps(v.gamma_even + l);
        // The per-pixel rule, operation for operation (no fused multiply-add).
        const __m256i t = sat_i32(_mm256_add_ps(gamma_j, _mm256_mul_ps(_mm256_cvtepi32_ps(i_minus_j), rc.s)));
        const __m256 u_f =
            _mm256_add_ps(_mm256_mul_ps(_mm256_sub_ps(one, w), rc.g_i), _mm256_mul_ps(w, _mm256_cvtepi32_ps(t)));
        const __m256i u = _mm256_max_epi32(sat_i32(u_f), _mm256_setzero_si256());
        const __m256i r = _mm256_srai_epi32(_mm256_mullo_epi32(rc.m, u), 5);
        const __m256i x = _mm256_add_epi32(_mm256_srai_epi32(_mm256_mullo_epi32(r, rc.c), 11), sixteen);
        const __m256i over = _mm256_srai_epi32(x, 8);
        const __m256i in_range = _mm256_cmpeq_epi32(over, _mm256_setzero_si256());
        const __m256i luma = _mm256_and_si256(
            _mm256_blendv_epi8(_mm256_mullo_epi32(over, _mm256_set1_epi32(255)), x, in_range), _mm256_set1_epi32(0xFF));
        const __m256i k = _mm256_min_epi32(_mm256_srai_epi32(_mm256_mullo_epi32(r, _mm256_set1_epi32(5)), 10),
                                           _mm256_set1_epi32(kGainCurveEntries - 1));
        // The gain curve has no cheap gather: eight gains one by one.
        alignas(32) int32_t index[8];
        _mm256_store_si256(reinterpret_cast<__m256i*>(index), k);
        const __m256i gain = _mm256_slli_epi32(
            _mm256_and_si256(
                _mm256_setr_epi32(in.gain[index[0]], in.gain[index[1]], in.gain[index[2]], in.gain[index[3]],
                                  in.gain[index[4]], in.gain[index[5]], in.gain[index[6]], in.gain[index[7]]),
                _mm256_set1_epi32(0xFF)),
            8);
        // Entries below 65536: the unsigned pack keeps them as they are.
        const __m256i entries = _mm256_or_si256(luma, gain);
        const __m128i packed = _mm_packus_epi32(_mm256_castsi256_si128(entries), _mm256_extracti128_si256(entries, 1));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(row + l), packed);
        i_minus_j = _mm256_sub_epi32(i_minus_j, sixteen);
    }
}

}  // namespace qimra

#endif  // QIMRA_X86_FORMS
