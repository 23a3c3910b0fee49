// The band enhancement job: each core smooths, lifts and recolours its own
// band of rows.
#pragma once

#include "engine/ctx.h"

namespace qimra {

// The band job in two halves. A whole band job (op 5) runs both in turn. In
// full-size mode the filter of each band reads ten input rows on the far
// side of the seam, which the other core overwrites when the output is the
// input; the frame then runs the halves as two stages so that every read of
// the input precedes every write of the output.
enum : int32_t {
    kOpBandFilter = 6,
    kOpBandApply = 7,
};

// Rows of one core's band.
struct BandRows {
    int32_t first_luma_row;  // s: first luma row of the band
    int32_t luma_rows;       // luma rows of the band
    int32_t filter_first;    // first row of the filter source, context included
    int32_t filter_rows;     // rows the filter sees: band + 10 context rows
    int32_t context_rows;    // context rows above the band in the filter output
};

// Context rows the filter sees beyond the band on the side of the seam.
constexpr int32_t kSeamContextRows = 10;

BandRows band_rows(const qimra_job* job);

void band_filter(qimra_job* job);
void band_apply(qimra_job* job);

}  // namespace qimra
