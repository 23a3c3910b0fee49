// The quality decision: its scene rules at both sides of every threshold,
// and its hysteresis and curve steps one frame at a time from a given state.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <tuple>
#include <vector>

#include "analysis/decision.h"
#include "analysis/peaks.h"
#include "support/engine_helpers.h"

namespace qimra {
namespace {

TEST(DecisionMeasures, EntropyBandsSplitAtTheirEdgesAndLeaveOutBin255) {
    std::vector<uint32_t> hist(256, 0);
    for (int b : {71, 72, 127, 128, 159, 160, 254, 255}) hist[b] = 100;
    const EntropyBands e = entropy_bands(hist.data(), 800);
    EXPECT_NEAR(e.dark, -0.375037f, 1e-5f);  // 1/8 * log10(1/8) / 0.301
    EXPECT_EQ(e.mid_low, 2 * e.dark);
    EXPECT_EQ(e.mid_high, 2 * e.dark);
    EXPECT_EQ(e.bright, 2 * e.dark);  // 160 and 254, not 255
}

TEST(DecisionMeasures, RegionWeightAndScore) {
    feature_vect regions[kRegionCount] = {};
    regions[3].peak_mean = 40.0f;
    regions[3].peak_mass = 0.5f;
    EXPECT_FLOAT_EQ(region_weight(regions), std::exp(-1.0f));  // weighted by mass only
    regions[5].peak_mean = NAN;                                // an empty dominant peak (0/0) spoils the weight
    EXPECT_TRUE(std::isnan(region_weight(regions)));

    feature_vect g{};
    g.peak_ratio_log = 2.0f;
    g.valley_mass = g.band_dark = 0.5f;
    g.band_mid_low = g.band_mid_high = 0.125f;
    g.band_bright = 0.25f;
    feature_vect sorted[13] = {};
    for (int i = 0; i < 4; ++i) sorted[i].posn_wt = 650.0f;
    sorted[4].posn_wt = 1e9f;                        // only the four smallest count
    EXPECT_EQ(scene_score(g, sorted, 0.75f), 1.0f);  // 0.5 - 1 - 0.25 + 0.25 + 1.5
}

TEST(DecisionMeasures, RulesAtBothSidesOfEveryThreshold) {
    const EntropyBands plain{-1, -1, -1, -1}, busy{-2, -2, -2, -2}, calm{0, -7.4f, 0, 0}, extremes{-2.6f, 0, 0, -2.6f},
        nearly{-2.56f, 0, 0, -2.56f};
    struct Row {
        float score;
        EntropyBands e;
        float q;
        bool veto;
        int apply, shadow;
    } rows[] = {
        {1.5f, plain, 10, false, 0, 0},     // strictly above 1.5
        {1.5001f, plain, 10, false, 1, 0},  //
        {1.9f, busy, 10, false, 0, 0},      // total -7.4 or less needs 2.0
        {2.0f, busy, 10, false, 1, 0},      //
        {1.9f, calm, 10, false, 1, 0},      // total exactly -7.4 is not busy
        {0.5f, extremes, 10, false, 1, 0},  // busy extremes force it on
        {0.5f, nearly, 10, false, 0, 0},    // -5.12 itself does not
        {0.5f, extremes, 3.9f, false, 0, 0},
        {1.0f, extremes, 3.9f, false, 1, 0},  // the deep-dark veto needs a score below 1
        {0.5f, extremes, 4.0f, false, 1, 0},  // and less than 4 % deep dark
        {1.2f, plain, 15.5f, false, 1, 1},    // a shadow scene
        {1.2f, plain, 15.0f, false, 0, 0},    //
        {1.2f, plain, 15.5f, true, 0, 1},     // the veto leaves shadow
        {3.0f, plain, 10, true, 0, 0},
        {NAN, plain, 20, false, 1, 1},  // a NaN score fails every comparison
        {NAN, plain, 2, false, 0, 0},
    };
    for (const Row& r : rows) {
        const Verdict v = judge_scene(r.score, r.e, r.q, r.veto);
        EXPECT_EQ(v.apply, r.apply) << "score " << r.score << " q " << r.q << " total " << r.e.total();
        EXPECT_EQ(v.shadow, r.shadow) << "score " << r.score << " q " << r.q;
    }
}

// Frames driven the way the frame path drives them: the history slot and the
// frame counter advance after each call and the capture flag is cleared.
class DecisionFrames : public ::testing::Test {
protected:
    void SetUp() override { start(0.5f, 2); }
    void TearDown() override { test::reset_globals(); }
    void start(float gamma, int32_t mode) {
        test::reset_globals();
        owned = std::make_unique<ctx>();
        c = owned.get();
        c->gamma = gamma;
        c->adaptive_mode = mode;
        c->prev_top_level = 255;
        for (float& g : c->gain_f) g = 1.0f;
    }
    // B: half the pixels at 40, half at 220 (raw mid 144, raw gamma 0), a
    // candidate through regions whose peaks sit at 0. N: the same with the
    // peaks at 255, never a candidate. D: a dark scene (raw mid 130, 70 % at
    // 40). M: 30 % dark, 30 % bright. S: 20 % deep dark, a shadow scene.
    void scene(char kind) {
        memset(c->global_hist, 0, sizeof c->global_hist);
        auto& h = c->global_hist;
        if (kind == 'B' || kind == 'N') h[40] = h[220] = 500;
        if (kind == 'D') h[40] = 700, h[100] = 300;
        if (kind == 'M') h[40] = h[220] = 300, h[100] = 400;
        if (kind == 'S') h[10] = 200, h[100] = 800;
        c->hist_pixel_count = 1000;
        for (int r = 0; r < kRegionCount; ++r) {
            c->region_features[r] = feature_vect{};
            c->region_features[r].region = r;
            c->region_features[r].peak_mean = kind == 'N' || kind == 'S' ? 255.0f : 0.0f;
            c->region_features[r].peak_mass = 1.0f;
        }
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
    void expect_table(float g, int32_t m, int32_t top) const {
        uint8_t want[256];
        create_gamma_tab(want, nullptr, g, static_cast<uint8_t>(m), top);
        EXPECT_EQ(memcmp(want, c->gamma_lut, sizeof want), 0) << "gamma " << g << " mid " << m << " top " << top;
    }
    std::unique_ptr<ctx> owned;
    ctx* c = nullptr;
};

// A state before the frame (scene, mode, configured gamma, frame count,
// the previous slot's mid, gamma and apply, on_count, off_count, top) and
// after it (result, which is also the apply recorded, mid, gamma, counters,
// top, which the table was built with).
struct Step {
    char scene;
    int mode;
    float cfg;
    int frames, mid0;
    float g0;
    int apply0, on0, off0, top0, result, mid;
    float g;
    int on, off, top;
};

const Step kSteps[] = {
    {'B', 2, .5f, 0, 0, 1, 0, 0, 0, 255, 1, 144, .5f, 0, 0, 254},        // first: mid 144 kept, gamma 0 raised
    {'B', 2, .1f, 0, 0, 1, 0, 0, 0, 255, 1, 144, .2f, 0, 0, 254},        // floor 0.2
    {'B', 2, 1.5f, 0, 0, 1, 0, 0, 0, 255, 1, 144, .99f, 0, 0, 254},      // cap 0.99
    {'M', 2, .3f, 0, 0, 1, 0, 0, 0, 255, 1, 126, 1 - .6f, 0, 0, 254},    // 100 + 0.6 * 44, gamma 1 - 0.6
    {'D', 2, .3f, 0, 0, 1, 0, 0, 0, 255, 1, 85, .99f, 0, 0, 254},        // dark: mid - 45, gamma + 1.55
    {'N', 2, .5f, 0, 0, 1, 0, 0, 0, 255, 0, 100, .99f, 0, 0, 255},       // no candidate: identity
    {'B', 2, .5f, 5, 100, .99f, 0, 0, 0, 255, 0, 100, .99f, 2, 0, 255},  // first held candidate: on_count climbs by two
    {'B', 2, .5f, 5, 100, .99f, 0, 29, 3, 255, 0, 100, .99f, 31, 0, 255},  // on_count 29 still holds
    {'B', 2, .5f, 5, 100, .99f, 0, 30, 0, 255, 1, 100, .99f, 31, 0,
     254},  // on_count 30 switches on next to the identity
    {'B', 2, .5f, 40, 110, .8f, 1, 31, 7, 240, 1, 111, .8f - .01f, 32, 0, 239},  // running: one step in mid and gamma
    {'B', 2, .5f, 40, 110, .8f, 1, 31, 0, 230, 1, 111, .8f - .01f, 32, 0, 230},  // running: the top stops at 230
    {'B', 2, .5f, 40, 150, .8f, 1, 31, 0, 231, 1, 144, .8f - .01f, 32, 0, 230},  // running: mid above 144 is cut to 144
    {'D', 2, .3f, 40, 90, .5f, 1, 31, 0, 240, 1, 89, .5f + .01f, 32, 0,
     239},  // running: dark scene steps mid down and gamma up
    {'B', 2, .5f, 40, 144, .4f, 1, 0, 0, 240, 1, 144, .5f, 1, 0, 239},  // running: gamma below the configured is raised
    {'N', 2, .5f, 40, 110, .8f, 1, 40, 0, 240, 1, 111, .8f - .01f, 0, 2,
     239},  // switching off held: a new curve, off_count by two
    {'N', 2, .5f, 40, 110, .8f, 1, 0, 29, 240, 1, 111, .8f - .01f, 0, 31, 239},  // off_count 29 still holds
    {'N', 2, .5f, 40, 110, .8f, 1, 0, 30, 240, 1, 109, .8f + .01f, 0, 31, 241},  // off_count 30 relaxes: one step back
    {'N', 2, .5f, 40, 101, .985f, 1, 0, 40, 254, 1, 100, .99f, 0, 41,
     255},  // relaxing: mid 101 lands on 100, gamma stops at 0.99
    {'N', 2, .5f, 40, 102, .9f, 1, 0, 40, 255, 1, 101, .9f + .01f, 0, 41,
     255},  // relaxing: mid 102 steps to 101, top stays at 255
    {'N', 2, .5f, 40, 100, .98f, 1, 0, 40, 250, 1, 100, .99f, 0, 41,
     251},  // relaxing: gamma short of 0.99 is one more step
    {'N', 2, .5f, 40, 100, .99f, 0, 12, 3, 255, 0, 100, .99f, 0, 4, 255},  // no candidate twice: on_count cleared
    {'B', 2, .5f, 10, 120, .91f, 1, 0, 31, 245, 1, 121, .91f - .01f, 1, 0,
     244},                                                          // candidate after a relaxing step: on at once
    {'B', 1, .5f, 0, 0, 1, 0, 0, 0, 255, 1, 100, .99f, 0, 0, 255},  // mode 1: identity, result 1
    {'B', 1, .5f, 40, 120, .9f, 1, 5, 0, 240, 1, 119, .9f + .01f, 6, 0,
     241},  // mode 1 running: relaxes instead of building
};

TEST_F(DecisionFrames, OneFrameFromAGivenState) {
    for (const Step& s : kSteps) {
        SCOPED_TRACE(testing::Message() << "step " << &s - kSteps);
        start(s.cfg, s.mode);
        scene(s.scene);
        c->frame_count = s.frames;
        c->hist_index = static_cast<uint8_t>(s.frames);
        c->strength_hist[last()] = s.mid0;
        c->gain_f[last()] = s.g0;
        c->aux_hist[last()] = s.apply0;
        c->on_count = s.on0;
        c->off_count = s.off0;
        c->prev_top_level = s.top0;
        EXPECT_EQ(frame(), s.result);
        EXPECT_EQ(c->strength_hist[last()], s.mid);
        EXPECT_EQ(c->gain_f[last()], s.g);
        EXPECT_EQ(c->aux_hist[last()], s.result);
        EXPECT_EQ(c->on_count, s.on);
        EXPECT_EQ(c->off_count, s.off);
        EXPECT_EQ(c->prev_top_level, s.top);
        expect_table(s.g, s.mid, s.top);
        EXPECT_EQ(c->frames_enhanced + 2 * c->frames_plain, s.result ? 1 : 2);
    }
}

TEST_F(DecisionFrames, SceneFiguresOfTheFrame) {
    scene('S');
    EXPECT_EQ(frame(), 1);        // neither a candidate nor busy: the shadow rule
    EXPECT_EQ(c->last_mid, 108);  // 100 + 0.2 * 44
    EXPECT_EQ(c->last_gamma, static_cast<float>(static_cast<double>(1.0f - 0.2f) - 0.15));  // not 0.8 - 0.2
    EXPECT_FLOAT_EQ(c->chroma_sigma, 3.1f);
    scene('B');
    EXPECT_EQ(frame(), 1);
    EXPECT_EQ(c->chroma_sigma, 5.5f);  // 2.5 + 3 at the cap
    EXPECT_EQ(c->band_copy[0], 0.5f);
    EXPECT_EQ(c->band_copy[3], 0.5f);
    EXPECT_EQ(memcmp(&c->sorted_features[12], &c->whole_features, sizeof(feature_vect)), 0);
    EXPECT_EQ(c->whole_features.region, -1);
}

TEST_F(DecisionFrames, UniformGreyKeepsNanWeightsInPlace) {
    std::vector<uint8_t> grey(64 * 48, 128);
    segment seg{grey.data(), nullptr, 64, 48, 64, 48};
    blc_gen_hist(grey.data(), 64, 48, 64, c, 1, 0);
    blc_local_hist_features(c, &seg, 0, 1);
    // Flat-topped peaks: every position weight, hence the score, is NaN, and
    // with no deep dark the frame is left alone.
    EXPECT_EQ(frame(), 0);
    EXPECT_EQ(c->last_mid, 100);
    EXPECT_EQ(c->chroma_sigma, 2.5f);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(c->sorted_features[i].region, i) << "NaN weights are never moved";
}

TEST_F(DecisionFrames, CaptureValueOfExactly002Vetoes) {
    for (const auto& [value, registered, result] : {std::tuple{0.02f, true, 0}, {0.0199f, true, 1}, {0.5f, false, 1}}) {
        start(0.5f, 2);
        scene('B');
        if (registered) qimra_register_capture_params(c, &value);
        EXPECT_EQ(frame(), result) << value;
        EXPECT_EQ(c->aux_hist[last()], result) << value;
    }
}

TEST_F(DecisionFrames, ModeZeroRebuildsTheFixedTable) {
    start(0.5f, 0);
    scene('B');
    EXPECT_EQ(frame(), 1);
    EXPECT_EQ(c->chroma_sigma, 4.0f);
    expect_table(0.5f, 128, 255);
    EXPECT_EQ(c->strength_hist[last()], 144);  // the curve is still recorded
}

}  // namespace
}  // namespace qimra
