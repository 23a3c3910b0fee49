// Histogram peak location: the steps of blc_locate_hist_peaks, exposed so
// that each can be checked on its own.
#pragma once

#include <cstdint>

#include "qimra/qimra.h"

namespace qimra {

// The smoothed histogram carries three guard entries beyond each end of the
// 256 bins, so that a peak at either end has a tail to fall off into.
constexpr int kSmoothFirst = -3;
constexpr int kSmoothLast = 258;
constexpr int kSmoothEntries = kSmoothLast - kSmoothFirst + 1;

// Detection visits bins 0..255 and moves on by three after every peak, so
// peaks are at least three bins apart: at most bins 0, 3, ..., 255, that is
// 86. The bound is reached: a histogram holding 1 in every bin j with
// j mod 7 < 4 smooths to a flat line, and every third bin of it is a peak.
constexpr int kMaxPeaks = 86;

constexpr int kRegionCount = 12;

// The region stage shares one scratch buffer among its regions and hands
// region r the records from r + 1 on, so region 11 may use records 12 to
// 12 + kMaxPeaks - 1.
constexpr int kRegionScratchRecords = kRegionCount + kMaxPeaks;

// Bands of the luma range shared by the features and the decision.
constexpr int kDarkEnd = 72;  // bins 0..71 are dark
constexpr int kMidHighFirst = 128;
constexpr int kBrightFirst = 160;  // bins 160..255 are bright
constexpr int kDeepDarkEnd = 32;   // bins 0..31 are deep dark

// Indexed from kSmoothFirst to kSmoothLast.
struct SmoothedHist {
    int32_t entry[kSmoothEntries];
    int32_t operator[](int i) const { return entry[i - kSmoothFirst]; }
    int32_t& operator[](int i) { return entry[i - kSmoothFirst]; }
};

// 7-tap box filter with a rounding term of 3; bins beyond either end count 0.
void smooth_histogram(const int32_t* hist, SmoothedHist& s);

// Writes the peaks of s above `threshold` in position order (at most
// kMaxPeaks records) and returns their number.
int detect_peaks(const SmoothedHist& s, int32_t threshold, peak_descr* peaks);

// Inner bounds at 90 % of each valid peak's height, visiting the peaks in
// `order`; a peak with a higher count on its flank before that level is
// reached is invalidated.
void set_inner_bounds(const SmoothedHist& s, peak_descr* peaks, const int* order, int n);

// Outer bounds L and R of each valid peak: the valleys towards its valid
// neighbours, or towards the ends of the smoothed array.
void set_outer_bounds(const SmoothedHist& s, peak_descr* peaks, int n);

}  // namespace qimra
