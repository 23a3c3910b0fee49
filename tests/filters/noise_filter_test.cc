// One step of anisotropic diffusion: borders copied, flat areas and strong
// edges left alone, small differences pulled together with truncated
// weights and a flooring shift.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

struct Image {
    int width, height, stride;
    std::vector<uint8_t> px;
    Image(int w, int h, int s, uint8_t fill = 0) : width(w), height(h), stride(s), px(size_t(s) * h, fill) {}
    uint8_t& at(int x, int y) { return px[size_t(y) * stride + x]; }
    uint8_t at(int x, int y) const { return px[size_t(y) * stride + x]; }
};

Image run_adf(const Image& src, int kappa, int step, int dst_stride) {
    Image dst(src.width, src.height, dst_stride, 0xA5);
    blc_noise_filt_ADF(src.px.data(), dst.px.data(), src.width, src.height, src.stride, dst_stride, kappa, step, 0);
    return dst;
}

// The rule written per neighbour, with the exponential evaluated each time.
uint8_t reference_pixel(const Image& s, int x, int y, int kappa, int step) {
    const int m = s.at(x, y);
    int sum = 0;
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
            if (dx == 0 && dy == 0) continue;
            const int d = s.at(x + dx, y + dy) - m;
            const float q = float(d) / float(kappa);
            const float e = -(q * q);
            sum += int(std::exp(double(e)) * 128.0) * d;
        }
    const int v = m + int(std::floor(double(step) * sum / 16384.0));
    return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
}

TEST(AdfFilter, FlatImagePassesUnchanged) {
    for (uint8_t value : {0, 77, 255}) {
        Image src(19, 11, 24, value);
        const Image dst = run_adf(src, 30, 16384, 21);
        for (int y = 0; y < src.height; ++y)
            for (int x = 0; x < src.width; ++x) ASSERT_EQ(dst.at(x, y), value) << x << "," << y;
    }
}

TEST(AdfFilter, StrongEdgeIsNotDiffusedButAWeakOneIs) {
    Image src(16, 8, 16);
    for (int y = 0; y < 8; ++y)
        for (int x = 8; x < 16; ++x) src.at(x, y) = 200;
    // |d| = 200 against kappa 10: the weight truncates to 0.
    const Image kept = run_adf(src, 10, 16384, 16);
    EXPECT_EQ(kept.px, src.px);
    // The same edge against kappa 1000 conducts (weights near 128).
    const Image spread = run_adf(src, 1000, 4096, 16);
    EXPECT_GT(spread.at(7, 4), 0);
    EXPECT_LT(spread.at(8, 4), 200);
}

TEST(AdfFilter, WeightTruncatesAndShiftFloors) {
    // One neighbour 10 above the centre, kappa 20: w = trunc(128 * exp(-0.25))
    // = 99 (not 100), S = 990; with step 1000, 990000 >> 14 = 60, while
    // -990000 >> 14 floors to -61.
    struct Case {
        int neighbour, step, expected;
    } const cases[] = {{110, 1000, 160}, {90, 1000, 39}, {110, 16384, 255}, {90, 16384, 0}};
    for (const Case& k : cases) {
        Image src(3, 3, 3, 100);
        src.at(2, 0) = uint8_t(k.neighbour);  // a diagonal neighbour counts like the others
        const Image dst = run_adf(src, 20, k.step, 3);
        EXPECT_EQ(dst.at(1, 1), k.expected) << k.neighbour << " step " << k.step;
        EXPECT_EQ(dst.at(2, 0), k.neighbour);
    }
}

TEST(AdfFilter, RandomImageFollowsThePerNeighbourRule) {
    for (int kappa : {5, 30, -12}) {
        Image src(37, 23, 41);
        fill_random(src.px.data(), src.px.size(), uint32_t(kappa + 100));
        const int step = 3000;
        const Image dst = run_adf(src, kappa, step, 39);
        for (int y = 0; y < src.height; ++y)
            for (int x = 0; x < src.width; ++x) {
                const bool border = x == 0 || y == 0 || x == src.width - 1 || y == src.height - 1;
                const uint8_t want = border ? src.at(x, y) : reference_pixel(src, x, y, kappa, step);
                ASSERT_EQ(dst.at(x, y), want) << "kappa " << kappa << " at " << x << "," << y;
            }
        // Only the image's own bytes of each destination row are written.
        for (int y = 0; y < src.height; ++y) ASSERT_EQ(dst.px[size_t(y) * 39 + 38], 0xA5);
    }
}

TEST(AdfFilter, ZeroKappaLeavesTheInteriorUnchanged) {
    // Every quotient is infinite (or NaN for d = 0): all weights are 0.
    Image src(12, 9, 12);
    fill_random(src.px.data(), src.px.size(), 7);
    EXPECT_EQ(run_adf(src, 0, 16384, 12).px, src.px);
}

}  // namespace
}  // namespace qimra::test
