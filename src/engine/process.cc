// One frame: analysis, decision, then enhancement on both cores or a copy.
#include <cstddef>
#include <cstring>

#include "analysis/histogram.h"
#include "engine/band.h"
#include "engine/ctx.h"

namespace qimra {

void update_cds_state() {
    const bool requested = global_cds_params[0] == 1 && global_cds_params[1] == 1;
    // A countdown begun in one direction is not reset when the request
    // flips: it carries over, so a flickering request still switches after
    // three requesting frames in all.
    if (requested) {
        if (cds_count_down == 0) {
            cds_count_down = 3;
            prev_cds_flag = 1;
        } else if (!prev_cds_flag) {
            if (cds_count_down-- == 1) {
                cds_count_down = 3;
                prev_cds_flag = 1;
            }
        }
    } else {
        if (cds_count_down == 0) {
            cds_count_down = 3;
            prev_cds_flag = 0;
        } else if (prev_cds_flag) {
            if (--cds_count_down == 0) {
                cds_count_down = 3;
                prev_cds_flag = 0;
            }
        }
    }
}

namespace {

// Rows [0, split) of the reduced image are core 0's in the downscale stage.
int32_t reduced_split(const ctx* c) {
    const int32_t rows = c->height >> 2;
    const int32_t q0 = core0_quarter_rows(c->height);
    return q0 < 0 ? 0 : (q0 > rows ? rows : q0);
}

// The reduced image for the analysis; with `histogram`, also its histogram
// as blc_gen_hist would count it. Counting is order-free, so each core
// counts the rows it has just written, while they are in its cache, and
// the two counts are added.
void downscale_for_analysis(ctx* c, uint8_t* in_y, int32_t in_stride, bool histogram) {
    for (int i = 0; i < 2; ++i) {
        qimra_job& job = c->slot[i].job;
        job.op = histogram ? kOpDownscaleCount : kOpDownscale4;
        job.core = i;
        job.ctx = c;
        job.rs_src = in_y;
        job.rs_src_height = c->height;
        job.rs_src_width = c->width;
        job.rs_src_stride = in_stride;
        job.rs_dst = c->ds_luma;
        job.rs_dst_width = c->width >> 2;
        job.rs_dst_height = c->height >> 2;
        job.rs_dst_stride = c->width >> 2;
    }
    run_on_both_cores(c);
    if (!histogram) return;
    for (int i = 0; i < 256; ++i) c->global_hist[i] += c->region_hist[0][i];
    const int32_t w = c->width >> 2, h = c->height >> 2;
    c->hist_pixel_count = static_cast<int32_t>(static_cast<uint32_t>(w) * static_cast<uint32_t>(h));
}

}  // namespace

void downscale_and_count(qimra_job* job) {
    ReSizeImage_downscale4_mc(job);
    ctx* c = job->ctx;
    const int32_t w = c->width >> 2, h = c->height >> 2, split = reduced_split(c);
    uint32_t* bins = job->core == 0 ? c->global_hist : c->region_hist[0];
    memset(bins, 0, sizeof c->global_hist);
    const int32_t first = job->core == 0 ? 0 : split;
    const int32_t rows = job->core == 0 ? split : h - split;
    count_histogram(bins, c->ds_luma + static_cast<ptrdiff_t>(first) * w, w, w, rows);
}

namespace {

// The whole-image histogram as the sum of the twelve region histograms:
// on the reduced image (stride equal to its width) the regions cover it
// exactly, so the sum is the count of every pixel without a second pass.
void sum_region_histograms(ctx* c, const segment& reduced) {
    for (int i = 0; i < 256; ++i) {
        uint32_t n = 0;
        for (const uint32_t* region : c->region_hist) n += region[i];
        c->global_hist[i] = n;
    }
    c->hist_pixel_count =
        static_cast<int32_t>(static_cast<uint32_t>(reduced.width) * static_cast<uint32_t>(reduced.height));
}

int analyse_and_decide(ctx* c, segment* analysed, bool whole_from_regions) {
    for (int i = 0; i < 2; ++i) {
        qimra_job& job = c->slot[i].job;
        job.op = kOpLocalFeatures;
        job.core = i;
        job.ctx = c;
        job.seg = analysed;
    }
    run_on_both_cores(c);
    if (whole_from_regions) sum_region_histograms(c, *analysed);
    const int decision = blc_decide_quality(c, analysed);
    c->strength = c->strength_hist[c->hist_index];
    return decision;
}

void build_colour_table(ctx* c) {
    for (int i = 0; i < 2; ++i) {
        qimra_job& job = c->slot[i].job;
        job.op = kOpColourTable;
        job.core = i;
        job.ctx = c;
    }
    run_on_both_cores(c);
}

struct Frame {
    uint8_t* in_y;
    uint8_t* in_uv;
    int32_t in_stride;
    int32_t in_scanlines;
    uint8_t* out_y;
    uint8_t* out_uv;
    int32_t out_stride;
    int32_t out_scanlines;
};

void enhance(ctx* c, const Frame& f) {
    build_colour_table(c);
    for (int i = 1; i >= 0; --i) {
        qimra_job& job = c->slot[i].job;
        job.core = i;
        job.ctx = c;
        if (c->quarter_mode) {
            job.gf_src = c->ds_luma;
            job.gf_width = c->width >> 2;
            job.gf_height = c->height >> 2;
        } else {
            job.gf_src = f.in_y;
            job.gf_width = c->width;
            job.gf_height = c->height;
        }
        job.gf_radius = 8;
        job.gf_eps = 0.04f;
        job.in_y = f.in_y;
        job.in_uv = f.in_uv;
        job.width = c->width;
        job.height = c->height;
        job.in_stride = f.in_stride;
        job.in_scanlines = f.in_scanlines;
        job.out_y = f.out_y;
        job.out_uv = f.out_uv;
        job.out_width = c->width;
        job.out_height = c->height;
        job.out_stride = f.out_stride;
        job.out_scanlines = f.out_scanlines;
        job.op = kOpBand;
        job.cds_value = global_cds_params[0];
        job.cds_registered = global_cds_params[1];
        job.cds_active = prev_cds_flag;
    }
    if (c->quarter_mode) {
        // The filter reads only the analysis image, so one stage suffices.
        run_on_both_cores(c);
        return;
    }
    for (int i = 0; i < 2; ++i) c->slot[i].job.op = kOpBandFilter;
    run_on_both_cores(c);
    for (int i = 0; i < 2; ++i) c->slot[i].job.op = kOpBandApply;
    run_on_both_cores(c);
}

// Mode 1 shows its decision as a 64 x 64 square in the middle of the frame:
// dark reddish when it would enhance, bright when not. The square assumes
// planar chroma right behind a luma plane of stride width.
void mark_decision(ctx* c, uint8_t* out_y, int decision) {
    const int32_t w = c->width;
    const int32_t h = c->height;
    const float o_y = decision ? 0.0f : 63.75f;
    const float o_v = decision ? 63.75f : 0.0f;
    for (int32_t y = h / 2 - 32; y <= h / 2 + 31; ++y)
        for (int32_t x = w / 2 - 32; x <= w / 2 + 31; ++x) {
            uint8_t& p = out_y[y * w + x];
            p = static_cast<uint8_t>(static_cast<int32_t>(o_y + 0.75f * p));
        }
    uint8_t* u_plane = out_y + w * h;
    uint8_t* v_plane = u_plane + w * h / 4;
    const int32_t cw = w / 2;
    for (int32_t y = (h - 64) / 4; y <= (h + 64) / 4 - 1; ++y)
        for (int32_t x = (w - 64) / 4; x <= (w + 64) / 4 - 1; ++x) {
            uint8_t& u = u_plane[y * cw + x];
            uint8_t& v = v_plane[y * cw + x];
            u = static_cast<uint8_t>(static_cast<int32_t>(0.75f * u));
            v = static_cast<uint8_t>(static_cast<int32_t>(o_v + 0.75f * v));
        }
}

}  // namespace
}  // namespace qimra

using namespace qimra;

extern "C" int32_t qimra_process(qimra_ctx* c, uint8_t* in_y, int32_t in_stride, int32_t in_scanlines, uint8_t* out_y,
                                 int32_t out_stride, int32_t out_scanlines) {
    Frame f{in_y,       c->in_chroma != nullptr ? c->in_chroma : in_y + in_scanlines * in_stride,
            in_stride,  in_scanlines,
            out_y,      c->out_chroma != nullptr ? c->out_chroma : out_y + out_scanlines * out_stride,
            out_stride, out_scanlines};
    segment full{in_y, f.in_uv, c->width, c->height, in_stride, in_scanlines};
    segment reduced{c->ds_luma, nullptr, c->width >> 2, c->height >> 2, c->width >> 2, c->height >> 2};

    segment* analysed = (c->quarter_mode && c->analyse_ds == 1) ? &reduced : &full;
    // Where the region histograms are built, they also give the whole-image
    // one of the reduced image; mode 0 counts it while downscaling.
    const bool whole_from_regions = analysed == &reduced && c->adaptive_mode != 0;
    if (c->quarter_mode) downscale_for_analysis(c, in_y, in_stride, analysed == &reduced && !whole_from_regions);
    if (analysed != &reduced)
        blc_gen_hist(analysed->luma, analysed->width, analysed->height, analysed->stride, c, 1, 0);

    int decision;
    if (c->adaptive_mode != 0) {
        decision = analyse_and_decide(c, analysed, whole_from_regions);
    } else {
        decision = 1;
        c->strength = 128;
        create_gamma_tab(c->gamma_lut, c->gamma_hist, c->gamma, 128, 230);
        c->chroma_sigma = 4.0f;
    }

    update_cds_state();

    if (decision != 0 && c->adaptive_mode != 1) {
        enhance(c, f);
    } else {
        if (out_y != in_y) {
            // Whole planes in one piece: a frame that is not enhanced is
            // taken to be packed at the frame width.
            memcpy(out_y, in_y, static_cast<size_t>(c->width) * c->height);
            memcpy(f.out_uv, f.in_uv, static_cast<size_t>(c->width) * c->height / 2);
        }
        if (c->adaptive_mode == 1) mark_decision(c, out_y, decision);
    }

    c->ext_hist = nullptr;
    c->hist_index = static_cast<uint8_t>(c->hist_index + 1);
    c->in_chroma = nullptr;
    c->out_chroma = nullptr;
    c->frame_count += 1;
    global_cam_params[1] = 0;
    return 0;
}
