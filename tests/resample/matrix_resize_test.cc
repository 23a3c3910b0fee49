// The matrix resize: rounding helpers, the method choice (with its lopsided
// integer-scale test), the linear and area methods, and `cols` as the row
// pitch where the methods take it.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "resample/u_mat.h"
#include "support/engine_helpers.h"

namespace qimra::test {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes resized(const Bytes& src, int sw, int sh, int dw, int dh) {
    Bytes dst(static_cast<size_t>(dw) * dh, 0xEE);
    call_resize(src.data(), dst.data(), sw, sh, dw, dh);
    return dst;
}

Bytes resized_zent(Bytes& src, int sw, int sh, int dw, int dh, int interpolation, int src_step = 0, int dst_step = 0) {
    Bytes dst(static_cast<size_t>(dw) * dh, 0xEE);
    u_mat s{sh, sw, src_step ? src_step : sw, src.data()};
    u_mat d{dh, dw, dst_step ? dst_step : dw, dst.data()};
    resize_zent(&s, &d, zent_Size{dw, dh}, 0.0, 0.0, interpolation);
    return dst;
}

Bytes mean_2x2(const Bytes& src, int sw, int dw, int dh) {
    Bytes out;
    for (int y = 0; y < dh; ++y) {
        for (int x = 0; x < dw; ++x) {
            const uint8_t* p = &src[2 * y * sw + 2 * x];
            out.push_back(static_cast<uint8_t>((p[0] + p[1] + p[sw] + p[sw + 1] + 2) >> 2));
        }
    }
    return out;
}

TEST(MatResizeRounding, HalvesGoToTheEvenNeighbour) {
    EXPECT_EQ(round_Double2Int(2.5), 2);
    EXPECT_EQ(round_Double2Int(3.5), 4);
    EXPECT_EQ(round_Double2Int(-2.5), -2);
    EXPECT_EQ(round_Double2Int(-3.5), -4);
    EXPECT_EQ(round_Double2Int(-0.5), 0);
    EXPECT_EQ(round_Double2Int(2.4999), 2);
    EXPECT_EQ(round_Double2Int(-2.5001), -3);
    // Not a half, so v + 0.5 is truncated, and that sum rounds up to 1.0.
    EXPECT_EQ(round_Double2Int(0.49999999999999994), 1);
    EXPECT_EQ(round_Float2Int(2.5f), 2);
    EXPECT_EQ(round_Float2Int(3.5f), 4);
    EXPECT_EQ(round_Float2Int(-3.5f), -4);
    // The half is added in double: in float 0.49999997f + 0.5f would be 1.
    EXPECT_EQ(round_Float2Int(0.49999997f), 0);
}

TEST(MatResizeRounding, SaturatingCastsAndTheFloatJudgedFloor) {
    EXPECT_EQ(saturate_Castdouble2uchar(254.5), 254);
    EXPECT_EQ(saturate_Castdouble2uchar(255.5), 255);
    EXPECT_EQ(saturate_Castdouble2uchar(300.0), 255);
    EXPECT_EQ(saturate_Castdouble2uchar(-0.5), 0);
    EXPECT_EQ(saturate_Castdouble2uchar(-3.0), 0);
    EXPECT_EQ(saturate_Castfloat2short(32766.5f), 32766);
    EXPECT_EQ(saturate_Castfloat2short(32767.5f), 32767);
    EXPECT_EQ(saturate_Castfloat2short(-32768.5f), -32768);
    EXPECT_EQ(saturate_Castfloat2short(-40000.0f), -32768);
    EXPECT_EQ(saturate_Castfloat2short(1e9f), 32767);
    EXPECT_EQ(floor_Double2Int(2.5), 2);
    EXPECT_EQ(floor_Double2Int(3.5), 3);
    EXPECT_EQ(floor_Double2Int(-0.25), -1);
    EXPECT_EQ(ceil_Double2Int(2.5), 3);
    EXPECT_EQ(ceil_Double2Int(-0.25), 0);
    // The remainder underflows to zero in float: no step down (or up).
    EXPECT_EQ(floor_Double2Int(-1e-300), 0);
    EXPECT_EQ(ceil_Double2Int(1e-300), 0);
}

TEST(MatResizeDispatch, EqualSizesCopyThroughTheLinearPath) {
    Bytes src(13 * 7);
    fill_random(src.data(), src.size(), 1);
    EXPECT_EQ(resized(src, 13, 7, 13, 7), src);
}

TEST(MatResizeDispatch, ExactHalfAveragesTwoByTwoBlocks) {
    for (auto [sw, sh] : {std::pair{16, 10}, {70, 6}, {2, 2}}) {
        Bytes src(sw * sh);
        fill_random(src.data(), src.size(), static_cast<uint32_t>(sw * sh));
        EXPECT_EQ(resized(src, sw, sh, sw / 2, sh / 2), mean_2x2(src, sw, sw / 2, sh / 2)) << sw << "x" << sh;
    }
}

TEST(MatResizeDispatch, ReductionByOneAndAHalfTakesTheTwoByTwoAreaPath) {
    // Scale 1.5 rounds to 2 and passes the integer test, so 6 to 4 averages
    // 2 x 2 blocks; blocks starting at or beyond the source edge are zero.
    Bytes src(36);
    fill_random(src.data(), src.size(), 15);
    const Bytes got = resized(src, 6, 6, 4, 4);
    const Bytes means = mean_2x2(src, 6, 3, 3);
    for (int y = 0; y < 4; ++y) {
        for (int x = 0; x < 4; ++x) {
            const int expected = (x < 3 && y < 3) ? means[y * 3 + x] : 0;
            EXPECT_EQ(got[y * 4 + x], expected) << y << "," << x;
        }
    }
}

TEST(MatResizeDispatch, ZeroDestinationSizeComesFromTheRatios) {
    // 5 x 4 at ratio 0.5: round(2.5) = 2 columns, 2 rows, integer scale 2.
    Bytes src(20);
    fill_random(src.data(), src.size(), 4);
    Bytes dst(4, 0xEE);
    u_mat s{4, 5, 5, src.data()};
    u_mat d{2, 2, 2, dst.data()};
    resize_zent(&s, &d, zent_Size{0, 0}, 0.5, 0.5, 3);
    EXPECT_EQ(dst, mean_2x2(src, 5, 2, 2));
}

// The bilinear enlargement 2 x 2 to 4 x 4, worked by hand: phases 1/4 and
// 3/4, outer rows and columns clamped to the edge.
const Bytes kTwoByTwo = {0, 100, 100, 200};
const Bytes kBilinear4x4 = {0, 25, 75, 100, 25, 50, 100, 125, 75, 100, 150, 175, 100, 125, 175, 200};

TEST(ResizeLinearImage, EnlargementClampsTheLastRowsToTheLastSourceRow) {
    EXPECT_EQ(resized(kTwoByTwo, 2, 2, 4, 4), kBilinear4x4);
}

TEST(ResizeLinearImage, AreaRequestsToEnlargeKeepSourcePixelsWhole) {
    Bytes src = kTwoByTwo;
    EXPECT_EQ(resized_zent(src, 2, 2, 4, 4, 3),
              (Bytes{0, 0, 100, 100, 0, 0, 100, 100, 100, 100, 200, 200, 100, 100, 200, 200}));
    EXPECT_EQ(resized_zent(src, 2, 2, 4, 4, 7), kBilinear4x4);  // unknown codes are bilinear
}

TEST(ResizeLinearImage, RowsAreAddressedByColsNotStep) {
    // The matrices claim a huge step; pixels packed at `cols` are read and
    // written, and the buffers end where `cols` says.
    Bytes src = kTwoByTwo;
    EXPECT_EQ(resized_zent(src, 2, 2, 4, 4, 1, 1000, 1000), kBilinear4x4);
    Bytes nn = resized_zent(src, 2, 2, 4, 4, 0, 1000, 1000);
    EXPECT_EQ(nn, (Bytes{0, 0, 100, 100, 0, 0, 100, 100, 100, 100, 200, 200, 100, 100, 200, 200}));
}

TEST(ResizeLinearRows, ColumnsFromXmaxTakeTheirSourcePixelWhole) {
    const uint8_t s[3] = {10, 20, 30};
    const uint8_t* srows[1] = {s};
    const int xofs[4] = {0, 1, 2, 2};
    const int16_t alpha[8] = {1024, 1024, 512, 1536, 999, 999, 999, 999};
    std::vector<int> d(4);
    int* drows[1] = {d.data()};
    hresizeLinear(srows, drows, 1, xofs, alpha, 3, 4, 1, 0, 2, 2048);
    EXPECT_EQ(d, (std::vector<int>{30720, 56320, 61440, 61440}));
    // An xmax beyond the destination blends every destination column.
    const int xofs2[2] = {0, 1};
    std::vector<int> d2(2);
    drows[0] = d2.data();
    hresizeLinear(srows, drows, 1, xofs2, alpha, 3, 2, 1, 0, 9, 2048);
    EXPECT_EQ(d2, (std::vector<int>{30720, 56320}));
}

TEST(ResizeLinearRows, VerticalBlendTruncatesEachProductThenRounds) {
    // (1024 * (100 >> 4)) >> 16 = 0 and (1024 * (300000 >> 4)) >> 16 = 292:
    // (0 + 292 + 2) >> 2 = 73; a sum beyond 255 keeps its low byte.
    const int r0[2] = {100, 2048 * 255};
    const int r1[2] = {300000, 2048 * 300};
    const int* rows[2] = {r0, r1};
    const int16_t beta[2] = {1024, 1024};
    uint8_t out[2];
    vresizeLinear(rows, out, beta, 2);
    EXPECT_EQ(out[0], 73);
    EXPECT_EQ(out[1], 22);  // (510 + 600 + 2) >> 2 = 278
}

#if QIMRA_HAVE_NEON
TEST(ResizeLinearRows, VectorVerticalBlendMatchesPerPixelForm) {
    for (int width = 1; width <= 70; ++width) {
        std::vector<int> r0(width), r1(width);
        std::vector<uint8_t> raw(8 * width);
        fill_random(raw.data(), raw.size(), 7u * width);
        for (int x = 0; x < width; ++x) {
            // Signed values within +-2^20 keep the products inside int32.
            r0[x] = static_cast<int>((raw[8 * x] | raw[8 * x + 1] << 8 | (raw[8 * x + 2] & 0x1F) << 16)) - (1 << 20);
            r1[x] =
                static_cast<int>((raw[8 * x + 4] | raw[8 * x + 5] << 8 | (raw[8 * x + 6] & 0x1F) << 16)) - (1 << 20);
        }
        const int b0 = static_cast<int16_t>(raw[3] | raw[7] << 8);
        const int b1 = static_cast<int16_t>(raw[11 % raw.size()] | raw[3] << 8);
        std::vector<uint8_t> expect(width), got(width);
        vresizeLinear_c(r0.data(), r1.data(), expect.data(), b0, b1, 0, width);
        const int done = vresizeLinear_neon(r0.data(), r1.data(), got.data(), b0, b1, width);
        ASSERT_EQ(done, width / 16 * 16);
        vresizeLinear_c(r0.data(), r1.data(), got.data(), b0, b1, done, width);
        ASSERT_EQ(expect, got) << "width " << width;
    }
}
#endif

TEST(ResizeLinearImage, RowCacheGivesTheSameRowsAsResizingEachRowAfresh) {
    // Arbitrary tables: rows repeat, step back, and run off both edges.
    const int sw = 9, sh = 6, dw = 7, dh = 11;
    Bytes src(sw * sh);
    fill_random(src.data(), src.size(), 77);
    const int xofs[dw] = {0, 1, 2, 4, 6, 7, 8};
    int16_t alpha[2 * dw];
    for (int i = 0; i < dw; ++i)
        alpha[2 * i] = static_cast<int16_t>(2048 - 300 * i), alpha[2 * i + 1] = static_cast<int16_t>(300 * i);
    const int yofs[dh] = {-1, 0, 0, 1, 3, 2, 2, 4, 5, 5, 7};
    int16_t beta[2 * dh];
    for (int i = 0; i < dh; ++i)
        beta[2 * i] = static_cast<int16_t>(2048 - 180 * i), beta[2 * i + 1] = static_cast<int16_t>(180 * i);
    Bytes dst(dw * dh);
    u_mat s{sh, sw, sw, src.data()};
    u_mat d{dh, dw, dw, dst.data()};
    resizeLinear(&s, &d, xofs, alpha, yofs, beta, 0, 6, 2);
    for (int dy = 0; dy < dh; ++dy) {
        std::vector<int> h0(dw), h1(dw);
        const uint8_t* rows[2] = {&src[std::clamp(yofs[dy], 0, sh - 1) * sw],
                                  &src[std::clamp(yofs[dy] + 1, 0, sh - 1) * sw]};
        int* bufs[2] = {h0.data(), h1.data()};
        hresizeLinear(rows, bufs, 2, xofs, alpha, sw, dw, 1, 0, 6, 2048);
        const int* blend[2] = {h0.data(), h1.data()};
        uint8_t expected[dw];
        vresizeLinear(blend, expected, beta + 2 * dy, dw);
        EXPECT_EQ(Bytes(dst.begin() + dy * dw, dst.begin() + (dy + 1) * dw), Bytes(expected, expected + dw)) << dy;
    }
}

TEST(ResizeAreaTable, TwoAndAHalfFromFiveToTwo) {
    DecimateAlpha tab[10];
    ASSERT_EQ(computeResizeAreaTab(5, 2, 1, 2.5, tab), 6);
    const int si[6] = {0, 1, 2, 2, 3, 4};
    const int di[6] = {0, 0, 0, 1, 1, 1};
    const float alpha[6] = {0.4f, 0.4f, 0.2f, 0.2f, 0.4f, 0.4f};
    for (int k = 0; k < 6; ++k) {
        EXPECT_EQ(tab[k].si, si[k]) << k;
        EXPECT_EQ(tab[k].di, di[k]) << k;
        EXPECT_FLOAT_EQ(tab[k].alpha, alpha[k]) << k;
    }
    // Channels scale both indices.
    ASSERT_EQ(computeResizeAreaTab(5, 2, 3, 2.5, tab), 6);
    EXPECT_EQ(tab[4].si, 9);
    EXPECT_EQ(tab[4].di, 3);
    EXPECT_EQ(computeResizeAreaTab(5, 0, 1, 2.5, tab), 0);
}

TEST(ResizeAreaImage, GeneralReductionWeighsPartialPixels) {
    // 5 x 5 to 2 x 2 with area: rows 10..50 give 0.4, 0.4, 0.2 and 0.2,
    // 0.4, 0.4 weighted means 18 and 42; the matrices are addressed by cols.
    Bytes src;
    for (int v : {10, 20, 30, 40, 50}) src.insert(src.end(), 5, static_cast<uint8_t>(v));
    EXPECT_EQ(resized_zent(src, 5, 5, 2, 2, 3, 999, 999), (Bytes{18, 18, 42, 42}));
}

TEST(ResizeAreaImage, CutBlocksAverageOnlyThePixelsThatExist) {
    // 11 x 8 to 4 x 3: scales 2.75 and 2.67 round up to 3 and pass. Column
    // x holds 20 x, except 181 in column 9: the last column averages
    // columns 9 and 10 as (181 + 200) / 2 = 190.5, rounded to even.
    Bytes src(11 * 8);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 11; ++x) src[y * 11 + x] = static_cast<uint8_t>(x == 9 ? 181 : 20 * x);
    const Bytes row = {20, 80, 140, 190};
    Bytes expected;
    for (int y = 0; y < 3; ++y) expected.insert(expected.end(), row.begin(), row.end());
    EXPECT_EQ(resized_zent(src, 11, 8, 4, 3, 3), expected);
}

TEST(ResizeAreaImage, WholeBlockMeansRoundHalvesToEven) {
    // 2 x 1 blocks outside the 2 x 2 kernel: 0.5 -> 0 and 2.5 -> 2.
    Bytes src = {0, 1, 2, 3};
    EXPECT_EQ(resized_zent(src, 4, 1, 2, 1, 3), (Bytes{0, 2}));
}

TEST(ResizeAreaImage, FastPathReadsTheSourceByStepAndWritesByCols) {
    const int step = 7;
    Bytes src(step * 4);
    fill_random(src.data(), src.size(), 31);
    Bytes packed;
    for (int y = 0; y < 4; ++y) packed.insert(packed.end(), src.begin() + y * step, src.begin() + y * step + 6);
    EXPECT_EQ(resized_zent(src, 6, 4, 3, 2, 3, step, 500), mean_2x2(packed, 6, 3, 2));
}

TEST(ResizeAreaFastVec, OnlyTheTwoByTwoCaseIsHandled) {
    const uint8_t s[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    uint8_t d[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(resizeAreaFastVec(3, 3, 1, 6, s, d, 2), 0);
    EXPECT_EQ(resizeAreaFastVec(2, 3, 1, 6, s, d, 2), 0);
    EXPECT_EQ(d[0], 0xEE);
    // One channel: (1 + 2 + 7 + 8 + 2) >> 2 = 5, (3 + 4 + 9 + 10 + 2) >> 2 = 7.
    EXPECT_EQ(resizeAreaFastVec(2, 2, 1, 6, s, d, 3), 3);
    EXPECT_EQ(Bytes(d, d + 3), (Bytes{5, 7, 9}));
    // Three channels: one whole pixel from columns 0-2 and 3-5.
    uint8_t d3[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(resizeAreaFastVec(2, 2, 3, 6, s, d3, 4), 3);
    EXPECT_EQ(Bytes(d3, d3 + 4), (Bytes{6, 7, 8, 0xEE}));
    // Four channels from the 8-byte rows {1..8} and {5..12}: (1+5+5+9+2)>>2.
    uint8_t d4[4];
    EXPECT_EQ(resizeAreaFastVec(2, 2, 4, 4, s, d4, 4), 4);
    EXPECT_EQ(Bytes(d4, d4 + 4), (Bytes{5, 6, 7, 8}));
}

#if QIMRA_HAVE_NEON
TEST(ResizeAreaFastVec, VectorMeansMatchPerPixelForm) {
    for (int w = 1; w <= 70; ++w) {
        Bytes s0(2 * w), s1(2 * w), expect(w), got(w);
        fill_random(s0.data(), s0.size(), 5u * w);
        fill_random(s1.data(), s1.size(), 9u * w + 1);
        area_mean_2x2_c(s0.data(), s1.data(), expect.data(), 0, w);
        const int done = area_mean_2x2_neon(s0.data(), s1.data(), got.data(), w);
        ASSERT_EQ(done, w / 16 * 16);
        area_mean_2x2_c(s0.data(), s1.data(), got.data(), done, w);
        ASSERT_EQ(expect, got) << "w " << w;
    }
}
#endif

}  // namespace
}  // namespace qimra::test
