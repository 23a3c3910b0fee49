// VRECPE.F32 on x86-64 vector registers, bit for bit as recpe_f32.
//
// The estimate's 8 fraction bits are computed rather than looked up: with
// d = 2q + 1 (q = 256 + the operand's 8 leading fraction bits, so d is odd,
// 513..1023) the estimate is (floor(2^19 / d) + 1) / 2. 2^19 / d is never an
// integer and lies at least 1/d from one, far more than the error of one
// correctly rounded single-precision division (under 2^-14 here), so
// truncating the float quotient gives the exact floor. One division for four
// or eight lanes replaces a lane-by-lane table look-up, which x86 can only
// do through scalar extracts or slow gathers.
#pragma once

#include "simd/x86.h"

#if QIMRA_X86_FORMS

#include <immintrin.h>

namespace qimra {

inline __m128i recpe_fraction_sse(__m128i lead) {
    const __m128 d = _mm_cvtepi32_ps(_mm_add_epi32(_mm_slli_epi32(lead, 1), _mm_set1_epi32(513)));
    const __m128i b = _mm_cvttps_epi32(_mm_div_ps(_mm_set1_ps(524288.0f), d));
    return _mm_sub_epi32(_mm_srli_epi32(_mm_add_epi32(b, _mm_set1_epi32(1)), 1), _mm_set1_epi32(256));
}

inline __m128 recpe_f32x4_sse(__m128 x) {
    const __m128i bits = _mm_castps_si128(x);
    const __m128i byte = _mm_set1_epi32(0xFF);
    const __m128i sign = _mm_and_si128(bits, _mm_set1_epi32(static_cast<int32_t>(0x80000000u)));
    const __m128i exponent = _mm_and_si128(_mm_srli_epi32(bits, 23), byte);
    const __m128i fraction = recpe_fraction_sse(_mm_and_si128(_mm_srli_epi32(bits, 15), byte));
    __m128i result = _mm_or_si128(sign, _mm_or_si128(_mm_slli_epi32(_mm_sub_epi32(_mm_set1_epi32(253), exponent), 23),
                                                     _mm_slli_epi32(fraction, 15)));
    // |x| >= 2^126 (and infinity): the reciprocal would be denormal, so zero.
    result = _mm_blendv_epi8(result, sign, _mm_cmpgt_epi32(exponent, _mm_set1_epi32(252)));
    // Zero and denormals (flushed): infinity of the operand's sign.
    result = _mm_blendv_epi8(result, _mm_or_si128(sign, _mm_set1_epi32(0x7F800000)),
                             _mm_cmpeq_epi32(exponent, _mm_setzero_si128()));
    const __m128i magnitude = _mm_and_si128(bits, _mm_set1_epi32(0x7FFFFFFF));
    result =
        _mm_blendv_epi8(result, _mm_set1_epi32(0x7FC00000), _mm_cmpgt_epi32(magnitude, _mm_set1_epi32(0x7F800000)));
    return _mm_castsi128_ps(result);
}

QIMRA_AVX2 inline __m256 recpe_f32x8_avx2(__m256 x) {
    const __m256i bits = _mm256_castps_si256(x);
    const __m256i byte = _mm256_set1_epi32(0xFF);
    const __m256i sign = _mm256_and_si256(bits, _mm256_set1_epi32(static_cast<int32_t>(0x80000000u)));
    const __m256i exponent = _mm256_and_si256(_mm256_srli_epi32(bits, 23), byte);
    const __m256i lead = _mm256_and_si256(_mm256_srli_epi32(bits, 15), byte);
    const __m256 d = _mm256_cvtepi32_ps(_mm256_add_epi32(_mm256_slli_epi32(lead, 1), _mm256_set1_epi32(513)));
    const __m256i b = _mm256_cvttps_epi32(_mm256_div_ps(_mm256_set1_ps(524288.0f), d));
    const __m256i fraction =
        _mm256_sub_epi32(_mm256_srli_epi32(_mm256_add_epi32(b, _mm256_set1_epi32(1)), 1), _mm256_set1_epi32(256));
    __m256i result =
        _mm256_or_si256(sign, _mm256_or_si256(_mm256_slli_epi32(_mm256_sub_epi32(_mm256_set1_epi32(253), exponent), 23),
                                              _mm256_slli_epi32(fraction, 15)));
    result = _mm256_blendv_epi8(result, sign, _mm256_cmpgt_epi32(exponent, _mm256_set1_epi32(252)));
    result = _mm256_blendv_epi8(result, _mm256_or_si256(sign, _mm256_set1_epi32(0x7F800000)),
                                _mm256_cmpeq_epi32(exponent, _mm256_setzero_si256()));
    const __m256i magnitude = _mm256_and_si256(bits, _mm256_set1_epi32(0x7FFFFFFF));
    result = _mm256_blendv_epi8(result, _mm256_set1_epi32(0x7FC00000),
                                _mm256_cmpgt_epi32(magnitude, _mm256_set1_epi32(0x7F800000)));
    return _mm256_castsi256_ps(result);
}

QIMRA_AVX512 inline __m512 recpe_f32x16_avx512(__m512 x) {
    const __m512i bits = _mm512_castps_si512(x);
    const __m512i byte = _mm512_set1_epi32(0xFF);
    const __m512i sign = _mm512_and_si512(bits, _mm512_set1_epi32(static_cast<int32_t>(0x80000000u)));
    const __m512i exponent = _mm512_and_si512(_mm512_srli_epi32(bits, 23), byte);
    const __m512i lead = _mm512_and_si512(_mm512_srli_epi32(bits, 15), byte);
    const __m512 d = _mm512_cvtepi32_ps(_mm512_add_epi32(_mm512_slli_epi32(lead, 1), _mm512_set1_epi32(513)));
    const __m512i b = _mm512_cvttps_epi32(_mm512_div_ps(_mm512_set1_ps(524288.0f), d));
    const __m512i fraction =
        _mm512_sub_epi32(_mm512_srli_epi32(_mm512_add_epi32(b, _mm512_set1_epi32(1)), 1), _mm512_set1_epi32(256));
    __m512i result =
        _mm512_or_si512(sign, _mm512_or_si512(_mm512_slli_epi32(_mm512_sub_epi32(_mm512_set1_epi32(253), exponent), 23),
                                              _mm512_slli_epi32(fraction, 15)));
    result = _mm512_mask_mov_epi32(result, _mm512_cmpgt_epi32_mask(exponent, _mm512_set1_epi32(252)), sign);
    result = _mm512_mask_mov_epi32(result, _mm512_cmpeq_epi32_mask(exponent, _mm512_setzero_si512()),
                                   _mm512_or_si512(sign, _mm512_set1_epi32(0x7F800000)));
    const __m512i magnitude = _mm512_and_si512(bits, _mm512_set1_epi32(0x7FFFFFFF));
    result = _mm512_mask_mov_epi32(result, _mm512_cmpgt_epi32_mask(magnitude, _mm512_set1_epi32(0x7F800000)),
                                   _mm512_set1_epi32(0x7FC00000));
    return _mm512_castsi512_ps(result);
}

}  // namespace qimra

#endif  // QIMRA_X86_FORMS
