#include "engine/tables.h"

#include <cmath>
#include <cstring>

#include "simd/convert.h"

namespace qimra {

// 128 / (1 + exp((i - 50) * 0.2)): difference in float, exponential in
// double, quotient in float, truncated.
void fill_sigmoid_lut(uint8_t* lut) {
    memset(lut, 0, 256);
    for (int i = 0; i < 256; ++i) {
        const float diff = static_cast<float>(i - 50);
        const double e = exp(static_cast<double>(diff) * 0.2);
        const float q = 128.0f / static_cast<float>(1.0 + e);
        lut[i] = low_byte_of_u32(q);
    }
}

// sig45_f: 1 / (1 + exp((i - 45) * 0.2)); sig50p1_f: 1 + the same centred
// on 50, between 1 and 2 (the detail boost of dark pixels); sig50p1_lut:
// 128 * sig50p1_f. One pass, exponentials in double.
void fill_sigmoid_float_tables(float* sig45, float* sig50p1, uint8_t* sig50p1_lut) {
    for (int i = 0; i < 256; ++i) {
        const double e45 = exp(static_cast<double>(i - 45) * 0.2);
        sig45[i] = static_cast<float>(1.0 / (1.0 + e45));
        const double e50 = exp(static_cast<double>(i - 50) * 0.2);
        sig50p1[i] = static_cast<float>(static_cast<double>(static_cast<float>(1.0 / (e50 + 1.0))) + 1.0);
        sig50p1_lut[i] = low_byte_of_u32(128.0f * sig50p1[i]);
    }
}

// recip16_a[n - 1] = 65536 / n for n = 1..300; recip16_b[n - 8] = 65536 / n
// for n = 8..307 (the +8 offset keeps the luma gain finite near black).
void fill_reciprocal_tables(int32_t* recip16_a, int32_t* recip16_b) {
    for (int k = 0; k < 300; ++k) {
        recip16_a[k] = 65536 / (k + 1);
        recip16_b[k] = 65536 / (k + 8);
    }
}

void fill_recip_f(float* recip_f) {
    recip_f[0] = 0.0f;
    for (int n = 1; n < 400; ++n) recip_f[n] = 1.0f / static_cast<float>(n);
}

}  // namespace qimra
