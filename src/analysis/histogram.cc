// Luma histograms of the analysis image and of its regions.
#include <cstddef>
#include <cstring>

#include "analysis/histogram.h"
#include "engine/ctx.h"

namespace qimra {

// Four partial histograms take neighbouring pixels in turn: smooth images
// put runs of equal values side by side, and a single table would make each
// increment wait for the store of the one before.
void count_histogram(uint32_t* bins, const uint8_t* src, int stride, int width, int height) {
    uint32_t part[4][256] = {};
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = src + static_cast<ptrdiff_t>(y) * stride;
        int x = 0;
        for (; x + 4 <= width; x += 4) {
            ++part[0][row[x]];
            ++part[1][row[x + 1]];
            ++part[2][row[x + 2]];
            ++part[3][row[x + 3]];
        }
        for (; x < width; ++x) ++part[0][row[x]];
    }
    for (int i = 0; i < 256; ++i) bins[i] += part[0][i] + part[1][i] + part[2][i] + part[3][i];
}

}  // namespace qimra

using qimra::count_histogram;

extern "C" void blc_gen_hist(const uint8_t* src, int width, int height, int stride, qimra_ctx* c,
                             int /*step*/, int skip) {
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
