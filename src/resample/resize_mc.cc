// Free-ratio bilinear resize in 16.16 fixed point with 4-bit weights: the
// vertical stepping of the by-four enlarger applied on both axes.
#include <cstring>

#include "engine/ctx.h"
#include "resample/upscale4.h"

namespace qimra {
namespace {

struct ResizeGeometry {
    const uint8_t* src;
    int32_t src_stride;
    uint8_t* dst;
    int32_t dst_width;  // also the destination pitch
    int32_t rows;       // destination rows to write
    uint32_t step_x;
    uint32_t step_y;
    uint32_t y_fraction;
};

ResizeGeometry geometry(const uint8_t* src, int32_t src_height, int32_t src_width, int32_t src_stride, uint8_t* dst,
                        int32_t dst_width, int32_t dst_height) {
    ResizeGeometry g;
    g.src = src;
    g.src_stride = src_stride;
    g.dst = dst;
    g.dst_width = dst_width;
    g.rows = dst_height;
    g.step_x = fixed_step(src_width, dst_width);
    g.step_y = fixed_step(src_height, dst_height);
    g.y_fraction = start_fraction(g.step_y);
    return g;
}

ResizeGeometry whole_image(const qimra_job* job) {
    return geometry(job->rs_src, job->rs_src_height, job->rs_src_width, job->rs_src_stride, job->rs_dst,
                    job->rs_dst_width, job->rs_dst_height);
}

// The kernel shared by every form. Column ix + 1 and the row below are read
// even at the last column and row (their weight is then 0 when enlarging).
void bilinear_rows(const ResizeGeometry& g) {
    const uint32_t x_start = start_fraction(g.step_x);
    const uint8_t* a = g.src;
    uint32_t y_fraction = g.y_fraction;
    for (int32_t y = 0; y < g.rows; ++y) {
        const uint8_t* b = a + g.src_stride;
        const uint32_t fy = y_fraction >> 12;
        uint8_t* out = g.dst + static_cast<long>(y) * g.dst_width;
        uint32_t pos = x_start;
        for (int32_t k = 0; k < g.dst_width; ++k, pos += g.step_x) {
            const uint32_t ix = pos >> 16;
            const uint32_t fx = (pos >> 12) & 15u;
            const uint32_t top = (16u - fx) * a[ix] + fx * a[ix + 1];
            const uint32_t bottom = (16u - fx) * b[ix] + fx * b[ix + 1];
            out[k] = static_cast<uint8_t>(((16u - fy) * top + fy * bottom) >> 8);
        }
        const uint32_t sum = y_fraction + g.step_y;
        a += static_cast<long>(sum >> 16) * g.src_stride;
        y_fraction = sum & 0xFFFFu;
    }
}

// Destination rows of one core's share, counted in quarters of the source
// height: the split follows the engine's 4:1 analysis image.
int32_t quarter_share(int32_t core, int32_t src_rows) { return (coreload[core] * src_rows / 100 + 3) >> 2; }

}  // namespace
}  // namespace qimra

extern "C" void ReSizeImage(void* size_record, const uint8_t* src, uint8_t* dst) {
    using namespace qimra;
    const auto* r = static_cast<const qimra_resize_rec*>(size_record);
    if (r->dst_height == r->src_height && r->dst_width == r->src_width) {
        // Equal sizes copy packed bytes; the source stride is not applied.
        std::memcpy(dst, src, static_cast<size_t>(r->dst_height) * static_cast<size_t>(r->dst_width));
        return;
    }
    bilinear_rows(geometry(src, r->src_height, r->src_width, r->src_stride, dst, r->dst_width, r->dst_height));
}

extern "C" void ReSizeImage_mc(void* job_ptr) {
    using namespace qimra;
    const auto* job = static_cast<const qimra_job*>(job_ptr);
    const int32_t core = job->core;
    const int32_t src_rows = job->rs_src_height;
    int32_t before = 0;
    for (int32_t i = 0; i < core; ++i) before += quarter_share(i, src_rows);

    ResizeGeometry g = whole_image(job);
    // Core 1 is the last core and takes whatever core 0 left.
    g.rows = core == 1 ? job->rs_dst_height - before : quarter_share(core, src_rows);
    g.src += static_cast<long>(job->rs_src_stride) * 4 * before;
    g.dst += static_cast<long>(job->rs_dst_stride) * before;
    // Only the fraction is carried over; the source start is fixed at four
    // source rows per destination row above this core.
    const long advances = static_cast<long>(core) * 4 * before;
    for (long i = 0; i < advances; ++i) g.y_fraction = (g.y_fraction + g.step_y) & 0xFFFFu;
    bilinear_rows(g);
}

extern "C" void ReSizeImage_upscale_mc(void* job_ptr) {
    qimra::bilinear_rows(qimra::whole_image(static_cast<const qimra_job*>(job_ptr)));
}
