// Summed-area tables of the luma and of its squares, the input of the
// self-guided filter's window sums.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qimra {

// Border of replicated pixels around the image described by the padded
// tables; it equals the frame path's filter radius, so the filter never
// clips its window.
constexpr int32_t kIntegralPadding = 8;

// Entries per row of the padded tables of a width-pixel image.
constexpr int32_t padded_integral_stride(int32_t width) { return width + 2 * kIntegralPadding + 1; }

// The running sums of one table row: entries so far of the row's pixels and
// of their squares, modulo 2^32.
struct RowRun {
    uint32_t sum = 0;
    uint32_t sq = 0;
};

// Per-pixel form of one row's middle: for each of the `width` pixels, adds it
// (and its square) to the run and writes entry = entry one table row above
// (`up` entries back, negative) + run, at sum[k] and sq[k].
void integral_row_c(const uint8_t* row, int32_t width, uint32_t* sum, uint32_t* sq, ptrdiff_t up, RowRun& run);

// Vector form of the same: the leading whole groups of eight pixels, run
// updated; returns the pixels done. Prefix sums inside a group by shifted
// adds, carried from group to group; all lanes wrap as the scalar sums do.
int32_t integral_row_neon(const uint8_t* row, int32_t width, uint32_t* sum, uint32_t* sq, ptrdiff_t up, RowRun& run);

// x86-64: the same steps in SSE4.1 (the translated NEON form is barely
// faster than the per-pixel loop there).
int32_t integral_row_sse41(const uint8_t* row, int32_t width, uint32_t* sum, uint32_t* sq, ptrdiff_t up, RowRun& run);

}  // namespace qimra
