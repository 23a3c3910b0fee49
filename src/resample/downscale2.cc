// Halving with a 5-tap binomial (Gaussian) and a 9-tap Lanczos kernel. Both
// take the even source positions, so the output is (width / 2) x
// (height / 2): an odd last row or column only feeds taps.
#include "resample/downscale2.h"

#include <cmath>

#include "qimra/qimra.h"

namespace qimra {
namespace {

// 12-digit constants, kept as they are: the taps depend on them.
constexpr double kPi = 3.14159265359;
constexpr double kTwoPi = 6.28318530718;

inline int clamp_index(int i, int n) { return i < 0 ? 0 : (i >= n ? n - 1 : i); }

inline uint8_t clamp_u8(int32_t v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v)); }

// 1 4 6 4 1 out of 16 around the centre, rounded.
template <typename Pixel>
uint8_t binomial5(Pixel p) {
    return static_cast<uint8_t>((p(-2) + 4 * p(-1) + 6 * p(0) + 4 * p(1) + p(2) + 8) >> 4);
}

// The nine Q15 taps around the centre, rounded and clamped (the negative
// lobes can take a sum below 0 or above 255).
template <typename Pixel>
uint8_t lanczos9(const int32_t* q, Pixel p) {
    int32_t sum = 0;
    for (int k = -4; k <= 4; ++k) sum += q[k + 4] * p(k);
    return clamp_u8((sum + 16384) >> 15);
}

}  // namespace

void lanczos_q15_taps(int32_t q[9]) {
    float c[9];
    gen_lanczos_coeffs(c, 9, 0.4f);
    float sum = 0.0f;
    for (float v : c) sum += v;
    // Truncation toward zero after adding one half: the negative taps round
    // toward zero, not to nearest. The values are far inside int32.
    for (int k = 0; k < 9; ++k) q[k] = static_cast<int32_t>(static_cast<double>(c[k] * 32768.0f / sum) + 0.5);
}

}  // namespace qimra

extern "C" void gen_lanczos_coeffs(float* c, int n, float s) {
    const int h = n >> 1;
    c[h] = 1.0f;
    // 2s / (h + 1) in single precision, the rest in double.
    const float two_s_over_a = s * (2.0f * (1.0f / static_cast<float>(h + 1)));
    for (int k = 1; k <= h; ++k) {
        const double kd = k;
        const double value = std::sin(qimra::kTwoPi * s * kd) * std::sin(qimra::kPi * kd / (h + 1)) /
                             (kd * kd * qimra::kPi * qimra::kPi * two_s_over_a);
        c[h - k] = c[h + k] = static_cast<float>(value);
    }
}

extern "C" void downscale_by_2_gaussian(const uint8_t* src, uint8_t* dst, uint8_t* work, int width, int height,
                                        int src_stride, int dst_stride) {
    using qimra::clamp_index;
    const int half_w = width / 2;
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = src + static_cast<long>(y) * src_stride;
        uint8_t* out = work + static_cast<long>(y) * half_w;
        for (int x = 0; x < half_w; ++x) {
            out[x] = qimra::binomial5([&](int k) { return int{row[clamp_index(2 * x + k, width)]}; });
        }
    }
    for (int y = 0; y < height / 2; ++y) {
        uint8_t* out = dst + static_cast<long>(y) * dst_stride;
        for (int x = 0; x < half_w; ++x) {
            out[x] = qimra::binomial5(
                [&](int k) { return int{work[static_cast<long>(clamp_index(2 * y + k, height)) * half_w + x]}; });
        }
    }
}

extern "C" void downscale_by_2_lanczos_w_pad(const uint8_t* src, uint8_t* dst, uint8_t* work, int width, int height,
                                             int src_stride, int dst_stride) {
    int32_t q[9];
    qimra::lanczos_q15_taps(q);
    const int half_w = width / 2;
    const int work_stride = half_w + 16;
    uint8_t* image = work + 8L * work_stride + 8;
    for (int y = 0; y < height; ++y) {
        // Reads 4 pixels past both ends of the row: the caller's border.
        const uint8_t* row = src + static_cast<long>(y) * src_stride;
        uint8_t* out = image + static_cast<long>(y) * work_stride;
        for (int x = 0; x < half_w; ++x) out[x] = qimra::lanczos9(q, [&](int k) { return int32_t{row[2 * x + k]}; });
    }
    pad_with_replication(image, half_w, height, 8, 8, work_stride);
    for (int y = 0; y < height / 2; ++y) {
        uint8_t* out = dst + static_cast<long>(y) * dst_stride;
        for (int x = 0; x < half_w; ++x) {
            out[x] = qimra::lanczos9(
                q, [&](int k) { return int32_t{image[static_cast<long>(2 * y + k) * work_stride + x]}; });
        }
    }
}

// The same taps and rounding without any border: taps that fall outside the
// image take the nearest edge pixel, across and down. So the result equals
// downscale_by_2_lanczos_w_pad on a source whose 4-pixel border replicates
// its edges.
extern "C" void downscale_by_2_lanczos(const uint8_t* src, uint8_t* dst, uint8_t* work, int width, int height,
                                       int src_stride, int dst_stride) {
    using qimra::clamp_index;
    int32_t q[9];
    qimra::lanczos_q15_taps(q);
    const int half_w = width / 2;
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = src + static_cast<long>(y) * src_stride;
        uint8_t* out = work + static_cast<long>(y) * half_w;
        for (int x = 0; x < half_w; ++x) {
            out[x] = qimra::lanczos9(q, [&](int k) { return int32_t{row[clamp_index(2 * x + k, width)]}; });
        }
    }
    for (int y = 0; y < height / 2; ++y) {
        uint8_t* out = dst + static_cast<long>(y) * dst_stride;
        for (int x = 0; x < half_w; ++x) {
            out[x] = qimra::lanczos9(q, [&](int k) {
                return int32_t{work[static_cast<long>(clamp_index(2 * y + k, height)) * half_w + x]};
            });
        }
    }
}

extern "C" void downscale_by_2(const uint8_t* src, uint8_t* dst, uint8_t* work, int width, int height, int src_stride,
                               int dst_stride) {
    downscale_by_2_lanczos_w_pad(src, dst, work, width, height, src_stride, dst_stride);
}
