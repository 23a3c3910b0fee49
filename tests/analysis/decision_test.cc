// The quality decision: its scene measures and rules, and its hysteresis
// over sequences of frames driven the way the frame drives it.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "analysis/decision.h"
#include "analysis/peaks.h"
#include "support/engine_helpers.h"

namespace qimra {
namespace {

TEST(DecisionMeasures, EntropyBandsLeaveOutBin255) {
    std::vector<uint32_t> hist(256, 0);
    hist[100] = 500;
    hist[255] = 500;
    EntropyBands e = entropy_bands(hist.data(), 1000);
    EXPECT_NEAR(e.mid_low, -0.50005f, 1e-5f);  // 0.5 * log10(0.5) / 0.301
    EXPECT_EQ(e.dark, 0.0f);
    EXPECT_EQ(e.mid_high, 0.0f);
    EXPECT_EQ(e.bright, 0.0f);

    // The shares are taken of the pixel count given, not of the bins' sum.
    hist[255] = 0;
    EXPECT_EQ(entropy_bands(hist.data(), 1000).mid_low, e.mid_low);

    std::vector<uint32_t> spread(256, 0);
    for (int b = 0; b < 255; ++b) spread[b] = 4;  // 255 equal bins
    e = entropy_bands(spread.data(), 1020);
    EXPECT_NEAR(e.total(), -std::log10(255.0) / 0.301, 1e-4);
    EXPECT_NEAR(e.dark, 72.0 / 255.0 * -std::log10(255.0) / 0.301, 1e-4);
}

TEST(DecisionMeasures, RegionWeight) {
    feature_vect regions[kRegionCount] = {};
    for (feature_vect& r : regions) r.peak_mass = 1.0f;
    EXPECT_EQ(region_weight(regions), 1.0f);

    for (feature_vect& r : regions) r.peak_mass = 0.0f;
    regions[3].peak_mass = 0.5f;
    regions[3].peak_mean = 40.0f;
    EXPECT_FLOAT_EQ(region_weight(regions), std::exp(-1.0f));

    // An empty dominant peak (mean 0/0, mass 0) makes the weight NaN.
    regions[5].peak_mean = NAN;
    EXPECT_TRUE(std::isnan(region_weight(regions)));
}

TEST(DecisionMeasures, ScoreWeighsEachTerm) {
    feature_vect g{};
    g.band_dark = 0.5f;
    g.band_bright = 0.25f;
    g.band_mid_low = 0.125f;
    g.band_mid_high = 0.125f;
    g.valley_mass = 0.5f;
    g.peak_ratio_log = 2.0f;
    feature_vect sorted[13] = {};
    for (int i = 0; i < 4; ++i) sorted[i].posn_wt = 650.0f;
    sorted[4].posn_wt = 1e9f;  // only the four smallest count
    // 0.5 - 650 * 4 * 0.25 / 650 - 0.25 + 0.25 + 1.5
    EXPECT_EQ(scene_score(g, sorted, 0.75f), 1.0f);
}

TEST(DecisionMeasures, RulesApplyInOrder) {
    const EntropyBands plain{-1.0f, -1.0f, -1.0f, -1.0f};
    const EntropyBands busy{-2.0f, -2.0f, -2.0f, -2.0f};    // total -8, extremes -4
    const EntropyBands extremes{-2.6f, 0.0f, 0.0f, -2.6f};  // extremes -5.2
    auto judge = [](float s, const EntropyBands& e, float q, bool veto = false) {
        const Verdict v = judge_scene(s, e, q, veto);
        return std::make_pair(v.apply, v.shadow);
    };
    using P = std::pair<int32_t, int32_t>;
    EXPECT_EQ(judge(1.6f, plain, 10.0f), P(1, 0));
    EXPECT_EQ(judge(1.5f, plain, 10.0f), P(0, 0));  // strictly above 1.5
    EXPECT_EQ(judge(1.9f, busy, 10.0f), P(0, 0));   // busy scene needs 2.0
    EXPECT_EQ(judge(2.0f, busy, 10.0f), P(1, 0));
    EXPECT_EQ(judge(0.5f, extremes, 10.0f), P(1, 0));  // busy extremes force it on
    EXPECT_EQ(judge(0.5f, extremes, 3.9f), P(0, 0));   // unless hardly anything is deep dark
    EXPECT_EQ(judge(1.2f, plain, 15.5f), P(1, 1));     // a shadow scene
    EXPECT_EQ(judge(1.2f, plain, 15.0f), P(0, 0));
    EXPECT_EQ(judge(0.5f, plain, 3.0f), P(0, 0));
    EXPECT_EQ(judge(1.2f, plain, 15.5f, true), P(0, 1));  // the veto leaves shadow
    EXPECT_EQ(judge(3.0f, plain, 10.0f, true), P(0, 0));
    // A NaN score fails every comparison: only the shadow rule can apply.
    EXPECT_EQ(judge(NAN, plain, 20.0f), P(1, 1));
    EXPECT_EQ(judge(NAN, plain, 2.0f), P(0, 0));
}

// Frames driven through the decision as the frame path drives it: one call,
// then the slot and the frame counter advance and the capture flag is cleared.
class DecisionFrames : public ::testing::Test {
protected:
    void SetUp() override { start(0.5f, 2); }
    void TearDown() override { stop(); }

    // A context as initialisation leaves the decision's state: no history,
    // gamma 1.0 in every slot, the top of the table at 255.
    void start(float gamma, int32_t mode) {
        test::reset_globals();
        owned = std::make_unique<ctx>();
        c = owned.get();
        c->gamma = gamma;
        c->adaptive_mode = mode;
        c->prev_top_level = 255;
        for (float& g : c->gain_f) g = 1.0f;
    }
    void stop() {
        owned.reset();
        c = nullptr;
        test::reset_globals();
    }

    void set_histogram(std::initializer_list<std::pair<int, uint32_t>> bins) {
        memset(c->global_hist, 0, sizeof c->global_hist);
        uint32_t n = 0;
        for (auto [bin, count] : bins) {
            c->global_hist[bin] = count;
            n += count;
        }
        c->hist_pixel_count = static_cast<int32_t>(n);
    }
    // The region weight is near 1 with the regions' peaks at 0 and near 0
    // with them at 255; it is what makes a scene a candidate here.
    void set_regions(float peak_mean) {
        for (int r = 0; r < kRegionCount; ++r) {
            c->region_features[r] = feature_vect{};
            c->region_features[r].peak_mass = 1.0f;
            c->region_features[r].peak_mean = peak_mean;
            c->region_features[r].region = r;
        }
    }
    // Half the pixels at 40, half at 220: raw mid 144, raw gamma 0.
    void backlit(bool candidate) {
        set_histogram({{40, 500}, {220, 500}});
        set_regions(candidate ? 0.0f : 255.0f);
    }

    int frame() {
        memset(c->gamma_lut, 0x5A, sizeof c->gamma_lut);
        const int d = blc_decide_quality(c, nullptr);
        c->hist_index = static_cast<uint8_t>(c->hist_index + 1);
        c->frame_count += 1;
        global_cam_params[1] = 0;
        return d;
    }
    uint8_t last() const { return static_cast<uint8_t>(c->hist_index - 1); }
    int32_t mid() const { return c->strength_hist[last()]; }
    float gamma() const { return c->gain_f[last()]; }
    int32_t applied() const { return c->aux_hist[last()]; }

    // The table left by the last frame is the one the given curve builds.
    void expect_table(float g, int32_t m, int32_t top) const {
        uint8_t want[256];
        memset(want, 0x5A, sizeof want);
        create_gamma_tab(want, c->gamma_hist, g, static_cast<uint8_t>(m), top);
        EXPECT_EQ(memcmp(want, c->gamma_lut, sizeof want), 0) << "gamma " << g << " mid " << m << " top " << top;
    }

    // A curve already running at the previous slot.
    void running_curve(int32_t m, float g, int32_t apply, int32_t frames) {
        c->frame_count = frames;
        c->hist_index = static_cast<uint8_t>(frames);
        const uint8_t prev = static_cast<uint8_t>(frames - 1);
        c->strength_hist[prev] = m;
        c->gain_f[prev] = g;
        c->aux_hist[prev] = apply;
    }

    std::unique_ptr<ctx> owned;
    ctx* c = nullptr;
};

TEST_F(DecisionFrames, UniformGreyFrame) {
    std::vector<uint8_t> grey(64 * 48, 128);
    segment seg{grey.data(), nullptr, 64, 48, 64, 48};
    blc_gen_hist(grey.data(), 64, 48, 64, c, 1, 0);
    blc_local_hist_features(c, &seg, 0, 1);
    // Every flat-topped peak has a NaN position weight, so the score is NaN
    // and, with no deep dark, the frame is left alone.
    EXPECT_EQ(frame(), 0);
    EXPECT_TRUE(std::isnan(c->sorted_features[0].posn_wt));
    EXPECT_EQ(c->last_mid, 100);
    EXPECT_EQ(c->chroma_sigma, 2.5f);
    EXPECT_EQ(c->band_copy[0], 0.0f);
    EXPECT_EQ(c->band_copy[2], 1.0f);
    EXPECT_EQ(c->whole_features.region, -1);
    EXPECT_EQ(memcmp(&c->sorted_features[12], &c->whole_features, sizeof(feature_vect)), 0);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(c->sorted_features[i].region, i) << "NaN weights are never moved";
}

TEST_F(DecisionFrames, FirstFrameBuildsStraightFromTheScene) {
    stop();
    start(0.3f, 2);
    set_histogram({{40, 300}, {100, 400}, {220, 300}});
    set_regions(0.0f);
    EXPECT_EQ(frame(), 1);
    EXPECT_EQ(c->last_mid, 126);  // 100 + 0.6 * 44
    EXPECT_EQ(mid(), 126);
    EXPECT_FLOAT_EQ(gamma(), 0.4f);  // 1 - 0.6, above the configured 0.3
    EXPECT_EQ(applied(), 1);
    EXPECT_EQ(c->prev_top_level, 254);
    EXPECT_FLOAT_EQ(c->chroma_sigma, 2.5f + 3.0f * 0.6f);
    expect_table(gamma(), 126, 254);
    EXPECT_EQ(c->frames_enhanced, 1);
    EXPECT_EQ(c->frames_plain, 0);
}

TEST_F(DecisionFrames, DarkSceneLowersMid) {
    set_histogram({{40, 700}, {100, 300}});
    set_regions(0.0f);
    EXPECT_EQ(frame(), 1);
    EXPECT_EQ(c->last_mid, 130);
    EXPECT_EQ(mid(), 85);
    EXPECT_EQ(gamma(), 0.99f);  // 0.3 + 1.55, capped
}

TEST_F(DecisionFrames, FifteenCandidatesAreHeldAndTheSixteenthSwitchesOn) {
    backlit(false);
    EXPECT_EQ(frame(), 0);
    expect_table(0.99f, 100, 255);  // the identity
    backlit(true);
    for (int k = 1; k <= 15; ++k) {
        EXPECT_EQ(frame(), 0) << k;
        EXPECT_EQ(c->on_count, 2 * k);
        EXPECT_EQ(applied(), 0);
        EXPECT_EQ(mid(), 100);
        EXPECT_EQ(gamma(), 0.99f);
        EXPECT_EQ(c->prev_top_level, 255);
    }
    EXPECT_EQ(frame(), 1);
    EXPECT_EQ(c->on_count, 31);
    EXPECT_EQ(mid(), 100);
    EXPECT_EQ(gamma(), 0.99f);
    EXPECT_EQ(applied(), 1);
    EXPECT_EQ(c->prev_top_level, 254);
    expect_table(0.99f, 100, 254);

    EXPECT_EQ(frame(), 1);  // now running: one step towards mid 144
    EXPECT_EQ(mid(), 101);
    EXPECT_EQ(gamma(), 0.99f - 0.01f);
    EXPECT_EQ(c->prev_top_level, 253);
    EXPECT_EQ(c->frames_plain, 16);
    EXPECT_EQ(c->frames_enhanced, 2);
}

TEST_F(DecisionFrames, SwitchingOffIsHeldTheSameWay) {
    running_curve(110, 0.8f, 1, 40);
    c->on_count = 40;
    c->prev_top_level = 240;
    backlit(false);
    for (int k = 1; k <= 15; ++k) {
        EXPECT_EQ(frame(), 1) << k;  // still building new curves
        EXPECT_EQ(c->off_count, 2 * k);
        EXPECT_EQ(c->on_count, 0);
        EXPECT_EQ(mid(), 110 + k);
        EXPECT_EQ(c->prev_top_level, std::max(240 - k, 230));
    }
    const float held_gamma = gamma();
    EXPECT_NEAR(held_gamma, 0.65f, 1e-5f);
    EXPECT_EQ(frame(), 1);  // relaxing now, still a curve to apply
    EXPECT_EQ(c->off_count, 31);
    EXPECT_EQ(mid(), 124);
    EXPECT_EQ(gamma(), held_gamma + 0.01f);
    EXPECT_EQ(c->prev_top_level, 231);
    EXPECT_EQ(applied(), 1);
}

TEST_F(DecisionFrames, RelaxationReachesTheIdentity) {
    running_curve(120, 0.9f, 1, 5);
    c->off_count = 30;
    c->prev_top_level = 240;
    backlit(false);
    float g = 0.9f;
    for (int k = 1; k <= 20; ++k) {
        EXPECT_EQ(frame(), 1) << k;
        EXPECT_EQ(mid(), 120 - k);
        g = std::min(g + 0.01f, 0.99f);
        EXPECT_EQ(gamma(), g);
        EXPECT_EQ(applied(), 1);
        EXPECT_EQ(c->prev_top_level, std::min(240 + k, 255));
    }
    EXPECT_EQ(gamma(), 0.99f);
    EXPECT_EQ(frame(), 0);  // the identity reports the frame's own answer
    EXPECT_EQ(mid(), 100);
    EXPECT_EQ(applied(), 0);
    expect_table(0.99f, 100, 255);
}

TEST_F(DecisionFrames, CandidateRightAfterARelaxingFrameSwitchesOnAtOnce) {
    running_curve(121, 0.9f, 1, 10);
    c->off_count = 30;
    backlit(false);
    EXPECT_EQ(frame(), 1);
    EXPECT_EQ(mid(), 120);
    EXPECT_EQ(c->on_count, 0);
    const int32_t top = c->prev_top_level;

    backlit(true);
    EXPECT_EQ(frame(), 1);
    EXPECT_EQ(c->on_count, 1);
    EXPECT_EQ(c->off_count, 0);
    EXPECT_EQ(mid(), 121);  // a step from the relaxing curve, not a restart
    EXPECT_EQ(gamma(), (0.9f + 0.01f) - 0.01f);
    EXPECT_EQ(c->prev_top_level, top - 1);
}

TEST_F(DecisionFrames, CaptureValueOfExactly002Vetoes) {
    auto first_frame_with_capture = [&](float value, bool registered) {
        stop();
        start(0.5f, 2);
        backlit(true);
        if (registered) qimra_register_capture_params(c, &value);
        return frame();
    };
    EXPECT_EQ(first_frame_with_capture(0.02f, true), 0);
    EXPECT_EQ(applied(), 0);
    EXPECT_EQ(c->frames_plain, 1);
    EXPECT_EQ(first_frame_with_capture(0.0199f, true), 1);
    EXPECT_EQ(first_frame_with_capture(0.5f, false), 1);
}

TEST_F(DecisionFrames, ModeOneShowsTheDecisionWithoutACurve) {
    stop();
    start(0.5f, 1);
    backlit(true);
    EXPECT_EQ(frame(), 1);
    EXPECT_EQ(mid(), 100);
    EXPECT_EQ(gamma(), 0.99f);
    EXPECT_EQ(applied(), 1);
    EXPECT_EQ(c->prev_top_level, 255);
    EXPECT_EQ(frame(), 1);
    EXPECT_EQ(c->on_count, 1);
    EXPECT_EQ(mid(), 100);
}

TEST_F(DecisionFrames, ModeZeroRebuildsTheFixedTable) {
    stop();
    start(0.5f, 0);
    backlit(true);
    EXPECT_EQ(frame(), 1);
    EXPECT_EQ(c->chroma_sigma, 4.0f);
    expect_table(0.5f, 128, 255);
    EXPECT_EQ(mid(), 144);  // the curve itself is still recorded
}

}  // namespace
}  // namespace qimra
