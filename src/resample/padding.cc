// Border padding in place, so that filters may read past an image's edges.
#include <cstring>

#include "qimra/qimra.h"

namespace qimra {
namespace {

// Top and bottom borders: whole buffer lines of `stride` bytes from pad_x
// before the first and last rows, so the corners carry the side borders
// (and whatever lies beyond the right border is copied too).
void copy_edge_lines(uint8_t* img, int height, int pad_x, int pad_y, int stride) {
    uint8_t* first = img - pad_x;
    for (int k = 1; k <= pad_y; ++k) std::memcpy(first - static_cast<long>(k) * stride, first, stride);
    uint8_t* last = img + static_cast<long>(height - 1) * stride - pad_x;
    for (int k = 1; k <= pad_y; ++k) std::memcpy(last + static_cast<long>(k) * stride, last, stride);
}

}  // namespace
}  // namespace qimra

extern "C" void pad_with_replication(uint8_t* img, int width, int height, int pad_x, int pad_y, int stride) {
    if (pad_x > 0) {
        for (int y = 0; y < height; ++y) {
            uint8_t* row = img + static_cast<long>(y) * stride;
            std::memset(row - pad_x, row[0], pad_x);
        }
        for (int y = 0; y < height; ++y) {
            uint8_t* row = img + static_cast<long>(y) * stride;
            std::memset(row + width, row[width - 1], pad_x);
        }
    }
    if (pad_y > 0) qimra::copy_edge_lines(img, height, pad_x, pad_y, stride);
}

// Mirrors across without repeating the edge pixel, but replicates down: the
// top and bottom borders copy the first and last lines like
// pad_with_replication. The asymmetry is intended.
extern "C" void pad_with_reflection(uint8_t* img, int width, int height, int pad_x, int pad_y, int stride) {
    if (pad_x > 0) {
        for (int y = 0; y < height; ++y) {
            uint8_t* row = img + static_cast<long>(y) * stride;
            for (int k = 1; k <= pad_x; ++k) row[-k] = row[k];
        }
        for (int y = 0; y < height; ++y) {
            uint8_t* row = img + static_cast<long>(y) * stride;
            for (int k = 1; k <= pad_x; ++k) row[width - 1 + k] = row[width - 1 - k];
        }
    }
    if (pad_y > 0) qimra::copy_edge_lines(img, height, pad_x, pad_y, stride);
}
