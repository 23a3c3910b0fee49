// x86-64 form of the one-pass filter, the same groups of four as the NEON
// form and the same single-precision operations in the same order. The
// translated NEON costs about 35 instructions a pixel here, most of them in
// the lane-by-lane reciprocal estimate and in the widening and narrowing
// shuffles; this form keeps every step in SSE4.1 registers. Where the
// processor has AVX2 or AVX-512, the same steps run eight or sixteen lanes
// wide over the start of each row.
// GCC 12's AVX-512 intrinsics build their "undefined" pass-through operand
// from an uninitialised variable, which the uninitialised-use warnings report once
// they are inlined here; the value is never used.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#include "filters/guided_filter.h"

#if QIMRA_X86_FORMS

#include <immintrin.h>

#include <cstddef>
#include <cstring>

#include "simd/recpe_x86.h"

namespace qimra {
namespace {

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

#define QIMRA_AVX2 __attribute__((target("avx2")))

QIMRA_AVX2 inline __m256i load8x32(const uint32_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

QIMRA_AVX2 inline __m256i window_sum8(const uint32_t* top, ptrdiff_t below, int32_t side) {
    const uint32_t* bottom = top + below;
    const __m256i br_tl = _mm256_add_epi32(load8x32(bottom + side), load8x32(top));
    return _mm256_sub_epi32(_mm256_sub_epi32(br_tl, load8x32(bottom)), load8x32(top + side));
}

QIMRA_AVX2 inline __m256 u32_to_float8(__m256i v) {
    const __m256 high = _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_srli_epi32(v, 16)), _mm256_set1_ps(65536.0f));
    const __m256 low = _mm256_cvtepi32_ps(_mm256_and_si256(v, _mm256_set1_epi32(0xFFFF)));
    return _mm256_add_ps(high, low);
}

QIMRA_AVX2 inline __m256i low_bytes_of_u32x8(__m256 v) {
    const __m256 positive = _mm256_max_ps(v, _mm256_setzero_ps());  // NaN -> 0
    const __m256i too_big = _mm256_castps_si256(_mm256_cmp_ps(positive, _mm256_set1_ps(4294967296.0f), _CMP_GE_OQ));
    return _mm256_or_si256(_mm256_cvttps_epi32(positive), too_big);
}

// Eight results (two groups of four) as 8 bytes.
QIMRA_AVX2 inline __m128i filter_group8(const uint32_t* sum_top, const uint32_t* sq_top, ptrdiff_t below,
                                        int32_t side, const uint8_t* in, float inv_n, float eps) {
    const __m256 k_inv_n = _mm256_set1_ps(inv_n);
    const __m256 mean = _mm256_mul_ps(u32_to_float8(window_sum8(sum_top, below, side)), k_inv_n);
    const __m256 sq_mean = _mm256_mul_ps(u32_to_float8(window_sum8(sq_top, below, side)), k_inv_n);
    const __m256 var =
        _mm256_mul_ps(_mm256_sub_ps(sq_mean, _mm256_mul_ps(mean, mean)), _mm256_set1_ps(kInvSquared255));
    const __m256 a = _mm256_mul_ps(recpe_f32x8_avx2(_mm256_add_ps(var, _mm256_set1_ps(eps))), var);
    const __m256 pixel = _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(in))));
    const __m256 t1 = _mm256_mul_ps(a, mean);
    const __m256 t2 = _mm256_mul_ps(pixel, a);
    const __m256 t3 = _mm256_sub_ps(mean, t1);
    const __m256i bytes = low_bytes_of_u32x8(_mm256_add_ps(t2, t3));
    // The low byte of every lane, four from each 128-bit half.
    const __m256i low_bytes = _mm256_setr_epi8(0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1,
                                               0, 4, 8, 12, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
    const __m256i packed = _mm256_shuffle_epi8(bytes, low_bytes);
    return _mm_unpacklo_epi32(_mm256_castsi256_si128(packed), _mm256_extracti128_si256(packed, 1));
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

void sse_rows(const FilterImage im) {
    for (int32_t y = 0; y < im.height; ++y) im.groups_of_four_from(0, im.row(y));
}

int32_t filter_image(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum, int32_t radius, float eps,
                     uint8_t* dst, int32_t width, int32_t height, Form form) {
    const int32_t groups = width / 4;
    if (groups <= 0 || height <= 0) return 0;
    const auto [side, table_stride, below] = window_geometry(width, radius);
    const float inv_n = 1.0f / static_cast<float>(side * side);
    const FilterImage im{src,   dst,   ii_sum,  ii_sqsum, width,      height,
                         table_stride, below, side, inv_n, eps, 4 * groups,
                         {_mm_set1_ps(inv_n), _mm_set1_ps(kInvSquared255), _mm_set1_ps(eps)}};
    form(im);
    return im.end;
}

// Two groups per step, as in the four-lane form, then the zeros the second
// group's store would leave.
[[gnu::noinline]] QIMRA_AVX2 void avx2_rows(const FilterImage im) {
    for (int32_t y = 0; y < im.height; ++y) {
        const FilterRow r = im.row(y);
        int32_t x = 0;
        for (; x + 8 <= im.end; x += 8) {
            store8(r.out + x, filter_group8(r.sum + x, r.sq + x, im.below, im.side, r.in + x, im.inv_n, im.eps));
            std::memset(r.out + x + 8, 0, 4);
        }
        im.groups_of_four_from(x, r);
    }
}

#define QIMRA_AVX512 __attribute__((target("avx512f")))


QIMRA_AVX512 inline __m512i window_sum16(const uint32_t* top, ptrdiff_t below, int32_t side) {
    const uint32_t* bottom = top + below;
    const __m512i br_tl = _mm512_add_epi32(_mm512_loadu_si512(bottom + side), _mm512_loadu_si512(top));
    return _mm512_sub_epi32(_mm512_sub_epi32(br_tl, _mm512_loadu_si512(bottom)), _mm512_loadu_si512(top + side));
}

// Sixteen results (four groups of four) as 16 bytes. The unsigned
// conversions are single instructions here: to float rounding to nearest
// even like VCVT.F32.U32, and back truncating with saturation (after the
// max with zero has taken negatives and NaN to zero).
QIMRA_AVX512 inline __m128i filter_group16(const uint32_t* sum_top, const uint32_t* sq_top, ptrdiff_t below,
                                           int32_t side, const uint8_t* in, __m512 inv_n, __m512 eps) {
    const __m512 mean = _mm512_mul_ps(_mm512_cvtepu32_ps(window_sum16(sum_top, below, side)), inv_n);
    const __m512 sq_mean = _mm512_mul_ps(_mm512_cvtepu32_ps(window_sum16(sq_top, below, side)), inv_n);
    const __m512 var =
        _mm512_mul_ps(_mm512_sub_ps(sq_mean, _mm512_mul_ps(mean, mean)), _mm512_set1_ps(kInvSquared255));
    const __m512 a = _mm512_mul_ps(recpe_f32x16_avx512(_mm512_add_ps(var, eps)), var);
    const __m512 pixel =
        _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in))));
    const __m512 t1 = _mm512_mul_ps(a, mean);
    const __m512 t2 = _mm512_mul_ps(pixel, a);
    const __m512 t3 = _mm512_sub_ps(mean, t1);
    const __m512 positive = _mm512_max_ps(_mm512_add_ps(t2, t3), _mm512_setzero_ps());  // NaN -> 0
    return _mm512_cvtepi32_epi8(_mm512_cvttps_epu32(positive));
}

// Four groups per step; the zeros after the last group's results as its
// own store would leave them.
[[gnu::noinline]] QIMRA_AVX512 void avx512_rows(const FilterImage im) {
    const __m512 inv_n = _mm512_set1_ps(im.inv_n), eps = _mm512_set1_ps(im.eps);
    for (int32_t y = 0; y < im.height; ++y) {
        const FilterRow r = im.row(y);
        int32_t x = 0;
        for (; x + 16 <= im.end; x += 16) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(r.out + x),
                             filter_group16(r.sum + x, r.sq + x, im.below, im.side, r.in + x, inv_n, eps));
            std::memset(r.out + x + 16, 0, 4);
        }
        im.groups_of_four_from(x, r);
    }
}

}  // namespace

int32_t self_guided_filter_1pass_sse(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                     int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height) {
    return filter_image(src, ii_sum, ii_sqsum, radius, eps, dst, width, height, sse_rows);
}

int32_t self_guided_filter_1pass_avx2(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                      int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height) {
    return filter_image(src, ii_sum, ii_sqsum, radius, eps, dst, width, height, avx2_rows);
}

int32_t self_guided_filter_1pass_avx512(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                        int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height) {
    return filter_image(src, ii_sum, ii_sqsum, radius, eps, dst, width, height, avx512_rows);
}

}  // namespace qimra

#endif
