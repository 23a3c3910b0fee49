// One step of anisotropic diffusion with the exponential conduction function
// over the 8-neighbourhood: small differences (noise) are pulled together,
// differences much larger than kappa (edges) get no weight at all.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qimra/qimra.h"
#include "simd/convert.h"

namespace {

constexpr int kMaxDiff = 255;

// The weight depends only on the difference d = n - m and on kappa, so the
// per-call table holds exactly the value each neighbour would compute:
// w = trunc(exp(-(d / kappa)^2) * 128), the quotient and square in single
// precision, the exponential in double. kappa = 0 makes every quotient
// infinite (or NaN for d = 0), and both give weight 0.
void build_weights(int kappa, int32_t* w) {
    for (int d = -kMaxDiff; d <= kMaxDiff; ++d) {
        const float q = static_cast<float>(d) / static_cast<float>(kappa);
        const float e = -(q * q);
        w[d + kMaxDiff] = qimra::sat_i32_from_double(std::exp(static_cast<double>(e)) * 128.0);
    }
}

uint8_t diffuse_pixel(const uint8_t* p, ptrdiff_t stride, const int32_t* w, int step) {
    const int m = p[0];
    const uint8_t* up = p - stride;
    const uint8_t* down = p + stride;
    const int neighbours[8] = {up[-1], up[0], up[1], p[-1], p[1], down[-1], down[0], down[1]};
    int32_t s = 0;
    for (int n : neighbours) {
        const int d = n - m;
        s += w[d + kMaxDiff] * d;
    }
    // step is a gain in 1/16384 on weights in 1/128; the product is the
    // 32-bit one (it wraps only for gains far outside any useful range),
    // and the shift is arithmetic, so negative sums floor.
    const int32_t scaled = static_cast<int32_t>(static_cast<uint32_t>(step) * static_cast<uint32_t>(s));
    const int32_t v = m + (scaled >> 14);
    if (v < 0) return 0;
    if (v > 255) return 255;
    return static_cast<uint8_t>(v);
}

}  // namespace

// src and dst must not overlap: every pixel reads its unfiltered neighbours.
extern "C" void blc_noise_filt_ADF(const uint8_t* src, uint8_t* dst, int width, int height, int src_stride,
                                   int dst_stride, int kappa, int step, int /*unused*/) {
    if (width < 1 || height < 1) return;
    int32_t weights[2 * kMaxDiff + 1];
    build_weights(kappa, weights);

    for (int y = 0; y < height; ++y) {
        const uint8_t* s = src + static_cast<ptrdiff_t>(y) * src_stride;
        uint8_t* d = dst + static_cast<ptrdiff_t>(y) * dst_stride;
        if (y == 0 || y == height - 1) {
            memcpy(d, s, static_cast<size_t>(width));
            continue;
        }
        d[0] = s[0];
        d[width - 1] = s[width - 1];
        for (int x = 1; x < width - 1; ++x) d[x] = diffuse_pixel(s + x, src_stride, weights, step);
    }
}
