#include "filters/integral_image.h"

#include <cstddef>

#include "qimra/qimra.h"
#include "simd/dispatch.h"

namespace qimra {

void integral_row_c(const uint8_t* row, int32_t width, uint32_t* sum, uint32_t* sq, ptrdiff_t up, RowRun& run) {
    for (int32_t x = 0; x < width; ++x) {
        const uint32_t p = row[x];
        run.sum += p;
        run.sq += p * p;
        sum[x] = sum[x + up] + run.sum;
        sq[x] = sq[x + up] + run.sq;
    }
}

namespace {

// One table row from the row above it and one (padded) image row: entry j is
// the entry above plus the running sum of the row's first j pixels. This is
// the four-term recurrence rearranged; both give the true sum modulo 2^32.
// The square table wraps on large images on purpose: every consumer takes
// four-corner differences of windows small enough to be exact modulo 2^32.
// `border` copies of the row's first and last pixels stand left and right of
// it. Writes entries 1..width + 2 * border of the rows at sum and sq, reading
// the rows `stride` entries above them.
void repeat_pixel(uint8_t p, int32_t count, uint32_t* sum, uint32_t* sq, ptrdiff_t up, RowRun& run) {
    for (int32_t k = 0; k < count; ++k) {
        run.sum += p;
        run.sq += uint32_t{p} * p;
        sum[k] = sum[k + up] + run.sum;
        sq[k] = sq[k + up] + run.sq;
    }
}

void accumulate_row(const uint8_t* row, int32_t width, int32_t border, ptrdiff_t stride, uint32_t* sum, uint32_t* sq) {
    const ptrdiff_t up = -stride;
    RowRun run;
    // Entry 0 of the row is the zero column; pixels start at entry 1.
    uint32_t* s = sum + 1;
    uint32_t* q = sq + 1;
    if (border > 0) repeat_pixel(row[0], border, s, q, up, run);
    s += border > 0 ? border : 0;
    q += border > 0 ? border : 0;
    using Form = decltype(&integral_row_neon);
    static const Form form =
        select_form<Form>({.neon = QIMRA_NEON_FORM(integral_row_neon), .sse41 = QIMRA_X86_FORM(integral_row_sse41)});
    const int32_t x = form != nullptr ? form(row, width, s, q, up, run) : 0;
    integral_row_c(row + x, width - x, s + x, q + x, up, run);
    if (border > 0) repeat_pixel(row[width - 1], border, s + width, q + width, up, run);
}

void zero(uint32_t* p, ptrdiff_t n) {
    for (ptrdiff_t k = 0; k < n; ++k) p[k] = 0;
}

}  // namespace
}  // namespace qimra

extern "C" void blc_gen_ii(const uint8_t* src, int src_stride, int ii_stride, int width, int height, uint32_t* ii_sum,
                           uint32_t* ii_sqsum) {
    if (width >= 0) {
        qimra::zero(ii_sum, static_cast<ptrdiff_t>(width) + 1);
        qimra::zero(ii_sqsum, static_cast<ptrdiff_t>(width) + 1);
    }
    if (height < 0) return;
    const ptrdiff_t stride = ii_stride;
    for (ptrdiff_t i = 0; i <= height; ++i) {
        ii_sum[i * stride] = 0;
        ii_sqsum[i * stride] = 0;
    }
    if (width <= 0) return;
    for (ptrdiff_t i = 1; i <= height; ++i) {
        qimra::accumulate_row(src + (i - 1) * static_cast<ptrdiff_t>(src_stride), width, 0, stride, ii_sum + i * stride,
                              ii_sqsum + i * stride);
    }
}

// The padded image is never written out: each table row reads its source row
// (clamped) and replicates the row's end pixels on the fly. The table stride
// follows from the width; the third argument is accepted for the interface
// and has no effect.
extern "C" void blc_gen_ii_pad(const uint8_t* src, int src_stride, int /*ii_stride*/, int width, int height,
                               uint32_t* ii_sum, uint32_t* ii_sqsum) {
    constexpr int32_t border = qimra::kIntegralPadding;
    const ptrdiff_t stride = qimra::padded_integral_stride(width);
    const int32_t padded_rows = height + 2 * border;
    qimra::zero(ii_sum, stride);
    qimra::zero(ii_sqsum, stride);
    for (int32_t i = 1; i <= padded_rows; ++i) {
        int32_t y = i - 1 - border;
        y = y < 0 ? 0 : (y >= height ? height - 1 : y);
        uint32_t* sum = ii_sum + i * stride;
        uint32_t* sq = ii_sqsum + i * stride;
        sum[0] = 0;
        sq[0] = 0;
        qimra::accumulate_row(src + y * static_cast<ptrdiff_t>(src_stride), width, border, stride, sum, sq);
    }
}
