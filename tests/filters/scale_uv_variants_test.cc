// The scalar 4:1:0 chroma scaler and the vector self-test routine.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "filters/cheap_clamp_reference.h"
#include "filters/scale_uv_variants.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

TEST(ScaleUvVariantsNv410, ScalesOnlyTheFirstComponentIndexesOfItsRowGroups) {
    uint32_t seed = 50;
    for (int width : {32, 48, 10, 6}) {
        for (int height : {16, 7, 3}) {
            const size_t plane = size_t(width) * (height + 2) + 8;
            std::vector<uint8_t> in(plane), gain(plane), out(plane, 0x5A);
            fill_random(in.data(), plane, ++seed);
            fill_random(gain.data(), plane, ++seed);
            blc_scale_uv_nv_410(in.data(), in.data() + 1, out.data(), out.data() + 1, gain.data(), width, height);

            // Group r starts 2 * (width / 4) + width / 2 bytes after group r - 1
            // (width bytes when width is a multiple of 4).
            const size_t advance = 2 * (width / 4) + width / 2;
            std::set<size_t> written;
            for (int r = 0; r < height / 4; ++r)
                for (int i = 0; i < width / 4; ++i) {
                    const size_t j = r * advance + 2 * i;
                    ASSERT_EQ(out[j], cheap_clamp_reference(in[j], gain[j])) << width << "x" << height << " @" << j;
                    ASSERT_EQ(out[j + 1], cheap_clamp_reference(in[j + 1], gain[j]))
                        << width << "x" << height << " @" << j;
                    written.insert(j);
                    written.insert(j + 1);
                }
            for (size_t j = 0; j < plane; ++j) {
                if (written.count(j)) continue;
                ASSERT_EQ(out[j], 0x5A) << width << "x" << height << " touched " << j;
            }
        }
    }
}

TEST(ScaleUvVariantsNv410, NoRoundingTermAndCheapClamp) {
    // (c, g) -> stored byte: unity, a flooring shift (127 * 33 / 32 floors to
    // 126 where a rounding shift would keep 127), and the clamp's bands.
    struct Case {
        uint8_t c, g, expected;
    } const cases[] = {{100, 32, 100}, {127, 33, 126},  {129, 33, 129}, {0, 255, 4}, {255, 255, 252},
                       {200, 64, 255}, {255, 160, 254}, {60, 100, 1},   {0, 128, 2}, {128, 250, 128}};
    for (const Case& k : cases) {
        const uint8_t in[8] = {k.c, k.c};
        const uint8_t gain[8] = {k.g};
        uint8_t out[8] = {};
        blc_scale_uv_nv_410(in, in + 1, out, out + 1, gain, 4, 4);
        EXPECT_EQ(out[0], k.expected) << int(k.c) << " * " << int(k.g);
        EXPECT_EQ(out[1], k.expected) << "second component, same gain";
    }
}

TEST(ScaleUvVariantsTestAsm, ArithmeticOnEveryOtherRow) {
    const int width = 32, rows = 6;
    std::vector<uint8_t> in1(size_t(width) * rows), in2(in1.size()), out1(in1.size(), 0x11), out2(in1.size(), 0x22);
    for (size_t i = 0; i < in1.size(); ++i) {
        in1[i] = uint8_t(i);
        in2[i] = uint8_t(255 - i);
    }
    test_asm(in1.data(), in2.data(), out1.data(), out2.data(), width, 5);  // rows 0, 2, 4
    // 0 -> 3 * 233 = 699 = 187 (mod 256); 11 -> 765 = 253; 255 -> 2229 = 181.
    EXPECT_EQ(out1[0], 187);
    EXPECT_EQ(out1[11], 253);
    EXPECT_EQ(out2[0], 181);
    for (int r = 0; r < rows; ++r)
        for (int x = 0; x < width; ++x) {
            const size_t i = size_t(r) * width + x;
            const bool done = r % 2 == 0;
            ASSERT_EQ(out1[i], done ? uint8_t((6 * in1[i] + 699) % 256) : 0x11) << r << "," << x;
            ASSERT_EQ(out2[i], done ? uint8_t((6 * in2[i] + 699) % 256) : 0x22) << r << "," << x;
        }
}

TEST(ScaleUvVariantsTestAsm, ZeroSizesStillDoOneStepOfOneRow) {
    std::vector<uint8_t> in(64, 1), out1(64, 0), out2(64, 0);
    test_asm(in.data(), in.data(), out1.data(), out2.data(), 0, 0);
    for (int i = 0; i < 64; ++i) {
        ASSERT_EQ(out1[i], i < 16 ? 3 * (2 + 233) % 256 : 0) << i;
        ASSERT_EQ(out2[i], out1[i]) << i;
    }
}

#if QIMRA_HAVE_NEON
TEST(ScaleUvVariantsTestAsm, VectorFormMatchesPerPixel) {
    for (int n = 16; n <= 16 * 21; n += 16) {
        // Exactly sized: a step past the end would reach outside the allocation.
        std::vector<uint8_t> in(n), want(n), got(n);
        fill_random(in.data(), n, uint32_t(n));
        test_asm_bytes_c(in.data(), want.data(), n);
        test_asm_bytes_neon(in.data(), got.data(), n);
        ASSERT_EQ(got, want) << n;
        test_asm_bytes_neon(in.data(), in.data(), n);  // in place
        ASSERT_EQ(in, want) << n;
    }
}
#endif

}  // namespace
}  // namespace qimra::test
