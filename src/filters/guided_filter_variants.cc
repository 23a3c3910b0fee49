// The exported self-guided filter variants that the frame path does not use.
#include "filters/guided_filter_variants.h"

#include <algorithm>
#include <cstdlib>

#include "filters/guided_filter.h"
#include "filters/integral_image.h"
#include "qimra/qimra.h"
#include "simd/convert.h"
#include "simd/dispatch.h"
#include "simd/ftz.h"
#include "simd/recpe.h"
#include "simd/recps.h"

namespace qimra {

// The first pass is the Advanced SIMD unit's arithmetic, which treats
// denormal operands and results as zero; the per-pixel form does the same so
// that its coefficients are the vector form's. (Denormals need an eps beyond
// about 2^69 and never change an output byte.)
void guided_2pass_coefficients_c(const PaddedWindows& w, float inv_n, float eps, float* a, float* b, int32_t n) {
    const ptrdiff_t below = w.side * w.stride;
    for (int32_t i = 0; i < n; ++i) {
        const uint32_t s = window_sum(w.sum_top + i, below, w.side);
        const uint32_t q = window_sum(w.sq_top + i, below, w.side);
        const float mean = ftz_mul(static_cast<float>(s), inv_n);
        const float var = ftz_mul(ftz_sub(ftz_mul(static_cast<float>(q), inv_n), ftz_mul(mean, mean)), kInvSquared255);
        const float d = ftz_add(var, eps);
        float r = recpe_f32(d);
        r = ftz_mul(r, recps_f32(d, r));
        r = ftz_mul(r, recps_f32(d, r));
        const float coef = ftz_mul(r, var);
        a[i] = coef;
        b[i] = ftz_sub(mean, ftz_mul(coef, mean));
    }
}

}  // namespace qimra

namespace {

// Output tiles of the two-pass filter. The coefficients of a tile and its
// border of r pixels live on the stack; tiles overlap in the border, whose
// coefficients are recomputed (they are pointwise, so every tile sees the
// same values and the output does not depend on the tiling).
constexpr int kTile = 48;
constexpr int kSpan = kTile + 2 * qimra::kTwoPassMaxRadius;

struct Tile {
    int x0, y0, cols, rows;
};

// Coefficients of pixels [c0, c1) x [r0, r1) into span-strided buffers.
void tile_coefficients(const uint32_t* ii_sum, const uint32_t* ii_sqsum, ptrdiff_t table_stride, int radius,
                       float inv_n, float eps, int c0, int c1, int r0, int r1, float* a, float* b) {
    // Window of pixel (x, y): padded rows y + P - r .. y + P + r, so its top
    // table corner is row y + P - r, column x + P - r.
    const int offset = qimra::kIntegralPadding - radius;
    const int n = c1 - c0;
    for (int y = r0; y < r1; ++y) {
        const ptrdiff_t corner = static_cast<ptrdiff_t>(y + offset) * table_stride + (c0 + offset);
        const qimra::PaddedWindows w{ii_sum + corner, ii_sqsum + corner, table_stride, 2 * radius + 1};
        float* arow = a + static_cast<ptrdiff_t>(y - r0) * kSpan;
        float* brow = b + static_cast<ptrdiff_t>(y - r0) * kSpan;
        using Form = decltype(&qimra::guided_2pass_coefficients_neon);
        static const Form form =
            qimra::select_form<Form>({.neon = QIMRA_NEON_FORM(qimra::guided_2pass_coefficients_neon)});
        const int done = form != nullptr ? form(w, inv_n, eps, arow, brow, n) : 0;
        const qimra::PaddedWindows rest{w.sum_top + done, w.sq_top + done, w.stride, w.side};
        qimra::guided_2pass_coefficients_c(rest, inv_n, eps, arow + done, brow + done, n - done);
    }
}

}  // namespace

// Clipped two-step guided filter over the unpadded tables of blc_gen_ii
// (stride width + 1). Mean and variance come from windows clipped to the
// image; the mean of squares is deliberately an integer (truncating
// division) while the mean is not. The second step averages a and b over a
// window one row and one column shorter than the first (rows max(y - r, 0)
// to min(y + r, height - 1), half-open, likewise the columns): the last row
// and column of the coefficients never contribute, and the asymmetry is this
// filter's defined behaviour. An empty second window (r = 0, or a width or
// height of 1) gives 0.0 / 0.0 and the NaN converts to 0.
extern "C" void blc_self_guided_filter(const uint8_t* src, int src_stride, const uint32_t* ii_sum,
                                       const uint32_t* ii_sqsum, int radius, float eps, uint8_t* dst, int width,
                                       int height, float*, float*, uint32_t*, uint32_t*) {
    const size_t plane = width > 0 && height > 0 ? static_cast<size_t>(width) * static_cast<size_t>(height) : 0;
    float* coef_a = static_cast<float*>(malloc(plane * sizeof(float)));
    float* coef_b = static_cast<float*>(malloc(plane * sizeof(float)));
    const ptrdiff_t stride = static_cast<ptrdiff_t>(width) + 1;

    for (int y = 0; y < height; ++y) {
        const int y0 = std::max(y - radius, 0);
        const int y1 = std::min(y + radius + 1, height);
        for (int x = 0; x < width; ++x) {
            const int x0 = std::max(x - radius, 0);
            const int x1 = std::min(x + radius + 1, width);
            const int n = (y1 - y0) * (x1 - x0);
            const ptrdiff_t tl = y0 * stride + x0, tr = y0 * stride + x1;
            const ptrdiff_t bl = y1 * stride + x0, br = y1 * stride + x1;
            const int32_t s = static_cast<int32_t>(ii_sum[br] - ii_sum[tr] - ii_sum[bl] + ii_sum[tl]);
            const int32_t q = static_cast<int32_t>(ii_sqsum[br] - ii_sqsum[tr] - ii_sqsum[bl] + ii_sqsum[tl]);
            const float mean = static_cast<float>(s) / static_cast<float>(n);
            const int32_t mean_sq = q / n;
            const float var = static_cast<float>(mean_sq) - mean * mean;
            const float varn = var / 65025.0f;
            const float a = varn / (varn + eps);
            const ptrdiff_t i = static_cast<ptrdiff_t>(y) * width + x;
            coef_a[i] = a;
            coef_b[i] = (mean - mean * a) / 255.0f;
        }
    }

    for (int y = 0; y < height; ++y) {
        const int y0 = std::max(y - radius, 0);
        const int y1 = std::min(y + radius, height - 1);
        for (int x = 0; x < width; ++x) {
            const int x0 = std::max(x - radius, 0);
            const int x1 = std::min(x + radius, width - 1);
            float sum_a = 0.0f;
            float sum_b = 0.0f;
            for (int yy = y0; yy < y1; ++yy) {
                for (int xx = x0; xx < x1; ++xx) {
                    sum_a += coef_a[static_cast<ptrdiff_t>(yy) * width + xx];
                    sum_b += coef_b[static_cast<ptrdiff_t>(yy) * width + xx];
                }
            }
            const float m = static_cast<float>((y1 - y0) * (x1 - x0));
            const float mean_a = sum_a / m;
            const float mean_b = sum_b / m;
            const float pixel = static_cast<float>(src[static_cast<ptrdiff_t>(y) * src_stride + x]);
            const double out = (static_cast<double>(pixel * mean_a) / 255.0 + static_cast<double>(mean_b)) * 255.0;
            dst[static_cast<ptrdiff_t>(y) * width + x] = static_cast<uint8_t>(qimra::sat_u32_from_double(out));
        }
    }
    free(coef_a);
    free(coef_b);
}

// Two-pass guided filter over the image padded by replication. It builds the
// padded tables in ii_sum / ii_sqsum ((height + 17) x (width + 17) entries
// each, row stride width + 17); 0 <= radius <= 8, the windows lying inside
// the fixed border (radius 8 reads the tables exactly as the one-pass
// filter). The first pass is the one-pass filter's arithmetic with the
// reciprocal refined by two Newton-Raphson steps, so a is var / (var + eps)
// to nearly full precision; b = mean - a * mean.
//
// Second pass: the mean of a and of b over the (2r + 1)^2 window centred on
// the pixel, the coefficient planes extended past the image by edge
// replication exactly as the image is, so every window has N entries and the
// same 1 / N as the first pass. Each window is summed in single precision as
// column sums (top to bottom) added left to right. out = I * mean_a +
// mean_b, truncated to unsigned 32 bits and cut to the low byte, like the
// one-pass filter. The source is read at src_stride; dst is packed at width.
// The coefficients live in fixed tiles on this function's stack (about
// 32 KB), so any image size works; the three float arguments are not used.
extern "C" void blc_self_guided_filter_2pass_pad(const uint8_t* src, int src_stride, uint32_t* ii_sum,
                                                 uint32_t* ii_sqsum, int radius, float eps, uint8_t* dst, int width,
                                                 int height, float*, float*, float*) {
    if (width < 1 || height < 1) return;
    blc_gen_ii_pad(src, src_stride, 0, width, height, ii_sum, ii_sqsum);
    const ptrdiff_t table_stride = qimra::padded_integral_stride(width);
    const int side = 2 * radius + 1;
    const float inv_n = 1.0f / static_cast<float>(side * side);

    float coef_a[kSpan * kSpan];
    float coef_b[kSpan * kSpan];
    float col_a[kSpan];
    float col_b[kSpan];

    for (int ty = 0; ty < height; ty += kTile) {
        for (int tx = 0; tx < width; tx += kTile) {
            const Tile t{tx, ty, std::min(kTile, width - tx), std::min(kTile, height - ty)};
            const int r0 = std::max(t.y0 - radius, 0), r1 = std::min(t.y0 + t.rows + radius, height);
            const int c0 = std::max(t.x0 - radius, 0), c1 = std::min(t.x0 + t.cols + radius, width);
            tile_coefficients(ii_sum, ii_sqsum, table_stride, radius, inv_n, eps, c0, c1, r0, r1, coef_a, coef_b);

            for (int y = t.y0; y < t.y0 + t.rows; ++y) {
                for (int c = c0; c < c1; ++c) {
                    float sa = 0.0f;
                    float sb = 0.0f;
                    for (int dy = -radius; dy <= radius; ++dy) {
                        const int yy = std::clamp(y + dy, 0, height - 1);
                        const ptrdiff_t k = static_cast<ptrdiff_t>(yy - r0) * kSpan + (c - c0);
                        sa += coef_a[k];
                        sb += coef_b[k];
                    }
                    col_a[c - c0] = sa;
                    col_b[c - c0] = sb;
                }
                const uint8_t* in = src + static_cast<ptrdiff_t>(y) * src_stride;
                uint8_t* out = dst + static_cast<ptrdiff_t>(y) * width;
                for (int x = t.x0; x < t.x0 + t.cols; ++x) {
                    float sa = 0.0f;
                    float sb = 0.0f;
                    for (int dx = -radius; dx <= radius; ++dx) {
                        const int xx = std::clamp(x + dx, 0, width - 1);
                        sa += col_a[xx - c0];
                        sb += col_b[xx - c0];
                    }
                    const float mean_a = sa * inv_n;
                    const float mean_b = sb * inv_n;
                    const float t2 = static_cast<float>(in[x]) * mean_a;
                    out[x] = qimra::low_byte_of_u32(t2 + mean_b);
                }
            }
        }
    }
}
