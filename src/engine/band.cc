#include "engine/band.h"

namespace qimra {

BandRows band_rows(const qimra_job* job) {
    const ctx* c = job->ctx;
    const int32_t height = job->height;
    const int32_t q0 = core0_quarter_rows(height);
    // Core 0 takes q0 quarter rows (rounded up from its share); core 1 the rest.
    const int32_t split_luma = 4 * q0;
    const int32_t split_filter = c->quarter_mode ? q0 : split_luma;
    BandRows rows;
    if (job->core == 0) {
        rows.first_luma_row = 0;
        rows.luma_rows = split_luma;
        rows.filter_first = 0;
        rows.filter_rows = split_filter + kSeamContextRows;
        rows.context_rows = 0;
    } else {
        rows.first_luma_row = split_luma;
        rows.luma_rows = height - split_luma;
        rows.filter_first = split_filter - kSeamContextRows;
        rows.filter_rows = job->gf_height - split_filter + kSeamContextRows;
        rows.context_rows = kSeamContextRows;
    }
    return rows;
}

void band_filter(qimra_job* job) {
    const ctx* c = job->ctx;
    const BandRows rows = band_rows(job);
    const int32_t stride = c->quarter_mode ? job->gf_width : job->in_stride;
    const int32_t width = c->quarter_mode ? job->gf_width : job->width;
    uint8_t* source = job->gf_src + rows.filter_first * stride;

    blc_gen_ii_pad(source, stride, stride + 1, width, rows.filter_rows, job->ii_sum, job->ii_sqsum);
    blc_self_guided_filter_1pass(source, stride, job->ii_sum, job->ii_sqsum, job->gf_radius, job->gf_eps, job->gf_out,
                                 width, rows.filter_rows, job->gf_b, job->gf_a, job->gf_aux_c, job->gf_aux_d);
    if (!c->quarter_mode) return;

    // The quarter-size base of the band comes back up to half size.
    job->rs_src = job->gf_out + rows.context_rows * job->gf_width;
    job->rs_src_height = rows.filter_rows - kSeamContextRows;
    job->rs_src_width = job->gf_width;
    job->rs_src_stride = job->gf_width;
    job->rs_dst_width = job->width / 2;
    job->rs_dst_stride = job->width / 2;
    job->rs_dst_height = rows.luma_rows / 2;
    job->rs_dst = job->base_full;
    job->op = kOpDownscale4;
    ReSizeImage_upscale2_mc(job);
}

void band_apply(qimra_job* job) {
    ctx* c = job->ctx;
    const BandRows rows = band_rows(job);
    const int32_t s = rows.first_luma_row;
    const int32_t width = job->width;
    uint8_t* in_y = job->in_y + s * job->in_stride;
    uint8_t* out_y = job->out_y + s * job->out_stride;
    uint8_t* gain = c->gain_map + (s / 2) * (job->out_stride / 2);

    if (c->quarter_mode) {
        blc_scale_y_2x2nn(in_y, job->in_stride, out_y, job->out_stride, job->base_full, gain, width, rows.luma_rows, c);
    } else {
        const uint8_t* base = job->gf_out + rows.context_rows * width;
        blc_scale_y_fs(in_y, job->in_stride, out_y, job->out_stride, base, gain, width, rows.luma_rows, c);
    }

    const int32_t chroma_row = s / 2;
    if (c->colour_format == 2 || c->colour_format == 3) {
        // A CDS request in force (or a registration flag we do not know)
        // leaves the band's interleaved chroma unwritten.
        const bool suppressed = (job->cds_registered == 1 && (job->cds_value != 0 || job->cds_active != 0)) ||
                                (job->cds_registered != 0 && job->cds_registered != 1);
        if (suppressed) return;
        uint8_t* in_uv = job->in_uv + chroma_row * job->in_stride;
        uint8_t* out_uv = job->out_uv + chroma_row * job->out_stride;
        blc_scale_uv_nv(in_uv, in_uv + 1, out_uv, out_uv + 1, gain, width, rows.luma_rows);
        return;
    }
    const int32_t in_cstride = job->in_stride / 2;
    const int32_t out_cstride = job->out_stride / 2;
    uint8_t* in_u = job->in_uv + chroma_row * in_cstride;
    uint8_t* in_v = job->in_uv + job->in_stride * job->in_scanlines / 4 + chroma_row * in_cstride;
    uint8_t* out_u = job->out_uv + chroma_row * out_cstride;
    uint8_t* out_v = job->out_uv + job->out_stride * job->out_scanlines / 4 + chroma_row * out_cstride;
    blc_scale_uv_planar(in_u, in_v, out_u, out_v, gain, width, rows.luma_rows);
}

}  // namespace qimra
