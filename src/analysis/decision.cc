// The per-frame quality decision: scores the scene, passes the yes/no
// through a frame-to-frame hysteresis, and builds the tone table either as a
// new curve that moves a small step per frame or as a step back towards the
// identity.
#include "analysis/decision.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "analysis/peaks.h"
#include "engine/ctx.h"
#include "simd/convert.h"

namespace qimra {
namespace {

// The single-precision value of 1 / 0.301, widened.
constexpr double kBitsPerDecade = 3.3222591876983643;
static_assert(kBitsPerDecade == static_cast<double>(static_cast<float>(kBitsPerDecade)));

// Frames held off while on_count or off_count climbs by two to this limit.
constexpr int32_t kHoldLimit = 29;
constexpr int32_t kIdentityMid = 100;
constexpr float kIdentityGamma = 0.99f;
constexpr float kGammaStep = 0.01f;
constexpr int32_t kTopMin = 230;
constexpr int32_t kTopMax = 255;

// Counters that run for the life of the engine wrap rather than overflow.
void bump(int32_t& counter, int32_t by) {
    counter = static_cast<int32_t>(static_cast<uint32_t>(counter) + static_cast<uint32_t>(by));
}

float& band_of(EntropyBands& e, int bin) {
    if (bin < kDarkEnd) return e.dark;
    if (bin < kMidHighFirst) return e.mid_low;
    if (bin < kBrightFirst) return e.mid_high;
    return e.bright;
}

// A registered capture value of at least 0.02 (compared as a float) vetoes
// enhancement for the frame.
bool capture_vetoes() {
    if (global_cam_params[1] != 1) return false;
    float value;
    memcpy(&value, &global_cam_params[0], sizeof value);
    return value >= 0.02f;
}

struct Curve {
    int32_t mid;
    float gamma;
};

// The raw parameters the scene asks for.
struct Scene {
    float light_dark;  // share of dark plus bright pixels
    float dark;
    float bright;
    int32_t mid_raw;
    float gamma_raw;
};

uint8_t slot_before(uint8_t slot) { return static_cast<uint8_t>(slot - 1); }

void build_table(ctx* c, float gamma, int32_t mid, int32_t top) {
    create_gamma_tab(c->gamma_lut, c->gamma_hist, gamma, static_cast<uint8_t>(mid), top);
}

void record(ctx* c, uint8_t slot, const Curve& curve, int32_t apply) {
    c->strength_hist[slot] = curve.mid;
    c->gain_f[slot] = curve.gamma;
    c->aux_hist[slot] = apply;
}

// Holds a change of the yes/no for fifteen frames: the counter climbs by two
// while below 30, so the sixteenth consecutive frame gets through. Updates
// `apply` and returns whether the frame goes on to build a curve (true) or
// relaxes the previous one (false). The first frame has no history to hold.
bool pass_hysteresis(ctx* c, int32_t& apply, int32_t apply_prev) {
    if (c->frame_count <= 0) return apply == 1;
    if (apply == 1) {
        c->off_count = 0;
        if (apply_prev == 0 && c->on_count <= kHoldLimit) {
            bump(c->on_count, 2);
            apply = 0;
            return false;
        }
        bump(c->on_count, 1);
        return true;
    }
    c->on_count = 0;
    if (apply_prev == 1 && c->off_count <= kHoldLimit) {
        bump(c->off_count, 2);
        apply = 1;
        return true;
    }
    bump(c->off_count, 1);
    return false;
}

// The parameters of a new curve towards the scene's raw ones. Once a curve
// is running it moves by at most 1 in mid and 0.01 in gamma per frame; a
// curve switched on after the first frame starts next to the identity.
Curve new_curve(const ctx* c, const Scene& sc, const Curve& prev, int32_t apply_prev) {
    Curve next{sc.mid_raw, sc.gamma_raw};
    if (static_cast<double>(sc.dark) > 0.6 && static_cast<double>(sc.bright) < 0.1) {
        next.mid = sc.mid_raw - 45;
        next.gamma = static_cast<float>(static_cast<double>(sc.gamma_raw) + 1.55);
    } else if (apply_prev == 0 && c->frame_count == 0) {
        next.gamma = 1.0f - sc.light_dark;
    }

    bool cap_mid = true;
    if (apply_prev != 0 || c->frame_count != 0) {
        if (!(next.gamma > prev.gamma - kGammaStep)) next.gamma = prev.gamma - kGammaStep;
        if (!(next.gamma < prev.gamma + kGammaStep)) next.gamma = prev.gamma + kGammaStep;
        if (next.mid > prev.mid)
            next.mid = prev.mid + 1;
        else if (next.mid < prev.mid)
            next.mid = prev.mid - 1;
        if (apply_prev == 0) {
            next = Curve{kIdentityMid, kIdentityGamma};
            cap_mid = false;
        }
    }
    if (cap_mid) next.mid = std::min(next.mid, 144);

    if (next.gamma < c->gamma) next.gamma = c->gamma;
    if (next.gamma > 0.99f) next.gamma = 0.99f;
    if (next.gamma < 0.2f) next.gamma = 0.2f;
    return next;
}

// A new curve lowers the top of the table by one per frame, down to 230.
int32_t enact_new_curve(ctx* c, uint8_t slot, const Curve& next) {
    c->prev_top_level = std::clamp(c->prev_top_level - 1, kTopMin, kTopMax);
    build_table(c, next.gamma, next.mid, c->prev_top_level);
    record(c, slot, next, 1);
    return 1;
}

// One step of the previous curve back towards the identity (mid 100, gamma
// 0.99, top 255). A curve still on its way enhances the frame; only the
// identity reports the frame's own yes/no.
int32_t relax(ctx* c, uint8_t slot, const Curve& prev, int32_t apply) {
    if (prev.mid <= kIdentityMid && prev.gamma >= kIdentityGamma) {
        build_table(c, kIdentityGamma, kIdentityMid, kTopMax);
        record(c, slot, Curve{kIdentityMid, kIdentityGamma}, apply);
        return apply;
    }
    const Curve next{prev.mid <= kIdentityMid + 1 ? kIdentityMid : prev.mid - 1,
                     std::min(prev.gamma + kGammaStep, kIdentityGamma)};
    c->prev_top_level = std::clamp(c->prev_top_level + 1, kTopMin, kTopMax);
    build_table(c, next.gamma, next.mid, c->prev_top_level);
    record(c, slot, next, 1);
    return 1;
}

}  // namespace

EntropyBands entropy_bands(const uint32_t* hist, int32_t pixel_count) {
    const float inv = 1.0f / static_cast<float>(pixel_count);
    EntropyBands e{0.0f, 0.0f, 0.0f, 0.0f};
    for (int bin = 0; bin < 255; ++bin) {  // bin 255 takes part in no band
        const float p = static_cast<float>(hist[bin]) * inv;
        if (p == 0.0f) continue;
        float& band = band_of(e, bin);
        band = static_cast<float>(static_cast<double>(band) +
                                  static_cast<double>(p) * std::log10(static_cast<double>(p)) * kBitsPerDecade);
    }
    return e;
}

float region_weight(const feature_vect* regions) {
    float num = 0.0f;
    float den = 0.0f;
    for (int r = 0; r < kRegionCount; ++r) {
        const float exponent = -regions[r].peak_mean / 40.0f;
        num = static_cast<float>(static_cast<double>(num) +
                                 static_cast<double>(regions[r].peak_mass) * std::exp(static_cast<double>(exponent)));
        den += regions[r].peak_mass;
    }
    return num / den;
}

float scene_score(const feature_vect& g, const feature_vect* sorted, float weight) {
    const float pw = ((sorted[0].posn_wt + sorted[1].posn_wt) + sorted[2].posn_wt) + sorted[3].posn_wt;
    return ((((g.band_dark + g.band_bright) - (g.band_mid_low + g.band_mid_high)) - (pw * 0.25f) / 650.0f) -
            0.5f * g.valley_mass) +
           0.125f * g.peak_ratio_log + 2.0f * weight;
}

Verdict judge_scene(float score, const EntropyBands& e, float deep_dark_pct, bool capture_veto) {
    Verdict v{score > 1.5f ? 1 : 0, 0};
    if (e.total() < -7.4f && score < 2.0f) v.apply = 0;
    if (e.dark + e.bright < -5.12f) v.apply = 1;
    if (deep_dark_pct < 4.0f && score < 1.0f) {
        v.apply = 0;
        v.shadow = 0;
    } else if (v.apply == 1) {
        v.shadow = 0;
    } else {
        v.apply = v.shadow = deep_dark_pct > 15.0f ? 1 : 0;
    }
    if (capture_veto) v.apply = 0;
    return v;
}

}  // namespace qimra

using namespace qimra;

extern "C" int blc_decide_quality(qimra_ctx* c, segment* /*seg*/) {
    const EntropyBands e = entropy_bands(c->global_hist, c->hist_pixel_count);

    peak_descr scratch[kMaxPeaks];
    blc_locate_hist_peaks(reinterpret_cast<const int32_t*>(c->global_hist), &c->whole_features, scratch);
    c->whole_features.region = -1;
    sort_feature_vect(c->region_features, c->sorted_features, kRegionCount, compare_peak_posn_wt);
    c->sorted_features[kRegionCount] = c->whole_features;
    const feature_vect& g = c->whole_features;

    const float score = scene_score(g, c->sorted_features, region_weight(c->region_features));
    const float deep_dark_pct = g.deep_dark * 100.0f;
    const Verdict verdict = judge_scene(score, e, deep_dark_pct, capture_vetoes());

    Scene sc{};
    sc.dark = g.band_dark;
    sc.bright = g.band_bright;
    sc.light_dark = g.band_dark + g.band_bright;
    sc.mid_raw = sat_i32_from_float(100.0f + sc.light_dark * 44.0f);
    sc.gamma_raw = verdict.shadow == 1 ? static_cast<float>(static_cast<double>(1.0f - sc.light_dark) - 0.15)
                                       : (1.0f - sc.light_dark) - deep_dark_pct / 100.0f;
    c->band_copy[0] = g.band_dark;
    c->band_copy[1] = g.band_mid_low;
    c->band_copy[2] = g.band_mid_high;
    c->band_copy[3] = g.band_bright;
    c->last_mid = sc.mid_raw;
    c->last_gamma = sc.gamma_raw;

    const uint8_t cur = c->hist_index;
    const uint8_t prev_slot = slot_before(cur);
    const Curve prev{c->strength_hist[prev_slot], c->gain_f[prev_slot]};
    const int32_t apply_prev = c->aux_hist[prev_slot];

    int32_t apply = verdict.apply;
    const bool build = pass_hysteresis(c, apply, apply_prev);
    // Mode 1 only shows the decision: a frame that would build a curve
    // relaxes instead and reports 1.
    const int32_t result = build && c->adaptive_mode != 1 ? enact_new_curve(c, cur, new_curve(c, sc, prev, apply_prev))
                                                          : relax(c, cur, prev, apply);

    c->chroma_sigma = std::min(2.5f + 3.0f * sc.light_dark, 5.5f);

    if (result == 0) {
        bump(c->frames_plain, 1);
        return 0;
    }
    if (c->adaptive_mode == 0) {
        create_gamma_tab(c->gamma_lut, c->gamma_hist, c->gamma, 128, 255);
        c->chroma_sigma = 4.0f;
    }
    bump(c->frames_enhanced, 1);
    return 1;
}
