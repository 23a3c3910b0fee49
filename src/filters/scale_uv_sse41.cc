// SSE4.1 form of the chroma scalers, the same run of 8-pair groups as the
// NEON form. 16-bit lanes wrap exactly as the NEON multiply-accumulate does;
// the rounding shift by 5 is split as (v >> 5) + bit 4 of v so that v + 16
// can never overflow the lane, and the pack saturates to 0..255 like
// VQRSHRUN.
#include "filters/scale_uv.h"
#include "simd/x86.h"

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

}  // namespace

// From pair i on: 16 pairs per step, then a last group of 8.
void scale_uv_planar_sse41_from(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v,
                                const uint8_t* gain, std::size_t i, std::size_t pairs) {
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
void scale_uv_nv_sse41_from(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, std::size_t i,
                            std::size_t pairs) {
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

void scale_uv_planar_sse41(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v,
                           const uint8_t* gain, int32_t width, int32_t height) {
    scale_uv_planar_sse41_from(in_u, in_v, out_u, out_v, gain, 0, 8 * scale_uv_groups(width, height));
}

void scale_uv_nv_sse41(const uint8_t* in_uv, uint8_t* out_uv, const uint8_t* gain, int32_t width, int32_t height) {
    scale_uv_nv_sse41_from(in_uv, out_uv, gain, 0, 8 * scale_uv_groups(width, height));
}

}  // namespace qimra

#endif
