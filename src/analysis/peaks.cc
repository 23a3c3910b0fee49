// Histogram peak location: condenses one 256-bin luma histogram into a
// feature record (band shares, moments, the dominant peak, shape measures).
#include "analysis/peaks.h"

#include <cmath>
#include <cstdlib>

#include "simd/convert.h"

namespace qimra {
namespace {

// Integer sums are kept in 32 bits and wrap by definition; the wrapped
// pattern is then read as the signed count it stands for.
int32_t wrapped(uint32_t sum) { return static_cast<int32_t>(sum); }

int32_t range_sum(const int32_t* hist, int first, int last) {
    uint32_t sum = 0;
    for (int i = first; i <= last; ++i) sum += static_cast<uint32_t>(hist[i]);
    return wrapped(sum);
}

bool is_peak(const SmoothedHist& s, int i, int32_t threshold) {
    if (s[i] <= threshold) return false;
    for (int d = 1; d <= 3; ++d)
        if (s[i] < s[i - d] || s[i] < s[i + d]) return false;
    return true;
}

// Walks from `from` by `step` through `last`: stops at the first count below
// `level` (storing its index in *bound), or fails at the first count above
// `height`. Running off the end leaves *bound as it was.
bool walk_to_level(const SmoothedHist& s, int from, int step, int last, int32_t height, int32_t level, int32_t* bound) {
    for (int i = from; step < 0 ? i >= last : i <= last; i += step) {
        if (s[i] > height) return false;
        if (s[i] < level) {
            *bound = i;
            return true;
        }
    }
    return true;
}

// Index of the smallest count from the peak's own bin `from` up to (not
// including) `limit`. The strict comparison keeps, of equal minima, the one
// nearest the peak, and the peak itself when nothing on that side is lower.
int valley(const SmoothedHist& s, int from, int limit, int step) {
    int best = from;
    for (int i = from + step; i != limit; i += step)
        if (s[i] < s[best]) best = i;
    return best;
}

// First valid peak in height order whose position satisfies `pick`.
template <typename Pick>
const peak_descr* strongest(const peak_descr* peaks, const int* order, int n, Pick pick) {
    for (int k = 0; k < n; ++k) {
        const peak_descr& p = peaks[order[k]];
        if (p.valid == 1 && pick(p.pos)) return &p;
    }
    return nullptr;
}

const peak_descr* dominant_peak(const peak_descr* peaks, const int* order, int n) {
    return strongest(peaks, order, n, [](int) { return true; });
}

// Mean, spread and mass of the dominant peak over [L, R). A peak on a flat
// top has R = p (or L = p), and the range may hold no count at all: its mean
// and spread are then 0/0, NaN, and its mass 0, which the decision tolerates.
void dominant_moments(const SmoothedHist& s, const peak_descr* d, float inv, feature_vect* out) {
    if (d == nullptr) {
        out->peak_mean = out->peak_std = out->peak_mass = 0.0f;
        return;
    }
    uint32_t weight = 0;
    uint32_t moment = 0;
    for (int i = d->left; i < d->right; ++i) {
        weight += static_cast<uint32_t>(s[i]);
        moment += static_cast<uint32_t>(i) * static_cast<uint32_t>(s[i]);
    }
    const float w = static_cast<float>(wrapped(weight));
    const float mean = static_cast<float>(wrapped(moment)) / w;
    float spread = 0.0f;
    for (int i = d->left; i < d->right; ++i) {
        const float dev = static_cast<float>(i) - mean;
        spread += dev * dev * static_cast<float>(s[i]);
    }
    out->peak_mean = mean;
    out->peak_std = std::sqrt(spread / w);
    out->peak_mass = w * inv;
}

// ln of the height ratio of the strongest extreme (dark or bright) peak to
// the strongest mid-tone peak; 0.01 without an extreme peak, 10 without a
// mid-tone one.
float peak_ratio_log(const peak_descr* peaks, const int* order, int n) {
    const peak_descr* extreme = strongest(peaks, order, n, [](int p) { return p < 72 || p > 160; });
    const peak_descr* mid = strongest(peaks, order, n, [](int p) { return p >= 72 && p <= 160; });
    float x = 0.01f;
    if (extreme != nullptr)
        x = mid != nullptr ? static_cast<float>(extreme->height) / static_cast<float>(mid->height) : 10.0f;
    return static_cast<float>(std::log(static_cast<double>(x)));
}

// Slopes of the strongest dark-half peak down to its two valleys, as shares
// of all pixels per bin, combined in the log domain and weighted by how far
// the peak lies below 128. A valley on the peak itself (a flat top) makes the
// slope 0/0 and the weight NaN, which the feature sort tolerates.
float position_weight(const SmoothedHist& s, const peak_descr* peaks, const int* order, int n, int32_t total) {
    const peak_descr* d = strongest(peaks, order, n, [](int p) { return p < 128; });
    if (d == nullptr) return 0.0f;
    const uint32_t t = static_cast<uint32_t>(total);
    const float left_run = static_cast<float>(wrapped(t * static_cast<uint32_t>(d->pos - d->left)));
    const float right_run = static_cast<float>(wrapped(t * static_cast<uint32_t>(d->right - d->pos)));
    const float a = static_cast<float>(d->height - s[d->left]) / left_run;
    const float b = static_cast<float>(d->height - s[d->right]) / right_run;
    return static_cast<float>(static_cast<double>(128 - d->pos) *
                              (std::log(static_cast<double>(a)) + std::log(static_cast<double>(b))) * 0.5);
}

// Smoothed mass between the strongest dark peak's right valley and the
// strongest bright peak's left valley. Valleys that cross (possible only
// where one reaches past the far end of the histogram) leave nothing between.
float valley_mass(const SmoothedHist& s, const peak_descr* peaks, const int* order, int n, int32_t total) {
    const peak_descr* dark = strongest(peaks, order, n, [](int p) { return p < kDarkEnd; });
    const peak_descr* bright = strongest(peaks, order, n, [](int p) { return p > kBrightFirst; });
    if (dark == nullptr && bright == nullptr) return 1.0f;
    const int a = dark != nullptr ? dark->right : 0;
    const int b = bright != nullptr ? bright->left : 255;
    if (a > b) return 0.0f;
    float sum = 0.0f;
    for (int i = a; i <= b; ++i) sum += static_cast<float>(s[i]);
    return sum / static_cast<float>(total);
}

// Shape measures of the valid peaks (words 0, 1 and 6):
//  - peak_count_log: ln(0.01 + count / 64), the number of valid peaks per 64
//    bins in the log domain; 0.01 keeps a histogram without peaks finite.
//  - core_sharpness: cube root of 8 x (dominant height / all pixels) / (width
//    of its 90 % core): the share of pixels an 8-bin stretch at peak height
//    would hold, per bin of core width. A single bin gives the cube root of
//    about 1/7; broad peaks approach 0. 0 without a valid peak.
//  - bimodality: 0.5 x sqrt(second / first height) x sqrt(their distance in
//    units of 4 bins), for the two strongest valid peaks: 0 for one peak, up
//    to 4 for two equal peaks at opposite ends.
// Each is evaluated in double precision and stored as a float.
void shape_measures(const peak_descr* peaks, const int* order, int n, float inv, feature_vect* out) {
    int valid = 0;
    const peak_descr* first = nullptr;
    const peak_descr* second = nullptr;
    for (int k = 0; k < n; ++k) {
        const peak_descr& p = peaks[order[k]];
        if (p.valid != 1) continue;
        ++valid;
        if (first == nullptr)
            first = &p;
        else if (second == nullptr)
            second = &p;
    }
    out->peak_count_log = static_cast<float>(std::log(0.01 + 0.015625 * valid));

    out->core_sharpness = 0.0f;
    if (first != nullptr) {
        const double share = static_cast<double>(static_cast<float>(first->height) * inv);
        const double core_width = first->inner_hi - first->inner_lo;
        out->core_sharpness = static_cast<float>(std::pow(8.0 * share / core_width, 1.0 / 3.0));
    }

    out->bimodality = 0.0f;
    if (second != nullptr) {
        const double ratio =
            static_cast<double>(static_cast<float>(second->height) / static_cast<float>(first->height));
        const double distance = std::abs(first->pos - second->pos) / 4.0;
        out->bimodality = static_cast<float>(std::sqrt(ratio) * std::pow(distance, 0.5) * 0.5);
    }
}

}  // namespace

void smooth_histogram(const int32_t* hist, SmoothedHist& s) {
    // The seven bins i - 3 .. i + 3 that lie in 0..255, as a running sum:
    // modulo 2^32 adding the bin that enters and subtracting the one that
    // leaves gives exactly the wrapped sum of the seven.
    const auto bin = [hist](int k) { return k >= 0 && k < 256 ? static_cast<uint32_t>(hist[k]) : 0u; };
    uint32_t window = 0;
    for (int k = kSmoothFirst - 3; k < kSmoothFirst + 3; ++k) window += bin(k);
    for (int i = kSmoothFirst; i <= kSmoothLast; ++i) {
        window += bin(i + 3);
        s[i] = sat_i32_from_float(static_cast<float>(wrapped(window + 3)) * 0.14285715f);
        window -= bin(i - 3);
    }
}

int detect_peaks(const SmoothedHist& s, int32_t threshold, peak_descr* peaks) {
    int n = 0;
    for (int i = 0; i < 256;) {
        if (!is_peak(s, i, threshold)) {
            ++i;
            continue;
        }
        peaks[n] = peak_descr{};
        peaks[n].pos = i;
        peaks[n].height = s[i];
        peaks[n].valid = 1;
        ++n;
        i += 3;
    }
    return n;
}

void set_inner_bounds(const SmoothedHist& s, peak_descr* peaks, const int* order, int n) {
    for (int k = 0; k < n; ++k) {
        peak_descr& p = peaks[order[k]];
        if (p.valid != 1) continue;
        p.inner_lo = kSmoothFirst;
        p.inner_hi = kSmoothLast;
        const int32_t level = sat_i32_from_double(static_cast<double>(p.height) * 0.9);
        // Each walk starts on the peak's own bin and stops one short of the
        // array end, whose index is then the bound.
        bool valid = walk_to_level(s, p.pos, -1, kSmoothFirst + 1, p.height, level, &p.inner_lo);
        if (valid && p.pos <= kSmoothLast - 1)
            valid = walk_to_level(s, p.pos, +1, kSmoothLast - 1, p.height, level, &p.inner_hi);
        if (!valid) p.valid = 0;
    }
}

// Each scan starts on the peak's own bin and runs up to the neighbouring
// valid peak's bin, excluded; without a neighbour it runs to the end of the
// smoothed array, guard entries included, so that an edge peak's valley can
// lie in the tail that smoothing spreads beyond bin 0 or 255. Whether the
// neighbour's own bin took part would make no difference: a peak is at least
// the bin beside it, which the scan reaches first.
void set_outer_bounds(const SmoothedHist& s, peak_descr* peaks, int n) {
    int left_limit = kSmoothFirst - 1;
    for (int k = 0; k < n; ++k) {
        peak_descr& p = peaks[k];
        if (p.valid != 1) continue;
        int right_limit = kSmoothLast + 1;
        for (int j = k + 1; j < n; ++j)
            if (peaks[j].valid == 1) {
                right_limit = peaks[j].pos;
                break;
            }
        p.left = valley(s, p.pos, left_limit, -1);
        p.right = valley(s, p.pos, right_limit, +1);
        left_limit = p.pos;
    }
}

}  // namespace qimra

using namespace qimra;

extern "C" void peak_sort(const peak_descr* peaks, int* order, int* used, int n) {
    for (int k = 0; k < n; ++k) {
        int best = -1;
        for (int j = 0; j < n; ++j)
            if (used[j] == 0 && (best < 0 || peaks[j].height > peaks[best].height)) best = j;
        if (best < 0) {
            order[k] = 0;
            continue;
        }
        used[best] = 1;
        order[k] = best;
    }
}

extern "C" void blc_locate_hist_peaks(const int32_t* hist, feature_vect* out, peak_descr* scratch) {
    const int32_t total = range_sum(hist, 0, 255);
    const float inv = 1.0f / static_cast<float>(total);

    SmoothedHist s;
    smooth_histogram(hist, s);
    const int n = detect_peaks(s, total / 1024, scratch);
    int order[kMaxPeaks];
    int used[kMaxPeaks] = {};
    peak_sort(scratch, order, used, n);
    set_inner_bounds(s, scratch, order, n);
    set_outer_bounds(s, scratch, n);

    uint32_t m1 = 0;
    uint32_t m2 = 0;
    for (uint32_t i = 0; i < 256; ++i) {
        m1 += i * static_cast<uint32_t>(hist[i]);
        m2 += i * i * static_cast<uint32_t>(hist[i]);
    }
    const int32_t mean = sat_i32_from_float(static_cast<float>(wrapped(m1)) * inv);
    const float mean_f = static_cast<float>(mean);
    out->hist_mean = mean_f;
    // The square of the truncated mean, not of the exact one, is kept.
    out->hist_std = std::sqrt(static_cast<float>(wrapped(m2)) * inv - mean_f * mean_f);

    out->band_dark = static_cast<float>(range_sum(hist, 0, kDarkEnd - 1)) * inv;
    out->band_mid_low = static_cast<float>(range_sum(hist, kDarkEnd, kMidHighFirst - 1)) * inv;
    out->band_mid_high = static_cast<float>(range_sum(hist, kMidHighFirst, kBrightFirst - 1)) * inv;
    out->band_bright = static_cast<float>(range_sum(hist, kBrightFirst, 255)) * inv;

    dominant_moments(s, dominant_peak(scratch, order, n), inv, out);

    int32_t dark_max = 0;
    for (int i = 1; i < kDarkEnd; ++i)
        if (hist[i] > dark_max) dark_max = hist[i];
    out->dark_peak_level = dark_max > 0 ? static_cast<float>(dark_max) * inv : 0.0f;
    out->deep_dark = inv * static_cast<float>(range_sum(hist, 0, kDeepDarkEnd - 1));

    out->peak_ratio_log = peak_ratio_log(scratch, order, n);
    out->posn_wt = position_weight(s, scratch, order, n, total);
    out->valley_mass = valley_mass(s, scratch, order, n, total);
    shape_measures(scratch, order, n, inv, out);
}
