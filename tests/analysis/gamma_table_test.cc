// The tone table: power curve below 64, straight line from 64 to 255.
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <vector>

#include "analysis/gamma_table.h"
#include "engine/ctx.h"

namespace qimra {
namespace {

TEST(GammaTab, PinnedEntries) {
    struct Row {
        float gamma;
        int mid, top, input, want;
    } rows[] = {
        {0.5f, 128, 230, 1, 4},      {0.5f, 128, 230, 7, 28},  // interpolated power blocks, last entry included
        {0.5f, 128, 230, 8, 32},     {0.5f, 128, 230, 64, 90},   {0.5f, 128, 230, 248, 224},
        {0.5f, 128, 230, 251, 227},  {0.5f, 128, 230, 252, 227},  // 191 steps: 140 * k / 191 truncated
        {0.5f, 128, 230, 255, 230},  {0.5f, 128, 40, 65, 90},     // a falling line: -50 / 191 truncates to 0
        {0.5f, 128, 40, 68, 89},                                  // -200 / 191 toward zero, not the floor 88
        {0.5f, 128, -300, 65, 88},                                // -390 / 191 = -2.04
        {0.5f, 128, -300, 255, 212},                              // 90 - 390 wraps to its low byte
        {2.5f, 57, 250, 64, 64},    // mid at most 64: the line starts from 64 whatever the gamma
        {0.4f, 64, 250, 164, 161},  // 64 + trunc(186 * 100 / 191)
        {2.0f, 8, 255, 60, 196},    // (49 + 4 * 15 / 8) * 8 = 452 wraps
        {2.0f, 8, 255, 16, 32},     // the power part runs to 63 whatever the mid
        {1.0f, 200, 230, 5, 4},     // the single-precision product truncates one short
        {1.0f, 200, 230, 10, 9},
    };
    for (const Row& r : rows) {
        std::array<uint8_t, 256> t;
        t.fill(0xA5);
        create_gamma_tab(t.data(), nullptr, r.gamma, static_cast<uint8_t>(r.mid), r.top);
        EXPECT_EQ(t[r.input], r.want) << "gamma " << r.gamma << " mid " << r.mid << " top " << r.top << " in "
                                      << r.input;
    }
    std::array<uint8_t, 256> t;
    create_gamma_tab(t.data(), nullptr, 0.99f, 100, 255);
    for (int i = 0; i < 256; ++i) EXPECT_EQ(t[i], i) << "the relaxed curve must be the identity at " << i;
}

TEST(GammaTab, EveryEntryWrittenAndFirstIsZero) {
    for (float g : {0.3f, 0.5f, 1.0f, 1.7f, 3.0f})
        for (int m : {0, 1, 40, 64, 100, 128, 200, 255})
            for (int top : {0, 90, 230, 255, 300}) {
                std::array<uint8_t, 256> a, b;
                a.fill(0x00);
                b.fill(0xFF);
                create_gamma_tab(a.data(), nullptr, g, static_cast<uint8_t>(m), top);
                create_gamma_tab(b.data(), nullptr, g, static_cast<uint8_t>(m), top);
                EXPECT_EQ(a, b) << "an entry was left unwritten: gamma " << g << " mid " << m << " top " << top;
                EXPECT_EQ(a[0], 0) << "gamma " << g << " mid " << m << " top " << top;
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
            std::vector<uint8_t> want(out, out + 256);
            gamma_line_c(want.data(), want[64], static_cast<int64_t>(top) - want[64], 1, 192);
            ASSERT_EQ(std::vector<uint8_t>(out, out + 256), want) << "offset " << offset << " top " << top;
        }
}

#if QIMRA_HAVE_NEON
TEST(GammaTab, VectorLineIsExactForEveryReachableProduct) {
    // Every k in 1..191 and d in -255..255: the reciprocal division must
    // equal the integer division throughout, and write nothing past the table.
    for (int32_t d = -255; d <= 255; ++d)
        for (int32_t b : {0, 1, 90, 128, 255}) {
            std::array<uint8_t, 256 + 16> c{}, v{};
            gamma_line_c(c.data(), b, d, 1, 192);
            gamma_line_neon(v.data(), b, d, 1, 177);
            gamma_line_neon(v.data(), b, d, 176, 192);
            ASSERT_EQ(v, c) << "d " << d << " b " << b;
        }
}
#endif

}  // namespace
}  // namespace qimra
