// The two-dimensional luma/gain table and its gain curve.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <thread>
#include <vector>

#include "engine/colour_lut.h"
#include "engine/tables.h"
#include "support/engine_helpers.h"
#include "support/forms.h"

namespace qimra {
namespace {

// A zeroed context with just the tables the colour table reads.
struct LutContext {
    std::unique_ptr<ctx> c = std::make_unique<ctx>();
    std::vector<uint16_t> lut = std::vector<uint16_t>(256 * 128);
    float sig45[256], sig50p1[256];
    uint8_t sig50p1_lut[256];
    LutContext(float gamma, int mid, float sigma) {
        fill_sigmoid_float_tables(sig45, sig50p1, sig50p1_lut);
        fill_reciprocal_tables(c->recip16_a, c->recip16_b);
        c->sig45_f = sig45;
        c->sig50p1_f = sig50p1;
        c->chroma_lut16 = lut.data();
        c->chroma_sigma = sigma;
        if (mid > 0) create_gamma_tab(c->gamma_lut, nullptr, gamma, static_cast<uint8_t>(mid), 230);
        if (mid == 0) test::fill_random(c->gamma_lut, 256, 2024);  // tone steps far steeper than any curve
        if (mid < 0) std::fill_n(c->gamma_lut, 256, 255);          // black to white: ratios past the curve's end
    }
    uint64_t checksum() const {
        return test::fnv1a(reinterpret_cast<const uint8_t*>(lut.data()), 2 * lut.size()) ^
               test::fnv1a(reinterpret_cast<const uint8_t*>(c->chroma_gain_lut), sizeof c->chroma_gain_lut);
    }
};

// Goldens of the exact builders: a decision's curve, a random tone table
// and one that maps everything to white, where the gain index is clamped.
TEST(ColourLut, GoldenTablesOfBothBuilders) {
    struct Row {
        float gamma;
        int mid;
        float sigma;
        uint64_t one_core, single_threaded;
    } rows[] = {
        {0.5f, 128, 4.0f, 11311327276957122757u, 8546624839817010567u},
        {1.4f, 200, 8.0f, 16347510321819418771u, 9171696150550242235u},
        {0.0f, 0, 2.5f, 5364965951698576574u, 6643138796824446376u},
        {0.0f, -1, 100.0f, 17571382421746923142u, 12141377084222741360u},
    };
    for (const Row& r : rows) {
        LutContext a(r.gamma, r.mid, r.sigma), b(r.gamma, r.mid, r.sigma);
        qimra_col_conv_create_lut_mc(a.c.get(), 0, 1);
        std::fill_n(b.c->recip16_a, 300, 0);  // the single-threaded builder keeps its own reciprocals
        EXPECT_EQ(qimra_col_conv_create_lut(b.c.get()), 256);
        EXPECT_EQ(a.checksum(), r.one_core) << "mid " << r.mid << " sigma " << r.sigma;
        EXPECT_EQ(b.checksum(), r.single_threaded) << "mid " << r.mid << " sigma " << r.sigma;
        EXPECT_EQ(a.lut[0] & 0xFF, 16) << "rows below 16 give luma 16";
        if (r.mid < 0) {
            EXPECT_EQ(a.lut[0] >> 8, 70) << "an index past the curve takes its last entry, 70";
        }
        const auto [lo, hi] = std::minmax_element(a.c->chroma_gain_lut, a.c->chroma_gain_lut + 700);
        EXPECT_EQ(*lo, 32) << "the bounded curve never lowers the chroma";
        EXPECT_LE(*hi, 70) << "and raises it at most to 70 / 32";
    }
}

TEST(ColourLut, CoresSplitTheRowsAndAgreeWithOneCore) {
    LutContext whole(0, 0, 6.0f), parts(0, 0, 6.0f);
    qimra_col_conv_create_lut_mc(whole.c.get(), 0, 1);
    // Both halves at once, as on the frame path (the thread sanitizer
    // checks that they share nothing they write).
    std::thread worker([&] { qimra_col_conv_create_lut_mc(parts.c.get(), 1, 2); });
    qimra_col_conv_create_lut_mc(parts.c.get(), 0, 2);
    worker.join();
    EXPECT_EQ(parts.checksum(), whole.checksum());
    std::fill(parts.lut.begin(), parts.lut.end(), 0);
    for (int core = 2; core >= 0; --core) qimra_col_conv_create_lut_mc(parts.c.get(), core, 3);
    EXPECT_EQ(parts.lut, whole.lut) << "three cores, the last taking rows 170..255";
}

TEST(ColourLut, VectorRowsMatchPerPixelRow) {
    using Form = void (*)(const ColourLutInputs&, const ColourLutVectorTables&, int32_t, uint16_t*, int32_t, int32_t);
    const auto forms = test::vector_forms<Form>(
        {.neon = QIMRA_NEON_FORM(colour_lut_row_neon), .avx2 = QIMRA_X86_FORM(colour_lut_row_avx2)});
    for (int mid : {128, 0, -1}) {
        LutContext c(0.6f, mid, 4.0f);
        std::vector<int32_t> gain(700);
        build_bounded_gain_curve(1.0f + static_cast<float>(mid & 7) * 2.5f, gain.data());
        const ColourLutInputs in{c.c->gamma_lut, c.sig45, c.sig50p1, c.c->recip16_a, gain.data()};
        ColourLutVectorTables v;
        prepare_colour_lut_vector_tables(in, &v);
        for (int32_t i = 0; i < 256; ++i)
            for (const auto& [begin, end] : {std::pair{0, 128}, std::pair{8, 120}, std::pair{40, 48}}) {
                std::vector<uint16_t> want(end, 0x5A5A);  // the row ends exactly at the end of its allocation
                colour_lut_row_c(in, i, want.data(), begin, end);
                for (const auto& [name, form] : forms) {
                    std::vector<uint16_t> got(end, 0x5A5A);
                    form(in, v, i, got.data(), begin, end);
                    ASSERT_EQ(got, want) << name << " row " << i << " entries " << begin << ".." << end;
                }
            }
    }
}

}  // namespace
}  // namespace qimra
