// The per-frame report: what the engine decided for the frame just processed,
// read back from the decision's histories so that a trace costs the frame
// path nothing.
#include <cstring>

#include "engine/ctx.h"

extern "C" int qimra_get_frame_report(const qimra_ctx* c, qimra_frame_report* report) {
    if (c == nullptr || report == nullptr || c->frame_count <= 0) return 1;
    report->frame = c->frame_count - 1;
    if (c->adaptive_mode == 0) {
        // The fixed mode never runs the decision: its histories keep their
        // initial values, and the curve is the one built with fixed arguments.
        report->decision = 1;
        report->enhanced = 1;
        report->mid = 128;
        report->gamma = c->gamma;
        report->top_level = 230;
    } else {
        // hist_index has already moved on to the next frame's slot.
        const uint8_t slot = static_cast<uint8_t>(c->hist_index - 1u);
        report->decision = c->aux_hist[slot] != 0 ? 1 : 0;
        report->enhanced = (report->decision != 0 && c->adaptive_mode != 1) ? 1 : 0;
        report->mid = c->strength_hist[slot];
        report->gamma = c->gain_f[slot];
        report->top_level = c->prev_top_level;
    }
    report->chroma_sigma = c->chroma_sigma;
    memcpy(report->tone_curve, c->gamma_lut, sizeof report->tone_curve);
    return 0;
}
