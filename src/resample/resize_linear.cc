// Bilinear method of the matrix resize: each source row used is resized
// across once into a 32-bit buffer (11 fractional bits), and two buffered
// rows are blended into each destination row.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "resample/overlap.h"
#include "resample/u_mat.h"
#include "simd/dispatch.h"

namespace qimra {

// Each buffered value loses 4 bits so that its product with an 11-bit
// weight fits 32 bits; the two products are truncated separately, and the
// final +2 >> 2 rounds their sum. No clamp: with weights summing to 2048
// the result stays within 0..255, and the byte store keeps the low 8 bits.
void vresizeLinear_c(const int* row0, const int* row1, uint8_t* dst, int b0, int b1, int x_begin, int width) {
    for (int x = x_begin; x < width; ++x) {
        const int v = ((b0 * (row0[x] >> 4)) >> 16) + ((b1 * (row1[x] >> 4)) >> 16) + 2;
        dst[x] = static_cast<uint8_t>(v >> 2);
    }
}

}  // namespace qimra

extern "C" void vresizeLinear(const int** rows, uint8_t* dst, const int16_t* beta, int width) {
    using namespace qimra;
    using Form = decltype(&vresizeLinear_neon);
    static const Form form = select_form<Form>({.neon = QIMRA_NEON_FORM(vresizeLinear_neon)});
    int x = 0;
    const long row_bytes = 4L * width;
    if (form != nullptr && !ranges_overlap(rows[0], row_bytes, dst, width) &&
        !ranges_overlap(rows[1], row_bytes, dst, width)) {
        x = form(rows[0], rows[1], dst, beta[0], beta[1], width);
    }
    vresizeLinear_c(rows[0], rows[1], dst, beta[0], beta[1], x, width);
}

// Columns from xmax on would need a right neighbour outside the source: they
// take their one source pixel whole. xmin is not needed, since the tables
// already give the columns left of it (0; ONE, 0).
extern "C" void hresizeLinear(const uint8_t** srows, int** drows, int count, const int* xofs, const int16_t* alpha,
                              int /*swidth*/, int dwidth, int cn, int /*xmin*/, int xmax, int ONE) {
    const int blended = std::min(std::max(xmax, 0), dwidth);
    for (int k = 0; k < count; ++k) {
        const uint8_t* s = srows[k];
        int* d = drows[k];
        int dx = 0;
        for (; dx < blended; ++dx) {
            const int sx = xofs[dx];
            d[dx] = s[sx] * alpha[2 * dx] + s[sx + cn] * alpha[2 * dx + 1];
        }
        for (; dx < dwidth; ++dx) d[dx] = s[xofs[dx]] * ONE;
    }
}

extern "C" void resizeLinear(u_mat* src, u_mat* dst, const int* xofs, const void* alpha, const int* yofs,
                             const void* beta, int xmin, int xmax, int ksize) {
    const zent_Size ssize = size(src);
    const zent_Size dsize = size(dst);
    const auto* alpha16 = static_cast<const int16_t*>(alpha);
    const auto* beta16 = static_cast<const int16_t*>(beta);
    const size_t row_bytes = 4 * static_cast<size_t>(dsize.width);
    auto* buffer = static_cast<int*>(std::malloc(row_bytes * static_cast<size_t>(ksize)));
    // Up to 16 slots on the stack; the resize itself always passes ksize 2.
    constexpr int kMaxSlots = 16;
    int* rows[kMaxSlots];
    const uint8_t* srows[kMaxSlots];
    int prev_sy[kMaxSlots];
    for (int k = 0; k < ksize; ++k) {
        rows[k] = buffer + static_cast<long>(k) * dsize.width;
        prev_sy[k] = -1;
    }
    for (int dy = 0; dy < dsize.height; ++dy) {
        const int sy0 = yofs[dy];
        int k0 = ksize;
        int k1 = 0;
        for (int k = 0; k < ksize; ++k) {
            const int sy = std::clamp(sy0 - ksize / 2 + 1 + k, 0, ssize.height - 1);
            // Reuse a row resized for the previous destination row.
            for (k1 = std::max(k1, k); k1 < ksize; ++k1) {
                if (prev_sy[k1] == sy) {
                    if (k1 > k) std::memcpy(rows[k], rows[k1], row_bytes);
                    break;
                }
            }
            if (k1 == ksize) k0 = std::min(k0, k);
            srows[k] = src->data + static_cast<long>(src->cols) * sy;
            prev_sy[k] = sy;
        }
        if (k0 < ksize) {
            hresizeLinear(srows + k0, rows + k0, ksize - k0, xofs, alpha16, ssize.width, dsize.width, 1, xmin, xmax,
                          qimra::kLinearOne);
        }
        vresizeLinear(const_cast<const int**>(rows), dst->data + static_cast<long>(dst->cols) * dy, beta16 + 2 * dy,
                      dsize.width);
    }
    std::free(buffer);
}
