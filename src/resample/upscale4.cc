// Enlarge by four across and by a free ratio down. The four horizontal
// phases sit at 3/16, 7/16, 11/16 and 15/16 between two source columns (not
// centred, deliberately), and the sums are cut by a plain shift.
#include "resample/upscale4.h"

#include "engine/ctx.h"
#include "simd/dispatch.h"

namespace qimra {

void upscale4_row_c(const uint8_t* a, const uint8_t* b, uint8_t* dst, int x_begin, int ws, uint32_t f) {
    const uint32_t fa = 16u - f;
    int x = x_begin;
    for (; x < ws - 1; ++x) {
        for (int k = 0; k < 4; ++k) {
            const uint32_t top = kUpscale4Phase[k][0] * a[x] + kUpscale4Phase[k][1] * a[x + 1];
            const uint32_t bottom = kUpscale4Phase[k][0] * b[x] + kUpscale4Phase[k][1] * b[x + 1];
            dst[4 * x + k] = static_cast<uint8_t>((fa * top + f * bottom) >> 8);
        }
    }
    if (x == ws - 1) {
        // The last column has no right neighbour: its four pixels repeat it.
        const auto v = static_cast<uint8_t>((fa * a[x] + f * b[x]) >> 4);
        for (int k = 0; k < 4; ++k) dst[4 * x + k] = v;
    }
}

namespace {

void upscale4_row(const uint8_t* a, const uint8_t* b, uint8_t* dst, int ws, uint32_t f) {
    using Form = decltype(&upscale4_row_neon);
    static const Form form = select_form<Form>({.neon = QIMRA_NEON_FORM(upscale4_row_neon)});
    int x = 0;
    const long dst_bytes = 4L * ws;
    if (form != nullptr && !ranges_overlap(a, ws, dst, dst_bytes) && !ranges_overlap(b, ws, dst, dst_bytes)) {
        x = form(a, b, dst, ws, f);
    }
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
