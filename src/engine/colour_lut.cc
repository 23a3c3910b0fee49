// The per-frame luma/gain table, built after the tone table is final.
#include "engine/colour_lut.h"

#include <cmath>
#include <cstring>

#include "engine/ctx.h"
#include "simd/convert.h"
#include "simd/dispatch.h"

namespace qimra {

namespace {

// g = 1/64 + x * exp(-x^2 / sigma^2): float throughout except the
// exponential, which is taken in double and rounded back.
float gain_curve_value(float x, float sigma_sq) {
    const float arg = -(x * x) / sigma_sq;
    const float e = static_cast<float>(std::exp(static_cast<double>(arg)));
    return 0.015625f + x * e;
}

}  // namespace

void build_bounded_gain_curve(float sigma, int32_t* gain) {
    const float sigma_sq = sigma * sigma;
    float x = 0.0f;
    for (int32_t k = 0; k < kGainCurveEntries; ++k) {
        const float g = gain_curve_value(x, sigma_sq);
        // Chroma is never reduced, and never raised past 70 / 32.
        if (!(g > 1.0f))
            gain[k] = 32;
        else if (g < 2.2f)
            gain[k] = static_cast<int32_t>(sat_u32_from_float(g * 32.0f));
        else
            gain[k] = 70;
        x += 0.1f;
    }
}

void build_unbounded_gain_curve(float sigma, int32_t* gain) {
    const float sigma_sq = sigma * sigma;
    float x = 0.0f;
    for (int32_t k = 0; k < kGainCurveEntries; ++k) {
        gain[k] = static_cast<int32_t>(sat_u32_from_float(gain_curve_value(x, sigma_sq) * 32.0f));
        x = static_cast<float>(static_cast<double>(x) + 0.1);
    }
}

void colour_lut_row_c(const ColourLutInputs& in, int32_t i, uint16_t* row, int32_t l_begin, int32_t l_end) {
    const float g_i = static_cast<float>(in.gamma_lut[i]);
    const float s = in.sig50p1_f[i];
    const int32_t m = in.recip[i];
    const int32_t c = i >= 16 ? i - 16 : 0;
    for (int32_t l = l_begin; l < l_end; ++l) {
        const int32_t j = 2 * l;
        const float w = in.sig45_f[i >= j ? i - j : j - i];
        // The tone-mapped base plus the boosted detail, blended with the
        // pixel's own tone-mapped value where the detail is an edge.
        const int32_t t = sat_i32_from_float(static_cast<float>(in.gamma_lut[j]) + static_cast<float>(i - j) * s);
        int32_t u = sat_i32_from_float((1.0f - w) * g_i + w * static_cast<float>(t));
        if (u < 0) u = 0;
        // |t| <= 255 + 2 * 255 and u <= max(G_i, t), so u <= 765 and the
        // products below stay far inside 32 bits.
        const int32_t r = (m * u) >> 5;  // new / old luma, 2048 = 1.0
        const int32_t x = ((r * c) >> 11) + 16;
        const uint32_t over = static_cast<uint32_t>(x) >> 8;
        const uint32_t luma = over != 0 ? (255u * over) & 0xFFu : static_cast<uint32_t>(x);
        // A tone table with a steep jump can push the ratio past the curve's
        // last entry (6.99); such pixels take that entry.
        int32_t k = (r * 5) >> 10;
        if (k > kGainCurveEntries - 1) k = kGainCurveEntries - 1;
        // The gain keeps its low 8 bits in the high byte (only the unbounded
        // curve can exceed 255).
        row[l] = static_cast<uint16_t>(luma | (static_cast<uint32_t>(in.gain[k]) << 8));
    }
}

void prepare_colour_lut_vector_tables(const ColourLutInputs& in, ColourLutVectorTables* v) {
    for (int32_t p = 0; p < 2; ++p)
        for (int32_t n = 0; n < 256; ++n) {
            int32_t d = 2 * n - 256 - p;
            if (d < 0) d = -d;
            // n = 0 is never addressed (it would stand for |i - j| = 256).
            v->weight[p][n] = d <= 255 ? in.sig45_f[d] : 0.0f;
        }
    for (int32_t l = 0; l < kColourLutRowEntries; ++l) v->gamma_even[l] = static_cast<float>(in.gamma_lut[2 * l]);
}

void build_colour_lut_rows(const ColourLutInputs& in, int32_t first, int32_t last, uint16_t* lut) {
    using VectorRow =
        void (*)(const ColourLutInputs&, const ColourLutVectorTables&, int32_t, uint16_t*, int32_t, int32_t);
    static const VectorRow vector_row = select_form<VectorRow>(
        {.neon = QIMRA_NEON_FORM(colour_lut_row_neon), .avx2 = QIMRA_X86_FORM(colour_lut_row_avx2)});
    if (vector_row == nullptr) {
        for (int32_t i = first; i <= last; ++i)
            colour_lut_row_c(in, i, lut + i * kColourLutRowEntries, 0, kColourLutRowEntries);
        return;
    }
    ColourLutVectorTables v;
    prepare_colour_lut_vector_tables(in, &v);
    for (int32_t i = first; i <= last; ++i)
        vector_row(in, v, i, lut + i * kColourLutRowEntries, 0, kColourLutRowEntries);
}

}  // namespace qimra

using namespace qimra;

extern "C" void qimra_col_conv_create_lut_mc(qimra_ctx* c, int core, int ncores) {
    // Every core needs the whole gain curve for its rows. Each computes it
    // into its own array and only core 0 publishes it to the context: the
    // cores run at the same time, and a shared table written by one while
    // the other reads it would be a data race even with equal values.
    int32_t gain[kGainCurveEntries];
    build_bounded_gain_curve(c->chroma_sigma, gain);
    if (core == 0) memcpy(c->chroma_gain_lut, gain, sizeof gain);

    const int32_t rows_per_core = 256 / ncores;
    const int32_t first = rows_per_core * core;
    const int32_t last = core == ncores - 1 ? 255 : rows_per_core * (core + 1) - 1;
    const ColourLutInputs in{c->gamma_lut, c->sig45_f, c->sig50p1_f, c->recip16_a, gain};
    build_colour_lut_rows(in, first, last, c->chroma_lut16);
}

extern "C" int32_t qimra_col_conv_create_lut(qimra_ctx* c) {
    // This builder keeps its own reciprocals and an unlimited gain curve
    // with a double-precision step: it does not depend on recip16_a, and
    // its gains may fall below unity or rise past 70 / 32.
    int32_t recip[256];
    for (int32_t i = 0; i < 256; ++i) recip[i] = 65536 / (i + 1);
    build_unbounded_gain_curve(c->chroma_sigma, c->chroma_gain_lut);
    const ColourLutInputs in{c->gamma_lut, c->sig45_f, c->sig50p1_f, recip, c->chroma_gain_lut};
    build_colour_lut_rows(in, 0, 255, c->chroma_lut16);
    return 256;
}
