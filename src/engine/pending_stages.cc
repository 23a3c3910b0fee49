// Stages of the frame that are still being built. Each is a weak, empty
// definition that its real implementation replaces at link time; with them
// the engine runs its stage order and a frame with no decision is copied
// through.
#include "engine/ctx.h"

#define QIMRA_PENDING extern "C" __attribute__((weak))

QIMRA_PENDING void ReSizeImage_downscale4_mc(void*) {}
QIMRA_PENDING void blc_local_hist_features(qimra_ctx*, segment*, int, int) {}
QIMRA_PENDING int blc_decide_quality(qimra_ctx*, segment*) { return 0; }
QIMRA_PENDING void create_gamma_tab(uint8_t*, int32_t*, float, uint8_t, int) {}
QIMRA_PENDING void qimra_col_conv_create_lut_mc(qimra_ctx*, int, int) {}
QIMRA_PENDING void blc_gen_ii_pad(const uint8_t*, int, int, int, int, uint32_t*, uint32_t*) {}
QIMRA_PENDING void blc_self_guided_filter_1pass(const uint8_t*, int, const uint32_t*, const uint32_t*, int, float,
                                                uint8_t*, int, int, float*, float*, uint32_t*, uint32_t*) {}
QIMRA_PENDING void ReSizeImage_upscale2_mc(void*) {}
QIMRA_PENDING void blc_scale_y_2x2nn(const uint8_t*, int, uint8_t*, int, const uint8_t*, uint8_t*, int, int,
                                     qimra_ctx*) {}
QIMRA_PENDING void blc_scale_y_fs(const uint8_t*, int, uint8_t*, int, const uint8_t*, uint8_t*, int, int,
                                  qimra_ctx*) {}
QIMRA_PENDING void blc_scale_uv_planar(const uint8_t*, const uint8_t*, uint8_t*, uint8_t*, const uint8_t*, int,
                                       int) {}
QIMRA_PENDING void blc_scale_uv_nv(const uint8_t*, const uint8_t*, uint8_t*, uint8_t*, const uint8_t*, int, int) {}
