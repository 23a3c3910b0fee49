// SSE4.1 form of the upscale by two: the NEON form's arithmetic in 16-bit
// SSE lanes. Translated, the NEON form's widening multiplies on 8-lane
// halves and its interleaving store each cost several shuffles.
#include "resample/upscale2.h"
#include "simd/x86.h"

#if QIMRA_X86_FORMS

#include <immintrin.h>

namespace qimra {
namespace {

// 9a + 7b and a + 15b on 16-bit lanes (exact: at most 255 * 16).
struct HorizontalPhases {
    __m128i even;
    __m128i odd;
};

inline HorizontalPhases horizontal(__m128i a, __m128i b) {
    return {_mm_add_epi16(_mm_mullo_epi16(a, _mm_set1_epi16(9)), _mm_mullo_epi16(b, _mm_set1_epi16(7))),
            _mm_add_epi16(a, _mm_mullo_epi16(b, _mm_set1_epi16(15)))};
}

// (9U + 7L) >> 8 and (U + 15L) >> 8: at most 255 * 256, still 16 bits.
inline __m128i top(__m128i upper, __m128i lower) {
    return _mm_srli_epi16(
        _mm_add_epi16(_mm_mullo_epi16(upper, _mm_set1_epi16(9)), _mm_mullo_epi16(lower, _mm_set1_epi16(7))), 8);
}

inline __m128i bottom(__m128i upper, __m128i lower) {
    return _mm_srli_epi16(_mm_add_epi16(upper, _mm_mullo_epi16(lower, _mm_set1_epi16(15))), 8);
}

inline __m128i load16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void store16(uint8_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

// 32 destination bytes from the even and odd phases of 16 columns (each as
// two halves of eight 16-bit results below 256).
inline void store_interleaved(uint8_t* dst, __m128i even_lo, __m128i even_hi, __m128i odd_lo, __m128i odd_hi) {
    const __m128i even = _mm_packus_epi16(even_lo, even_hi);
    const __m128i odd = _mm_packus_epi16(odd_lo, odd_hi);
    store16(dst, _mm_unpacklo_epi8(even, odd));
    store16(dst + 16, _mm_unpackhi_epi8(even, odd));
}

}  // namespace

// Source columns from x on, 16 per step while each has its right neighbour.
int32_t upscale2_rows_sse41_from(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w,
                                 int32_t x) {
    const __m128i zero = _mm_setzero_si128();
    for (; w - 1 - x > 15; x += 16) {
        const __m128i a = load16(src0 + x), b = load16(src0 + x + 1);
        const __m128i c = load16(src1 + x), d = load16(src1 + x + 1);
        const HorizontalPhases u_lo = horizontal(_mm_unpacklo_epi8(a, zero), _mm_unpacklo_epi8(b, zero));
        const HorizontalPhases u_hi = horizontal(_mm_unpackhi_epi8(a, zero), _mm_unpackhi_epi8(b, zero));
        const HorizontalPhases l_lo = horizontal(_mm_unpacklo_epi8(c, zero), _mm_unpacklo_epi8(d, zero));
        const HorizontalPhases l_hi = horizontal(_mm_unpackhi_epi8(c, zero), _mm_unpackhi_epi8(d, zero));
        store_interleaved(dst0 + 2 * x, top(u_lo.even, l_lo.even), top(u_hi.even, l_hi.even), top(u_lo.odd, l_lo.odd),
                          top(u_hi.odd, l_hi.odd));
        store_interleaved(dst1 + 2 * x, bottom(u_lo.even, l_lo.even), bottom(u_hi.even, l_hi.even),
                          bottom(u_lo.odd, l_lo.odd), bottom(u_hi.odd, l_hi.odd));
    }
    return x;
}

int32_t upscale2_rows_sse41(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w) {
    return upscale2_rows_sse41_from(src0, src1, dst0, dst1, w, 0);
}

}  // namespace qimra

#endif  // QIMRA_X86_FORMS
