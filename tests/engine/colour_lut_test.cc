// The two-dimensional luma/gain table and its gain curve.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "engine/colour_lut.h"
#include "engine/ctx.h"
#include "engine/tables.h"
#include "support/engine_helpers.h"
#include "support/forms.h"

namespace qimra {
namespace {

using test::fill_random;

constexpr size_t kLutEntries = 256 * 128;

// A zeroed context with just the tables the colour table reads.
class LutContext {
public:
    LutContext() : c_(std::make_unique<ctx>()), lut_(kLutEntries, 0xCDCD), sig45_(256), sig50p1_(256) {
        std::vector<uint8_t> sig50p1_lut(256);
        fill_sigmoid_float_tables(sig45_.data(), sig50p1_.data(), sig50p1_lut.data());
        fill_reciprocal_tables(c_->recip16_a, c_->recip16_b);
        c_->sig45_f = sig45_.data();
        c_->sig50p1_f = sig50p1_.data();
        c_->chroma_lut16 = lut_.data();
        c_->chroma_sigma = 4.0f;
        create_gamma_tab(c_->gamma_lut, c_->gamma_hist, 0.5f, 128, 230);
    }
    ctx* get() { return c_.get(); }
    ctx* operator->() { return c_.get(); }
    std::vector<uint16_t>& lut() { return lut_; }
    void random_gamma(uint32_t seed) { fill_random(c_->gamma_lut, 256, seed); }
    void clear_outputs() {
        std::fill(lut_.begin(), lut_.end(), 0xCDCD);
        std::fill(std::begin(c_->chroma_gain_lut), std::end(c_->chroma_gain_lut), -1);
    }
    std::vector<int32_t> gain_lut() const {
        return std::vector<int32_t>(std::begin(c_->chroma_gain_lut), std::end(c_->chroma_gain_lut));
    }

private:
    std::unique_ptr<ctx> c_;
    std::vector<uint16_t> lut_;
    std::vector<float> sig45_;
    std::vector<float> sig50p1_;
};

// The gain curve written out plainly: bounded (the frame's) or not (the
// single-threaded builder's, whose x steps in double).
std::vector<int32_t> reference_gain_curve(float sigma, bool bounded) {
    std::vector<int32_t> out(700);
    float x = 0.0f;
    for (int k = 0; k < 700; ++k) {
        const float e = static_cast<float>(std::exp(static_cast<double>(-(x * x) / (sigma * sigma))));
        const float g = 0.015625f + x * e;
        if (!bounded)
            out[k] = static_cast<int32_t>(g * 32.0f);
        else
            out[k] = g <= 1.0f ? 32 : (g < 2.2f ? static_cast<int32_t>(g * 32.0f) : 70);
        if (bounded)
            x += 0.1f;
        else
            x = static_cast<float>(static_cast<double>(x) + 0.1);
    }
    return out;
}

// The table rule written out plainly, entry by entry.
std::vector<uint16_t> reference_lut(const ctx& c, const std::vector<int32_t>& gain) {
    std::vector<uint16_t> out(kLutEntries);
    for (int i = 0; i < 256; ++i)
        for (int j = 0; j < 256; j += 2) {
            const float w = c.sig45_f[std::abs(i - j)];
            const float tf = static_cast<float>(c.gamma_lut[j]) + static_cast<float>(i - j) * c.sig50p1_f[i];
            const int t = static_cast<int>(tf);
            const float uf = (1.0f - w) * static_cast<float>(c.gamma_lut[i]) + w * static_cast<float>(t);
            const int u = std::max(static_cast<int>(uf), 0);
            const int r = ((65536 / (i + 1)) * u) >> 5;
            const int x = ((r * (i >= 16 ? i - 16 : 0)) >> 11) + 16;
            const int luma = (x >> 8) != 0 ? (255 * (x >> 8)) & 0xFF : x;
            const int k = std::min((r * 5) >> 10, 699);
            out[(i << 7) | (j >> 1)] = static_cast<uint16_t>(luma | ((gain[k] & 0xFF) << 8));
        }
    return out;
}

void expect_same_lut(const std::vector<uint16_t>& got, const std::vector<uint16_t>& want, const char* what) {
    for (size_t n = 0; n < kLutEntries; ++n)
        ASSERT_EQ(got[n], want[n]) << what << ": luma " << (n >> 7) << " base " << 2 * (n & 127);
}

TEST(ColourLut, RowsBelow16GiveLuma16Everywhere) {
    LutContext c;
    for (uint32_t seed : {1u, 7u, 99u}) {
        c.random_gamma(seed);
        qimra_col_conv_create_lut_mc(c.get(), 0, 1);
        for (size_t n = 0; n < 16 * 128; ++n) ASSERT_EQ(c.lut()[n] & 0xFF, 16) << "entry " << n << " seed " << seed;
    }
}

TEST(ColourLut, BoundedGainCurveStaysBetweenUnityAnd70) {
    LutContext c;
    qimra_col_conv_create_lut_mc(c.get(), 0, 1);
    EXPECT_EQ(c->chroma_gain_lut[0], 32);  // g = 1/64 at ratio 0
    EXPECT_EQ(c.gain_lut(), reference_gain_curve(4.0f, true));
    for (float sigma : {2.0f, 8.0f, 100.0f}) {
        c->chroma_sigma = sigma;
        qimra_col_conv_create_lut_mc(c.get(), 0, 1);
        const std::vector<int32_t> gain = c.gain_lut();
        EXPECT_EQ(gain, reference_gain_curve(sigma, true)) << "sigma " << sigma;
        for (int32_t g : gain) {
            EXPECT_GE(g, 32);
            EXPECT_LE(g, 70);
        }
    }
    // sigma 8 peaks near 3.45 (110 / 32), so its top is cut to 70.
    c->chroma_sigma = 8.0f;
    qimra_col_conv_create_lut_mc(c.get(), 0, 1);
    EXPECT_EQ(*std::max_element(std::begin(c->chroma_gain_lut), std::end(c->chroma_gain_lut)), 70);
}

TEST(ColourLut, MatchesAStraightforwardReferenceOnManyToneTables) {
    LutContext c;
    struct Case {
        uint32_t seed;  // 0: a tone curve, else random bytes
        float sigma;
    };
    for (const Case k : {Case{0, 4.0f}, Case{3, 4.0f}, Case{11, 2.5f}, Case{12345, 9.0f}, Case{77, 100.0f}}) {
        if (k.seed != 0) c.random_gamma(k.seed);
        c->chroma_sigma = k.sigma;
        qimra_col_conv_create_lut_mc(c.get(), 0, 1);
        expect_same_lut(c.lut(), reference_lut(*c.get(), reference_gain_curve(k.sigma, true)), "bounded");
    }
    // Tone curves of the kind the decision builds, including a wrapped one.
    for (const auto& [gamma, mid, top] : {std::tuple{0.6f, 100, 240}, std::tuple{1.4f, 200, 255},
                                          std::tuple{2.0f, 8, 255}, std::tuple{0.99f, 100, 255}}) {
        create_gamma_tab(c->gamma_lut, c->gamma_hist, gamma, static_cast<uint8_t>(mid), top);
        c->chroma_sigma = 4.0f;
        qimra_col_conv_create_lut_mc(c.get(), 0, 1);
        expect_same_lut(c.lut(), reference_lut(*c.get(), reference_gain_curve(4.0f, true)), "tone curve");
    }
}

TEST(ColourLut, GainIndexPastTheCurveTakesItsLastEntry) {
    // A tone table that maps black to white makes the ratio of the dark rows
    // far larger than 6.99: row 0 against base 0 gives index 10 * 255.
    LutContext c;
    std::fill(std::begin(c->gamma_lut), std::end(c->gamma_lut), 255);
    c->chroma_sigma = 100.0f;  // the curve ends at 70, far from its start of 32
    qimra_col_conv_create_lut_mc(c.get(), 0, 1);
    ASSERT_EQ(c->chroma_gain_lut[699], 70);
    ASSERT_EQ(c->chroma_gain_lut[0], 32);
    EXPECT_EQ(c.lut()[0] >> 8, 70);
    expect_same_lut(c.lut(), reference_lut(*c.get(), reference_gain_curve(100.0f, true)), "clamped");
}

TEST(ColourLut, TwoCoreHalvesEqualTheOneCoreBuild) {
    LutContext c;
    c.random_gamma(2024);
    qimra_col_conv_create_lut_mc(c.get(), 0, 1);
    const std::vector<uint16_t> whole = c.lut();
    const std::vector<int32_t> gain = c.gain_lut();

    // Core 1 alone: rows 128-255 only, and the shared curve is left to core 0.
    c.clear_outputs();
    qimra_col_conv_create_lut_mc(c.get(), 1, 2);
    for (size_t n = 0; n < 128 * 128; ++n) ASSERT_EQ(c.lut()[n], 0xCDCD) << "core 1 wrote row " << (n >> 7);
    for (size_t n = 128 * 128; n < kLutEntries; ++n) ASSERT_EQ(c.lut()[n], whole[n]);
    EXPECT_EQ(c->chroma_gain_lut[0], -1);
    qimra_col_conv_create_lut_mc(c.get(), 0, 2);
    expect_same_lut(c.lut(), whole, "two cores");
    EXPECT_EQ(c.gain_lut(), gain);

    // Three cores: 85 rows each, the last one up to 255.
    c.clear_outputs();
    for (int core = 2; core >= 0; --core) qimra_col_conv_create_lut_mc(c.get(), core, 3);
    expect_same_lut(c.lut(), whole, "three cores");
}

TEST(ColourLut, BothCoresAtOnceAgreeWithOneCore) {
    // As on the frame path: both halves run concurrently (the thread
    // sanitizer build checks that they share nothing they write).
    LutContext c;
    c.random_gamma(31337);
    c->chroma_sigma = 6.0f;
    qimra_col_conv_create_lut_mc(c.get(), 0, 1);
    const std::vector<uint16_t> whole = c.lut();
    const std::vector<int32_t> gain = c.gain_lut();
    c.clear_outputs();
    std::thread worker([&] { qimra_col_conv_create_lut_mc(c.get(), 1, 2); });
    qimra_col_conv_create_lut_mc(c.get(), 0, 2);
    worker.join();
    expect_same_lut(c.lut(), whole, "concurrent cores");
    EXPECT_EQ(c.gain_lut(), gain);
}

TEST(ColourLut, SingleThreadedBuilderKeepsItsOwnCurveAndReciprocals) {
    LutContext c;
    c.random_gamma(5);
    // Its reciprocals are its own: a context without recip16_a changes nothing.
    std::fill(std::begin(c->recip16_a), std::end(c->recip16_a), 0);
    for (float sigma : {4.0f, 8.0f}) {
        c->chroma_sigma = sigma;
        c.clear_outputs();
        EXPECT_EQ(qimra_col_conv_create_lut(c.get()), 256);
        const std::vector<int32_t> curve = reference_gain_curve(sigma, false);
        EXPECT_EQ(c.gain_lut(), curve) << "sigma " << sigma;
        expect_same_lut(c.lut(), reference_lut(*c.get(), curve), "single-threaded");
    }
    // Unbounded: below unity at the start (trunc(0.5) = 0), past 70 at the
    // peak of a wide curve (sigma 8 reaches 110).
    EXPECT_EQ(c->chroma_gain_lut[0], 0);
    EXPECT_EQ(*std::max_element(std::begin(c->chroma_gain_lut), std::end(c->chroma_gain_lut)), 110);
}

TEST(ColourLut, SingleThreadedBuilderKeepsTheLowByteOfLargeGains) {
    LutContext c;
    std::fill(std::begin(c->gamma_lut), std::end(c->gamma_lut), 255);
    c->chroma_sigma = 100.0f;  // gains up to 1372
    qimra_col_conv_create_lut(c.get());
    const std::vector<int32_t> curve = reference_gain_curve(100.0f, false);
    ASSERT_GT(curve[699], 255);
    EXPECT_EQ(c.lut()[0] >> 8, curve[699] & 0xFF);  // row 0, base 0: index clamped to 699
    expect_same_lut(c.lut(), reference_lut(*c.get(), curve), "large gains");
}

TEST(ColourLut, VectorRowsMatchPerPixelRow) {
    using Form = void (*)(const ColourLutInputs&, const ColourLutVectorTables&, int32_t, uint16_t*, int32_t, int32_t);
    const auto forms = test::vector_forms<Form>(
        {.neon = QIMRA_NEON_FORM(colour_lut_row_neon), .avx2 = QIMRA_X86_FORM(colour_lut_row_avx2)});
    LutContext c;
    for (uint32_t seed : {1u, 2u, 3u, 4u, 5u, 6u}) {
        c.random_gamma(seed);
        std::vector<int32_t> gain(700);
        build_bounded_gain_curve(1.0f + static_cast<float>(seed) * 2.5f, gain.data());
        const ColourLutInputs in{c->gamma_lut, c->sig45_f, c->sig50p1_f, c->recip16_a, gain.data()};
        ColourLutVectorTables v;
        prepare_colour_lut_vector_tables(in, &v);
        for (int32_t i = 0; i < 256; ++i)
            for (const auto& [begin, end] : {std::pair{0, 128}, std::pair{8, 120}, std::pair{40, 48}}) {
                // The row ends exactly at the end of its allocation.
                std::vector<uint16_t> expect(end, 0x5A5A);
                colour_lut_row_c(in, i, expect.data(), begin, end);
                for (const auto& [name, form] : forms) {
                    std::vector<uint16_t> got(end, 0x5A5A);
                    form(in, v, i, got.data(), begin, end);
                    ASSERT_EQ(got, expect)
                        << name << " row " << i << " entries " << begin << ".." << end << " seed " << seed;
                }
            }
    }
}
}  // namespace
}  // namespace qimra
