// Luma histograms of the analysis image and of its regions.
#include <cstddef>
#include <cstring>

#include "engine/ctx.h"

namespace {

// Counts a width x height block into 256 bins. Unrolled by eight with a
// prologue for the remainder; the order of counting does not matter.
void count_block(uint32_t* bins, const uint8_t* src, int stride, int width, int height) {
    for (int y = 0; y < height; ++y) {
        const uint8_t* row = src + static_cast<ptrdiff_t>(y) * stride;
        int x = 0;
        for (const int head = width & 7; x < head; ++x) ++bins[row[x]];
        for (; x < width; x += 8) {
            ++bins[row[x]];
            ++bins[row[x + 1]];
            ++bins[row[x + 2]];
            ++bins[row[x + 3]];
            ++bins[row[x + 4]];
            ++bins[row[x + 5]];
            ++bins[row[x + 6]];
            ++bins[row[x + 7]];
        }
    }
}

}  // namespace

extern "C" void blc_gen_hist(const uint8_t* src, int width, int height, int stride, qimra_ctx* c,
                             int /*step*/, int skip) {
    memset(c->global_hist, 0, sizeof c->global_hist);
    if (skip != 0) return;
    count_block(c->global_hist, src, stride, width, height);
    // Stored as the plain 32-bit product, also for empty or negative sizes.
    c->hist_pixel_count = static_cast<int32_t>(static_cast<uint32_t>(width) * static_cast<uint32_t>(height));
}

extern "C" void blc_create_hist(int32_t* hist, const uint8_t* src, int stride, int width, int height) {
    memset(hist, 0, 256 * sizeof(int32_t));
    count_block(reinterpret_cast<uint32_t*>(hist), src, stride, width, height);
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
