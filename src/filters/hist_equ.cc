// Global histogram equalisation in place.
#include <cstddef>
#include <cstdint>

#include "qimra/qimra.h"

// The mapping is (cdf(p) * 255) / N in signed 32-bit arithmetic. Because
// cdf(p) <= N, the product fits as long as N <= 8,421,504 (= floor((2^31 - 1)
// / 255)); that bound is the function's contract. The product is formed in
// unsigned arithmetic so that it is defined everywhere: inside the bound it
// equals the signed product, beyond it it wraps modulo 2^32 and reads as
// negative, as a plain 32-bit multiply on the target does.
extern "C" int blc_hist_equ(uint8_t* img, int width, int height) {
    if (height < 1) return 0;
    if (width < 1) return 0;

    const size_t count = static_cast<size_t>(width) * static_cast<size_t>(height);
    uint32_t hist[256] = {};
    for (size_t i = 0; i < count; ++i) ++hist[img[i]];

    uint32_t cdf[256];
    uint32_t running = 0;
    for (int i = 0; i < 256; ++i) {
        running += hist[i];
        cdf[i] = running;
    }

    const int32_t n = static_cast<int32_t>(static_cast<uint32_t>(width) * static_cast<uint32_t>(height));
    uint8_t map[256];
    for (int i = 0; i < 256; ++i) {
        const int32_t product = static_cast<int32_t>(cdf[i] * 255u);
        map[i] = static_cast<uint8_t>(product / n);
    }
    for (size_t i = 0; i < count; ++i) img[i] = map[img[i]];
    return 0;
}
