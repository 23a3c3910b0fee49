// Hand-computed cases that pin a rounding term, a clamp or a quirk of the
// per-pixel arithmetic, where the vector forms could share a wrong value.
#include <gtest/gtest.h>

#include <vector>

#include "filters/scale_uv.h"
#include "qimra/qimra.h"

namespace qimra::test {
namespace {

TEST(KernelPins, ChromaScalingWrapsRoundsAndSaturates) {
    EXPECT_EQ(scale_chroma(255, 255), 0);    // 127 * 255 + 4096 wraps negative in 16 bits
    EXPECT_EQ(scale_chroma(129, 16), 129);   // 128.5 rounds up
    EXPECT_EQ(scale_chroma(127, 16), 128);   // 127.5 rounds up
    EXPECT_EQ(scale_chroma(192, 64), 255);   // exactly 256 saturates
    EXPECT_EQ(scale_chroma(200, 64), 255);   // 272 saturates
    EXPECT_EQ(scale_chroma(128, 255), 128);  // neutral chroma stays
}

TEST(KernelPins, CheapClampOfTheScalarChromaVariants) {
    // A flooring shift, then 0..255 pass; each 256 above takes one off 256,
    // each 256 below adds one to 0.
    struct Case {
        uint8_t c, g, want;
    } const cases[] = {{100, 32, 100},  {127, 33, 126}, {0, 255, 4}, {255, 255, 252}, {200, 64, 255},
                       {255, 160, 254}, {60, 100, 1},   {0, 128, 2}, {128, 250, 128}};
    for (const Case& k : cases) {
        const uint8_t in[8] = {k.c, k.c}, gain[8] = {k.g};
        uint8_t out[8] = {};
        blc_scale_uv_nv_410(in, in + 1, out, out + 1, gain, 4, 4);
        EXPECT_EQ(out[0], k.want) << int(k.c) << " * " << int(k.g);
        EXPECT_EQ(out[1], k.want) << "second component, same gain";
    }
}

TEST(KernelPins, GaussianHalvingRoundsHalfUp) {
    // Equal rows; row 0 2 0 0: the taps at columns 0 and 2 sum to 8 of 16,
    // which rounds up to 1.
    const uint8_t src[8] = {0, 2, 0, 0, 0, 2, 0, 0};
    uint8_t dst[2] = {}, work[4];
    downscale_by_2_gaussian(src, dst, work, 4, 2, 4, 2);
    EXPECT_EQ(dst[0], 1);
    EXPECT_EQ(dst[1], 1);
}

TEST(KernelPins, EqualisingOneGreyLevelGivesWhite) {
    std::vector<uint8_t> img(12, 77);
    blc_hist_equ(img.data(), 4, 3);
    EXPECT_EQ(img, std::vector<uint8_t>(12, 255));
}

}  // namespace
}  // namespace qimra::test
