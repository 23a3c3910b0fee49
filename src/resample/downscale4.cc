#include "resample/downscale4.h"

#include <cstddef>

#include "engine/ctx.h"
#include "resample/overlap.h"
#include "simd/dispatch.h"

namespace qimra {

void downscale4_row_c(const uint8_t* row0, const uint8_t* row1, uint8_t* dst, int32_t n) {
    // Rows 4y + 2, 4y + 3 and columns 4x + 2, 4x + 3 are never read, and the
    // mean truncates: the analysis only needs a cheap, stable reduction.
    for (int32_t x = 0; x < n; ++x) {
        const uint32_t sum = uint32_t{row0[4 * x]} + row0[4 * x + 1] + row1[4 * x] + row1[4 * x + 1];
        dst[x] = static_cast<uint8_t>(sum >> 2);
    }
}

void downscale4_row(const uint8_t* row0, const uint8_t* row1, uint8_t* dst, int32_t n) {
    using Form = decltype(&downscale4_row_neon);
    static const Form form = select_form<Form>({.neon = QIMRA_NEON_FORM(downscale4_row_neon)});
    int32_t done = 0;
    const std::size_t src_bytes = 4 * static_cast<std::size_t>(n);
    if (form != nullptr && n >= 16 && !ranges_overlap(dst, n, row0, src_bytes) &&
        !ranges_overlap(dst, n, row1, src_bytes))
        done = form(row0, row1, dst, n);
    downscale4_row_c(row0 + 4 * done, row1 + 4 * done, dst + done, n - done);
}

}  // namespace qimra

extern "C" void ReSizeImage_downscale4_mc(void* job_record) {
    const auto* job = static_cast<const qimra_job*>(job_record);
    const int32_t q0 = qimra::core0_quarter_rows(job->rs_src_height);
    const int32_t first_row = job->core == 0 ? 0 : q0;
    const int32_t rows = job->core == 0 ? q0 : job->rs_dst_height - q0;
    const int32_t width = job->rs_dst_width;
    if (rows <= 0 || width <= 0) return;

    const int32_t src_stride = job->rs_src_stride;
    const uint8_t* src = job->rs_src + static_cast<std::ptrdiff_t>(4) * first_row * src_stride;
    // The stride only places a core's first row; its rows follow packed at
    // the destination width (the pipeline passes stride == width).
    uint8_t* dst = job->rs_dst + static_cast<std::ptrdiff_t>(first_row) * job->rs_dst_stride;
    for (int32_t y = 0; y < rows; ++y) {
        qimra::downscale4_row(src, src + src_stride, dst, width);
        src += static_cast<std::ptrdiff_t>(4) * src_stride;
        dst += width;
    }
}
