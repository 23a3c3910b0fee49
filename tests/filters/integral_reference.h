// Summed-area tables by their definition, for checking the builders and for
// feeding the guided filter windows of any radius.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qimra::test {

struct SummedTables {
    int32_t stride = 0;  // entries per row
    std::vector<uint32_t> sum;
    std::vector<uint32_t> sq;
};

// The image extended by `border` replicated pixels on every side.
inline uint8_t padded_pixel(const uint8_t* src, ptrdiff_t stride, int32_t w, int32_t h, int32_t border, int32_t y,
                            int32_t x) {
    const int32_t sy = std::clamp(y - border, 0, h - 1);
    const int32_t sx = std::clamp(x - border, 0, w - 1);
    return src[sy * stride + sx];
}

// Entry (i, j) = sum over padded pixels above row i and left of column j,
// accumulated in 64 bits and reduced modulo 2^32 at the end.
inline SummedTables reference_tables(const uint8_t* src, ptrdiff_t stride, int32_t w, int32_t h, int32_t border) {
    const int32_t pw = w + 2 * border;
    const int32_t ph = h + 2 * border;
    SummedTables t;
    t.stride = pw + 1;
    t.sum.assign(static_cast<size_t>(t.stride) * (ph + 1), 0);
    t.sq.assign(t.sum.size(), 0);
    std::vector<uint64_t> col_sum(pw + 1, 0), col_sq(pw + 1, 0);
    for (int32_t i = 1; i <= ph; ++i) {
        uint64_t run = 0, run_sq = 0;
        for (int32_t j = 1; j <= pw; ++j) {
            const uint64_t p = padded_pixel(src, stride, w, h, border, i - 1, j - 1);
            run += p;
            run_sq += p * p;
            col_sum[j] += run;
            col_sq[j] += run_sq;
            t.sum[static_cast<size_t>(i) * t.stride + j] = static_cast<uint32_t>(col_sum[j]);
            t.sq[static_cast<size_t>(i) * t.stride + j] = static_cast<uint32_t>(col_sq[j]);
        }
    }
    return t;
}

}  // namespace qimra::test
