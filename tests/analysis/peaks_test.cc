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
    // Exactly the largest possible number of records, so that the address
    // sanitizer reports any write past them.
    std::vector<peak_descr> scratch(kMaxPeaks);
    feature_vect out{};
    out.region = 77;
    out.word16 = 78;
    blc_locate_hist_peaks(h.data(), &out, scratch.data());
    EXPECT_EQ(out.region, 77) << "the locator leaves the region word to its caller";
    EXPECT_EQ(out.word16, 78);
    return out;
}

SmoothedHist zero_smoothed() {
    SmoothedHist s;
    for (int i = kSmoothFirst; i <= kSmoothLast; ++i) s[i] = 0;
    return s;
}

// Detection, height order, inner and outer bounds on a hand-made smoothed array.
std::vector<peak_descr> bounded_peaks(const SmoothedHist& s, int32_t threshold = 0) {
    std::vector<peak_descr> peaks(kMaxPeaks);
    const int n = detect_peaks(s, threshold, peaks.data());
    peaks.resize(n);
    std::vector<int> order(n), used(n, 0);
    peak_sort(peaks.data(), order.data(), used.data(), n);
    set_inner_bounds(s, peaks.data(), order.data(), n);
    set_outer_bounds(s, peaks.data(), n);
    return peaks;
}

TEST(PeaksSmoothing, OneBinSpreadsOverSevenEntriesIntoTheGuards) {
    Hist h{};
    h[100] = 6997;  // (6997 + 3) / 7 = 1000
    SmoothedHist s;
    smooth_histogram(h.data(), s);
    for (int i = kSmoothFirst; i <= kSmoothLast; ++i) EXPECT_EQ(s[i], (i >= 97 && i <= 103) ? 1000 : 0) << i;

    h = {};
    h[0] = 6997;
    smooth_histogram(h.data(), s);
    for (int i = -3; i <= 3; ++i) EXPECT_EQ(s[i], 1000) << i;
    EXPECT_EQ(s[4], 0);

    h = {};
    h[255] = 4;  // (4 + 3) * 0.14285715f lies just above 1
    smooth_histogram(h.data(), s);
    EXPECT_EQ(s[258], 1);
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

TEST(PeaksDetection, EqualMaximaWithinThreeBinsGiveTheFirstOnly) {
    std::vector<peak_descr> peaks(kMaxPeaks);
    SmoothedHist s = zero_smoothed();
    s[100] = s[102] = 50;
    s[101] = 40;
    ASSERT_EQ(detect_peaks(s, 0, peaks.data()), 1);
    EXPECT_EQ(peaks[0].pos, 100);
    EXPECT_EQ(peaks[0].height, 50);
    EXPECT_EQ(peaks[0].valid, 1);
    EXPECT_EQ(detect_peaks(s, 50, peaks.data()), 0);  // the threshold is strict

    // Three bins apart the scan lands on the second maximum and takes it too.
    s[101] = s[102] = 40;
    s[103] = 50;
    ASSERT_EQ(detect_peaks(s, 0, peaks.data()), 2);
    EXPECT_EQ(peaks[1].pos, 103);
}

TEST(PeaksSort, TiesKeepIndexOrderAndExhaustionWritesZero) {
    std::vector<peak_descr> peaks(5);
    const int heights[5] = {5, 9, 5, 9, 1};
    for (int i = 0; i < 5; ++i) peaks[i].height = heights[i];
    int order[5];
    int used[5] = {};
    peak_sort(peaks.data(), order, used, 5);
    EXPECT_EQ(std::vector<int>(order, order + 5), (std::vector<int>{1, 3, 0, 2, 4}));

    int used_before[5] = {0, 1, 0, 0, 0};
    peak_sort(peaks.data(), order, used_before, 5);
    EXPECT_EQ(std::vector<int>(order, order + 5), (std::vector<int>{3, 0, 2, 4, 0}));
}

TEST(PeaksBounds, FlankPeakIsDroppedAndTheLevelIsTakenInDouble) {
    SmoothedHist s = zero_smoothed();
    for (int i = 97; i <= 103; ++i) s[i] = 47;
    s[100] = 50;
    s[104] = 60;  // higher than 50 before the flank falls below 45
    std::vector<peak_descr> peaks = bounded_peaks(s);
    ASSERT_EQ(peaks.size(), 2u);
    EXPECT_EQ(peaks[0].pos, 100);
    EXPECT_EQ(peaks[0].valid, 0);
    EXPECT_EQ(peaks[1].pos, 104);
    EXPECT_EQ(peaks[1].valid, 1);
    EXPECT_EQ(peaks[1].inner_lo, 103);  // 47 < trunc(54.0)
    EXPECT_EQ(peaks[1].inner_hi, 105);

    // 0.9 * 10,000,000 in double is 9,000,000; through a float 0.9 it would
    // truncate to 8,999,999.
    s = zero_smoothed();
    s[200] = 10000000;
    s[199] = 8999999;
    s[201] = 9000000;
    s[202] = 9000000;
    peaks = bounded_peaks(s);
    ASSERT_EQ(peaks.size(), 1u);
    EXPECT_EQ(peaks[0].inner_lo, 199);
    EXPECT_EQ(peaks[0].inner_hi, 203);
}

TEST(PeaksBounds, ValleysKeepTheNearestMinimumAndReachTheGuards) {
    SmoothedHist s = zero_smoothed();
    for (int i = 10; i <= 50; ++i) s[i] = 50 - 2 * std::min(std::abs(i - 20), std::abs(i - 40));
    s[29] = s[31] = 30;  // a flat valley floor 29..31
    std::vector<peak_descr> peaks = bounded_peaks(s);
    ASSERT_EQ(peaks.size(), 2u);
    EXPECT_EQ(peaks[0].pos, 20);
    EXPECT_EQ(peaks[0].left, 9);    // first of the zeros below 10
    EXPECT_EQ(peaks[0].right, 29);  // the floor's end nearest the peak
    EXPECT_EQ(peaks[1].left, 31);
    EXPECT_EQ(peaks[1].right, 51);

    // Without a neighbour the scan runs into the guard entries.
    s = zero_smoothed();
    const int32_t ramp[] = {1, 5, 10, 20, 30, 20, 10};  // indices -3..3
    for (int i = -3; i <= 3; ++i) s[i] = ramp[i + 3];
    peaks = bounded_peaks(s);
    ASSERT_EQ(peaks.size(), 1u);
    EXPECT_EQ(peaks[0].pos, 1);
    EXPECT_EQ(peaks[0].left, -3);
    EXPECT_EQ(peaks[0].right, 4);
}

// All pixels in one bin b: the smoothed plateau b-3..b+3 holds three equal
// peaks (b-3, b, b+3). The dominant one, b-3, has its right valley on itself
// (nothing between it and b is lower), so its range [b-4, b-3) holds only a
// zero count.
TEST(PeaksFeatures, SingleBinHistogram) {
    Hist h{};
    h[100] = 8192;  // plateau height trunc(8195 / 7) = 1170
    const feature_vect f = locate(h);
    EXPECT_EQ(f.band_dark, 0.0f);
    EXPECT_EQ(f.band_mid_low, 1.0f);
    EXPECT_EQ(f.band_mid_high, 0.0f);
    EXPECT_EQ(f.band_bright, 0.0f);
    EXPECT_EQ(f.hist_mean, 100.0f);
    EXPECT_EQ(f.hist_std, 0.0f);
    EXPECT_TRUE(std::isnan(f.peak_mean));
    EXPECT_TRUE(std::isnan(f.peak_std));
    EXPECT_EQ(f.peak_mass, 0.0f);
    EXPECT_EQ(f.peak_ratio_log, static_cast<float>(std::log(0.01f)));
    // The same flat top gives the dark-half peak a right slope of 0/0.
    EXPECT_TRUE(std::isnan(f.posn_wt));
    EXPECT_EQ(f.valley_mass, 1.0f);
    EXPECT_EQ(f.dark_peak_level, 0.0f);
    EXPECT_EQ(f.deep_dark, 0.0f);

    EXPECT_FLOAT_EQ(f.peak_count_log, std::log(0.01f + 3.0f / 64.0f));
    EXPECT_FLOAT_EQ(f.core_sharpness, std::cbrt(1170.0f / 8192.0f));  // core width 8
    EXPECT_FLOAT_EQ(f.bimodality, 0.5f * std::sqrt(0.75f));           // equal peaks 3 bins apart
}

TEST(PeaksFeatures, MidTonePeaksOnly) {
    Hist h{};
    h[140] = 4096;
    const feature_vect f = locate(h);
    EXPECT_EQ(f.peak_ratio_log, static_cast<float>(std::log(0.01f)));
    EXPECT_EQ(f.posn_wt, 0.0f);  // no peak below 128
    EXPECT_EQ(f.valley_mass, 1.0f);
}

TEST(PeaksFeatures, MomentsUseTheTruncatedMean) {
    Hist h{};
    h[0] = h[3] = 512;
    const feature_vect f = locate(h);
    EXPECT_EQ(f.hist_mean, 1.0f);                  // 1.5 truncated
    EXPECT_FLOAT_EQ(f.hist_std, std::sqrt(3.5f));  // 4.5 - 1 * 1, not 4.5 - 2.25
}

TEST(PeaksFeatures, SecondMomentWrapsIn32Bits) {
    Hist h{};
    // 65025 * 70000 wraps to 256,782,704: far below the square of the mean.
    h[255] = 70000;
    EXPECT_TRUE(std::isnan(locate(h).hist_std));
    // 65025 * 65536 fits 32 bits but reads as a negative count.
    h[255] = 65536;
    const feature_vect f = locate(h);
    EXPECT_EQ(f.hist_mean, 255.0f);
    EXPECT_TRUE(std::isnan(f.hist_std));
}

TEST(PeaksFeatures, DarkLevelsAndDeepDark) {
    Hist h{};
    h[0] = 800;  // bin 0 is no dark-peak candidate
    h[10] = 50;
    h[40] = 150;  // dark, but not deep dark
    feature_vect f = locate(h);
    EXPECT_EQ(f.dark_peak_level, 150.0f * (1.0f / 1000.0f));
    EXPECT_EQ(f.deep_dark, (1.0f / 1000.0f) * 850.0f);
    h[10] = h[40] = 0;
    EXPECT_EQ(locate(h).dark_peak_level, 0.0f);
}

TEST(PeaksFeatures, PeakRatioOfExtremeToMidTone) {
    Hist h{};
    h[30] = 2000;   // plateau height 286
    h[100] = 1000;  // plateau height 143
    EXPECT_FLOAT_EQ(locate(h).peak_ratio_log, std::log(2.0f));
    h[100] = 0;
    EXPECT_FLOAT_EQ(locate(h).peak_ratio_log, std::log(10.0f));
}

// A triangle 1,2,3,4,3,2,1 (x7) around bin 50 smooths to a single peak of
// height 16 at 50 with valleys at 43 and 57, mass 112.
TEST(PeaksFeatures, TrianglePeak) {
    Hist h{};
    const int32_t tri[] = {7, 14, 21, 28, 21, 14, 7};
    for (int i = 0; i < 7; ++i) h[47 + i] = tri[i];
    const feature_vect f = locate(h);
    EXPECT_EQ(f.peak_mean, 50.0f);
    EXPECT_EQ(f.peak_mass, 1.0f);
    EXPECT_FLOAT_EQ(f.peak_std, std::sqrt(6.5f));
    const double slope = 16.0f / 784.0f;  // 16 / (112 * 7) on either side
    EXPECT_EQ(f.posn_wt, static_cast<float>(78.0 * (std::log(slope) + std::log(slope)) * 0.5));
    EXPECT_FLOAT_EQ(f.core_sharpness, std::cbrt(8.0f * (16.0f / 112.0f) / 4.0f));  // core 48..52
    EXPECT_EQ(f.bimodality, 0.0f);
    EXPECT_FLOAT_EQ(f.peak_count_log, std::log(0.01f + 1.0f / 64.0f));
}

TEST(PeaksFeatures, ValleyMassBetweenDarkAndBrightPeaks) {
    Hist h{};
    h[40] = 500;
    h[220] = 500;
    // From the dark peak at 37, whose flat top is its own right valley, to
    // the bright one's left valley at 216: the dark plateau's 7 x 71.
    EXPECT_EQ(locate(h).valley_mass, 497.0f / 1000.0f);
}

TEST(PeaksFeatures, ValleysPastTheHistogramEndsLeaveNoMass) {
    Hist dark_ramp{};  // peak at 43, falling to the far guard entry 258
    for (int i = 40; i < 256; ++i) dark_ramp[i] = 265 - i;
    EXPECT_EQ(locate(dark_ramp).valley_mass, 0.0f);

    Hist bright_ramp{};  // peak at 197, whose left valley is guard entry -1
    for (int i = 0; i <= 200; ++i) bright_ramp[i] = i;
    EXPECT_EQ(locate(bright_ramp).valley_mass, 0.0f);
}

// 1 in every bin j with j mod 7 < 4 smooths to a flat line of ones: a peak
// on every third bin, the largest number detection allows.
TEST(PeaksScratch, MaximalCombFillsExactlyTheScratch) {
    Hist h{};
    for (int j = 0; j < 256; ++j) h[j] = j % 7 < 4 ? 1 : 0;
    std::vector<peak_descr> scratch(kMaxPeaks);
    feature_vect f{};
    blc_locate_hist_peaks(h.data(), &f, scratch.data());
    for (int k = 0; k < kMaxPeaks; ++k) {
        EXPECT_EQ(scratch[k].pos, 3 * k);
        EXPECT_EQ(scratch[k].valid, 1);
    }
    EXPECT_FLOAT_EQ(f.peak_count_log, std::log(0.01f + 86.0f / 64.0f));
}

}  // namespace
}  // namespace qimra
