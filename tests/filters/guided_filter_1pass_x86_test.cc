// The x86-64 forms of the one-pass guided filter (four lanes, and eight or
// sixteen where the processor has AVX2 or AVX-512) against the per-pixel form: every byte, on
// images and tables of many sizes, with sources and outputs that end exactly
// at the end of their allocations.
#include <gtest/gtest.h>

#include <cfloat>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "filters/guided_filter.h"
#include "filters/integral_reference.h"
#include "qimra/qimra.h"
#include "simd/x86.h"
#include "support/engine_helpers.h"
#include "support/forms.h"

#if QIMRA_X86_FORMS

namespace qimra::test {
namespace {

struct Image {
    int32_t w, h, r;
    std::vector<uint8_t> src;  // exactly w * h bytes
    SummedTables t;
};

Image image_with_tables(int32_t w, int32_t h, int32_t r, uint32_t seed) {
    Image im{w, h, r, std::vector<uint8_t>(static_cast<size_t>(w) * h), {}};
    fill_random(im.src.data(), im.src.size(), seed);
    // Smooth the noise in places so that a spans flat areas to edges.
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            uint8_t& p = im.src[static_cast<size_t>(y) * w + x];
            if ((x / 9 + y / 4) % 3 == 0) p = static_cast<uint8_t>(40 + p % 5);
        }
    im.t = reference_tables(im.src.data(), w, w, h, r);
    return im;
}

// Output buffer: the image and the 4 bytes a group store may leave after it.
std::vector<uint8_t> per_pixel(const Image& im, const uint32_t* sum, const uint32_t* sq, float eps) {
    std::vector<uint8_t> dst(im.src.size() + 4, 0xAA);
    self_guided_filter_1pass_c(im.src.data(), sum, sq, im.r, eps, dst.data(), im.w, im.h, 0);
    return dst;
}

using VectorForm = int32_t (*)(const uint8_t*, const uint32_t*, const uint32_t*, int32_t, float, uint8_t*, int32_t,
                               int32_t);

// The x86 forms this processor runs.
std::vector<std::pair<const char*, VectorForm>> forms() {
    return vector_forms<VectorForm>({.sse41 = self_guided_filter_1pass_sse41,
                                     .avx2 = self_guided_filter_1pass_avx2,
                                     .avx512 = self_guided_filter_1pass_avx512});
}

// A vector form for its columns, finished by the per-pixel form as the
// exported function does.
std::vector<uint8_t> vector_form(VectorForm form, const Image& im, const uint32_t* sum, const uint32_t* sq, float eps) {
    std::vector<uint8_t> dst(im.src.size() + 4, 0xAA);
    const int32_t done = form(im.src.data(), sum, sq, im.r, eps, dst.data(), im.w, im.h);
    EXPECT_EQ(done, im.w - im.w % 4);
    self_guided_filter_1pass_c(im.src.data(), sum, sq, im.r, eps, dst.data(), im.w, im.h, done);
    return dst;
}

TEST(GuidedOnePassX86, MatchesPerPixelFormOnImages) {
    uint32_t seed = 11;
    for (int32_t r : {8, 1, 3})
        for (int32_t w : {4, 5, 8, 11, 12, 20, 37, 100, 483})
            for (int32_t h : {1, 3, 19}) {
                const Image im = image_with_tables(w, h, r, seed++);
                for (float eps : {0.04f, 0.001f, 0.5f})
                    for (const auto& [name, form] : forms())
                        ASSERT_EQ(vector_form(form, im, im.t.sum.data(), im.t.sq.data(), eps),
                                  per_pixel(im, im.t.sum.data(), im.t.sq.data(), eps))
                            << name << " " << w << "x" << h << " r " << r << " eps " << eps;
            }
}

// Estimates of zero, denormal, huge, infinite and NaN operands; a above 1
// (outputs wrap) and far beyond 2^32 (saturation).
TEST(GuidedOnePassX86, MatchesPerPixelFormForExtremeEps) {
    const float eps_values[] = {0.0f,
                                -0.0f,
                                -0.01f,
                                -0.1f,
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
    Image im = image_with_tables(64, 24, 8, 5);
    for (int32_t y = 0; y < 24; ++y)
        for (int32_t x = 0; x < 24; ++x) im.src[static_cast<size_t>(y) * im.w + x] = 77;  // var = 0
    im.t = reference_tables(im.src.data(), im.w, im.w, im.h, im.r);
    for (float eps : eps_values)
        for (const auto& [name, form] : forms())
            EXPECT_EQ(vector_form(form, im, im.t.sum.data(), im.t.sq.data(), eps),
                      per_pixel(im, im.t.sum.data(), im.t.sq.data(), eps))
                << name << " eps " << eps;
}

// Tables of arbitrary words: window sums anywhere in 0..2^32-1 (the unsigned
// conversion above 2^31), means and variances of every magnitude and sign,
// so the estimate sees every exponent and every leading-fraction pattern.
TEST(GuidedOnePassX86, MatchesPerPixelFormOnArbitraryTables) {
    for (uint32_t seed = 1; seed <= 6; ++seed) {
        const Image im = image_with_tables(44, 9, 8, seed);
        std::vector<uint32_t> sum(im.t.sum.size()), sq(im.t.sq.size());
        fill_random(reinterpret_cast<uint8_t*>(sum.data()), sum.size() * 4, seed * 7);
        fill_random(reinterpret_cast<uint8_t*>(sq.data()), sq.size() * 4, seed * 13);
        // Narrow some words so that both small and wrapped sums occur.
        for (size_t i = 0; i < sum.size(); i += 3) sum[i] >>= (i % 29);
        for (size_t i = 1; i < sq.size(); i += 4) sq[i] >>= (i % 31);
        for (float eps : {0.04f, 1e-20f, -0.5f, 3e9f})
            for (const auto& [name, form] : forms())
                ASSERT_EQ(vector_form(form, im, sum.data(), sq.data(), eps), per_pixel(im, sum.data(), sq.data(), eps))
                    << name << " seed " << seed << " eps " << eps;
    }
}

}  // namespace
}  // namespace qimra::test

#endif
