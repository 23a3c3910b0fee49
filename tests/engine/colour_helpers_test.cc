// The colour helpers beside the colour table.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "engine/ctx.h"
#include "support/engine_helpers.h"
#include "support/media.h"

namespace qimra {
namespace {

TEST(ColourHelpers, IntensityOfHandComputedBlocks) {
    // 7 x 2 luma, three blocks: the odd last column is left alone.
    const uint8_t y[14] = {16, 235, 100, 0, 116, 9, 9, 255, 0, 17, 255, 116, 9, 9};
    const uint8_t u[3] = {128, 60, 128}, v[3] = {128, 200, 128};
    uint8_t out[14] = {};
    std::fill_n(out, 14, 7);
    conv_yuv_intensity(y, u, v, out, 7, 2);
    // Block 1: 84 * 1.164 + 72 * 0.261 - 68 * 0.541 = 79.78, V and U centred on 128; 219 * 1.164 = 254.9 and
    // 100 * 1.164 = 116.4 truncate, 278.2 clamps to 255 and -18.6 to 0.
    const uint8_t want[14] = {0, 254, 79, 0, 116, 0, 7, 255, 0, 0, 255, 116, 0, 7};
    for (int i = 0; i < 14; ++i) EXPECT_EQ(out[i], want[i]) << "pixel " << i;
}

TEST(ColourHelpers, GoldenIntensityOfARealPhotograph) {
    std::vector<uint8_t> f = test::load_i420("astronaut", 512, 512), out(512 * 512);
    conv_yuv_intensity(f.data(), f.data() + 512 * 512, f.data() + 512 * 512 * 5 / 4, out.data(), 512, 512);
    EXPECT_EQ(test::fnv1a(out.data(), out.size()), 4272987483389877003u);
}

TEST(ColourHelpers, HueSaturationIntensity) {
    struct Row {
        float r, g, b, h, s, i;
    } rows[] = {
        {1, 0, 0, 0, 1, 1 / 3.0f},                      // acos(1)
        {0, 1, 0, 2.0943951f, 1, 1 / 3.0f},             // acos(-1/2)
        {0, 0, 1, 4.1887902f, 1, 1 / 3.0f},             // g < b: reflected
        {0.5f, 0.5f, 0.5f, 0, -0.5f, 0.5f},             // grey: hue 0, saturation not divided by the sum
        {0.2f, 0.3f, 0.5f, 3.855317f, 0.4f, 1 / 3.0f},  // d = sqrt(0.01 + 0.06)
    };
    for (const Row& r : rows) {
        float h, s, i;
        qimra_rgb2hsi_pix(r.r, r.g, r.b, &h, &s, &i);
        EXPECT_FLOAT_EQ(h, r.h) << r.r << " " << r.g << " " << r.b;
        EXPECT_FLOAT_EQ(s, r.s);
        EXPECT_FLOAT_EQ(i, r.i);
    }
    qimra_yuv2hsi_pix();
}

}  // namespace
}  // namespace qimra
