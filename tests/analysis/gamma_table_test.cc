// The tone table: power curve below 64, straight line from 64 to 255.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <vector>

#include "analysis/gamma_table.h"
#include "engine/ctx.h"

namespace qimra {
namespace {

std::array<uint8_t, 256> tone_table(float gamma, uint8_t mid, int top) {
    std::array<uint8_t, 256> out;
    out.fill(0xA5);
    create_gamma_tab(out.data(), nullptr, gamma, mid, top);
    return out;
}

TEST(GammaTab, WorkedValuesAtGammaHalfMid128Top230) {
    const auto t = tone_table(0.5f, 128, 230);
    for (int i = 0; i <= 8; ++i) EXPECT_EQ(t[i], 4 * i) << "input " << i;
    EXPECT_EQ(t[64], 90);
    const uint8_t tail[8] = {224, 225, 226, 227, 227, 228, 229, 230};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(t[248 + i], tail[i]) << "input " << 248 + i;
}

TEST(GammaTab, NearUnitGammaAtMid100Top255IsTheIdentity) {
    const auto t = tone_table(0.99f, 100, 255);
    for (int i = 0; i < 256; ++i) EXPECT_EQ(t[i], i) << "input " << i;
}

TEST(GammaTab, EveryEntryWrittenAndFirstIsZero) {
    const float gammas[] = {0.3f, 0.5f, 1.0f, 1.7f, 3.0f};
    const int mids[] = {0, 1, 40, 64, 100, 128, 200, 255};
    const int tops[] = {0, 90, 230, 255, 300};
    for (float g : gammas)
        for (int m : mids)
            for (int top : tops) {
                std::array<uint8_t, 256> a, b;
                a.fill(0x00);
                b.fill(0xFF);
                create_gamma_tab(a.data(), nullptr, g, static_cast<uint8_t>(m), top);
                create_gamma_tab(b.data(), nullptr, g, static_cast<uint8_t>(m), top);
                EXPECT_EQ(a, b) << "an entry was left unwritten: gamma " << g << " mid " << m << " top " << top;
                EXPECT_EQ(a[0], 0) << "gamma " << g << " mid " << m << " top " << top;
            }
}

TEST(GammaTab, TopBelowTheJoinGivesAFallingLineTruncatedTowardZero) {
    // gamma 0.5, mid 128: b = 90; top 40: d = -50.
    const auto t = tone_table(0.5f, 128, 40);
    EXPECT_EQ(t[64], 90);
    EXPECT_EQ(t[65], 90);  // -50 / 191 truncates to 0
    EXPECT_EQ(t[68], 89);  // -200 / 191 = -1.05 -> -1 (a floor would give 88)
    EXPECT_EQ(t[255], 40);
    for (int i = 65; i < 256; ++i) EXPECT_LE(t[i], t[i - 1]) << "input " << i;
}

TEST(GammaTab, MidAtOrBelow64StartsTheLineAt64) {
    for (float g : {0.4f, 1.0f, 2.5f})
        for (int m : {1, 30, 57, 64}) {
            const auto t = tone_table(g, static_cast<uint8_t>(m), 250);
            EXPECT_EQ(t[64], 64) << "gamma " << g << " mid " << m;
            EXPECT_EQ(t[255], 250);
            // 64 + trunc(186 * k / 191)
            EXPECT_EQ(t[64 + 100], 64 + 97);
        }
}

TEST(GammaTab, PowerCurveWrapsAboveAByteWhenMidIsSmall) {
    // mid 8, gamma 2: block 56 runs between P(56) = 49 and P(64) = 64;
    // input 60 gives (49 + 4 * 15 / 8) * 8 = 452, stored as 452 - 256.
    const auto t = tone_table(2.0f, 8, 255);
    EXPECT_EQ(t[60], 196);
    EXPECT_EQ(t[8], 8);    // P(8) * 8 = 1 * 8
    EXPECT_EQ(t[16], 32);  // 4 * 8
    EXPECT_EQ(t[64], 64);
}

TEST(GammaTab, Mid200AtUnitGammaFallsOneShortWhereTheProductTruncates) {
    const auto t = tone_table(1.0f, 200, 230);
    EXPECT_EQ(t[64], 64);
    EXPECT_EQ(t[5], 4);
    EXPECT_EQ(t[10], 9);
    for (int i = 1; i < 64; ++i) {
        EXPECT_GE(t[i], i - 1) << "input " << i;
        EXPECT_LE(t[i], i) << "input " << i;
    }
}

TEST(GammaTab, StraightPartAtEveryAlignmentMatchesThePerPixelLine) {
    // The table ends exactly at the end of its allocation, so a write past
    // entry 255 is caught by the address sanitizer.
    for (int offset = 0; offset < 16; ++offset)
        for (int top : {0, 17, 90, 230, 255, 600, -300}) {
            std::vector<uint8_t> buf(offset + 256);
            uint8_t* out = buf.data() + offset;
            create_gamma_tab(out, nullptr, 0.5f, 128, top);
            std::array<uint8_t, 256> expected;
            std::copy(out, out + 256, expected.begin());
            gamma_line_c(expected.data(), expected[64], static_cast<int64_t>(top) - expected[64], 1, 192);
            for (int i = 0; i < 256; ++i)
                ASSERT_EQ(out[i], expected[i]) << "offset " << offset << " top " << top << " input " << i;
        }
}

TEST(GammaTab, PerPixelLineTruncatesTowardZeroForExtremeTops) {
    std::array<uint8_t, 256> out{};
    gamma_line_c(out.data(), 10, -1000, 1, 192);
    EXPECT_EQ(out[64 + 1], static_cast<uint8_t>(10 - 5));  // -1000 / 191 = -5.2
    EXPECT_EQ(out[255], static_cast<uint8_t>(10 - 1000));  // wraps mod 256
    gamma_line_c(out.data(), 10, 2147483647LL, 191, 192);
    EXPECT_EQ(out[255], static_cast<uint8_t>(10 + 2147483647LL));
}

#if QIMRA_HAVE_NEON
TEST(GammaTab, VectorLineIsExactForEveryReachableProduct) {
    // Every k in 1..191 and d in -255..255, with several bases: the vector
    // reciprocal division must agree with the integer division throughout.
    for (int32_t d = -255; d <= 255; ++d)
        for (int32_t b : {0, 1, 90, 128, 255}) {
            std::array<uint8_t, 256 + 16> c{}, v{};
            gamma_line_c(c.data(), b, d, 1, 192);
            gamma_line_neon(v.data(), b, d, 1, 177);
            gamma_line_neon(v.data(), b, d, 176, 192);
            for (int k = 1; k <= 191; ++k) ASSERT_EQ(v[64 + k], c[64 + k]) << "k " << k << " d " << d << " b " << b;
            for (int i = 256; i < 256 + 16; ++i) ASSERT_EQ(v[i], 0) << "wrote past the table";
        }
}
#endif

}  // namespace
}  // namespace qimra
