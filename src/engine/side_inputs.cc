// Inputs handed over between frames. Each entry point only stores what it is
// given; the frame reads it.
#include <cstring>

#include "engine/ctx.h"
#include "engine/log.h"

extern "C" void qimra_register_hist(qimra_ctx* c, int32_t* hist) { c->ext_hist = hist; }

extern "C" void qimra_register_chroma_bufs(qimra_ctx* c, uint8_t* in_chroma, uint8_t* out_chroma) {
    c->in_chroma = in_chroma;
    c->out_chroma = out_chroma;
}

extern "C" int32_t* qimra_register_capture_params(qimra_ctx* /*c*/, const void* param) {
    // The word is kept as raw bits; the decision reads it as a float.
    memcpy(&global_cam_params[0], param, sizeof(int32_t));
    global_cam_params[1] = 1;
    return global_cam_params;
}

extern "C" int qimra_register_cds_params(qimra_ctx* /*c*/, const int32_t* param) {
    global_cds_params[0] = *param;
    global_cds_params[1] = 1;
    return qimra::log_line("qimra_register_cds_params with %d", global_cds_params[0]);
}
