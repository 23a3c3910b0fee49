// The colour helpers beside the colour table.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "engine/ctx.h"

namespace qimra {
namespace {

TEST(ColourHelpers, IntensityOfHandComputedBlocks) {
    // 4 x 2 luma, two chroma samples: block 0 neutral, block 1 coloured.
    const uint8_t y[8] = {16,  235, 100, 0,  //
                          255, 0,   17,  255};
    const uint8_t u[2] = {128, 60};
    const uint8_t v[2] = {128, 200};
    uint8_t out[8] = {};
    conv_yuv_intensity(y, u, v, out, 4, 2);
    EXPECT_EQ(out[0], 0);    // (16 - 16) * 1.164
    EXPECT_EQ(out[1], 254);  // 219 * 1.164 = 254.9: truncated
    EXPECT_EQ(out[4], 255);  // 239 * 1.164 = 278.2: clamped
    EXPECT_EQ(out[5], 0);    // -16 * 1.164: clamped at 0
    // Block 1: a = 72 * 0.261 = 18.792, b = -68 * 0.541 = -36.788.
    EXPECT_EQ(out[2], 79);   // 84 * 1.164 + a + b = 79.78
    EXPECT_EQ(out[3], 0);    // -18.6 - 18.0
    EXPECT_EQ(out[6], 0);    // 1.164 - 18.0
    EXPECT_EQ(out[7], 255);  // 278.2 - 18.0 = 260.2
}

TEST(ColourHelpers, IntensityLeavesAnOddLastRowAndColumnUntouched) {
    const int w = 5, h = 3;
    std::vector<uint8_t> y(w * h, 116), out(w * h, 7);
    const std::vector<uint8_t> u(2 * 1, 128), v(2 * 1, 128);
    conv_yuv_intensity(y.data(), u.data(), v.data(), out.data(), w, h);
    for (int r = 0; r < h; ++r)
        for (int c = 0; c < w; ++c) {
            const bool inside = r < 2 && c < 4;
            EXPECT_EQ(out[r * w + c], inside ? 116 : 7) << "row " << r << " column " << c;  // 100 * 1.164
        }
}

TEST(ColourHelpers, HueSaturationIntensityOfPrimariesAndGrey) {
    float h, s, i;
    qimra_rgb2hsi_pix(1.0f, 0.0f, 0.0f, &h, &s, &i);
    EXPECT_EQ(h, 0.0f);  // acos(1)
    EXPECT_EQ(s, 1.0f);
    EXPECT_FLOAT_EQ(i, 1.0f / 3.0f);

    qimra_rgb2hsi_pix(0.0f, 1.0f, 0.0f, &h, &s, &i);
    EXPECT_FLOAT_EQ(h, 2.0943951f);  // acos(-1/2) = 2 pi / 3

    qimra_rgb2hsi_pix(0.0f, 0.0f, 1.0f, &h, &s, &i);
    EXPECT_FLOAT_EQ(h, 4.1887902f);  // g < b: 2 pi - 2 pi / 3

    // Grey: d = 0 gives hue 0; the saturation is not divided by the sum.
    qimra_rgb2hsi_pix(0.5f, 0.5f, 0.5f, &h, &s, &i);
    EXPECT_EQ(h, 0.0f);
    EXPECT_EQ(s, -0.5f);
    EXPECT_EQ(i, 0.5f);

    // r 0.2, g 0.3, b 0.5: d = sqrt(0.01 + 0.06) and the hue is reflected.
    qimra_rgb2hsi_pix(0.2f, 0.3f, 0.5f, &h, &s, &i);
    EXPECT_NEAR(h, 6.28318530718 - std::acos(-0.2 / std::sqrt(0.07)), 1e-6);
    EXPECT_FLOAT_EQ(s, 0.4f);
    qimra_yuv2hsi_pix();
}

}  // namespace
}  // namespace qimra
