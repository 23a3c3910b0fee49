// Small colour conversions exported beside the colour table.
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "engine/ctx.h"

// (R + G + B) / 3 of the video-range conversion folds into luma plus one
// term per chroma component: 1.164 (Y - 16) + 0.261 (V - 128) + 0.541 (U - 128).
extern "C" void conv_yuv_intensity(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint8_t* out, int width,
                                   int height) {
    const int chroma_stride = width / 2;
    for (int by = 0; by < height / 2; ++by)
        for (int bx = 0; bx < width / 2; ++bx) {
            const size_t ci = static_cast<size_t>(by) * chroma_stride + bx;
            const float a = static_cast<float>(v[ci] - 128) * 0.261f;
            const float b = static_cast<float>(u[ci] - 128) * 0.541f;
            for (int dy = 0; dy < 2; ++dy)
                for (int dx = 0; dx < 2; ++dx) {
                    const size_t p = static_cast<size_t>(2 * by + dy) * width + 2 * bx + dx;
                    const float value = static_cast<float>(y[p] - 16) * 1.164f + a + b;
                    uint8_t level;
                    if (value < 0.0f)
                        level = 0;
                    else if (value > 255.0f)
                        level = 255;
                    else
                        level = static_cast<uint8_t>(value);  // in 0..255: truncates
                    out[p] = level;
                }
        }
}

// Inputs are taken as normalised (r + g + b = 1), so the saturation needs no
// division by the sum. The hue is kept in double until it is stored.
extern "C" void qimra_rgb2hsi_pix(float r, float g, float b, float* h, float* s, float* i) {
    float mn = r < g ? r : g;
    if (b < mn) mn = b;
    *i = (r + g + b) / 3.0f;
    *s = 1.0f - 3.0f * mn;
    const double rd = r, gd = g, bd = b;
    const double d = std::sqrt((rd - gd) * (rd - gd) + (rd - bd) * (gd - bd));
    double hue = d != 0.0 ? std::acos(0.5 * ((rd - gd) + (rd - bd)) / d) : 0.0;
    if (g < b) hue = 6.28318530718 - hue;
    *h = static_cast<float>(hue);
}

extern "C" void qimra_yuv2hsi_pix(void) {}
