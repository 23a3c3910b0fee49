// Enlarge by four across and by a free ratio down. The four horizontal
// phases sit at 3/16, 7/16, 11/16 and 15/16 between two source columns (not
// centred, deliberately), and the sums are cut by a plain shift.
#include "resample/upscale4.h"

#include "engine/ctx.h"

namespace qimra {
namespace {

// Weights in sixteenths on a column and on its right neighbour.
constexpr uint32_t kPhase[4][2] = {{13, 3}, {9, 7}, {5, 11}, {1, 15}};

}  // namespace

void upscale4_row_c(const uint8_t* a, const uint8_t* b, uint8_t* dst, int x_begin, int ws, uint32_t f) {
    const uint32_t fa = 16u - f;
    int x = x_begin;
    for (; x < ws - 1; ++x) {
        for (int k = 0; k < 4; ++k) {
            const uint32_t top = kPhase[k][0] * a[x] + kPhase[k][1] * a[x + 1];
            const uint32_t bottom = kPhase[k][0] * b[x] + kPhase[k][1] * b[x + 1];
            dst[4 * x + k] = static_cast<uint8_t>((fa * top + f * bottom) >> 8);
        }
    }
    if (x == ws - 1) {
        // The last column has no right neighbour: its four pixels repeat it.
        const auto v = static_cast<uint8_t>((fa * a[x] + f * b[x]) >> 4);
        for (int k = 0; k < 4; ++k) dst[4 * x + k] = v;
    }
}

#if QIMRA_HAVE_NEON
namespace {

// One phase on eight columns. Every partial sum fits 16 bits: a phase sum
// is at most 16 * 255 and the vertical blend at most 16 times that.
inline uint8x8_t phase8(uint8x8_t a0, uint8x8_t a1, uint8x8_t b0, uint8x8_t b1, int k, uint16x8_t fa,
                        uint16x8_t fb) {
    const uint8x8_t q0 = vdup_n_u8(static_cast<uint8_t>(kPhase[k][0]));
    const uint8x8_t q1 = vdup_n_u8(static_cast<uint8_t>(kPhase[k][1]));
    const uint16x8_t top = vmlal_u8(vmull_u8(a0, q0), a1, q1);
    const uint16x8_t bottom = vmlal_u8(vmull_u8(b0, q0), b1, q1);
    return vshrn_n_u16(vmlaq_u16(vmulq_u16(top, fa), bottom, fb), 8);
}

}  // namespace

int upscale4_row_neon(const uint8_t* a, const uint8_t* b, uint8_t* dst, int ws, uint32_t f) {
    const uint16x8_t fa = vdupq_n_u16(static_cast<uint16_t>(16u - f));
    const uint16x8_t fb = vdupq_n_u16(static_cast<uint16_t>(f));
    int x = 0;
    // Columns x .. x + 16 are read, so x + 16 must stay an interior column.
    for (; x + 16 <= ws - 1; x += 16) {
        const uint8x16_t a0 = vld1q_u8(a + x);
        const uint8x16_t a1 = vld1q_u8(a + x + 1);
        const uint8x16_t b0 = vld1q_u8(b + x);
        const uint8x16_t b1 = vld1q_u8(b + x + 1);
        uint8x16x4_t out;
        for (int k = 0; k < 4; ++k) {
            out.val[k] = vcombine_u8(
                phase8(vget_low_u8(a0), vget_low_u8(a1), vget_low_u8(b0), vget_low_u8(b1), k, fa, fb),
                phase8(vget_high_u8(a0), vget_high_u8(a1), vget_high_u8(b0), vget_high_u8(b1), k, fa, fb));
        }
        vst4q_u8(dst + 4 * x, out);
    }
    return x;
}
#endif

namespace {

void upscale4_row(const uint8_t* a, const uint8_t* b, uint8_t* dst, int ws, uint32_t f) {
    int x = 0;
#if QIMRA_HAVE_NEON
    const long dst_bytes = 4L * ws;
    if (!ranges_overlap(a, ws, dst, dst_bytes) && !ranges_overlap(b, ws, dst, dst_bytes)) {
        x = upscale4_row_neon(a, b, dst, ws, f);
    }
#endif
    upscale4_row_c(a, b, dst, x, ws, f);
}

}  // namespace
}  // namespace qimra

extern "C" void ReSizeImage_upscale4_mc(void* job_ptr) {
    using namespace qimra;
    const auto* job = static_cast<const qimra_job*>(job_ptr);
    const int32_t ws = job->rs_src_width;
    const int32_t blended_rows = job->rs_dst_height;
    const int32_t stride = job->rs_src_stride;
    const uint32_t step = fixed_step(job->rs_src_height, blended_rows);
    uint32_t fraction = start_fraction(step);
    const uint8_t* row = job->rs_src;
    uint8_t* dst = job->rs_dst;

    auto advance = [&] {
        const uint32_t sum = fraction + step;
        row += static_cast<long>(sum >> 16) * stride;
        fraction = sum & 0xFFFFu;
    };
    for (int32_t y = 0; y < blended_rows; ++y) {
        // The row below is always read, also on the last source row.
        upscale4_row(row, row + stride, dst, ws, fraction >> 12);
        dst += 4L * ws;
        advance();
    }
    // Four trailing rows interpolate across only, so the band ends on a
    // source row instead of blending into the one below it.
    for (int y = 0; y < 4; ++y) {
        upscale4_row(row, row, dst, ws, 0);
        dst += 4L * ws;
        advance();
    }
}
