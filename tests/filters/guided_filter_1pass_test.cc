#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "filters/guided_filter.h"
#include "filters/integral_reference.h"
#include "qimra/qimra.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

constexpr uint8_t kFill = 0xAA;

// A packed source and its padded tables for a window radius r (the border of
// the tables equals r, as the filter's table stride assumes).
struct Case {
    int32_t w = 0, h = 0, r = 8;
    std::vector<uint8_t> src;  // exactly w * h bytes: no slack to over-read
    SummedTables t;

    Case(int32_t width, int32_t height, int32_t radius = 8) : w(width), h(height), r(radius) {
        src.resize(static_cast<size_t>(w) * h);
    }
    void build_tables() {
        if (r == 8) {
            t.stride = w + 17;
            t.sum.resize(static_cast<size_t>(t.stride) * (h + 17));
            t.sq.resize(t.sum.size());
            blc_gen_ii_pad(src.data(), w, w + 1, w, h, t.sum.data(), t.sq.data());
        } else {
            t = reference_tables(src.data(), w, w, h, r);
        }
    }
    uint8_t at(int32_t y, int32_t x) const { return src[static_cast<size_t>(y) * w + x]; }
};

// Output buffers hold the image and the 4 bytes the filter may write after it,
// and end there.
std::vector<uint8_t> output_buffer(const Case& c) { return std::vector<uint8_t>(c.src.size() + 4, kFill); }

std::vector<uint8_t> run_per_pixel(const Case& c, float eps) {
    std::vector<uint8_t> dst = output_buffer(c);
    self_guided_filter_1pass_c(c.src.data(), c.t.sum.data(), c.t.sq.data(), c.r, eps, dst.data(), c.w, c.h, 0);
    return dst;
}

std::vector<uint8_t> run_exported(const Case& c, float eps, int src_stride) {
    std::vector<uint8_t> dst = output_buffer(c);
    blc_self_guided_filter_1pass(c.src.data(), src_stride, c.t.sum.data(), c.t.sq.data(), c.r, eps, dst.data(), c.w,
                                 c.h, nullptr, nullptr, nullptr, nullptr);
    return dst;
}

// Blocks of two levels with noise whose strength varies across the image, so
// that a covers its whole range from flat to edge.
void fill_scene(Case& c, uint32_t seed) {
    fill_random(c.src.data(), c.src.size(), seed);
    for (int32_t y = 0; y < c.h; ++y) {
        for (int32_t x = 0; x < c.w; ++x) {
            uint8_t& p = c.src[static_cast<size_t>(y) * c.w + x];
            const int32_t level = ((x / 7 + y / 5) % 3 == 0) ? 30 : 200;
            const int32_t amplitude = 1 + (x * 60) / std::max(c.w, 1);
            p = static_cast<uint8_t>(std::clamp(level + (p % (2 * amplitude + 1)) - amplitude, 0, 255));
        }
    }
}

// The filter's model in double precision with an exact reciprocal.
double model(const Case& c, float eps, int32_t y, int32_t x) {
    double s = 0, q = 0;
    for (int32_t dy = 0; dy <= 2 * c.r; ++dy) {
        for (int32_t dx = 0; dx <= 2 * c.r; ++dx) {
            const double p = padded_pixel(c.src.data(), c.w, c.w, c.h, c.r, y + dy, x + dx);
            s += p;
            q += p * p;
        }
    }
    const double n = (2 * c.r + 1) * (2 * c.r + 1);
    const double mean = s / n;
    const double var = (q / n - mean * mean) / 65025.0;
    const double a = var / (var + eps);
    return mean + a * (c.at(y, x) - mean);
}

#if QIMRA_HAVE_NEON
// The vector form alone: leading groups of four, group stores with their
// trailing zero bytes.
std::vector<uint8_t> run_vector(const Case& c, float eps) {
    std::vector<uint8_t> dst = output_buffer(c);
    const int32_t done =
        self_guided_filter_1pass_neon(c.src.data(), c.t.sum.data(), c.t.sq.data(), c.r, eps, dst.data(), c.w, c.h);
    EXPECT_EQ(done, c.w - c.w % 4);
    return dst;
}

TEST(GuidedOnePass, VectorFormMatchesPerPixelForm) {
    const int32_t widths[] = {4, 8, 12, 20, 36, 100, 484};
    const int32_t heights[] = {1, 2, 5, 19, 40};
    uint32_t seed = 1;
    for (int32_t r : {8, 1, 3}) {
        for (int32_t w : widths) {
            for (int32_t h : heights) {
                Case c(w, h, r);
                if (seed % 2)
                    fill_scene(c, seed);
                else
                    fill_random(c.src.data(), c.src.size(), seed);
                ++seed;
                c.build_tables();
                for (float eps : {0.04f, 0.001f, 0.5f}) {
                    ASSERT_EQ(run_vector(c, eps), run_per_pixel(c, eps))
                        << w << "x" << h << " r " << r << " eps " << eps;
                }
            }
        }
    }
}

// Arguments far from the frame path's: estimates of zero, denormal, huge,
// infinite and NaN operands, a above 1 (wrap) and a beyond 2^31, denormal
// intermediate values.
TEST(GuidedOnePass, VectorFormMatchesPerPixelFormForExtremeEps) {
    const float eps_values[] = {0.0f,
                                -0.0f,
                                -0.01f,
                                -0.2f,
                                1e-40f,
                                -1e-40f,
                                1e-30f,
                                1e25f,
                                1e37f,
                                FLT_MAX,
                                std::numeric_limits<float>::infinity(),
                                -std::numeric_limits<float>::infinity(),
                                std::numeric_limits<float>::quiet_NaN()};
    Case c(64, 24);
    fill_scene(c, 42);
    // A flat patch: var = 0 exactly, so d = eps.
    for (int32_t y = 0; y < 24; ++y)
        for (int32_t x = 0; x < 24; ++x) c.src[static_cast<size_t>(y) * c.w + x] = 77;
    c.build_tables();
    for (float eps : eps_values) EXPECT_EQ(run_vector(c, eps), run_per_pixel(c, eps)) << "eps " << eps;
    // Pixels where var is just below -eps make d tiny and a enormous.
    Case tiny(32, 8);
    fill_random(tiny.src.data(), tiny.src.size(), 3);
    tiny.build_tables();
    for (float eps : {-0.05f, -0.1f, -0.15f, -0.2f}) EXPECT_EQ(run_vector(tiny, eps), run_per_pixel(tiny, eps)) << eps;
}
#endif

// Widths outside the vector form's multiple of four: the exported function
// finishes each row with the per-pixel form.
TEST(GuidedOnePass, ExportedMatchesPerPixelFormAtAnyWidth) {
    uint32_t seed = 200;
    for (int32_t w : {1, 2, 3, 5, 7, 13, 64, 101}) {
        for (int32_t h : {1, 6, 23}) {
            Case c(w, h);
            fill_scene(c, seed++);
            c.build_tables();
            ASSERT_EQ(run_exported(c, 0.04f, w), run_per_pixel(c, 0.04f)) << w << "x" << h;
        }
    }
}

TEST(GuidedOnePass, FollowsTheGuidedFilterModel) {
    Case c(96, 40);
    fill_scene(c, 7);
    c.build_tables();
    for (float eps : {0.04f, 0.005f}) {
        const std::vector<uint8_t> out = run_exported(c, eps, c.w);
        for (int32_t y = 0; y < c.h; ++y) {
            for (int32_t x = 0; x < c.w; ++x) {
                const double want = std::floor(model(c, eps, y, x));
                ASSERT_NEAR(out[static_cast<size_t>(y) * c.w + x], want, 1.0) << x << "," << y << " eps " << eps;
            }
        }
    }
}

// var is 0 and the output is the truncated window mean, 289 v times the
// single-precision 1/289, which truncates back to v at every level.
TEST(GuidedOnePass, FlatImageKeepsItsLevel) {
    Case c(8, 4);
    for (int v = 0; v < 256; ++v) {
        std::fill(c.src.begin(), c.src.end(), static_cast<uint8_t>(v));
        c.build_tables();
        const std::vector<uint8_t> out = run_exported(c, 0.04f, c.w);
        for (size_t i = 0; i < c.src.size(); ++i) ASSERT_EQ(out[i], v) << "pixel " << i;
    }
}

TEST(GuidedOnePass, KeepsStrongEdgeAndFlattensWeakTexture) {
    // A step of 200 between columns 31 and 32.
    Case edge(64, 20);
    for (int32_t y = 0; y < edge.h; ++y)
        for (int32_t x = 0; x < edge.w; ++x) edge.src[static_cast<size_t>(y) * edge.w + x] = x < 32 ? 20 : 220;
    edge.build_tables();
    const std::vector<uint8_t> e = run_exported(edge, 0.04f, edge.w);
    for (int32_t y = 0; y < edge.h; ++y) {
        const uint8_t* row = e.data() + static_cast<size_t>(y) * edge.w;
        EXPECT_GE(row[32] - row[31], 150) << y;  // a plain 17-wide mean would step by 12
        EXPECT_EQ(row[0], 20);
        EXPECT_EQ(row[63], 220);
        for (int32_t x = 0; x < edge.w; ++x) EXPECT_LE(std::abs(row[x] - edge.at(y, x)), 25) << x << "," << y;
    }

    // Uniform noise of standard deviation about 10 around 128.
    Case tex(64, 64);
    fill_random(tex.src.data(), tex.src.size(), 11);
    for (uint8_t& p : tex.src) p = static_cast<uint8_t>(128 - 17 + p % 35);
    tex.build_tables();
    const std::vector<uint8_t> t = run_exported(tex, 0.04f, tex.w);
    auto deviation = [&](const uint8_t* p) {
        double s = 0, q = 0, n = 0;
        for (int32_t y = 8; y < 56; ++y)
            for (int32_t x = 8; x < 56; ++x, ++n) {
                s += p[y * 64 + x];
                q += double(p[y * 64 + x]) * p[y * 64 + x];
            }
        return std::sqrt(q / n - (s / n) * (s / n));
    };
    EXPECT_GT(deviation(tex.src.data()), 9.0);
    EXPECT_LT(deviation(t.data()), 1.5);
}

// The vector form's last group store leaves four zero bytes after the image;
// the per-pixel form writes the same (the forms are compared byte for byte,
// tail included, above).
TEST(GuidedOnePass, WritesFourZeroBytesAfterTheImage) {
    for (int32_t w : {16, 28, 6}) {
        Case c(w, 9);
        fill_scene(c, static_cast<uint32_t>(w));
        c.build_tables();
        const std::vector<uint8_t> out = run_exported(c, 0.04f, w);
        EXPECT_EQ(std::vector<uint8_t>(out.end() - 4, out.end()), std::vector<uint8_t>(4, 0)) << w;
    }
}

TEST(GuidedOnePass, SourceStrideIsIgnored) {
    Case c(40, 12);
    fill_scene(c, 5);
    c.build_tables();
    const std::vector<uint8_t> packed = run_exported(c, 0.04f, c.w);
    for (int stride : {0, -1, 3 * c.w + 7}) EXPECT_EQ(run_exported(c, 0.04f, stride), packed) << stride;
}

// With eps below zero a exceeds 1 and the output overshoots 255; the low byte
// is kept, no clamp.
TEST(GuidedOnePass, ValuesAbove255Wrap) {
    Case c(40, 40);
    for (int32_t y = 0; y < c.h; ++y)
        for (int32_t x = 0; x < c.w; ++x) c.src[static_cast<size_t>(y) * c.w + x] = (x + y) % 2 ? 255 : 45;
    c.build_tables();
    const float eps = -0.1f;
    const std::vector<uint8_t> out = run_exported(c, eps, c.w);
    int wrapped = 0;
    for (int32_t y = 0; y < c.h; ++y) {
        for (int32_t x = 0; x < c.w; ++x) {
            const double want = model(c, eps, y, x);
            if (want < 256.0 || want >= 512.0) continue;
            ++wrapped;
            EXPECT_NEAR(out[static_cast<size_t>(y) * c.w + x], want - 256.0, 2.0) << x << "," << y;
        }
    }
    EXPECT_GT(wrapped, 500);
}

// The same bytes on every platform and build (vector or per-pixel).
TEST(GuidedOnePass, GoldenChecksum) {
    Case c(120, 36);
    fill_scene(c, 2024);
    c.build_tables();
    uint64_t h = 0;
    for (float eps : {0.04f, 0.0f, -0.1f, 1e30f}) {
        const std::vector<uint8_t> out = run_exported(c, eps, c.w);
        h = h * 31 + fnv1a(out.data(), out.size());
    }
    EXPECT_EQ(h, 14952126652868605499u);
}

}  // namespace
}  // namespace qimra::test
