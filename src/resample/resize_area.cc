// Area (box-average) methods of the matrix resize: whole blocks for integer
// scales, weight tables for any other reduction.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "resample/u_mat.h"
#include "simd/dispatch.h"

namespace qimra {

void area_mean_2x2_c(const uint8_t* s0, const uint8_t* s1, uint8_t* dst, int x_begin, int w) {
    for (int dx = x_begin; dx < w; ++dx) {
        dst[dx] = static_cast<uint8_t>((s0[2 * dx] + s0[2 * dx + 1] + s1[2 * dx] + s1[2 * dx + 1] + 2) >> 2);
    }
}

}  // namespace qimra

extern "C" int computeResizeAreaTab(int ssize, int dsize, int cn, double scale, DecimateAlpha* tab) {
    int k = 0;
    for (int dx = 0; dx < dsize; ++dx) {
        const double fsx1 = dx * scale;
        const double fsx2 = fsx1 + scale;
        const double cell_width = std::min(scale, ssize - fsx1);
        int sx1 = qimra::ceil_Double2Int(fsx1);
        int sx2 = qimra::floor_Double2Int(fsx2);
        sx2 = std::min(sx2, ssize - 1);
        sx1 = std::min(sx1, sx2);
        // Slivers narrower than a thousandth of a source pixel are dropped.
        if (sx1 - fsx1 > 1e-3) {
            tab[k++] = DecimateAlpha{(sx1 - 1) * cn, dx * cn, static_cast<float>((sx1 - fsx1) / cell_width)};
        }
        for (int sx = sx1; sx < sx2; ++sx) {
            tab[k++] = DecimateAlpha{sx * cn, dx * cn, static_cast<float>(1.0 / cell_width)};
        }
        if (fsx2 - sx2 > 1e-3) {
            tab[k++] = DecimateAlpha{sx2 * cn, dx * cn,
                                     static_cast<float>(std::min(std::min(fsx2 - sx2, 1.0), cell_width) / cell_width)};
        }
    }
    return k;
}

// Only the 2 x 2 reduction has a kernel here; every other pair returns 0 and
// leaves the row to the caller. w counts destination values (pixels times
// channels); for three and four interleaved channels only whole pixels are
// produced. The mean rounds halves upward.
extern "C" int resizeAreaFastVec(int scale_x, int scale_y, int cn, int step, const uint8_t* S, uint8_t* D, int w) {
    if (scale_x != 2 || scale_y != 2) return 0;
    const uint8_t* S1 = S + step;
    if (cn == 1) {
        using Form = decltype(&qimra::area_mean_2x2_neon);
        static const Form form = qimra::select_form<Form>({.neon = QIMRA_NEON_FORM(qimra::area_mean_2x2_neon)});
        const int dx = form != nullptr ? form(S, S1, D, w) : 0;
        qimra::area_mean_2x2_c(S, S1, D, dx, w);
        return std::max(w, 0);
    }
    if (cn != 3 && cn != 4) return 0;
    const int pixels = std::max(w, 0) / cn;
    for (int p = 0; p < pixels; ++p) {
        for (int c = 0; c < cn; ++c) {
            const int s = 2 * p * cn + c;
            D[p * cn + c] = static_cast<uint8_t>((S[s] + S[s + cn] + S1[s] + S1[s + cn] + 2) >> 2);
        }
    }
    return pixels * cn;
}

// The source is addressed by `step` here, the destination by `cols`.
extern "C" void resizeAreaFast(u_mat* src, u_mat* dst, int scale_x, int scale_y, const int* ofs, const int* xofs) {
    const zent_Size ssize = size(src);
    const zent_Size dsize = size(dst);
    const int area = scale_x * scale_y;
    const float inverse = 1.0f / static_cast<float>(area);
    const int dwidth_fast = ssize.width / scale_x;
    for (int dy = 0; dy < dsize.height; ++dy) {
        const int sy0 = dy * scale_y;
        uint8_t* d = dst->data + static_cast<long>(dst->cols) * dy;
        const uint8_t* s = src->data + static_cast<long>(src->step) * sy0;
        if (sy0 >= ssize.height) {
            std::memset(d, 0, static_cast<size_t>(std::max(dsize.width, 0)));
            continue;
        }
        const int w = sy0 + scale_y <= ssize.height ? dwidth_fast : 0;
        int dx = resizeAreaFastVec(scale_x, scale_y, 1, src->step, s, d, w);
        for (; dx < w; ++dx) {
            const uint8_t* block = s + xofs[dx];
            int sum = 0;
            for (int k = 0; k < area; ++k) sum += block[ofs[k]];
            d[dx] = saturate_Castdouble2uchar(static_cast<float>(sum) * inverse);
        }
        // Blocks cut by the right or bottom edge average what exists.
        for (; dx < dsize.width; ++dx) {
            const int sx0 = xofs[dx];
            if (sx0 >= ssize.width) {
                d[dx] = 0;
                continue;
            }
            const int sy_end = std::min(sy0 + scale_y, ssize.height);
            const int sx_end = std::min(sx0 + scale_x, ssize.width);
            int sum = 0;
            int count = 0;
            for (int sy = sy0; sy < sy_end; ++sy) {
                const uint8_t* row = s + static_cast<long>(src->step) * (sy - sy0);
                for (int sx = sx0; sx < sx_end; ++sx, ++count) sum += row[sx];
            }
            d[dx] = saturate_Castdouble2uchar(static_cast<double>(sum) / count);
        }
    }
}

// Rows of both matrices are `cols` bytes apart here.
extern "C" void resizeArea(u_mat* src, u_mat* dst, const DecimateAlpha* xtab, int xtab_size, const DecimateAlpha* ytab,
                           int /*ytab_size*/, const int* tabofs) {
    const int dwidth = dst->cols;
    auto* rows = static_cast<float*>(std::malloc(8 * static_cast<size_t>(dwidth)));
    float* across = rows;
    float* sum = rows + dwidth;
    std::fill(sum, sum + dwidth, 0.0f);
    auto write_row = [&](int dy) {
        uint8_t* d = dst->data + static_cast<long>(dst->cols) * dy;
        for (int dx = 0; dx < dwidth; ++dx) d[dx] = saturate_Castdouble2uchar(sum[dx]);
    };
    const int first = tabofs[0];
    const int end = tabofs[dst->rows];
    int prev_dy = ytab[first].di;
    for (int j = first; j < end; ++j) {
        const int dy = ytab[j].di;
        const int sy = ytab[j].si;
        const float beta = ytab[j].alpha;
        const uint8_t* s = src->data + static_cast<long>(src->cols) * sy;
        std::fill(across, across + dwidth, 0.0f);
        for (int k = 0; k < xtab_size; ++k) across[xtab[k].di] += static_cast<float>(s[xtab[k].si]) * xtab[k].alpha;
        if (dy == prev_dy) {
            for (int dx = 0; dx < dwidth; ++dx) sum[dx] += beta * across[dx];
        } else {
            write_row(prev_dy);
            for (int dx = 0; dx < dwidth; ++dx) sum[dx] = beta * across[dx];
            prev_dy = dy;
        }
    }
    write_row(prev_dy);
    std::free(rows);
}
