// x86-64 form of the upscale by two: the NEON form's arithmetic in 16-bit
// SSE lanes. Translated, the NEON form's widening multiplies on 8-lane
// halves and its interleaving store each cost several shuffles.
#include "resample/upscale2.h"

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

namespace {

// Source columns from x on, 16 per step while each has its right neighbour.
int32_t sse_from(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w, int32_t x) {
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

#define QIMRA_AVX2 __attribute__((target("avx2")))

struct WidePhases {
    __m256i even;
    __m256i odd;
};

QIMRA_AVX2 inline WidePhases horizontal32(__m256i a, __m256i b) {
    return {_mm256_add_epi16(_mm256_mullo_epi16(a, _mm256_set1_epi16(9)), _mm256_mullo_epi16(b, _mm256_set1_epi16(7))),
            _mm256_add_epi16(a, _mm256_mullo_epi16(b, _mm256_set1_epi16(15)))};
}

QIMRA_AVX2 inline __m256i top32(__m256i upper, __m256i lower) {
    return _mm256_srli_epi16(
        _mm256_add_epi16(_mm256_mullo_epi16(upper, _mm256_set1_epi16(9)), _mm256_mullo_epi16(lower, _mm256_set1_epi16(7))),
        8);
}

QIMRA_AVX2 inline __m256i bottom32(__m256i upper, __m256i lower) {
    return _mm256_srli_epi16(_mm256_add_epi16(upper, _mm256_mullo_epi16(lower, _mm256_set1_epi16(15))), 8);
}

// 64 destination bytes from the phases of 32 columns. Unpacking and packing
// work within 128-bit halves: each half holds 16 columns in order, and the
// final permutes put the halves' interleavings back in column order.
QIMRA_AVX2 inline void store_interleaved32(uint8_t* dst, __m256i even_lo, __m256i even_hi, __m256i odd_lo,
                                           __m256i odd_hi) {
    const __m256i even = _mm256_packus_epi16(even_lo, even_hi);
    const __m256i odd = _mm256_packus_epi16(odd_lo, odd_hi);
    const __m256i first = _mm256_unpacklo_epi8(even, odd);
    const __m256i second = _mm256_unpackhi_epi8(even, odd);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), _mm256_permute2x128_si256(first, second, 0x20));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + 32), _mm256_permute2x128_si256(first, second, 0x31));
}

QIMRA_AVX2 inline __m256i load32(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }

// 32 columns a step; returns the first column not done. The SSE steps run
// in the caller, after the compiler has cleared the upper register halves
// on return (SSE code meeting them dirty runs several times slower).
[[gnu::noinline]] QIMRA_AVX2 int32_t avx2_steps(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0,
                                                uint8_t* dst1, int32_t w) {
    const __m256i zero = _mm256_setzero_si256();
    int32_t x = 0;
    for (; w - 1 - x > 31; x += 32) {
        const __m256i a = load32(src0 + x), b = load32(src0 + x + 1);
        const __m256i c = load32(src1 + x), d = load32(src1 + x + 1);
        const WidePhases u_lo = horizontal32(_mm256_unpacklo_epi8(a, zero), _mm256_unpacklo_epi8(b, zero));
        const WidePhases u_hi = horizontal32(_mm256_unpackhi_epi8(a, zero), _mm256_unpackhi_epi8(b, zero));
        const WidePhases l_lo = horizontal32(_mm256_unpacklo_epi8(c, zero), _mm256_unpacklo_epi8(d, zero));
        const WidePhases l_hi = horizontal32(_mm256_unpackhi_epi8(c, zero), _mm256_unpackhi_epi8(d, zero));
        store_interleaved32(dst0 + 2 * x, top32(u_lo.even, l_lo.even), top32(u_hi.even, l_hi.even),
                            top32(u_lo.odd, l_lo.odd), top32(u_hi.odd, l_hi.odd));
        store_interleaved32(dst1 + 2 * x, bottom32(u_lo.even, l_lo.even), bottom32(u_hi.even, l_hi.even),
                            bottom32(u_lo.odd, l_lo.odd), bottom32(u_hi.odd, l_hi.odd));
    }
    return x;
}

}  // namespace

int32_t upscale2_rows_sse(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w) {
    return sse_from(src0, src1, dst0, dst1, w, 0);
}

int32_t upscale2_rows_avx2(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w) {
    return sse_from(src0, src1, dst0, dst1, w, avx2_steps(src0, src1, dst0, dst1, w));
}

}  // namespace qimra

#endif  // QIMRA_X86_FORMS
