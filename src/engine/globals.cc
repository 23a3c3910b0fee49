// Process-wide engine state. The worker handle, the loop counter and the
// side-input registrations live here rather than in the context, which is
// why only one engine may be alive at a time.
#include "engine/ctx.h"

extern "C" {
int32_t coreload[2] = {50, 50};
int32_t coreaffi[2] = {1, 1};
int32_t cds_count_down = 3;
int32_t prev_cds_flag = 0;
int32_t global_cds_params[2] = {0, 0};
int32_t global_cam_params[2] = {0, 0};
int32_t total_mem = 0;
int32_t core = 0;
pthread_t thrd_hdl[2];
int32_t rc;
// Stage names for profiling builds; the library itself takes no timings.
char g_module_name[10][256] = {"down-scale", "decision",  "lut",        "integral", "guided",
                               "upscale",    "y-enhance", "uv_enhance", "",         ""};
}
