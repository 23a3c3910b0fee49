// The engine context: every per-instance buffer, table and piece of state
// carried between frames, plus the process-wide globals beside it.
#pragma once

#include <pthread.h>
#include <semaphore.h>

#include <cstdint>

#include "qimra/qimra.h"

// Ops of the job runner.
enum : int32_t {
    kOpDownscale4 = 0,
    kOpColourTable = 1,
    kOpLocalFeatures = 3,
    kOpBand = 5,
    // Internal: the downscale, then the histogram of the reduced rows this
    // core wrote (core 0 into global_hist, core 1 into region_hist[0],
    // which the region features overwrite later in the frame).
    kOpDownscaleCount = 8,
};

// One per core; slot 1's record drives the worker thread.
struct worker_slot {
    qimra_job* job_ptr;
    qimra_job job;
};

struct ctx {
    float gamma;
    int32_t frame_count;
    uint32_t param4;
    int32_t width;
    int32_t height;
    uint8_t* in_chroma;
    uint8_t* out_chroma;
    int32_t adaptive_mode;
    int32_t colour_format;
    int32_t* ext_hist;
    uint8_t* sigmoid_lut;
    uint8_t gamma_lut[256];
    // Passed to the tone-table builder, which never reads it; sized like the
    // table it accompanies.
    int32_t gamma_hist[256];
    int32_t strength_hist[256];
    int32_t strength;
    int32_t aux_hist[256];
    uint8_t hist_index;
    float gain_f[256];
    float band_copy[4];
    int32_t last_mid;
    float last_gamma;
    int32_t frames_enhanced;
    int32_t frames_plain;
    int32_t decision_word;
    int32_t on_count;
    int32_t off_count;
    int32_t prev_top_level;
    float chroma_sigma;
    worker_slot slot[2];
    uint8_t* ds_luma;
    uint8_t* ds_luma2;
    int32_t analyse_ds;
    int32_t quarter_mode;
    uint8_t* buf32k;
    uint16_t* chroma_lut16;
    int32_t chroma_gain_lut[700];
    float* sig45_f;
    float* sig50p1_f;
    uint8_t* sig50p1_lut;
    uint8_t* gain_map;
    int32_t recip16_a[300];
    int32_t recip16_b[300];
    float recip_f[400];

    // Scene analysis, rebuilt every frame.
    uint32_t global_hist[256];
    int32_t hist_pixel_count;
    uint32_t region_hist[12][256];
    feature_vect region_features[12];
    // The decision's records: the whole image, then the sorted regions
    // followed directly by a second copy of the whole image (13 in a row).
    feature_vect whole_features;
    feature_vect sorted_features[13];
};

// The context is taken from the accounting allocator in one block of this
// size; the layout must fit in it on every platform.
constexpr int kCtxAllocBytes = 27292;
static_assert(sizeof(ctx) <= kCtxAllocBytes, "ctx outgrew its allocation");

// Process-wide state (one engine at a time).
extern "C" {
extern int32_t coreload[2];
extern int32_t coreaffi[2];
extern int32_t cds_count_down;
extern int32_t prev_cds_flag;
extern int32_t global_cds_params[2];
extern int32_t global_cam_params[2];
extern int32_t total_mem;
extern int32_t core;
extern pthread_t thrd_hdl[2];
extern int32_t rc;
extern char g_module_name[10][256];
}

namespace qimra {

// Analysis image size for a frame.
struct AnalysisSize {
    int32_t quarter_mode;
    int32_t aw;
    int32_t ah;
};
AnalysisSize analysis_size(int32_t width, int32_t height);

// Per-slot band buffer geometry: sw = aw + 19, rows_i = coreload[i] * ah / 100 + 39.
int32_t slot_stride(int32_t aw);
int32_t slot_rows(int32_t ah, int slot_index);

// Quarter rows given to core 0 when `rows` source rows are split between the
// cores: (coreload[0] * rows / 100 + 3) >> 2. Every parallel stage that works
// in units of four rows (downscale, band enhancement, multi-core resize)
// shares this split.
int32_t core0_quarter_rows(int32_t rows);

// Runs one parallel stage: slot 1's job on the worker, slot 0's on the
// calling thread; returns when both are done. Both jobs must be filled.
// `meanwhile`, if given, runs on the calling thread after its own job and
// before it waits for the worker: work that needs only core 0's part.
void run_on_both_cores(ctx* c);

// The kOpDownscaleCount job.
void downscale_and_count(qimra_job* job);

// The CDS hysteresis step for one frame (reads and updates the globals).
void update_cds_state();

}  // namespace qimra
