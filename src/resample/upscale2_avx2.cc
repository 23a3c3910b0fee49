// AVX2 form of the upscale by two: the SSE4.1 form's arithmetic on 32
// columns a step, finished by the SSE4.1 steps.
#include "resample/upscale2.h"
#include "simd/x86.h"

#if QIMRA_X86_FORMS

#include <immintrin.h>

namespace qimra {
namespace {

struct WidePhases {
    __m256i even;
    __m256i odd;
};

QIMRA_AVX2 inline WidePhases horizontal32(__m256i a, __m256i b) {
    return {_mm256_add_epi16(_mm256_mullo_epi16(a, _mm256_set1_epi16(9)), _mm256_mullo_epi16(b, _mm256_set1_epi16(7))),
            _mm256_add_epi16(a, _mm256_mullo_epi16(b, _mm256_set1_epi16(15)))};
}

QIMRA_AVX2 inline __m256i top32(__m256i upper, __m256i lower) {
    return _mm256_srli_epi16(_mm256_add_epi16(_mm256_mullo_epi16(upper, _mm256_set1_epi16(9)),
                                              _mm256_mullo_epi16(lower, _mm256_set1_epi16(7))),
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
[[gnu::noinline]] QIMRA_AVX2 int32_t avx2_steps(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1,
                                                int32_t w) {
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

int32_t upscale2_rows_avx2(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w) {
    return upscale2_rows_sse41_from(src0, src1, dst0, dst1, w, avx2_steps(src0, src1, dst0, dst1, w));
}

}  // namespace qimra

#endif  // QIMRA_X86_FORMS
