// x86-64 form of a summed-area table row, the NEON form's steps in SSE4.1.
// Translated, the NEON lane extractions and broadcasts of the carried run
// cost several shuffles each; here a broadcast is one pshufd.
#include "filters/integral_image.h"
#include "simd/x86.h"

#if QIMRA_X86_FORMS

#include <smmintrin.h>

namespace qimra {
namespace {

// Prefix sum of four lanes by two shifted adds.
inline __m128i prefix4(__m128i v) {
    v = _mm_add_epi32(v, _mm_slli_si128(v, 4));
    return _mm_add_epi32(v, _mm_slli_si128(v, 8));
}

inline __m128i last_lane(__m128i v) { return _mm_shuffle_epi32(v, 0xFF); }
inline __m128i load4(const uint32_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void store4(uint32_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

}  // namespace

int32_t integral_row_sse41(const uint8_t* row, int32_t width, uint32_t* sum, uint32_t* sq, ptrdiff_t up, RowRun& run) {
    __m128i run_sum = _mm_set1_epi32(static_cast<int32_t>(run.sum));
    __m128i run_sq = _mm_set1_epi32(static_cast<int32_t>(run.sq));
    int32_t x = 0;
    for (; x + 8 <= width; x += 8) {
        const __m128i p = _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + x)));
        const __m128i p_lo = _mm_cvtepu16_epi32(p), p_hi = _mm_cvtepu16_epi32(_mm_srli_si128(p, 8));
        const __m128i s_lo = _mm_add_epi32(prefix4(p_lo), run_sum);
        const __m128i s_hi = _mm_add_epi32(prefix4(p_hi), last_lane(s_lo));
        const __m128i q_lo = _mm_add_epi32(prefix4(_mm_mullo_epi32(p_lo, p_lo)), run_sq);
        const __m128i q_hi = _mm_add_epi32(prefix4(_mm_mullo_epi32(p_hi, p_hi)), last_lane(q_lo));
        run_sum = last_lane(s_hi);
        run_sq = last_lane(q_hi);
        store4(sum + x, _mm_add_epi32(load4(sum + x + up), s_lo));
        store4(sum + x + 4, _mm_add_epi32(load4(sum + x + 4 + up), s_hi));
        store4(sq + x, _mm_add_epi32(load4(sq + x + up), q_lo));
        store4(sq + x + 4, _mm_add_epi32(load4(sq + x + 4 + up), q_hi));
    }
    run.sum = static_cast<uint32_t>(_mm_cvtsi128_si32(run_sum));
    run.sq = static_cast<uint32_t>(_mm_cvtsi128_si32(run_sq));
    return x;
}

}  // namespace qimra

#endif  // QIMRA_X86_FORMS
