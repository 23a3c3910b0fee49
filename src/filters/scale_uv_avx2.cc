// AVX2 form of the chroma scalers: the SSE4.1 form's lane arithmetic on 32
// bytes a step, finished by the SSE4.1 steps.
#include "filters/scale_uv.h"
#include "simd/x86.h"

#if QIMRA_X86_FORMS

#include <immintrin.h>

namespace qimra {
namespace {

inline __m128i load16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

// Unpacking and packing work within each 128-bit half, so the byte order
// survives. The steps return the first pair they did not do and leave the
// SSE tail to their caller: the compiler clears the upper register halves on
// return, whereas SSE code run inside an AVX function (or tail-called from
// it) would find them dirty and run several times slower, as would
// everything after it.

// (c - 128) * g + 4096, rounded and shifted by 5, on 16-bit lanes.
QIMRA_AVX2 inline __m256i scale16(__m256i c16, __m256i g16) {
    const __m256i v = _mm256_add_epi16(_mm256_mullo_epi16(c16, g16),
                                       _mm256_sub_epi16(_mm256_set1_epi16(4096), _mm256_slli_epi16(g16, 7)));
    return _mm256_add_epi16(_mm256_srai_epi16(v, 5), _mm256_and_si256(_mm256_srli_epi16(v, 4), _mm256_set1_epi16(1)));
}

QIMRA_AVX2 inline __m256i scale16x32(__m256i c, __m256i g) {
    const __m256i zero = _mm256_setzero_si256();
    return _mm256_packus_epi16(scale16(_mm256_unpacklo_epi8(c, zero), _mm256_unpacklo_epi8(g, zero)),
                               scale16(_mm256_unpackhi_epi8(c, zero), _mm256_unpackhi_epi8(g, zero)));
}

QIMRA_AVX2 inline __m256i load32(const uint8_t* p) { return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)); }
QIMRA_AVX2 inline void store32(uint8_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }

// 16 gains, each twice: g0 g0 g1 g1 ... g15 g15.
QIMRA_AVX2 inline __m256i doubled(const uint8_t* gain) {
    return _mm256_mullo_epi16(_mm256_cvtepu8_epi16(load16(gain)), _mm256_set1_epi16(0x0101));
}

[[gnu::noinline]] QIMRA_AVX2 std::size_t planar_avx2_steps(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u,
                                                           uint8_t* out_v, const uint8_t* gain, std::size_t pairs) {
    std::size_t i = 0;
    for (; i + 32 <= pairs; i += 32) {
        const __m256i g = load32(gain + i);
        store32(out_u + i, scale16x32(load32(in_u + i), g));
        store32(out_v + i, scale16x32(load32(in_v + i), g));
    }
    return i;
}

[[gnu::noinline]] QIMRA_AVX2 std::size_t nv_avx2_steps(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain,
                                                       std::size_t pairs) {
    std::size_t i = 0;
    for (; i + 16 <= pairs; i += 16) store32(out_uv + 2 * i, scale16x32(load32(in_uv + 2 * i), doubled(gain + i)));
    return i;
}

}  // namespace

void scale_uv_planar_avx2(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v, const uint8_t* gain,
                          int32_t width, int32_t height) {
    const std::size_t pairs = 8 * scale_uv_groups(width, height);
    scale_uv_planar_sse41_from(in_u, in_v, out_u, out_v, gain, planar_avx2_steps(in_u, in_v, out_u, out_v, gain, pairs),
                               pairs);
}

void scale_uv_nv_avx2(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height) {
    const std::size_t pairs = 8 * scale_uv_groups(width, height);
    scale_uv_nv_sse41_from(in_uv, out_uv, gain, nv_avx2_steps(in_uv, out_uv, gain, pairs), pairs);
}

}  // namespace qimra

#endif  // QIMRA_X86_FORMS
