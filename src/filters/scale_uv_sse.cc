// x86-64 form of the chroma scalers, the same run of 8-pair groups as the
// NEON form. 16-bit lanes wrap exactly as the NEON multiply-accumulate does;
// the rounding shift by 5 is split as (v >> 5) + bit 4 of v so that v + 16
// can never overflow the lane, and the pack saturates to 0..255 like
// VQRSHRUN.
#include "filters/scale_uv.h"

#if QIMRA_X86_FORMS

#include <immintrin.h>

namespace qimra {
namespace {

inline __m128i scale8x16(__m128i c, __m128i g) {
    const __m128i c4096 = _mm_set1_epi16(4096);
    const __m128i one = _mm_set1_epi16(1);
    const __m128i zero = _mm_setzero_si128();
    auto half = [&](__m128i c16, __m128i g16) {
        // c * g + 4096 - 128 * g == (c - 128) * g + 4096 modulo 2^16.
        const __m128i v = _mm_add_epi16(_mm_mullo_epi16(c16, g16), _mm_sub_epi16(c4096, _mm_slli_epi16(g16, 7)));
        return _mm_add_epi16(_mm_srai_epi16(v, 5), _mm_and_si128(_mm_srli_epi16(v, 4), one));
    };
    return _mm_packus_epi16(half(_mm_unpacklo_epi8(c, zero), _mm_unpacklo_epi8(g, zero)),
                            half(_mm_unpackhi_epi8(c, zero), _mm_unpackhi_epi8(g, zero)));
}

inline __m128i load16(const uint8_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline __m128i load8(const uint8_t* p) { return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)); }
inline void store16(uint8_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }
inline void store8(uint8_t* p, __m128i v) { _mm_storel_epi64(reinterpret_cast<__m128i*>(p), v); }

// From pair i on: 16 pairs per step, then a last group of 8.
void planar_from(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v, const uint8_t* gain,
                 std::size_t i, std::size_t pairs) {
    for (; i + 16 <= pairs; i += 16) {
        const __m128i g = load16(gain + i);
        const __m128i u = load16(in_u + i);
        const __m128i v = load16(in_v + i);
        store16(out_u + i, scale8x16(u, g));
        store16(out_v + i, scale8x16(v, g));
    }
    if (i < pairs) {
        const __m128i g = load8(gain + i);
        const __m128i u = load8(in_u + i);
        const __m128i v = load8(in_v + i);
        store8(out_u + i, scale8x16(u, g));
        store8(out_v + i, scale8x16(v, g));
    }
}

// Each gain is doubled so that the interleaved bytes scale in place order.
void nv_from(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, std::size_t i, std::size_t pairs) {
    for (; i + 16 <= pairs; i += 16) {
        const __m128i g = load16(gain + i);
        const __m128i uv0 = load16(in_uv + 2 * i);
        const __m128i uv1 = load16(in_uv + 2 * i + 16);
        store16(out_uv + 2 * i, scale8x16(uv0, _mm_unpacklo_epi8(g, g)));
        store16(out_uv + 2 * i + 16, scale8x16(uv1, _mm_unpackhi_epi8(g, g)));
    }
    if (i < pairs) {
        const __m128i g = load8(gain + i);
        store16(out_uv + 2 * i, scale8x16(load16(in_uv + 2 * i), _mm_unpacklo_epi8(g, g)));
    }
}

// The AVX2 steps: the same lane arithmetic on 32 bytes. Unpacking and
// packing work within each 128-bit half, so the byte order survives. Each
// returns the first pair it did not do and leaves the SSE tail to its
// caller: the compiler clears the upper register halves on return, whereas
// SSE code run inside an AVX function (or tail-called from it) would find
// them dirty and run several times slower, as would everything after it.
#define QIMRA_AVX2 __attribute__((target("avx2")))

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

void scale_uv_planar_sse(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v,
                         const uint8_t* gain, int32_t width, int32_t height) {
    planar_from(in_u, in_v, out_u, out_v, gain, 0, 8 * scale_uv_groups(width, height));
}

void scale_uv_nv_sse(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height) {
    nv_from(in_uv, out_uv, gain, 0, 8 * scale_uv_groups(width, height));
}

void scale_uv_planar_avx2(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v,
                          const uint8_t* gain, int32_t width, int32_t height) {
    const std::size_t pairs = 8 * scale_uv_groups(width, height);
    planar_from(in_u, in_v, out_u, out_v, gain, planar_avx2_steps(in_u, in_v, out_u, out_v, gain, pairs), pairs);
}

void scale_uv_nv_avx2(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height) {
    const std::size_t pairs = 8 * scale_uv_groups(width, height);
    nv_from(in_uv, out_uv, gain, nv_avx2_steps(in_uv, out_uv, gain, pairs), pairs);
}

}  // namespace qimra

#endif
