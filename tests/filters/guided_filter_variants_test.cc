// The exported guided-filter variants: the clipped two-step filter over the
// unpadded tables, and the two-pass filter over padded tables with the
// reciprocal refined by two Newton-Raphson steps (VRECPS).
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <vector>

#include "filters/guided_filter_variants.h"
#include "simd/convert.h"
#include "simd/recps.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

struct Image {
    int width, height, stride;
    std::vector<uint8_t> px;
    Image(int w, int h, int s) : width(w), height(h), stride(s), px(size_t(s) * h) {}
    uint8_t at(int x, int y) const { return px[size_t(y) * stride + x]; }
};

Image random_image(int w, int h, int stride, uint32_t seed, uint8_t floor = 0) {
    Image img(w, h, stride);
    fill_random(img.px.data(), img.px.size(), seed);
    for (uint8_t& p : img.px) p = uint8_t(floor + p % (256 - floor));
    return img;
}

// ---------------------------------------------------------------- VRECPS

TEST(GuidedVariantsRecps, StepIsTwoMinusARoundedProduct) {
    EXPECT_EQ(recps_f32(2.0f, 0.5f), 1.0f);
    EXPECT_EQ(recps_f32(3.0f, 1.0f), -1.0f);
    // Rounded twice, never fused: (1 + 2^-12)^2 rounds to 1 + 2^-11 before
    // the subtraction, which a fused step would not.
    const float a = 1.0f + 0x1p-12f;
    EXPECT_EQ(recps_f32(a, a), 1.0f - 0x1p-11f);
    // 0 * infinity is defined as 2; a denormal counts as zero.
    EXPECT_EQ(recps_f32(0.0f, INFINITY), 2.0f);
    EXPECT_EQ(recps_f32(-INFINITY, -0.0f), 2.0f);
    EXPECT_EQ(recps_f32(1e-40f, INFINITY), 2.0f);
    EXPECT_EQ(recps_f32(1e-39f, 1e38f), 2.0f);  // 0.1 without the flush
    EXPECT_EQ(recps_f32(INFINITY, 2.0f), -INFINITY);
    EXPECT_EQ(std::bit_cast<uint32_t>(recps_f32(NAN, 1.0f)), 0x7FC00000u);
    EXPECT_EQ(std::bit_cast<uint32_t>(recps_f32(1.0f, -NAN)), 0x7FC00000u);
}

#if defined(__ARM_NEON) || defined(__ARM_NEON__)
TEST(GuidedVariantsRecps, MatchesTheInstructionOnEveryClassOfOperand) {
    std::vector<float> v = {
        0.0f,    1e-45f,   1e-40f, FLT_MIN,         1.0f,    2.0f, 0.5f, 1.0f + 0x1p-12f, 3.14159f, 65025.0f, 1e38f,
        FLT_MAX, INFINITY, NAN,    0x1.fffffep-64f, 0x1p-63f};
    for (int e = -126; e <= 127; e += 9) v.push_back(std::ldexp(1.37f, e));
    const size_t base = v.size();
    for (size_t i = 0; i < base; ++i) v.push_back(-v[i]);
    for (float x : v)
        for (size_t j = 0; j < v.size(); j += 4) {
            float y[4];
            for (int k = 0; k < 4; ++k) y[k] = v[(j + k) % v.size()];
            float hw[4];
            vst1q_f32(hw, vrecpsq_f32(vdupq_n_f32(x), vld1q_f32(y)));
            for (int k = 0; k < 4; ++k)
                ASSERT_EQ(std::bit_cast<uint32_t>(recps_f32(x, y[k])), std::bit_cast<uint32_t>(hw[k]))
                    << x << " " << y[k];
        }
}
#endif

// ------------------------------------------------------- two-pass filter

struct Padded {
    int width, height;
    std::vector<uint32_t> sum, sq;
    explicit Padded(const Image& img)
        : width(img.width), height(img.height), sum(size_t(img.width + 17) * (img.height + 17)), sq(sum.size()) {
        blc_gen_ii_pad(img.px.data(), img.stride, 0, img.width, img.height, sum.data(), sq.data());
    }
    PaddedWindows row(int y, int radius) const {
        const ptrdiff_t stride = width + 17;
        const ptrdiff_t corner = (y + 8 - radius) * stride + (8 - radius);
        return {sum.data() + corner, sq.data() + corner, stride, 2 * radius + 1};
    }
};

float inv_n_of(int radius) { return 1.0f / float((2 * radius + 1) * (2 * radius + 1)); }

// Coefficient planes of the whole image, row by row through the per-pixel form.
void coefficient_planes(const Padded& t, int radius, float eps, std::vector<float>& a, std::vector<float>& b) {
    a.assign(size_t(t.width) * t.height, 0.0f);
    b.assign(a.size(), 0.0f);
    for (int y = 0; y < t.height; ++y)
        guided_2pass_coefficients_c(t.row(y, radius), inv_n_of(radius), eps, a.data() + size_t(y) * t.width,
                                    b.data() + size_t(y) * t.width, t.width);
}

bool same_float(float x, float y) {
    return (std::isnan(x) && std::isnan(y)) || std::bit_cast<uint32_t>(x) == std::bit_cast<uint32_t>(y);
}

#if QIMRA_HAVE_NEON
TEST(GuidedVariantsTwoPass, VectorCoefficientsMatchPerPixel) {
    uint32_t seed = 1;
    for (uint8_t floor : {0, 200})  // bright windows: square sums beyond 2^24 round on conversion
        for (float eps : {0.04f, 1e-3f, 0.0f})
            for (int radius : {0, 1, 5, 8})
                for (int w : {1, 3, 4, 7, 13, 33}) {
                    Image img = random_image(w, 9, w, ++seed, floor);
                    // Flat patches: zero variance, and with eps 0 a 0 / 0.
                    for (int x = 0; x < std::min(w, 20); ++x) img.px[size_t(x)] = img.px[size_t(w) + x] = 90;
                    const Padded t(img);
                    for (int y = 0; y < img.height; ++y) {
                        // Exactly sized outputs: a store past n leaves the allocation.
                        const size_t n = size_t(w);
                        std::vector<float> ac(n), bc(n), av(n), bv(n);
                        const PaddedWindows win = t.row(y, radius);
                        guided_2pass_coefficients_c(win, inv_n_of(radius), eps, ac.data(), bc.data(), w);
                        const int done =
                            guided_2pass_coefficients_neon(win, inv_n_of(radius), eps, av.data(), bv.data(), w);
                        ASSERT_EQ(done, w / 4 * 4);
                        for (int x = 0; x < done; ++x) {
                            ASSERT_TRUE(same_float(av[size_t(x)], ac[size_t(x)]))
                                << "a r" << radius << " w" << w << " " << x << "," << y;
                            ASSERT_TRUE(same_float(bv[size_t(x)], bc[size_t(x)]))
                                << "b r" << radius << " w" << w << " " << x << "," << y;
                        }
                    }
                }
}
#endif

TEST(GuidedVariantsTwoPass, RefinedReciprocalGivesNearlyExactCoefficients) {
    // The raw estimate is good to about 2^-8 and one refinement to about
    // 2^-16; two bring a to within a few units in the last place of
    // var / (var + eps).
    for (float eps : {0.04f, 0.003f, 1.0f}) {
        const Image img = random_image(40, 12, 40, 77);
        const Padded t(img);
        const int radius = 8;
        std::vector<float> a, b;
        coefficient_planes(t, radius, eps, a, b);
        const float inv_n = inv_n_of(radius);
        for (int y = 0; y < img.height; ++y)
            for (int x = 0; x < img.width; ++x) {
                const PaddedWindows w = t.row(y, radius);
                const ptrdiff_t below = 17 * w.stride;
                const uint32_t* s = w.sum_top + x;
                const uint32_t* q = w.sq_top + x;
                const float mean = float(s[below + 17] + s[0] - s[below] - s[17]) * inv_n;
                const float var =
                    (float(q[below + 17] + q[0] - q[below] - q[17]) * inv_n - mean * mean) * 1.5378700e-05f;
                const double exact = double(var) / (double(var) + double(eps));
                const size_t i = size_t(y) * img.width + x;
                ASSERT_NEAR(a[i], exact, 1e-6 * exact + 1e-12) << x << "," << y;
                ASSERT_EQ(b[i], mean - a[i] * mean) << x << "," << y;
            }
    }
}

// The second pass over whole coefficient planes: (2r + 1)^2 windows on the
// planes extended by replication, column sums top to bottom added left to
// right, times 1 / N.
std::vector<uint8_t> two_pass_reference(const Image& img, int radius, float eps) {
    const Padded t(img);
    std::vector<float> a, b;
    coefficient_planes(t, radius, eps, a, b);
    const int w = img.width, h = img.height;
    std::vector<uint8_t> out(size_t(w) * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            float sa = 0.0f, sb = 0.0f;
            for (int dx = -radius; dx <= radius; ++dx) {
                const int xx = std::clamp(x + dx, 0, w - 1);
                float ca = 0.0f, cb = 0.0f;
                for (int dy = -radius; dy <= radius; ++dy) {
                    const size_t i = size_t(std::clamp(y + dy, 0, h - 1)) * w + xx;
                    ca += a[i];
                    cb += b[i];
                }
                sa += ca;
                sb += cb;
            }
            const float mean_a = sa * inv_n_of(radius), mean_b = sb * inv_n_of(radius);
            out[size_t(y) * w + x] = low_byte_of_u32(float(img.at(x, y)) * mean_a + mean_b);
        }
    return out;
}

std::vector<uint8_t> run_two_pass(const Image& img, int radius, float eps) {
    // Tables exactly (height + 17) x (width + 17): the padded builder's size.
    std::vector<uint32_t> sum(size_t(img.width + 17) * (img.height + 17)), sq(sum.size());
    std::vector<uint8_t> out(size_t(img.width) * img.height);
    blc_self_guided_filter_2pass_pad(img.px.data(), img.stride, sum.data(), sq.data(), radius, eps, out.data(),
                                     img.width, img.height, nullptr, nullptr, nullptr);
    return out;
}

TEST(GuidedVariantsTwoPass, TiledOutputMatchesTheWholePlaneAverage) {
    uint32_t seed = 40;
    const std::pair<int, int> sizes[] = {{131, 70}, {48, 48}, {49, 97}, {5, 3}, {1, 1}, {64, 2}};
    for (auto [w, h] : sizes)
        for (int radius : {0, 2, 8}) {
            const Image img = random_image(w, h, w + 3, ++seed);
            ASSERT_EQ(run_two_pass(img, radius, 0.04f), two_pass_reference(img, radius, 0.04f))
                << w << "x" << h << " r" << radius;
        }
}

TEST(GuidedVariantsTwoPass, SmoothsNoiseAndKeepsAStepEdge) {
    const int w = 96, h = 40;
    Image img = random_image(w, h, w, 5);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t& p = img.px[size_t(y) * w + x];
            p = uint8_t((x < 48 ? 50 : 210) + p % 17 - 8);  // noise of about 5 levels
        }
    const std::vector<uint8_t> out = run_two_pass(img, 8, 0.04f);
    auto spread = [&](const uint8_t* px) {
        double s = 0, s2 = 0;
        int n = 0;
        for (int y = 0; y < h; ++y)
            for (int x = 12; x < 30; ++x, ++n) {
                s += px[size_t(y) * w + x];
                s2 += double(px[size_t(y) * w + x]) * px[size_t(y) * w + x];
            }
        return std::sqrt(s2 / n - (s / n) * (s / n));
    };
    EXPECT_GT(spread(img.px.data()), 4.0);
    EXPECT_LT(spread(out.data()), 1.0);
    // The step stays a step: a box mean over the same window would climb
    // by about 160 / 17 per pixel across it.
    for (int y = 0; y < h; ++y) {
        const int left = out[size_t(y) * w + 47], right = out[size_t(y) * w + 48];
        EXPECT_LT(left, 100) << y;
        EXPECT_GT(right, 160) << y;
        EXPECT_GT(right - left, 80) << y;
    }
}

// ------------------------------------------------------ clipped filter

struct Unpadded {
    std::vector<uint32_t> sum, sq;
    explicit Unpadded(const Image& img) : sum(size_t(img.width + 1) * (img.height + 1)), sq(sum.size()) {
        blc_gen_ii(img.px.data(), img.stride, img.width + 1, img.width, img.height, sum.data(), sq.data());
    }
};

std::vector<uint8_t> run_clipped(const Image& img, int radius, float eps) {
    const Unpadded t(img);
    std::vector<uint8_t> out(size_t(img.width) * img.height, 0xEE);
    blc_self_guided_filter(img.px.data(), img.stride, t.sum.data(), t.sq.data(), radius, eps, out.data(), img.width,
                           img.height, nullptr, nullptr, nullptr, nullptr);
    return out;
}

// The rule with every window summed from the pixels themselves.
std::vector<uint8_t> clipped_reference(const Image& img, int r, float eps) {
    const int w = img.width, h = img.height;
    std::vector<float> a(size_t(w) * h), b(a.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            int64_t s = 0, q = 0, n = 0;
            for (int yy = std::max(y - r, 0); yy < std::min(y + r + 1, h); ++yy)
                for (int xx = std::max(x - r, 0); xx < std::min(x + r + 1, w); ++xx, ++n) {
                    s += img.at(xx, yy);
                    q += img.at(xx, yy) * img.at(xx, yy);
                }
            const float mean = float(s) / float(n);
            const float var = float(int32_t(q) / int32_t(n)) - mean * mean;
            const float varn = var / 65025.0f;
            a[size_t(y) * w + x] = varn / (varn + eps);
            b[size_t(y) * w + x] = (mean - mean * a[size_t(y) * w + x]) / 255.0f;
        }
    std::vector<uint8_t> out(a.size());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            float sa = 0.0f, sb = 0.0f;
            int m = 0;
            // One row and one column short of the first step's window.
            for (int yy = std::max(y - r, 0); yy < std::min(y + r, h - 1); ++yy)
                for (int xx = std::max(x - r, 0); xx < std::min(x + r, w - 1); ++xx, ++m) {
                    sa += a[size_t(yy) * w + xx];
                    sb += b[size_t(yy) * w + xx];
                }
            const float mean_a = sa / float(m), mean_b = sb / float(m);
            const double v = (double(float(img.at(x, y)) * mean_a) / 255.0 + double(mean_b)) * 255.0;
            out[size_t(y) * w + x] = uint8_t(sat_u32_from_double(v));
        }
    return out;
}

TEST(GuidedVariantsClipped, MatchesDirectWindowSumsWithTheShortSecondWindow) {
    uint32_t seed = 300;
    for (auto [w, h] : {std::pair{23, 17}, {9, 30}, {2, 2}})
        for (int radius : {1, 2, 5})
            for (float eps : {0.04f, 0.001f}) {
                const Image img = random_image(w, h, w + 5, ++seed);
                ASSERT_EQ(run_clipped(img, radius, eps), clipped_reference(img, radius, eps))
                    << w << "x" << h << " r" << radius << " eps " << eps;
            }
}

TEST(GuidedVariantsClipped, EmptySecondWindowGivesZero) {
    // r = 0, or a single row or column: 0.0 / 0.0, and the NaN converts to 0.
    const Image img = random_image(9, 7, 9, 8);
    EXPECT_EQ(run_clipped(img, 0, 0.04f), std::vector<uint8_t>(63, 0));
    EXPECT_EQ(run_clipped(random_image(1, 6, 1, 9), 3, 0.04f), std::vector<uint8_t>(6, 0));
    EXPECT_EQ(run_clipped(random_image(6, 1, 6, 10), 3, 0.04f), std::vector<uint8_t>(6, 0));
    // No rows at all: nothing is written and both planes are still released.
    EXPECT_TRUE(run_clipped(random_image(6, 0, 6, 11), 3, 0.04f).empty());
}

TEST(GuidedVariantsClipped, ConstantImageMayLoseOneLevel) {
    // Zero variance gives a = 0 and b = p / 255; the output is the mean of b
    // over the short window times 255, and the float sum of M copies of
    // p / 255 can fall just short of p, which truncation turns into p - 1.
    const int w = 12, h = 10, r = 3;
    int lost = 0;
    for (int value : {0, 1, 100, 200, 255}) {
        Image img(w, h, w);
        std::fill(img.px.begin(), img.px.end(), uint8_t(value));
        const std::vector<uint8_t> out = run_clipped(img, r, 0.04f);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const int m =
                    (std::min(y + r, h - 1) - std::max(y - r, 0)) * (std::min(x + r, w - 1) - std::max(x - r, 0));
                const float b = float(value) / 255.0f;
                float sum = 0.0f;
                for (int k = 0; k < m; ++k) sum += b;
                const uint8_t want = uint8_t(double(sum / float(m)) * 255.0);
                const uint8_t got = out[size_t(y) * w + x];
                ASSERT_EQ(got, want) << value << " at " << x << "," << y;
                ASSERT_TRUE(got == value || got == value - 1) << value << " at " << x << "," << y;
                lost += got != value;
            }
    }
    EXPECT_GT(lost, 0);
}

}  // namespace
}  // namespace qimra::test
