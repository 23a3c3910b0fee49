/*
 * qimra: real-time enhancement of YUV 4:2:0 video frames.
 *
 * The C ABI of libqimra.so. One engine per stream: create it with
 * qimra_init, hand it frames with qimra_process, tear it down with
 * qimra_deinit. Only one engine may be alive in a process at a time (the
 * worker thread handle and the side-input state are process-wide); the
 * library keeps that rule itself and refuses a second qimra_init.
 *
 * Besides the frame path the library exports its image functions for direct
 * use. None of them checks its arguments: each states its preconditions, and
 * the caller meets them.
 */
#ifndef QIMRA_QIMRA_H
#define QIMRA_QIMRA_H

#include <semaphore.h>
#include <stdint.h>

#if defined(_WIN32)
#define QIMRA_API
#else
#define QIMRA_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Records shared by the engine and the exported image functions            */
/* ------------------------------------------------------------------------ */

/* The engine context: opaque to callers. */
typedef struct ctx qimra_ctx;

/* One image handed to the scene analysis. */
typedef struct segment {
    uint8_t* luma;   /* first luma pixel */
    uint8_t* chroma; /* first chroma pixel; never read by the analysis */
    int32_t width;   /* pixels per row */
    int32_t height;  /* rows */
    int32_t stride;  /* bytes from one luma row to the next */
    int32_t rows;    /* rows of the luma buffer in memory */
} segment;

/* 19 words describing one 256-bin histogram (filled by blc_locate_hist_peaks). */
typedef struct feature_vect {
    float peak_count_log;  /* word 0: ln(0.01 + valid peaks / 64) */
    float core_sharpness;  /* word 1: cube root of the dominant peak's height share per core width */
    float peak_ratio_log;  /* word 2: ln(strongest extreme peak / strongest mid-tone peak) */
    float hist_std;        /* word 3: spread of the whole histogram */
    float hist_mean;       /* word 4: truncated mean bin of the whole histogram */
    float posn_wt;         /* word 5: slope measure of the strongest dark-half peak */
    float bimodality;      /* word 6: separation of the two strongest peaks, by their height ratio */
    float valley_mass;     /* word 7: mass between the dark and the bright peak */
    int32_t region;        /* word 8: region index, -1 for the whole image */
    float band_dark;       /* word 9: fraction of pixels in bins 0-71 */
    float band_mid_low;    /* word 10: bins 72-127 */
    float band_mid_high;   /* word 11: bins 128-159 */
    float band_bright;     /* word 12: bins 160-255 */
    float peak_mean;       /* word 13: mean bin of the dominant peak */
    float peak_std;        /* word 14: spread of the dominant peak */
    float peak_mass;       /* word 15: fraction of pixels in the dominant peak */
    int32_t word16;        /* word 16: not written by the peak locator */
    float dark_peak_level; /* word 17: largest bin among 1-71, as a fraction */
    float deep_dark;       /* word 18: fraction of pixels in bins 0-31 */
} feature_vect;

/* One detected histogram peak (scratch of blc_locate_hist_peaks). */
typedef struct peak_descr {
    int32_t pos;    /* word 0: bin position */
    int32_t height; /* word 1: smoothed count at pos */
    int32_t word2;
    int32_t inner_lo; /* word 3: inner bound at 90 % of the height (left) */
    int32_t inner_hi; /* word 4: inner bound (right) */
    int32_t word5;
    int32_t word6;
    int32_t valid; /* word 7: 1 while the peak takes part */
    int32_t left;  /* word 8: outer bound L (valley to the left) */
    int32_t right; /* word 9: outer bound R (valley to the right) */
} peak_descr;

/*
 * The job record: one type for every parallel job (downscale, colour table,
 * region features, band enhancement) and for the exported resize jobs.
 * Callers of the exported *_mc resize functions fill the rs_* fields (and
 * `core` where the function reads it) and pass the record's address.
 */
typedef struct qimra_job {
    int32_t core;
    qimra_ctx* ctx;
    uint8_t* gf_src;
    int32_t gf_width;
    int32_t gf_height;
    uint32_t* ii_sum;
    uint32_t* ii_sqsum;
    int32_t gf_radius;
    float gf_eps;
    uint8_t* gf_out;
    uint8_t* base_full;
    uint32_t* gf_aux_c;
    uint32_t* gf_aux_d;
    float* gf_a;
    float* gf_b;
    uint8_t* in_y;
    uint8_t* in_uv;
    int32_t width;
    int32_t height;
    int32_t in_stride;
    int32_t in_scanlines;
    uint8_t* out_y;
    uint8_t* out_uv;
    int32_t out_width;
    int32_t out_height;
    int32_t out_stride;
    int32_t out_scanlines;
    int32_t rs_src_height;
    int32_t rs_src_width;
    int32_t rs_src_stride;
    int32_t rs_dst_width;
    int32_t rs_dst_height;
    int32_t rs_dst_stride;
    uint8_t* rs_src;
    uint8_t* rs_dst;
    segment* seg;
    int32_t op;
    int32_t cds_value;
    int32_t cds_registered;
    int32_t cds_active;
    int32_t exit;
    sem_t sem_start;
    sem_t sem_done;
} qimra_job;

/* Size record of ReSizeImage. */
typedef struct qimra_resize_rec {
    int32_t src_height;
    int32_t src_width;
    int32_t src_stride;
    int32_t dst_width; /* also the destination pitch */
    int32_t dst_height;
} qimra_resize_rec;

/* Image matrix of the matrix resize: one channel, rows `step` bytes apart. */
typedef struct u_mat {
    int32_t rows;
    int32_t cols;
    int32_t step;
    uint8_t* data;
} u_mat;

typedef struct zent_Size {
    int32_t width;
    int32_t height;
} zent_Size;

/* One entry of an area-resize weight table. */
typedef struct DecimateAlpha {
    int32_t si;  /* source index */
    int32_t di;  /* destination index */
    float alpha; /* share of the source pixel in the destination pixel */
} DecimateAlpha;

/* ------------------------------------------------------------------------ */
/* Engine                                                                   */
/* ------------------------------------------------------------------------ */

/* Create the engine for a fixed frame size; starts the worker thread.
 * adaptive_mode: 0 always enhance with a fixed tone table, 1 analyse and
 * mark the decision on the frame, other values analyse and enhance when
 * decided. colour_format: 0, 1 planar chroma; 2, 3 interleaved chroma.
 * Arguments 5 to 8 are accepted and ignored. Returns NULL when memory runs out,
 * and NULL (with a log line, the live engine untouched) while another engine
 * made here has not been torn down: one engine per process, whichever module
 * or binding asks. */
QIMRA_API qimra_ctx* qimra_init(int32_t width, int32_t height, float gamma, uint32_t param4, int32_t arg5, int32_t arg6,
                                int32_t arg7, int32_t arg8, int32_t adaptive_mode, int32_t colour_format);
/* Stop the worker and free the engine. 0 on success, 1 for a null context or a missing buffer. */
QIMRA_API int32_t qimra_deinit(qimra_ctx* c);
/* 1 while an engine is alive in this process (qimra_init would refuse), else 0. */
QIMRA_API int32_t qimra_engine_alive(void);
/* Enhance one frame; chroma follows each luma plane unless registered. Always returns 0. */
QIMRA_API int32_t qimra_process(qimra_ctx* c, uint8_t* in_y, int32_t in_stride, int32_t in_scanlines, uint8_t* out_y,
                                int32_t out_stride, int32_t out_scanlines);
/* Keep a histogram pointer for the next frame (kept for the interface; not read). */
QIMRA_API void qimra_register_hist(qimra_ctx* c, int32_t* hist);
/* Separate chroma planes for the next frame only. */
QIMRA_API void qimra_register_chroma_bufs(qimra_ctx* c, uint8_t* in_chroma, uint8_t* out_chroma);
/* Capture parameter (a float) for the next frame; >= 0.02 vetoes enhancement. */
QIMRA_API int32_t* qimra_register_capture_params(qimra_ctx* c, const void* param);
/* CDS request (int32; 1 requests) in force until the next registration; returns the log call's result. */
QIMRA_API int qimra_register_cds_params(qimra_ctx* c, const int32_t* param);

/* What the engine did with the frame just processed (for traces and tools). */
typedef struct qimra_frame_report {
    int32_t frame;           /* index of that frame, counted from 0 */
    int32_t decision;        /* 1 when the scene was judged worth enhancing */
    int32_t enhanced;        /* 1 when the frame was enhanced (never in adaptive mode 1) */
    int32_t mid;             /* normalisation point of the tone curve (the strength); 128 in mode 0 */
    float gamma;             /* exponent of the tone curve; the configured gamma in mode 0 */
    int32_t top_level;       /* the decision's top output level, 230-255; 230 in mode 0 */
    float chroma_sigma;      /* width of the chroma gain curve */
    uint8_t tone_curve[256]; /* the 256-entry tone table of the frame */
} qimra_frame_report;
/* Fill *report for the frame just processed. Returns 0, or 1 when either
 * pointer is null or no frame has been processed yet (report untouched). */
QIMRA_API int qimra_get_frame_report(const qimra_ctx* c, qimra_frame_report* report);

/* Accounting allocator: every engine buffer comes from here. */
QIMRA_API uint8_t* blc_malloc(int size);
/* The job runner: dispatches a qimra_job on its op. */
QIMRA_API void Integral_ContStretch_YUVScale(void* job);
/* The worker loop, run on slot 1 of the context. */
QIMRA_API void* thread_func1(void* slot);

/* ------------------------------------------------------------------------ */
/* Chroma colour table and colour helpers                                   */
/* ------------------------------------------------------------------------ */

/* Build rows [256/ncores*core, ...) of the two-dimensional luma/gain table. */
QIMRA_API void qimra_col_conv_create_lut_mc(qimra_ctx* c, int core, int ncores);
/* Build the whole table alone (unbounded gain curve); returns 256. */
QIMRA_API int32_t qimra_col_conv_create_lut(qimra_ctx* c);
/* Intensity (R+G+B)/3 of a planar 4:2:0 frame; stride width, chroma stride width/2. */
QIMRA_API void conv_yuv_intensity(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* out, int width,
                                  int height);
/* Hue, saturation, intensity of one normalised RGB pixel. */
QIMRA_API void qimra_rgb2hsi_pix(float r, float g, float b, float* h, float* s, float* i);
/* Kept as an empty entry point. */
QIMRA_API void qimra_yuv2hsi_pix(void);

/* ------------------------------------------------------------------------ */
/* Scene analysis and tone decision                                         */
/* ------------------------------------------------------------------------ */

/* Whole-image histogram into the context (skip != 0: clear it only). */
QIMRA_API void blc_gen_hist(const uint8_t* src, int width, int height, int stride, qimra_ctx* c, int step, int skip);
/* Histogram of one block into hist[256]. */
QIMRA_API void blc_create_hist(int32_t* hist, const uint8_t* src, int stride, int width, int height);
/* The fixed 4 x 3 region grid: writes 4 and 3, returns 4. */
QIMRA_API int blc_derive_sub_dims(int a, int b, int c, int* cols, int* rows);
/* Kept as a no-op. */
QIMRA_API void blc_gen_hist_mod(segment* seg, int a, qimra_ctx* c, int b, int d, int e, int f);
/* Condense one histogram into a feature record; scratch holds the peaks. */
QIMRA_API void blc_locate_hist_peaks(const int32_t* hist, feature_vect* out, peak_descr* scratch);
/* Indices of n peaks by descending height (ties in index order). used[n] marks
 * peaks already taken (non-zero) and is updated; when none is left, 0 is written. */
QIMRA_API void peak_sort(const peak_descr* peaks, int* order, int* used, int n);
/* Region histograms and features of this core's share of the 12 regions. */
QIMRA_API void blc_local_hist_features(qimra_ctx* c, segment* seg, int core, int ncores);
/* Copy n records and exchange-sort them by cmp. */
QIMRA_API void sort_feature_vect(feature_vect* src, feature_vect* dst, int n, int (*cmp)(feature_vect*, feature_vect*));
/* 1 when a's posn_wt is greater than b's, else 0 (also for NaN). */
QIMRA_API int compare_peak_posn_wt(feature_vect* a, feature_vect* b);
/* The per-frame decision with hysteresis; builds the tone table. Returns 1 to enhance. */
QIMRA_API int blc_decide_quality(qimra_ctx* c, segment* seg);
/* The 256-entry tone table: power curve joined at 64 to a line up to `top`. */
QIMRA_API void create_gamma_tab(uint8_t* out, int32_t* table, float gamma, uint8_t mid, int top);

/* ------------------------------------------------------------------------ */
/* Enhancement filters                                                      */
/* ------------------------------------------------------------------------ */

/* Summed-area tables of values and squares, (height+1) rows of ii_stride entries. */
QIMRA_API void blc_gen_ii(const uint8_t* src, int src_stride, int ii_stride, int width, int height, uint32_t* ii_sum,
                          uint32_t* ii_sqsum);
/* The same over the image padded by 8 replicated pixels; stride width + 17. */
QIMRA_API void blc_gen_ii_pad(const uint8_t* src, int src_stride, int ii_stride, int width, int height,
                              uint32_t* ii_sum, uint32_t* ii_sqsum);
/* One-pass self-guided filter over padded tables (width % 4 == 0; 4 bytes slack after dst). */
QIMRA_API void blc_self_guided_filter_1pass(const uint8_t* src, int src_stride, const uint32_t* ii_sum,
                                            const uint32_t* ii_sqsum, int radius, float eps, uint8_t* dst, int width,
                                            int height, float* w0, float* w1, uint32_t* w2, uint32_t* w3);
/* Two-step guided filter with clipped windows over unpadded tables. */
QIMRA_API void blc_self_guided_filter(const uint8_t* src, int src_stride, const uint32_t* ii_sum,
                                      const uint32_t* ii_sqsum, int radius, float eps, uint8_t* dst, int width,
                                      int height, float* w0, float* w1, uint32_t* w2, uint32_t* w3);
/* Two-pass guided filter over padded tables it builds itself ((height + 17) x (width + 17)
 * entries each), refined reciprocal; radius 0 to 8. */
QIMRA_API void blc_self_guided_filter_2pass_pad(const uint8_t* src, int src_stride, uint32_t* ii_sum,
                                                uint32_t* ii_sqsum, int radius, float eps, uint8_t* dst, int width,
                                                int height, float* w0, float* w1, float* w2);

/* Luma through the two-dimensional table against a full-size base (4 x 4 blocks). */
QIMRA_API void blc_scale_y_fs(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, const uint8_t* base,
                              uint8_t* gain, int width, int height, qimra_ctx* c);
/* The same against a half-size base, one base sample per 2 x 2 block. */
QIMRA_API void blc_scale_y_2x2nn(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, const uint8_t* base,
                                 uint8_t* gain, int width, int height, qimra_ctx* c);
/* The same against a quarter-size base, one base sample per 4 x 4 block. */
QIMRA_API void blc_scale_y(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride, const uint8_t* base,
                           uint8_t* gain, int width, int height, qimra_ctx* c);
/* Half-size base, interleaved chroma scaled in the same pass. */
QIMRA_API void blc_scale_yuv12_2x2nn(const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                                     const uint8_t* base, uint8_t* gain, int width, int height, qimra_ctx* c,
                                     const uint8_t* in_c1, const uint8_t* in_c2, uint8_t* out_c1, uint8_t* out_c2);
/* Quarter-size base upscaled by four on the fly and enhanced in one pass; the gain plane
 * (stride width / 2) needs height / 2 + 1 rows. */
QIMRA_API void qimra_upscale4_y_enh_mc(void* job, const uint8_t* src, int src_stride, uint8_t* dst, int dst_stride,
                                       const uint8_t* base, uint8_t* gain, int width, int height, qimra_ctx* c);

/* Planar chroma scaled by the per-block gain (width % 16 == 0). */
QIMRA_API void blc_scale_uv_planar(const uint8_t* in_u, const uint8_t* in_v, uint8_t* out_u, uint8_t* out_v,
                                   const uint8_t* gain, int width, int height);
/* Interleaved chroma scaled by the per-block gain (width % 16 == 0). */
QIMRA_API void blc_scale_uv_nv(const uint8_t* in_uv, const uint8_t* unused_in, uint8_t* out_uv, uint8_t* unused_out,
                               const uint8_t* gain, int width, int height);
/* Interleaved 4:1:0 chroma, scalar, flooring shift and cheap clamp. */
QIMRA_API void blc_scale_uv_nv_410(const uint8_t* in_c1, const uint8_t* in_c2, uint8_t* out_c1, uint8_t* out_c2,
                                   const uint8_t* gain, int width, int height);
/* Self-test routine: out = 3 * (2 * in + 233) mod 256 on two plane pairs. */
QIMRA_API void test_asm(const uint8_t* in1, const uint8_t* in2, uint8_t* out1, uint8_t* out2, int width, int height);

/* One step of anisotropic diffusion over the 8-neighbourhood; borders copied. */
QIMRA_API void blc_noise_filt_ADF(const uint8_t* src, uint8_t* dst, int width, int height, int src_stride,
                                  int dst_stride, int kappa, int step, int unused);
/* Global histogram equalisation in place (stride width; at most 8,421,504 pixels). */
QIMRA_API int blc_hist_equ(uint8_t* img, int width, int height);

/* ------------------------------------------------------------------------ */
/* Resampling                                                               */
/* ------------------------------------------------------------------------ */

/* Job forms (argument: a qimra_job). */
QIMRA_API void ReSizeImage_downscale4_mc(void* job);
QIMRA_API void ReSizeImage_upscale2_mc(void* job);
QIMRA_API void ReSizeImage_upscale4_mc(void* job);
QIMRA_API void ReSizeImage_mc(void* job);
QIMRA_API void ReSizeImage_upscale_mc(void* job);
/* Free-ratio bilinear resize on a qimra_resize_rec. */
QIMRA_API void ReSizeImage(void* size_record, const uint8_t* src, uint8_t* dst);

/* Border padding in place around an image inside a larger buffer. */
QIMRA_API void pad_with_replication(uint8_t* img, int width, int height, int pad_x, int pad_y, int stride);
QIMRA_API void pad_with_reflection(uint8_t* img, int width, int height, int pad_x, int pad_y, int stride);
/* Halving with Gaussian and Lanczos kernels. Each writes (width / 2) x
 * (height / 2) pixels: an odd last row or column only feeds taps. */
/* Gaussian 1 4 6 4 1: edges take the nearest pixel; work: (width / 2) * height bytes. */
QIMRA_API void downscale_by_2_gaussian(const uint8_t* src, uint8_t* dst, uint8_t* work, int width, int height,
                                       int src_stride, int dst_stride);
/* Writes c[0 .. 2 * (n >> 1)], unnormalised. */
QIMRA_API void gen_lanczos_coeffs(float* c, int n, float s);
/* Lanczos, edges take the nearest pixel (nothing read outside the image); work: (width / 2) * height bytes. */
QIMRA_API void downscale_by_2_lanczos(const uint8_t* src, uint8_t* dst, uint8_t* work, int width, int height,
                                      int src_stride, int dst_stride);
/* Lanczos, reads 4 pixels beyond both ends of every source row; work: (width / 2 + 16) * (height + 16) bytes. */
QIMRA_API void downscale_by_2_lanczos_w_pad(const uint8_t* src, uint8_t* dst, uint8_t* work, int width, int height,
                                            int src_stride, int dst_stride);
/* Forwards to downscale_by_2_lanczos_w_pad (same border and work buffer). */
QIMRA_API void downscale_by_2(const uint8_t* src, uint8_t* dst, uint8_t* work, int width, int height, int src_stride,
                              int dst_stride);

/* Matrix resize: nearest (0), bilinear (1), area (3). */
QIMRA_API void call_resize(const uint8_t* src, uint8_t* dst, int src_width, int src_height, int dst_width,
                           int dst_height);
QIMRA_API void resize_zent(u_mat* src, u_mat* dst, zent_Size dsize, double inv_scale_x, double inv_scale_y,
                           int interpolation);
QIMRA_API zent_Size size(const u_mat* m);
QIMRA_API int round_Double2Int(double v);
QIMRA_API int round_Float2Int(float v);
QIMRA_API uint8_t saturate_Castdouble2uchar(double v);
QIMRA_API int16_t saturate_Castfloat2short(float v);
QIMRA_API void resizeNN(u_mat* src, u_mat* dst, double inv_scale_x, double inv_scale_y);
QIMRA_API void resizeLinear(u_mat* src, u_mat* dst, const int* xofs, const void* alpha, const int* yofs,
                            const void* beta, int xmin, int xmax, int ksize);
QIMRA_API void hresizeLinear(const uint8_t** srows, int** drows, int count, const int* xofs, const int16_t* alpha,
                             int swidth, int dwidth, int cn, int xmin, int xmax, int ONE);
QIMRA_API void vresizeLinear(const int** rows, uint8_t* dst, const int16_t* beta, int width);
QIMRA_API int computeResizeAreaTab(int ssize, int dsize, int cn, double scale, DecimateAlpha* tab);
QIMRA_API void resizeAreaFast(u_mat* src, u_mat* dst, int scale_x, int scale_y, const int* ofs, const int* xofs);
QIMRA_API int resizeAreaFastVec(int scale_x, int scale_y, int cn, int step, const uint8_t* S, uint8_t* D, int w);
QIMRA_API void resizeArea(u_mat* src, u_mat* dst, const DecimateAlpha* xtab, int xtab_size, const DecimateAlpha* ytab,
                          int ytab_size, const int* tabofs);

#ifdef __cplusplus
}
#endif

#endif /* QIMRA_QIMRA_H */
