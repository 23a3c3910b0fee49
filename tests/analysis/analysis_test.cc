// The analysis: decision rules and frame steps, the tone table, histogram
// peaks and the region features.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "analysis/decision.h"
#include "analysis/gamma_table.h"
#include "analysis/peaks.h"
#include "simd/convert.h"
#include "simd/neon.h"
#include "support/engine_helpers.h"
#include "support/media.h"

namespace qimra {
namespace {

TEST(DecisionMeasures, BandsWeightScoreAndRules) {
    std::vector<uint32_t> hist(256, 0);
    for (int b : {71, 72, 127, 128, 159, 160, 254, 255}) hist[b] = 100;
    const EntropyBands e = entropy_bands(hist.data(), 800);
    EXPECT_NEAR(e.dark, -0.375037f, 1e-5f);  // 1/8 * log10(1/8) / 0.301
    EXPECT_EQ(std::tuple(e.mid_low, e.mid_high, e.bright), std::tuple(2 * e.dark, 2 * e.dark, 2 * e.dark));  // not 255
    feature_vect regions[kRegionCount] = {}, g{}, sorted[13] = {};
    regions[3].peak_mean = 40.0f;
    regions[3].peak_mass = 0.5f;
    EXPECT_FLOAT_EQ(region_weight(regions), std::exp(-1.0f));  // weighted by mass only
    g.peak_ratio_log = 2.0f;
    g.valley_mass = g.band_dark = 0.5f;
    g.band_mid_low = g.band_mid_high = 0.125f;
    g.band_bright = 0.25f;
    for (int i = 0; i < 4; ++i) sorted[i].posn_wt = 650.0f;
    sorted[4].posn_wt = 1e9f;                        // only the four smallest count
    EXPECT_EQ(scene_score(g, sorted, 0.75f), 1.0f);  // 0.5 - 1 - 0.25 + 0.25 + 1.5

    const EntropyBands plain{-1, -1, -1, -1}, busy{-2, -2, -2, -2}, calm{0, -7.4f, 0, 0}, ext{-2.6f, 0, 0, -2.6f},
        nearly{-2.56f, 0, 0, -2.56f};
    const std::tuple<float, EntropyBands, float, bool, int, int> rows[] = {
        {1.5, plain, 10, 0, 0, 0},   {1.5001, plain, 10, 0, 1, 0},  // strictly above 1.5
        {1.9, busy, 10, 0, 0, 0},    {2, busy, 10, 0, 1, 0},        // total -7.4 or less needs 2.0
        {1.9, calm, 10, 0, 1, 0},                                   // total exactly -7.4 is not busy
        {.5, ext, 10, 0, 1, 0},      {.5, nearly, 10, 0, 0, 0},     // busy extremes force it on, -5.12 not
        {.5, ext, 3.9, 0, 0, 0},     {1, ext, 3.9, 0, 1, 0},        // the deep-dark veto needs score < 1
        {.5, ext, 4, 0, 1, 0},                                      // and less than 4 % deep dark
        {1.2, plain, 15.5, 0, 1, 1}, {1.2, plain, 15, 0, 0, 0},     // a shadow scene above 15 %
        {1.2, plain, 15.5, 1, 0, 1}, {3, plain, 10, 1, 0, 0},       // the veto leaves shadow
        {NAN, plain, 20, 0, 1, 1},   {NAN, plain, 2, 0, 0, 0},      // NaN fails every comparison
    };
    for (const auto& [score, e, q, veto, apply, shadow] : rows) {
        const Verdict v = judge_scene(score, e, q, veto);
        EXPECT_EQ(std::tuple(v.apply, v.shadow), std::tuple(apply, shadow)) << "score " << score << " q " << q;
    }
}

// Frames driven as the frame path drives them: history slot and frame count
// advance after each call and the capture flag is cleared.
struct Frames {
    std::unique_ptr<ctx> owned = std::make_unique<ctx>();
    ctx* c = owned.get();
    Frames(float gamma, int32_t mode) {
        test::reset_globals();
        c->gamma = gamma;
        c->adaptive_mode = mode;
        c->prev_top_level = 255;
        for (float& g : c->gain_f) g = 1.0f;
    }
    ~Frames() { test::reset_globals(); }
    // B: half at 40, half at 220 (raw mid 144, raw gamma 0), a candidate through regions peaking at 0; N: the
    // same peaking at 255, never a candidate; D: dark (raw mid 130, 70 % at 40); M: 30 % dark, 30 % bright;
    // S: 20 % deep dark, a shadow scene.
    void scene(char kind) {
        auto& h = c->global_hist;
        memset(h, 0, sizeof h);
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
};

// Before the frame: scene, mode, configured gamma, frame count, the previous slot's mid, gamma and apply,
// on_count, off_count, top. After it: result (also the apply recorded), mid, gamma, counters, top.
const std::tuple<char, int, float, int, int, float, int, int, int, int, int, int, float, int, int, int> kSteps[] = {
    {'B', 2, .5, 0, 0, 1, 0, 0, 0, 255, 1, 144, .5, 0, 0, 254},                 // first: mid 144 kept, gamma 0 raised
    {'B', 2, .1, 0, 0, 1, 0, 0, 0, 255, 1, 144, .2, 0, 0, 254},                 // floor 0.2
    {'B', 2, 1.5, 0, 0, 1, 0, 0, 0, 255, 1, 144, .99, 0, 0, 254},               // cap 0.99
    {'M', 2, .3, 0, 0, 1, 0, 0, 0, 255, 1, 126, 1 - .6f, 0, 0, 254},            // 100 + 0.6 * 44, gamma 1 - 0.6
    {'D', 2, .3, 0, 0, 1, 0, 0, 0, 255, 1, 85, .99, 0, 0, 254},                 // dark: mid - 45, gamma + 1.55
    {'N', 2, .5, 0, 0, 1, 0, 0, 0, 255, 0, 100, .99, 0, 0, 255},                // no candidate: identity
    {'B', 2, .5, 5, 100, .99, 0, 0, 0, 255, 0, 100, .99, 2, 0, 255},            // held candidate: on_count climbs by 2
    {'B', 2, .5, 5, 100, .99, 0, 29, 3, 255, 0, 100, .99, 31, 0, 255},          // on_count 29 still holds
    {'B', 2, .5, 5, 100, .99, 0, 30, 0, 255, 1, 100, .99, 31, 0, 254},          // 30 switches on next to the identity
    {'B', 2, .5, 40, 110, .8, 1, 31, 7, 240, 1, 111, .8f - .01f, 32, 0, 239},   // running: one step each
    {'B', 2, .5, 40, 110, .8, 1, 31, 0, 230, 1, 111, .8f - .01f, 32, 0, 230},   // the top stops at 230
    {'B', 2, .5, 40, 150, .8, 1, 31, 0, 231, 1, 144, .8f - .01f, 32, 0, 230},   // mid above 144 is cut to 144
    {'D', 2, .3, 40, 90, .5, 1, 31, 0, 240, 1, 89, .5f + .01f, 32, 0, 239},     // dark: mid down, gamma up
    {'B', 2, .5, 40, 144, .4, 1, 0, 0, 240, 1, 144, .5, 1, 0, 239},             // gamma below the configured
    {'N', 2, .5, 40, 110, .8, 1, 40, 0, 240, 1, 111, .8f - .01f, 0, 2, 239},    // off held: new curve, off_count +2
    {'N', 2, .5, 40, 110, .8, 1, 0, 29, 240, 1, 111, .8f - .01f, 0, 31, 239},   // off_count 29 still holds
    {'N', 2, .5, 40, 110, .8, 1, 0, 30, 240, 1, 109, .8f + .01f, 0, 31, 241},   // 30 relaxes: one step back
    {'N', 2, .5, 40, 101, .985, 1, 0, 40, 254, 1, 100, .99, 0, 41, 255},        // mid 101 lands on 100, gamma at 0.99
    {'N', 2, .5, 40, 102, .9, 1, 0, 40, 255, 1, 101, .9f + .01f, 0, 41, 255},   // mid 102 steps, top stays 255
    {'N', 2, .5, 40, 100, .98, 1, 0, 40, 250, 1, 100, .99, 0, 41, 251},         // gamma short of 0.99 steps
    {'N', 2, .5, 40, 100, .99, 0, 12, 3, 255, 0, 100, .99, 0, 4, 255},          // no candidate twice: on_count 0
    {'B', 2, .5, 10, 120, .91, 1, 0, 31, 245, 1, 121, .91f - .01f, 1, 0, 244},  // after relaxing: on at once
    {'B', 1, .5, 0, 0, 1, 0, 0, 0, 255, 1, 100, .99, 0, 0, 255},                // mode 1: identity, result 1
    {'B', 1, .5, 40, 120, .9, 1, 5, 0, 240, 1, 119, .9f + .01f, 6, 0, 241},     // mode 1 relaxes, not builds
};

TEST(DecisionFrames, OneFrameFromAGivenState) {
    int n = 0;
    for (const auto& [scene, mode, cfg, frames, mid0, g0, apply0, on0, off0, top0, result, mid, g, on, off, top] :
         kSteps) {
        SCOPED_TRACE(testing::Message() << "step " << n++);
        Frames f(cfg, mode);
        ctx* c = f.c;
        f.scene(scene);
        c->frame_count = c->hist_index = static_cast<uint8_t>(frames);
        c->strength_hist[f.last()] = mid0;
        c->gain_f[f.last()] = g0;
        c->aux_hist[f.last()] = apply0;
        c->on_count = on0;
        c->off_count = off0;
        c->prev_top_level = top0;
        EXPECT_EQ(f.frame(), result);
        EXPECT_EQ(std::tuple(c->strength_hist[f.last()], c->gain_f[f.last()], c->aux_hist[f.last()]),
                  std::tuple(mid, g, result));
        EXPECT_EQ(std::tuple(c->on_count, c->off_count, c->prev_top_level), std::tuple(on, off, top));
        f.expect_table(g, mid, top);
        EXPECT_EQ(c->frames_enhanced + 2 * c->frames_plain, result ? 1 : 2);
    }
}

TEST(DecisionFrames, SceneFiguresCaptureVetoAndModeZero) {
    Frames f(0.5f, 2);
    f.scene('S');
    EXPECT_EQ(f.frame(), 1);        // neither a candidate nor busy: the shadow rule
    EXPECT_EQ(f.c->last_mid, 108);  // 100 + 0.2 * 44
    EXPECT_EQ(f.c->last_gamma, static_cast<float>(static_cast<double>(1.0f - 0.2f) - 0.15));  // not 0.8 - 0.2
    EXPECT_FLOAT_EQ(f.c->chroma_sigma, 3.1f);
    f.scene('B');
    EXPECT_EQ(f.frame(), 1);
    EXPECT_EQ(std::tuple(f.c->chroma_sigma, f.c->band_copy[0], f.c->band_copy[3]), std::tuple(5.5f, .5f, .5f));
    EXPECT_EQ(memcmp(&f.c->sorted_features[12], &f.c->whole_features, sizeof(feature_vect)), 0);
    for (const auto& [value, registered, result] : {std::tuple{0.02f, 1, 0}, {0.0199f, 1, 1}, {0.5f, 0, 1}}) {
        Frames g(0.5f, 2);
        g.scene('B');
        if (registered) qimra_register_capture_params(g.c, &value);
        EXPECT_EQ(g.frame(), result) << value;
        EXPECT_EQ(g.c->aux_hist[g.last()], result) << value;
    }
    Frames z(0.5f, 0);
    z.scene('B');
    EXPECT_EQ(std::tuple(z.frame(), z.c->chroma_sigma, z.c->strength_hist[0]), std::tuple(1, 4.0f, 144));
    z.expect_table(0.5f, 128, 255);  // mode 0 rebuilds the fixed table but records the curve
}

TEST(GammaTab, PinnedEntries) {
    const std::tuple<float, int, int, std::vector<std::pair<int, int>>> rows[] = {
        {.5, 128, 230, {{1, 4}, {7, 28}, {8, 32}, {64, 90}, {248, 224}, {255, 230}}},  // power blocks, last included
        {.5, 128, 230, {{251, 227}, {252, 227}}},  // 191 steps: 140 * k / 191 truncated
        {.5, 128, 40, {{65, 90}, {68, 89}}},       // -50 / 191 is 0; -200 / 191 toward zero, not 88
        {.5, 128, -300, {{65, 88}, {255, 212}}},   // -390 / 191 = -2.04; 90 - 390 wraps to its low byte
        {2.5, 57, 250, {{64, 64}}},                // mid at most 64: the line starts from 64
        {.4, 64, 250, {{164, 161}}},               // 64 + trunc(186 * 100 / 191)
        {2, 8, 255, {{60, 196}, {16, 32}}},        // (49 + 4 * 15 / 8) * 8 = 452 wraps; power part to 63
        {1, 200, 230, {{5, 4}, {10, 9}}},          // the single-precision product truncates one short
        {.99, 100, 255, {{1, 1}, {63, 63}, {64, 64}, {200, 200}}},  // the relaxed curve is the identity
    };
    for (const auto& [gamma, mid, top, in_out] : rows) {
        std::array<uint8_t, 256> t;
        t.fill(0xA5);
        create_gamma_tab(t.data(), nullptr, gamma, static_cast<uint8_t>(mid), top);
        for (auto [in, out] : in_out) EXPECT_EQ(t[in], out) << gamma << " " << mid << " " << top << " " << in;
    }
}

// Every entry written (two fills agree), the first 0, the straight part the per-pixel line, at every
// alignment of a table that ends exactly at the end of its allocation.
TEST(GammaTab, EveryEntryWrittenStraightPartIsThePerPixelLine) {
    int offset = 0;
    for (float g : {0.3f, 0.5f, 1.0f, 1.7f, 3.0f})
        for (int m : {0, 1, 40, 64, 100, 128, 200, 255})
            for (int top : {0, 17, 90, 230, 255, 600, -300}) {
                std::vector<uint8_t> b(++offset % 16 + 256, 0xFF);
                uint8_t* out = b.data() + offset % 16;
                std::array<uint8_t, 256> a{}, want;
                create_gamma_tab(a.data(), nullptr, g, static_cast<uint8_t>(m), top);
                create_gamma_tab(out, nullptr, g, static_cast<uint8_t>(m), top);
                want = a;
                gamma_line_c(want.data(), want[64], static_cast<int64_t>(top) - want[64], 1, 192);
                ASSERT_TRUE(std::equal(a.begin(), a.end(), out))
                    << "an entry left unwritten: " << g << " " << m << " " << top;
                ASSERT_EQ(a, want) << g << " " << m << " " << top;
                ASSERT_EQ(a[0], 0);
            }
}

#if QIMRA_HAVE_NEON
// The reciprocal division must equal the integer division for every k and d reachable.
TEST(GammaTab, VectorLineIsExactForEveryReachableProduct) {
    for (int32_t d = -255; d <= 255; ++d)
        for (int32_t b : {0, 1, 90, 128, 255}) {
            std::array<uint8_t, 256 + 16> c{}, v{};
            gamma_line_c(c.data(), b, d, 1, 192);
            gamma_line_neon(v.data(), b, d, 1, 177);
            gamma_line_neon(v.data(), b, d, 176, 192);
            ASSERT_EQ(v, c) << "d " << d << " b " << b;
        }
}
#endif

using Hist = std::array<int32_t, 256>;

feature_vect locate(const Hist& h) {
    std::vector<peak_descr> scratch(kMaxPeaks);  // exactly the most records: the sanitizer sees any more
    feature_vect out{};
    blc_locate_hist_peaks(h.data(), &out, scratch.data());
    return out;
}

SmoothedHist smoothed(std::initializer_list<std::pair<int, int32_t>> entries) {
    SmoothedHist s{};
    for (auto [i, v] : entries) s[i] = v;
    return s;
}

std::vector<peak_descr> bounded_peaks(const SmoothedHist& s) {
    std::vector<peak_descr> peaks(kMaxPeaks);
    const int n = detect_peaks(s, 0, peaks.data());
    peaks.resize(n);
    std::vector<int> order(n), used(n, 0);
    peak_sort(peaks.data(), order.data(), used.data(), n);
    set_inner_bounds(s, peaks.data(), order.data(), n);
    set_outer_bounds(s, peaks.data(), n);
    return peaks;
}

TEST(Peaks, SmoothingDetectionAndSort) {
    Hist h{};
    SmoothedHist s;
    for (auto [bin, count, first, want] : {std::tuple{100, 6997, 97, 1000}, {0, 6997, -3, 1000}, {255, 4, 252, 1}}) {
        h = {};
        h[bin] = count;  // (6997 + 3) / 7 = 1000; (4 + 3) * 0.14285715f lies just above 1
        smooth_histogram(h.data(), s);
        for (int i = kSmoothFirst; i <= kSmoothLast; ++i) ASSERT_EQ(s[i], i >= first && i < first + 7 ? want : 0) << i;
    }
    // Counts whose sums wrap: each entry is the wrapped sum of its seven bins.
    test::fill_random(reinterpret_cast<uint8_t*>(h.data()), sizeof h, 11);
    smooth_histogram(h.data(), s);
    for (int i = kSmoothFirst; i <= kSmoothLast; ++i) {
        uint32_t sum = 3;
        for (int k = std::max(i - 3, 0); k <= std::min(i + 3, 255); ++k) sum += static_cast<uint32_t>(h[k]);
        ASSERT_EQ(s[i], sat_i32_from_float(static_cast<float>(static_cast<int32_t>(sum)) * 0.14285715f)) << i;
    }

    std::vector<peak_descr> p(kMaxPeaks);
    s = smoothed({{100, 50}, {101, 40}, {102, 50}});
    ASSERT_EQ(detect_peaks(s, 0, p.data()), 1);  // within three bins only the first stands
    EXPECT_EQ(std::tuple(p[0].pos, p[0].height), std::tuple(100, 50));
    EXPECT_EQ(detect_peaks(s, 50, p.data()), 0);  // the threshold is strict
    s = smoothed({{100, 50}, {101, 40}, {102, 40}, {103, 50}});
    ASSERT_EQ(detect_peaks(s, 0, p.data()), 2);  // three bins on, an equal left neighbour does not stop it
    EXPECT_EQ(p[1].pos, 103);

    for (int i = 0; i < 5; ++i) p[i].height = std::vector{5, 9, 5, 9, 1}[i];
    std::vector<int> order(5), used(5, 0);
    peak_sort(p.data(), order.data(), used.data(), 5);
    EXPECT_EQ(order, (std::vector<int>{1, 3, 0, 2, 4}));  // ties keep index order
    used = {0, 1, 0, 0, 0};
    peak_sort(p.data(), order.data(), used.data(), 5);
    EXPECT_EQ(order, (std::vector<int>{3, 0, 2, 4, 0}));  // exhaustion writes 0
}

TEST(Peaks, FlanksLevelsAndValleys) {
    // A higher count on the flank before 90 % is reached drops the peak; 90 % of 60 is trunc(54.0).
    auto p =
        bounded_peaks(smoothed({{97, 47}, {98, 47}, {99, 47}, {100, 50}, {101, 47}, {102, 47}, {103, 47}, {104, 60}}));
    ASSERT_EQ(p.size(), 2u);
    EXPECT_EQ(std::tuple(p[0].valid, p[1].valid, p[1].inner_lo, p[1].inner_hi), std::tuple(0, 1, 103, 105));
    // 0.9 * 10,000,000 in double is 9,000,000; through a float 0.9, 8,999,999.
    p = bounded_peaks(smoothed({{199, 8999999}, {200, 10000000}, {201, 9000000}, {202, 9000000}}));
    EXPECT_EQ(std::tuple(p[0].inner_lo, p[0].inner_hi), std::tuple(199, 203));
    SmoothedHist s{};
    for (int i = 10; i <= 50; ++i) s[i] = 50 - 2 * std::min(std::abs(i - 20), std::abs(i - 40));
    s[29] = s[31] = 30;  // a flat valley floor 29..31: each peak keeps the end nearest it
    p = bounded_peaks(s);
    ASSERT_EQ(p.size(), 2u);
    EXPECT_EQ(std::tuple(p[0].pos, p[0].left, p[0].right, p[1].left, p[1].right), std::tuple(20, 9, 29, 31, 51));
    p = bounded_peaks(smoothed({{-3, 1}, {-2, 5}, {-1, 10}, {0, 20}, {1, 30}, {2, 20}, {3, 10}}));
    EXPECT_EQ(std::tuple(p[0].pos, p[0].left, p[0].right), std::tuple(1, -3, 4));  // into the guard entries
}

// Features whose rounding or quirk a real photograph would not show.
TEST(Peaks, FeatureQuirks) {
    Hist h{};
    h[100] = 8192;  // a plateau of three equal peaks; the dominant one's right valley is itself: no mass
    feature_vect f = locate(h);
    EXPECT_EQ(std::tuple(f.band_mid_low, f.hist_mean, f.peak_mass), std::tuple(1.0f, 100.0f, 0.0f));
    EXPECT_TRUE(std::isnan(f.peak_mean) && std::isnan(f.posn_wt));
    EXPECT_EQ(f.peak_ratio_log, static_cast<float>(std::log(0.01f)));  // no extreme peak
    h = {};
    h[0] = h[3] = 512;
    f = locate(h);
    EXPECT_EQ(f.hist_mean, 1.0f);                  // 1.5 truncated
    EXPECT_FLOAT_EQ(f.hist_std, std::sqrt(3.5f));  // 4.5 - 1 * 1, not 4.5 - 2.25
    h = {};
    h[255] = 70000;  // 65025 * 70000 wraps far below the square of the mean
    EXPECT_TRUE(std::isnan(locate(h).hist_std));
    h = {};
    h[0] = 800;  // bin 0 is no dark-peak candidate
    h[10] = 50;
    h[40] = 150;  // dark, not deep dark
    f = locate(h);
    EXPECT_EQ(std::tuple(f.dark_peak_level, f.deep_dark),
              std::tuple(150.0f * (1.0f / 1000.0f), (1.0f / 1000.0f) * 850.0f));
    h = {};
    h[30] = 2000;
    EXPECT_FLOAT_EQ(locate(h).peak_ratio_log, std::log(10.0f));  // no mid-tone peak
    h = {};
    h[40] = h[220] = 500;  // from the dark flat top at 37 to the bright left valley 216
    EXPECT_EQ(locate(h).valley_mass, 497.0f / 1000.0f);
    for (int i = 40; i < 256; ++i) h[i] = 265 - i;  // a dark peak whose valley is guard entry 258
    EXPECT_EQ(locate(h).valley_mass, 0.0f);
}

// Every pixel of a 10 x 7 image holds its own index; regions are addressed with the width as pitch (the
// stride is wrong on purpose), and the last column and row of regions take what the division leaves over.
TEST(LocalFeatures, CellsCoverTheImageAndCoresSplitTheRegions) {
    std::vector<uint8_t> img(70);
    for (int i = 0; i < 70; ++i) img[i] = static_cast<uint8_t>(i);
    segment seg{img.data(), nullptr, 10, 7, 37, 7};
    auto c = std::make_unique<ctx>();
    blc_local_hist_features(c.get(), &seg, 0, 1);
    const int col_x[5] = {0, 2, 4, 6, 10}, row_y[4] = {0, 2, 4, 7};
    for (int r = 0; r < kRegionCount; ++r)
        for (int v = 0; v < 256; ++v) {
            const int x = v % 10, y = v / 10;
            const bool in =
                v < 70 && x >= col_x[r % 4] && x < col_x[r % 4 + 1] && y >= row_y[r / 4] && y < row_y[r / 4 + 1];
            ASSERT_EQ(c->region_hist[r][v], in ? 1u : 0u) << "region " << r << " value " << v;
        }
    for (auto [core, cores, first, end] : {std::tuple{0, 1, 0, 12},
                                           {0, 2, 0, 6},
                                           {1, 2, 6, 12},
                                           {3, 5, 6, 8},
                                           {4, 5, 8, 12},
                                           {11, 13, 0, 0},
                                           {12, 13, 0, 12}}) {
        for (feature_vect& f : c->region_features) f.region = -7;
        blc_local_hist_features(c.get(), &seg, core, cores);
        for (int r = 0; r < kRegionCount; ++r)
            EXPECT_EQ(c->region_features[r].region, r >= first && r < end ? r : -7) << core << " of " << cores;
    }
}

// The region histograms and features of real photographs, on one core and on two at once.
TEST(LocalFeatures, GoldenFeaturesOfRealPhotographs) {
    for (auto [name, golden] : {std::pair{"pier", 4084917510731759148ull}, {"darkest", 5153620811602216207ull}}) {
        std::vector<uint8_t> img = test::load_i420(name, 640, 480);  // its luma plane comes first
        segment seg{img.data(), nullptr, 640, 480, 640, 480};
        auto one = std::make_unique<ctx>(), two = std::make_unique<ctx>();
        blc_local_hist_features(one.get(), &seg, 0, 1);
        std::thread worker([&] { blc_local_hist_features(two.get(), &seg, 1, 2); });
        blc_local_hist_features(two.get(), &seg, 0, 2);
        worker.join();
        EXPECT_EQ(test::fnv1a(reinterpret_cast<uint8_t*>(one->region_features), sizeof one->region_features) ^
                      test::fnv1a(reinterpret_cast<uint8_t*>(one->region_hist), sizeof one->region_hist),
                  golden)
            << name;
        EXPECT_EQ(memcmp(one->region_features, two->region_features, sizeof one->region_features), 0) << name;
    }
}

// The comb with the most peaks detection allows in every region: the last region's share of the scratch
// must still hold all of them.
TEST(LocalFeatures, MaximalPeaksInRegionElevenStayInsideScratch) {
    std::vector<uint8_t> comb, img;
    for (int j = 0; j < 256; ++j)
        if (j % 7 < 4) comb.push_back(static_cast<uint8_t>(j));
    for (int k = 0; k < 12; ++k) img.insert(img.end(), comb.begin(), comb.end());
    const int width = 4 * static_cast<int>(comb.size());
    segment seg{img.data(), nullptr, width, 3, width, 3};
    auto c = std::make_unique<ctx>();
    blc_local_hist_features(c.get(), &seg, 0, 1);
    EXPECT_FLOAT_EQ(c->region_features[11].peak_count_log, std::log(0.01f + 86.0f / 64.0f));
}

TEST(FeatureSort, AscendingByExchangesNanNeverMoved) {
    auto sorted = [](std::vector<float> weights) {
        std::vector<feature_vect> src(weights.size()), dst(weights.size());
        for (size_t i = 0; i < src.size(); ++i) src[i].posn_wt = weights[i], src[i].region = static_cast<int32_t>(i);
        sort_feature_vect(src.data(), dst.data(), static_cast<int>(src.size()), compare_peak_posn_wt);
        std::vector<int> regions;
        for (const feature_vect& f : dst) regions.push_back(f.region);
        return regions;
    };
    using V = std::vector<int>;
    EXPECT_EQ(sorted({3, 1, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12}), (V{1, 2, 0, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    EXPECT_EQ(sorted({2, 1, 2, 1}), (V{1, 3, 2, 0}));    // a stable sort would give 1, 3, 0, 2
    EXPECT_EQ(sorted({NAN, 1, 2, 0}), (V{0, 3, 1, 2}));  // NaN compares greater than nothing
}

}  // namespace
}  // namespace qimra
