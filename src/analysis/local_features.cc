// Region histograms and their feature records, split over the cores, and
// the ordering of the records by position weight.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "analysis/peaks.h"
#include "engine/ctx.h"

extern "C" void blc_local_hist_features(qimra_ctx* c, segment* seg, int core, int ncores) {
    using namespace qimra;
    const int per = kRegionCount / ncores;
    const int first = core * per;
    const int end = core == ncores - 1 ? kRegionCount : (core + 1) * per;
    if (end <= first) return;

    const int32_t cw = seg->width / 4;
    const int32_t ch = seg->height / 3;
    // One buffer for this call's regions, region r taking the records from
    // r + 1 on. It lives on this core's own stack, so the two cores never
    // share it, and it is sized for region 11 with the largest possible
    // number of peaks (a fixed 66 records would let a comb-like region 11
    // run past the end).
    peak_descr scratch[kRegionScratchRecords];
    for (int r = first; r < end; ++r) {
        const int row = r / 4;
        const int col = r % 4;
        const int32_t block_w = col == 3 ? seg->width - 3 * cw : cw;
        const int32_t block_h = row == 2 ? seg->height - 2 * ch : ch;
        // Regions are addressed with the width as the row pitch, not the
        // stride: exact for the reduced image, whose stride is its width.
        const uint8_t* origin =
            seg->luma + static_cast<ptrdiff_t>(seg->width) * (row * ch) + static_cast<ptrdiff_t>(col) * cw;
        int32_t* hist = reinterpret_cast<int32_t*>(c->region_hist[r]);
        blc_create_hist(hist, origin, seg->width, block_w, block_h);
        blc_locate_hist_peaks(hist, &c->region_features[r], scratch + r + 1);
        c->region_features[r].region = r;
    }
}

extern "C" void sort_feature_vect(feature_vect* src, feature_vect* dst, int n,
                                  int (*cmp)(feature_vect*, feature_vect*)) {
    if (n <= 0) return;
    memmove(dst, src, static_cast<size_t>(n) * sizeof(feature_vect));
    // An exchange sort in exactly this order: records with equal keys are
    // never swapped directly, but the permutation of ties is the one this
    // order produces, not a stable one.
    for (int i = 0; i + 1 < n; ++i)
        for (int j = i + 1; j < n; ++j)
            if (cmp(&dst[i], &dst[j]) == 1) std::swap(dst[i], dst[j]);
}

extern "C" int compare_peak_posn_wt(feature_vect* a, feature_vect* b) {
    // False for NaN on either side, so such a record is never moved past.
    return a->posn_wt > b->posn_wt ? 1 : 0;
}
