// Luma histograms of the analysis image and of its regions.
#include <cstddef>
#include <cstring>

#include "analysis/histogram.h"
#include "engine/ctx.h"

namespace qimra {

// Four partial histograms take neighbouring pixels in turn: smooth images
// put runs of equal values side by side, and a single table would make each
// increment wait for the store of the one before.
// Each partial table has a pointer of its own, so that on ARM every
// increment is a load and a store addressed by base + bin * 4 alone.
void count_histogram(uint32_t* bins, const uint8_t* src, int stride, int width, int height) {
    uint32_t part[4][256] = {};
    uint32_t* const p0 = part[0];
    uint32_t* const p1 = part[1];
    uint32_t* const p2 = part[2];
    uint32_t* const p3 = part[3];
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = src + static_cast<ptrdiff_t>(y) * stride;
        const uint8_t* const end = row + (width > 0 ? width : 0);
        const uint8_t* const end8 = row + (width > 0 ? width / 8 * 8 : 0);
        for (; row != end8; row += 8) {
            ++p0[row[0]];
            ++p1[row[1]];
            ++p2[row[2]];
            ++p3[row[3]];
            ++p0[row[4]];
            ++p1[row[5]];
            ++p2[row[6]];
            ++p3[row[7]];
        }
        for (; row < end; ++row) ++p0[*row];
    }
    for (int i = 0; i < 256; ++i) bins[i] += part[0][i] + part[1][i] + part[2][i] + part[3][i];
}

}  // namespace qimra

using qimra::count_histogram;

extern "C" void blc_gen_hist(const uint8_t* src, int width, int height, int stride, qimra_ctx* c, int /*step*/,
                             int skip) {
    memset(c->global_hist, 0, sizeof c->global_hist);
    if (skip != 0) return;
    count_histogram(c->global_hist, src, stride, width, height);
    // Stored as the plain 32-bit product, also for empty or negative sizes.
    c->hist_pixel_count = static_cast<int32_t>(static_cast<uint32_t>(width) * static_cast<uint32_t>(height));
}

extern "C" void blc_create_hist(int32_t* hist, const uint8_t* src, int stride, int width, int height) {
    memset(hist, 0, 256 * sizeof(int32_t));
    count_histogram(reinterpret_cast<uint32_t*>(hist), src, stride, width, height);
}

extern "C" int blc_derive_sub_dims(int, int, int, int* cols, int* rows) {
    // The region grid is fixed at 4 columns by 3 rows.
    *cols = 4;
    *rows = 3;
    return 4;
}

extern "C" void blc_gen_hist_mod(segment*, int, qimra_ctx*, int, int, int, int) {
    // Kept in the exported surface as a no-op: it only ever cleared a
    // histogram of its own and discarded it.
}
