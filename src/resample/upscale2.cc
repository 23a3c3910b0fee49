#include "resample/upscale2.h"

#include <cstddef>

#include "qimra/qimra.h"
#include "resample/overlap.h"
#include "simd/dispatch.h"

namespace qimra {
namespace {

// Phase weights in sixteenths on a sample and on its right (or lower)
// neighbour. The output phases sit at 7/16 and 15/16 of the way to the next
// sample rather than at the centred 1/4 and 3/4: the shift this gives is
// part of the result.
constexpr uint32_t kPhase[2][2] = {{9, 7}, {1, 15}};

inline uint8_t blend(int i, int j, uint32_t a, uint32_t b, uint32_t c, uint32_t d) {
    const uint32_t sum =
        kPhase[i][0] * (kPhase[j][0] * a + kPhase[j][1] * b) + kPhase[i][1] * (kPhase[j][0] * c + kPhase[j][1] * d);
    return static_cast<uint8_t>(sum >> 8);  // weights sum to 256: no clamp, no rounding
}

}  // namespace

void upscale2_rows_c(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w,
                     int32_t x_begin) {
    for (int32_t x = x_begin; x < w; ++x) {
        const int32_t xr = x + 1 < w ? x + 1 : w - 1;
        const uint32_t a = src0[x], b = src0[xr], c = src1[x], d = src1[xr];
        dst0[2 * x] = blend(0, 0, a, b, c, d);
        dst0[2 * x + 1] = blend(0, 1, a, b, c, d);
        dst1[2 * x] = blend(1, 0, a, b, c, d);
        dst1[2 * x + 1] = blend(1, 1, a, b, c, d);
    }
}

void upscale2_rows(const uint8_t* src0, const uint8_t* src1, uint8_t* dst0, uint8_t* dst1, int32_t w) {
    using Form = decltype(&upscale2_rows_neon);
    static const Form form = select_form<Form>({.neon = QIMRA_NEON_FORM(upscale2_rows_neon),
                                                .sse41 = QIMRA_X86_FORM(upscale2_rows_sse41),
                                                .avx2 = QIMRA_X86_FORM(upscale2_rows_avx2)});
    const std::size_t sw = static_cast<std::size_t>(w);
    const bool disjoint = !ranges_overlap(dst0, 2 * sw, src0, sw) && !ranges_overlap(dst0, 2 * sw, src1, sw) &&
                          !ranges_overlap(dst1, 2 * sw, src0, sw) && !ranges_overlap(dst1, 2 * sw, src1, sw);
    const int32_t x = form != nullptr && disjoint ? form(src0, src1, dst0, dst1, w) : 0;
    upscale2_rows_c(src0, src1, dst0, dst1, w, x);
}

}  // namespace qimra

extern "C" void ReSizeImage_upscale2_mc(void* job_record) {
    const auto* job = static_cast<const qimra_job*>(job_record);
    // The field halves are unsigned truncations: an odd last destination
    // column or row is not written.
    const uint32_t dst_width = static_cast<uint32_t>(job->rs_dst_width);
    const int32_t w = static_cast<int32_t>(dst_width / 2);
    const int32_t h = static_cast<int32_t>(static_cast<uint32_t>(job->rs_dst_height) / 2);
    if (w <= 0 || h <= 0) return;  // below the 2 x 2 minimum there is nothing to blend

    const std::ptrdiff_t src_stride = job->rs_src_stride;
    const std::ptrdiff_t dst_stride = dst_width;  // destination rows are packed at W
    const uint8_t* src = job->rs_src;
    uint8_t* dst = job->rs_dst;
    for (int32_t y = 0; y + 1 < h; ++y) {
        const uint8_t* s0 = src + y * src_stride;
        uint8_t* d0 = dst + 2 * y * dst_stride;
        qimra::upscale2_rows(s0, s0 + src_stride, d0, d0 + dst_stride, w);
    }
    // The band's last source row is repeated, never blended with the row
    // below the band (which belongs to the other core's band or to nothing).
    const uint8_t* last = src + (h - 1) * src_stride;
    uint8_t* d0 = dst + 2 * (h - 1) * dst_stride;
    qimra::upscale2_rows(last, last, d0, d0 + dst_stride, w);
}
