// The matrix resize: entry point, method choice, the tables each method
// consumes, the rounding helpers and the nearest-neighbour method.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "resample/u_mat.h"
#include "simd/convert.h"

namespace qimra {

int floor_Double2Int(double v) {
    const int r = round_Double2Int(v);
    return static_cast<float>(v - r) < 0.0f ? r - 1 : r;
}

int ceil_Double2Int(double v) {
    const int r = round_Double2Int(v);
    return static_cast<float>(r - v) < 0.0f ? r + 1 : r;
}

namespace {

constexpr double kDoubleEpsilon = 2.220446049250313e-16;

inline bool is_even(double integral) { return std::fmod(integral, 2.0) == 0.0; }

// Deliberately lopsided: a scale above its rounding must be within epsilon,
// but one below it always passes (-scale - iscale is negative for every
// positive scale), so 1.5 and 2.7 count as the integers 2 and 3.
bool passes_integer_test(double scale, int iscale) {
    const double e = scale - iscale;
    if (e >= 0) return e < kDoubleEpsilon;
    return -scale - iscale < kDoubleEpsilon;
}

// Source index and fraction of destination index d on one axis. The area
// form (enlarging under the area method) keeps each source pixel whole and
// blends only across the destination pixel that straddles two of them.
void linear_coeff(int d, double scale, double inv_scale, bool area_mode, int* s, float* f) {
    if (!area_mode) {
        const auto pos = static_cast<float>((d + 0.5) * scale - 0.5);
        *s = floor_Double2Int(pos);
        *f = pos - static_cast<float>(*s);
        return;
    }
    *s = floor_Double2Int(d * scale);
    const auto frac = static_cast<float>((d + 1) - (*s + 1) * inv_scale);
    *f = frac <= 0.0f ? 0.0f : frac - static_cast<float>(floor_Double2Int(frac));
}

void resize_linear_with_tables(u_mat* src, u_mat* dst, zent_Size ssize, zent_Size dsize, double scale_x, double scale_y,
                               double inv_scale_x, double inv_scale_y, bool area_mode) {
    const int dw = dsize.width;
    const int dh = dsize.height;
    auto* block = static_cast<uint8_t*>(std::malloc(12 * static_cast<size_t>(dw + dh)));
    auto* xofs = reinterpret_cast<int*>(block);
    int* yofs = xofs + dw;
    auto* alpha = reinterpret_cast<int16_t*>(yofs + dh);
    int16_t* beta = alpha + 2 * dw;
    int xmin = 0;
    int xmax = dw;
    for (int dx = 0; dx < dw; ++dx) {
        int sx;
        float fx;
        linear_coeff(dx, scale_x, inv_scale_x, area_mode, &sx, &fx);
        if (sx < 0) {
            fx = 0.0f;
            sx = 0;
            xmin = dx + 1;
        }
        if (sx + 1 >= ssize.width) {
            xmax = std::min(xmax, dx);
            fx = 0.0f;
            sx = ssize.width - 1;
        }
        xofs[dx] = sx;
        alpha[2 * dx] = saturate_Castfloat2short((1.0f - fx) * static_cast<float>(kLinearOne));
        alpha[2 * dx + 1] = saturate_Castfloat2short(fx * static_cast<float>(kLinearOne));
    }
    // Rows are not clamped here: resizeLinear clamps the rows it fetches.
    for (int dy = 0; dy < dh; ++dy) {
        int sy;
        float fy;
        linear_coeff(dy, scale_y, inv_scale_y, area_mode, &sy, &fy);
        yofs[dy] = sy;
        beta[2 * dy] = saturate_Castfloat2short((1.0f - fy) * static_cast<float>(kLinearOne));
        beta[2 * dy + 1] = saturate_Castfloat2short(fy * static_cast<float>(kLinearOne));
    }
    resizeLinear(src, dst, xofs, alpha, yofs, beta, xmin, xmax, 2);
    std::free(block);
}

void resize_area_fast_with_tables(u_mat* src, u_mat* dst, int dw, int iscale_x, int iscale_y) {
    const int block_pixels = iscale_x * iscale_y;
    auto* ofs = static_cast<int*>(std::malloc(4 * static_cast<size_t>(block_pixels + dw)));
    int* xofs = ofs + block_pixels;
    int k = 0;
    for (int sy = 0; sy < iscale_y; ++sy) {
        for (int sx = 0; sx < iscale_x; ++sx) ofs[k++] = sy * src->step + sx;
    }
    for (int dx = 0; dx < dw; ++dx) xofs[dx] = dx * iscale_x;
    resizeAreaFast(src, dst, iscale_x, iscale_y, ofs, xofs);
    std::free(ofs);
}

void resize_area_with_tables(u_mat* src, u_mat* dst, zent_Size ssize, zent_Size dsize, double scale_x, double scale_y) {
    auto* xtab = static_cast<DecimateAlpha*>(std::malloc(24 * static_cast<size_t>(ssize.width + ssize.height)));
    const int xtab_size = computeResizeAreaTab(ssize.width, dsize.width, 1, scale_x, xtab);
    DecimateAlpha* ytab = xtab + xtab_size;
    const int ytab_size = computeResizeAreaTab(ssize.height, dsize.height, 1, scale_y, ytab);
    // Where each destination row's run of ytab entries begins.
    auto* tabofs = static_cast<int*>(std::malloc(4 * static_cast<size_t>(dsize.height + 1)));
    int n = 0;
    tabofs[n++] = 0;
    for (int k = 1; k < ytab_size; ++k) {
        if (ytab[k].di != ytab[k - 1].di) tabofs[n++] = k;
    }
    tabofs[n] = ytab_size;
    resizeArea(src, dst, xtab, xtab_size, ytab, ytab_size, tabofs);
    std::free(tabofs);
    std::free(xtab);
}

}  // namespace
}  // namespace qimra

extern "C" int round_Double2Int(double v) {
    const double t = std::trunc(v);
    const double d = v - t;
    if ((d == 0.5 || d == -0.5) && qimra::is_even(t)) return qimra::sat_i32_from_double(t);
    return qimra::sat_i32_from_double(v >= 0 ? v + 0.5 : v - 0.5);
}

extern "C" int round_Float2Int(float v) {
    const float t = std::trunc(v);
    const float d = v - t;
    if ((d == 0.5f || d == -0.5f) && qimra::is_even(t)) return qimra::sat_i32_from_float(t);
    // The half is added in double, so no float rounding can carry a value
    // just below one half up to the next integer.
    const double dv = v;
    return qimra::sat_i32_from_double(v >= 0 ? dv + 0.5 : dv - 0.5);
}

extern "C" uint8_t saturate_Castdouble2uchar(double v) {
    const int r = round_Double2Int(v);
    if (r >= 0 && r <= 255) return static_cast<uint8_t>(r);
    return r > 0 ? 255 : 0;
}

extern "C" int16_t saturate_Castfloat2short(float v) {
    const int r = round_Float2Int(v);
    if (r >= -32768 && r <= 32767) return static_cast<int16_t>(r);
    return r > 0 ? 32767 : -32768;
}

extern "C" zent_Size size(const u_mat* m) { return zent_Size{m->cols, m->rows}; }

extern "C" void call_resize(const uint8_t* src, uint8_t* dst, int src_width, int src_height, int dst_width,
                            int dst_height) {
    u_mat source{src_height, src_width, src_width, const_cast<uint8_t*>(src)};
    u_mat destination{dst_height, dst_width, dst_width, dst};
    resize_zent(&source, &destination, zent_Size{dst_width, dst_height}, static_cast<double>(dst_width) / src_width,
                static_cast<double>(dst_height) / src_height, 1);
}

extern "C" void resize_zent(u_mat* src, u_mat* dst, zent_Size dsize, double inv_scale_x, double inv_scale_y,
                            int interpolation) {
    using namespace qimra;
    const zent_Size ssize = size(src);
    // A non-empty destination size overrides the ratios (the product is
    // taken in 32 bits, wrapping like the int32 product it stands for).
    if (static_cast<uint32_t>(dsize.width) * static_cast<uint32_t>(dsize.height) != 0) {
        inv_scale_x = static_cast<double>(dsize.width) / ssize.width;
        inv_scale_y = static_cast<double>(dsize.height) / ssize.height;
    } else {
        dsize.width = round_Double2Int(ssize.width * inv_scale_x);
        dsize.height = round_Double2Int(ssize.height * inv_scale_y);
    }
    if (interpolation == 0) {
        resizeNN(src, dst, inv_scale_x, inv_scale_y);
        return;
    }
    const double scale_x = 1.0 / inv_scale_x;
    const double scale_y = 1.0 / inv_scale_y;
    const int iscale_x = round_Double2Int(scale_x);
    const int iscale_y = round_Double2Int(scale_y);
    const bool integer_scaled = passes_integer_test(scale_x, iscale_x) && passes_integer_test(scale_y, iscale_y);

    // A bilinear request at (what passes for) half size becomes the 2 x 2
    // area average; codes other than 0, 1 and 3 are bilinear.
    const bool area = interpolation == 3 || (interpolation == 1 && integer_scaled && iscale_x == 2 && iscale_y == 2);
    if (!area) {
        resize_linear_with_tables(src, dst, ssize, dsize, scale_x, scale_y, inv_scale_x, inv_scale_y, false);
    } else if (scale_x < 1 || scale_y < 1) {
        resize_linear_with_tables(src, dst, ssize, dsize, scale_x, scale_y, inv_scale_x, inv_scale_y, true);
    } else if (integer_scaled) {
        resize_area_fast_with_tables(src, dst, dsize.width, iscale_x, iscale_y);
    } else {
        resize_area_with_tables(src, dst, ssize, dsize, scale_x, scale_y);
    }
}

// Rows of both matrices are `cols` bytes apart here, whatever `step` says.
extern "C" void resizeNN(u_mat* src, u_mat* dst, double inv_scale_x, double inv_scale_y) {
    using qimra::floor_Double2Int;
    const zent_Size ssize = size(src);
    const zent_Size dsize = size(dst);
    const double fx = 1.0 / inv_scale_x;
    const double fy = 1.0 / inv_scale_y;
    auto* x_ofs = static_cast<int*>(std::malloc(4 * static_cast<size_t>(dsize.width)));
    for (int x = 0; x < dsize.width; ++x) x_ofs[x] = std::min(floor_Double2Int(x * fx), ssize.width - 1);
    for (int y = 0; y < dsize.height; ++y) {
        const int sy = std::min(floor_Double2Int(y * fy), ssize.height - 1);
        const uint8_t* s = src->data + static_cast<long>(src->cols) * sy;
        uint8_t* d = dst->data + static_cast<long>(dst->cols) * y;
        for (int x = 0; x < dsize.width; ++x) d[x] = s[x_ofs[x]];
    }
    std::free(x_ofs);
}
