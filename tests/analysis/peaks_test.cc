// Histogram peak location: smoothing, detection, bounds and the features
// of hand-analysed histograms.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "analysis/peaks.h"
#include "simd/convert.h"
#include "support/engine_helpers.h"

namespace qimra {
namespace {

using Hist = std::array<int32_t, 256>;

feature_vect locate(const Hist& h) {
    std::vector<peak_descr> scratch(kMaxPeaks);  // exactly the most records: the sanitizer sees any more
    feature_vect out{};
    blc_locate_hist_peaks(h.data(), &out, scratch.data());
    return out;
}

SmoothedHist smoothed(std::initializer_list<std::pair<int, int32_t>> entries) {
    SmoothedHist s;
    for (int i = kSmoothFirst; i <= kSmoothLast; ++i) s[i] = 0;
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

TEST(PeaksSmoothing, SevenBinsWithARoundingTermIntoTheGuards) {
    Hist h{};
    SmoothedHist s;
    for (auto [bin, count, first, want] : {std::tuple{100, 6997, 97, 1000}, {0, 6997, -3, 1000}, {255, 4, 252, 1}}) {
        h = {};
        h[bin] = count;  // (6997 + 3) / 7 = 1000; (4 + 3) * 0.14285715f lies just above 1
        smooth_histogram(h.data(), s);
        for (int i = kSmoothFirst; i <= kSmoothLast; ++i)
            ASSERT_EQ(s[i], i >= first && i < first + 7 ? want : 0) << "bin " << bin << " entry " << i;
    }
    h[255] = 3;
    smooth_histogram(h.data(), s);
    EXPECT_EQ(s[258], 0);
    // Counts whose sums wrap: each entry is the wrapped sum of its seven bins.
    test::fill_random(reinterpret_cast<uint8_t*>(h.data()), sizeof h, 11);
    smooth_histogram(h.data(), s);
    for (int i = kSmoothFirst; i <= kSmoothLast; ++i) {
        uint32_t sum = 3;
        for (int k = std::max(i - 3, 0); k <= std::min(i + 3, 255); ++k) sum += static_cast<uint32_t>(h[k]);
        ASSERT_EQ(s[i], sat_i32_from_float(static_cast<float>(static_cast<int32_t>(sum)) * 0.14285715f)) << i;
    }
}

TEST(PeaksDetection, EqualMaximaAndTheStepOfThree) {
    std::vector<peak_descr> p(kMaxPeaks);
    SmoothedHist s = smoothed({{100, 50}, {101, 40}, {102, 50}});
    ASSERT_EQ(detect_peaks(s, 0, p.data()), 1);  // within three bins only the first stands
    EXPECT_EQ(p[0].pos, 100);
    EXPECT_EQ(p[0].height, 50);
    EXPECT_EQ(detect_peaks(s, 50, p.data()), 0);  // the threshold is strict
    // Three bins apart the scan lands on the second maximum, whose equal
    // left neighbour does not stop it.
    s = smoothed({{100, 50}, {101, 40}, {102, 40}, {103, 50}});
    ASSERT_EQ(detect_peaks(s, 0, p.data()), 2);
    EXPECT_EQ(p[1].pos, 103);
}

TEST(PeaksSort, TiesKeepIndexOrderAndExhaustionWritesZero) {
    std::vector<peak_descr> peaks(5);
    const int heights[5] = {5, 9, 5, 9, 1};
    for (int i = 0; i < 5; ++i) peaks[i].height = heights[i];
    std::vector<int> order(5), used(5, 0);
    peak_sort(peaks.data(), order.data(), used.data(), 5);
    EXPECT_EQ(order, (std::vector<int>{1, 3, 0, 2, 4}));
    used = {0, 1, 0, 0, 0};
    peak_sort(peaks.data(), order.data(), used.data(), 5);
    EXPECT_EQ(order, (std::vector<int>{3, 0, 2, 4, 0}));
}

TEST(PeaksBounds, FlanksLevelsAndValleys) {
    // A higher count on the flank before 90 % is reached drops the peak; the
    // 90 % level of 60 is trunc(54.0), which 47 is below.
    auto p =
        bounded_peaks(smoothed({{97, 47}, {98, 47}, {99, 47}, {100, 50}, {101, 47}, {102, 47}, {103, 47}, {104, 60}}));
    ASSERT_EQ(p.size(), 2u);
    EXPECT_EQ(p[0].valid, 0);
    EXPECT_EQ(std::tuple(p[1].valid, p[1].inner_lo, p[1].inner_hi), std::tuple(1, 103, 105));
    // 0.9 * 10,000,000 in double is 9,000,000; through a float 0.9, 8,999,999.
    p = bounded_peaks(smoothed({{199, 8999999}, {200, 10000000}, {201, 9000000}, {202, 9000000}}));
    EXPECT_EQ(std::tuple(p[0].inner_lo, p[0].inner_hi), std::tuple(199, 203));

    SmoothedHist s = smoothed({});
    for (int i = 10; i <= 50; ++i) s[i] = 50 - 2 * std::min(std::abs(i - 20), std::abs(i - 40));
    s[29] = s[31] = 30;  // a flat valley floor 29..31: each peak keeps the end nearest it
    p = bounded_peaks(s);
    ASSERT_EQ(p.size(), 2u);
    EXPECT_EQ(std::tuple(p[0].pos, p[0].left, p[0].right, p[1].left, p[1].right), std::tuple(20, 9, 29, 31, 51));
    // Without a neighbour the scan runs into the guard entries.
    p = bounded_peaks(smoothed({{-3, 1}, {-2, 5}, {-1, 10}, {0, 20}, {1, 30}, {2, 20}, {3, 10}}));
    EXPECT_EQ(std::tuple(p[0].pos, p[0].left, p[0].right), std::tuple(1, -3, 4));
}

TEST(PeaksFeatures, HandAnalysedHistograms) {
    // One bin: the plateau b-3..b+3 holds three equal peaks; the dominant
    // one has its right valley on itself, so its range holds no count.
    Hist h{};
    h[100] = 8192;  // plateau height trunc(8195 / 7) = 1170
    feature_vect f = locate(h);
    EXPECT_EQ(std::tuple(f.band_dark, f.band_mid_low, f.hist_mean, f.hist_std), std::tuple(0.0f, 1.0f, 100.0f, 0.0f));
    EXPECT_TRUE(std::isnan(f.peak_mean) && std::isnan(f.peak_std) && std::isnan(f.posn_wt));
    EXPECT_EQ(std::tuple(f.peak_mass, f.valley_mass, f.dark_peak_level), std::tuple(0.0f, 1.0f, 0.0f));
    EXPECT_EQ(f.peak_ratio_log, static_cast<float>(std::log(0.01f)));  // no extreme peak
    EXPECT_FLOAT_EQ(f.peak_count_log, std::log(0.01f + 3.0f / 64.0f));
    EXPECT_FLOAT_EQ(f.core_sharpness, std::cbrt(1170.0f / 8192.0f));  // core width 8
    EXPECT_FLOAT_EQ(f.bimodality, 0.5f * std::sqrt(0.75f));           // equal peaks 3 bins apart

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
    EXPECT_EQ(f.dark_peak_level, 150.0f * (1.0f / 1000.0f));
    EXPECT_EQ(f.deep_dark, (1.0f / 1000.0f) * 850.0f);

    h = {};
    h[30] = 2000;  // plateau heights 286 and 143
    h[100] = 1000;
    EXPECT_FLOAT_EQ(locate(h).peak_ratio_log, std::log(2.0f));
    h[100] = 0;
    EXPECT_FLOAT_EQ(locate(h).peak_ratio_log, std::log(10.0f));  // no mid-tone peak

    // A triangle 1,2,3,4,3,2,1 (x7) smooths to one peak of 16 at 50, valleys
    // at 43 and 57, mass 112.
    h = {};
    const int32_t tri[] = {7, 14, 21, 28, 21, 14, 7};
    for (int i = 0; i < 7; ++i) h[47 + i] = tri[i];
    f = locate(h);
    EXPECT_EQ(std::tuple(f.peak_mean, f.peak_mass, f.bimodality), std::tuple(50.0f, 1.0f, 0.0f));
    EXPECT_FLOAT_EQ(f.peak_std, std::sqrt(6.5f));
    const double slope = 16.0f / 784.0f;  // 16 / (112 * 7) on either side
    EXPECT_EQ(f.posn_wt, static_cast<float>(78.0 * (std::log(slope) + std::log(slope)) * 0.5));
    EXPECT_FLOAT_EQ(f.core_sharpness, std::cbrt(8.0f * (16.0f / 112.0f) / 4.0f));  // core 48..52

    h = {};
    h[40] = h[220] = 500;  // from the dark flat top at 37 to the bright left valley 216
    EXPECT_EQ(locate(h).valley_mass, 497.0f / 1000.0f);
    h = {};
    for (int i = 40; i < 256; ++i) h[i] = 265 - i;  // a dark peak whose valley is guard entry 258
    EXPECT_EQ(locate(h).valley_mass, 0.0f);
}

// 1 in every bin j with j mod 7 < 4 smooths to a flat line of ones: a peak
// on every third bin, the largest number detection allows.
TEST(PeaksScratch, MaximalCombFillsExactlyTheScratch) {
    Hist h{};
    for (int j = 0; j < 256; ++j) h[j] = j % 7 < 4 ? 1 : 0;
    std::vector<peak_descr> scratch(kMaxPeaks);
    feature_vect f{};
    blc_locate_hist_peaks(h.data(), &f, scratch.data());
    for (int k = 0; k < kMaxPeaks; ++k) EXPECT_EQ(std::tuple(scratch[k].pos, scratch[k].valid), std::tuple(3 * k, 1));
    EXPECT_FLOAT_EQ(f.peak_count_log, std::log(0.01f + 86.0f / 64.0f));
}

}  // namespace
}  // namespace qimra
