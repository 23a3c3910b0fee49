// The one-pass self-guided filter: inside each (2r + 1)^2 window the output
// is a * I + (1 - a) * mean with a = var / (var + eps), applied at the
// window's centre only. It reads the padded summed-area tables
// (row stride width + 2r + 1) and writes a packed width x height image.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace qimra {

// 1/65025 = 1/255^2 in single precision: eps is given in units of the
// variance of values normalised to 0..1.
constexpr float kInvSquared255 = std::bit_cast<float>(0x37810182u);
static_assert(kInvSquared255 == 1.0f / 65025.0f);

// Where the windows of radius r lie in padded tables of a width-pixel image:
// window side 2r + 1, table row stride width + side, and the distance from a
// window's top table row to its bottom one.
struct WindowGeometry {
    int32_t side;
    ptrdiff_t table_stride;
    ptrdiff_t below;
};
inline WindowGeometry window_geometry(int32_t width, int32_t radius) {
    const int32_t side = 2 * radius + 1;
    const ptrdiff_t table_stride = static_cast<ptrdiff_t>(width) + side;
    return {side, table_stride, side * table_stride};
}

// Sum over the window whose table corners start at top: bottom-right +
// top-left - bottom-left - top-right, modulo 2^32. Exact for windows of up
// to 17 x 17 even where the square table has wrapped.
inline uint32_t window_sum(const uint32_t* top, ptrdiff_t below, int32_t side) {
    const uint32_t* bottom = top + below;
    return bottom[side] + top[0] - bottom[0] - top[side];
}

// Per-pixel form: columns [first_column, width) of every row, then the 4 zero
// bytes after the image that the vector form's last group store leaves.
// Source row y is read at src + y * width.
void self_guided_filter_1pass_c(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum, int32_t radius,
                                float eps, uint8_t* dst, int32_t width, int32_t height, int32_t first_column);

// Vector form: the leading width / 4 groups of four pixels of every row; each
// group store writes its four results and four zero bytes after them, which
// the next group (or the per-pixel form) overwrites. Returns the columns done.
int32_t self_guided_filter_1pass_neon(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                      int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height);

// x86-64 has its own vector forms: translated, the NEON reciprocal estimate
// and narrowings cost several times the arithmetic. Same groups, same
// stores, same result; the wider forms step eight or sixteen lanes.
int32_t self_guided_filter_1pass_sse41(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                       int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height);
int32_t self_guided_filter_1pass_avx2(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                      int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height);
int32_t self_guided_filter_1pass_avx512(const uint8_t* src, const uint32_t* ii_sum, const uint32_t* ii_sqsum,
                                        int32_t radius, float eps, uint8_t* dst, int32_t width, int32_t height);

}  // namespace qimra
