// Luma histograms.
#pragma once

#include <cstdint>

namespace qimra {

// Adds the counts of a width x height block (rows `stride` apart) to 256
// bins. Counting is order-free: blocks counted in any order and split any
// way add up to the histogram of the whole.
void count_histogram(uint32_t* bins, const uint8_t* src, int stride, int width, int height);

}  // namespace qimra
