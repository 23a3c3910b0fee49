// The quality decision's scene measures, exposed so that each rule can be
// checked on its own.
#pragma once

#include <cstdint>

#include "qimra/qimra.h"

namespace qimra {

// Minus the entropy in bits of each luma band (0.301 standing for log10 2).
// Bin 255 belongs to no band.
struct EntropyBands {
    float dark;      // bins 0..71
    float mid_low;   // bins 72..127
    float mid_high;  // bins 128..159
    float bright;    // bins 160..254
    float total() const { return ((dark + mid_low) + mid_high) + bright; }
};
EntropyBands entropy_bands(const uint32_t* hist, int32_t pixel_count);

// Mass-weighted exp(-mean / 40) over the twelve region records: near 1 when
// the regions' dominant peaks sit in the dark.
float region_weight(const feature_vect* regions);

// The scene score from the whole-image record, the four smallest position
// weights of the sorted regions and the region weight.
float scene_score(const feature_vect& whole, const feature_vect* sorted, float weight);

struct Verdict {
    int32_t apply;
    int32_t shadow;
};
// The five rules in order; deep_dark_pct is the percentage of pixels in
// bins 0..31.
Verdict judge_scene(float score, const EntropyBands& e, float deep_dark_pct, bool capture_veto);

}  // namespace qimra
