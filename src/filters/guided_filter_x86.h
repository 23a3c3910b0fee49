// The x86 forms of the one-pass filter share the four-lane steps: the
// SSE4.1 form is made of them, and the wider forms finish each row with
// them. The same groups of four as the NEON form and the same
// single-precision operations in the same order.
#pragma once

#include "filters/guided_filter.h"
#include "simd/x86.h"

#if QIMRA_X86_FORMS

#include <immintrin.h>

#include <cstddef>
#include <cstring>

#include "simd/recpe_x86.h"

namespace qimra::guided_x86 {

inline __m128i load4x32(const uint32_t* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }

inline __m128i window_sum4(const uint32_t* top, ptrdiff_t below, int32_t side) {
    const uint32_t* bottom = top + below;
    const __m128i br_tl = _mm_add_epi32(load4x32(bottom + side), load4x32(top));
    return _mm_sub_epi32(_mm_sub_epi32(br_tl, load4x32(bottom)), load4x32(top + side));
}

// Unsigned 32-bit to float, rounded once to nearest even like VCVT.F32.U32:
// the high half times 2^16 is exact, so the one addition does the rounding.
inline __m128 u32_to_float(__m128i v) {
    const __m128 high = _mm_mul_ps(_mm_cvtepi32_ps(_mm_srli_epi32(v, 16)), _mm_set1_ps(65536.0f));
    const __m128 low = _mm_cvtepi32_ps(_mm_and_si128(v, _mm_set1_epi32(0xFFFF)));
    return _mm_add_ps(high, low);
}

// The low byte of each lane's saturating truncation to 32 bits unsigned
// (negative and NaN give 0, 2^32 and above 0xFFFFFFFF). Between 2^31 and 2^32
// the signed conversion gives 0x80000000, whose low byte is right because
// every float there is a multiple of 256.
inline __m128i low_bytes_of_u32(__m128 v) {
    const __m128 positive = _mm_max_ps(v, _mm_setzero_ps());  // NaN -> 0
    const __m128i too_big = _mm_castps_si128(_mm_cmpge_ps(positive, _mm_set1_ps(4294967296.0f)));
    return _mm_or_si128(_mm_cvttps_epi32(positive), too_big);
}

struct Constants {
    __m128 inv_n;
    __m128 inv_255_squared;
    __m128 eps;
};

// Four results in the low 32 bits of the value, zeros above.
inline __m128i filter_group(const uint32_t* sum_top, const uint32_t* sq_top, ptrdiff_t below, int32_t side,
                            const uint8_t* in, const Constants& k) {
    const __m128 mean = _mm_mul_ps(u32_to_float(window_sum4(sum_top, below, side)), k.inv_n);
    const __m128 sq_mean = _mm_mul_ps(u32_to_float(window_sum4(sq_top, below, side)), k.inv_n);
    const __m128 var = _mm_mul_ps(_mm_sub_ps(sq_mean, _mm_mul_ps(mean, mean)), k.inv_255_squared);
    // The raw estimate, unrefined: its error is part of the output.
    const __m128 a = _mm_mul_ps(recpe_f32x4_sse(_mm_add_ps(var, k.eps)), var);

    int32_t four;
    std::memcpy(&four, in, sizeof four);
    const __m128 pixel = _mm_cvtepi32_ps(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(four)));

    const __m128 t1 = _mm_mul_ps(a, mean);
    const __m128 t2 = _mm_mul_ps(pixel, a);
    const __m128 t3 = _mm_sub_ps(mean, t1);
    const __m128i low_bytes = _mm_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    return _mm_shuffle_epi8(low_bytes_of_u32(_mm_add_ps(t2, t3)), low_bytes);
}

inline void store8(uint8_t* p, __m128i v) { _mm_storel_epi64(reinterpret_cast<__m128i*>(p), v); }

// One row's groups from column x to end, as the four-lane form does them:
// two per step, both computed before either is stored (a byte store could
// otherwise alias the next group's loads), then the zeros the second
// group's store would leave; a last single group stores its own.
inline void groups_from(int32_t x, int32_t end, const uint8_t* in, uint8_t* out, const uint32_t* sum_row,
                        const uint32_t* sq_row, ptrdiff_t below, int32_t side, const Constants& k) {
    for (; x + 8 <= end; x += 8) {
        const __m128i first = filter_group(sum_row + x, sq_row + x, below, side, in + x, k);
        const __m128i second = filter_group(sum_row + x + 4, sq_row + x + 4, below, side, in + x + 4, k);
        store8(out + x, _mm_unpacklo_epi32(first, second));
        std::memset(out + x + 8, 0, 4);
    }
    if (x < end) store8(out + x, filter_group(sum_row + x, sq_row + x, below, side, in + x, k));
}

// One row of the filter.
struct FilterRow {
    const uint8_t* in;
    uint8_t* out;
    const uint32_t* sum;
    const uint32_t* sq;
};

// The whole image as every form walks it.
struct FilterImage {
    const uint8_t* src;
    uint8_t* dst;
    const uint32_t* ii_sum;
    const uint32_t* ii_sqsum;
    int32_t width;
    int32_t height;
    ptrdiff_t table_stride;
    ptrdiff_t below;
    int32_t side;
    float inv_n;
    float eps;
    int32_t end;  // columns in whole groups of four
    Constants k;

    FilterRow row(int32_t y) const {
        return {src + static_cast<ptrdiff_t>(y) * width, dst + static_cast<ptrdiff_t>(y) * width,
                ii_sum + y * table_stride, ii_sqsum + y * table_stride};
    }
    void groups_of_four_from(int32_t x, const FilterRow& r) const {
        groups_from(x, end, r.in, r.out, r.sum, r.sq, below, side, k);
    }
};

// A form's pass over the image: per row, wide steps, then the groups of
// four. A wide form is a function of its own, so that its four-lane tail
// is compiled with the wide encoding and the compiler clears the upper
// register halves when it returns to plain SSE code.
// (The image is passed by value: the byte stores could otherwise alias it.)
using Form = void (*)(FilterImage);

// Runs `form` over the image's whole groups of four; returns the columns
// done.
int32_t filter_image(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum, int32_t radius, float eps,
                     uint8_t* dst, int32_t width, int32_t height, Form form);

}  // namespace qimra::guided_x86

#endif  // QIMRA_X86_FORMS
