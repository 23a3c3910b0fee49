// The two-dimensional luma/gain table: entry (i << 7) | (j >> 1) gives, for
// pixel luma i and base luma j, the output luma (low byte) and the chroma
// gain in 1/32 units (high byte).
#pragma once

#include <cstdint>

namespace qimra {

constexpr int32_t kGainCurveEntries = 700;
constexpr int32_t kColourLutRowEntries = 128;

// Chroma gain for a luma ratio of k / 10, k = 0..699: the frame's curve,
// held between 32 (unity) and 70, with x stepped by 0.1 in float.
void build_bounded_gain_curve(float sigma, int32_t* gain);
// The single-threaded builder's curve: no limits, x stepped in double.
void build_unbounded_gain_curve(float sigma, int32_t* gain);

// What one row of the table is computed from.
struct ColourLutInputs {
    const uint8_t* gamma_lut;  // 256 entries: the frame's tone table
    const float* sig45_f;      // 256 entries: detail weight by |i - j|
    const float* sig50p1_f;    // 256 entries: detail boost by pixel luma
    const int32_t* recip;      // recip[i] = 65536 / (i + 1)
    const int32_t* gain;       // kGainCurveEntries entries
};

// Entries l in [l_begin, l_end) of row i (base luma j = 2 * l); `row`
// points at the row's first entry.
void colour_lut_row_c(const ColourLutInputs& in, int32_t i, uint16_t* row, int32_t l_begin, int32_t l_end);

// Per-build tables that turn the row's gathers into contiguous loads.
struct ColourLutVectorTables {
    // weight[p][n] = sig45_f[|2n - 256 - p|]: for a row i of parity p the
    // detail weights of j = 0, 2, ..., 254 are weight[p][128 - i/2 + l].
    float weight[2][256];
    float gamma_even[kColourLutRowEntries];  // gamma_lut[2l] as float
};
void prepare_colour_lut_vector_tables(const ColourLutInputs& in, ColourLutVectorTables* v);

// The same as colour_lut_row_c, 8 entries per step; (l_end - l_begin) must
// be a multiple of 8.
void colour_lut_row_neon(const ColourLutInputs& in, const ColourLutVectorTables& v, int32_t i, uint16_t* row,
                         int32_t l_begin, int32_t l_end);

// x86-64: the same eight lanes wide in AVX2.
void colour_lut_row_avx2(const ColourLutInputs& in, const ColourLutVectorTables& v, int32_t i, uint16_t* row,
                         int32_t l_begin, int32_t l_end);

// Rows first..last of the table at lut, in the dispatch's form.
void build_colour_lut_rows(const ColourLutInputs& in, int32_t first, int32_t last, uint16_t* lut);

}  // namespace qimra
